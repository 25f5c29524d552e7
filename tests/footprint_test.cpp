// The footprint of every exported operation, with the trace channel silent
// and at level 8 (its messages going to stderr, here /dev/null), on a file of
// 10 000 lines reached through a symbolic link:
// - stack: the call runs on a thread whose stack was filled with a pattern;
//   the deepest byte it changed, the C library's and the trace library's
//   work included, stays within 4096 bytes (silent) or 8192 (level 8);
// - heap: the C library's allocator is replaced in this executable; no call
//   allocates anything, in the library or in the C library calls it makes.
// Sanitizers change frames and bring their own allocator: they skip both.
#include <cstring>
#include <tuple>

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>

#include "cfgfile_api.h"
#include "test_support.h"

using namespace cfgtest;

// Counted only while an operation runs.
static volatile bool g_bCounting = false;
static volatile int g_nAllocations = 0;

#ifndef __SANITIZE_ADDRESS__
constexpr bool kMeasured = true;

// The C library's allocator under its internal names; these take the place
// of the public ones for the whole process, the C library's own calls included.
extern "C" void *__libc_malloc(size_t), *__libc_calloc(size_t, size_t),
    *__libc_realloc(void *, size_t);
static void *Counted(void *pBlock) {
    g_nAllocations = g_nAllocations + g_bCounting;
    return pBlock;
}
extern "C" void *malloc(size_t nSize) noexcept {
    return Counted(__libc_malloc(nSize));
}
extern "C" void *calloc(size_t nCount, size_t nSize) noexcept {
    return Counted(__libc_calloc(nCount, nSize));
}
extern "C" void *realloc(void *pBlock, size_t nSize) noexcept {
    return Counted(__libc_realloc(pBlock, nSize));
}
#else
constexpr bool kMeasured = false;
#endif

