// files.cpp - the files around a settings file: its backup and its lock.
//
// Where a file system has no hard links, a change moves the file to its
// backup name before it renames the new content to the file's name. A
// process that dies between the two renames leaves no file under the name
// and the old content under the backup name; "recover" puts it back.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cfgfile_api.h"
#include "cfgfile_tool.h"

namespace cfgtool {

namespace {

// Longest chain of symbolic links followed, as the kernel's limit.
constexpr int kMaxLinkHops = 40;

// The directory part of sPath with its slash ("dir/" for "dir/x"), or "".
std::string DirectoryPart(const std::string &sPath) {
    const size_t nSlash = sPath.rfind('/');
    return nSlash == std::string::npos ? std::string() : sPath.substr(0, nSlash + 1);
}

// Finds where a change to sFile would have worked: the file itself, or the
// end of its chain of symbolic links. True, with that path in *psTarget, when
// nothing exists there; false when it exists or cannot be examined.
bool FindMissingTarget(const std::string &sFile, std::string *psTarget) {
    std::string sPath = sFile;
    for (int iHop = 0; iHop < kMaxLinkHops; ++iHop) {
        struct stat st;
        if (lstat(sPath.c_str(), &st) != 0) {
            if (errno != ENOENT)
                return false;
            *psTarget = sPath;
            return true;
        }
        if (!S_ISLNK(st.st_mode))
            return false;
        char szLink[PATH_MAX];
        const ssize_t nLength = readlink(sPath.c_str(), szLink, sizeof(szLink));
        if (nLength <= 0 || static_cast<size_t>(nLength) >= sizeof(szLink))
            return false;
        const std::string sLink(szLink, static_cast<size_t>(nLength));
        sPath = sLink[0] == '/' ? sLink : DirectoryPart(sPath) + sLink;
    }
    return false;
}

bool IsRegularFile(const std::string &sPath) {
    struct stat st;
    return lstat(sPath.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

} // namespace

std::string BackupName(const std::string &sPath) {
    const size_t nBase = sPath.rfind('/') == std::string::npos ? 0 : sPath.rfind('/') + 1;
    const size_t nDot = sPath.rfind('.');
    // Only a dot inside the last component counts, and not one that starts it
    // (".profile"). A name already ending in ".bak" gets a second one, so that
    // the backup never is the file itself.
    const bool bReplace = nDot != std::string::npos && nDot > nBase &&
                          sPath.compare(nDot + 1, std::string::npos, "bak") != 0;
    return bReplace ? sPath.substr(0, nDot + 1) + "bak" : sPath + ".bak";
}

void WarnOfLeftBackup(const char *szFile) {
    std::string sTarget;
    if (!FindMissingTarget(szFile, &sTarget))
        return;
    const std::string sBackup = BackupName(sTarget);
    if (!IsRegularFile(sBackup))
        return;
    fprintf(stderr,
            "cfgfile: warning: %s is missing but %s exists; an interrupted change may have left "
            "it: run 'cfgfile recover %s'\n",
            szFile, sBackup.c_str(), szFile);
}

int RunRecover(const Arguments &args) {
    const char *szFile = args.vszPositional[0];
    std::string sTarget;
    const bool bLeftBackup =
        FindMissingTarget(szFile, &sTarget) && IsRegularFile(BackupName(sTarget));
    const int iRetCode = CfgFile_RecoverFile(szFile);
    if (iRetCode != CFGFILE_SUCCESS)
        return ReportWhy("recover", iRetCode, "cannot restore %s from its backup", szFile);
    if (bLeftBackup && !FindMissingTarget(szFile, &sTarget))
        fprintf(stderr, "cfgfile: recover: restored %s from %s\n", sTarget.c_str(),
                BackupName(sTarget).c_str());
    return 0;
}

int LockFile(const char *szCommand, const char *szFile) {
    const std::string sLockName = std::string(szFile) + ".lock";
    // The descriptor stays open, and the lock held, until the process ends.
    // The lock file is never written, so it is never replaced or deleted.
    const int fd = open(sLockName.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0)
        return ReportWhy(szCommand, CFGFILE_FILE_ACCESS, "cannot open lock file %s: %s",
                         sLockName.c_str(), strerror(errno));
    int iLocked;
    do {
        iLocked = flock(fd, LOCK_EX);
    } while (iLocked != 0 && errno == EINTR);
    if (iLocked != 0)
        return ReportWhy(szCommand, CFGFILE_FAILURE, "cannot lock %s: %s", sLockName.c_str(),
                         strerror(errno));
    return 0;
}

} // namespace cfgtool
