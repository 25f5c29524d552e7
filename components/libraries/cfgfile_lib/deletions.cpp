// deletions.cpp - the changes that remove: whole sections, one key, all keys
// of a section; and the line operations that comment out or remove the
// first line that begins with a prefix.
#include "rewrite.h"

namespace cfglib {
namespace {

constexpr char kDeleteSections[] = "CfgFile_DeleteSections";
constexpr char kDeleteKey[] = "CfgFile_DeleteKey";
constexpr char kDeleteAllSectionKeys[] = "CfgFile_DeleteAllSectionKeys";

// Leaves out whole sections chosen by name, or by a prefix ending in "*".
class SectionRemover {
  public:
    explicit SectionRemover(const char *szSectionPrefix) : m_szSectionPrefix(szSectionPrefix) {
        m_nSectionPrefixLen = strlen(szSectionPrefix);
        if (m_nSectionPrefixLen > 0 && szSectionPrefix[m_nSectionPrefixLen - 1] == '*') {
            m_bFullSectionMatch = false;
            --m_nSectionPrefixLen;
        }
    }

    bool InTail() const { return false; }
    bool Changed() const { return true; }
    bool Finish(OutputFile &) { return true; }
    // Up to the next section line, lines are copied, or left out in a chosen section.
    LineFilter Passable() const {
        if (m_bInSection)
            return SectionLines({}, true);
        return SectionLines({m_szSectionPrefix, m_nSectionPrefixLen});
    }

    Verdict Classify(const RewriteLine &line, OutputFile &) {
        if (line.nLength <= kShortLineLength && !m_bInSection)
            return Verdict::Copy;
        // Over-long lines and an unterminated last line stay whole.
        if (!line.IsWholeLine())
            return Verdict::Copy;
        const char *pcLine = SkipBlanks(line.szText);
        if (*pcLine != '[')
            return m_bInSection ? Verdict::LeaveOut : Verdict::Copy;
        // Every section line ends a selected section and may start another.
        m_bInSection = false;
        const char *pcName = ExamineSectionLine({kDeleteSections, nullptr, 0}, line.iLineCount,
                                                pcLine, m_szSectionBuffer);
        if (pcName == nullptr || !Selects(pcName))
            return Verdict::Copy;
        m_bInSection = true;
        return Verdict::LeaveOut;
    }

  private:
    bool Selects(const char *szName) const {
        if (m_bFullSectionMatch)
            return strcasecmp(m_szSectionPrefix, szName) == 0;
        return strncasecmp(m_szSectionPrefix, szName, m_nSectionPrefixLen) == 0;
    }

    const char *m_szSectionPrefix;
    size_t m_nSectionPrefixLen;
    bool m_bFullSectionMatch = true;
    bool m_bInSection = false;
    char m_szSectionBuffer[kNameBufferSize];
};

// Leaves out the first line of a key in the first section of that name that holds it.
class KeyRemover {
  public:
    KeyRemover(const char *szSection, const char *szKeyName)
        : m_szSection(szSection), m_szKeyName(szKeyName) {}

    bool InTail() const { return false; }
    bool Changed() const { return m_bKeyDeleted; }
    bool Finish(OutputFile &) { return true; }
    LineFilter Passable() const {
        return m_bInSection ? kLookAtEveryLine : SectionLines(m_szSection);
    }

    Verdict Classify(const RewriteLine &line, OutputFile &) {
        if (line.nLength <= kShortLineLength && !m_bInSection)
            return Verdict::Copy;
        if (!line.IsWholeLine())
            return Verdict::Copy;
        const char *pcLine = SkipBlanks(line.szText);
        if (m_bInSection && *pcLine == '[') {
            // The section ends without the key: with nothing changed, the
            // file stays as it is. After a deletion, a later section of the
            // same name may still follow, so the scan goes on.
            if (!m_bKeyDeleted)
                return Verdict::Stop;
            m_bInSection = false;
        }
        if (!m_bInSection) {
            if (*pcLine == '[') {
                const char *pcName = ExamineSectionLine({kDeleteKey, nullptr, 0}, line.iLineCount,
                                                        pcLine, m_szSectionBuffer);
                m_bInSection = pcName != nullptr && strcasecmp(m_szSection, pcName) == 0;
            }
            return Verdict::Copy;
        }
        const char *pcEquals = strchr(pcLine, '=');
        if (pcEquals == nullptr)
            return Verdict::Copy;
        const char *pcTrimmedKeyName = ExtractKeyName(pcLine, pcEquals, m_szKeyNameBuffer);
        if (pcTrimmedKeyName == nullptr)
            return Verdict::Copy;
        CFG_TRACE_AS(kDeleteKey, 7, "key=\"%s\".\n", pcTrimmedKeyName);
        if (strcasecmp(m_szKeyName, pcTrimmedKeyName) != 0)
            return Verdict::Copy;
        m_bKeyDeleted = true;
        m_bInSection = false;
        return Verdict::LeaveOut;
    }

