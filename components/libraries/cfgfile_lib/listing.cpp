// listing.cpp - the operations that stand beside the others: the listing of
// section names, the search for a prefixed line, and group ownership.
#include <sys/stat.h>

#include "line_grammar.h"

using namespace cfglib;

extern "C" {

CFGFILE_API int CfgFile_EnumerateSections(const char *szFileName, const char *szSectionPrefix,
                                          char *szBuffer, size_t *pnSize, unsigned int *pnCount) {
    if (szFileName == nullptr || szSectionPrefix == nullptr || pnSize == nullptr ||
        pnCount == nullptr)
        return CFGFILE_BAD_PARAMETERS;
    int iRetCode = -1;
    uint64_t nBufferOffset = 0; // bytes the matching names need, copied or not
    UINT nSectionsCopied = 0;

    FileDescriptor file(OpenFile(szFileName));
    ReaderBuffer<kLookupBlockSize> buffer;
    LineReader reader(file.Get(), buffer);
    if (file.IsOpen() && reader.Start()) {
        CFG_TRACE(7, "OPENED \"%s\".\n", szFileName);
        iRetCode = CFGFILE_SUCCESS;
        const size_t nPrefixLength = strlen(szSectionPrefix);
        // Lines that cannot be section lines pass unread while no trace counts them.
        const bool bPassLines = !TraceOn(kLineTraceLevel);
        size_t nLineLength;
        char *szLine;
        for (;;) {
            if (bPassLines)
                SkipLines(reader, SectionLines(), kShortLineBufferSize);
            if (!reader.Next(kShortLineBufferSize, &szLine, &nLineLength))
                break;
            if (nLineLength <= kShortLineLength || szLine[nLineLength - 1] != '\n' ||
                reader.LastHoldsNul())
                continue;
            char *pcLine = SkipBlanks(szLine);
            if (*pcLine != '[')
                continue;
            char *pcMatch = strchr(pcLine + 1, ']');
            if (pcMatch == nullptr)
                continue;
            // The name is the text between the brackets, as written.
            *pcMatch = '\0';
            const char *pcName = pcLine + 1;
            if (strncasecmp(szSectionPrefix, pcName, nPrefixLength) != 0)
                continue;
            const size_t nNameSize = static_cast<size_t>(pcMatch - pcName) + 1;
            if (szBuffer != nullptr && nBufferOffset + nNameSize <= *pnSize) {
                memcpy(szBuffer + nBufferOffset, pcName, nNameSize);
                ++nSectionsCopied;
            }
            nBufferOffset += nNameSize;
        }
        CFG_TRACE(7, "closed \"%s\".\n", szFileName);
        file.Close();
        if (reader.Refused()) {
            iRetCode = -1; // as for a file that cannot be opened
            nBufferOffset = nSectionsCopied = 0;
        }
    }
    *pnSize = static_cast<size_t>(nBufferOffset);
    *pnCount = nSectionsCopied;
    return iRetCode;
}

CFGFILE_API int CfgFile_FindLineStartingWith(const char *szFileName, const char *szPrefix,
                                             char *szBuffer, size_t *pnBuffSize) {
    CFG_ASSERT_AS(__func__, szFileName != NULL);
    CFG_ASSERT_AS(__func__, szFileName[0] != '\0');
    CFG_ASSERT_AS(__func__, szPrefix != NULL);
    CFG_ASSERT_AS(__func__, szPrefix[0] != '\0');
    CFG_ASSERT_AS(__func__, szBuffer != NULL);
    CFG_ASSERT_AS(__func__, pnBuffSize != NULL);
    CFG_ASSERT_AS(__func__, *pnBuffSize > 0);
    int iRetCode = CFGFILE_FAILURE;
    const size_t nPrefixLength = strlen(szPrefix);
    const size_t nBuffSize = *pnBuffSize;

    FileDescriptor file(OpenFile(szFileName));
    ReaderBuffer<kLookupBlockSize> buffer;
    LineReader reader(file.Get(), buffer);
    if (!file.IsOpen() || !reader.Start())
        return iRetCode;
    CFG_TRACE(7, "OPENED \"%s\".\n", szFileName);

    // The caller's buffer is the line buffer. A buffer of 1 byte holds no
    // line, and the reader then ends the scan at once. Lines that cannot
    // begin with the prefix pass unread while no trace counts them.
    const bool bPassLines = !TraceOn(kLineTraceLevel);
    const LineFilter prefixedLines = PrefixedLines(szPrefix);
    bool bInsideLine = false; // the previous read ended inside a line
    size_t nLineLength;
    for (;;) {
        if (bPassLines)
            SkipLines(reader, prefixedLines, nBuffSize);
        if ((nLineLength = reader.ReadLine(szBuffer, nBuffSize)) == 0)
            break;
        const bool bWholeLine = !bInsideLine && szBuffer[nLineLength - 1] == '\n';
        bInsideLine = szBuffer[nLineLength - 1] != '\n';
        // Only whole lines count: never a piece of a longer one, a last line
        // without its line feed, or text holding NUL bytes.
        if (!bWholeLine || nLineLength < nPrefixLength || reader.LastHoldsNul())
            continue;
        szBuffer[--nLineLength] = '\0';
        if (strncmp(SkipBlanks(szBuffer), szPrefix, nPrefixLength) == 0) {
            *pnBuffSize = nLineLength;
            iRetCode = CFGFILE_SUCCESS;
            break;
        }
    }
    return iRetCode;
}

__attribute__((cold)) CFGFILE_API int CfgFile_SetGroupOwnership(const char *szFileName,
                                                                gid_t GroupID) {
    int iRetCode = CFGFILE_FAILURE;
    struct stat FileStats;
    char szBuffer[52];
    if (szFileName == nullptr)
        return CFGFILE_BAD_PARAMETERS;

    if (chown(szFileName, static_cast<uid_t>(-1), GroupID) != 0) {
        const int nErr = errno;
        CFG_TRACE(3, "Failed to set group ownership file \"%s\", errno=%d, \"%s\".\n", szFileName,
                  nErr, strerror_r(nErr, szBuffer, sizeof(szBuffer)));
        return iRetCode;
    }
    if (stat(szFileName, &FileStats) != 0) {
        const int nErr = errno;
        CFG_TRACE(3, "Failed to get info on file \"%s\", errno=%d, \"%s\".\n", szFileName, nErr,
                  strerror_r(nErr, szBuffer, sizeof(szBuffer)));
        return iRetCode;
    }
    if (chmod(szFileName, FileStats.st_mode | S_IWGRP) != 0) {
        const int nErr = errno;
        CFG_TRACE(3, "Failed to change group permissions for file \"%s\", errno=%d, \"%s\".\n",
                  szFileName, nErr, strerror_r(nErr, szBuffer, sizeof(szBuffer)));
        return iRetCode;
    }
    iRetCode = CFGFILE_SUCCESS;
    return iRetCode;
}

} // extern "C"
