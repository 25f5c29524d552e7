// recovery.cpp - puts a file back from its backup after a change was
// interrupted while the old file was moved aside.
#include "rewrite.h"

namespace cfglib {
namespace {

// Whether nothing stands at the end of the symbolic links at szPath; the
// path of that end in szTarget.
bool FindMissingTarget(const char *szPath, char (&szTarget)[kPathBufferSize]) {
    return FollowLinks(szPath, szTarget) == LinkEnd::Missing;
}

// Whether a regular file stands at szPath.
bool IsRegularFileAt(const char *szPath) {
    struct stat st;
    return lstat(szPath, &st) == 0 && S_ISREG(st.st_mode);
}

constexpr char kRecoverFile[] = "CfgFile_RecoverFile";

// Moves the backup back to the missing file's name, under the exclusion of
// changes, so that a change in the middle of its swap is never undone.
__attribute__((cold)) int RestoreBackup(RewriteNames &names) {
    char szBackupFileName[kPathBufferSize];
    BackupName(names, szBackupFileName);
    LockedTemp temp;
    temp.Acquire(names.szTmpFileName, Deadline());
    if (temp.Errno() == EWOULDBLOCK) {
        CFG_TRACE_AS(kRecoverFile, 7, "Timed out waiting for a change of \"%s\".\n",
                     names.szTarget);
        return CFGFILE_FAILURE;
    }
    char szMissing[kPathBufferSize];
    if (!FindMissingTarget(names.szTarget, szMissing) || !IsRegularFileAt(szBackupFileName)) {
        CFG_TRACE_AS(kRecoverFile, 7, "Nothing to recover for \"%s\".\n", names.szTarget);
        return CFGFILE_SUCCESS;
    }
    if (Sys([&] { return rename(szBackupFileName, names.szTarget); }, -1) != 0 ||
        !SyncDirectoryOf(names.szTarget)) {
        const int nErr = errno;
        CFG_TRACE_AS(kRecoverFile, 7, "Failed to restore \"%s\" from backup \"%s\", errno=%d.\n",
                     names.szTarget, szBackupFileName, nErr);
        return CFGFILE_FAILURE;
    }
    CFG_TRACE_AS(kRecoverFile, 7, "Restored \"%s\" from backup \"%s\".\n", names.szTarget,
                 szBackupFileName);
    return CFGFILE_SUCCESS;
}

} // namespace
} // namespace cfglib

using namespace cfglib;

extern "C" {

__attribute__((cold)) CFGFILE_API int CfgFile_RecoverFile(const char *szFileName) {
    CFG_TRACE(7, "Called, file=\"%s\".\n", szFileName);
    RewriteNames names;
    const int iRetCode = PrepareRewrite(kRecoverFile, szFileName, names);
    if (iRetCode != CFGFILE_SUCCESS)
        return iRetCode;
    char szMissing[kPathBufferSize];
    if (!FindMissingTarget(szFileName, szMissing)) {
        CFG_TRACE(7, "Nothing to recover for \"%s\".\n", szFileName);
        return CFGFILE_SUCCESS;
    }
    if (strlen(szMissing) > kMaxFileNameLength) {
        CFG_TRACE(7, "filename is invalid.\n");
        return CFGFILE_BAD_PARAMETERS;
    }
    NameRewrite(kRecoverFile, szMissing, names);
    return RestoreBackup(names);
}

} // extern "C"
