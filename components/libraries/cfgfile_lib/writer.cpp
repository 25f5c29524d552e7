// writer.cpp - the value writer, which sets one key of one section through
// the safe rewrite or creates a missing file, and the typed setters.
#include <clocale>
#include <cstdio>

#include <locale.h>

#include "rewrite.h"

namespace cfglib {
namespace {

constexpr char kWriteValue[] = "_WriteValue";
constexpr RewriteRules kWriterRules{kWriteValue, 8, false, false, true};

// Sets one key: replaces its first line in the first section of that name,
// or adds it at the end of the section, or appends the section.
class ValueWriter {
  public:
    ValueWriter(const char *szSection, const char *szKeyName, const char *szValue)
        : m_szSection(szSection), m_szKeyName(szKeyName), m_szValue(szValue) {}

    bool InTail() const { return m_bValueWritten; }
    bool Changed() const { return true; }
    LineFilter Passable() const {
        if (m_bInSection)
            return kLookAtEveryLine;
        return {
            true, '[', m_szSection, true, true, !m_bFirstSection, false, TailFirst(m_szSection)};
    }

    Verdict Classify(const RewriteLine &line, OutputFile &out) {
        // Pieces of an over-long line are copied as they are.
        if (line.bPiece) {
            CFG_TRACE_AS(kWriteValue, 7, "line %d is too long to be processed.\n", line.iLineCount);
            return Verdict::Copy;
        }
        // Short lines before the change are dropped, as the reader ignores them.
        if (line.nLength <= kShortLineLength) {
            CFG_TRACE_AS(kWriteValue, 8, "line %d is too short to be processed.\n",
                         line.iLineCount);
            return Verdict::LeaveOut;
        }
        const char *pcLine = SkipBlanks(line.szText);
        if (*pcLine == '#')
            return Verdict::Copy;
        if (*pcLine == '[')
            return OnSectionLine(line, pcLine, out);
        if (!m_bInSection)
            return Verdict::Copy;
        return OnKeyLine(pcLine, out);
    }

    // Adds the key where the file ended before it was found.
    bool Finish(OutputFile &out) {
        if (!m_bSectionFound)
            return out.Write("\n[") && out.Write(m_szSection) && out.Write("]\n") &&
                   out.WriteKeyLine(m_szKeyName, m_szValue, "\n");
        if (m_bValueWritten)
            return true;
        // The file's last line may lack its line feed: the key starts a line of its own.
        if (!out.AtLineStart() && !out.Write("\n"))
            return false;
        return out.WriteKeyLine(m_szKeyName, m_szValue, "\n");
    }

  private:
    Verdict OnSectionLine(const RewriteLine &line, const char *pcLine, OutputFile &out) {
        CFG_TRACE_AS(kWriteValue, 8, "Found section line %d.\n", line.iLineCount);
        // The matching section ends without the key: add it, then an empty line.
        if (m_bInSection) {
            CFG_TRACE_AS(kWriteValue, 7, "Already in matching section.\n");
            m_bValueWritten = true;
            m_bFirstSection = false;
            const bool bOk = out.WriteKeyLine(m_szKeyName, m_szValue, "\n\n") &&
                             out.Write(line.szText, line.nLength);
            return bOk ? Verdict::Written : Verdict::WriteFailed;
        }
        // One empty line before every section line but the first.
        if (!m_bFirstSection && !out.Write("\n"))
            return Verdict::WriteFailed;
        m_bFirstSection = false;
        if (!out.Write(line.szText, line.nLength))
            return Verdict::WriteFailed;
        const char *pcMatch = ExamineSectionLine({kWriteValue, nullptr, 8}, line.iLineCount, pcLine,
                                                 m_szSectionBuffer);
        if (pcMatch != nullptr && strcasecmp(m_szSection, pcMatch) == 0) {
            m_bInSection = true;
            m_bSectionFound = true;
            CFG_TRACE_AS(kWriteValue, 7, "Found section.\n");
        }
        return Verdict::Written;
    }

