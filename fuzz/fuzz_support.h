// fuzz_support.h - what the fuzz targets share: a scratch directory per
// process, file bytes, lines, invariant checks and the trace switch.
//
// Each target takes its integers from the end of the input first, then its
// texts from the front (a text ends at a backslash followed by any other
// byte; "\\\\" stands for one backslash), and the rest of the input is the
// settings file. seeds.py writes its seed inputs in the same layout.
#ifndef CFGFILE_FUZZ_SUPPORT_H
#define CFGFILE_FUZZ_SUPPORT_H

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "dbgtrace.h"

// A broken invariant ends the run like a crash, so that libFuzzer keeps the
// input as a reproducer; the fields of the input are printed with it.
#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition))                                                                          \
            cfgfuzz::Fail(#condition, __FILE__, __LINE__);                                         \
    } while (0)

namespace cfgfuzz {

// The fields of the input being run, for the report of a broken invariant;
// read when it is printed, so a field filled in later shows its bytes.
struct Field {
    const char *szLabel;
    const std::string &bytes;
};
inline std::vector<Field> g_fields;

inline void Describe(std::vector<Field> fields) {
    g_fields = std::move(fields);
}

inline void PrintEscaped(std::string_view bytes) {
    for (unsigned char c : bytes) {
        if (c == '\\' || c == '"')
            fprintf(stderr, "\\%c", c);
        else if (c == '\n')
            fputs("\\n", stderr);
        else if (c >= 0x20 && c < 0x7F)
            fputc(c, stderr);
        else
            fprintf(stderr, "\\x%02x", c);
    }
}

[[noreturn]] inline void Fail(const char *szCondition, const char *szFile, int nLine) {
    fprintf(stderr, "invariant failed: %s (%s:%d)\n", szCondition, szFile, nLine);
    for (const Field &field : g_fields) {
        fprintf(stderr, "  %s (%zu bytes): \"", field.szLabel, field.bytes.size());
        PrintEscaped(field.bytes);
        fputs("\"\n", stderr);
    }
    abort();
}

// Bytes a getter or copy must never write: laid out after each output buffer.
constexpr size_t kGuardSize = 64;
constexpr unsigned char kUnwritten = 0xA5;

// The settings file of this process and its companion names, in a directory
// of its own under $CFGFILE_FUZZ_TMPDIR, /dev/shm (tmpfs: cheap writes) or
// /tmp, so that parallel fuzzers never meet. Removed when the process exits.
class Scratch {
  public:
    static const Scratch &Get() {
        static Scratch scratch;
        return scratch;
    }
    const char *File() const { return m_file.c_str(); }
    const char *Tmp() const { return m_tmp.c_str(); }
    const char *Bak() const { return m_bak.c_str(); }

  private:
    Scratch() {
        const char *szParent = getenv("CFGFILE_FUZZ_TMPDIR");
        if (szParent == nullptr || *szParent == '\0')
            szParent = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string pattern = std::string(szParent) + "/cfgfile-fuzz-XXXXXX";
        FUZZ_CHECK(mkdtemp(pattern.data()) != nullptr);
        m_dir = pattern;
        m_file = m_dir + "/settings.ini";
        m_tmp = m_dir + "/settings.tmp";
        m_bak = m_dir + "/settings.bak";
        // The library's trace, when switched on, goes to a check instead of stderr.
        DbgSetOutput(&Scratch::ReceiveTrace, nullptr);
        DbgSetChannelLevel("CFGFILELIB", -1);
    }
    ~Scratch() {
        for (const std::string *pPath : {&m_file, &m_tmp, &m_bak})
            unlink(pPath->c_str());
        rmdir(m_dir.c_str());
    }

    static void ReceiveTrace(void *, const char *, int, const char *szFunction, const char *szFile,
                             int, const char *szText) {
        FUZZ_CHECK(szFunction != nullptr && szFile != nullptr && szText != nullptr);
        FUZZ_CHECK(strlen(szText) <= 2047);
    }

