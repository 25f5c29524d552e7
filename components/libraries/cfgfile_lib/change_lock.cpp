// change_lock.cpp - the locks through which changes of one file exclude each
// other, and the temporary file a change holds.
#include "change_lock.h"

namespace cfglib {
namespace {

// Waits between two tries for a lock: from 0.25 ms, doubling up to 8 ms.
constexpr long kFirstPauseNs = 250000;
void Pause(long &nPauseNs) {
    const timespec pause = {0, nPauseNs};
    nanosleep(&pause, nullptr);
    nPauseNs = nPauseNs < 8000000 ? nPauseNs * 2 : nPauseNs;
}

// Whether a change holds the temporary file at szPath that this caller may
// not open for writing (another user's).
bool IsHeldByOther(const char *szPath) {
    FileDescriptor file(open(szPath, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = kLockByte;
    lock.l_len = 1;
    return file.IsOpen() && fcntl(file.Get(), F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

} // namespace

Deadline::Deadline() {
    clock_gettime(CLOCK_MONOTONIC, &m_end);
    m_end.tv_sec += CFGFILE_LOCK_WAIT_MS / 1000;
    m_end.tv_nsec += (CFGFILE_LOCK_WAIT_MS % 1000) * 1000000L;
    if (m_end.tv_nsec >= 1000000000L) {
        ++m_end.tv_sec;
        m_end.tv_nsec -= 1000000000L;
    }
}

bool Deadline::Passed() const {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec > m_end.tv_sec ||
           (now.tv_sec == m_end.tv_sec && now.tv_nsec >= m_end.tv_nsec);
}

// Takes a lock of nType (F_RDLCK, F_WRLCK) on fd, polling until the
// deadline: Busy when another holds it still. A file system without such
// locks (Unsupported) leaves changes as unexcluded as they always were.
LockResult LockUntil(int fd, short nType, const Deadline &deadline) {
    struct flock lock = {};
    lock.l_type = nType;
    lock.l_whence = SEEK_SET;
    lock.l_start = kLockByte;
    lock.l_len = 1;
    for (long nPauseNs = kFirstPauseNs;; Pause(nPauseNs)) {
        if (Sys([&] { return fcntl(fd, F_OFD_SETLK, &lock); }, -1) == 0)
            return LockResult::Held;
        if (errno != EAGAIN && errno != EACCES && errno != EINTR)
            return LockResult::Unsupported;
        if (deadline.Passed())
            return LockResult::Busy;
    }
}

bool IsFileAt(const struct stat &stOpen, const char *szPath) {
    struct stat stNamed;
    return lstat(szPath, &stNamed) == 0 && stOpen.st_dev == stNamed.st_dev &&
           stOpen.st_ino == stNamed.st_ino;
}

bool LockedTemp::Acquire(const char *szPath, const Deadline &deadline) {
    m_szPath = szPath;
    for (long nPauseNs = kFirstPauseNs; m_fd < 0;) {
        if (deadline.Passed())
            return Fail(EWOULDBLOCK);
        bool bCreated = true;
        int fd = Sys([&] { return open(szPath, kCreateFlags, S_IRUSR | S_IWUSR); }, -1);
        if (fd < 0 && errno == EEXIST) {
            bCreated = false;
            fd = Sys([&] { return open(szPath, kOpenFlags); }, -1);
            if (fd < 0 && errno == ENOENT)
                continue; // the holder swapped it in meanwhile
            if (fd < 0 && errno == EACCES && IsHeldByOther(szPath)) {
                Pause(nPauseNs);
                continue;
            }
            if (fd < 0 && errno != ELOOP && errno != ENXIO && errno != EACCES)
                return Fail(errno);
            if (fd < 0 && !RemoveStranger())
                return Fail(errno);
            if (fd < 0)
                continue;
        }
        if (fd < 0)
            return Fail(errno);
        if (!Take(fd, bCreated, deadline))
            return false;
    }
    return true;
}

void LockedTemp::Release() {
    if (m_fd < 0)
        return;
    if (m_bCreated && !m_bUsed)
        Sys([&] { return unlink(m_szPath); }, -1);
    close(m_fd);
    m_fd = -1;
}

// Removes what stands at the name and cannot be a temporary file.
bool LockedTemp::RemoveStranger() {
    return Sys([&] { return unlink(m_szPath); }, -1) == 0 || errno == ENOENT;
}

// Locks fd and keeps it when it is still the regular file at the name.
// True also when it was not kept and the caller should try again.
bool LockedTemp::Take(int fd, bool bCreated, const Deadline &deadline) {
    if (LockUntil(fd, F_WRLCK, deadline) == LockResult::Busy) {
        close(fd);
        return Fail(EWOULDBLOCK);
    }
    struct stat st;
    const bool bAtName = fstat(fd, &st) == 0 && IsFileAt(st, m_szPath);
    if (bAtName && S_ISREG(st.st_mode)) {
        m_fd = fd;
        m_bCreated = bCreated;
        return true;
    }
    close(fd);
    return !bAtName || RemoveStranger() || Fail(errno);
}

} // namespace cfglib
