// Heap use of the library's operations, counted by replacing the C library's
// allocator in this executable: no operation allocates anything, in the
// library or in the C library calls it makes, with the trace channel silent
// or at level 8 (its messages going to stderr, here /dev/null).
#include <cstring>
#include <tuple>

#include <dirent.h>
#include <fcntl.h>

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
    int iResult = CFGFILE_SUCCESS;
};

// Output space for the getters; the values do not matter here.
template <class T> static T g_out;
#define TEXT g_out<char[64]>, &g_out<size_t>
#define OP(call) []([[maybe_unused]] const char *f) { return call; }

static const HeapCase kReads[] = {
    {"GetString", OP(CfgFile_GetStringValue(f, "net", "host", TEXT, "")), CFGFILE_SUCCESS},
    {"NoFile", OP(CfgFile_GetStringValue("/none", "A", "N", TEXT, "")), CFGFILE_FILE_ACCESS},
    {"NewFile", OP(CfgFile_SetIntValue("new.ini", "A", "N", 1)), CFGFILE_SUCCESS},
    {"Recover", OP(CfgFile_RecoverFile(f)), CFGFILE_SUCCESS},
    {"FailedGroup", OP(CfgFile_SetGroupOwnership("/none", 0)), CFGFILE_FAILURE},
    {"GetInt", OP(CfgFile_GetIntValue(f, "net", "port", &g_out<int>, 0)), CFGFILE_SUCCESS},
    {"GetUInt", OP(CfgFile_GetUnsignedIntValue(f, "net", "port", &g_out<UINT>, 0)), CFGFILE_SUCCESS},
    {"GetInt64", OP(CfgFile_GetInt64Value(f, "net", "port", &g_out<INT64>, 0)), CFGFILE_SUCCESS},
    {"GetFloat", OP(CfgFile_GetFloatValue(f, "net", "port", &g_out<float>, 0)), CFGFILE_SUCCESS},
    {"GetBool", OP(CfgFile_GetBooleanValue(f, "net", "host", &g_out<BOOL>, FALSE)), CFGFILE_SUCCESS},
    {"VideoFormat", OP(CfgFile_GetVideoFormatValue(f, "video", "mode", &g_out<VIDEO_FORMAT>, 0)),
     CFGFILE_SUCCESS},
    {"VideoResolution", OP(CfgFile_GetVideoResolutionValue(f, "video", "mode", &g_out<long>, 0)),
     CFGFILE_SUCCESS},
    {"VideoSize",
     OP(CfgFile_GetVideoSizeValues(f, "video", "mode", &g_out<UINT>, 0, &g_out<UINT>, 0)), CFGFILE_SUCCESS},
    {"Enumerate", OP(CfgFile_EnumerateSections(f, "", TEXT, &g_out<UINT>)), CFGFILE_SUCCESS},
    {"FindLine", OP(CfgFile_FindLineStartingWith(f, "host", TEXT)), CFGFILE_SUCCESS},
    {"SetGroupOwnership", OP(CfgFile_SetGroupOwnership(f, getgid())), CFGFILE_SUCCESS},
};

static std::vector<HeapCase> HeapCases() {
    std::vector<HeapCase> cases(std::begin(kReads), std::end(kReads));
    for (const cfgtest::Rewrite &rewrite : cfgtest::kRewrites)
        cases.push_back({rewrite.name, rewrite.run});
    return cases;
}

class OperationHeapUse : public ::testing::TestWithParam<std::tuple<HeapCase, int>> {};

TEST_P(OperationHeapUse, StaysWithinBoundAndFreesAll) {
    // Valgrind preloads an allocator that takes the place of ours.
    const char *szPreload = getenv("LD_PRELOAD");
    if (!kCounting || (szPreload != nullptr && strstr(szPreload, "vgpreload") != nullptr))
        GTEST_SKIP() << "the allocator in use is not ours";
    const auto &[heapCase, nLevel] = GetParam();
    cfgtest::ScratchDir dir;
    const std::string file = dir / "a.ini";
    cfgtest::WriteFile(file, cfgtest::kInput);
    ASSERT_EQ(0, chdir(dir.Path().c_str()));
    // The bak name taken by a directory: a rewrite's swap fails with an errno text.
    if (nLevel > 0)
        mkdir((dir / "a.bak").c_str(), 0755);
    DbgSetChannelLevel("CFGFILELIB", nLevel);
    const int fdStderr = dup(2), fdNull = open("/dev/null", O_WRONLY);
    dup2(fdNull, 2);
    g_out<size_t> = sizeof(g_out<char[64]>);
    g_nAllocations = 0;
    g_nFrees = 0;
    g_bCounting = true;
    // The bounds mean something only if the C library's own allocations reach
    // the counter: opendir() allocates its DIR inside the C library.
    closedir(opendir("/"));
    const int nInLibc = g_nAllocations;
    const int iResult = heapCase.pfnOperation(file.c_str());
    g_bCounting = false;
    dup2(fdStderr, 2);
    close(fdStderr);
    close(fdNull);
    DbgSetChannelLevel("CFGFILELIB", 0);
    ASSERT_GE(nInLibc, 1);
    if (nLevel == 0) {
        EXPECT_EQ(heapCase.iResult, iResult);
    }
    EXPECT_EQ(nInLibc, g_nAllocations) << "the call allocated";
    EXPECT_EQ(g_nAllocations, g_nFrees) << "the call keeps memory it allocated";
}

INSTANTIATE_TEST_SUITE_P(
    Operations, OperationHeapUse,
    ::testing::Combine(::testing::ValuesIn(HeapCases()), ::testing::Values(0, 8)),
    [](const auto &info) {
        return std::string(std::get<0>(info.param).name) + "Level" +
               std::to_string(std::get<1>(info.param));
    });
