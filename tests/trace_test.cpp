// trace_test.cpp - trace channels: levels, environment settings, output, assertions.
//
// The channel table is shared by all tests of the process and never shrinks,
// so every test uses channel names of its own; the test that fills the table
// runs in a fresh child process.

#include "dbgtrace.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace {

// Collects what the output callback receives, one "channel|level|function|
// file|line|text" string per message, while the object lives.
class CapturedOutput {
  public:
    CapturedOutput() { DbgSetOutput(&Collect, this); }
    ~CapturedOutput() { DbgSetOutput(nullptr, nullptr); }
    std::vector<std::string> messages;

  private:
    static void Collect(void *pContext, const char *szChannel, int nLevel, const char *szFunction,
                        const char *szFile, int nLine, const char *szText) {
        static_cast<CapturedOutput *>(pContext)->messages.push_back(
            std::string(szChannel) + "|" + std::to_string(nLevel) + "|" + szFunction + "|" +
            szFile + "|" + std::to_string(nLine) + "|" + szText);
    }
};

// Sends file descriptor 2 into a pipe until Text() is called. The pipe fills
// up while the writers are faster than the reader, so writers block in the
// middle of their output, which is where lines would get mixed.
class CapturedStderr {
  public:
    CapturedStderr() {
        int aPipe[2];
        EXPECT_EQ(0, pipe(aPipe));
        m_nSaved = dup(STDERR_FILENO);
        dup2(aPipe[1], STDERR_FILENO);
        close(aPipe[1]);
        m_reader = std::thread([this, nRead = aPipe[0]] {
            char aBuffer[512];
            for (ssize_t n; (n = read(nRead, aBuffer, sizeof(aBuffer))) > 0;)
                m_sText.append(aBuffer, static_cast<size_t>(n));
            close(nRead);
        });
    }
    ~CapturedStderr() { Text(); }
    std::string Text() {
        if (m_nSaved >= 0) {
            dup2(m_nSaved, STDERR_FILENO); // closes the last write end: the reader sees the end
            close(m_nSaved);
            m_nSaved = -1;
            m_reader.join();
        }
        return m_sText;
    }

  private:
    int m_nSaved = -1;
    std::thread m_reader;
    std::string m_sText;
};

HDBG OpenChannel(const char *szChannel) {
    HDBG hDbg = nullptr;
    EXPECT_EQ(1, _DoDbgInit(szChannel, &hDbg)) << szChannel;
    return hDbg;
}

TEST(TraceLevel, MessagePrintedUpToChannelLevel) {
    struct Row {
        int nSetLevel, nStoredLevel, nMessageLevel;
        bool bPrinted;
    };
    const Row aRows[] = {
        {5, 5, 4, true},  {5, 5, 5, true},    {5, 5, 6, false}, {0, 0, 0, true},
        {0, 0, 1, false}, {-3, -1, 0, false}, {99, 9, 9, true}, {99, 9, 10, false},
    };
    HDBG hDbg = OpenChannel("filter");
    CapturedOutput output;
    for (const Row &row : aRows) {
        SCOPED_TRACE(testing::Message() << row.nSetLevel << " / " << row.nMessageLevel);
        ASSERT_EQ(1, DbgSetChannelLevel("filter", row.nSetLevel));
        EXPECT_EQ(row.nStoredLevel, hDbg->nMaxLevel);
        EXPECT_EQ(row.nStoredLevel, DbgGetChannelLevel("filter"));
        output.messages.clear();
        int nResult = _DoDbgPrintEx(hDbg, row.nMessageLevel, "Fn", "f.c", 1, "n=%d\n", 12);
        EXPECT_EQ(row.bPrinted ? 5 : 0, nResult);
        EXPECT_EQ(row.bPrinted ? 1u : 0u, output.messages.size());
    }
    EXPECT_EQ(0, _DoDbgPrintEx(nullptr, 0, "Fn", "f.c", 1, "text\n"));
}

