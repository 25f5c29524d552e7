// cfgfile_api.cpp - CFGFILELIB: settings kept in INI-style text files.
//
// Every operation opens the file, works on it line by line in fixed buffers
// on its own stack and closes it again; nothing is cached between calls and
// nothing is allocated on the heap by this file (the C library's stream for
// a temporary file is the one allocation, made by the C library itself).
//
// Layout of this file:
//   1. frame: trace channel, load hooks, system-call seam
//   2. files: reading lines, writing a temporary file, names beside a file
//   3. the line grammar shared by the lookup, the writer and the deletions
//   4. the lookup and the getters
//   5. the safe rewrite, and the operations that change a file
//   6. section enumeration, the prefixed-line search, group ownership

#include "cfgfile_api.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <clocale>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

#include <fcntl.h>
#include <locale.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON) && defined(__aarch64__)
#include <arm_neon.h>
#endif

#include "dbgtrace.h"
#include "support_lib.h"

// ---------------------------------------------------------------- 1. frame

// The library's one trace channel; opened by the load hook.
HDBG _g_hCfgFileLibDbg = nullptr;

namespace {

// Trace messages name this file, not the build path of the source.
constexpr char kSourceFile[] = "cfgfile_api.cpp";

} // namespace

// The level test comes first, so a silent channel costs one pointer test and
// one comparison, and no argument (errno text, ...) is worked out for nothing.
#define CFG_TRACE_AS(szFunction, nLevel, ...)                                                      \
    do {                                                                                           \
        if (TraceOn(nLevel))                                                                       \
            _DoDbgPrintEx(_g_hCfgFileLibDbg, (nLevel), (szFunction), kSourceFile, __LINE__,        \
                          __VA_ARGS__);                                                            \
    } while (0)

#define CFG_TRACE(nLevel, ...) CFG_TRACE_AS(__func__, nLevel, __VA_ARGS__)

namespace {

// Whether a message of nLevel would be printed.
inline bool TraceOn(int nLevel) {
    return _g_hCfgFileLibDbg != nullptr && _g_hCfgFileLibDbg->nMaxLevel >= nLevel;
}

// The lowest level of a message that names or numbers a line. Below it,
// lines that need no look may be passed over without being counted.
constexpr int kLineTraceLevel = 4;

} // namespace

