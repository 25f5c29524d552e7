// fuzz_support.h - what the fuzz targets share: a scratch settings file per
// process, file bytes and lines, and the invariant check.
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
// input as a reproducer.
#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "invariant failed: %s (%s:%d)\n", #condition, __FILE__, __LINE__);     \
            abort();                                                                               \
        }                                                                                          \
    } while (0)

namespace cfgfuzz {

using Lines = std::vector<std::string_view>;

// Bytes an operation must never write: laid out after each output buffer.
constexpr size_t kGuardSize = 64;
constexpr char kUnwritten = static_cast<char>(0xA5);

// The settings file of this process and its companions, in a directory of its
// own under $CFGFILE_FUZZ_TMPDIR (or /tmp) so that parallel fuzzers never meet.
struct Scratch {
    std::string dir, file, tmp, bak;

    static const Scratch &Get() {
        static Scratch scratch;
        return scratch;
    }
    Scratch() {
        const char *szParent = getenv("CFGFILE_FUZZ_TMPDIR");
        dir = std::string(szParent && *szParent ? szParent : "/tmp") + "/cfgfile-fuzz-XXXXXX";
        FUZZ_CHECK(mkdtemp(dir.data()) != nullptr);
        file = dir + "/settings.ini";
        tmp = dir + "/settings.tmp";
        bak = dir + "/settings.bak";
        // Traced text is formatted but dropped, so tracing costs no output.
        DbgSetOutput(
            [](void *, const char *, int, const char *, const char *, int, const char *) {},
            nullptr);
    }
    ~Scratch() {
        for (const std::string *pPath : {&file, &tmp, &bak})
            unlink(pPath->c_str());
        rmdir(dir.c_str());
    }
    bool CompanionsLeft() const {
        struct stat st;
        return lstat(tmp.c_str(), &st) == 0 || lstat(bak.c_str(), &st) == 0;
    }
};

// Tracing at the most detailed level runs every trace statement's arguments,
// and has the library read every line; without it, lines that cannot matter
// pass unread.
inline void SetTracing(bool bOn) {
    DbgSetChannelLevel("CFGFILELIB", bOn ? 8 : -1);
}

// Puts the input's file in place (or none), with no companion file left over.
inline void PlaceFile(const Scratch &scratch, bool bPresent, std::string_view bytes) {
    unlink(scratch.tmp.c_str());
    unlink(scratch.bak.c_str());
    unlink(scratch.file.c_str());
    if (!bPresent)
        return;
    const int fd = open(scratch.file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    FUZZ_CHECK(fd >= 0 && write(fd, bytes.data(), bytes.size()) == ssize_t(bytes.size()));
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
        bytes.append(block, size_t(nRead));
    close(fd);
    return true;
}

// Runs an operation on the input's file twice, reading every line and
// letting lines pass unread: both must give the same outcome (what the
// operation returns: its result and output) and leave the same file. The
// tracing is off afterwards.
template <class Operation>
void CheckBothWays(const Scratch &scratch, bool bPresent, std::string_view bytes,
                   Operation operation) {
    std::string outcomes[2], files[2];
    for (int iWay = 0; iWay < 2; ++iWay) {
        PlaceFile(scratch, bPresent, bytes);
        SetTracing(iWay == 0);
        outcomes[iWay] = operation();
        outcomes[iWay] += ReadBytes(scratch.file.c_str(), files[iWay]) ? "+" : "-";
    }
    FUZZ_CHECK(outcomes[0] == outcomes[1] && files[0] == files[1]);
}

// A text of the input as the library sees it: up to its first NUL.
inline std::string TakeText(FuzzedDataProvider &fdp, size_t nMaxLength) {
    return fdp.ConsumeRandomLengthString(nMaxLength).c_str();
}

// The file's lines, each with its line feed; an unterminated last line too.
inline Lines SplitLines(std::string_view bytes) {
    Lines lines;
    while (!bytes.empty()) {
        const size_t nLength = std::min(bytes.find('\n'), bytes.size() - 1) + 1;
        lines.push_back(bytes.substr(0, nLength));
        bytes.remove_prefix(nLength);
    }
    return lines;
}

// A line the library reads in one piece of at most nMaxRead bytes, ending in
// its line feed and holding no NUL: the only lines an operation may match.
inline bool IsWholeLine(std::string_view line, size_t nMaxRead) {
    return !line.empty() && line.back() == '\n' && line.size() <= nMaxRead &&
           line.find('\0') == std::string_view::npos;
}

inline std::string_view TrimBlanks(std::string_view text, bool bBothEnds = true) {
    while (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    while (bBothEnds && !text.empty() && text.back() == ' ')
        text.remove_suffix(1);
    return text;
}

inline bool StartsWithNoCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

inline bool EqualNoCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && StartsWithNoCase(a, b);
}

// An output buffer of nCapacity bytes followed by a guard, all marked unwritten.
struct GuardedBuffer {
    explicit GuardedBuffer(size_t nCapacity) : bytes(nCapacity + kGuardSize, kUnwritten) {}
    char *Data() { return bytes.data(); }
    // True when no byte from nFrom on (the guard included) was written.
    bool UnwrittenFrom(size_t nFrom) const {
        return bytes.find_first_not_of(kUnwritten, nFrom) == std::string::npos;
    }
    bool GuardIntact() const { return UnwrittenFrom(bytes.size() - kGuardSize); }
    std::string bytes;
};

} // namespace cfgfuzz

#endif
