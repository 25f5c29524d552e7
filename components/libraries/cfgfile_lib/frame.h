// frame.h - the frame every part of the library shares: the trace channel and
// its macros, the seam over the system calls of a change, the sizes of the
// buffers, and a file descriptor owner.
#ifndef CFGFILE_FRAME_H
#define CFGFILE_FRAME_H

#include "cfgfile_api.h"

#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

#include "dbgtrace.h"
#include "support_lib.h"

// The library's one trace channel; opened by the load hook.
extern HDBG _g_hCfgFileLibDbg __attribute__((visibility("hidden")));

// Messages carry the name of the source file that holds the call, never
// its build path. The level test comes first, so a silent channel costs one
// pointer test and one comparison, and no argument (errno text, ...) is
// worked out for nothing. Where the call stands, and its format, are a
// constant of its own, so that each call passes one pointer for them.
#define CFG_TRACE_AS(szFunction, nLevel, szFormat, ...)                                            \
    do {                                                                                           \
        if (cfglib::TraceOn(nLevel)) {                                                             \
            static_cast<void>(                                                                     \
                sizeof(cfglib::CheckTraceFormat(szFormat __VA_OPT__(, ) __VA_ARGS__)));            \
            static constexpr cfglib::TraceSite kSite{__FILE_NAME__, szFormat, __LINE__};           \
            cfglib::TraceAt(&kSite, (nLevel), (szFunction)__VA_OPT__(, ) __VA_ARGS__);             \
        }                                                                                          \
    } while (0)

#define CFG_TRACE(nLevel, ...) CFG_TRACE_AS(__func__, nLevel, __VA_ARGS__)

// _DoAssert ends the process, so an operation never goes on with what failed.
#define CFG_ASSERT_AS(szFunction, condition)                                                       \
    do {                                                                                           \
        if (!(condition))                                                                          \
            _DoAssert(#condition, (szFunction), __FILE_NAME__, __LINE__);                          \
    } while (0)

namespace cfglib {

// The source file, line and format of a trace call.
struct TraceSite {
    const char *szFile;
    const char *szFormat;
    int nLine;
};

// Prints a message of nLevel, from szFunction at *pSite, on the channel;
// the arguments follow the site's format.
void TraceAt(const TraceSite *pSite, int nLevel, const char *szFunction, ...);

// Never called: lets the compiler check a message's arguments against its format.
int CheckTraceFormat(const char *szFormat, ...) __attribute__((format(printf, 1, 2)));

// Whether a message of nLevel would be printed.
inline bool TraceOn(int nLevel) {
    return _g_hCfgFileLibDbg != nullptr && _g_hCfgFileLibDbg->nMaxLevel >= nLevel;
}

// The lowest level of a message that names or numbers a line. Below it,
// lines that need no look may be passed over without being counted.
constexpr int kLineTraceLevel = 4;

// The system calls of a change pass through Sys(). In the shipped library it
// is the call itself. The test build (CFGFILE_FAULT_SEAM) counts the calls and
// can fail the Nth one with a chosen errno, or kill the process right after it.
#ifdef CFGFILE_FAULT_SEAM
// Counts a call; true when it is to fail (errno set); *pbKill: kill after it.
bool SeamFails(bool *pbKill);
void SeamKill();
// Hard links, refused with EPERM when the test says so (as on vfat).
int LinkFile(const char *szOld, const char *szNew);
// fsync of a new file, failing with EIO when the test says so.
int SyncFile(int fd);

template <class Call, class Result> Result Sys(Call call, Result failure) {
    bool bKill = false;
    if (SeamFails(&bKill))
        return failure;
    Result result = call();
    if (bKill)
        SeamKill();
    return result;
}
#else
template <class Call, class Result> inline Result Sys(Call call, Result) {
    return call();
}

inline int LinkFile(const char *szOld, const char *szNew) {
    return link(szOld, szNew);
}

inline int SyncFile(int fd) {
    return fsync(fd);
}
#endif

constexpr size_t kMaxFileNameLength = 246; // leaves room for ".tmp" in a 256-byte buffer
constexpr size_t kPathBufferSize = 256;
constexpr size_t kNameBufferSize = 80; // section and key names: 79 characters at most
constexpr size_t kValueBufferSize = 256;
constexpr size_t kLongLineBufferSize = 1200;
constexpr size_t kShortLineBufferSize = 512;
constexpr int kShortLineLength = 3; // reads of 3 bytes or fewer are "short lines"

// Owns a file descriptor.
class FileDescriptor {
  public:
    explicit FileDescriptor(int fd) : m_fd(fd) {}
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;
    ~FileDescriptor() { Close(); }

    bool IsOpen() const { return m_fd >= 0; }
    int Get() const { return m_fd; }
    void Close() {
        if (m_fd >= 0)
            close(m_fd);
        m_fd = -1;
    }

  private:
    int m_fd;
};

// Opens a file for reading; a FIFO planted at the name cannot block the open.
// nFlags: more open flags (O_NOFOLLOW).
inline int OpenFile(const char *szFileName, int nFlags = 0) {
    return Sys([&] { return open(szFileName, O_RDONLY | O_CLOEXEC | O_NONBLOCK | nFlags); }, -1);
}

} // namespace cfglib

#endif
