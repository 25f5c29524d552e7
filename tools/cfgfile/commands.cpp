// commands.cpp - the commands of the cfgfile tool, each over one library call.
//
// The command line has been checked for the number of arguments and the
// options each command takes; what is checked here is what the arguments say.
#include <cctype>
#include <cstdio>
#include <cstring>
#include <grp.h>
#include <map>

#include "cfgfile_api.h"
#include "cfgfile_tool.h"

namespace cfgtool {

namespace {

// Lines are read in pieces of at most 1199 bytes, so a value is shorter.
constexpr size_t kValueBufferSize = 1200;
constexpr size_t kLineBufferSize = 64 * 1024;
// A file that keeps changing under a command is read at most this often.
constexpr int kMaxReads = 8;

// Where a value is looked up, and the default asked for, if any.
struct Lookup {
    const char *szFile;
    const char *szSection;
    const char *szKey;
    const char *szDefault; // nullptr: no --default
};

// What a getter gave: its result, and the value as printed when it stored one.
struct Fetched {
    int iResult;
    std::string sText;
    bool bUnknownName = false; // the library gave the default for a text it does not know
};

// Results for which a getter stores the default: the value is not there.
bool IsMissingValue(int iResult) {
    return iResult == CFGFILE_SECTION_NOT_FOUND || iResult == CFGFILE_KEY_NOT_FOUND ||
           iResult == CFGFILE_FILE_ACCESS;
}

int RefuseDefault(const Lookup &at, ValueType type) {
    return ReportWhy("get", CFGFILE_BAD_PARAMETERS, "--default '%s' is not a valid %s",
                     at.szDefault, ValueTypeName(type));
}

// Bools and video names the library does not know give the default with
// success. Without a --default the value is fetched with two different
// defaults: when both come back, the text named nothing.
Fetched Unrecognised() {
    return {CFGFILE_BAD_VALUE, "", true};
}

Fetched FetchString(const Lookup &at) {
    std::vector<char> vcBuffer(kValueBufferSize);
    const char *szDefault = at.szDefault != nullptr ? at.szDefault : "";
    int iResult = CFGFILE_FAILURE;
    for (int iRead = 0; iRead < kMaxReads; ++iRead) {
        size_t nSize = vcBuffer.size();
        iResult = CfgFile_GetStringValue(at.szFile, at.szSection, at.szKey, vcBuffer.data(), &nSize,
                                         szDefault);
        // A larger size than passed means the value was cut: fetch it again whole.
        if (iResult != CFGFILE_SUCCESS || nSize <= vcBuffer.size())
            break;
        vcBuffer.resize(nSize);
    }
    if (iResult != CFGFILE_SUCCESS && !IsMissingValue(iResult))
        return {iResult, ""};
    return {iResult, vcBuffer.data()};
}

// The int, uint, int64 and float getters share one shape.
template <class T, class Getter, class Parser, class Printer>
Fetched FetchNumber(const Lookup &at, ValueType type, Getter pfnGet, Parser pfnParse,
                    Printer pfnPrint, int *piExit) {
    T defaultValue{};
    if (at.szDefault != nullptr && !pfnParse(at.szDefault, &defaultValue)) {
        *piExit = RefuseDefault(at, type);
        return {};
    }
    T value{};
    const int iResult = pfnGet(at.szFile, at.szSection, at.szKey, &value, defaultValue);
    return {iResult, pfnPrint(value)};
}

Fetched FetchBool(const Lookup &at, int *piExit) {
    bool bDefault = false;
    if (at.szDefault != nullptr && !ParseBool(at.szDefault, &bDefault)) {
        *piExit = RefuseDefault(at, ValueType::Bool);
        return {};
    }
    BOOL bValue = FALSE;
    const int iResult =
        CfgFile_GetBooleanValue(at.szFile, at.szSection, at.szKey, &bValue, bDefault);
    if (iResult == CFGFILE_SUCCESS && at.szDefault == nullptr) {
        BOOL bProbe = FALSE;
        CfgFile_GetBooleanValue(at.szFile, at.szSection, at.szKey, &bProbe, TRUE);
        if (bProbe != bValue)
            return Unrecognised();
    }
    return {iResult, bValue ? "yes" : "no"};
}

Fetched FetchVideoFormat(const Lookup &at, int *piExit) {
    uint64_t nDefault = 0;
    if (at.szDefault != nullptr && !ParseUint64(at.szDefault, &nDefault)) {
        *piExit = RefuseDefault(at, ValueType::VideoFormat);
        return {};
    }
    VIDEO_FORMAT nValue = 0;
    const int iResult = CfgFile_GetVideoFormatValue(at.szFile, at.szSection, at.szKey, &nValue,
                                                    static_cast<long>(nDefault));
    if (iResult == CFGFILE_SUCCESS && at.szDefault == nullptr) {
        VIDEO_FORMAT nProbe = 0;
        CfgFile_GetVideoFormatValue(at.szFile, at.szSection, at.szKey, &nProbe, 1);
        if (nProbe != nValue)
            return Unrecognised();
    }
    return {iResult, std::to_string(nValue)};
}

Fetched FetchVideoResolution(const Lookup &at, int *piExit) {
    int64_t nDefault = 0;
    if (at.szDefault != nullptr && !ParseInt64(at.szDefault, &nDefault)) {
        *piExit = RefuseDefault(at, ValueType::VideoResolution);
        return {};
    }
    long lValue = 0;
    const int iResult =
        CfgFile_GetVideoResolutionValue(at.szFile, at.szSection, at.szKey, &lValue, nDefault);
    if (iResult == CFGFILE_SUCCESS && at.szDefault == nullptr) {
        long lProbe = 0;
        CfgFile_GetVideoResolutionValue(at.szFile, at.szSection, at.szKey, &lProbe, 1);
        if (lProbe != lValue)
            return Unrecognised();
    }
    return {iResult, std::to_string(lValue)};
}

std::string FormatSize(UINT nWidth, UINT nHeight) {
    return std::to_string(nWidth) + "x" + std::to_string(nHeight);
}

Fetched FetchVideoSize(const Lookup &at, int *piExit) {
    unsigned nDefaultWidth = 0, nDefaultHeight = 0;
    if (at.szDefault != nullptr && !ParseSize(at.szDefault, &nDefaultWidth, &nDefaultHeight)) {
        *piExit = RefuseDefault(at, ValueType::VideoSize);
        return {};
    }
    UINT nWidth = 0, nHeight = 0;
    const int iResult = CfgFile_GetVideoSizeValues(at.szFile, at.szSection, at.szKey, &nWidth,
                                                   nDefaultWidth, &nHeight, nDefaultHeight);
    if (iResult == CFGFILE_SUCCESS && at.szDefault == nullptr) {
        UINT nProbeWidth = 0, nProbeHeight = 0;
        CfgFile_GetVideoSizeValues(at.szFile, at.szSection, at.szKey, &nProbeWidth, 1,
                                   &nProbeHeight, 1);
        if (nProbeWidth != nWidth || nProbeHeight != nHeight)
            return Unrecognised();
    }
    return {iResult, FormatSize(nWidth, nHeight)};
}

std::string PrintInt(int nValue) {
    return std::to_string(nValue);
}
std::string PrintUint(unsigned nValue) {
    return std::to_string(nValue);
}
std::string PrintInt64(INT64 nValue) {
    return std::to_string(nValue);
}

Fetched Fetch(const Lookup &at, ValueType type, int *piExit) {
    switch (type) {
    case ValueType::String:
        return FetchString(at);
    case ValueType::Int:
        return FetchNumber<int>(at, type, CfgFile_GetIntValue, ParseInt, PrintInt, piExit);
    case ValueType::Uint:
        return FetchNumber<unsigned>(at, type, CfgFile_GetUnsignedIntValue, ParseUint, PrintUint,
                                     piExit);
    case ValueType::Int64:
        return FetchNumber<INT64>(at, type, CfgFile_GetInt64Value, ParseInt64, PrintInt64, piExit);
    case ValueType::Float:
        return FetchNumber<float>(at, type, CfgFile_GetFloatValue, ParseFloat, FormatFloat, piExit);
    case ValueType::Bool:
        return FetchBool(at, piExit);
    case ValueType::VideoFormat:
        return FetchVideoFormat(at, piExit);
    case ValueType::VideoResolution:
        return FetchVideoResolution(at, piExit);
    case ValueType::VideoSize:
        return FetchVideoSize(at, piExit);
    }
    return {CFGFILE_FAILURE, ""};
}

// Converts szValue to the type and calls the type's setter; a text that is
// not a value of the type is refused before the file is touched.
int SetTyped(const char *szFile, const char *szSection, const char *szKey, const char *szValue,
             ValueType type, int nPrecision) {
    int nInt = 0;
    unsigned nUint = 0;
    int64_t nInt64 = 0;
    float fValue = 0;
    bool bValue = false;
    switch (type) {
    case ValueType::Int:
        if (!ParseInt(szValue, &nInt))
            break;
        return Report("set", CfgFile_SetIntValue(szFile, szSection, szKey, nInt));
    case ValueType::Uint:
        if (!ParseUint(szValue, &nUint))
            break;
        return Report("set", CfgFile_SetUnsignedIntValue(szFile, szSection, szKey, nUint));
    case ValueType::Int64:
        if (!ParseInt64(szValue, &nInt64))
            break;
        return Report("set", CfgFile_SetInt64Value(szFile, szSection, szKey, nInt64));
    case ValueType::Float:
        if (!ParseFloat(szValue, &fValue))
            break;
        return Report("set", CfgFile_SetFloatValue(szFile, szSection, szKey, fValue, nPrecision));
    case ValueType::Bool:
        if (!ParseBool(szValue, &bValue))
            break;
        return Report("set", CfgFile_SetBooleanValue(szFile, szSection, szKey, bValue));
    default:
        return Report("set", CfgFile_SetStringValue(szFile, szSection, szKey, szValue));
    }
    return ReportWhy("set", CFGFILE_BAD_PARAMETERS, "'%s' is not a valid %s", szValue,
                     ValueTypeName(type));
}

// Lists the keys of a section into *pvsKeys. Returns the library's result.
int ListKeys(const char *szFile, const char *szSection, std::vector<std::string> *pvsKeys) {
    size_t nSize = 0;
    unsigned nCount = 0;
    int iResult = CfgFile_EnumerateKeys(szFile, szSection, nullptr, &nSize, &nCount);
    std::vector<char> vcNames;
    // The file may grow between the measure and the copy: measure again then.
    for (int iRead = 0; iResult == CFGFILE_SUCCESS && nSize > vcNames.size() && iRead < kMaxReads;
         ++iRead) {
        vcNames.resize(nSize);
        iResult = CfgFile_EnumerateKeys(szFile, szSection, vcNames.data(), &nSize, &nCount);
    }
    const char *pcName = vcNames.data();
    for (unsigned iName = 0; iResult == CFGFILE_SUCCESS && iName < nCount; ++iName) {
        pvsKeys->emplace_back(pcName);
        pcName += strlen(pcName) + 1;
    }
    return iResult;
}

// A shell variable name for a key: bytes other than [A-Za-z0-9_] become '_',
// and a leading digit gets a '_' before it.
std::string VariableName(const std::string &sKey) {
    std::string sName = isdigit(static_cast<unsigned char>(sKey[0])) ? "_" : "";
    for (const char c : sKey)
        sName += isalnum(static_cast<unsigned char>(c)) != 0 && (c & 0x80) == 0 ? c : '_';
    return sName;
}

// sText in single quotes, each ' as '\'': sh takes all of it literally.
std::string ShellQuoted(const std::string &sText) {
    std::string sQuoted = "'";
    for (const char c : sText)
        sQuoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return sQuoted + "'";
}

// The line commands: the library takes an empty prefix for a programming error
// (find-line) or matches every line with it; neither is what a user means.
bool RefuseEmptyPrefix(const char *szCommand, const char *szPrefix, int *piExit) {
    if (szPrefix[0] != '\0')
        return false;
    *piExit = ReportWhy(szCommand, CFGFILE_BAD_PARAMETERS, "the prefix is empty");
    return true;
}

} // namespace

int RunGet(const Arguments &args) {
    ValueType type = ValueType::String;
    ParseValueType(args.szType != nullptr ? args.szType : "string", &type);
    const Lookup at{args.vszPositional[0], args.vszPositional[1], args.vszPositional[2],
                    args.szDefault};
    int iExit = 0;
    const Fetched fetched = Fetch(at, type, &iExit);
    if (iExit != 0)
        return iExit;
    // A default stands in for a missing value; a value that is there but
    // malformed is still an error.
    const bool bUsable = fetched.iResult == CFGFILE_SUCCESS ||
                         (at.szDefault != nullptr && IsMissingValue(fetched.iResult));
    if (fetched.bUnknownName)
        return ReportWhy("get", fetched.iResult, "the value names no known %s",
                         ValueTypeName(type));
    if (!bUsable)
        return Report("get", fetched.iResult);
    printf("%s\n", fetched.sText.c_str());
    return 0;
}

int RunSet(const Arguments &args) {
    ValueType type = ValueType::String;
    ParseValueType(args.szType != nullptr ? args.szType : "string", &type);
    int nPrecision = 6;
    if (args.szPrecision != nullptr && !ParseInt(args.szPrecision, &nPrecision))
        return ReportWhy("set", CFGFILE_BAD_PARAMETERS, "--precision '%s' is not a valid int",
                         args.szPrecision);
    // One triple keeps the typed setter; several go in one rewrite.
    if (args.vszPositional.size() > 4)
        return RunSetMany(args, type, nPrecision);
    return SetTyped(args.vszPositional[0], args.vszPositional[1], args.vszPositional[2],
                    args.vszPositional[3], type, nPrecision);
}

int RunDeleteKey(const Arguments &args) {
    return Report("del-key", CfgFile_DeleteKey(args.vszPositional[0], args.vszPositional[1],
                                               args.vszPositional[2]));
}

int RunClearSection(const Arguments &args) {
    return Report("clear-section",
                  CfgFile_DeleteAllSectionKeys(args.vszPositional[0], args.vszPositional[1]));
}

int RunDeleteSections(const Arguments &args) {
    return Report("del-sections",
                  CfgFile_DeleteSections(args.vszPositional[0], args.vszPositional[1]));
}

int RunSections(const Arguments &args) {
    const char *szFile = args.vszPositional[0];
    const char *szPrefix = args.vszPositional.size() > 1 ? args.vszPositional[1] : "";
    size_t nSize = 0;
    unsigned nCount = 0;
    int iResult = CfgFile_EnumerateSections(szFile, szPrefix, nullptr, &nSize, &nCount);
    std::vector<char> vcNames;
    // The file may grow between the measure and the copy: measure again then.
    for (int iRead = 0; iResult == CFGFILE_SUCCESS && nSize > vcNames.size() && iRead < kMaxReads;
         ++iRead) {
        vcNames.resize(nSize);
        iResult = CfgFile_EnumerateSections(szFile, szPrefix, vcNames.data(), &nSize, &nCount);
    }
    if (iResult != CFGFILE_SUCCESS)
        return Report("sections", iResult);
    const char *pcName = vcNames.data();
    for (unsigned iName = 0; iName < nCount; ++iName) {
        printf("%s\n", pcName);
        pcName += strlen(pcName) + 1;
    }
    return 0;
}

int RunKeys(const Arguments &args) {
    std::vector<std::string> vsKeys;
    const int iResult = ListKeys(args.vszPositional[0], args.vszPositional[1], &vsKeys);
    if (iResult != CFGFILE_SUCCESS)
        return Report("keys", iResult);
    for (const std::string &sKey : vsKeys)
        printf("%s\n", sKey.c_str());
    return 0;
}

int RunShow(const Arguments &args) {
    const bool bShell = args.szFormat != nullptr && strcmp(args.szFormat, "sh") == 0;
    std::vector<std::string> vsKeys;
    const int iResult = ListKeys(args.vszPositional[0], args.vszPositional[1], &vsKeys);
    if (iResult != CFGFILE_SUCCESS)
        return Report("show", iResult);
    std::string sOutput;
    std::map<std::string, std::string> mKeyOfName; // variable name -> the key that took it
    for (const std::string &sKey : vsKeys) {
        const Fetched fetched =
            FetchString({args.vszPositional[0], args.vszPositional[1], sKey.c_str(), nullptr});
        // Printed only when every value could be read, so that a script never
        // takes part of a section for the whole.
        if (fetched.iResult != CFGFILE_SUCCESS)
            return ReportWhy("show", fetched.iResult, "cannot read key '%s'", sKey.c_str());
        if (!bShell) {
            sOutput += sKey + "=" + fetched.sText + "\n";
            continue;
        }
        const std::string sName = VariableName(sKey);
        const auto [it, bNew] = mKeyOfName.emplace(sName, sKey);
        if (!bNew) {
            fprintf(stderr, "cfgfile: show: warning: key '%s' left out: %s is key '%s'\n",
                    sKey.c_str(), sName.c_str(), it->second.c_str());
            continue;
        }
        sOutput += sName + "=" + ShellQuoted(fetched.sText) + "\n";
    }
    fputs(sOutput.c_str(), stdout);
    return 0;
}

int RunFindLine(const Arguments &args) {
    const char *szPrefix = args.vszPositional[1];
    int iExit = 0;
    if (RefuseEmptyPrefix("find-line", szPrefix, &iExit))
        return iExit;
    std::vector<char> vcLine(kLineBufferSize);
    size_t nSize = vcLine.size();
    const int iResult =
        CfgFile_FindLineStartingWith(args.vszPositional[0], szPrefix, vcLine.data(), &nSize);
    if (iResult != CFGFILE_SUCCESS)
        return Report("find-line", iResult);
    fwrite(vcLine.data(), 1, nSize, stdout);
    putchar('\n');
    return 0;
}

int RunCommentLine(const Arguments &args) {
    int iExit = 0;
    if (RefuseEmptyPrefix("comment-line", args.vszPositional[1], &iExit))
        return iExit;
    return Report("comment-line",
                  CfgFile_CommentLineStartingWith(args.vszPositional[0], args.vszPositional[1]));
}

int RunDeleteLine(const Arguments &args) {
    int iExit = 0;
    if (RefuseEmptyPrefix("del-line", args.vszPositional[1], &iExit))
        return iExit;
    return Report("del-line",
                  CfgFile_DeleteLineStartingWith(args.vszPositional[0], args.vszPositional[1]));
}

int RunChangeGroup(const Arguments &args) {
    const char *szGroup = args.vszPositional[1];
    // A group name wins over a number, as for chgrp(1).
    gid_t groupId = 0;
    const struct group *pGroup = getgrnam(szGroup);
    unsigned nNumber = 0;
    if (pGroup != nullptr)
        groupId = pGroup->gr_gid;
    else if (ParseUint(szGroup, &nNumber) && static_cast<gid_t>(nNumber) != static_cast<gid_t>(-1))
        groupId = static_cast<gid_t>(nNumber);
    else
        return ReportWhy("chgrp", CFGFILE_BAD_PARAMETERS, "no group '%s'", szGroup);
    return Report("chgrp", CfgFile_SetGroupOwnership(args.vszPositional[0], groupId));
}

} // namespace cfgtool
