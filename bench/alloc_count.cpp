// alloc_count.cpp - heap allocations of one call of each library operation.
//
// The program defines malloc, calloc and realloc itself. A definition in the
// executable takes the place of the C library's for every shared object, the
// settings library and the C library included, so each allocation made
// during a call passes through the counters below before reaching the C
// library's allocator.
//
// usage: alloc_count [directory]   (default: $BENCH_DIR, else /dev/shm/cfgfile-bench)
// Prints a JSON object: operation -> allocations and bytes per call.

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <sys/stat.h>

#include "bench_files.h"
#include "cfgfile_api.h"

extern "C" {
void *__libc_malloc(size_t nSize);
void *__libc_calloc(size_t nCount, size_t nSize);
void *__libc_realloc(void *pvBlock, size_t nSize);
}

namespace {

struct Counts {
    long nAllocations;
    long nBytes;
};

Counts g_counts;

} // namespace

extern "C" {

void *malloc(size_t nSize) noexcept {
    ++g_counts.nAllocations;
    g_counts.nBytes += static_cast<long>(nSize);
    return __libc_malloc(nSize);
}

void *calloc(size_t nCount, size_t nSize) noexcept {
    ++g_counts.nAllocations;
    g_counts.nBytes += static_cast<long>(nCount * nSize);
    return __libc_calloc(nCount, nSize);
}

void *realloc(void *pvBlock, size_t nSize) noexcept {
    ++g_counts.nAllocations;
    g_counts.nBytes += static_cast<long>(nSize);
    return __libc_realloc(pvBlock, nSize);
}

} // extern "C"

namespace {

constexpr int kCalls = 100;

// Calls fnCall kCalls times, after one call that is not counted (the C
// library sets some things up on first use), and restores the file after
// each call when asked, outside the counting.
template <class Call>
void Report(const char *szOp, const std::string &path, const std::string &text, bool bRestore,
            Call fnCall, bool bLast = false) {
    fnCall();
    Counts total{0, 0};
    for (int iCall = 0; iCall < kCalls; ++iCall) {
        if (bRestore)
            cfgbench::WriteWholeFile(path.c_str(), text);
        const Counts before = g_counts;
        fnCall();
        total.nAllocations += g_counts.nAllocations - before.nAllocations;
        total.nBytes += g_counts.nBytes - before.nBytes;
    }
    printf("  \"%s\": {\"allocations\": %.2f, \"bytes\": %.0f}%s\n", szOp,
           static_cast<double>(total.nAllocations) / kCalls,
           static_cast<double>(total.nBytes) / kCalls, bLast ? "" : ",");
}

} // namespace

int main(int argc, char **argv) {
    const char *szDir = argc > 1 ? argv[1] : getenv("BENCH_DIR");
    const std::string dir = szDir != nullptr && *szDir != '\0' ? szDir : "/dev/shm/cfgfile-bench";
    mkdir(dir.c_str(), 0755);
    const cfgbench::BenchFile file = cfgbench::MakeBenchFile(1000);
    const std::string path = dir + "/alloc-count.ini";
    if (!cfgbench::WriteWholeFile(path.c_str(), file.text)) {
        perror(path.c_str());
        return 1;
    }
    const char *szPath = path.c_str();
    const char *szFirst = file.firstSection.c_str();
    const char *szMiddle = file.middleSection.c_str();
    const char *szLast = file.lastSection.c_str();
    int nValue = 0;
    static char szBuffer[64 * 1024];
    size_t nSize = 0;
    unsigned int nCount = 0;
    int nToggle = 0;

    printf("{\n");
    Report("get_first", path, file.text, false,
           [&] { CfgFile_GetIntValue(szPath, szFirst, cfgbench::kFirstKey, &nValue, 0); });
    Report("get_last", path, file.text, false,
           [&] { CfgFile_GetIntValue(szPath, szLast, cfgbench::kLastKey, &nValue, 0); });
    Report("get_missing", path, file.text, false, [&] {
        CfgFile_GetIntValue(szPath, cfgbench::kMissingSection, cfgbench::kFirstKey, &nValue, 0);
    });
    Report("set_replace", path, file.text, false, [&] {
        CfgFile_SetIntValue(szPath, szMiddle, cfgbench::kReplacedKey,
                            ++nToggle % 2 ? 4000000 : 6000000);
    });
    Report("set_add", path, file.text, true,
           [&] { CfgFile_SetIntValue(szPath, szMiddle, cfgbench::kAddedKey, 12); });
    Report("set_new_section", path, file.text, true,
           [&] { CfgFile_SetIntValue(szPath, cfgbench::kNewSection, cfgbench::kAddedKey, 12); });
    Report("set_float", path, file.text, false,
           [&] { CfgFile_SetFloatValue(szPath, szMiddle, cfgbench::kReplacedKey, 0.5f, 3); });
    Report("delete_key", path, file.text, true,
           [&] { CfgFile_DeleteKey(szPath, szMiddle, cfgbench::kDeletedKey); });
    Report("enumerate", path, file.text, false, [&] {
        nSize = sizeof(szBuffer);
        CfgFile_EnumerateSections(szPath, "", szBuffer, &nSize, &nCount);
    });
    Report(
        "find_line", path, file.text, false,
        [&] {
            nSize = 1200;
            CfgFile_FindLineStartingWith(szPath, file.findPrefix.c_str(), szBuffer, &nSize);
        },
        true);
    printf("}\n");
    unlink(szPath);
    return 0;
}
