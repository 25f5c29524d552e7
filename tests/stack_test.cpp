// The stack every exported operation needs, the C library's calls and the
// trace library's formatting included: a thread's stack is filled with a
// pattern before one call, and the deepest byte the call changed is found.
// Within 4096 bytes with the trace channel silent, 8192 at level 8.
#include <cstring>
#include <functional>

#include <pthread.h>
#include <sys/mman.h>

#include "cfgfile_api.h"
#include "test_support.h"

using namespace cfgtest;

namespace {

constexpr size_t kThreadStack = 256 * 1024;
constexpr unsigned char kPattern = 0xA5;
// Left unfilled below the measuring frame, for memset's own frame.
constexpr size_t kMargin = 512;

struct Measurement {
    std::function<int()> fnCall;
    char *pcStackLow;
    size_t nDepth;
};

__attribute__((noinline)) int CallOnce(const std::function<int()> &fnCall) {
    return fnCall();
}

void *MeasureInThread(void *pArgument) {
    auto *pMeasurement = static_cast<Measurement *>(pArgument);
    char *pcHere = static_cast<char *>(__builtin_frame_address(0));
    char *pcLow = pMeasurement->pcStackLow;
    memset(pcLow, kPattern, static_cast<size_t>(pcHere - kMargin - pcLow));
    CallOnce(pMeasurement->fnCall);
    const char *pc = pcLow;
    while (pc < pcHere && static_cast<unsigned char>(*pc) == kPattern)
        ++pc;
    pMeasurement->nDepth = static_cast<size_t>(pcHere - pc);
    return nullptr;
}

// The bytes of stack fnCall uses, measured on a thread of its own.
size_t StackOf(std::function<int()> fnCall) {
    void *pStack = mmap(nullptr, kThreadStack, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    EXPECT_NE(MAP_FAILED, pStack);
    Measurement measurement{std::move(fnCall), static_cast<char *>(pStack), 0};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstack(&attr, pStack, kThreadStack);
    pthread_t thread;
    EXPECT_EQ(0, pthread_create(&thread, &attr, MeasureInThread, &measurement));
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
    munmap(pStack, kThreadStack);
    return measurement.nDepth;
}

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

class StackUse : public ::testing::TestWithParam<int> {
  protected:
    void SetUp() override {
        WriteFile(real, LargeFile());
        ASSERT_EQ(0, symlink(real.c_str(), file.c_str()));
        DbgSetOutput(
            [](void *, const char *, int, const char *, const char *, int, const char *) {},
            nullptr);
        DbgSetChannelLevel("CFGFILELIB", GetParam());
    }
    void TearDown() override {
        DbgSetChannelLevel("CFGFILELIB", 0);
        DbgSetOutput(nullptr, nullptr);
    }

    // Measures fnCall and checks it against the budget of the trace level.
    void Expect(const char *szName, std::function<int()> fnCall) {
        const size_t nBudget = GetParam() == 0 ? 4096 : 8192;
        const size_t nDepth = StackOf(std::move(fnCall));
        printf("[ STACK    ] level %d: %-28s %5zu bytes\n", GetParam(), szName, nDepth);
        EXPECT_LE(nDepth, nBudget) << szName;
    }

    ScratchDir dir;
    const std::string real = dir / "real.ini", file = dir / "device.ini";
};

TEST_P(StackUse, EveryOperationStaysWithinItsBudget) {
    const char *f = file.c_str();
    char szText[256];
    size_t nSize = sizeof(szText);
    int iValue;
    unsigned int uValue;
    INT64 lValue;
    float fValue;
    BOOL bValue;
    VIDEO_FORMAT format;
    long lResolution;
    UINT nWidth, nHeight;
    unsigned int nCount;
    const auto fnReset = [&] { nSize = sizeof(szText); };
    Expect("GetStringValue", [&] {
        fnReset();
        return CfgFile_GetStringValue(f, "section999", "key8", szText, &nSize, "");
    });
    Expect("GetIntValue", [&] { return CfgFile_GetIntValue(f, "section999", "key8", &iValue, 0); });
    Expect("GetUnsignedIntValue",
           [&] { return CfgFile_GetUnsignedIntValue(f, "section999", "key8", &uValue, 0); });
    Expect("GetInt64Value",
           [&] { return CfgFile_GetInt64Value(f, "section999", "key8", &lValue, 0); });
    Expect("GetFloatValue",
           [&] { return CfgFile_GetFloatValue(f, "section999", "key8", &fValue, 0); });
    Expect("GetBooleanValue",
           [&] { return CfgFile_GetBooleanValue(f, "section999", "key8", &bValue, 0); });
    Expect("GetVideoFormatValue",
           [&] { return CfgFile_GetVideoFormatValue(f, "section999", "key8", &format, 0); });
    Expect("GetVideoResolutionValue", [&] {
        return CfgFile_GetVideoResolutionValue(f, "section999", "key8", &lResolution, 0);
    });
    Expect("GetVideoSizeValues", [&] {
        return CfgFile_GetVideoSizeValues(f, "section999", "key8", &nWidth, 0, &nHeight, 0);
    });
    Expect("GetIntValue, missing file", [&] {
        return CfgFile_GetIntValue((dir / "missing.ini").c_str(), "s", "k", &iValue, 0);
    });
    Expect("SetStringValue", [&] { return CfgFile_SetStringValue(f, "section500", "key4", "x"); });
    Expect("SetIntValue", [&] { return CfgFile_SetIntValue(f, "new", "key", 42); });
    Expect("SetUnsignedIntValue",
           [&] { return CfgFile_SetUnsignedIntValue(f, "section999", "key9", 7u); });
    Expect("SetInt64Value", [&] { return CfgFile_SetInt64Value(f, "section1", "key1", -7); });
    Expect("SetFloatValue", [&] { return CfgFile_SetFloatValue(f, "section2", "f", 1e20f, 6); });
    Expect("SetBooleanValue", [&] { return CfgFile_SetBooleanValue(f, "section3", "b", 1); });
    Expect("SetStringValue, new file",
           [&] { return CfgFile_SetStringValue((dir / "new.ini").c_str(), "s", "k", "v"); });
    Expect("DeleteKey", [&] { return CfgFile_DeleteKey(f, "section998", "key3"); });
    Expect("DeleteAllSectionKeys", [&] { return CfgFile_DeleteAllSectionKeys(f, "section997"); });
    Expect("DeleteSections", [&] { return CfgFile_DeleteSections(f, "section99*"); });
    Expect("EnumerateSections", [&] {
        size_t nNeeded = 0;
        return CfgFile_EnumerateSections(f, "", nullptr, &nNeeded, &nCount);
    });
    Expect("FindLineStartingWith", [&] {
        fnReset();
        return CfgFile_FindLineStartingWith(f, "[section996]", szText, &nSize);
    });
    Expect("CommentLineStartingWith",
           [&] { return CfgFile_CommentLineStartingWith(f, "key5 = value of key 5"); });
    Expect("DeleteLineStartingWith",
           [&] { return CfgFile_DeleteLineStartingWith(f, "key6 = value of key 6"); });
    Expect("SetGroupOwnership, failing",
           [&] { return CfgFile_SetGroupOwnership((dir / "missing.ini").c_str(), 0); });
    Expect("RecoverFile", [&] { return CfgFile_RecoverFile(f); });
    // The backup name taken by a directory: the swap fails with an errno text.
    ASSERT_EQ(0, mkdir((dir / "real.bak").c_str(), 0755));
    Expect("SetIntValue, failed swap", [&] { return CfgFile_SetIntValue(f, "section0", "k", 1); });
}

INSTANTIATE_TEST_SUITE_P(TraceSilentAndAtLevel8, StackUse, ::testing::Values(0, 8),
                         [](const auto &info) { return "Level" + std::to_string(info.param); });

} // namespace
