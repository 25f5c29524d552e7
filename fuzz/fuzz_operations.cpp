// fuzz_operations: random files, names, numbers and buffer sizes for every
// operation, under AddressSanitizer and UBSan. The first input byte picks the
// kind of operation (getters, setters, deletions, section list, line
// operations); of the rest, integers are taken from the end, texts from the
// front (a text ends at a backslash followed by any other byte; "\\\\" stands
// for one backslash), and what is left is the settings file. seeds.py writes
// its seed inputs in the same layout.
//
// Checked for every input: the operation gives the same outcome and leaves
// the same file whether it reads every line (traced) or lets lines pass; it
// writes nothing past its buffer and leaves no companion file; a read leaves
// the file as it was, a failed change too, and a successful set leaves a file
// that gives the value back.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include <unistd.h>

#include "cfgfile_api.h"
#include "dbgtrace.h"

namespace {

// A broken invariant ends the run like a crash, so that libFuzzer keeps the input.
#define CHECK(condition) ((condition) ? void() : Fail(#condition, __LINE__))
[[noreturn]] void Fail(const char *szCondition, int nLine) {
    fprintf(stderr, "invariant failed: %s (line %d)\n", szCondition, nLine);
    abort();
}

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
    // The file's bytes after "+", or "-" when there is none.
    std::string Read() const {
        std::ifstream in(file, std::ios::binary);
        return in ? "+" + std::string(std::istreambuf_iterator<char>(in), {}) : "-";
    }
};

