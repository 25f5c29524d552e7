// changes.cpp - several changes of one file in one safe rewrite. Each change
// is worked out, by the operation that makes it alone, in a memory file from
// the result of the change before; the last result is written to the
// temporary file, synced and swapped in once.
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>

#include "rewrite.h"

namespace cfglib {
namespace {

constexpr char kApplyChanges[] = "CfgFile_ApplyChanges";

bool IsNameOfChange(const char *szName) {
    return szName != nullptr && *szName != '\0' && strpbrk(szName, "\r\n") == nullptr;
}

bool IsValidChange(const CFGFILE_CHANGE &change) {
    return IsNameOfChange(change.szSection) && IsNameOfChange(change.szKeyName) &&
           (change.szValue == nullptr || strpbrk(change.szValue, "\r\n") == nullptr);
}

// Works the changes out one after another, each from the result of the one
// before (the file open as fdFile for the first; -1 when it is missing).
// result holds the last memory file made; it stays closed when no change
// changed anything.
int WorkOut(const RewriteNames &names, int fdFile, const CFGFILE_CHANGE *pChanges, size_t nChanges,
            FileDescriptor &result) {
    int fdCurrent = fdFile;
    for (size_t i = 0; i < nChanges; ++i) {
        const CFGFILE_CHANGE &change = pChanges[i];
        // A missing file has no key to remove.
        if (fdCurrent < 0 && change.szValue == nullptr)
            continue;
        FileDescriptor next(memfd_create("cfgfile-change", MFD_CLOEXEC));
        if (!next.IsOpen())
            return CFGFILE_FAILURE;
        bool bChanged = true;
        int iRetCode;
        if (fdCurrent < 0) {
            OutputFile out(next.Get());
            iRetCode = WriteNewFileText(out, change.szSection, change.szKeyName, change.szValue) &&
                               out.Flush()
                           ? CFGFILE_SUCCESS
                           : CFGFILE_FAILURE;
        } else if (change.szValue != nullptr) {
            iRetCode = SetValueThrough(names, fdCurrent, next.Get(), change.szSection,
                                       change.szKeyName, change.szValue);
        } else {
            iRetCode = RemoveKeyThrough(names, fdCurrent, next.Get(), change.szSection,
                                        change.szKeyName, &bChanged);
        }
        if (iRetCode != CFGFILE_SUCCESS)
            return iRetCode;
        if (bChanged) {
            result.Reset(next.Release());
            fdCurrent = result.Get();
        }
    }
    return CFGFILE_SUCCESS;
}

// Whether the files open as fd1 and fd2 hold the same bytes.
bool SameContent(int fd1, int fd2) {
    struct stat st1, st2;
    if (fstat(fd1, &st1) != 0 || fstat(fd2, &st2) != 0 || st1.st_size != st2.st_size)
        return false;
    char szBytes1[512], szBytes2[512];
    for (off_t nOffset = 0; nOffset < st1.st_size;) {
        const ssize_t nRead1 = pread(fd1, szBytes1, sizeof(szBytes1), nOffset);
        const ssize_t nRead2 = pread(fd2, szBytes2, sizeof(szBytes2), nOffset);
        if (nRead1 <= 0 || nRead1 != nRead2 || memcmp(szBytes1, szBytes2, nRead1) != 0)
            return false;
        nOffset += nRead1;
    }
    return true;
}

// Copies the whole file open as fdFrom to fdTo, by the kernel.
bool CopyWhole(int fdFrom, int fdTo) {
    struct stat st;
    if (fstat(fdFrom, &st) != 0)
        return false;
    for (off_t nOffset = 0; nOffset < st.st_size;) {
        const ssize_t nSent = Sys(
            [&] {
                return sendfile(fdTo, fdFrom, &nOffset, static_cast<size_t>(st.st_size - nOffset));
            },
            ssize_t(-1));
        if (nSent <= 0 && !(nSent < 0 && errno == EINTR))
            return false;
    }
    return true;
}

// Removes a backup an earlier change left, as a change that swaps does first.
void RemoveLeftBackup(const RewriteNames &names) {
    char szBackupFileName[kPathBufferSize];
    BackupName(names, szBackupFileName);
    Sys([&] { return unlink(szBackupFileName); }, -1);
}

// Writes the result to the temporary file with the old file's mode and
// owner (a new file's default mode), syncs it and swaps it in: renamed to
// the name of a file that was missing, through the backup name otherwise.
int CommitResult(const RewriteNames &names, LockedTemp &temp, bool bExisted, int fdResult) {
    if (!temp.Held() ||
        (!temp.Created() && Sys([&] { return ftruncate(temp.Fd(), 0); }, -1) != 0)) {
        CFG_TRACE_AS(kApplyChanges, 7, "Unable to open tmp file \"%s\".\n", names.szTmpFileName);
        return !bExisted && temp.Errno() == EACCES ? CFGFILE_FILE_ACCESS : CFGFILE_FAILURE;
    }
    temp.MarkUsed();
    if (bExisted) {
        CopyFilePermissionsToFd(names.szTarget, temp.Fd());
        CopyFileOwnershipToFd(names.szTarget, temp.Fd());
    } else {
        SetDefaultFilePermissionsOnFd(temp.Fd());
    }
    if (!CopyWhole(fdResult, temp.Fd()) || Sys([&] { return fsync(temp.Fd()); }, -1) != 0)
        return CFGFILE_FAILURE;
    if (bExisted) {
        char szBackupFileName[kPathBufferSize];
        BackupName(names, szBackupFileName);
        Sys([&] { return unlink(szBackupFileName); }, -1);
        return SwapIn(kApplyChanges, names, szBackupFileName);
    }
    if (Sys([&] { return rename(names.szTmpFileName, names.szTarget); }, -1) != 0)
        return CFGFILE_FAILURE;
    if (!SyncDirectoryOf(names.szTarget)) {
        // The file did not exist before: nothing is lost.
        Sys([&] { return unlink(names.szTarget); }, -1);
        return CFGFILE_FAILURE;
    }
    return CFGFILE_SUCCESS;
}

// A file that cannot be read, or a missing one that cannot be created, as
// the writer reports it.
int CannotCreate(int nErrno) {
    CFG_TRACE_AS(kApplyChanges, 7, "Failed to create new file, errno=%d.\n", nErrno);
    return nErrno == EACCES ? CFGFILE_FILE_ACCESS : CFGFILE_FAILURE;
}

int ApplyChanges(const char *szFileName, const CFGFILE_CHANGE *pChanges, size_t nChanges) {
    if ((pChanges == nullptr && nChanges > 0) || nChanges > CFGFILE_MAX_CHANGES)
        return CFGFILE_BAD_PARAMETERS;
    bool bSetsValue = false;
    for (size_t i = 0; i < nChanges; ++i) {
        if (!IsValidChange(pChanges[i]))
            return CFGFILE_BAD_PARAMETERS;
        bSetsValue = bSetsValue || pChanges[i].szValue != nullptr;
    }
    RewriteNames names;
    const int iRetCode = PrepareRewrite(kApplyChanges, szFileName, names);
    if (iRetCode != CFGFILE_SUCCESS || nChanges == 0)
        return iRetCode;

    LockedTemp temp;
    FileDescriptor file(OpenExclusively({kApplyChanges, 8, false, false, bSetsValue}, names, temp));
    const int nOpenErrno = errno;
    if (file.Get() < -1) {
        CFG_TRACE_AS(kApplyChanges, 7, "filename is invalid.\n");
        return CFGFILE_BAD_PARAMETERS;
    }
    struct stat st;
    const bool bMissing = !file.IsOpen() && nOpenErrno == ENOENT;
    // What cannot be read, or is no regular file, has nothing to remove and
    // is never replaced by a new file.
    if (!bMissing && (!file.IsOpen() || fstat(file.Get(), &st) != 0 || !S_ISREG(st.st_mode)))
        return bSetsValue ? CannotCreate(file.IsOpen() ? EINVAL : nOpenErrno) : CFGFILE_SUCCESS;
    if (bMissing && bSetsValue && !temp.Held())
        return CannotCreate(temp.Errno());

    FileDescriptor result(-1);
    const int iWorked = WorkOut(names, file.Get(), pChanges, nChanges, result);
    if (iWorked != CFGFILE_SUCCESS)
        return iWorked;
    // Nothing to change: the file stays where it is.
    if (!result.IsOpen() || (!bMissing && SameContent(file.Get(), result.Get()))) {
        if (!bMissing)
            RemoveLeftBackup(names);
        return CFGFILE_SUCCESS;
    }
    return CommitResult(names, temp, !bMissing, result.Get());
}

} // namespace
} // namespace cfglib

using namespace cfglib;

extern "C" CFGFILE_API int CfgFile_ApplyChanges(const char *szFileName,
                                                const CFGFILE_CHANGE *pChanges, size_t nChanges) {
    CFG_TRACE(7, "Called, file=\"%s\" changes=%zu.\n", szFileName, nChanges);
    const int iRetCode = ApplyChanges(szFileName, pChanges, nChanges);
    CFG_TRACE(7, "Returning iRetCode=%d.\n", iRetCode);
    return iRetCode;
}