// _DoAssert ends the process, so an operation never goes on with what failed.
#define CFG_ASSERT_AS(szFunction, condition)                                                       \
    do {                                                                                           \
        if (!(condition))                                                                          \
            _DoAssert(#condition, (szFunction), kSourceFile, __LINE__);                            \
    } while (0)

__attribute__((constructor)) static void __CFGFILELIB_AutoInit() {
    _DoDbgInit("CFGFILELIB", &_g_hCfgFileLibDbg);
}

__attribute__((destructor)) static void __CFGFILELIB_AutoShutdown() {
    _DoDbgUninitEx(&_g_hCfgFileLibDbg, "__CFGFILELIB_AutoShutdown", kSourceFile, __LINE__);
}

// The system calls of a rewrite pass through Sys(). In the shipped library it
// is the call itself. The test build (CFGFILE_FAULT_SEAM) counts the calls and
// can fail the Nth one with a chosen errno, or kill the process right after it.
#ifdef CFGFILE_FAULT_SEAM
namespace {
int g_nSeamCalls = 0;
int g_nSeamTarget = 0;
int g_nSeamErrno = 0;
bool g_bSeamRefuseLinks = false;
} // namespace

// nCall: the call to act on (1 = first; 0 disarms). nErrno > 0: that call
// fails with this errno; nErrno == 0: the process is killed after the call.
extern "C" CFGFILE_API void CfgFileSeam_Arm(int nCall, int nErrno) {
    g_nSeamCalls = 0;
    g_nSeamTarget = nCall;
    g_nSeamErrno = nErrno;
}

extern "C" CFGFILE_API int CfgFileSeam_Calls() {
    return g_nSeamCalls;
}

// bRefuse: hard links fail with EPERM, as on vfat.
extern "C" CFGFILE_API void CfgFileSeam_RefuseLinks(int bRefuse) {
    g_bSeamRefuseLinks = bRefuse != 0;
}

static int LinkFile(const char *szOld, const char *szNew) {
    if (!g_bSeamRefuseLinks)
        return link(szOld, szNew);
    errno = EPERM;
    return -1;
}

template <class Call, class Result> static Result Sys(Call call, Result failure) {
    const bool bHit = ++g_nSeamCalls == g_nSeamTarget;
    if (bHit && g_nSeamErrno > 0) {
        errno = g_nSeamErrno;
        return failure;
    }
    Result result = call();
    if (bHit)
        raise(SIGKILL);
    return result;
}
#else
template <class Call, class Result> static inline Result Sys(Call call, Result) {
    return call();
}

static inline int LinkFile(const char *szOld, const char *szNew) {
    return link(szOld, szNew);
}
#endif

namespace {

// ---------------------------------------------------------------- 2. files

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
int OpenFile(const char *szFileName, int nFlags = 0) {
    return Sys([&] { return open(szFileName, O_RDONLY | O_CLOEXEC | O_NONBLOCK | nFlags); }, -1);
}

// Which lines of a block an operation must look at one by one. The others
// may pass unread, as one run of text: kept, or left out when bLeaveOut.
struct LineFilter {
    bool bPass;              // false: every line needs a look
    char cFirst;             // lines whose first non-blank character is cFirst need a look
    std::string_view follow; // when this text follows it (empty: always)
    bool bSectionName;       // follow is a section name: after blanks, in any letter case
    bool bShortLines;        // the writer's look: short lines and section lines
    bool bPairs;             // (writer) an empty line and a section line after it may pass
    bool bLeaveOut;          // a rewrite leaves the lines passed out instead of copying them
    bool bTailFirst = false; // follow holds no line feed: its last byte may be compared first

    // Whether lines holding NUL bytes may not pass. Such a line is never
    // looked into, only copied whole; so passing it unread is the same unless
    // the passed lines are left out, or the writer's empty line would pass
    // with it while the writer on its own would drop the empty line.
    constexpr bool StopsAtNul() const { return bLeaveOut || bPairs; }
};

constexpr LineFilter kLookAtEveryLine{false, 0, {}, false, false, false, false};

// Whether follow text may be compared from its last byte: it holds no line
// feed, so that it can only match within one line.
constexpr bool TailFirst(std::string_view follow) {
    for (const char c : follow)
        if (c == '\n')
            return false;
    return !follow.empty();
}

// Section lines; with a name, only those that may name it.
constexpr LineFilter SectionLines(std::string_view name = {}, bool bLeaveOut = false) {
    return {true, '[', name, true, false, false, bLeaveOut, TailFirst(name)};
}

// Lines that may begin with szPrefix (not empty) after their blanks.
constexpr LineFilter PrefixedLines(std::string_view prefix) {
    const std::string_view follow(prefix.data() + 1, prefix.size() - 1);
    return {true, prefix[0], follow, false, false, false, false, TailFirst(follow)};
}

// Whether two bytes of which one lies outside ASCII are the same letter to
// the locale's tolower, as strcasecmp takes them. Kept out of line, so that
// the common case below needs no call.
__attribute__((noinline)) bool SameLocaleLetter(unsigned char c1, unsigned char c2) {
    return tolower(c1) == tolower(c2);
}

// Whether two bytes are the same letter to strcasecmp.
inline bool SameLetter(unsigned char c1, unsigned char c2) {
    if (c1 == c2)
        return true;
    if ((c1 | c2) >= 0x80)
        return SameLocaleLetter(c1, c2);
    const unsigned char cLower = c1 | 0x20;
    return (c1 ^ c2) == 0x20 && cLower >= 'a' && cLower <= 'z';
}

// Whether the text at pc, in a line that ends in a line feed before pcStop,
// may begin with the filter's follow text. A section line's name is trimmed
// and compared without regard to case (the locale's, like strcasecmp), so a
// name that differs before the end of follow can never match it.
inline bool MayFollow(const char *pc, const char *pcStop, const LineFilter &lineFilter) {
    const auto same = [&](char c1, char c2) {
        return lineFilter.bSectionName ? SameLetter(c1, c2) : c1 == c2;
    };
    if (lineFilter.bSectionName)
        while (*pc == ' ')
            ++pc;
    // Numbered names share their beginnings and differ at their ends.
    if (lineFilter.bTailFirst) {
        const size_t nLength = lineFilter.follow.size();
        if (static_cast<size_t>(pcStop - pc) < nLength ||
            !same(pc[nLength - 1], lineFilter.follow.back()))
            return false;
    }
    for (const char c : lineFilter.follow) {
        if (!same(*pc, c))
            return false;
        if (*pc == '\n')
            return true; // never past the end of the line
        ++pc;
    }
    return true;
}

// A cheap first look at the byte after a hit, which most hits fail: it may
// begin follow when it is follow's first byte; before a section name also
// that letter in the other case, a blank, or a byte outside ASCII (the
// locale's letters). MayFollow then looks at the whole text.
struct LeadByte {
    bool bAny;              // no first byte to look at
    bool bNameRules;        // before a section name
    unsigned char cCaseBit; // 0x20 when follow begins with an ASCII letter of a name
    unsigned char cFolded;  // follow's first byte, with cCaseBit set

    static LeadByte Of(const LineFilter &lineFilter) {
        const bool bAny = lineFilter.follow.empty() || lineFilter.cFirst == '\n' ||
                          (lineFilter.bSectionName && lineFilter.follow[0] & 0x80);
        if (bAny)
            return {true, false, 0, 0};
        const unsigned char c = lineFilter.follow[0];
        const unsigned char cLower = c | 0x20;
        const bool bLetter = lineFilter.bSectionName && cLower >= 'a' && cLower <= 'z';
        return {false, lineFilter.bSectionName, static_cast<unsigned char>(bLetter ? 0x20 : 0),
                bLetter ? cLower : c};
    }

    bool MayBegin(unsigned char c) const {
        return bAny || (c | cCaseBit) == cFolded || (bNameRules && (c == ' ' || c >= 0x80));
    }
};

// Sixteen bytes at a time, on every target GCC vectorises for.
using Bytes16 = unsigned char __attribute__((vector_size(16)));

inline Bytes16 Load16(const char *pc) {
    Bytes16 v;
    memcpy(&v, pc, sizeof(v));
    return v;
}

// What comparing two of them gives: all bits of a byte set where they are equal.
using Compared16 = signed char __attribute__((vector_size(16)));

// Whether any byte of a comparison of 16 bytes is set, and the bytes of 64
// that pass a test as a bit mask (one bit a byte, the first byte lowest).
// x86-64 has an instruction that gathers the bits of 16 bytes; AArch64 keeps
// each byte's own bit of eight and gathers them with pairwise additions.
// Elsewhere the writer's scan goes byte by byte, and a lookup's search calls
// memchr.
#if defined(__SSE2__)
#define CFGFILE_BYTE_MASKS 1
// The instruction clears the upper bits itself: a cast to 16 bits would
// cost an extension of every mask.
inline uint64_t MaskOf(Compared16 compared) {
    return static_cast<unsigned>(_mm_movemask_epi8(reinterpret_cast<__m128i>(compared)));
}

inline bool AnySet(Compared16 compared) {
    return MaskOf(compared) != 0;
}

template <typename Test> uint64_t WindowBits(const char *pc, Test test) {
    return MaskOf(test(Load16(pc))) | MaskOf(test(Load16(pc + 16))) << 16 |
           MaskOf(test(Load16(pc + 32))) << 32 | MaskOf(test(Load16(pc + 48))) << 48;
}
#elif defined(__ARM_NEON) && defined(__aarch64__)
#define CFGFILE_BYTE_MASKS 1
inline bool AnySet(Compared16 compared) {
    return vmaxvq_u8(uint8x16_t(compared)) != 0;
}

template <typename Test> uint64_t WindowBits(const char *pc, Test test) {
    const uint8x16_t bits = {1, 2, 4, 8, 16, 32, 64, 128, 1, 2, 4, 8, 16, 32, 64, 128};
    const auto part = [&](int k) { return vandq_u8(uint8x16_t(test(Load16(pc + 16 * k))), bits); };
    const uint8x16_t halves = vpaddq_u8(vpaddq_u8(part(0), part(1)), vpaddq_u8(part(2), part(3)));
    return vgetq_lane_u64(vreinterpretq_u64_u8(vpaddq_u8(halves, halves)), 0);
}
#endif

// The line that a hit at pcHit, which passed the lead byte test, marks: its
// start; or, for a hit inside a line longer than nMaxRead bytes, that line's
// start, since the line is read in pieces that each count as a line; nullptr
// when it marks none. pcKnownLine is a line start before pcHit, moved on.
__attribute__((noinline)) const char *MarkedLineAt(const char *pcStart, const char *pcStop,
                                                   const char *pcHit, const LineFilter &lineFilter,
                                                   size_t nMaxRead, const char *&pcKnownLine) {
    // A line feed ends its line: no text of follow comes after it there.
    if (*pcHit == '\n' && !lineFilter.follow.empty())
        return nullptr;
    if (!MayFollow(pcHit + 1, pcStop, lineFilter))
        return nullptr;
    const char *pcLine = pcHit;
    while (pcLine > pcStart && pcLine[-1] == ' ')
        --pcLine;
    if (pcLine == pcStart || pcLine[-1] == '\n')
        return pcLine;
    // Inside a line (rare): only far into a long line may a piece begin here.
    if (static_cast<size_t>(pcHit - pcKnownLine) < nMaxRead)
        return nullptr;
    const void *pvNewline = memrchr(pcKnownLine, '\n', pcHit - pcKnownLine);
    if (pvNewline != nullptr)
        pcKnownLine = static_cast<const char *>(pvNewline) + 1;
    return static_cast<size_t>(pcHit - pcKnownLine) >= nMaxRead ? pcKnownLine : nullptr;
}

// The start of the first line in [pcStart, pcStop) that the filter's cFirst
// and follow mark, or of a line longer than nMaxRead bytes with a piece
// that may be marked; pcStop when there is none. pcStart is a line start and
// pcStop - 1 a line feed.
const char *FirstMarkedLine(const char *pcStart, const char *pcStop, const LineFilter &lineFilter,
                            size_t nMaxRead) {
    const LeadByte lead = LeadByte::Of(lineFilter);
    const char cFirst = lineFilter.cFirst;
    const char *pcKnownLine = pcStart;
    const auto lineMarkedBy = [&](const char *pcHit) -> const char * {
        if (!lead.MayBegin(pcHit[1]))
            return nullptr;
        return MarkedLineAt(pcStart, pcStop, pcHit, lineFilter, nMaxRead, pcKnownLine);
    };
    const char *pc = pcStart;
#ifdef CFGFILE_BYTE_MASKS
    // Hits may be a line apart: a search that starts again after each one
    // costs more than one pass that walks the hits of every 64-byte window.
    const Bytes16 wanted = Bytes16{} + static_cast<unsigned char>(cFirst);
    for (; pcStop - pc >= 64; pc += 64) {
        if (!AnySet((Load16(pc) == wanted) | (Load16(pc + 16) == wanted) |
                    (Load16(pc + 32) == wanted) | (Load16(pc + 48) == wanted)))
            continue;
        const auto isWanted = [&](Bytes16 bytes) { return bytes == wanted; };
        for (uint64_t nMask = WindowBits(pc, isWanted); nMask != 0; nMask &= nMask - 1)
            if (const char *pcLine = lineMarkedBy(pc + __builtin_ctzll(nMask)))
                return pcLine;
    }
#endif
    while (pc < pcStop) {
        const char *pcHit = static_cast<const char *>(memchr(pc, cFirst, pcStop - pc));
        if (pcHit == nullptr)
            break;
        pc = pcHit + 1;
        if (const char *pcLine = lineMarkedBy(pcHit))
            return pcLine;
    }
    return pcStop;
}

// Whether the line at pcLine, which ends before pcStop, is a short line:
// its line feed is among its first kShortLineLength (3) bytes.
inline bool IsShortLine(const char *pcLine, const char *pcStop) {
    static_assert(kShortLineLength == 3);
    const ptrdiff_t nLeft = pcStop - pcLine;
    return pcLine[0] == '\n' || (nLeft > 1 && pcLine[1] == '\n') ||
           (nLeft > 2 && pcLine[2] == '\n');
}

// Whether a line that starts at pcLine (before pcStop) may need the
// writer's look: a short line, or one that begins with "[" or a blank.
inline bool MayNeedWriterLook(const char *pcLine, const char *pcStop) {
    return IsShortLine(pcLine, pcStop) || *pcLine == '[' || *pcLine == ' ';
}

// Finds the lines of [pcStart, pcStop), whole lines, that may need the
// writer's look, in order. A line feed at i marks the line at i + 1, when
// one of the next three bytes is a line feed too, or the next one a "[" or a
// blank. The marks of the last window scanned are kept: in a file of short
// sections the next candidate mostly lies in the same window.
class WriterCandidates {
  public:
    WriterCandidates(const char *pcStart, const char *pcStop)
        : m_pcWindow(pcStart), m_pcJudged(pcStart), m_pcStop(pcStop) {}

    // The start of the first line after pc that may need the writer's look;
    // pcStop when there is none. pc is never before the line the previous
    // call returned: the kept marks are read relative to it.
    const char *After(const char *pc) {
#ifdef CFGFILE_BYTE_MASKS
        if (pc < m_pcJudged) {
            const uint64_t nLeft = m_nMarks & ~((uint64_t(1) << (pc - m_pcWindow)) - 1);
            if (nLeft != 0)
                return m_pcWindow + __builtin_ctzll(nLeft) + 1;
            pc = m_pcJudged;
        }
        for (; static_cast<size_t>(m_pcStop - pc) >= kWindow; pc += kAdvance) {
            const uint64_t nMarks = WindowMarks(pc);
            if (nMarks != 0) {
                m_pcWindow = pc;
                m_pcJudged = pc + kAdvance;
                m_nMarks = nMarks;
                return pc + __builtin_ctzll(nMarks) + 1;
            }
        }
#endif
        for (; pc < m_pcStop - 1; ++pc)
            if (*pc == '\n' && MayNeedWriterLook(pc + 1, m_pcStop))
                return pc + 1;
        return m_pcStop;
    }

  private:
#ifdef CFGFILE_BYTE_MASKS
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);
    // A line feed is judged when its next three bytes lie in the window too,
    // and the next window starts after it.
    static constexpr size_t kWindow = 64;
    static constexpr size_t kAdvance = kWindow - kShortLineLength;

    static uint64_t WindowMarks(const char *pc) {
        constexpr uint64_t kJudged = (uint64_t(1) << kAdvance) - 1;
        const Bytes16 newline = Bytes16{} + '\n';
        const Bytes16 bracket = Bytes16{} + '[';
        const Bytes16 blank = Bytes16{} + ' ';
        const auto isNewline = [&](Bytes16 bytes) { return bytes == newline; };
        const auto isOpener = [&](Bytes16 bytes) { return (bytes == bracket) | (bytes == blank); };
        const uint64_t nNewlines = WindowBits(pc, isNewline);
        const uint64_t nOpeners = WindowBits(pc, isOpener);
        return nNewlines & kJudged &
               ((nNewlines >> 1) | (nNewlines >> 2) | (nNewlines >> 3) | (nOpeners >> 1));
    }

    uint64_t m_nMarks = 0; // of the window at m_pcWindow, for line feeds before m_pcJudged
#endif
    const char *m_pcWindow;
    const char *m_pcJudged;
    const char *m_pcStop;
};

// The writer's look: short lines and section lines. Outside the section
// it sets, the writer leaves out short lines and writes an empty line before
// every section line but the first; so an empty line, and a section line
// after it that cannot name the section, come out as they were and pass
// together when bPairs. pcStart is a line start, pcStop - 1 a line feed.
const char *FirstLineForWriter(const char *pcStart, const char *pcStop,
                               const LineFilter &lineFilter) {
    WriterCandidates candidates(pcStart, pcStop);
    const char *pcLine = pcStart;
    while (pcLine < pcStop) {
        if (!MayNeedWriterLook(pcLine, pcStop)) {
            pcLine = candidates.After(pcLine);
            continue;
        }
        const bool bEmpty = *pcLine == '\n';
        const char *pc = bEmpty ? pcLine + 1 : pcLine;
        while (pc < pcStop && *pc == ' ')
            ++pc;
        // A line of blanks and text, or an empty line that passes with the
        // section line after it; anything else needs a look.
        if (!bEmpty && *pc != '[' && !IsShortLine(pcLine, pcStop))
            pcLine = candidates.After(pcLine);
        else if (bEmpty && lineFilter.bPairs && pc < pcStop && *pc == '[' &&
                 !IsShortLine(pcLine + 1, pcStop) && !MayFollow(pc + 1, pcStop, lineFilter))
            pcLine = candidates.After(pc); // from inside the section line
        else
            return pcLine;
    }
    return pcStop;
}

// The start of the first line in [pcStart, pcStop), which holds whole lines
// only, longer than nMaxRead bytes: such a line is read in pieces.
const char *FirstLongLine(const char *pcStart, const char *pcStop, size_t nMaxRead) {
    const char *pc = pcStart;
    while (static_cast<size_t>(pcStop - pc) > nMaxRead) {
        const void *pvNewline = memrchr(pc, '\n', nMaxRead);
        if (pvNewline == nullptr)
            return pc;
        pc = static_cast<const char *>(pvNewline) + 1;
    }
    return pcStop;
}

// Block sizes of the reader: a lookup reads a page at a time; a rewrite,
// which also writes every block, reads larger ones to halve its system calls.
// A block is read from its start, never after a carried line, so that reads
// stay at multiples of the block while the file reads in whole blocks: a read
// across a page boundary costs the kernel a page more.
constexpr size_t kLookupBlockSize = 4096;
constexpr size_t kRewriteBlockSize = 16384;

// The kernel copies a read faster into a block that starts on a cache line.
constexpr size_t kBlockAlignment = 64;

// Room before the block for the unfinished line that ended the block before:
// it moves there, so that it can pass with the lines after it. A longer one
// stays where it is and is put together across the blocks, as any read is.
// At least the longest line read whole (1199 bytes); the block after it stays
// aligned.
constexpr size_t kCarryRoom = 1216;
static_assert(kCarryRoom >= kLongLineBufferSize - 1 && kCarryRoom % kBlockAlignment == 0);

// The buffer of a reader of nBlockSize blocks: carry room, block, terminator.
template <size_t nBlockSize> struct alignas(kBlockAlignment) ReaderBuffer {
    char bytes[kCarryRoom + nBlockSize + 1];
};

// Reads a file line by line like fgets, through the caller's block buffer,
// and tells the true length of every read, NUL bytes included. A read that
// lies whole in the block is handed out in place, terminated by a NUL that
// stands in for the next byte until the following call: no copy per line.
class LineReader {
  public:
    template <size_t nBlockSize>
    LineReader(int fd, ReaderBuffer<nBlockSize> &buffer)
        : m_fd(fd), m_block(buffer.bytes), m_nEndOfBlock(sizeof(buffer.bytes) - 1) {}

    // Reads the first block of a file, and refuses what is not a regular
    // file (false, errno set): a FIFO, socket or terminal cannot be read at an
    // offset (ESPIPE), a directory not at all (EISDIR). A device (EINVAL) is
    // told by its type: looked up here when the first read finds nothing, or
    // with bTypeNow; else once kReadBeforeTypeCheck bytes are read (a device
    // may never end), or when a read finds more after a short one. A read
    // error other than these is the reader's failure (Failed()), not a refusal.
    bool Start(bool bTypeNow = false) {
        if (!Refill() && m_bFailed && (m_nErrno == ESPIPE || m_nErrno == EISDIR)) {
            errno = m_nErrno;
            return false;
        }
        if (m_bFailed || (m_nOffset > 0 && !bTypeNow))
            return true;
        if (CheckType()) {
            NoteEndBySize(); // the first read may have been all of the file
            return true;
        }
        errno = m_nErrno;
        return false;
    }

    // Reads up to nCapacity - 1 bytes, stopping after a line feed, and hands
    // them out terminated in *pszLine: in the block, or copied into szSpill
    // (nCapacity bytes) when they span two blocks; *pnLength is their number.
    // False at the end of the file, after a read error, or when nCapacity < 2.
    // The text may be changed until the next call.
    bool Next(char *szSpill, size_t nCapacity, char **pszLine, size_t *pnLength) {
        Unterminate();
        const size_t nMax = nCapacity - 1;
        const size_t nAvailable = m_nEnd - m_nPos < nMax ? m_nEnd - m_nPos : nMax;
        char *pcStart = m_block + m_nPos;
        const void *pvNewline = memchr(pcStart, '\n', nAvailable);
        if (nCapacity < 2 || (pvNewline == nullptr && (nAvailable < nMax || nAvailable == 0)))
            return NextAcrossBlocks(szSpill, nCapacity, pszLine, pnLength);
        const size_t nTake = pvNewline ? static_cast<const char *>(pvNewline) - pcStart + 1 : nMax;
        m_nPos += nTake;
        m_cTerminated = m_block[m_nPos];
        m_block[m_nPos] = '\0';
        m_bTerminated = true;
        m_bAtLineStart = pcStart[nTake - 1] == '\n';
        Remember(pcStart, nTake, true);
        *pszLine = pcStart;
        *pnLength = nTake;
        return true;
    }

  private:
    // The rare read that runs past the end of the block, or the file's end.
    __attribute__((noinline)) bool NextAcrossBlocks(char *szSpill, size_t nCapacity, char **pszLine,
                                                    size_t *pnLength) {
        *pnLength = ReadLine(szSpill, nCapacity);
        *pszLine = szSpill;
        return *pnLength > 0;
    }

  public:
    // Reads like Next, always into szBuffer (nCapacity bytes); returns the length.
    size_t ReadLine(char *szBuffer, size_t nCapacity) {
        Unterminate();
        if (nCapacity < 2)
            return 0;
        size_t nLength = 0;
        while (nLength < nCapacity - 1) {
            if (m_nPos == m_nEnd && !Refill()) {
                if (m_bFailed)
                    nLength = 0; // a line cut by a failed read is no line
                break;
            }
            const size_t nWanted = nCapacity - 1 - nLength;
            const size_t nAvailable = m_nEnd - m_nPos < nWanted ? m_nEnd - m_nPos : nWanted;
            const char *pcStart = m_block + m_nPos;
            const void *pvNewline = memchr(pcStart, '\n', nAvailable);
            const size_t nTake =
                pvNewline ? static_cast<const char *>(pvNewline) - pcStart + 1 : nAvailable;
            memcpy(szBuffer + nLength, pcStart, nTake);
            m_nPos += nTake;
            nLength += nTake;
            if (pvNewline)
                break;
        }
        szBuffer[nLength] = '\0';
        m_bAtLineStart = nLength == 0 || szBuffer[nLength - 1] == '\n';
        Remember(szBuffer, nLength, false);
        return nLength;
    }

    // Passes over the whole lines at the reader's position that lineFilter
    // lets through, up to the end of the block (read first when used up),
    // and returns them; empty when the next line needs a look. A line longer
    // than nCapacity - 1 bytes is never passed (it is read in pieces, and each
    // piece counts as a line), nor, when the filter says so, any line of a
    // block holding NUL bytes.
    __attribute__((noinline)) std::string_view PassLines(const LineFilter &lineFilter,
                                                         size_t nCapacity) {
        Unterminate();
        if (!m_bAtLineStart || nCapacity < 2 || !HaveBlock())
            return {};
        const void *pvLastNewline = memrchr(m_block + m_nPos, '\n', m_nEnd - m_nPos);
        if (pvLastNewline == nullptr && CarryAndReadOn())
            pvLastNewline = memrchr(m_block + m_nPos, '\n', m_nEnd - m_nPos);
        if (lineFilter.StopsAtNul() && BlockHoldsNul())
            return {};
        const char *pcStart = m_block + m_nPos;
        const char *pcStop = pvLastNewline ? static_cast<const char *>(pvLastNewline) + 1 : pcStart;
        pcStop = lineFilter.bShortLines
                     ? FirstLineForWriter(pcStart, pcStop, lineFilter)
                     : FirstMarkedLine(pcStart, pcStop, lineFilter, nCapacity - 1);
        // A long line left out or written by the writer must be read in
        // pieces (its last piece is always kept); others only where a marked
        // piece may begin, which FirstMarkedLine tells.
        if (lineFilter.bShortLines || lineFilter.bLeaveOut) {
            const char *pcLong = FirstLongLine(pcStart, pcStop, nCapacity - 1);
            // An empty line never passes without the section line after it.
            if (pcLong < pcStop && lineFilter.bShortLines && pcLong > pcStart &&
                (pcLong - 1 == pcStart || pcLong[-2] == '\n'))
                --pcLong;
            pcStop = pcLong;
        }
        m_nPos = pcStop - m_block;
        return {pcStart, static_cast<size_t>(pcStop - pcStart)};
    }

    // Has the kernel copy the rest of the file, past the block, to fdOut.
    // False when it cannot; reading then goes on where the copy stopped.
    bool SendRest(int fdOut) {
        Unterminate();
        m_nPos = m_nEnd;
        while (!m_bAtEnd) {
            const ssize_t nCopied =
                Sys([&] { return copy_file_range(m_fd, &m_nOffset, fdOut, nullptr, kMaxCopy, 0); },
                    ssize_t(-1));
            if (nCopied < 0 && errno != EINTR)
                return false;
            if (nCopied < 0)
                continue;
            m_bShortRead = static_cast<size_t>(nCopied) < kMaxCopy;
            m_bAtEnd = nCopied == 0;
            NoteEndBySize();
        }
        return true;
    }

    // Passes over the rest of the block, whatever it holds (read first when
    // used up), and returns it; empty at the end of the file.
    std::string_view PassBlock() {
        Unterminate();
        return HaveBlock() ? TakeBlockRest() : std::string_view();
    }

    // Passes over the rest of the block, whatever it holds, and returns it.
    std::string_view TakeBlockRest() {
        Unterminate();
        const std::string_view rest(m_block + m_nPos, m_nEnd - m_nPos);
        m_nPos = m_nEnd;
        if (!rest.empty())
            m_bAtLineStart = rest.back() == '\n';
        return rest;
    }

    // Whether the last read holds a NUL byte: such text is not a line of the format.
    bool LastHoldsNul() const { return memchr(m_pcLast, '\0', m_nLastLength) != nullptr; }

    bool Failed() const { return m_bFailed; }
    // Whether the end of the file is known to have been read.
    bool AtEnd() const { return m_bAtEnd; }
    // Whether a read found out that this is no regular file: the file is
    // then treated as one that cannot be opened.
    bool Refused() const { return m_bRefused; }
    bool LastInBlock() const { return m_bLastInBlock; }

    // Calls pfnHook(pContext) before the block is read over, so that a writer
    // still holding text of the block can write it out first.
    void OnRefill(void (*pfnHook)(void *), void *pContext) {
        m_pfnRefillHook = pfnHook;
        m_pRefillContext = pContext;
    }

  private:
    void Remember(const char *pcText, size_t nLength, bool bInBlock) {
        m_pcLast = pcText;
        m_nLastLength = nLength;
        m_bLastInBlock = bInBlock;
    }

    // The block holds one byte more than is read into it: room for the NUL
    // that ends a read handed out in place, saved and put back here.
    void Unterminate() {
        if (m_bTerminated)
            m_block[m_nPos] = m_cTerminated;
        m_bTerminated = false;
    }

    bool HaveBlock() { return m_nPos < m_nEnd || Refill(); }

    // Moves the unfinished line that ends a full block into the carry room,
    // just before the block, and reads the next block after it: the line can
    // then pass with the lines that follow instead of being put together on
    // its own. Text of the block that waits to be written goes out first
    // (the hook). False when the line is too long to move, or nothing follows.
    bool CarryAndReadOn() {
        const size_t nTail = m_nEnd - m_nPos;
        if (m_nEnd != m_nEndOfBlock || nTail > kCarryRoom || m_bFailed || m_bAtEnd)
            return false;
        if (m_pfnRefillHook != nullptr)
            m_pfnRefillHook(m_pRefillContext);
        memmove(m_block + kCarryRoom - nTail, m_block + m_nPos, nTail);
        StartBlock(kCarryRoom - nTail);
        return Refill();
    }

    // Starts the block over, its text from nPos (the carry room's end, or a
    // line carried into it) to the carry room's end.
    void StartBlock(size_t nPos) {
        m_nPos = nPos;
        m_nEnd = kCarryRoom;
        m_nNulSearched = nPos;
        m_bBlockHoldsNul = false;
    }

    // Looks up the file's type once it is needed; false, with m_nErrno
    // (EISDIR, EINVAL or fstat's), for anything but a regular file.
    bool CheckType() {
        if (m_bRegular)
            return true;
        struct stat st;
        if (fstat(m_fd, &st) != 0) {
            m_nErrno = errno;
            return false;
        }
        if (!S_ISREG(st.st_mode)) {
            m_nErrno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
            return false;
        }
        m_bRegular = true;
        m_nSize = st.st_size;
        return true;
    }

    // A regular file never reads short before its end, so a short read that
    // ends at the size fstat gave is the end, and the read that would find
    // nothing is saved. Files of procfs and the like give no size (0) and
    // read short record by record: they read on to that empty read.
    void NoteEndBySize() {
        if (m_bShortRead && m_nSize > 0 && m_nOffset == m_nSize)
            m_bAtEnd = true;
    }

    // Whether the block holds a NUL byte. Each read is searched once, when
    // first asked: a lookup that passes lines unread never asks. Must not be
    // asked while a read handed out in place is terminated (that NUL is not
    // the file's).
    bool BlockHoldsNul() {
        if (m_nNulSearched < m_nEnd && !m_bBlockHoldsNul)
            m_bBlockHoldsNul =
                memchr(m_block + m_nNulSearched, '\0', m_nEnd - m_nNulSearched) != nullptr;
        m_nNulSearched = m_nEnd;
        return m_bBlockHoldsNul;
    }

    // Reads on: after what the block holds while it has room, so that text
    // handed out or waiting to be written stays where it is; when it is
    // full, from its start, once the hook has written out what waited.
    bool Refill() {
        m_bTerminated = false;
        if (m_bFailed || m_bAtEnd)
            return false;
        if (m_nEnd == m_nEndOfBlock) {
            if (m_pfnRefillHook != nullptr)
                m_pfnRefillHook(m_pRefillContext);
            StartBlock(kCarryRoom);
        }
        // Read at an offset of its own: what cannot be read so is no file.
        char *pcRoom = m_block + m_nEnd;
        const size_t nRoom = m_nEndOfBlock - m_nEnd;
        ssize_t nRead;
        do {
            nRead = Sys([&] { return pread(m_fd, pcRoom, nRoom, m_nOffset); }, ssize_t(-1));
        } while (nRead < 0 && errno == EINTR);
        if (nRead < 0) {
            m_bFailed = true;
            m_nErrno = errno;
            // A device may fail where a file cannot: after text, its type
            // tells whether the file is refused or merely cut short.
            if (m_nOffset > 0 && !CheckType())
                m_bRefused = true;
        }
        m_bAtEnd = nRead == 0;
        if (nRead <= 0)
            return false;
        // More after a short read (a regular file that grew, or a device), or
        // the file turns out long: its type is looked up.
        if ((m_bShortRead || m_nOffset + nRead > kReadBeforeTypeCheck) && !CheckType()) {
            m_bFailed = m_bRefused = true;
            return false;
        }
        m_bShortRead = static_cast<size_t>(nRead) < nRoom;
        m_nOffset += nRead;
        m_nEnd += static_cast<size_t>(nRead);
        NoteEndBySize();
        return true;
    }

    static constexpr size_t kMaxCopy = size_t(1) << 30;
    // What a lookup reads before it asks the file's type: a read that goes
    // past it asks. Most settings files are smaller and never need the call;
    // a device is still refused soon.
    static constexpr off64_t kReadBeforeTypeCheck = 65536;
    int m_fd;
    char *m_block;             // the carry room, then the block
    size_t m_nEndOfBlock;      // index just past the block
    off64_t m_nOffset = 0;     // of the next read in the file
    int m_nErrno = 0;          // of a failed read
    bool m_bShortRead = false; // the last read gave less than asked for
    bool m_bRegular = false;   // known to be a regular file
    off64_t m_nSize = 0;       // its size by fstat; 0 when unknown
    size_t m_nPos = kCarryRoom;
    size_t m_nEnd = kCarryRoom;
    bool m_bFailed = false;
    bool m_bRefused = false;
    bool m_bAtEnd = false;
    bool m_bAtLineStart = true;         // the last read ended with a line feed
    size_t m_nNulSearched = kCarryRoom; // the block is searched for NUL up to here
    bool m_bBlockHoldsNul = false;
    bool m_bTerminated = false;
    char m_cTerminated = 0;
    const char *m_pcLast = nullptr;
    size_t m_nLastLength = 0;
    bool m_bLastInBlock = false;
    void (*m_pfnRefillHook)(void *) = nullptr;
    void *m_pRefillContext = nullptr;
};

// Writes a new file. Text waits, in order, until it goes out in one writev:
// runs of the reader's block, which stay where they are until the block is
// read over, and small text copied into a staging buffer. The file is also
// open as a stream, which the routines that carry over mode and owner take.
// A failed write is remembered, so that Commit() - write, fsync, close, each
// checked - can refuse a short file.
class OutputFile {
  public:
    OutputFile() = default;
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;
    ~OutputFile() {
        if (m_fp != nullptr)
            fclose(m_fp);
    }

    // Writes to the file open as fd, which stays the caller's: the stream
    // works on a duplicate, so that closing it keeps the caller's lock.
    bool Adopt(int fd) {
        const int fdStream = fcntl(fd, F_DUPFD_CLOEXEC, 0);
        if (fdStream < 0)
            return false;
        m_fp = fdopen(fdStream, "w");
        if (m_fp == nullptr) {
            close(fdStream);
            return false;
        }
        return true;
    }

    FILE *Stream() const { return m_fp; }

    // Writes text that may change after the call: staged, or written at once
    // after what waits when the staging buffer has no room for it.
    __attribute__((noinline)) bool Write(const char *pcData, size_t nLength) {
        if (m_bFailed)
            return false;
        if (nLength > sizeof(m_szStaged) - m_nStaged) {
            AddPart(pcData, nLength);
            return WritePending();
        }
        // A free part first: adding the staged text must not write it out
        // and empty the staging buffer under it.
        if (m_nParts == kMaxParts && !WritePending())
            return false;
        memcpy(m_szStaged + m_nStaged, pcData, nLength);
        AddPart(m_szStaged + m_nStaged, nLength);
        m_nStaged += nLength;
        return true;
    }

    // Writes text that stays where it is until WritePending().
    void CopyPending(const char *pcData, size_t nLength) { AddPart(pcData, nLength); }

    // Writes out everything that waits; false when this or an earlier write failed.
    __attribute__((noinline)) bool WritePending() {
        if (!m_bFailed && m_nParts > 0 && !WriteParts())
            m_bFailed = true;
        m_nParts = 0;
        m_nStaged = 0;
        return !m_bFailed;
    }

    bool Failed() const { return m_bFailed; }

    // Hands everything written so far to the file, so that the descriptor
    // can be written to directly.
    bool Flush() { return WritePending(); }

    int Descriptor() const { return fileno(m_fp); }

    bool Write(std::string_view text) { return Write(text.data(), text.size()); }

    // Writes "<szKey>=<szValue>" and the line feeds given.
    bool WriteKeyLine(const char *szKey, const char *szValue, std::string_view lineEnd) {
        return Write(szKey) && Write("=") && Write(szValue) && Write(lineEnd);
    }

    bool AtLineStart() const { return m_bAtLineStart; }

    // Writes, syncs (when bSync) and closes the file; false when any of it,
    // or any earlier write, failed.
    bool Commit(bool bSync) {
        bool bOk = Flush();
        if (bSync)
            bOk = Sys([&] { return fsync(fileno(m_fp)); }, -1) == 0 && bOk;
        bOk = Sys([&] { return fclose(m_fp); }, EOF) == 0 && bOk;
        m_fp = nullptr;
        return bOk;
    }

  private:
    // Queues text behind what waits: joined to the last part when it
    // follows it in memory, else a part of its own (all that waits is
    // written first when there is no room for one).
    void AddPart(const char *pcData, size_t nLength) {
        if (nLength == 0)
            return;
        m_bAtLineStart = pcData[nLength - 1] == '\n';
        if (m_nParts > 0) {
            iovec &last = m_parts[m_nParts - 1];
            if (static_cast<const char *>(last.iov_base) + last.iov_len == pcData) {
                last.iov_len += nLength;
                return;
            }
        }
        if (m_nParts == kMaxParts)
            WritePending();
        m_parts[m_nParts++] = {const_cast<char *>(pcData), nLength};
    }

    // Writes the parts in order, in one call where the file takes them whole.
    bool WriteParts() {
        iovec *pPart = m_parts;
        int nParts = m_nParts;
        while (nParts > 0) {
            const ssize_t nWritten =
                Sys([&] { return writev(fileno(m_fp), pPart, nParts); }, ssize_t(-1));
            if (nWritten < 0 && errno == EINTR)
                continue;
            if (nWritten <= 0)
                return false;
            for (size_t nLeft = static_cast<size_t>(nWritten); nLeft > 0;) {
                const size_t nTaken = nLeft < pPart->iov_len ? nLeft : pPart->iov_len;
                pPart->iov_base = static_cast<char *>(pPart->iov_base) + nTaken;
                pPart->iov_len -= nTaken;
                nLeft -= nTaken;
                if (pPart->iov_len == 0) {
                    ++pPart;
                    --nParts;
                }
            }
        }
        return true;
    }

    static constexpr int kMaxParts = 16;

    FILE *m_fp = nullptr; // the stream the mode and owner routines take
    bool m_bFailed = false;
    bool m_bAtLineStart = true;
    iovec m_parts[kMaxParts];
    int m_nParts = 0;
    char m_szStaged[1024];
    size_t m_nStaged = 0;
};

// Makes the renames in the directory of szPath durable.
bool SyncDirectoryOf(const char *szPath) {
    char szDirectory[kPathBufferSize];
    CopyString(szDirectory, szPath, sizeof(szDirectory));
    char *pcSlash = strrchr(szDirectory, '/');
    if (pcSlash == nullptr)
        CopyString(szDirectory, ".", sizeof(szDirectory));
    else if (pcSlash == szDirectory)
        pcSlash[1] = '\0';
    else
        *pcSlash = '\0';
    FileDescriptor dir(open(szDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir.IsOpen())
        return false;
    return Sys([&] { return fsync(dir.Get()); }, -1) == 0;
}

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
    Deadline() {
        clock_gettime(CLOCK_MONOTONIC, &m_end);
        m_end.tv_sec += CFGFILE_LOCK_WAIT_MS / 1000;
        m_end.tv_nsec += (CFGFILE_LOCK_WAIT_MS % 1000) * 1000000L;
        if (m_end.tv_nsec >= 1000000000L) {
            ++m_end.tv_sec;
            m_end.tv_nsec -= 1000000000L;
        }
    }
    bool Passed() const {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        return now.tv_sec > m_end.tv_sec ||
               (now.tv_sec == m_end.tv_sec && now.tv_nsec >= m_end.tv_nsec);
    }

  private:
    timespec m_end;
};

enum class LockResult { Held, Busy, Unsupported };

// Waits between two tries for a lock: from 0.25 ms, doubling up to 8 ms.
constexpr long kFirstPauseNs = 250000;
void Pause(long &nPauseNs) {
    const timespec pause = {0, nPauseNs};
    nanosleep(&pause, nullptr);
    nPauseNs = nPauseNs < 8000000 ? nPauseNs * 2 : nPauseNs;
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

// Whether the open file of status stOpen is the one szPath names now
// (links not followed).
bool IsFileAt(const struct stat &stOpen, const char *szPath) {
    struct stat stNamed;
    return lstat(szPath, &stNamed) == 0 && stOpen.st_dev == stNamed.st_dev &&
           stOpen.st_ino == stNamed.st_ino;
}

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
    bool Acquire(const char *szPath, const Deadline &deadline) {
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

    bool Held() const { return m_fd >= 0; }
    // Created by this change: empty, and no leftover to clear.
    bool Created() const { return m_bCreated; }
    int Fd() const { return m_fd; }
    int Errno() const { return m_nErrno; }
    // The change has written to it: it stays, whatever follows.
    void MarkUsed() { m_bUsed = true; }

    void Release() {
        if (m_fd < 0)
            return;
        if (m_bCreated && !m_bUsed)
            Sys([&] { return unlink(m_szPath); }, -1);
        close(m_fd);
        m_fd = -1;
    }

  private:
    static constexpr int kCreateFlags = O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    static constexpr int kOpenFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

    bool Fail(int nErrno) {
        m_nErrno = nErrno;
        errno = nErrno;
        return false;
    }

    // Removes what stands at the name and cannot be a temporary file.
    bool RemoveStranger() {
        return Sys([&] { return unlink(m_szPath); }, -1) == 0 || errno == ENOENT;
    }

    // Locks fd and keeps it when it is still the regular file at the name.
    // True also when it was not kept and the caller should try again.
    bool Take(int fd, bool bCreated, const Deadline &deadline) {
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

    const char *m_szPath = nullptr;
    int m_fd = -1;
    int m_nErrno = 0;
    bool m_bCreated = false;
    bool m_bUsed = false;
};

} // namespace

// ------------------------------------------------------ 3. the line grammar
//
// A line is read with its line feed. Reads of 3 bytes or fewer are short
// lines. After leading blanks (the space character only; a tab is text) a
// "#" starts a comment line, a "[" a section line; any other line is a key
// line when it holds "=". Names compare without regard to letter case.

namespace {

// Removes trailing blanks in place and returns the text after leading blanks.
char *_TrimSpaces(char *szInput) {
    char *pcStart = szInput;
    int nLength = static_cast<int>(strlen(szInput));
    while (*pcStart == ' ')
        ++pcStart;
    while (nLength > 0 && szInput[nLength - 1] == ' ')
        szInput[--nLength] = '\0';
    return pcStart;
}

char *SkipBlanks(char *pcText) {
    while (*pcText == ' ')
        ++pcText;
    return pcText;
}

const char *SkipBlanks(const char *pcText) {
    return SkipBlanks(const_cast<char *>(pcText));
}

// How one operation traces the examination of a section line.
struct SectionLineTraces {
    const char *szFunction;
    const char *szFileName; // non-null: the lookup's message for a missing "]", naming the file
    int nTrimmedLevel;      // level of "Trimmed section = ..."; 0: not traced
};

// Examines the section line whose "[" is at pcBracket. Returns the section's
// name, trimmed, in szSectionBuffer; nullptr when the line names no section
// (no "]", nothing or 80 characters and more between the brackets).
char *ExamineSectionLine(const SectionLineTraces &traces, int iLineCount, const char *pcBracket,
                         char (&szSectionBuffer)[kNameBufferSize]) {
    const char *szFunction = traces.szFunction;
    const char *pcMatch = strchr(pcBracket + 1, ']');
    if (pcMatch == nullptr) {
        if (traces.szFileName != nullptr)
            CFG_TRACE_AS(szFunction, 4,
                         "Line %d of file \"%s\" starts with '[' but there is no matching ']'.\n",
                         iLineCount, traces.szFileName);
        else
            CFG_TRACE_AS(szFunction, 7, "line %d starts with '[' but there is no matching ']'.\n",
                         iLineCount);
        return nullptr;
    }
    const int nSectionLength = static_cast<int>(pcMatch - pcBracket - 1);
    CFG_TRACE_AS(szFunction, 7, "Found end bracket line %d, section length=%d chars.\n", iLineCount,
                 nSectionLength);
    if (nSectionLength == 0) {
        CFG_TRACE_AS(szFunction, 7, "line %d, no section string between '['  and ']'.\n",
                     iLineCount);
        return nullptr;
    }
    if (nSectionLength >= static_cast<int>(kNameBufferSize)) {
        CFG_TRACE_AS(szFunction, 7, "line %d, section is too long (%d chars).\n", iLineCount,
                     nSectionLength);
        return nullptr;
    }
    memcpy(szSectionBuffer, pcBracket + 1, nSectionLength);
    szSectionBuffer[nSectionLength] = '\0';
    char *pcName = _TrimSpaces(szSectionBuffer);
    if (traces.nTrimmedLevel > 0)
        CFG_TRACE_AS(szFunction, traces.nTrimmedLevel, "Trimmed section = \"%s\".\n", pcName);
    return pcName;
}

// The key of a key line: the text from pcKeyStart up to pcEquals without
// blanks at either end, copied into szKeyNameBuffer. nullptr when the key
// itself has 80 characters or more: no name a caller can look up is that
// long, so such a line is treated as another key's.
const char *ExtractKeyName(const char *pcKeyStart, const char *pcEquals,
                           char (&szKeyNameBuffer)[kNameBufferSize]) {
    std::string_view key(pcKeyStart, pcEquals - pcKeyStart);
    while (!key.empty() && key.front() == ' ')
        key.remove_prefix(1);
    while (!key.empty() && key.back() == ' ')
        key.remove_suffix(1);
    if (key.size() >= kNameBufferSize)
        return nullptr;
    memcpy(szKeyNameBuffer, key.data(), key.size());
    szKeyNameBuffer[key.size()] = '\0';
    return szKeyNameBuffer;
}

// Passes over the lines that lineFilter lets through.
void SkipLines(LineReader &reader, const LineFilter &lineFilter, size_t nCapacity) {
    while (!reader.PassLines(lineFilter, nCapacity).empty()) {
    }
}

// ------------------------------------------------ 4. the lookup and getters

// Looks up the value of szKeyName in the first section named szSection.
// On success szBuffer holds the trimmed value cut to *pnBuffSize - 1
// characters (the rest of the buffer zero-filled) and *pnBuffSize becomes
// the whole value's length + 1; otherwise neither is touched.
// *pnBuffSize must be at least 1.
int _ReadValue(const char *szFileName, const char *szSection, const char *szKeyName, char *szBuffer,
               size_t *pnBuffSize) {
    int iRetCode = CFGFILE_FAILURE;
    BOOL bInSection = FALSE;
    int iLineCount = 0;
    char szLineBuffer[kLongLineBufferSize];
    char szSectionBuffer[kNameBufferSize];
    char szKeyNameBuffer[kNameBufferSize];

    FileDescriptor file(OpenFile(szFileName));
    ReaderBuffer<kLookupBlockSize> buffer;
    LineReader reader(file.Get(), buffer);
    if (!file.IsOpen() || !reader.Start()) {
        const int nErr = errno;
        CFG_TRACE(7, "Unable to open \"%s\", errno (%d): \"%s\".\n", szFileName, nErr,
                  strerror_r(nErr, szLineBuffer, sizeof(szLineBuffer)));
        iRetCode = CFGFILE_FILE_ACCESS;
        CFG_TRACE(7, "Returning iRetCode=%d.\n", iRetCode);
        return iRetCode;
    }
    CFG_TRACE(7, "OPENED \"%s\".\n", szFileName);

    const SectionLineTraces sectionTraces{__func__, szFileName, 7};
    // Outside the section only section lines matter; the others pass unread
    // while no trace counts them.
    const bool bPassLines = !TraceOn(kLineTraceLevel);
    size_t nLineLength;
    char *szLine;
    for (;;) {
        if (bPassLines && !bInSection)
            SkipLines(reader, SectionLines(szSection), sizeof(szLineBuffer));
        if (!reader.Next(szLineBuffer, sizeof(szLineBuffer), &szLine, &nLineLength))
            break;
        ++iLineCount;
        CFG_TRACE(8, "Processing line %d.\n", iLineCount);
        if (reader.LastHoldsNul())
            continue; // not text: never a section or key line
        if (nLineLength <= kShortLineLength) {
            CFG_TRACE(8, "Line %d is too short to be processed.\n", iLineCount);
            continue;
        }
        if (nLineLength > sizeof(szLineBuffer) - 2) // the buffer is full
            CFG_TRACE(4,
                      "Line %d of file \"%s\" of %d chars might not have been read completely.\n",
                      iLineCount, szFileName, static_cast<int>(nLineLength));
        if (szLine[nLineLength - 1] != '\n')
            CFG_TRACE(
                5, "Line %d of file \"%s\" of %d char is not terminated by new line character.\n",
                iLineCount, szFileName, static_cast<int>(nLineLength));
        else
            szLine[--nLineLength] = '\0';
        if (nLineLength > 0 && szLine[nLineLength - 1] == '\r')
            szLine[--nLineLength] = '\0';

        char *pcLine = SkipBlanks(szLine);
        // Comment line.
        if (*pcLine == '#') {
            CFG_TRACE(8, "Skipping comment line %d.\n", iLineCount);
            continue;
        }
        // Section line: the next one after the requested section ends the search.
        if (*pcLine == '[') {
            CFG_TRACE(8, "Found section line %d.\n", iLineCount);
            if (bInSection) {
                CFG_TRACE(7, "Already in matching section returning error line %d.\n", iLineCount);
                break;
            }
            const char *pcMatch =
                ExamineSectionLine(sectionTraces, iLineCount, pcLine, szSectionBuffer);
            if (pcMatch != nullptr && strcasecmp(szSection, pcMatch) == 0) {
                bInSection = TRUE;
                CFG_TRACE(7, "Found section.\n");
            }
            continue;
        }
        // Key line, looked at only inside the requested section.
        if (!bInSection)
            continue;
        CFG_TRACE(8, "Found key=value line.\n");
        char *pcEquals = strchr(pcLine, '=');
        if (pcEquals == nullptr)
            continue;
        const char *pcTrimmedKeyName = ExtractKeyName(pcLine, pcEquals, szKeyNameBuffer);
        if (pcTrimmedKeyName == nullptr)
            continue;
        CFG_TRACE(7, "key=\"%s\".\n", pcTrimmedKeyName);
        if (strcasecmp(szKeyName, pcTrimmedKeyName) != 0)
            continue;
        CFG_TRACE(7, "key is a MATCH.\n");

        const char *pcTrimmedKeyValue = _TrimSpaces(pcEquals + 1);
        const size_t nValueLength = strlen(pcTrimmedKeyValue);
        CFG_TRACE(8, "value length=%d.\n", static_cast<int>(nValueLength));
        const size_t nCopy = nValueLength < *pnBuffSize ? nValueLength : *pnBuffSize - 1;
        memcpy(szBuffer, pcTrimmedKeyValue, nCopy);
        memset(szBuffer + nCopy, 0, *pnBuffSize - nCopy);
        CFG_TRACE(8, "value is \"%s\" length=%d.\n", szBuffer, static_cast<int>(nValueLength));
        *pnBuffSize = nValueLength + 1;
        iRetCode = CFGFILE_SUCCESS;
        break;
    }
    file.Close();
    CFG_TRACE(7, "closed \"%s\".\n", szFileName);
    if (iRetCode != CFGFILE_SUCCESS)
        iRetCode = reader.Refused() ? CFGFILE_FILE_ACCESS
                   : bInSection     ? CFGFILE_KEY_NOT_FOUND
                                    : CFGFILE_SECTION_NOT_FOUND;
    CFG_TRACE(7, "Returning iRetCode=%d.\n", iRetCode);
    return iRetCode;
}

// The numeric and boolean getters are one family: each member gives its
// types, its conversion and its trace texts; GetTypedValue does the rest.
struct GetterTexts {
    const char *szCalled;
    const char *szReturning;
    const char *szReturningDefault;
};

constexpr GetterTexts kIntTexts{
    "Called, file=\"%s\" section=\"%s\", key=\"%s\" pnValue=%p, nDefaultValue=%d.\n",
    "Returning value %d.\n", "Returning default value %d.\n"};
constexpr GetterTexts kUnsignedIntTexts{
    "Called, file=\"%s\" section=\"%s\", key=\"%s\" pnValue=%p, nDefaultValue=%u.\n",
    "Returning value %u.\n", "Returning default value %u.\n"};
constexpr GetterTexts kInt64Texts{
    "Called, file=\"%s\" section=\"%s\", key=\"%s\" pnValue=%p, nDefaultValue=%lld.\n",
    "Returning value %lld.\n", "Returning default value %lld.\n"};
constexpr GetterTexts kFloatTexts{
    "Called, file=\"%s\" section=\"%s\", key=\"%s\" pfValue=%p, fDefaultValue=%f.\n",
    "Returning value %f.\n", "Returning default value %f.\n"};
constexpr GetterTexts kBooleanTexts{
    "Called, file=\"%s\" section=\"%s\", key=\"%s\" pbValue=%p, bDefaultValue=%d.\n",
    "Returning bValue %d.\n", "Returning default bValue %d.\n"};

// The value as the trace formats above expect it.
int TraceArgument(int nValue) {
    return nValue;
}
unsigned int TraceArgument(unsigned int nValue) {
    return nValue;
}
long long TraceArgument(INT64 nValue) {
    return nValue;
}
double TraceArgument(float fValue) {
    return fValue;
}

// Converts the value text; false when it is not a value of the type. The
// default is passed for conversions that fall back on it themselves.
template <class Value, class Converted>
using ConvertValue = bool (*)(const char *szText, Converted *pValue, Value defaultValue);

template <class Value, class Converted>
int GetTypedValue(const char *szFunction, const GetterTexts &texts,
                  ConvertValue<Value, Converted> pfnConvert, const char *szFileName,
                  const char *szSection, const char *szKeyName, Value *pValue, Value defaultValue) {
    int iRetCode = CFGFILE_BAD_PARAMETERS;
    size_t nSize = kValueBufferSize;
    char szBuffer[kValueBufferSize];

    CFG_TRACE_AS(szFunction, 7, texts.szCalled, szFileName, szSection, szKeyName,
                 static_cast<void *>(pValue), TraceArgument(defaultValue));
    if (szFileName == nullptr || !IsValidString(szSection, kNameBufferSize) ||
        !IsValidString(szKeyName, kNameBufferSize))
        return iRetCode;

    iRetCode = _ReadValue(szFileName, szSection, szKeyName, szBuffer, &nSize);
    if (iRetCode == CFGFILE_SUCCESS) {
        Converted value{};
        if (pfnConvert(szBuffer, &value, defaultValue)) {
            // int and unsigned int keep the low 32 bits of the 64-bit conversion.
            if (pValue != nullptr) {
                *pValue = static_cast<Value>(value);
                CFG_TRACE_AS(szFunction, 7, texts.szReturning, TraceArgument(*pValue));
            }
            return CFGFILE_SUCCESS;
        }
        iRetCode = CFGFILE_BAD_VALUE;
    }
    if (pValue != nullptr) {
        *pValue = defaultValue;
        CFG_TRACE_AS(szFunction, 7, texts.szReturningDefault, TraceArgument(defaultValue));
    }
    return iRetCode;
}

// The video getters trace nothing of their own.
bool VideoArgumentsValid(const char *szFileName, const char *szSection, const char *szKeyName) {
    return szFileName != nullptr && IsValidString(szSection, kNameBufferSize) &&
           IsValidString(szKeyName, kNameBufferSize);
}

template <class Code>
int GetVideoCode(const char *szFileName, const char *szSection, const char *szKeyName,
                 Code *plValue, long lDefaultValue, long (*pfnConvert)(const char *, long)) {
    size_t nSize = kValueBufferSize;
    char szBuffer[kValueBufferSize];
    if (!VideoArgumentsValid(szFileName, szSection, szKeyName))
        return CFGFILE_BAD_PARAMETERS;
    const int iRetCode = _ReadValue(szFileName, szSection, szKeyName, szBuffer, &nSize);
    const long lValue =
        iRetCode == CFGFILE_SUCCESS ? pfnConvert(szBuffer, lDefaultValue) : lDefaultValue;
    if (plValue != nullptr)
        *plValue = static_cast<Code>(lValue);
    return iRetCode;
}

} // namespace

extern "C" {

CFGFILE_API int CfgFile_GetStringValue(const char *szFileName, const char *szSection,
                                       const char *szKeyName, char *szBuffer, size_t *pnBuffSize,
                                       const char *szDefaultValue) {
    int iRetCode = CFGFILE_BAD_PARAMETERS;
    CFG_TRACE(7,
              "Called, file=\"%s\" section=\"%s\", key=\"%s\" buffer=%p, buffsize=%p, "
              "defaultval=\"%s\".\n",
              szFileName, szSection, szKeyName, static_cast<void *>(szBuffer),
              static_cast<void *>(pnBuffSize), szDefaultValue);
    // A null or over-long default is refused like a bad name: it is copied
    // and measured on every failure path.
    if (szFileName == nullptr || szBuffer == nullptr || pnBuffSize == nullptr || *pnBuffSize == 0 ||
        !IsValidString(szDefaultValue, kValueBufferSize) ||
        !IsValidString(szSection, kNameBufferSize) || !IsValidString(szKeyName, kNameBufferSize)) {
        CFG_TRACE(4, "Invalid parameters detected.\n");
        return iRetCode;
    }

    iRetCode = _ReadValue(szFileName, szSection, szKeyName, szBuffer, pnBuffSize);
    if (iRetCode == CFGFILE_SUCCESS) {
        CFG_TRACE(7, "Returning value \"%s\" size=%d.\n", szBuffer, static_cast<int>(*pnBuffSize));
        return iRetCode;
    }
    CopyString(szBuffer, szDefaultValue, *pnBuffSize);
    *pnBuffSize = strlen(szDefaultValue) + 1;
    CFG_TRACE(7, "Returning default value \"%s\" size=%d.\n", szBuffer,
              static_cast<int>(*pnBuffSize));
    return iRetCode;
}

CFGFILE_API int CfgFile_GetIntValue(const char *szFileName, const char *szSection,
                                    const char *szKeyName, int *pnValue, int nDefaultValue) {
    ConvertValue<int, LONG> pfnConvert = [](const char *szText, LONG *pnValue, int) {
        return StringToDecLONG(szText, pnValue) != 0;
    };
    return GetTypedValue(__func__, kIntTexts, pfnConvert, szFileName, szSection, szKeyName, pnValue,
                         nDefaultValue);
}

CFGFILE_API int CfgFile_GetUnsignedIntValue(const char *szFileName, const char *szSection,
                                            const char *szKeyName, unsigned int *pnValue,
                                            unsigned int nDefaultValue) {
    ConvertValue<unsigned int, ULONG> pfnConvert = [](const char *szText, ULONG *pnValue,
                                                      unsigned int) {
        return StringToDecULONG(szText, pnValue) != 0;
    };
    return GetTypedValue(__func__, kUnsignedIntTexts, pfnConvert, szFileName, szSection, szKeyName,
                         pnValue, nDefaultValue);
}

CFGFILE_API int CfgFile_GetInt64Value(const char *szFileName, const char *szSection,
                                      const char *szKeyName, INT64 *pnValue, INT64 nDefaultValue) {
    ConvertValue<INT64, INT64> pfnConvert = [](const char *szText, INT64 *pnValue, INT64) {
        return StringToDecINT64(szText, pnValue) != 0;
    };
    return GetTypedValue(__func__, kInt64Texts, pfnConvert, szFileName, szSection, szKeyName,
                         pnValue, nDefaultValue);
}

CFGFILE_API int CfgFile_GetFloatValue(const char *szFileName, const char *szSection,
                                      const char *szKeyName, float *pfValue, float fDefaultValue) {
    ConvertValue<float, float> pfnConvert = [](const char *szText, float *pfValue, float) {
        return StringToFLOAT(szText, pfValue) != 0;
    };
    return GetTypedValue(__func__, kFloatTexts, pfnConvert, szFileName, szSection, szKeyName,
                         pfValue, fDefaultValue);
}

// A text that names no truth value gives the caller's default: never a bad value.
CFGFILE_API int CfgFile_GetBooleanValue(const char *szFileName, const char *szSection,
                                        const char *szKeyName, BOOL *pbValue, BOOL bDefaultValue) {
    ConvertValue<BOOL, BOOL> pfnConvert = [](const char *szText, BOOL *pbValue, BOOL bDefault) {
        *pbValue = ConvertBooleanString(szText, bDefault);
        return true;
    };
    return GetTypedValue(__func__, kBooleanTexts, pfnConvert, szFileName, szSection, szKeyName,
                         pbValue, bDefaultValue);
}

CFGFILE_API int CfgFile_GetVideoFormatValue(const char *szFileName, const char *szSection,
                                            const char *szKeyName, VIDEO_FORMAT *plValue,
                                            long lDefaultValue) {
    return GetVideoCode(szFileName, szSection, szKeyName, plValue, lDefaultValue,
                        ConvertVideoFormatString);
}

CFGFILE_API int CfgFile_GetVideoResolutionValue(const char *szFileName, const char *szSection,
                                                const char *szKeyName, long *plValue,
                                                long lDefaultValue) {
    return GetVideoCode(szFileName, szSection, szKeyName, plValue, lDefaultValue,
                        ConvertVideoResolutionString);
}

CFGFILE_API int CfgFile_GetVideoSizeValues(const char *szFileName, const char *szSection,
                                           const char *szKeyName, UINT *pnWidth, UINT nDefaultWidth,
                                           UINT *pnHeight, UINT nDefaultHeight) {
    constexpr unsigned long kMarker = 0x8000000000000000UL;
    size_t nSize = kValueBufferSize;
    char szBuffer[kValueBufferSize];
    const long lDefaultResolution = static_cast<long>(
        ((static_cast<unsigned long>(nDefaultWidth) << 22) & 0x7FFC00000UL) |
        ((static_cast<unsigned long>(nDefaultHeight) << 9) & 0x3FFE00UL) | kMarker);
    if (!VideoArgumentsValid(szFileName, szSection, szKeyName))
        return CFGFILE_BAD_PARAMETERS;

    const int iRetCode = _ReadValue(szFileName, szSection, szKeyName, szBuffer, &nSize);
    if (iRetCode != CFGFILE_SUCCESS) {
        if (pnWidth != nullptr)
            *pnWidth = nDefaultWidth;
        if (pnHeight != nullptr)
            *pnHeight = nDefaultHeight;
        return iRetCode;
    }
    // Sizes are written as line counts ("1080") as often as with a scan letter.
    StringCat(szBuffer, "p", sizeof(szBuffer));
    const long lValue = ConvertVideoResolutionString(szBuffer, lDefaultResolution);
    if (pnWidth != nullptr)
        *pnWidth = static_cast<UINT>((lValue >> 22) & 0x1FFF);
    if (pnHeight != nullptr)
        *pnHeight = static_cast<UINT>((lValue >> 9) & 0x1FFF);
    return CFGFILE_SUCCESS;
}

} // extern "C"

// ------------------------------------------------------ 5. the safe rewrite
//
// A change streams the file line by line into "<name>.tmp", then swaps it in:
// the old file goes to "<name>.bak", the new one to the name, the backup is
// deleted. Each operation supplies its line buffer size, its decision for
// each line and the rules below; the sequence itself is written once here.

namespace {

// One read of a rewrite, as an operation sees it.
struct RewriteLine {
    const char *szText; // the read, terminated; copied as it is unless left out
    size_t nLength;     // bytes read, line feed included
    int iLineCount;
    bool bHasNewline;
    bool bPiece; // first or middle piece of a line longer than the buffer

    // A line ending in its line feed: neither a piece nor an unterminated last line.
    bool IsWholeLine() const { return bHasNewline && !bPiece; }
};

enum class Verdict {
    Copy,        // copy the read unchanged
    LeaveOut,    // leave the read out of the new file
    Written,     // the operation has written what stands for the read
    WriteFailed, // a write of the operation failed
    Stop,        // nothing more will change: stop reading (the copy is discarded)
};

// How an operation differs in the sequence.
struct RewriteRules {
    const char *szFunction;       // the name its traces carry
    int nProcessingLevel;         // level of "Processing line %d."
    bool bTemporaryClosedFirst;   // the temporary file is closed before the file
    bool bDiscardWhenUnchanged;   // keep the file when nothing was left out
    bool bCreatesMissing = false; // a missing file is created (the writer)
};

struct RewriteNames {
    char szTarget[kPathBufferSize]; // the file rewritten: the name, or a link's target
    char szTmpFileName[kPathBufferSize];
    char szBackupFileName[kPathBufferSize];
};

struct RewriteResult {
    bool bOpened;  // false: the file could not be opened for reading (nErrno)
    bool bCopying; // the temporary file was created and the copy begun
    int nErrno;
    int iRetCode; // the result, when the file was opened
};

// Names the file szPath and its temporary and backup files.
void NameRewrite(const char *szFunction, const char *szPath, RewriteNames &names) {
    CopyString(names.szTarget, szPath, sizeof(names.szTarget));
    CopyString(names.szBackupFileName, szPath, sizeof(names.szBackupFileName));
    CopyString(names.szTmpFileName, szPath, sizeof(names.szTmpFileName));
    if (!StringReplaceAddSuffix(names.szBackupFileName, sizeof(names.szBackupFileName), '.', "bak"))
        _DoAssert(
            "StringReplaceAddSuffix(szBackupFileName, sizeof(szBackupFileName), '.', \"bak\")",
            szFunction, kSourceFile, __LINE__);
    if (!StringReplaceAddSuffix(names.szTmpFileName, sizeof(names.szTmpFileName), '.', "tmp"))
        _DoAssert("StringReplaceAddSuffix(szTmpFileName, sizeof(szTmpFileName), '.', \"tmp\")",
                  szFunction, kSourceFile, __LINE__);
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

// Returned by OpenRewriteTarget for a link whose target's path is too long.
constexpr int kTargetTooLong = -2;

// Opens the file a rewrite works on: the name itself, or the target of a
// symbolic link there, which then names the companion files too, so that
// the link stays a link and they lie on the target's file system. The link
// is told by the open itself (O_NOFOLLOW fails on it with ELOOP). -1 with
// errno when the file cannot be opened for reading.
__attribute__((noinline)) int OpenRewriteTarget(const char *szFunction, RewriteNames &names) {
    const int fd = OpenFile(names.szTarget, O_NOFOLLOW);
    if (fd >= 0 || errno != ELOOP)
        return fd;
    char szResolved[PATH_MAX];
    if (realpath(names.szTarget, szResolved) != nullptr) { // else dangling: the name itself
        if (strlen(szResolved) > kMaxFileNameLength)
            return kTargetTooLong;
        NameRewrite(szFunction, szResolved, names);
    }
    return OpenFile(names.szTarget);
}

// Copies a read unchanged. A read handed out in the reader's block joins the
// run of copied text before it, written out in one go (before the block is
// read over, or before anything else is written).
inline bool CopyRead(const LineReader &reader, OutputFile &tmp, const char *szLine,
                     size_t nLength) {
    if (!reader.LastInBlock())
        return tmp.Write(szLine, nLength);
    tmp.CopyPending(szLine, nLength);
    return !tmp.Failed();
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

// Passes the lines that the operation need not look at straight on, in runs
// of the reader's block: copied, or left out. After the change, the tail
// passes whole. False when a write failed.
template <size_t N, class Operation>
bool PassLines(LineReader &reader, OutputFile &tmp, const Operation &op) {
    for (;;) {
        if (op.InTail())
            return CopyTail(reader, tmp);
        const LineFilter lineFilter = op.Passable();
        if (!lineFilter.bPass)
            return true;
        const std::string_view run = reader.PassLines(lineFilter, N);
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
template <size_t N, class Operation>
int CopyLines(const RewriteRules &rules, const RewriteNames &names, LineReader &reader,
              OutputFile &tmp, Operation &op) {
    const char *szFunction = rules.szFunction;
    char szLineBuffer[N];
    int iLineCount = 0;
    bool bInsideLine = false; // the previous read ended inside a line
    // Lines pass unread only while no trace counts them.
    const bool bPassLines = !TraceOn(kLineTraceLevel);
    char *szLine;
    size_t nLength;
    for (;;) {
        if (bPassLines && !PassLines<N>(reader, tmp, op))
            return CFGFILE_FAILURE;
        if (!reader.Next(szLineBuffer, N, &szLine, &nLength))
            break;
        ++iLineCount;
        CFG_TRACE_AS(szFunction, rules.nProcessingLevel, "Processing line %d.\n", iLineCount);
        const bool bHasNewline = szLine[nLength - 1] == '\n';
        const bool bFullPiece = !bHasNewline && nLength == N - 1;
        const bool bLastPiece = bInsideLine && !bFullPiece;
        const RewriteLine line{szLine, nLength, iLineCount, bHasNewline, bInsideLine || bFullPiece};
        bInsideLine = !bHasNewline;

        if (op.InTail()) {
            if (!CopyRead(reader, tmp, szLine, nLength)) {
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
            if (!CopyRead(reader, tmp, szLine, nLength))
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
int SwapIn(const char *szFunction, const RewriteNames &names) {
    const char *szFileName = names.szTarget;
    const bool bLinked = Sys([&] { return LinkFile(szFileName, names.szBackupFileName); }, -1) == 0;
    if (!bLinked && Sys([&] { return rename(szFileName, names.szBackupFileName); }, -1) != 0) {
        const int nErr = errno;
        CFG_TRACE_AS(szFunction, 7,
                     "Failed to rename config file \"%s\" to backup \"%s\", errno=%d, \"%s\".\n",
                     szFileName, names.szBackupFileName, nErr, strerror(nErr));
        return CFGFILE_FAILURE;
    }
    if (Sys([&] { return rename(names.szTmpFileName, szFileName); }, -1) != 0) {
        const int nErr = errno;
        CFG_TRACE_AS(szFunction, 7,
                     "Failed to move tmp file to new config file, errno=%d, \"%s\".\n", nErr,
                     strerror(nErr));
        if (bLinked)
            Sys([&] { return unlink(names.szBackupFileName); }, -1);
        else
            Sys([&] { return rename(names.szBackupFileName, szFileName); }, -1);
        return CFGFILE_FAILURE;
    }
    // The new file is in place. Until the directory is on disk, the backup
    // is the only copy sure to survive a power cut: keep it then.
    if (!SyncDirectoryOf(szFileName))
        return CFGFILE_SUCCESS;
    if (Sys([&] { return unlink(names.szBackupFileName); }, -1) != 0)
        CFG_TRACE_AS(szFunction, 7, "Failed to delete backup file \"%s\".\n",
                     names.szBackupFileName);
    return CFGFILE_SUCCESS;
}

// What a rewrite calls back of its operation: the copy of the lines, the
// text added after them, and whether anything changed.
class RewriteSteps {
  public:
    virtual int Copy(const RewriteRules &rules, const RewriteNames &names, LineReader &reader,
                     OutputFile &tmp) = 0;
    virtual bool Finish(OutputFile &tmp) = 0;
    virtual bool Changed() const = 0;

  protected:
    ~RewriteSteps() = default;
};

template <size_t N, class Operation> class StepsOf final : public RewriteSteps {
  public:
    explicit StepsOf(Operation &op) : m_op(op) {}
    int Copy(const RewriteRules &rules, const RewriteNames &names, LineReader &reader,
             OutputFile &tmp) override {
        return CopyLines<N>(rules, names, reader, tmp, m_op);
    }
    bool Finish(OutputFile &tmp) override { return m_op.Finish(tmp); }
    bool Changed() const override { return m_op.Changed(); }

  private:
    Operation &m_op;
};

// Rewrites names.szTarget, open for reading as fd, through the temporary
// and backup files.
__attribute__((noinline)) RewriteResult CopyAndSwap(const RewriteRules &rules,
                                                    const RewriteNames &names, int fd,
                                                    LockedTemp &temp, RewriteSteps &op) {
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
    OutputFile tmp;
    if (!temp.Held() ||
        (!temp.Created() && Sys([&] { return ftruncate(temp.Fd(), 0); }, -1) != 0) ||
        !tmp.Adopt(temp.Fd())) {
        CFG_TRACE_AS(szFunction, 7, "Unable to open tmp file \"%s\".\n", names.szTmpFileName);
        readFile.Close();
        CFG_TRACE_AS(szFunction, 7, "closed \"%s\".\n", szFileName);
        return {true, false, 0, CFGFILE_FAILURE};
    }
    temp.MarkUsed();
    CFG_TRACE_AS(szFunction, 7, "OPENED \"%s\".\n", names.szTmpFileName);
    CopyFilePermissions(szFileName, tmp.Stream());
    CopyFileOwnership(szFileName, tmp.Stream());

    reader.OnRefill([](void *pTmp) { static_cast<OutputFile *>(pTmp)->WritePending(); }, &tmp);
    int iRetCode = op.Copy(rules, names, reader, tmp);
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
    if (iRetCode != CFGFILE_SUCCESS)
        return {true, true, 0, iRetCode};

    Sys([&] { return unlink(names.szBackupFileName); }, -1);
    if (!bSwap) {
        Sys([&] { return unlink(names.szTmpFileName); }, -1);
        return {true, true, 0, iRetCode};
    }
    return {true, true, 0, SwapIn(szFunction, names)};
}

// Whether fd (of status *pst) is a regular file, or no file at all (*pbMissing).
bool IsRegularOrMissing(int fd, struct stat *pst, bool *pbMissing) {
    *pbMissing = fd < 0;
    return fd < 0 || (fstat(fd, pst) == 0 && S_ISREG(pst->st_mode));
}

// For a name that could not be opened since what it leads to is missing:
// -1 with errno ENOENT when nothing stands there, EEXIST for a link that
// leads nowhere, which is never replaced by a new file.
int NothingAt(const char *szPath) {
    struct stat st;
    errno = lstat(szPath, &st) == 0 ? EEXIST : ENOENT;
    return -1;
}

// Opens szPath for a change: -1 with errno when it cannot.
int OpenForChange(const char *szPath) {
    const int fd = OpenFile(szPath);
    return fd < 0 && errno == ENOENT ? NothingAt(szPath) : fd;
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
        fd = NothingAt(names.szTarget);
    bool bMissing;
    struct stat st;
    if (fd == kTargetTooLong || (fd < 0 && !(rules.bCreatesMissing && errno == ENOENT)) ||
        !IsRegularOrMissing(fd, &st, &bMissing))
        return fd;
    const Deadline deadline;
    temp.Acquire(names.szTmpFileName, deadline);
    while (temp.Held()) {
        if (!bMissing && LockUntil(fd, F_RDLCK, deadline) == LockResult::Busy)
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
    return CopyAndSwap(rules, names, fd, temp, op);
}

// Rewrites the file with an operation that reads lines of up to N - 1 bytes.
template <size_t N, class Operation>
RewriteResult RewriteFile(const RewriteRules &rules, RewriteNames &names, LockedTemp &temp,
                          Operation &op) {
    StepsOf<N, Operation> steps(op);
    return RunRewrite(rules, names, temp, steps);
}

// ------------------------------------------------------------ the writer

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
int CreateNewFile(const RewriteNames &names, LockedTemp &temp, int nOpenErrno,
                  const char *szSection, const char *szKeyName, const char *szValue) {
    const char *szFileName = names.szTarget;
    OutputFile file;
    if (nOpenErrno != ENOENT || !temp.Held() || !file.Adopt(temp.Fd())) {
        const int nErr = nOpenErrno != ENOENT ? nOpenErrno : temp.Held() ? errno : temp.Errno();
        CFG_TRACE_AS(kWriteValue, 7, "Failed to create new file, errno=%d.\n", nErr);
        return nErr == EACCES ? CFGFILE_FILE_ACCESS : CFGFILE_FAILURE;
    }
    temp.MarkUsed();
    CFG_TRACE_AS(kWriteValue, 7, "OPENED \"%s\".\n", szFileName);
    SetDefaultFilePermissions(file.Stream());
    file.Write("[") && file.Write(szSection) && file.Write("]\n") &&
        file.WriteKeyLine(szKeyName, szValue, "\n");
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

// ------------------------------------------------------------ the deletions

constexpr char kDeleteSections[] = "CfgFile_DeleteSections";
constexpr char kDeleteKey[] = "CfgFile_DeleteKey";
constexpr char kDeleteAllSectionKeys[] = "CfgFile_DeleteAllSectionKeys";

// Leaves out whole sections chosen by name, or by a prefix ending in "*".
class SectionRemover {
  public:
    explicit SectionRemover(const char *szSectionPrefix) : m_szSectionPrefix(szSectionPrefix) {
        m_nSectionPrefixLen = strlen(szSectionPrefix);
        if (m_nSectionPrefixLen > 0 && szSectionPrefix[m_nSectionPrefixLen - 1] == '*') {
            m_bFullSectionMatch = false;
            --m_nSectionPrefixLen;
        }
    }

    bool InTail() const { return false; }
    bool Changed() const { return true; }
    bool Finish(OutputFile &) { return true; }
    // Up to the next section line, lines are copied, or left out in a chosen section.
    LineFilter Passable() const {
        if (m_bInSection)
            return SectionLines({}, true);
        return SectionLines({m_szSectionPrefix, m_nSectionPrefixLen});
    }

    Verdict Classify(const RewriteLine &line, OutputFile &) {
        if (line.nLength <= kShortLineLength && !m_bInSection)
            return Verdict::Copy;
        // Over-long lines and an unterminated last line stay whole.
        if (!line.IsWholeLine())
            return Verdict::Copy;
        const char *pcLine = SkipBlanks(line.szText);
        if (*pcLine != '[')
            return m_bInSection ? Verdict::LeaveOut : Verdict::Copy;
        // Every section line ends a selected section and may start another.
        m_bInSection = false;
        const char *pcName = ExamineSectionLine({kDeleteSections, nullptr, 0}, line.iLineCount,
                                                pcLine, m_szSectionBuffer);
        if (pcName == nullptr || !Selects(pcName))
            return Verdict::Copy;
        m_bInSection = true;
        return Verdict::LeaveOut;
    }

  private:
    bool Selects(const char *szName) const {
        if (m_bFullSectionMatch)
            return strcasecmp(m_szSectionPrefix, szName) == 0;
        return strncasecmp(m_szSectionPrefix, szName, m_nSectionPrefixLen) == 0;
    }

    const char *m_szSectionPrefix;
    size_t m_nSectionPrefixLen;
    bool m_bFullSectionMatch = true;
    bool m_bInSection = false;
    char m_szSectionBuffer[kNameBufferSize];
};

// Leaves out the first line of a key in the first section of that name that holds it.
class KeyRemover {
  public:
    KeyRemover(const char *szSection, const char *szKeyName)
        : m_szSection(szSection), m_szKeyName(szKeyName) {}

    bool InTail() const { return false; }
    bool Changed() const { return m_bKeyDeleted; }
    bool Finish(OutputFile &) { return true; }
    LineFilter Passable() const {
        return m_bInSection ? kLookAtEveryLine : SectionLines(m_szSection);
    }

    Verdict Classify(const RewriteLine &line, OutputFile &) {
        if (line.nLength <= kShortLineLength && !m_bInSection)
            return Verdict::Copy;
        if (!line.IsWholeLine())
            return Verdict::Copy;
        const char *pcLine = SkipBlanks(line.szText);
        if (m_bInSection && *pcLine == '[') {
            // The section ends without the key: with nothing changed, the
            // file stays as it is. After a deletion, a later section of the
            // same name may still follow, so the scan goes on.
            if (!m_bKeyDeleted)
                return Verdict::Stop;
            m_bInSection = false;
        }
        if (!m_bInSection) {
            if (*pcLine == '[') {
                const char *pcName = ExamineSectionLine({kDeleteKey, nullptr, 0}, line.iLineCount,
                                                        pcLine, m_szSectionBuffer);
                m_bInSection = pcName != nullptr && strcasecmp(m_szSection, pcName) == 0;
            }
            return Verdict::Copy;
        }
        const char *pcEquals = strchr(pcLine, '=');
        if (pcEquals == nullptr)
            return Verdict::Copy;
        const char *pcTrimmedKeyName = ExtractKeyName(pcLine, pcEquals, m_szKeyNameBuffer);
        if (pcTrimmedKeyName == nullptr)
            return Verdict::Copy;
        CFG_TRACE_AS(kDeleteKey, 7, "key=\"%s\".\n", pcTrimmedKeyName);
        if (strcasecmp(m_szKeyName, pcTrimmedKeyName) != 0)
            return Verdict::Copy;
        m_bKeyDeleted = true;
        m_bInSection = false;
        return Verdict::LeaveOut;
    }

  private:
    const char *m_szSection;
    const char *m_szKeyName;
    bool m_bInSection = false;
    bool m_bKeyDeleted = false;
    char m_szSectionBuffer[kNameBufferSize];
    char m_szKeyNameBuffer[kNameBufferSize];
};

// Leaves out every line holding "=" in each section of a name.
class SectionKeysRemover {
  public:
    explicit SectionKeysRemover(const char *szSection) : m_szSection(szSection) {}

    bool InTail() const { return false; }
    bool Changed() const { return m_bKeyDeleted; }
    bool Finish(OutputFile &) { return true; }
    LineFilter Passable() const {
        return m_bInSection ? kLookAtEveryLine : SectionLines(m_szSection);
    }

    Verdict Classify(const RewriteLine &line, OutputFile &) {
        if ((line.nLength <= kShortLineLength && !m_bInSection) || !line.IsWholeLine())
            return Copying(line);
        const char *pcLine = SkipBlanks(line.szText);
        if (!m_bInSection) {
            if (*pcLine == '[' && NamesSection(line, pcLine)) {
                CFG_TRACE_AS(kDeleteAllSectionKeys, 7, "line %d, Found section: %s.\n",
                             line.iLineCount, m_szSection);
                m_bInSection = true;
            }
            return Copying(line);
        }
        // Any line that begins with "[" ends the section, unexamined.
        if (*pcLine == '[') {
            CFG_TRACE_AS(kDeleteAllSectionKeys, 7, "line %d, Found end of section: %s.\n",
                         line.iLineCount, m_szSection);
            m_bInSection = false;
            return Copying(line);
        }
        if (strchr(pcLine, '=') == nullptr)
            return Copying(line);
        CFG_TRACE_AS(kDeleteAllSectionKeys, 7, "Deleting line %d.\n", line.iLineCount);
        m_bKeyDeleted = true;
        return Verdict::LeaveOut;
    }

  private:
    bool NamesSection(const RewriteLine &line, const char *pcLine) {
        const char *pcName = ExamineSectionLine({kDeleteAllSectionKeys, nullptr, 0},
                                                line.iLineCount, pcLine, m_szSectionBuffer);
        return pcName != nullptr && strcasecmp(m_szSection, pcName) == 0;
    }

    static Verdict Copying(const RewriteLine &line) {
        CFG_TRACE_AS(kDeleteAllSectionKeys, 7, "Copying line %d.\n", line.iLineCount);
        return Verdict::Copy;
    }

    const char *m_szSection;
    bool m_bInSection = false;
    bool m_bKeyDeleted = false;
    char m_szSectionBuffer[kNameBufferSize];
};

// Runs one deletion: a missing file has nothing to remove.
template <class Operation>
int RunDeletion(const RewriteRules &rules, const char *szFileName, Operation &op) {
    RewriteNames names;
    const int iRetCode = PrepareRewrite(rules.szFunction, szFileName, names);
    if (iRetCode != CFGFILE_SUCCESS)
        return iRetCode;
    LockedTemp temp;
    const RewriteResult result = RewriteFile<kShortLineBufferSize>(rules, names, temp, op);
    return result.bOpened ? result.iRetCode : CFGFILE_SUCCESS;
}

// ------------------------------------------------------- the line operations

// Comments out, or leaves out, the first line that begins with a prefix.
class PrefixedLineChanger {
  public:
    PrefixedLineChanger(const char *szFunction, const char *szPrefix, bool bCommentOut)
        : m_szFunction(szFunction), m_szPrefix(szPrefix), m_nPrefixLength(strlen(szPrefix)),
          m_bCommentOut(bCommentOut) {}

    bool InTail() const { return m_bLineChanged; }
    bool Changed() const { return true; }
    bool Finish(OutputFile &) { return true; }
    // Lines that cannot begin with the prefix pass unread.
    LineFilter Passable() const {
        return m_nPrefixLength > 0 ? PrefixedLines(m_szPrefix) : kLookAtEveryLine;
    }

    Verdict Classify(const RewriteLine &line, OutputFile &out) {
        // Only whole lines are matched.
        if (!line.IsWholeLine()) {
            CFG_TRACE_AS(m_szFunction, 7, "line %d is too long to be processed.\n",
                         line.iLineCount);
            return Verdict::Copy;
        }
        const char *pcLine = SkipBlanks(line.szText);
        if (*pcLine == '#' || strncmp(pcLine, m_szPrefix, m_nPrefixLength) != 0)
            return Verdict::Copy;
        CFG_TRACE_AS(m_szFunction, 7, "Line found.\n");
        m_bLineChanged = true;
        if (!m_bCommentOut)
            return Verdict::LeaveOut;
        const bool bOk = out.Write("#") && out.Write(line.szText, line.nLength);
        return bOk ? Verdict::Written : Verdict::WriteFailed;
    }

  private:
    const char *m_szFunction;
    const char *m_szPrefix;
    size_t m_nPrefixLength;
    bool m_bCommentOut;
    bool m_bLineChanged = false;
};

int ChangePrefixedLine(const char *szFunction, const char *szFileName, const char *szPrefix,
                       bool bCommentOut) {
    RewriteNames names;
    const int iRetCode = PrepareRewrite(szFunction, szFileName, names);
    if (iRetCode != CFGFILE_SUCCESS)
        return iRetCode;
    PrefixedLineChanger changer(szFunction, szPrefix, bCommentOut);
    LockedTemp temp;
    const RewriteResult result =
        RewriteFile<kLongLineBufferSize>({szFunction, 8, false, false}, names, temp, changer);
    return result.bOpened ? result.iRetCode : CFGFILE_FAILURE;
}

// ------------------------------------------------------------ recovery

// Follows the chain of symbolic links at szPath to its end, into szTarget:
// true when nothing stands there (the file is missing).
bool FindMissingTarget(const char *szPath, char (&szTarget)[kPathBufferSize]) {
    constexpr int kMaxLinkHops = 40; // as the kernel's limit
    CopyString(szTarget, szPath, sizeof(szTarget));
    for (int iHop = 0; iHop < kMaxLinkHops; ++iHop) {
        struct stat st;
        if (lstat(szTarget, &st) != 0)
            return errno == ENOENT;
        if (!S_ISLNK(st.st_mode))
            return false;
        char szLink[kPathBufferSize];
        const ssize_t nLength = readlink(szTarget, szLink, sizeof(szLink) - 1);
        if (nLength <= 0 || static_cast<size_t>(nLength) >= sizeof(szLink) - 1)
            return false;
        szLink[nLength] = '\0';
        // A relative link is read from the directory of the link.
        char *pcSlash = strrchr(szTarget, '/');
        const size_t nDirectory =
            szLink[0] == '/' || pcSlash == nullptr ? 0 : pcSlash + 1 - szTarget;
        if (nDirectory + static_cast<size_t>(nLength) >= sizeof(szTarget))
            return false;
        memcpy(szTarget + nDirectory, szLink, static_cast<size_t>(nLength) + 1);
    }
    return false;
}

// Whether a regular file stands at szPath.
bool IsRegularFileAt(const char *szPath) {
    struct stat st;
    return lstat(szPath, &st) == 0 && S_ISREG(st.st_mode);
}

constexpr char kRecoverFile[] = "CfgFile_RecoverFile";

// Moves the backup back to the missing file's name, under the exclusion of
// changes, so that a change in the middle of its swap is never undone.
int RestoreBackup(RewriteNames &names) {
    LockedTemp temp;
    temp.Acquire(names.szTmpFileName, Deadline());
    if (temp.Errno() == EWOULDBLOCK) {
        CFG_TRACE_AS(kRecoverFile, 7, "Timed out waiting for a change of \"%s\".\n",
                     names.szTarget);
        return CFGFILE_FAILURE;
    }
    char szMissing[kPathBufferSize];
    if (!FindMissingTarget(names.szTarget, szMissing) || !IsRegularFileAt(names.szBackupFileName)) {
        CFG_TRACE_AS(kRecoverFile, 7, "Nothing to recover for \"%s\".\n", names.szTarget);
        return CFGFILE_SUCCESS;
    }
    if (Sys([&] { return rename(names.szBackupFileName, names.szTarget); }, -1) != 0 ||
        !SyncDirectoryOf(names.szTarget)) {
        const int nErr = errno;
        CFG_TRACE_AS(kRecoverFile, 7, "Failed to restore \"%s\" from backup \"%s\", errno=%d.\n",
                     names.szTarget, names.szBackupFileName, nErr);
        return CFGFILE_FAILURE;
    }
    CFG_TRACE_AS(kRecoverFile, 7, "Restored \"%s\" from backup \"%s\".\n", names.szTarget,
                 names.szBackupFileName);
    return CFGFILE_SUCCESS;
}

} // namespace

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

CFGFILE_API int CfgFile_RecoverFile(const char *szFileName) {
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

CFGFILE_API int CfgFile_DeleteSections(const char *szFileName, const char *szSectionPrefix) {
    if (szSectionPrefix == nullptr)
        return CFGFILE_BAD_PARAMETERS;
    SectionRemover remover(szSectionPrefix);
    return RunDeletion({kDeleteSections, 7, true, false}, szFileName, remover);
}

CFGFILE_API int CfgFile_DeleteKey(const char *szFileName, const char *szSection,
                                  const char *szKeyName) {
    if (szSection == nullptr || szKeyName == nullptr)
        return CFGFILE_BAD_PARAMETERS;
    KeyRemover remover(szSection, szKeyName);
    return RunDeletion({kDeleteKey, 7, true, true}, szFileName, remover);
}

CFGFILE_API int CfgFile_DeleteAllSectionKeys(const char *szFileName, const char *szSection) {
    if (szSection == nullptr)
        return CFGFILE_BAD_PARAMETERS;
    SectionKeysRemover remover(szSection);
    return RunDeletion({kDeleteAllSectionKeys, 7, true, true}, szFileName, remover);
}

CFGFILE_API int CfgFile_CommentLineStartingWith(const char *szFileName, const char *szPrefix) {
    CFG_ASSERT_AS(__func__, szFileName != NULL);
    CFG_ASSERT_AS(__func__, szPrefix != NULL);
    return ChangePrefixedLine(__func__, szFileName, szPrefix, true);
}

CFGFILE_API int CfgFile_DeleteLineStartingWith(const char *szFileName, const char *szPrefix) {
    CFG_ASSERT_AS(__func__, szFileName != NULL);
    CFG_ASSERT_AS(__func__, szPrefix != NULL);
    return ChangePrefixedLine(__func__, szFileName, szPrefix, false);
}

} // extern "C"

// ---------------------------- 6. enumeration, line search, group ownership

extern "C" {

CFGFILE_API int CfgFile_EnumerateSections(const char *szFileName, const char *szSectionPrefix,
                                          char *szBuffer, size_t *pnSize, unsigned int *pnCount) {
    if (szFileName == nullptr || szSectionPrefix == nullptr || pnSize == nullptr ||
        pnCount == nullptr)
        return CFGFILE_BAD_PARAMETERS;
    int iRetCode = -1;
    uint64_t nBufferOffset = 0; // bytes the matching names need, copied or not
    UINT nSectionsCopied = 0;
    char szLineBuffer[kShortLineBufferSize];

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
                SkipLines(reader, SectionLines(), sizeof(szLineBuffer));
            if (!reader.Next(szLineBuffer, sizeof(szLineBuffer), &szLine, &nLineLength))
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

CFGFILE_API int CfgFile_SetGroupOwnership(const char *szFileName, gid_t GroupID) {
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
