// fuzz_operations: random files, names, numbers and buffer sizes for every
// operation. The first input byte picks the operation (getters, setters,
// deletions, section list, line operations); of the rest, integers are taken
// from the end, texts from the front (a text ends at a backslash followed by
// any other byte; "\\\\" stands for one backslash), and what is left is the
// settings file. seeds.py writes its seed inputs in the same layout.
//
// Checked for every input: an operation gives the same outcome and leaves the
// same file whether it reads every line (tracing on) or lets lines pass; it
// writes nothing past its buffer and leaves no companion file. A getter gives
// one of a lookup's results and never changes the file; a failed set leaves
// the file as it was and a successful one reads back; a deletion only removes
// whole lines; a line operation changes at most one whole line; a section
// list holds names that begin with the prefix, the first ones that fit.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cfgfile_api.h"
#include "dbgtrace.h"

// A broken invariant ends the run like a crash, so that libFuzzer keeps the input.
#define CHECK(condition)                                                                           \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "invariant failed: %s (line %d)\n", #condition, __LINE__);             \
            abort();                                                                               \
        }                                                                                          \
    } while (0)

namespace {

using Lines = std::vector<std::string_view>;
constexpr size_t kGuard = 64; // bytes after each output buffer that must stay unwritten
constexpr char kUnwritten = '\xA5';

// The settings file of this process and its companions, in a directory of its
// own under $CFGFILE_FUZZ_TMPDIR (or /tmp) so that parallel fuzzers never meet.
struct Scratch {
    std::string dir, file, tmp, bak;
    Scratch() {
        const char *szParent = getenv("CFGFILE_FUZZ_TMPDIR");
        dir = std::string(szParent && *szParent ? szParent : "/tmp") + "/cfgfile-fuzz-XXXXXX";
        CHECK(mkdtemp(dir.data()) != nullptr);
        file = dir + "/settings.ini", tmp = dir + "/settings.tmp", bak = dir + "/settings.bak";
        // Traced text is formatted but dropped.
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
        return access(tmp.c_str(), F_OK) == 0 || access(bak.c_str(), F_OK) == 0;
    }
    // Puts the input's file in place (or none), with no companion file left over.
    void Place(bool bPresent, const std::string &bytes) const {
        for (const std::string *pPath : {&file, &tmp, &bak})
            unlink(pPath->c_str());
        const int fd = bPresent ? open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644) : -2;
        CHECK(fd == -2 ||
              (fd >= 0 && write(fd, bytes.data(), bytes.size()) == ssize_t(bytes.size())));
        close(fd);
    }
    // The file's bytes after "+", or "-" when there is none.
    std::string Read() const {
        const int fd = open(file.c_str(), O_RDONLY);
        std::string bytes = fd < 0 ? "-" : "+";
        char block[4096];
        for (ssize_t nRead; fd >= 0 && (nRead = read(fd, block, sizeof(block))) > 0;)
            bytes.append(block, size_t(nRead));
        close(fd);
        return bytes;
    }
};

// An output buffer of nCapacity bytes followed by a guard, all marked unwritten.
struct Buffer : std::string {
    explicit Buffer(size_t nCapacity) : std::string(nCapacity + kGuard, kUnwritten) {}
    bool UnwrittenFrom(size_t nFrom) const { return find_first_not_of(kUnwritten, nFrom) == npos; }
};

// The file's lines, each with its line feed; an unterminated last line too.
Lines SplitLines(std::string_view bytes) {
    Lines lines;
    for (size_t nLength; !bytes.empty(); bytes.remove_prefix(nLength)) {
        nLength = std::min(bytes.find('\n'), bytes.size() - 1) + 1;
        lines.push_back(bytes.substr(0, nLength));
    }
    return lines;
}

// A line read in one piece of at most nMaxRead bytes, ending in its line feed
// and holding no NUL: the only lines an operation may change.
bool IsWholeLine(std::string_view line, size_t nMaxRead) {
    return line.back() == '\n' && line.size() <= nMaxRead && line.find('\0') == line.npos;
}

std::string_view TrimBlanks(std::string_view text, bool bBothEnds = true) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    return bBothEnds ? text.substr(0, text.find_last_not_of(' ') + 1) : text;
}

bool StartsWithNoCase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && !strncasecmp(text.data(), prefix.data(), prefix.size());
}