    Verdict OnKeyLine(const char *pcLine, OutputFile &out) {
        CFG_TRACE_AS(kWriteValue, 7, "Found key=value line.\n");
        const char *pcEquals = strchr(pcLine, '=');
        if (pcEquals == nullptr)
            return Verdict::LeaveOut;
        const char *pcTrimmedKeyName = ExtractKeyName(pcLine, pcEquals, m_szKeyNameBuffer);
        if (pcTrimmedKeyName == nullptr)
            return Verdict::Copy;
        CFG_TRACE_AS(kWriteValue, 7, "key=\"%s\".\n", pcTrimmedKeyName);
        if (strcasecmp(m_szKeyName, pcTrimmedKeyName) != 0)
            return Verdict::Copy;
        CFG_TRACE_AS(kWriteValue, 7, "key is a MATCH.\n");
        m_bValueWritten = true;
        return out.WriteKeyLine(m_szKeyName, m_szValue, "\n") ? Verdict::Written
                                                              : Verdict::WriteFailed;
    }

    const char *m_szSection;
    const char *m_szKeyName;
    const char *m_szValue;
    bool m_bInSection = false;
    bool m_bSectionFound = false;
    bool m_bValueWritten = false;
    bool m_bFirstSection = true;
    char m_szSectionBuffer[kNameBufferSize];
    char m_szKeyNameBuffer[kNameBufferSize];
};

// Writes a file that did not exist: "[section]\nkey=value\n", whole under
// the temporary name first, so that no reader ever finds it half written.
// Only a missing file is created; an existing file that merely cannot be
// read is left alone.
__attribute__((noinline, cold)) int CreateNewFile(const RewriteNames &names, LockedTemp &temp,
                                                  int nOpenErrno, const char *szSection,
                                                  const char *szKeyName, const char *szValue) {
    const char *szFileName = names.szTarget;
    if (nOpenErrno != ENOENT || !temp.Held()) {
        const int nErr = nOpenErrno != ENOENT ? nOpenErrno : temp.Errno();
        CFG_TRACE_AS(kWriteValue, 7, "Failed to create new file, errno=%d.\n", nErr);
        return nErr == EACCES ? CFGFILE_FILE_ACCESS : CFGFILE_FAILURE;
    }
    temp.MarkUsed();
    CFG_TRACE_AS(kWriteValue, 7, "OPENED \"%s\".\n", szFileName);
    OutputFile file(temp.Fd());
    SetDefaultFilePermissionsOnFd(file.Descriptor());
    WriteNewFileText(file, szSection, szKeyName, szValue);
    const bool bWritten =
        file.Commit(true) && Sys([&] { return rename(names.szTmpFileName, szFileName); }, -1) == 0;
    const bool bComplete = bWritten && SyncDirectoryOf(szFileName);
    CFG_TRACE_AS(kWriteValue, 7, "closed \"%s\".\n", szFileName);
    if (!bComplete) {
        // The file did not exist before: nothing is lost.
        Sys([&] { return unlink(bWritten ? szFileName : names.szTmpFileName); }, -1);
        return CFGFILE_FAILURE;
    }
    return CFGFILE_SUCCESS;
}

// A name or value that would break the file's lines is refused: a line feed
// or carriage return could never be read back and would add lines of its own.
bool IsWritableText(const char *szText) {
    return szText != nullptr && strpbrk(szText, "\r\n") == nullptr;
}

int _WriteValue(const char *szFileName, const char *szSection, const char *szKeyName,
                const char *szValue) {
    RewriteNames names;
    const int iRetCode = PrepareRewrite(kWriteValue, szFileName, names);
    if (iRetCode != CFGFILE_SUCCESS)
        return iRetCode;
    if (!IsWritableText(szSection) || !IsWritableText(szKeyName) || !IsWritableText(szValue))
        return CFGFILE_BAD_PARAMETERS;

    ValueWriter writer(szSection, szKeyName, szValue);
    LockedTemp temp;
    const RewriteResult result =
        RewriteFile<kLongLineBufferSize>(kWriterRules, names, temp, writer);
    if (!result.bOpened)
        return CreateNewFile(names, temp, result.nErrno, szSection, szKeyName, szValue);
    if (!result.bCopying)
        return result.iRetCode;
    if (result.iRetCode == CFGFILE_SUCCESS)
        CFG_TRACE_AS(kWriteValue, 7, "Successful for %s->%s=%s.\n", szSection, szKeyName, szValue);
    else
        CFG_TRACE_AS(kWriteValue, 7, "FAILED for %s->%s=%s.\n", szSection, szKeyName, szValue);
    return result.iRetCode;
}

} // namespace

bool WriteNewFileText(OutputFile &out, const char *szSection, const char *szKeyName,
                      const char *szValue) {
    return out.Write("[") && out.Write(szSection) && out.Write("]\n") &&
           out.WriteKeyLine(szKeyName, szValue, "\n");
}

int SetValueThrough(const RewriteNames &names, int fdIn, int fdOut, const char *szSection,
                    const char *szKeyName, const char *szValue) {
    ValueWriter writer(szSection, szKeyName, szValue);
    StepsOf<kLongLineBufferSize, ValueWriter> steps(writer);
    return StreamThrough(kWriterRules, names, fdIn, fdOut, steps);
}

} // namespace cfglib

