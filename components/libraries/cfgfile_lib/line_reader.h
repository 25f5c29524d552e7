// line_reader.h - reads a file line by line through a block on the caller's
// stack, and passes runs of lines that need no look unread.
#ifndef CFGFILE_LINE_READER_H
#define CFGFILE_LINE_READER_H

#include <sys/stat.h>

#include "line_scan.h"

namespace cfglib {

// The block of the reader, a build option (-DCFGFILE_IO_BLOCK=bytes, a
// multiple of 64, at least 1280). The default keeps every call within 4 KiB
// of stack; a larger block saves a read and a write per block of a large
// file, at the cost of as much stack. The unfinished line that ends a full
// block moves to its start, and the next read fills the rest: a line read
// whole (1199 bytes at most) always leaves room to read on.
#ifndef CFGFILE_IO_BLOCK
#define CFGFILE_IO_BLOCK 1280
#endif
// A lookup keeps no more than its block and a value on its stack, so it
// reads at least 2 KiB at a time: a file of a hundred lines in one read.
constexpr size_t kLookupBlockSize = CFGFILE_IO_BLOCK > 2048 ? CFGFILE_IO_BLOCK : 2048;
constexpr size_t kRewriteBlockSize = CFGFILE_IO_BLOCK;
// The longest unfinished line carried to the start of the block.
constexpr size_t kMaxCarry = kLongLineBufferSize - 1;
static_assert(CFGFILE_IO_BLOCK % 64 == 0 && CFGFILE_IO_BLOCK >= kMaxCarry + 81);

// The kernel copies a read faster into a block that starts on a cache line.
constexpr size_t kBlockAlignment = 64;

// The buffer of a reader of nBlockSize blocks: the block, and a terminator.
template <size_t nBlockSize> struct alignas(kBlockAlignment) ReaderBuffer {
    char bytes[nBlockSize + 1];
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
    __attribute__((noinline)) bool Start(bool bTypeNow = false) {
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

    // Reads up to nCapacity - 1 bytes (at most kMaxCarry + 1), stopping after a
    // line feed, and hands them out terminated in *pszLine, in the block;
    // *pnLength is their number. A read that runs past the end of a full
    // block is carried with the block read after it, so no read is ever
    // copied. False at the end of the file, after a read error (a line it
    // cuts is no line), or when nCapacity < 2. The text may be changed until
    // the next call.
    bool Next(size_t nCapacity, char **pszLine, size_t *pnLength) {
        Unterminate();
        const size_t nMax = nCapacity - 1;
        const void *pvNewline =
            nCapacity < 2
                ? nullptr
                : memchr(m_block + m_nPos, '\n', m_nEnd - m_nPos < nMax ? m_nEnd - m_nPos : nMax);
        if (pvNewline == nullptr)
            return NextAcrossBlocks(nCapacity, pszLine, pnLength);
        return HandOut(static_cast<const char *>(pvNewline) - (m_block + m_nPos) + 1, pszLine,
                       pnLength);
    }

  private:
    // Next for a read that the block does not hold whole with its line feed.
    __attribute__((noinline)) bool NextAcrossBlocks(size_t nCapacity, char **pszLine,
                                                    size_t *pnLength) {
        if (nCapacity < 2)
            return false;
        const size_t nMax = nCapacity - 1;
        for (;;) {
            const size_t nAvailable = m_nEnd - m_nPos < nMax ? m_nEnd - m_nPos : nMax;
            const void *pvNewline = memchr(m_block + m_nPos, '\n', nAvailable);
            if (pvNewline != nullptr || nAvailable == nMax)
                return HandOut(pvNewline
                                   ? static_cast<const char *>(pvNewline) - (m_block + m_nPos) + 1
                                   : nMax,
                               pszLine, pnLength);
            if (!ReadOnAfterLine())
                return !m_bFailed && nAvailable > 0 && HandOut(nAvailable, pszLine, pnLength);
        }
    }

    // Hands out the nTake bytes at the reader's position, terminated.
    bool HandOut(size_t nTake, char **pszLine, size_t *pnLength) {
        char *pcStart = m_block + m_nPos;
        m_nPos += nTake;
        m_cTerminated = m_block[m_nPos];
        m_block[m_nPos] = '\0';
        m_bTerminated = true;
        m_bAtLineStart = pcStart[nTake - 1] == '\n';
        Remember(pcStart, nTake);
        *pszLine = pcStart;
        *pnLength = nTake;
        return true;
    }

    // Reads on after the unfinished line at the reader's position: into the
    // rest of the block, or, when the block is full, after the line carried
    // before the next block. False at the end of the file or on a read error.
    __attribute__((noinline)) bool ReadOnAfterLine() {
        if (m_bFailed || m_bAtEnd)
            return false;
        return m_nEnd == m_nEndOfBlock ? CarryAndReadOn() : Refill();
    }

  public:
    // Reads like Next, always into szBuffer (nCapacity bytes); returns the length.
    __attribute__((noinline)) size_t ReadLine(char *szBuffer, size_t nCapacity) {
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
        Remember(szBuffer, nLength);
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

    // Calls pfnHook(pContext) before the block is read over, so that a writer
    // still holding text of the block can write it out first.
    void OnRefill(void (*pfnHook)(void *), void *pContext) {
        m_pfnRefillHook = pfnHook;
        m_pRefillContext = pContext;
    }

  private:
    void Remember(const char *pcText, size_t nLength) {
        m_pcLast = pcText;
        m_nLastLength = nLength;
    }

    // The block holds one byte more than is read into it: room for the NUL
    // that ends a read handed out in place, saved and put back here.
    void Unterminate() {
        if (m_bTerminated)
            m_block[m_nPos] = m_cTerminated;
        m_bTerminated = false;
    }

    bool HaveBlock() { return m_nPos < m_nEnd || Refill(); }

    // Moves the unfinished line that ends a full block to the block's start
    // and reads on after it: the line can then pass with the lines that
    // follow instead of being put together on its own. Text of the block
    // that waits to be written goes out first (the hook). False when the
    // line is too long to move, or nothing follows.
    bool CarryAndReadOn() {
        const size_t nTail = m_nEnd - m_nPos;
        if (m_nEnd != m_nEndOfBlock || nTail > kMaxCarry || m_bFailed || m_bAtEnd)
            return false;
        if (m_pfnRefillHook != nullptr)
            m_pfnRefillHook(m_pRefillContext);
        memmove(m_block, m_block + m_nPos, nTail);
        StartBlock(nTail);
        return Refill();
    }

    // Starts the block over, holding the nCarried bytes moved to its start.
    void StartBlock(size_t nCarried) {
        m_nPos = 0;
        m_nEnd = nCarried;
        m_nNulSearched = 0;
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
            StartBlock(0);
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
    char *m_block;             // the block
    size_t m_nEndOfBlock;      // index just past the block
    off64_t m_nOffset = 0;     // of the next read in the file
    int m_nErrno = 0;          // of a failed read
    bool m_bShortRead = false; // the last read gave less than asked for
    bool m_bRegular = false;   // known to be a regular file
    off64_t m_nSize = 0;       // its size by fstat; 0 when unknown
    size_t m_nPos = 0;
    size_t m_nEnd = 0;
    bool m_bFailed = false;
    bool m_bRefused = false;
    bool m_bAtEnd = false;
    bool m_bAtLineStart = true; // the last read ended with a line feed
    size_t m_nNulSearched = 0;  // the block is searched for NUL up to here
    bool m_bBlockHoldsNul = false;
    bool m_bTerminated = false;
    char m_cTerminated = 0;
    const char *m_pcLast = nullptr;
    size_t m_nLastLength = 0;
    void (*m_pfnRefillHook)(void *) = nullptr;
    void *m_pRefillContext = nullptr;
};

} // namespace cfglib

#endif