    std::string m_dir, m_file, m_tmp, m_bak;
};

// Tracing at the most detailed level runs every trace statement's arguments.
inline void SetTracing(bool bOn) {
    DbgSetChannelLevel("CFGFILELIB", bOn ? 8 : -1);
}

inline void WriteBytes(const char *szPath, std::string_view bytes) {
    const int fd = open(szPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    FUZZ_CHECK(fd >= 0);
    FUZZ_CHECK(write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    close(fd);
}

// False when the file does not exist.
inline bool ReadBytes(const char *szPath, std::string &bytes) {
    bytes.clear();
    const int fd = open(szPath, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char block[4096];
    ssize_t nRead;
    while ((nRead = read(fd, block, sizeof(block))) > 0)
        bytes.append(block, static_cast<size_t>(nRead));
    close(fd);
    FUZZ_CHECK(nRead == 0);
    return true;
}

inline bool Exists(const char *szPath) {
    struct stat st;
    return lstat(szPath, &st) == 0;
}

inline ino_t Inode(const char *szPath) {
    struct stat st;
    return stat(szPath, &st) == 0 ? st.st_ino : 0;
}

// Puts the input's file in place (or none), with no companion file left over
// from the previous input.
inline void PlaceFile(const Scratch &scratch, bool bPresent, std::string_view bytes) {
    unlink(scratch.Tmp());
    unlink(scratch.Bak());
    if (bPresent)
        WriteBytes(scratch.File(), bytes);
    else
        unlink(scratch.File());
}

// A text of the input as the library sees it: up to its first NUL.
inline std::string TakeText(FuzzedDataProvider &fdp, size_t nMaxLength) {
    std::string text = fdp.ConsumeRandomLengthString(nMaxLength);
    text.resize(strlen(text.c_str()));
    return text;
}

// The file's lines, each with its line feed; an unterminated last line too.
inline std::vector<std::string_view> SplitLines(std::string_view bytes) {
    std::vector<std::string_view> lines;
    while (!bytes.empty()) {
        const size_t nEnd = bytes.find('\n');
        const size_t nLength = nEnd == std::string_view::npos ? bytes.size() : nEnd + 1;
        lines.push_back(bytes.substr(0, nLength));
        bytes.remove_prefix(nLength);
    }
    return lines;
}

// The reads of a reader that takes at most nMaxRead bytes at a time and stops
// after a line feed: the lines, with each over-long line cut into pieces.
inline std::vector<std::string_view> Reads(std::string_view bytes, size_t nMaxRead) {
    std::vector<std::string_view> reads;
    for (std::string_view line : SplitLines(bytes))
        for (; !line.empty(); line.remove_prefix(std::min(line.size(), nMaxRead)))
            reads.push_back(line.substr(0, nMaxRead));
    return reads;
}

inline bool IsSubsequence(const std::vector<std::string_view> &part,
                          const std::vector<std::string_view> &whole) {
    size_t iPart = 0;
    for (size_t iWhole = 0; iWhole < whole.size() && iPart < part.size(); ++iWhole)
        if (whole[iWhole] == part[iPart])
            ++iPart;
    return iPart == part.size();
}

// The lines of `whole` that are not in `part`, for part a subsequence of whole.
// Which of two equal lines is missing does not matter: they are the same bytes.
inline std::vector<std::string_view> Removed(const std::vector<std::string_view> &part,
                                             const std::vector<std::string_view> &whole) {
    std::vector<std::string_view> removed;
    size_t iPart = 0;
    for (std::string_view line : whole) {
        if (iPart < part.size() && part[iPart] == line)
            ++iPart;
        else
            removed.push_back(line);
    }
    return removed;
}

inline bool HoldsNul(std::string_view text) {
    return text.find('\0') != std::string_view::npos;
}

inline bool EndsWithNewline(std::string_view line) {
    return !line.empty() && line.back() == '\n';
}

// A line the library reads in one piece of at most nMaxRead bytes, ending in
// its line feed and holding no NUL: the only lines an operation may match.
inline bool IsWholeLine(std::string_view line, size_t nMaxRead) {
    return EndsWithNewline(line) && line.size() <= nMaxRead && !HoldsNul(line);
}

inline std::string_view SkipBlanks(std::string_view text) {
    while (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    return text;
}

inline std::string_view TrimBlanks(std::string_view text) {
    text = SkipBlanks(text);
    while (!text.empty() && text.back() == ' ')
        text.remove_suffix(1);
    return text;
}

inline bool EqualNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

inline bool StartsWithNoCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && EqualNoCase(text.substr(0, prefix.size()), prefix);
}

// The name a section line gives, trimmed: the text between "[" and the first
// "]", 1 to 79 characters. Empty when the line names no section (the line is
// given without its line feed).
inline bool SectionName(std::string_view line, std::string_view &name) {
    const std::string_view text = SkipBlanks(line);
    if (text.empty() || text.front() != '[')
        return false;
    const size_t nClose = text.find(']', 1);
    if (nClose == std::string_view::npos || nClose == 1 || nClose - 1 > 79)
        return false;
    name = TrimBlanks(text.substr(1, nClose - 1));
    return true;
}

// An output buffer of nCapacity bytes followed by a guard, all marked unwritten.
class GuardedBuffer {
  public:
    explicit GuardedBuffer(size_t nCapacity)
        : m_nCapacity(nCapacity), m_bytes(nCapacity + kGuardSize, static_cast<char>(kUnwritten)) {}
    char *Data() { return m_bytes.data(); }
    size_t Capacity() const { return m_nCapacity; }

    // True when no byte from nFrom on (the guard included) was written.
    bool UnwrittenFrom(size_t nFrom) const {
        for (size_t i = nFrom; i < m_bytes.size(); ++i)
            if (static_cast<unsigned char>(m_bytes[i]) != kUnwritten)
                return false;
        return true;
    }
    bool GuardIntact() const { return UnwrittenFrom(m_nCapacity); }

  private:
    size_t m_nCapacity;
    std::vector<char> m_bytes;
};

} // namespace cfgfuzz

#endif
