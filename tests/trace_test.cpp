// trace_test.cpp - trace channels: levels, environment settings, output,
// assertions. (The stack a message needs is measured with the library's
// operations, in footprint_test.cpp.)
//
// The channel table is shared by all tests of the process and never shrinks,
// so every test uses channel names of its own; the test that fills the table
// runs in a fresh child process.

#include "dbgtrace.h"
#include "test_support.h"

#include <cerrno>
#include <climits>
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
    const std::string sFits(1534, 'x'), sCut = sFits + "\n", sLong = sFits + "zz", sName(1100, 'n');
    const std::string sOneMore = sFits + "z";
    // Function, file, line and "%s" argument; what the callback gets, then the line on stderr.
    const std::tuple<const char *, const char *, int, const char *, std::string> kRows[] = {
        {"Fn", "a.c", 7, "hi\n", "o|3|Fn|a.c|7|hi\no[3] Fn (a.c:7): hi\n"},
        {"Fn", "a.c", 7, "hi", "o|3|Fn|a.c|7|hio[3] Fn (a.c:7): hi\n"},
        {nullptr, nullptr, 7, "x\n", "o|3|?|?|7|x\no[3] ? (?:7): x\n"},
        {"Fn", "a.c", INT_MIN, nullptr,
         "o|3|Fn|a.c|-2147483648|(null)o[3] Fn (a.c:-2147483648): (null)\n"},
        // A text beyond 1535 characters is cut and still ends its line.
        {"Fn", "a.c", 7, sOneMore.c_str(),
         "o|3|Fn|a.c|7|" + sOneMore + "o[3] Fn (a.c:7): " + sOneMore + "\n"},
        {"Fn", "a.c", 7, sLong.c_str(), "o|3|Fn|a.c|7|" + sCut + "o[3] Fn (a.c:7): " + sCut},
        // So does a line beyond 2559 bytes.
        {sName.c_str(), "a.c", 7, sCut.c_str(),
         "o|3|" + sName + "|a.c|7|" + sCut +
             ("o[3] " + sName + " (a.c:7): " + sCut).substr(0, 2558) + "\n"},
    };
    DbgSetChannelLevel("o", 3);
    HDBG hDbg = OpenChannel("o");
    for (const auto &[szFunction, szFile, nLine, szArgument, sExpected] : kRows) {
        testing::internal::CaptureStderr();
        DbgSetOutput(&PrintFields, nullptr);
        _DoDbgPrintEx(hDbg, 3, szFunction, szFile, nLine, "%s", szArgument);
        DbgSetOutput(nullptr, nullptr);
        errno = EXDEV;
        _DoDbgPrintEx(hDbg, 3, szFunction, szFile, nLine, "%s", szArgument);
        EXPECT_EQ(EXDEV, errno);
        EXPECT_EQ(sExpected, testing::internal::GetCapturedStderr()) << nLine;
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
    // Cut to 1535 characters, the last one a newline.
    EXPECT_DEATH(_DoAssert(std::string(2000, 'e').c_str(), "Fn", "f.c", 1),
                 "^ASSERTION FAILED: e{1516}\n");
}

} // namespace
