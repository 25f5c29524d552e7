// output_file.h - writes a new file in gathered writes, remembers a failed
// write until the commit, and syncs a directory.
#ifndef CFGFILE_OUTPUT_FILE_H
#define CFGFILE_OUTPUT_FILE_H

#include <sys/uio.h>

#include "frame.h"

namespace cfglib {

// Writes a new file through the descriptor of its owner. Text waits, in
// order, until it goes out in one writev: it is never copied, so it must
// stay where it is until WritePending() - the reader's block is written out
// before it is read over, and everything else written is the caller's text
// or a literal. A failed write is remembered, so that Commit() - write and
// fsync, each checked - can refuse a short file.
class OutputFile {
  public:
    explicit OutputFile(int fd) : m_fd(fd) {}
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;

    int Descriptor() const { return m_fd; }

    // Queues text that stays where it is until WritePending().
    __attribute__((noinline)) bool Write(const char *pcData, size_t nLength) {
        AddPart(pcData, nLength);
        return !m_bFailed;
    }

    // Queues a run of the reader's block; a failure shows in Failed().
    __attribute__((noinline)) void CopyPending(const char *pcData, size_t nLength) {
        AddPart(pcData, nLength);
    }

    // Writes out everything that waits; false when this or an earlier write failed.
    __attribute__((noinline)) bool WritePending() {
        if (!m_bFailed && m_nParts > 0 && !WriteParts())
            m_bFailed = true;
        m_nParts = 0;
        return !m_bFailed;
    }

    bool Failed() const { return m_bFailed; }

    // Hands everything written so far to the file, so that the descriptor
    // can be written to directly.
    bool Flush() { return WritePending(); }

    bool Write(std::string_view text) { return Write(text.data(), text.size()); }

    // Writes "<szKey>=<szValue>" and the line feeds given.
    __attribute__((noinline)) bool WriteKeyLine(const char *szKey, const char *szValue,
                                                std::string_view lineEnd) {
        return Write(szKey) && Write("=") && Write(szValue) && Write(lineEnd);
    }

    bool AtLineStart() const { return m_bAtLineStart; }

    // Writes and syncs (when bSync) the file; false when either, or any
    // earlier write, failed.
    bool Commit(bool bSync) {
        const bool bOk = Flush();
        return (!bSync || Sys([&] { return SyncFile(m_fd); }, -1) == 0) && bOk;
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
            const ssize_t nWritten = Sys([&] { return writev(m_fd, pPart, nParts); }, ssize_t(-1));
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

    static constexpr int kMaxParts = 8;

    int m_fd;
    bool m_bFailed = false;
    bool m_bAtLineStart = true;
    iovec m_parts[kMaxParts];
    int m_nParts = 0;
};

// Makes the renames in the directory of szPath durable.
__attribute__((noinline)) inline bool SyncDirectoryOf(const char *szPath) {
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

} // namespace cfglib

#endif