TEST(TraceEnvironment, LevelTakenWhenChannelIsCreated) {
    struct Row {
        const char *szSetting, *szChannel;
        int nLevel;
    };
    const Row aRows[] = {
        {"E1:7", "E1", 7},           {"3", "E2", 3},
        {"3,E3:8", "E3", 8},         {"E4:8,3", "E4", 8},
        {"OTHER:5", "E5", 0},        {"E6:x", "E6", 0},
        {"4,E7:x", "E7", 4},         {"E8:99", "E8", 9},
        {"E9:-2", "E9", -1},         {"", "E10", 0},
        {" 2 , E11 : 6 ", "E11", 6}, {"e12:7", "E12", 0},
        {"E13:5,E13:6", "E13", 6},   {"E14:7x,:3,+", "E14", 0},
    };
    for (const Row &row : aRows) {
        SCOPED_TRACE(row.szSetting);
        setenv("DBGTRACE_LEVEL", row.szSetting, 1);
        HDBG hDbg = OpenChannel(row.szChannel);
        ASSERT_NE(nullptr, hDbg);
        EXPECT_EQ(row.nLevel, hDbg->nMaxLevel);
    }
    unsetenv("DBGTRACE_LEVEL");
}

TEST(TraceEnvironment, ReadWhenOpenedUnlessSetExplicitly) {
    DbgSetChannelLevel("early", 6);
    setenv("DBGTRACE_LEVEL", "early:2,reopened:2,1", 1);
    HDBG hEarly = OpenChannel("early");
    HDBG hReopened = OpenChannel("reopened");
    EXPECT_EQ(6, hEarly->nMaxLevel);
    EXPECT_EQ(2, hReopened->nMaxLevel);

    // Closed by its last user and opened again: the current setting applies,
    // except to a level that was set explicitly.
    EXPECT_EQ(1, _DoDbgUninitEx(&hEarly, "Fn", "f.c", 1));
    EXPECT_EQ(1, _DoDbgUninitEx(&hReopened, "Fn", "f.c", 1));
    EXPECT_EQ(nullptr, hReopened);
    EXPECT_EQ(0, _DoDbgUninitEx(nullptr, "Fn", "f.c", 1));
    setenv("DBGTRACE_LEVEL", "4", 1);
    EXPECT_EQ(6, OpenChannel("early")->nMaxLevel);
    hReopened = OpenChannel("reopened");
    EXPECT_EQ(4, hReopened->nMaxLevel);
    // While a user holds the channel, opening it again leaves the level alone.
    setenv("DBGTRACE_LEVEL", "5", 1);
    EXPECT_EQ(hReopened, OpenChannel("reopened"));
    EXPECT_EQ(4, DbgGetChannelLevel("reopened"));
    unsetenv("DBGTRACE_LEVEL");
}

TEST(TraceOutput, CallbackAndStderrGetTheSameMessage) {
    struct Row {
        const char *szFunction, *szFile, *szArgument, *szCallback, *szLine;
    };
    const Row aRows[] = {
        {"Fn", "a.c", "hello\n", "out|3|Fn|a.c|7|hello\n", "out[3] Fn (a.c:7): hello\n"},
        {"Fn", "a.c", "no newline", "out|3|Fn|a.c|7|no newline", "out[3] Fn (a.c:7): no newline\n"},
        {nullptr, nullptr, "x\n", "out|3|?|?|7|x\n", "out[3] ? (?:7): x\n"},
        {"Fn", "a.c", nullptr, "out|3|Fn|a.c|7|(null)", "out[3] Fn (a.c:7): (null)\n"},
    };
    DbgSetChannelLevel("out", 3);
    HDBG hDbg = OpenChannel("out");
    for (const Row &row : aRows) {
        SCOPED_TRACE(row.szLine);
        std::string sText = row.szArgument != nullptr ? row.szArgument : "(null)";
        CapturedStderr captured;
        {
            CapturedOutput output;
            EXPECT_EQ(sText.size(),
                      _DoDbgPrintEx(hDbg, 3, row.szFunction, row.szFile, 7, "%s", row.szArgument));
            EXPECT_EQ(std::vector<std::string>{row.szCallback}, output.messages);
        }
        EXPECT_EQ(sText.size(),
                  _DoDbgPrintEx(hDbg, 3, row.szFunction, row.szFile, 7, "%s", row.szArgument));
        EXPECT_EQ(row.szLine, captured.Text());
    }
}