// Texts the reader gives back as they were written: names it can match, a
// value it neither trims nor cuts, and a file whose lines it reads whole.
bool RoundTrips(std::string_view section, std::string_view key, std::string_view value,
                std::string_view file) {
    for (std::string_view line : SplitLines(file))
        if (line.size() - (line.back() == '\n') > 1198)
            return false;
    const auto name = [](std::string_view text, char cEnd) {
        return !text.empty() && text.size() <= 79 && text.find(cEnd) == text.npos &&
               TrimBlanks(text) == text;
    };
    return name(section, ']') && name(key, '=') && key[0] != '#' && key[0] != '[' &&
           value.size() <= 255 && TrimBlanks(value) == value && key.size() + value.size() >= 2;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nSize) {
    static const Scratch scratch;
    if (nSize == 0)
        return 0;
    const int iTarget = pData[0] % 5; // getters, setters, deletions, section list, lines
    FuzzedDataProvider fdp(pData + 1, nSize - 1);
    const int iOperation = iTarget == 1                   ? fdp.ConsumeIntegralInRange<int>(0, 4)
                           : iTarget >= 2 && iTarget != 3 ? fdp.ConsumeIntegralInRange<int>(0, 2)
                                                          : 0;
    const size_t nCapacity = iTarget == 0   ? fdp.ConsumeIntegralInRange<size_t>(1, 300)
                             : iTarget == 3 ? fdp.ConsumeIntegralInRange<size_t>(0, 600)
                             : iTarget == 4 ? fdp.ConsumeIntegralInRange<size_t>(2, 300)
                                            : 0;
    const bool bPresent = fdp.ConsumeIntegralInRange<int>(0, 15) != 0;
    const bool bTracing = fdp.ConsumeIntegralInRange<int>(0, 7) == 0;
    const int64_t nNumber = iTarget < 2 ? fdp.ConsumeIntegral<int64_t>() : 0;
    const int nPrecision = iTarget == 1 ? fdp.ConsumeIntegralInRange<int>(-2, 40) : 0;
    std::string texts[5];
    for (int i = 0; i < (iTarget == 1 ? 5 : iTarget == 0 ? 3 : iTarget == 2 ? 2 : 1); ++i)
        texts[i] =
            fdp.ConsumeRandomLengthString((iTarget == 0 && i == 2) || i == 4 ? 300 : 100).c_str();
    const std::string bytes = bPresent ? fdp.ConsumeRemainingBytesAsString() : "";
    const char *f = scratch.file.c_str(), *s = texts[0].c_str(), *k = texts[1].c_str();
    const std::string &prefix = iTarget >= 3 ? texts[0] : texts[1];
    std::string value = iTarget == 1 ? texts[4] : texts[2];
    // The search refuses an empty prefix by ending the process.
    if (iTarget == 4 && iOperation == 0 && prefix.empty())
        return 0;

    // Runs the operation: its result and what it handed out, buffers included.
    Buffer out(nCapacity);
    size_t nOut;
    unsigned int nCount;
    int iResult;
    auto run = [&] {
        out = Buffer(nCapacity), nOut = nCapacity, nCount = 0;
        if (iTarget == 0)
            iResult = CfgFile_GetStringValue(f, s, k, out.data(), &nOut, value.c_str());
        else if (iTarget == 1)
            iResult = CfgFile_SetStringValue(f, s, k, value.c_str());
        else if (iTarget == 2)
            iResult = iOperation == 0   ? CfgFile_DeleteSections(f, s)
                      : iOperation == 1 ? CfgFile_DeleteKey(f, s, k)
                                        : CfgFile_DeleteAllSectionKeys(f, s);
        else if (iTarget == 3)
            iResult = CfgFile_EnumerateSections(f, prefix.c_str(), out.data(), &nOut, &nCount);
        else if (iOperation == 0)
            iResult = CfgFile_FindLineStartingWith(f, prefix.c_str(), out.data(), &nOut);
        else
            iResult = (iOperation == 1 ? CfgFile_CommentLineStartingWith
                                       : CfgFile_DeleteLineStartingWith)(f, prefix.c_str());
        CHECK(out.UnwrittenFrom(nCapacity) && !scratch.CompanionsLeft());
        // Of a found line, its bytes only: the search may use the rest of the buffer.
        const size_t nShown = iTarget != 4 ? out.size() : iResult == CFGFILE_SUCCESS ? nOut : 0;
        return std::to_string(iResult) + "/" + std::to_string(nOut) + "/" + std::to_string(nCount) +
               "/" + out.substr(0, nShown);
    };
    // Reading every line and letting lines pass give the same outcome and file.
    std::string outcomes[2];
    for (int iWay = 0; iWay < 3; ++iWay) {
        scratch.Place(bPresent, bytes);
        DbgSetChannelLevel("CFGFILELIB", iWay == 0 || (iWay == 2 && bTracing) ? 8 : -1);
        if (iWay < 2)
            outcomes[iWay] = run() + scratch.Read();
    }
    CHECK(outcomes[0] == outcomes[1]);
    const std::string before = (bPresent ? "+" : "-") + bytes;
    const Lines lines = SplitLines(bytes);

    if (iTarget == 0) {
        run();
        CHECK((iResult >= 0 && iResult <= CFGFILE_KEY_NOT_FOUND) || iResult == CFGFILE_FILE_ACCESS);
        CHECK(iResult == CFGFILE_BAD_PARAMETERS || strnlen(out.data(), nCapacity) < nCapacity);
        CHECK(iResult != CFGFILE_SUCCESS || (nOut >= 1 && nOut - 1 >= strlen(out.data())));
        // The typed getters are compared with a lookup whose default every getter accepts.
        char szProbe[1];
        size_t nProbe = 1;
        const int iLookup = CfgFile_GetStringValue(f, s, k, szProbe, &nProbe, "");
        int nInt, bValue;
        UINT nUnsigned, nWidth, nHeight;
        INT64 nInt64;
        float fValue;
        VIDEO_FORMAT eFormat;
        long nResolution;
        const int iDefault = int(nNumber);
        for (const auto &[iTyped, bMayBeBad] :
             {std::pair{CfgFile_GetIntValue(f, s, k, &nInt, iDefault), true},
              {CfgFile_GetInt64Value(f, s, k, &nInt64, nNumber), true},
              {CfgFile_GetUnsignedIntValue(f, s, k, &nUnsigned, iDefault), true},
              {CfgFile_GetFloatValue(f, s, k, &fValue, float(nNumber)), true},
              {CfgFile_GetBooleanValue(f, s, k, &bValue, iDefault), false},
              {CfgFile_GetVideoFormatValue(f, s, k, &eFormat, iDefault), false},
              {CfgFile_GetVideoResolutionValue(f, s, k, &nResolution, iDefault), false},
              {CfgFile_GetVideoSizeValues(f, s, k, &nWidth, 0, &nHeight, 0), false}})
            CHECK(iTyped == iLookup ||
                  (iLookup == CFGFILE_SUCCESS && bMayBeBad && iTyped == CFGFILE_BAD_VALUE));
        CHECK(scratch.Read() == before); // reading never changes the file, nor creates one
    } else if (iTarget == 1) {
        const float fValue = float(nNumber) / 1024.0f;
        char szFloat[64];
        snprintf(szFloat, sizeof(szFloat), "%.*f", nPrecision, double(fValue));
        const std::string kTexts[] = {value, std::to_string(int(nNumber)), std::to_string(nNumber),
                                      BOOL(nNumber) ? "Yes" : "No", szFloat};
        value = kTexts[iOperation];
        iResult = iOperation == 0   ? CfgFile_SetStringValue(f, s, k, value.c_str())
                  : iOperation == 1 ? CfgFile_SetIntValue(f, s, k, int(nNumber))
                  : iOperation == 2 ? CfgFile_SetInt64Value(f, s, k, nNumber)
                  : iOperation == 3 ? CfgFile_SetBooleanValue(f, s, k, BOOL(nNumber))
                                    : CfgFile_SetFloatValue(f, s, k, fValue, nPrecision);
        // Refused for a line break or a float text too long: nothing else fails here.
        CHECK(iResult == CFGFILE_SUCCESS || iResult == CFGFILE_BAD_PARAMETERS);
        CHECK(iResult == CFGFILE_SUCCESS || scratch.Read() == before);
        CHECK(iResult != CFGFILE_SUCCESS ||
              (scratch.Read()[0] == '+' && !scratch.CompanionsLeft()));
        char szValue[256] = "";
        size_t nValueSize = sizeof(szValue);
        if (iResult == CFGFILE_SUCCESS && RoundTrips(texts[0], texts[1], value, bytes))
            CHECK(CfgFile_GetStringValue(f, s, k, szValue, &nValueSize, "") == CFGFILE_SUCCESS &&
                  value == szValue && nValueSize == value.size() + 1);
    } else if (iTarget == 2) {
        run();
        CHECK(iResult == CFGFILE_SUCCESS && scratch.Read()[0] == before[0]);
        // The new file's lines are the old ones in order, with whole lines left out.
        const std::string after = scratch.Read().substr(1);
        const Lines kept = SplitLines(after);
        size_t iKept = 0, nRemoved = 0, nSectionLines = 0;
        for (std::string_view line : lines) {
            const std::string_view text = TrimBlanks(line, false);
            const size_t nClose = text.find(']');
            nSectionLines += text.starts_with('[') && nClose != text.npos &&
                             StartsWithNoCase(TrimBlanks(text.substr(1, nClose - 1)), texts[0]) &&
                             TrimBlanks(text.substr(1, nClose - 1)).size() == texts[0].size();
            if (iKept < kept.size() && kept[iKept] == line)
                ++iKept;
            else
                CHECK(IsWholeLine(line, 511) && ++nRemoved > 0);
        }
        CHECK(iKept == kept.size() && (nRemoved > 0 || after == bytes));
        CHECK(iOperation != 1 || nRemoved <= nSectionLines); // a key once per section line
    } else if (iTarget == 3) {
        size_t nNeeded = 0;
        unsigned int nTotal = 0;
        if (CfgFile_EnumerateSections(f, prefix.c_str(), nullptr, &nNeeded, &nTotal) != 0)
            return 0;
        // A buffer of the measured size holds the whole list, filled exactly.
        Buffer whole(nNeeded);
        size_t nWholeSize = nNeeded;
        CHECK(!CfgFile_EnumerateSections(f, prefix.c_str(), whole.data(), &nWholeSize, &nTotal));
        CHECK(whole.UnwrittenFrom(nNeeded) && nWholeSize == nNeeded);
        std::vector<size_t> ends; // the offset after each name's terminator
        for (size_t nOffset = 0; nOffset < nNeeded; nOffset = ends.back()) {
            const std::string_view name(whole.data() + nOffset,
                                        strnlen(whole.data() + nOffset, nNeeded - nOffset));
            CHECK(nOffset + name.size() < nNeeded && StartsWithNoCase(name, prefix));
            ends.push_back(nOffset + name.size() + 1);
        }
        CHECK(ends.size() == nTotal);
        // Any other capacity: the first names that fit, then nothing.
        run();
        const size_t nWritten = nCount == 0 ? 0 : ends[nCount - 1];
        CHECK(!iResult && nOut == nNeeded && nCount <= nTotal && nWritten <= nCapacity);
        CHECK(out.UnwrittenFrom(nWritten) && !memcmp(out.data(), whole.data(), nWritten));
    } else if (iOperation == 0) {
        if (run(), iResult != CFGFILE_SUCCESS)
            return 0;
        // A whole line of the file, without its line feed, that begins with the prefix.
        const std::string line = out.substr(0, nOut) + '\n';
        CHECK(nOut < nCapacity && strlen(out.data()) == nOut);
        CHECK(std::ranges::find(lines, line) != lines.end());
        CHECK(TrimBlanks(line, false).starts_with(prefix));
    } else {
        run();
        CHECK(iResult == (bPresent ? CFGFILE_SUCCESS : CFGFILE_FAILURE));
        const std::string after = scratch.Read();
        const Lines changed = SplitLines(std::string_view(after).substr(1));
        // The first line that differs is the changed one; the rest must match.
        const size_t i = std::ranges::mismatch(lines, changed).in1 - lines.begin();
        CHECK(after[0] == before[0]);
        if (i == lines.size() && i == changed.size())
            return 0;
        CHECK(i < lines.size() && IsWholeLine(lines[i], 1199));
        const size_t nRest = lines.size() - i - 1;
        CHECK(iOperation == 2 || (i < changed.size() && changed[i] == "#" + std::string(lines[i])));
        CHECK(changed.size() - nRest == i + (iOperation == 1));
        CHECK(std::equal(lines.end() - nRest, lines.end(), changed.end() - nRest));
    }
    return 0;
}
