// changes.cpp - commands that make several changes of one file in one rewrite:
// "apply" with a script of changes, and "set" with several triples.
//
// Every change is read and checked first; the file is then changed by one
// CfgFile_ApplyChanges, which makes all of them or none.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "cfgfile_api.h"
#include "cfgfile_tool.h"

namespace cfgtool {

namespace {

// One change read from a script or a command line; bSet false removes the key.
struct Change {
    std::string sSection;
    std::string sKey;
    std::string sValue;
    bool bSet;
};

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

// Splits a script line into words as sh does, without any expansion: blanks
// separate words; '...' keeps everything literally; in "..." a backslash
// escapes only " \ $ and `; elsewhere a backslash escapes the next character;
// an unquoted '#' at the start of a word begins a comment. Returns nullptr, or
// what is wrong with the line.
const char *SplitWords(std::string_view svLine, std::vector<std::string> *pvsWords) {
    size_t i = 0;
    const size_t n = svLine.size();
    for (;;) {
        while (i < n && IsBlank(svLine[i]))
            ++i;
        if (i == n || svLine[i] == '#')
            return nullptr;
        std::string sWord;
        while (i < n && !IsBlank(svLine[i])) {
            const char c = svLine[i++];
            if (c == '\'') {
                const size_t nEnd = svLine.find('\'', i);
                if (nEnd == std::string_view::npos)
                    return "unterminated single quote";
                sWord.append(svLine.substr(i, nEnd - i));
                i = nEnd + 1;
            } else if (c == '"') {
                for (;;) {
                    if (i == n)
                        return "unterminated double quote";
                    char cIn = svLine[i++];
                    if (cIn == '"')
                        break;
                    if (cIn == '\\' && i < n && strchr("\"\\$`", svLine[i]) != nullptr)
                        cIn = svLine[i++];
                    sWord += cIn;
                }
            } else if (c == '\\') {
                if (i == n)
                    return "backslash at the end of the line";
                sWord += svLine[i++];
            } else {
                sWord += c;
            }
        }
        pvsWords->push_back(std::move(sWord));
    }
}

// Reads one script line into *pChange. Returns nullptr, or what is wrong.
// *pbChange is false for a line without a change (blank, comment).
const char *ParseLine(std::string_view svLine, Change *pChange, bool *pbChange,
                      std::string *psWhy) {
    *pbChange = false;
    if (svLine.find_first_of(std::string_view("\r\0", 2)) != std::string_view::npos)
        return "a carriage return or NUL byte";
    std::vector<std::string> vsWords;
    if (const char *szError = SplitWords(svLine, &vsWords))
        return szError;
    if (vsWords.empty())
        return nullptr;
    const std::string &sVerb = vsWords[0];
    const bool bSet = sVerb == "set";
    if (!bSet && sVerb != "del-key") {
        *psWhy = "unknown verb '" + sVerb + "' (set or del-key)";
        return psWhy->c_str();
    }
    if (vsWords.size() != (bSet ? 4u : 3u))
        return bSet ? "set takes SECTION KEY VALUE (quote a VALUE with blanks)"
                    : "del-key takes SECTION KEY";
    if (vsWords[1].empty() || vsWords[2].empty())
        return "empty section or key name";
    *pChange = {vsWords[1], vsWords[2], bSet ? vsWords[3] : std::string(), bSet};
    *pbChange = true;
    return nullptr;
}

// Makes the changes in one rewrite of szFile.
int ApplyAll(const char *szCommand, const char *szFile, const std::vector<Change> &vChanges) {
    std::vector<CFGFILE_CHANGE> vApiChanges;
    vApiChanges.reserve(vChanges.size());
    for (const Change &change : vChanges)
        vApiChanges.push_back({change.sSection.c_str(), change.sKey.c_str(),
                               change.bSet ? change.sValue.c_str() : nullptr});
    return Report(szCommand, CfgFile_ApplyChanges(szFile, vApiChanges.data(), vApiChanges.size()));
}

} // namespace

int RunApply(const Arguments &args) {
    const char *szFile = args.vszPositional[0];
    const bool bStdin = args.szScript == nullptr || strcmp(args.szScript, "-") == 0;
    const char *szScript = bStdin ? "standard input" : args.szScript;
    FILE *pScript = bStdin ? stdin : fopen(szScript, "re");
    if (pScript == nullptr)
        return ReportWhy("apply", CFGFILE_FILE_ACCESS, "cannot open %s: %s", szScript,
                         strerror(errno));
    std::vector<Change> vChanges;
    unsigned nLine = 0, nBadLines = 0;
    char *pcLine = nullptr;
    size_t nCapacity = 0;
    ssize_t nLength;
    std::string sWhy;
    bool bTooMany = false;
    while ((nLength = getline(&pcLine, &nCapacity, pScript)) >= 0) {
        ++nLine;
        std::string_view svLine(pcLine, static_cast<size_t>(nLength));
        if (!svLine.empty() && svLine.back() == '\n')
            svLine.remove_suffix(1);
        Change change;
        bool bChange = false;
        const char *szError = ParseLine(svLine, &change, &bChange, &sWhy);
        // Changes past the most one call takes: the first is reported.
        if (szError == nullptr && bChange && vChanges.size() >= CFGFILE_MAX_CHANGES) {
            if (bTooMany)
                continue;
            bTooMany = true;
            sWhy = "more than " + std::to_string(CFGFILE_MAX_CHANGES) + " changes";
            szError = sWhy.c_str();
        }
        if (szError != nullptr) {
            fprintf(stderr, "cfgfile: apply: line %u: %s\n", nLine, szError);
            ++nBadLines;
        } else if (bChange) {
            vChanges.push_back(std::move(change));
        }
    }
    free(pcLine);
    const bool bReadError = ferror(pScript) != 0;
    if (!bStdin)
        fclose(pScript);
    if (bReadError)
        return ReportWhy("apply", CFGFILE_FAILURE, "cannot read %s; %s not changed", szScript,
                         szFile);
    if (nBadLines > 0)
        return ReportWhy("apply", CFGFILE_BAD_PARAMETERS, "%u bad line(s); %s not changed",
                         nBadLines, szFile);
    return ApplyAll("apply", szFile, vChanges);
}

int RunSetMany(const Arguments &args, ValueType type, int nPrecision) {
    const size_t nTriples = (args.vszPositional.size() - 1) / 3;
    if (nTriples > CFGFILE_MAX_CHANGES)
        return ReportWhy("set", CFGFILE_BAD_PARAMETERS, "%zu keys; one set takes at most %d",
                         nTriples, CFGFILE_MAX_CHANGES);
    std::vector<Change> vChanges;
    for (size_t iTriple = 0; iTriple < nTriples; ++iTriple) {
        const char *const *pszArg = &args.vszPositional[1 + 3 * iTriple];
        std::string sText;
        if (!TypedText(pszArg[2], type, nPrecision, &sText))
            return ReportWhy("set", CFGFILE_BAD_PARAMETERS, "'%s' is not a valid %s", pszArg[2],
                             ValueTypeName(type));
        vChanges.push_back({pszArg[0], pszArg[1], std::move(sText), true});
    }
    return ApplyAll("set", args.vszPositional[0], vChanges);
}

} // namespace cfgtool