TEST(TraceOutput, LongTextIsCutAndEndsItsLine) {
    DbgSetChannelLevel("long", 0);
    HDBG hDbg = OpenChannel("long");
    std::string sLong(3000, 'x');
    CapturedOutput output;
    EXPECT_EQ(2047, _DoDbgPrintEx(hDbg, 0, "Fn", "f.c", 1, "%s\n", sLong.c_str()));
    EXPECT_EQ(std::vector<std::string>{"long|0|Fn|f.c|1|" + std::string(2046, 'x') + "\n"},
              output.messages);
}

TEST(TraceOutput, LinesOfThreadsDoNotMix) {
    constexpr int kThreads = 4, kMessages = 200;
    DbgSetChannelLevel("threads", 1);
    HDBG hDbg = OpenChannel("threads");
    CapturedStderr captured;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([hDbg, t] {
            std::string sPayload(300, static_cast<char>('a' + t));
            for (int i = 0; i < kMessages; i++)
                _DoDbgPrintEx(hDbg, 1, "Fn", "f.c", t, "%s\n", sPayload.c_str());
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    std::string sExpected[kThreads], sText = captured.Text();
    for (int t = 0; t < kThreads; t++)
        sExpected[t] = "threads[1] Fn (f.c:" + std::to_string(t) +
                       "): " + std::string(300, static_cast<char>('a' + t)) + "\n";
    int nLines = 0;
    for (size_t nStart = 0, nEnd; (nEnd = sText.find('\n', nStart)) != std::string::npos;
         nLines++) {
        std::string sLine = sText.substr(nStart, nEnd + 1 - nStart);
        EXPECT_NE(std::end(sExpected),
                  std::find(std::begin(sExpected), std::end(sExpected), sLine));
        nStart = nEnd + 1;
    }
    EXPECT_EQ(kThreads * kMessages, nLines);
}

// Runs in a fresh process; returns the number of the first failed check, or 0.
int CheckNamesAndTableLimit() {
    tagHDBG stale{};
    HDBG hDbg = &stale; // a failed open must clear it
    const std::string sLongest(31, 'n');
    if (_DoDbgInit(nullptr, &hDbg) != 0 || hDbg != nullptr)
        return 1;
    if (_DoDbgInit("", &hDbg) != 0 || _DoDbgInit((sLongest + "n").c_str(), &hDbg) != 0)
        return 2;
    if (_DoDbgInit("name", nullptr) != 0 || DbgSetChannelLevel(nullptr, 1) != 0)
        return 3;
    if (_DoDbgInit(sLongest.c_str(), &hDbg) != 1)
        return 4;
    int nOpened = 1;
    while (_DoDbgInit(("full" + std::to_string(nOpened)).c_str(), &hDbg) == 1)
        nOpened++;
    if (nOpened != 32 || hDbg != nullptr)
        return 5;
    if (DbgSetChannelLevel("one-more", 1) != 0 || DbgGetChannelLevel("one-more") != -1)
        return 6;
    if (_DoDbgInit("full1", &hDbg) != 1 || hDbg == nullptr)
        return 7;
    return 0;
}

TEST(TraceChannel, NamesAndTableLimit) {
    cfgtest::PreferFreshProcessDeathTests();
    EXPECT_EXIT(exit(CheckNamesAndTableLimit()), testing::ExitedWithCode(0), "");
}

void WriteToStderr(void *, const char *szChannel, int nLevel, const char *, const char *, int,
                   const char *szText) {
    fprintf(stderr, "callback %s[%d] %s", szChannel, nLevel, szText);
}

TEST(TraceAssert, ReportsAndAborts) {
    cfgtest::PreferFreshProcessDeathTests();
    EXPECT_DEATH(_DoAssert("p != NULL", "Fn", "f.c", 12),
                 "^ASSERTION FAILED: p != NULL in Fn \\(f\\.c:12\\)\n");
    EXPECT_DEATH(
        {
            DbgSetOutput(&WriteToStderr, nullptr);
            _DoAssert(nullptr, nullptr, nullptr, 3);
        },
        "ASSERTION FAILED: \\? in \\? \\(\\?:3\\)\n"
        "callback ASSERT\\[0\\] ASSERTION FAILED: \\? in \\? \\(\\?:3\\)\n");
}

} // namespace