  private:
    const char *m_szSection;
    const char *m_szKeyName;
    bool m_bInSection = false;
    bool m_bKeyDeleted = false;
    char m_szSectionBuffer[kNameBufferSize];
    char m_szKeyNameBuffer[kNameBufferSize];
};

// Leaves out every line holding "=" in each section of a name.
class SectionKeysRemover {
  public:
    explicit SectionKeysRemover(const char *szSection) : m_szSection(szSection) {}

    bool InTail() const { return false; }
    bool Changed() const { return m_bKeyDeleted; }
    bool Finish(OutputFile &) { return true; }
    LineFilter Passable() const {
        return m_bInSection ? kLookAtEveryLine : SectionLines(m_szSection);
    }

    Verdict Classify(const RewriteLine &line, OutputFile &) {
        if ((line.nLength <= kShortLineLength && !m_bInSection) || !line.IsWholeLine())
            return Copying(line);
        const char *pcLine = SkipBlanks(line.szText);
        if (!m_bInSection) {
            if (*pcLine == '[' && NamesSection(line, pcLine)) {
                CFG_TRACE_AS(kDeleteAllSectionKeys, 7, "line %d, Found section: %s.\n",
                             line.iLineCount, m_szSection);
                m_bInSection = true;
            }
            return Copying(line);
        }
        // Any line that begins with "[" ends the section, unexamined.
        if (*pcLine == '[') {
            CFG_TRACE_AS(kDeleteAllSectionKeys, 7, "line %d, Found end of section: %s.\n",
                         line.iLineCount, m_szSection);
            m_bInSection = false;
            return Copying(line);
        }
        if (strchr(pcLine, '=') == nullptr)
            return Copying(line);
        CFG_TRACE_AS(kDeleteAllSectionKeys, 7, "Deleting line %d.\n", line.iLineCount);
        m_bKeyDeleted = true;
        return Verdict::LeaveOut;
    }

  private:
    bool NamesSection(const RewriteLine &line, const char *pcLine) {
        const char *pcName = ExamineSectionLine({kDeleteAllSectionKeys, nullptr, 0},
                                                line.iLineCount, pcLine, m_szSectionBuffer);
        return pcName != nullptr && strcasecmp(m_szSection, pcName) == 0;
    }

    static Verdict Copying(const RewriteLine &line) {
        CFG_TRACE_AS(kDeleteAllSectionKeys, 7, "Copying line %d.\n", line.iLineCount);
        return Verdict::Copy;
    }

    const char *m_szSection;
    bool m_bInSection = false;
    bool m_bKeyDeleted = false;
    char m_szSectionBuffer[kNameBufferSize];
};

// Runs one deletion: a missing file has nothing to remove.
template <class Operation>
int RunDeletion(const RewriteRules &rules, const char *szFileName, Operation &op) {
    RewriteNames names;
    const int iRetCode = PrepareRewrite(rules.szFunction, szFileName, names);
    if (iRetCode != CFGFILE_SUCCESS)
        return iRetCode;
    LockedTemp temp;
    const RewriteResult result = RewriteFile<kShortLineBufferSize>(rules, names, temp, op);
    return result.bOpened ? result.iRetCode : CFGFILE_SUCCESS;
}

// Comments out, or leaves out, the first line that begins with a prefix.
class PrefixedLineChanger {
  public:
    PrefixedLineChanger(const char *szFunction, const char *szPrefix, bool bCommentOut)
        : m_szFunction(szFunction), m_szPrefix(szPrefix), m_nPrefixLength(strlen(szPrefix)),
          m_bCommentOut(bCommentOut) {}