using namespace cfglib;

extern "C" {

CFGFILE_API int CfgFile_SetStringValue(const char *szFileName, const char *szSection,
                                       const char *szKeyName, const char *szBuffer) {
    CFG_TRACE(7, "Called, file=\"%s\" section=\"%s\", key=\"%s\" value=\"%s\".\n", szFileName,
              szSection, szKeyName, szBuffer);
    return _WriteValue(szFileName, szSection, szKeyName, szBuffer);
}

CFGFILE_API int CfgFile_SetIntValue(const char *szFileName, const char *szSection,
                                    const char *szKeyName, int nValue) {
    char szBuffer[32];
    snprintf(szBuffer, sizeof(szBuffer), "%d", nValue);
    return _WriteValue(szFileName, szSection, szKeyName, szBuffer);
}

CFGFILE_API int CfgFile_SetUnsignedIntValue(const char *szFileName, const char *szSection,
                                            const char *szKeyName, unsigned int nValue) {
    char szBuffer[32];
    snprintf(szBuffer, sizeof(szBuffer), "%u", nValue);
    return _WriteValue(szFileName, szSection, szKeyName, szBuffer);
}

CFGFILE_API int CfgFile_SetInt64Value(const char *szFileName, const char *szSection,
                                      const char *szKeyName, INT64 nValue) {
    char szBuffer[80];
    snprintf(szBuffer, sizeof(szBuffer), "%ld", static_cast<long>(nValue));
    return _WriteValue(szFileName, szSection, szKeyName, szBuffer);
}

CFGFILE_API int CfgFile_SetFloatValue(const char *szFileName, const char *szSection,
                                      const char *szKeyName, float fValue, int DecimalPrecision) {
    char szBuffer[32];
    // Always a decimal point, whatever locale the application has chosen, so
    // that the file reads back the same everywhere.
    const locale_t cLocale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
    const locale_t previousLocale = cLocale ? uselocale(cLocale) : static_cast<locale_t>(0);
    const int nLength =
        snprintf(szBuffer, sizeof(szBuffer), "%.*f", DecimalPrecision, static_cast<double>(fValue));
    if (cLocale) {
        uselocale(previousLocale);
        freelocale(cLocale);
    }
    // A cut number would be a different number: refuse it.
    if (nLength < 0 || static_cast<size_t>(nLength) >= sizeof(szBuffer))
        return CFGFILE_BAD_PARAMETERS;
    return _WriteValue(szFileName, szSection, szKeyName, szBuffer);
}

CFGFILE_API int CfgFile_SetBooleanValue(const char *szFileName, const char *szSection,
                                        const char *szKeyName, BOOL bValue) {
    return _WriteValue(szFileName, szSection, szKeyName, bValue ? "Yes" : "No");
}

} // extern "C"
