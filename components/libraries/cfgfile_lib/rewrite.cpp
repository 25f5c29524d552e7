// rewrite.cpp - the sequence of a change: open the file and take the
// change's exclusion, copy it through the operation into the temporary file,
// commit that, and swap it in through the backup name.
#include "rewrite.h"

namespace cfglib {

bool BackupName(const RewriteNames &names, char (&szBackupFileName)[kPathBufferSize]) {
    CopyString(szBackupFileName, names.szTarget, sizeof(szBackupFileName));
    return StringReplaceAddSuffix(szBackupFileName, sizeof(szBackupFileName), '.', "bak") != 0;
}

// Names the file szPath and its temporary file; the backup's name is built
// where it is needed, and checked here.
void NameRewrite(const char *szFunction, const char *szPath, RewriteNames &names) {
    CopyString(names.szTarget, szPath, sizeof(names.szTarget));
    CopyString(names.szTmpFileName, szPath, sizeof(names.szTmpFileName));
    char szBackupFileName[kPathBufferSize];
    if (!BackupName(names, szBackupFileName))
        _DoAssert(
            "StringReplaceAddSuffix(szBackupFileName, sizeof(szBackupFileName), '.', \"bak\")",
            szFunction, __FILE_NAME__, __LINE__);
    if (!StringReplaceAddSuffix(names.szTmpFileName, sizeof(names.szTmpFileName), '.', "tmp"))
        _DoAssert("StringReplaceAddSuffix(szTmpFileName, sizeof(szTmpFileName), '.', \"tmp\")",
                  szFunction, __FILE_NAME__, __LINE__);
}

// Checks the name and builds the names of the temporary and backup files.
int PrepareRewrite(const char *szFunction, const char *szFileName, RewriteNames &names) {
    if (szFileName == nullptr || strlen(szFileName) > kMaxFileNameLength) {
        CFG_TRACE_AS(szFunction, 7, "filename is invalid.\n");
        return CFGFILE_BAD_PARAMETERS;
    }
    NameRewrite(szFunction, szFileName, names);
    return CFGFILE_SUCCESS;
}

__attribute__((cold)) LinkEnd FollowLinks(const char *szPath, char (&szTarget)[kPathBufferSize]) {
    constexpr int kMaxLinkHops = 40; // as the kernel's limit
    if (CopyString(szTarget, szPath, sizeof(szTarget)) == 0)
        return LinkEnd::TooLong;
    for (int iHop = 0; iHop < kMaxLinkHops; ++iHop) {
        struct stat st;
        if (lstat(szTarget, &st) != 0)
            return errno == ENOENT ? LinkEnd::Missing : LinkEnd::Unknown;
        if (!S_ISLNK(st.st_mode))
            return strlen(szTarget) > kMaxFileNameLength ? LinkEnd::TooLong : LinkEnd::File;
        char szLink[kPathBufferSize];
        const ssize_t nLength = readlink(szTarget, szLink, sizeof(szLink));
        if (nLength <= 0)
            return LinkEnd::Unknown;
        if (static_cast<size_t>(nLength) >= sizeof(szLink))
            return LinkEnd::TooLong;
        // A relative link is read from the directory of the link.
        const char *pcSlash = strrchr(szTarget, '/');
        const size_t nDirectory =
            szLink[0] == '/' || pcSlash == nullptr ? 0 : pcSlash + 1 - szTarget;
        if (nDirectory + static_cast<size_t>(nLength) >= sizeof(szTarget))
            return LinkEnd::TooLong;
        memcpy(szTarget + nDirectory, szLink, static_cast<size_t>(nLength));
        szTarget[nDirectory + static_cast<size_t>(nLength)] = '\0';
    }
    return LinkEnd::Unknown;
}

// Returned by OpenRewriteTarget for a link whose target's path is too long.
static constexpr int kTargetTooLong = -2;

// Opens the file a rewrite works on: the name itself, or the file at the end
// of the symbolic links there, which then names the companion files too, so
// that the link stays a link and they lie on the target's file system. The
// link is told by the open itself (O_NOFOLLOW fails on it with ELOOP); one
// that leads nowhere is left as it is. -1 with errno when the file cannot be
// opened for reading.
__attribute__((noinline)) static int OpenRewriteTarget(const char *szFunction,
                                                       RewriteNames &names) {
    const int fd = OpenFile(names.szTarget, O_NOFOLLOW);
    if (fd >= 0 || errno != ELOOP)
        return fd;
    char szTarget[kPathBufferSize];
    const LinkEnd end = FollowLinks(names.szTarget, szTarget);
    if (end == LinkEnd::TooLong)
        return kTargetTooLong;
    if (end == LinkEnd::File)
        NameRewrite(szFunction, szTarget, names);
    return OpenFile(names.szTarget);
}

// Copies the rest of the file unchanged: the rest of the block, then the
// rest of the file, by the kernel where it can. False when a write failed.
bool CopyTail(LineReader &reader, OutputFile &tmp) {
    const std::string_view rest = reader.TakeBlockRest();
    tmp.CopyPending(rest.data(), rest.size());
    // When the block held the end of the file, its rest waits with the text
    // before it, to go out in one write; else the kernel's copy comes after
    // everything written so far.
    if (reader.AtEnd())
        return !tmp.Failed();
    if (!tmp.Flush())
        return false;
    if (reader.SendRest(tmp.Descriptor()))
        return true;
    for (std::string_view block; !(block = reader.PassBlock()).empty();) {
        tmp.CopyPending(block.data(), block.size());
        if (tmp.Failed())
            return false;
    }
    return true;
}

namespace {

// Passes the lines that the operation need not look at straight on, in runs
// of the reader's block: copied, or left out. After the change, the tail
// passes whole. False when a write failed.
// Copies a read unchanged: it joins the run of copied text before it, written
// out in one go (before the block is read over, or before anything else is
// written).
bool CopyRead(OutputFile &tmp, const char *szLine, size_t nLength) {
    tmp.CopyPending(szLine, nLength);
    return !tmp.Failed();
}

bool PassLines(LineReader &reader, OutputFile &tmp, const RewriteSteps &op) {
    for (;;) {
        if (op.InTail())
            return CopyTail(reader, tmp);
        const LineFilter lineFilter = op.Passable();
        if (!lineFilter.bPass)
            return true;
        const std::string_view run = reader.PassLines(lineFilter, op.LineCapacity());
        if (run.empty())
            return true;
        if (!lineFilter.bLeaveOut) {
            tmp.CopyPending(run.data(), run.size());
            if (tmp.Failed())
                return false;
        }
    }
}

// Copies the file into the temporary file, line by line, as the operation
// decides. The end of an over-long line and a read holding NUL bytes pass
// through unchanged: a line is copied or left out whole, never split or cut.
int CopyLines(const RewriteRules &rules, const RewriteNames &names, LineReader &reader,
              OutputFile &tmp, RewriteSteps &op) {
    const size_t N = op.LineCapacity();
    const char *szFunction = rules.szFunction;
    int iLineCount = 0;
    bool bInsideLine = false; // the previous read ended inside a line
    // Lines pass unread only while no trace counts them.
    const bool bPassLines = !TraceOn(kLineTraceLevel);
    char *szLine;
    size_t nLength;
    for (;;) {
        if (bPassLines && !PassLines(reader, tmp, op))
            return CFGFILE_FAILURE;
        if (!reader.Next(N, &szLine, &nLength))
            break;
        ++iLineCount;
        CFG_TRACE_AS(szFunction, rules.nProcessingLevel, "Processing line %d.\n", iLineCount);
        const bool bHasNewline = szLine[nLength - 1] == '\n';
        const bool bFullPiece = !bHasNewline && nLength == N - 1;
        const bool bLastPiece = bInsideLine && !bFullPiece;
        const RewriteLine line{szLine, nLength, iLineCount, bHasNewline, bInsideLine || bFullPiece};
        bInsideLine = !bHasNewline;

        if (op.InTail()) {
            if (!CopyRead(tmp, szLine, nLength)) {
                CFG_TRACE_AS(szFunction, 7, "Unable to write \"%s\" to tmp file \"%s\".\n", szLine,
                             names.szTmpFileName);
                return CFGFILE_FAILURE;
            }
            continue;
        }
        const Verdict verdict =
            bLastPiece || reader.LastHoldsNul() ? Verdict::Copy : op.Classify(line, tmp);
        switch (verdict) {
        case Verdict::Copy:
            if (!CopyRead(tmp, szLine, nLength))
                return CFGFILE_FAILURE;
            break;
        case Verdict::LeaveOut:
        case Verdict::Written:
            break;
        case Verdict::WriteFailed:
            return CFGFILE_FAILURE;
        case Verdict::Stop:
            return reader.Failed() ? CFGFILE_FAILURE : CFGFILE_SUCCESS;
        }
    }
    // A read error must not pass for the end of the file.
    return reader.Failed() ? CFGFILE_FAILURE : CFGFILE_SUCCESS;
}

// Swaps the new file in. The old file gets the backup name as a second name
// and the new one is renamed over the file's name, so that the name always
// holds a whole file; where the file system gives no second names (vfat),
// the old file is moved to the backup name instead. Once the directory is
// on disk, the backup is deleted.
int SwapIn(const char *szFunction, const RewriteNames &names, const char *szBackupFileName) {
    const char *szFileName = names.szTarget;
    const bool bLinked = Sys([&] { return LinkFile(szFileName, szBackupFileName); }, -1) == 0;
    if (!bLinked && Sys([&] { return rename(szFileName, szBackupFileName); }, -1) != 0) {
        const int nErr = errno;
        CFG_TRACE_AS(szFunction, 7,
                     "Failed to rename config file \"%s\" to backup \"%s\", errno=%d, \"%s\".\n",
                     szFileName, szBackupFileName, nErr, strerror(nErr));
        return CFGFILE_FAILURE;
    }
    if (Sys([&] { return rename(names.szTmpFileName, szFileName); }, -1) != 0) {
        const int nErr = errno;
        CFG_TRACE_AS(szFunction, 7,
                     "Failed to move tmp file to new config file, errno=%d, \"%s\".\n", nErr,
                     strerror(nErr));
        if (bLinked)
            Sys([&] { return unlink(szBackupFileName); }, -1);
        else
            Sys([&] { return rename(szBackupFileName, szFileName); }, -1);
        return CFGFILE_FAILURE;
    }
    // The new file is in place. Until the directory is on disk, the backup
    // is the only copy sure to survive a power cut: keep it then.
    if (!SyncDirectoryOf(szFileName))
        return CFGFILE_SUCCESS;
    if (Sys([&] { return unlink(szBackupFileName); }, -1) != 0)
        CFG_TRACE_AS(szFunction, 7, "Failed to delete backup file \"%s\".\n", szBackupFileName);
    return CFGFILE_SUCCESS;
}

// Writes the new content of names.szTarget, open for reading as fd, to the
// temporary file, through the operation's steps; *pbSwap tells whether it
// is to be swapped in. The reader's block lives here only, not during the swap.
__attribute__((noinline)) RewriteResult CopyToTemporary(const RewriteRules &rules,
                                                        const RewriteNames &names, int fd,
                                                        LockedTemp &temp, RewriteSteps &op,
                                                        bool *pbSwap) {
    const char *szFunction = rules.szFunction;
    const char *szFileName = names.szTarget;
    FileDescriptor readFile(fd);
    // The block outlives the temporary file: text of it may wait there until the commit.
    ReaderBuffer<kRewriteBlockSize> buffer;
    LineReader reader(readFile.Get(), buffer);
    // What is no regular file counts as a file that cannot be opened for
    // reading; its type is looked up after the first read, before anything
    // is created beside it.
    if (!reader.Start(true)) {
        const int nErr = errno;
        return {false, false, nErr, CFGFILE_FAILURE};
    }
    CFG_TRACE_AS(szFunction, 7, "OPENED \"%s\".\n", szFileName);

    // Private (0600) until it has the file's mode and owner; a leftover of
    // an earlier change is emptied.
    if (!temp.Held() ||
        (!temp.Created() && Sys([&] { return ftruncate(temp.Fd(), 0); }, -1) != 0)) {
        CFG_TRACE_AS(szFunction, 7, "Unable to open tmp file \"%s\".\n", names.szTmpFileName);
        readFile.Close();
        CFG_TRACE_AS(szFunction, 7, "closed \"%s\".\n", szFileName);
        return {true, false, 0, CFGFILE_FAILURE};
    }
    temp.MarkUsed();
    CFG_TRACE_AS(szFunction, 7, "OPENED \"%s\".\n", names.szTmpFileName);
    OutputFile tmp(temp.Fd());
    CopyFilePermissionsToFd(szFileName, tmp.Descriptor());
    CopyFileOwnershipToFd(szFileName, tmp.Descriptor());

    reader.OnRefill([](void *pTmp) { static_cast<OutputFile *>(pTmp)->WritePending(); }, &tmp);
    int iRetCode = CopyLines(rules, names, reader, tmp, op);
    if (iRetCode == CFGFILE_SUCCESS && !op.Finish(tmp))
        iRetCode = CFGFILE_FAILURE;
    const bool bSwap =
        iRetCode == CFGFILE_SUCCESS && (op.Changed() || !rules.bDiscardWhenUnchanged);

    // A temporary file that could not be written, flushed, synced or closed
    // whole is never swapped in.
    bool bComplete;
    if (rules.bTemporaryClosedFirst) {
        CFG_TRACE_AS(szFunction, 7, "closed \"%s\".\n", names.szTmpFileName);
        bComplete = tmp.Commit(bSwap);
        CFG_TRACE_AS(szFunction, 7, "closed \"%s\".\n", szFileName);
        readFile.Close();
    } else {
        readFile.Close();
        CFG_TRACE_AS(szFunction, 7, "closed \"%s\".\n", szFileName);
        CFG_TRACE_AS(szFunction, 7, "closed \"%s\".\n", names.szTmpFileName);
        bComplete = tmp.Commit(bSwap);
    }
    if (bSwap && !bComplete)
        iRetCode = CFGFILE_FAILURE;
    *pbSwap = bSwap;
    return {true, true, 0, iRetCode};
}

// Removes a leftover backup, then swaps the new file in, or, when it is not
// to be swapped in, removes it.
__attribute__((noinline)) int SwapOrDiscard(const char *szFunction, const RewriteNames &names,
                                            bool bSwap) {
    char szBackupFileName[kPathBufferSize];
    BackupName(names, szBackupFileName);
    Sys([&] { return unlink(szBackupFileName); }, -1);
    if (bSwap)
        return SwapIn(szFunction, names, szBackupFileName);
    Sys([&] { return unlink(names.szTmpFileName); }, -1);
    return CFGFILE_SUCCESS;
}

// Whether fd (of status *pst) is a regular file, or no file at all (*pbMissing).
bool IsRegularOrMissing(int fd, struct stat *pst, bool *pbMissing) {
    *pbMissing = fd < 0;
    return fd < 0 || (fstat(fd, pst) == 0 && S_ISREG(pst->st_mode));
}

// For a name that could not be opened since what it leads to is missing:
// -1 with errno ENOENT when nothing stands there, EEXIST for a link that
// leads nowhere, which is never replaced by a new file, and EAGAIN when a
// file stands there after all (another change just created it).
int NothingAt(const char *szPath) {
    struct stat st;
    if (lstat(szPath, &st) != 0)
        errno = ENOENT;
    else
        errno = S_ISLNK(st.st_mode) && stat(szPath, &st) != 0 ? EEXIST : EAGAIN;
    return -1;
}

// Opens szPath for a change: -1 with errno ENOENT when nothing stands there,
// EEXIST for a link that leads nowhere, or the open's. A file that another
// change creates meanwhile is opened.
int OpenForChange(const char *szPath) {
    for (int iTry = 0; iTry < 8; ++iTry) {
        const int fd = OpenFile(szPath);
        if (fd >= 0 || errno != ENOENT)
            return fd;
        NothingAt(szPath);
        if (errno != EAGAIN)
            return -1;
    }
    errno = ENOENT; // a file that keeps coming and going counts as missing
    return -1;
}

// Opens the file a change works on (-1 with errno when it cannot) and takes
// the change's exclusion: its temporary file, then the file, once the
// change that put it there is through. What holds the name after the wait
// is opened anew, since a change replaces the file. A missing file is
// waited for where the change would create it; anything but a regular file
// is left to the reader to refuse, with nothing created beside it. Where the
// temporary file cannot be had, the change reports it when it would create it.
int OpenExclusively(const RewriteRules &rules, RewriteNames &names, LockedTemp &temp) {
    int fd = OpenRewriteTarget(rules.szFunction, names);
    if (fd == -1 && errno == ENOENT)
        fd = OpenForChange(names.szTarget);
    bool bMissing;
    struct stat st;
    if (fd == kTargetTooLong || (fd < 0 && !(rules.bCreatesMissing && errno == ENOENT)) ||
        !IsRegularOrMissing(fd, &st, &bMissing))
        return fd;
    const Deadline deadline;
    temp.Acquire(names.szTmpFileName, deadline);
    while (temp.Held()) {
        if (deadline.Passed() ||
            (!bMissing && LockUntil(fd, F_RDLCK, deadline) == LockResult::Busy))
            temp.Release();
        else if (bMissing ? NothingAt(names.szTarget) < 0 && errno == ENOENT
                          : IsFileAt(st, names.szTarget))
            break;
        else {
            if (fd >= 0)
                close(fd);
            fd = OpenForChange(names.szTarget);
            if (fd < 0 && errno != ENOENT)
                return fd;
            bMissing = fd < 0;
            if (fd >= 0 && fstat(fd, &st) != 0)
                return fd; // the reader finds out what it is
        }
    }
    errno = ENOENT; // what a missing file's change saw, whatever came after
    return fd;
}

} // namespace

// Rewrites the file named in names (retargeted to a link's target), with
// temp held. The sequence is compiled once; only the operation's steps differ.
RewriteResult RunRewrite(const RewriteRules &rules, RewriteNames &names, LockedTemp &temp,
                         RewriteSteps &op) {
    const int fd = OpenExclusively(rules, names, temp);
    if (fd == kTargetTooLong) {
        CFG_TRACE_AS(rules.szFunction, 7, "filename is invalid.\n");
        return {true, false, 0, CFGFILE_BAD_PARAMETERS};
    }
    if (fd < 0)
        return {false, false, errno, CFGFILE_FAILURE};
    bool bSwap = false;
    RewriteResult result = CopyToTemporary(rules, names, fd, temp, op, &bSwap);
    if (result.bCopying && result.iRetCode == CFGFILE_SUCCESS)
        result.iRetCode = SwapOrDiscard(rules.szFunction, names, bSwap);
    return result;
}

} // namespace cfglib
