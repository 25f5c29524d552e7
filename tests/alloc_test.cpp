// Heap use of the library's operations, counted by replacing the C library's
// allocator in this executable: reads allocate nothing, and a rewrite only
// what the C library's stream for its temporary file takes, freed again by
// the time the call returns.
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <dirent.h>
#include <unistd.h>

#include "cfgfile_api.h"
#include "test_support.h"

using cfgtest::ScratchDir;
using cfgtest::WriteFile;

// AddressSanitizer brings an allocator of its own, which must not be replaced.
#if defined(__SANITIZE_ADDRESS__)
#define CFGTEST_SANITIZED_ALLOCATOR 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define CFGTEST_SANITIZED_ALLOCATOR 1
#endif
#endif

namespace {

// Counted only while an operation runs, so that the test framework's own
// allocations around it do not count.
volatile bool g_bCounting = false;
volatile int g_nAllocations = 0;
volatile int g_nFrees = 0;

} // namespace

#ifndef CFGTEST_SANITIZED_ALLOCATOR
constexpr bool kCounting = true;

static void CountAllocation() {
    if (g_bCounting)
        g_nAllocations = g_nAllocations + 1;
}

// The C library's allocator under its internal names; the definitions below
// take the place of the public ones for the whole process, the library's
// calls and the C library's own (fdopen, ...) included.
extern "C" {
void *__libc_malloc(size_t nSize);
void *__libc_calloc(size_t nCount, size_t nSize);
void *__libc_realloc(void *pBlock, size_t nSize);
void __libc_free(void *pBlock);

void *malloc(size_t nSize) noexcept {
    CountAllocation();
    return __libc_malloc(nSize);
}

void *calloc(size_t nCount, size_t nSize) noexcept {
    CountAllocation();
    return __libc_calloc(nCount, nSize);
}

void *realloc(void *pBlock, size_t nSize) noexcept {
    CountAllocation();
    return __libc_realloc(pBlock, nSize);
}

void free(void *pBlock) noexcept {
    if (g_bCounting && pBlock != nullptr)
        g_nFrees = g_nFrees + 1;
    __libc_free(pBlock);
}
} // extern "C"
#else
constexpr bool kCounting = false;
#endif

