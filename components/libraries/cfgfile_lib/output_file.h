// output_file.h - writes a new file in gathered writes, remembers a failed
// write until the commit, and syncs a directory.
#ifndef CFGFILE_OUTPUT_FILE_H
#define CFGFILE_OUTPUT_FILE_H

#include <cstdio>

#include <sys/uio.h>

#include "frame.h"

namespace cfglib {

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
inline bool SyncDirectoryOf(const char *szPath) {
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
