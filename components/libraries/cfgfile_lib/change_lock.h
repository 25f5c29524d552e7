// change_lock.h - how changes of one file exclude each other: locks on the
// temporary file and on the file, waited for up to a deadline.
#ifndef CFGFILE_CHANGE_LOCK_H
#define CFGFILE_CHANGE_LOCK_H

#include <ctime>

#include <sys/stat.h>

#include "frame.h"

namespace cfglib {

// ------------------------------------------------ exclusion of changes
//
// Changes of one file exclude each other through locks on the files they
// work on, never through a file of their own. A change holds a lock on its
// temporary file from before its first read until its backup is gone: the
// temporary file's name is its alone, and once it is renamed over the
// file, the lock goes on holding the file itself. A change that opens the
// file waits for a read lock on it, so that it starts only once the change
// that put the file there is through. The locks are open-file-description
// locks: a dying process drops them, and they meet neither flock(2) on the
// file nor a lock a caller takes on a file of its own.

#ifndef CFGFILE_LOCK_WAIT_MS
#define CFGFILE_LOCK_WAIT_MS 10000 // how long a change waits for another
#endif

// The byte locked, far past any text, so that a caller's own byte-range
// locks on the text are not hit.
constexpr off_t kLockByte = off_t(1) << 62;

// A point in time on the monotonic clock, CFGFILE_LOCK_WAIT_MS from now.
class Deadline {
  public:
    Deadline();
    bool Passed() const;

  private:
    timespec m_end;
};

enum class LockResult { Held, Busy, Unsupported };

// Takes a lock of nType (F_RDLCK, F_WRLCK) on fd, polling until the
// deadline: Busy when another holds it still. A file system without such
// locks (Unsupported) leaves changes as unexcluded as they always were.
LockResult LockUntil(int fd, short nType, const Deadline &deadline);

// Whether the open file of status stOpen is the one szPath names now
// (links not followed).
bool IsFileAt(const struct stat &stOpen, const char *szPath);

// The temporary file of a change, open and locked for the whole change.
// One that the change created and never wrote is removed again, so that a
// change that ends early leaves nothing beside the file.
class LockedTemp {
  public:
    LockedTemp() = default;
    LockedTemp(const LockedTemp &) = delete;
    LockedTemp &operator=(const LockedTemp &) = delete;
    ~LockedTemp() { Release(); }

    // Opens "<name>.tmp", creating it when missing, and locks it. A leftover
    // of a change that died is unlocked and taken over; one that a live
    // change holds is waited for. What is no regular file there (a planted
    // link or FIFO) is removed. False, with Errno(), when it cannot be had.
    bool Acquire(const char *szPath, const Deadline &deadline);

    bool Held() const { return m_fd >= 0; }
    // Created by this change: empty, and no leftover to clear.
    bool Created() const { return m_bCreated; }
    int Fd() const { return m_fd; }
    int Errno() const { return m_nErrno; }
    // The change has written to it: it stays, whatever follows.
    void MarkUsed() { m_bUsed = true; }

    void Release();

  private:
    static constexpr int kCreateFlags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    static constexpr int kOpenFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

    bool Fail(int nErrno) {
        m_nErrno = nErrno;
        errno = nErrno;
        return false;
    }

    // Removes what stands at the name and cannot be a temporary file.
    bool RemoveStranger();
    // Locks fd and keeps it when it is still the regular file at the name.
    // True also when it was not kept and the caller should try again.
    bool Take(int fd, bool bCreated, const Deadline &deadline);

    const char *m_szPath = nullptr;
    int m_fd = -1;
    int m_nErrno = 0;
    bool m_bCreated = false;
    bool m_bUsed = false;
};

} // namespace cfglib

#endif