// Names and a value that the reader gives back as they were set: plain names,
// a value it neither trims nor cuts, in a file whose lines it reads whole.
bool RoundTrips(std::string_view section, std::string_view key, std::string_view value,
                std::string_view file) {
    for (size_t nStart = 0, nEnd; nStart < file.size(); nStart = nEnd + 1)
        if ((nEnd = std::min(file.find('\n', nStart), file.size())) - nStart > 1198)
            return false;
    const auto plain = [](std::string_view name) {
        return !name.empty() && name.size() <= 79 &&
               std::ranges::all_of(name, [](unsigned char c) { return isalnum(c); });
    };
    return plain(section) && plain(key) && value.size() <= 255 && key.size() + value.size() >= 2 &&
           (value.empty() || (value.front() != ' ' && value.back() != ' '));
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
    // The level of the traced run: from 4 on, every line is read.
    const int nLevel = 9 - fdp.ConsumeIntegralInRange<int>(0, 7);
    const int64_t nNumber = iTarget < 2 ? fdp.ConsumeIntegral<int64_t>() : 0;
    const int nPrecision = iTarget == 1 ? fdp.ConsumeIntegralInRange<int>(-2, 40) : 0;
    std::string texts[5]; // section, key, default; for a setter the value is the fifth
    for (int i = 0; i < (iTarget == 1 ? 5 : iTarget == 0 ? 3 : iTarget == 2 ? 2 : 1); ++i)
        texts[i] =
            fdp.ConsumeRandomLengthString((iTarget == 0 && i == 2) || i == 4 ? 300 : 100).c_str();
    const std::string before = bPresent ? "+" + fdp.ConsumeRemainingBytesAsString() : "-";
    const char *f = scratch.file.c_str(), *s = texts[0].c_str(), *k = texts[1].c_str();
    // The search refuses an empty prefix by ending the process.
    if (iTarget == 4 && iOperation == 0 && texts[0].empty())
        return 0;
    const float fValue = float(nNumber) / 1024.0f;
    char szFloat[64];
    snprintf(szFloat, sizeof(szFloat), "%.*f", nPrecision, double(fValue));
    const std::string kSetTexts[] = {texts[4], std::to_string(int(nNumber)),
                                     std::to_string(nNumber), nNumber ? "Yes" : "No", szFloat};

    // Runs the operation on the input's file: its results, what it handed
    // out, and the file it leaves.
    int iResult = 0;
    auto run = [&] {
        for (const std::string *pPath : {&scratch.file, &scratch.tmp, &scratch.bak})
            unlink(pPath->c_str());
        if (bPresent)
            std::ofstream(f, std::ios::binary) << before.substr(1);
        std::string out(nCapacity + kGuard, kUnwritten), results;
        size_t nOut = nCapacity;
        unsigned int nCount = 0;
        if (iTarget == 0) {
            iResult = CfgFile_GetStringValue(f, s, k, out.data(), &nOut, texts[2].c_str());
            CHECK(iResult == CFGFILE_BAD_PARAMETERS || strnlen(out.data(), nCapacity) < nCapacity);
            int nInt;
            UINT nUnsigned, nWidth, nHeight;
            INT64 nInt64;
            float fRead;
            VIDEO_FORMAT eFormat;
            long nResolution;
            const int iDefault = int(nNumber);
            for (int iTyped : {CfgFile_GetIntValue(f, s, k, &nInt, iDefault),
                               CfgFile_GetInt64Value(f, s, k, &nInt64, nNumber),
                               CfgFile_GetUnsignedIntValue(f, s, k, &nUnsigned, iDefault),
                               CfgFile_GetFloatValue(f, s, k, &fRead, fValue),
                               CfgFile_GetBooleanValue(f, s, k, &nInt, iDefault),
                               CfgFile_GetVideoFormatValue(f, s, k, &eFormat, iDefault),
                               CfgFile_GetVideoResolutionValue(f, s, k, &nResolution, iDefault),
                               CfgFile_GetVideoSizeValues(f, s, k, &nWidth, 0, &nHeight, 0)})
                results += std::to_string(iTyped) + ",";
        } else if (iTarget == 1) {
            const char *v = kSetTexts[iOperation].c_str();
            iResult = iOperation == 0   ? CfgFile_SetStringValue(f, s, k, v)
                      : iOperation == 1 ? CfgFile_SetIntValue(f, s, k, int(nNumber))
                      : iOperation == 2 ? CfgFile_SetInt64Value(f, s, k, nNumber)
                      : iOperation == 3 ? CfgFile_SetBooleanValue(f, s, k, BOOL(nNumber != 0))
                                        : CfgFile_SetFloatValue(f, s, k, fValue, nPrecision);
        } else if (iTarget == 2) {
            iResult = iOperation == 0   ? CfgFile_DeleteSections(f, s)
                      : iOperation == 1 ? CfgFile_DeleteKey(f, s, k)
                                        : CfgFile_DeleteAllSectionKeys(f, s);
        } else if (iTarget == 3) {
            iResult = CfgFile_EnumerateSections(f, s, out.data(), &nOut, &nCount);
        } else if (iOperation == 0) {
            iResult = CfgFile_FindLineStartingWith(f, s, out.data(), &nOut);
            // Of a found line, its bytes only: the search may use the rest of the buffer.
            out.resize(iResult == CFGFILE_SUCCESS ? nOut : 0);
        } else {
            iResult = (iOperation == 1 ? CfgFile_CommentLineStartingWith
                                       : CfgFile_DeleteLineStartingWith)(f, s);
        }
        CHECK(out.find_first_not_of(kUnwritten, std::min(nCapacity, out.size())) == out.npos);
        CHECK(access(scratch.tmp.c_str(), F_OK) != 0 && access(scratch.bak.c_str(), F_OK) != 0);
        return results + std::to_string(iResult) + "/" + std::to_string(nOut) + "/" +
               std::to_string(nCount) + "/" + out + scratch.Read();
    };
    // Reading every line and letting lines pass give the same outcome and file.
    DbgSetChannelLevel("CFGFILELIB", nLevel);
    const std::string traced = run();
    DbgSetChannelLevel("CFGFILELIB", -1);
    CHECK(run() == traced);

    // A read leaves the file as it was, and so does a failed change.
    const bool bChange = iTarget == 1 || iTarget == 2 || (iTarget == 4 && iOperation != 0);
    CHECK((bChange && iResult == CFGFILE_SUCCESS) || scratch.Read() == before);
    // A set is refused for a line break or a float text too long; nothing else fails.
    CHECK(iTarget != 1 || iResult == CFGFILE_SUCCESS || iResult == CFGFILE_BAD_PARAMETERS);
    char szValue[256] = "";
    size_t nValueSize = sizeof(szValue);
    CHECK(iTarget != 1 || iResult != CFGFILE_SUCCESS ||
          !RoundTrips(s, k, kSetTexts[iOperation], before.substr(1)) ||
          (!CfgFile_GetStringValue(f, s, k, szValue, &nValueSize, "") &&
           kSetTexts[iOperation] == szValue));
    return 0;
}