namespace {

constexpr size_t kThreadStack = 256 * 1024;
constexpr unsigned char kPattern = 0xA5;
constexpr size_t kMargin = 512; // left unfilled below the measuring frame, for memset's

struct Operation {
    const char *name;
    int (*pfnCall)(const char *f);
    int iResult = CFGFILE_SUCCESS;
};

void PrintTo(const Operation &operation, std::ostream *pOut) {
    *pOut << operation.name;
}

template <class T> T g_out;
#define TEXT g_out<char[256]>, &(g_out<size_t> = 256)
#define OP(call) []([[maybe_unused]] const char *f) { return call; }

const Operation kOperations[] = {
    {"GetString", OP(CfgFile_GetStringValue(f, "section999", "key8", TEXT, ""))},
    {"GetInt", OP(CfgFile_GetIntValue(f, "section999", "key8", &g_out<int>, 0)), 4},
    {"GetUInt", OP(CfgFile_GetUnsignedIntValue(f, "section9", "key1", &g_out<UINT>, 0)), 4},
    {"GetInt64", OP(CfgFile_GetInt64Value(f, "section9", "key1", &g_out<INT64>, 0)), 4},
    {"GetFloat", OP(CfgFile_GetFloatValue(f, "section9", "key1", &g_out<float>, 0)), 4},
    {"GetBool", OP(CfgFile_GetBooleanValue(f, "section9", "key1", &g_out<BOOL>, 0))},
    {"VideoFormat", OP(CfgFile_GetVideoFormatValue(f, "s", "k", &g_out<VIDEO_FORMAT>, 0)), 2},
    {"VideoResolution", OP(CfgFile_GetVideoResolutionValue(f, "s", "k", &g_out<long>, 0)), 2},
    {"VideoSize", OP(CfgFile_GetVideoSizeValues(f, "s", "k", &g_out<UINT>, 0, &g_out<UINT>, 0)), 2},
    {"MissingFile", OP(CfgFile_GetIntValue("none", "s", "k", &g_out<int>, 0)), 5},
    {"SetString", OP(CfgFile_SetStringValue(f, "section500", "key4", "x"))},
    {"SetInt", OP(CfgFile_SetIntValue(f, "new", "key", 42))},
    {"SetUInt", OP(CfgFile_SetUnsignedIntValue(f, "section999", "key9", 7u))},
    {"SetInt64", OP(CfgFile_SetInt64Value(f, "section1", "key1", -7))},
    {"SetFloat", OP(CfgFile_SetFloatValue(f, "section2", "f", 1e20f, 6))},
    {"SetBool", OP(CfgFile_SetBooleanValue(f, "section3", "b", 1))},
    {"NewFile", OP(CfgFile_SetStringValue("new.ini", "s", "k", "v"))},
    {"DeleteKey", OP(CfgFile_DeleteKey(f, "section998", "key3"))},
    {"DeleteAllSectionKeys", OP(CfgFile_DeleteAllSectionKeys(f, "section997"))},
    {"DeleteSections", OP(CfgFile_DeleteSections(f, "section99*"))},
    {"Enumerate", OP(CfgFile_EnumerateSections(f, "", nullptr, &g_out<size_t>, &g_out<UINT>))},
    {"FindLine", OP(CfgFile_FindLineStartingWith(f, "[section996]", TEXT))},
    {"CommentLine", OP(CfgFile_CommentLineStartingWith(f, "key5 = value of key 5"))},
    {"DeleteLine", OP(CfgFile_DeleteLineStartingWith(f, "key6 = value of key 6"))},
    {"FailedGroup", OP(CfgFile_SetGroupOwnership("none", 0)), 100},
    {"Recover", OP(CfgFile_RecoverFile(f))},
    // The backup name taken by a directory: the swap fails with an errno text.
    {"FailedSwap", OP(mkdir("real.bak", 0755) + CfgFile_SetIntValue(f, "section0", "k", 1)), 100},
};

// Sections of nine keys with an empty line before each: 10 000 lines.
std::string LargeFile() {
    std::string text;
    for (int iSection = 0; iSection < 1000; ++iSection) {
        text += "\n[section" + std::to_string(iSection) + "]\n";
        for (int iKey = 0; iKey < 9; ++iKey)
            text += "key" + std::to_string(iKey) + " = value of key " + std::to_string(iKey) + "\n";
    }
    return text;
}

struct Measurement {
    const Operation *pOperation;
    const char *szFile;
    char *pcStackLow;
    size_t nDepth = 0;
    int iResult = 0;
};

__attribute__((noinline)) int CallOnce(const Measurement &m) {
    return m.pOperation->pfnCall(m.szFile);
}

void *MeasureOnThread(void *pArgument) {
    auto *pM = static_cast<Measurement *>(pArgument);
    char *pcHere = static_cast<char *>(__builtin_frame_address(0));
    memset(pM->pcStackLow, kPattern, static_cast<size_t>(pcHere - kMargin - pM->pcStackLow));
    g_bCounting = true;
    pM->iResult = CallOnce(*pM);
    g_bCounting = false;
    const char *pc = pM->pcStackLow;
    while (pc < pcHere && static_cast<unsigned char>(*pc) == kPattern)
        ++pc;
    pM->nDepth = static_cast<size_t>(pcHere - pc);
    return nullptr;
}

class Footprint : public ::testing::TestWithParam<std::tuple<Operation, int>> {};

TEST_P(Footprint, StackAndHeapWithinBudget) {
    const auto &[operation, nLevel] = GetParam();
    ScratchDir dir;
    WriteFile(dir / "real.ini", LargeFile());
    ASSERT_EQ(0, symlink((dir / "real.ini").c_str(), (dir / "device.ini").c_str()));
    const std::string file = dir / "device.ini";
    char *pcStack = static_cast<char *>(mmap(nullptr, kThreadStack, PROT_READ | PROT_WRITE,
                                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0));
    ASSERT_EQ(0, chdir(dir.Path().c_str())); // the calls name their other files relative to it
    Measurement m{&operation, file.c_str(), pcStack};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstack(&attr, pcStack, kThreadStack);
    DbgSetChannelLevel("CFGFILELIB", nLevel);
    const int fdStderr = dup(2), fdNull = open("/dev/null", O_WRONLY);
    dup2(fdNull, 2);
    // The count means something only if the C library's own allocations reach
    // it: opendir() allocates its DIR inside the C library.
    g_bCounting = true;
    closedir(opendir("/"));
    g_bCounting = false;
    const int nCounterWorks = g_nAllocations;
    g_nAllocations = 0;
    pthread_t thread;
    ASSERT_EQ(0, pthread_create(&thread, &attr, MeasureOnThread, &m));
    pthread_join(thread, nullptr);
    dup2(fdStderr, 2);
    close(fdStderr);
    close(fdNull);
    DbgSetChannelLevel("CFGFILELIB", 0);
    pthread_attr_destroy(&attr);
    munmap(pcStack, kThreadStack);

    EXPECT_EQ(operation.iResult, m.iResult);
    if (!kMeasured)
        GTEST_SKIP() << "sanitizers change frames and allocate";
    printf("[ FOOTPRINT] level %d: %-22s %5zu bytes of stack\n", nLevel, operation.name, m.nDepth);
    EXPECT_LE(m.nDepth, nLevel == 0 ? 4096u : 8192u);
    EXPECT_GT(nCounterWorks, 0);
    EXPECT_EQ(0, g_nAllocations);
}

INSTANTIATE_TEST_SUITE_P(Operations, Footprint,
                         ::testing::Combine(::testing::ValuesIn(kOperations),
                                            ::testing::Values(0, 8)),
                         [](const auto &info) {
                             return std::string(std::get<0>(info.param).name) + "Level" +
                                    std::to_string(std::get<1>(info.param));
                         });

} // namespace
