// Heap use of the library's operations, counted by replacing the C library's
// allocator in this executable: reads allocate nothing, and a rewrite only
// the FILE of the C library's stream for its temporary file, freed again by
// the time the call returns.
#include <cstring>

#include <dirent.h>

#include "rewrites.h"

// Counted only while an operation runs, so that the test framework's own
// allocations around it do not count.
static volatile bool g_bCounting = false;
static volatile int g_nAllocations = 0, g_nFrees = 0;

// The C library's allocator under its internal names; these definitions take
// the place of the public ones for the whole process, the library's calls and
// the C library's own (fdopen, ...) included. AddressSanitizer brings an
// allocator of its own, which must not be replaced.
#ifndef __SANITIZE_ADDRESS__
constexpr bool kCounting = true;

static void *Counted(void *pBlock) {
    g_nAllocations = g_nAllocations + g_bCounting;
    return pBlock;
}

extern "C" void *__libc_malloc(size_t), *__libc_calloc(size_t, size_t),
    *__libc_realloc(void *, size_t);
extern "C" void __libc_free(void *);

extern "C" void *malloc(size_t nSize) noexcept {
    return Counted(__libc_malloc(nSize));
}
extern "C" void *calloc(size_t nCount, size_t nSize) noexcept {
    return Counted(__libc_calloc(nCount, nSize));
}
extern "C" void *realloc(void *pBlock, size_t nSize) noexcept {
    return Counted(__libc_realloc(pBlock, nSize));
}
extern "C" void free(void *pBlock) noexcept {
    g_nFrees = g_nFrees + (g_bCounting && pBlock != nullptr);
    __libc_free(pBlock);
}
#else
constexpr bool kCounting = false;
#endif

struct HeapCase {
    const char *name;
    int (*pfnOperation)(const char *szFile);
    int nMaxAllocations;
    int iResult = CFGFILE_SUCCESS;
};

// Output space for the getters; the values do not matter here.
template <class T> static T g_out;
#define TEXT g_out<char[64]>, &g_out<size_t>
#define OP(call) []([[maybe_unused]] const char *f) { return call; }

static const HeapCase kReads[] = {
    {"GetString", OP(CfgFile_GetStringValue(f, "net", "host", TEXT, "")), 0},
    {"NoFile", OP(CfgFile_GetStringValue("/none", "A", "N", TEXT, "")), 0, CFGFILE_FILE_ACCESS},
    {"GetInt", OP(CfgFile_GetIntValue(f, "net", "port", &g_out<int>, 0)), 0},
    {"GetUInt", OP(CfgFile_GetUnsignedIntValue(f, "net", "port", &g_out<UINT>, 0)), 0},
    {"GetInt64", OP(CfgFile_GetInt64Value(f, "net", "port", &g_out<INT64>, 0)), 0},
    {"GetFloat", OP(CfgFile_GetFloatValue(f, "net", "port", &g_out<float>, 0)), 0},
    {"GetBool", OP(CfgFile_GetBooleanValue(f, "net", "host", &g_out<BOOL>, FALSE)), 0},
    {"VideoFormat", OP(CfgFile_GetVideoFormatValue(f, "video", "mode", &g_out<VIDEO_FORMAT>, 0)),
     0},
    {"VideoResolution", OP(CfgFile_GetVideoResolutionValue(f, "video", "mode", &g_out<long>, 0)),
     0},
    {"VideoSize",
     OP(CfgFile_GetVideoSizeValues(f, "video", "mode", &g_out<UINT>, 0, &g_out<UINT>, 0)), 0},
    {"Enumerate", OP(CfgFile_EnumerateSections(f, "", TEXT, &g_out<UINT>)), 0},
    {"FindLine", OP(CfgFile_FindLineStartingWith(f, "host", TEXT)), 0},
    {"SetGroupOwnership", OP(CfgFile_SetGroupOwnership(f, getgid())), 0},
};

// A rewrite may allocate only the FILE of the stream its temporary file is
// open as (fdopen() allocates it); nothing is written through the stream.
static std::vector<HeapCase> HeapCases() {
    std::vector<HeapCase> cases(std::begin(kReads), std::end(kReads));
    for (const cfgtest::Rewrite &rewrite : cfgtest::kRewrites)
        cases.push_back({rewrite.name, rewrite.run, 1});
    return cases;
}

class OperationHeapUse : public ::testing::TestWithParam<HeapCase> {};

TEST_P(OperationHeapUse, StaysWithinBoundAndFreesAll) {
    // Valgrind preloads an allocator that takes the place of ours.
    const char *szPreload = getenv("LD_PRELOAD");
    if (!kCounting || (szPreload != nullptr && strstr(szPreload, "vgpreload") != nullptr))
        GTEST_SKIP() << "the allocator in use is not ours";
    cfgtest::ScratchDir dir;
    const std::string file = dir / "a.ini";
    cfgtest::WriteFile(file, cfgtest::kInput);
    g_out<size_t> = sizeof(g_out<char[64]>);
    g_nAllocations = 0;
    g_nFrees = 0;
    g_bCounting = true;
    // The bounds mean something only if the C library's own allocations reach
    // the counter: opendir() allocates its DIR inside the C library.
    closedir(opendir("/"));
    const int nInLibc = g_nAllocations;
    const int iResult = GetParam().pfnOperation(file.c_str());
    g_bCounting = false;
    ASSERT_GE(nInLibc, 1);
    EXPECT_EQ(GetParam().iResult, iResult);
    EXPECT_LE(g_nAllocations - nInLibc, GetParam().nMaxAllocations);
    EXPECT_EQ(g_nAllocations, g_nFrees) << "the call keeps memory it allocated";
}

INSTANTIATE_TEST_SUITE_P(Operations, OperationHeapUse, ::testing::ValuesIn(HeapCases()),
                         [](const auto &info) { return std::string(info.param.name); });