    bool InTail() const { return m_bLineChanged; }
    bool Changed() const { return true; }
    bool Finish(OutputFile &) { return true; }
    // Lines that cannot begin with the prefix pass unread.
    LineFilter Passable() const {
        return m_nPrefixLength > 0 ? PrefixedLines(m_szPrefix) : kLookAtEveryLine;
    }

    Verdict Classify(const RewriteLine &line, OutputFile &out) {
        // Only whole lines are matched.
        if (!line.IsWholeLine()) {
            CFG_TRACE_AS(m_szFunction, 7, "line %d is too long to be processed.\n",
                         line.iLineCount);
            return Verdict::Copy;
        }
        const char *pcLine = SkipBlanks(line.szText);
        if (*pcLine == '#' || strncmp(pcLine, m_szPrefix, m_nPrefixLength) != 0)
            return Verdict::Copy;
        CFG_TRACE_AS(m_szFunction, 7, "Line found.\n");
        m_bLineChanged = true;
        if (!m_bCommentOut)
            return Verdict::LeaveOut;
        const bool bOk = out.Write("#") && out.Write(line.szText, line.nLength);
        return bOk ? Verdict::Written : Verdict::WriteFailed;
    }

  private:
    const char *m_szFunction;
    const char *m_szPrefix;
    size_t m_nPrefixLength;
    bool m_bCommentOut;
    bool m_bLineChanged = false;
};

int ChangePrefixedLine(const char *szFunction, const char *szFileName, const char *szPrefix,
                       bool bCommentOut) {
    RewriteNames names;
    const int iRetCode = PrepareRewrite(szFunction, szFileName, names);
    if (iRetCode != CFGFILE_SUCCESS)
        return iRetCode;
    PrefixedLineChanger changer(szFunction, szPrefix, bCommentOut);
    LockedTemp temp;
    const RewriteResult result =
        RewriteFile<kLongLineBufferSize>({szFunction, 8, false, false}, names, temp, changer);
    return result.bOpened ? result.iRetCode : CFGFILE_FAILURE;
}

} // namespace

int RemoveKeyThrough(const RewriteNames &names, int fdIn, int fdOut, const char *szSection,
                     const char *szKeyName, bool *pbRemoved) {
    KeyRemover remover(szSection, szKeyName);
    StepsOf<kShortLineBufferSize, KeyRemover> steps(remover);
    const int iRetCode = StreamThrough({kDeleteKey, 7, true, true}, names, fdIn, fdOut, steps);
    *pbRemoved = remover.Changed();
    return iRetCode;
}

} // namespace cfglib

using namespace cfglib;

extern "C" {

CFGFILE_API int CfgFile_DeleteSections(const char *szFileName, const char *szSectionPrefix) {
    if (szSectionPrefix == nullptr)
        return CFGFILE_BAD_PARAMETERS;
    SectionRemover remover(szSectionPrefix);
    return RunDeletion({kDeleteSections, 7, true, false}, szFileName, remover);
}

CFGFILE_API int CfgFile_DeleteKey(const char *szFileName, const char *szSection,
                                  const char *szKeyName) {
    if (szSection == nullptr || szKeyName == nullptr)
        return CFGFILE_BAD_PARAMETERS;
    KeyRemover remover(szSection, szKeyName);
    return RunDeletion({kDeleteKey, 7, true, true}, szFileName, remover);
}

CFGFILE_API int CfgFile_DeleteAllSectionKeys(const char *szFileName, const char *szSection) {
    if (szSection == nullptr)
        return CFGFILE_BAD_PARAMETERS;
    SectionKeysRemover remover(szSection);
    return RunDeletion({kDeleteAllSectionKeys, 7, true, true}, szFileName, remover);
}

CFGFILE_API int CfgFile_CommentLineStartingWith(const char *szFileName, const char *szPrefix) {
    CFG_ASSERT_AS(__func__, szFileName != NULL);
    CFG_ASSERT_AS(__func__, szPrefix != NULL);
    return ChangePrefixedLine(__func__, szFileName, szPrefix, true);
}

CFGFILE_API int CfgFile_DeleteLineStartingWith(const char *szFileName, const char *szPrefix) {
    CFG_ASSERT_AS(__func__, szFileName != NULL);
    CFG_ASSERT_AS(__func__, szPrefix != NULL);
    return ChangePrefixedLine(__func__, szFileName, szPrefix, false);
}

} // extern "C"
