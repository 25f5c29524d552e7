// trace_test.cpp - trace channels: levels, environment settings, output, assertions.
//
// The channel table is shared by all tests of the process and never shrinks,
// so every test uses channel names of its own; the test that fills the table
// runs in a fresh child process.

#include "dbgtrace.h"
#include "test_support.h"

#include <cstdio>
#include <tuple>

namespace {

// Writes each message to stderr as "channel|level|function|file|line|text".
void PrintFields(void *, const char *szChannel, int nLevel, const char *szFunction,
                 const char *szFile, int nLine, const char *szText) {
    fprintf(stderr, "%s|%d|%s|%s|%d|%s", szChannel, nLevel, szFunction, szFile, nLine, szText);
}

HDBG OpenChannel(const char *szChannel) {
    HDBG hDbg = nullptr;
    EXPECT_EQ(1, _DoDbgInit(szChannel, &hDbg)) << szChannel;
    return hDbg;
}

TEST(TraceLevel, MessagePrintedUpToChannelLevel) {
    // Level set, level stored, level of the message, printed.
    const int kRows[][4] = {{5, 5, 4, 1},   {5, 5, 5, 1},  {5, 5, 6, 0},
                            {-3, -1, 0, 0}, {99, 9, 9, 1}, {99, 9, 10, 0}};
    HDBG hDbg = OpenChannel("filter");
    for (auto [nSet, nStored, nMessage, bPrinted] : kRows) {
        ASSERT_EQ(1, DbgSetChannelLevel("filter", nSet));
        EXPECT_EQ(nStored, hDbg->nMaxLevel);
        EXPECT_EQ(nStored, DbgGetChannelLevel("filter"));
        testing::internal::CaptureStderr();
        EXPECT_EQ(bPrinted ? 5 : 0, _DoDbgPrintEx(hDbg, nMessage, "Fn", "f.c", 1, "n=%d\n", 12));
        EXPECT_EQ(bPrinted, !testing::internal::GetCapturedStderr().empty()) << nSet << nMessage;
    }
}

TEST(TraceEnvironment, LevelTakenWhenChannelIsCreated) {
    const std::tuple<const char *, const char *, int> kRows[] = {
        {"A:7", "A", 7},         {"3", "B", 3},     {"3,C:8", "C", 8},   {"D:8,3", "D", 8},
        {"X:5", "E", 0},         {"4,F:x", "F", 4}, {"G:99", "G", 9},    {"H:-2", "H", -1},
        {" 2 , I : 6 ", "I", 6}, {"j:7", "J", 0},   {"K:5,K:6", "K", 6}, {"L:7x,:3,+", "L", 0},
    };
    for (auto [szSetting, szChannel, nLevel] : kRows) {
        setenv("DBGTRACE_LEVEL", szSetting, 1);
        EXPECT_EQ(nLevel, OpenChannel(szChannel)->nMaxLevel) << szSetting;
    }
    unsetenv("DBGTRACE_LEVEL");
}

TEST(TraceEnvironment, ReadWhenOpenedUnlessSetExplicitly) {
    DbgSetChannelLevel("early", 6);
    setenv("DBGTRACE_LEVEL", "early:2,reopened:2", 1);
    HDBG hEarly = OpenChannel("early"), hReopened = OpenChannel("reopened");
    // Opened again after its last user closed it, a channel reads the setting
    // again, unless its level was set explicitly; while held, it keeps its level.
    _DoDbgUninitEx(&hEarly, "Fn", "f.c", 1);
    _DoDbgUninitEx(&hReopened, "Fn", "f.c", 1);
    setenv("DBGTRACE_LEVEL", "4", 1);
    EXPECT_EQ(6, OpenChannel("early")->nMaxLevel);
    EXPECT_EQ(4, OpenChannel("reopened")->nMaxLevel);
    setenv("DBGTRACE_LEVEL", "5", 1);
    EXPECT_EQ(4, OpenChannel("reopened")->nMaxLevel);
    unsetenv("DBGTRACE_LEVEL");
}

TEST(TraceOutput, CallbackThenStderr) {
    // Function, file and "%s" argument; what the callback gets, then the line on stderr.
    const char *const kRows[][4] = {
        {"Fn", "a.c", "hi\n", "o|3|Fn|a.c|7|hi\no[3] Fn (a.c:7): hi\n"},
        {"Fn", "a.c", "hi", "o|3|Fn|a.c|7|hio[3] Fn (a.c:7): hi\n"},
        {nullptr, nullptr, "x\n", "o|3|?|?|7|x\no[3] ? (?:7): x\n"},
        {"Fn", "a.c", nullptr, "o|3|Fn|a.c|7|(null)o[3] Fn (a.c:7): (null)\n"},
    };
    DbgSetChannelLevel("o", 3);
    HDBG hDbg = OpenChannel("o");
    for (const auto &[szFunction, szFile, szArgument, szExpected] : kRows) {
        testing::internal::CaptureStderr();
        DbgSetOutput(&PrintFields, nullptr);
        _DoDbgPrintEx(hDbg, 3, szFunction, szFile, 7, "%s", szArgument);
        DbgSetOutput(nullptr, nullptr);
        _DoDbgPrintEx(hDbg, 3, szFunction, szFile, 7, "%s", szArgument);
        EXPECT_EQ(szExpected, testing::internal::GetCapturedStderr());
    }
}

TEST(TraceChannel, NamesAndTableLimit) {
    cfgtest::PreferFreshProcessDeathTests();
    EXPECT_EXIT(
        {
            HDBG hDbg = nullptr;
            bool bNamesOk = !_DoDbgInit(nullptr, &hDbg) && !_DoDbgInit("", &hDbg) &&
                            !_DoDbgInit(std::string(32, 'n').c_str(), &hDbg) &&
                            _DoDbgInit(std::string(31, 'n').c_str(), &hDbg);
            int nOpened = 1;
            while (_DoDbgInit(("full" + std::to_string(nOpened)).c_str(), &hDbg))
                nOpened++;
            // The failed open clears the handle; a channel already there still opens.
            exit(!(bNamesOk && nOpened == 32 && hDbg == nullptr && _DoDbgInit("full1", &hDbg)));
        },
        testing::ExitedWithCode(0), "");
}

TEST(TraceAssert, ReportsOnStderrAndToCallbackThenAborts) {
    cfgtest::PreferFreshProcessDeathTests();
    EXPECT_DEATH((DbgSetOutput(&PrintFields, nullptr), _DoAssert("p != NULL", "Fn", nullptr, 12)),
                 "^ASSERTION FAILED: p != NULL in Fn \\(\\?:12\\)\n"
                 "ASSERT\\|0\\|Fn\\|\\?\\|12\\|ASSERTION FAILED: p != NULL in Fn \\(\\?:12\\)\n");
}

} // namespace
