/*
 * support_files.cpp - companion file names, and the mode and owner of rewritten files.
 */
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support_lib.h"

namespace {

// Default mode of a configuration file: the owner may change it, everyone may read it.
constexpr mode_t kDefaultFileMode = 0644;

// The file descriptor behind pStream, or -1.
int DescriptorOf(FILE *pStream) {
    return pStream == NULL ? -1 : fileno(pStream);
}

} // namespace

int StringReplaceAddSuffix(char *szName, size_t nSize, char cSeparator, const char *szSuffix) {
    if (szName == NULL || szSuffix == NULL || cSeparator == '\0' || cSeparator == '/')
        return 0;
    size_t nLength = strnlen(szName, nSize);
    if (nLength == 0 || nLength == nSize)
        return 0;

    // Only a separator inside the file name counts, and not one that starts it (".profile").
    const char *pcSlash = strrchr(szName, '/');
    const char *pcBase = pcSlash == NULL ? szName : pcSlash + 1;
    const char *pcSeparator = strrchr(pcBase, cSeparator);
    bool bReplace = pcSeparator != NULL && pcSeparator != pcBase;
    // Replacing a suffix by the same one would give the path itself back: append instead.
    if (bReplace && strcmp(pcSeparator + 1, szSuffix) == 0)
        bReplace = false;

    size_t nKeep = bReplace ? static_cast<size_t>(pcSeparator + 1 - szName) : nLength;
    size_t nAdded = bReplace ? 0 : 1;
    size_t nSuffixLength = strnlen(szSuffix, nSize);
    if (nKeep + nAdded + nSuffixLength >= nSize)
        return 0;

    char *pcOut = szName + nKeep;
    if (!bReplace)
        *pcOut++ = cSeparator;
    memcpy(pcOut, szSuffix, nSuffixLength);
    pcOut[nSuffixLength] = '\0';
    return 1;
}

int CopyFilePermissionsToFd(const char *szPath, int nFd) {
    struct stat fileStat;
    if (szPath == NULL || nFd < 0 || stat(szPath, &fileStat) != 0)
        return 0;
    return fchmod(nFd, fileStat.st_mode & 0777) == 0 ? 1 : 0;
}

int CopyFileOwnershipToFd(const char *szPath, int nFd) {
    struct stat fileStat;
    if (szPath == NULL || nFd < 0 || stat(szPath, &fileStat) != 0)
        return 0;
    if (fchown(nFd, fileStat.st_uid, fileStat.st_gid) == 0)
        return 1;
    // Not allowed to give the file away: a member of the group may still give it the group.
    // The owner was not carried, so the result is 0 whatever this gives.
    [[maybe_unused]] int iGroupResult = fchown(nFd, static_cast<uid_t>(-1), fileStat.st_gid);
    return 0;
}

int SetDefaultFilePermissionsOnFd(int nFd) {
    if (nFd < 0)
        return 0;
    return fchmod(nFd, kDefaultFileMode) == 0 ? 1 : 0;
}

int CopyFilePermissions(const char *szPath, FILE *pStream) {
    return CopyFilePermissionsToFd(szPath, DescriptorOf(pStream));
}

int CopyFileOwnership(const char *szPath, FILE *pStream) {
    return CopyFileOwnershipToFd(szPath, DescriptorOf(pStream));
}

int SetDefaultFilePermissions(FILE *pStream) {
    return SetDefaultFilePermissionsOnFd(DescriptorOf(pStream));
}