namespace {

struct HeapUse {
    int nAllocations;
    int nFrees;
};

// Why the counts would mean nothing, or nullptr. Valgrind preloads an
// allocator that takes the place of the one defined here.
const char *WhyNotCounted() {
    if (!kCounting)
        return "the sanitizer's allocator cannot be replaced";
    const char *szPreload = getenv("LD_PRELOAD");
    if (szPreload != nullptr && strstr(szPreload, "vgpreload") != nullptr)
        return "valgrind replaces the allocator";
    return nullptr;
}

template <class Call> HeapUse CountHeapUse(Call call) {
    g_nAllocations = 0;
    g_nFrees = 0;
    g_bCounting = true;
    call();
    g_bCounting = false;
    return {g_nAllocations, g_nFrees};
}

// A rewrite writes its temporary file through a stream: fdopen() allocates
// the FILE, and the first write the stream's buffer. fclose() frees both.
constexpr int kStreamAllocations = 2;

constexpr char kSettings[] = "# unit\n[Net]\nPort = 8080\nMode = fast\nDHCP = yes\n\n"
                             "[Video]\nFormat = 1080p59.94\nSize = 1920x1080\nGain = 1.5\n";

struct HeapCase {
    const char *name;
    int (*pfnOperation)(const char *szFile);
    int iResult;
    int nMaxAllocations;
    bool bThroughLink = false; // the operation gets a symbolic link to the file
    bool bNoFile = false;
};

// Names the case in test output (and keeps its padding bytes out of it).
void PrintTo(const HeapCase &c, std::ostream *pOut) {
    *pOut << c.name;
}

class OperationHeapUse : public ::testing::TestWithParam<HeapCase> {};

TEST_P(OperationHeapUse, StaysWithinBound) {
    if (const char *szWhy = WhyNotCounted())
        GTEST_SKIP() << szWhy;
    const HeapCase &c = GetParam();
    ScratchDir dir;
    const std::string file = dir / "device.ini";
    if (!c.bNoFile)
        WriteFile(file, kSettings);
    std::string path = file;
    if (c.bThroughLink) {
        path = dir / "link.ini";
        ASSERT_EQ(0, symlink(file.c_str(), path.c_str()));
    }
    int iResult = -99;
    const HeapUse use = CountHeapUse([&] { iResult = c.pfnOperation(path.c_str()); });
    RecordProperty("allocations", use.nAllocations);
    EXPECT_EQ(c.iResult, iResult);
    EXPECT_LE(use.nAllocations, c.nMaxAllocations);
    EXPECT_EQ(use.nAllocations, use.nFrees) << "the call keeps memory it allocated";
}

// The counts below mean something only if the C library's own allocations
// reach the counter: opendir() allocates its DIR inside the C library.
TEST(HeapCounter, SeesTheCLibrarysAllocations) {
    if (const char *szWhy = WhyNotCounted())
        GTEST_SKIP() << szWhy;
    const HeapUse use = CountHeapUse([] { closedir(opendir("/")); });
    EXPECT_GE(use.nAllocations, 1);
    EXPECT_EQ(use.nAllocations, use.nFrees);
}

int GetString(const char *f, const char *szKey) {
    char szValue[64];
    size_t nSize = sizeof(szValue);
    return CfgFile_GetStringValue(f, "Net", szKey, szValue, &nSize, "none");
}

const HeapCase kReads[] = {
    {"GetString", [](const char *f) { return GetString(f, "Port"); }, CFGFILE_SUCCESS, 0},
    {"GetStringDefault", [](const char *f) { return GetString(f, "Gateway"); },
     CFGFILE_KEY_NOT_FOUND, 0},
    {"GetStringNoFile", [](const char *f) { return GetString(f, "Port"); }, CFGFILE_FILE_ACCESS, 0,
     false, true},
    {"GetInt",
     [](const char *f) {
         int nValue;
         return CfgFile_GetIntValue(f, "Net", "Port", &nValue, 0);
     },
     CFGFILE_SUCCESS, 0},
    {"GetUnsignedInt",
     [](const char *f) {
         unsigned int nValue;
         return CfgFile_GetUnsignedIntValue(f, "Net", "Port", &nValue, 0);
     },
     CFGFILE_SUCCESS, 0},
    {"GetInt64",
     [](const char *f) {
         INT64 nValue;
         return CfgFile_GetInt64Value(f, "Net", "Port", &nValue, 0);
     },
     CFGFILE_SUCCESS, 0},
    {"GetFloat",
     [](const char *f) {
         float fValue;
         return CfgFile_GetFloatValue(f, "Video", "Gain", &fValue, 0);
     },
     CFGFILE_SUCCESS, 0},
    {"GetBoolean",
     [](const char *f) {
         BOOL bValue;
         return CfgFile_GetBooleanValue(f, "Net", "DHCP", &bValue, FALSE);
     },
     CFGFILE_SUCCESS, 0},
    {"GetVideoFormat",
     [](const char *f) {
         VIDEO_FORMAT lValue;
         return CfgFile_GetVideoFormatValue(f, "Video", "Format", &lValue, 0);
     },
     CFGFILE_SUCCESS, 0},
    {"GetVideoResolution",
     [](const char *f) {
         long lValue;
         return CfgFile_GetVideoResolutionValue(f, "Video", "Size", &lValue, 0);
     },
     CFGFILE_SUCCESS, 0},
    {"GetVideoSize",
     [](const char *f) {
         UINT nWidth, nHeight;
         return CfgFile_GetVideoSizeValues(f, "Video", "Size", &nWidth, 0, &nHeight, 0);
     },
     CFGFILE_SUCCESS, 0},
    {"EnumerateMeasure",
     [](const char *f) {
         size_t nSize = 0;
         unsigned int nCount;
         return CfgFile_EnumerateSections(f, "", nullptr, &nSize, &nCount);
     },
     CFGFILE_SUCCESS, 0},
    {"EnumerateCopy",
     [](const char *f) {
         char szNames[64];
         size_t nSize = sizeof(szNames);
         unsigned int nCount;
         return CfgFile_EnumerateSections(f, "", szNames, &nSize, &nCount);
     },
     CFGFILE_SUCCESS, 0},
    {"FindLine",
     [](const char *f) {
         char szLine[128];
         size_t nSize = sizeof(szLine);
         return CfgFile_FindLineStartingWith(f, "Gain", szLine, &nSize);
     },
     CFGFILE_SUCCESS, 0},
    {"SetGroupOwnership", [](const char *f) { return CfgFile_SetGroupOwnership(f, getgid()); },
     CFGFILE_SUCCESS, 0},
};

INSTANTIATE_TEST_SUITE_P(Reads, OperationHeapUse, ::testing::ValuesIn(kReads),
                         [](const auto &info) { return std::string(info.param.name); });

const HeapCase kRewrites[] = {
    {"SetStringReplace",
     [](const char *f) { return CfgFile_SetStringValue(f, "Net", "Mode", "slow"); },
     CFGFILE_SUCCESS, kStreamAllocations},
    {"SetStringNewSection",
     [](const char *f) { return CfgFile_SetStringValue(f, "Audio", "Volume", "-12"); },
     CFGFILE_SUCCESS, kStreamAllocations},
    {"SetStringCreatesFile",
     [](const char *f) { return CfgFile_SetStringValue(f, "Net", "Mode", "slow"); },
     CFGFILE_SUCCESS, kStreamAllocations, false, true},
    {"SetStringThroughLink",
     [](const char *f) { return CfgFile_SetStringValue(f, "Net", "Mode", "slow"); },
     CFGFILE_SUCCESS, kStreamAllocations, true},
    {"SetInt", [](const char *f) { return CfgFile_SetIntValue(f, "Net", "Port", 80); },
     CFGFILE_SUCCESS, kStreamAllocations},
    {"SetFloat", [](const char *f) { return CfgFile_SetFloatValue(f, "Video", "Gain", 2.5f, 2); },
     CFGFILE_SUCCESS, kStreamAllocations},
    {"SetBoolean", [](const char *f) { return CfgFile_SetBooleanValue(f, "Net", "DHCP", FALSE); },
     CFGFILE_SUCCESS, kStreamAllocations},
    {"DeleteSections", [](const char *f) { return CfgFile_DeleteSections(f, "Vid*"); },
     CFGFILE_SUCCESS, kStreamAllocations},
    {"DeleteKey", [](const char *f) { return CfgFile_DeleteKey(f, "Net", "Mode"); },
     CFGFILE_SUCCESS, kStreamAllocations},
    {"DeleteKeyMissing", [](const char *f) { return CfgFile_DeleteKey(f, "Net", "Gateway"); },
     CFGFILE_SUCCESS, kStreamAllocations},
    {"DeleteAllSectionKeys", [](const char *f) { return CfgFile_DeleteAllSectionKeys(f, "Net"); },
     CFGFILE_SUCCESS, kStreamAllocations},
    {"CommentLine", [](const char *f) { return CfgFile_CommentLineStartingWith(f, "Gain"); },
     CFGFILE_SUCCESS, kStreamAllocations},
    {"DeleteLine", [](const char *f) { return CfgFile_DeleteLineStartingWith(f, "Gain"); },
     CFGFILE_SUCCESS, kStreamAllocations},
};

INSTANTIATE_TEST_SUITE_P(Rewrites, OperationHeapUse, ::testing::ValuesIn(kRewrites),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
