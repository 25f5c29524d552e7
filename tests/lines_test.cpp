// Finding, commenting out and deleting the first line that begins with a prefix.
#include <cstring>
#include <utility>
#include <vector>

#include "cfgfile_api.h"
#include "test_support.h"

using namespace std::string_literals;
using cfgtest::Exists;
using cfgtest::Inode;
using cfgtest::ReadFile;
using cfgtest::ScratchDir;
using cfgtest::WriteFile;

namespace {

// Test names, and listings of the cases, show each case by its name.
const auto kCaseName = [](const auto &info) { return std::string(info.param.name); };

// ------------------------------------------------------------------ find

struct FindCase {
    const char *name;
    std::string file;
    const char *prefix;
    size_t nBuffSize;
    const char *found; // nullptr: no line found
};

void PrintTo(const FindCase &c, std::ostream *os) {
    *os << c.name;
}

class FindLineStartingWith : public ::testing::TestWithParam<FindCase> {};

TEST_P(FindLineStartingWith, FindsFirstWholeLine) {
    const FindCase &c = GetParam();
    ScratchDir dir;
    const std::string file = dir / "device.ini";
    WriteFile(file, c.file);
    std::vector<char> buffer(c.nBuffSize + 1, '~'); // the last byte guards the end
    size_t nSize = c.nBuffSize;
    const int iResult = CfgFile_FindLineStartingWith(file.c_str(), c.prefix, buffer.data(), &nSize);
    EXPECT_EQ('~', buffer.back());
    if (c.found == nullptr) {
        EXPECT_EQ(CFGFILE_FAILURE, iResult);
        EXPECT_EQ(c.nBuffSize, nSize);
        return;
    }
    ASSERT_EQ(CFGFILE_SUCCESS, iResult);
    EXPECT_EQ(std::string(c.found), std::string(buffer.data()));
    EXPECT_EQ(strlen(c.found), nSize);
}

const FindCase kFindCases[] = {
    {"LeadingSpacesKeptAndCounted", "[a]\n   port=80\n", "port", 64, "   port=80"},
    {"CaseSensitive", "Port=80\n", "port", 64, nullptr},
    {"TabIndentedNotFound", "\tport=80\n", "port", 64, nullptr},
    {"PrefixWithBlankNeverFound", " port=80\n", " port", 64, nullptr},
    {"CommentLineFoundByHash", "[a]\nk=1\n  # note\n", "#", 64, "  # note"},
    {"FirstOfSeveral", "x=0\nk=1\n[a]\nk=2\n", "k=", 64, "k=1"},
    {"CarriageReturnAndBlanksKept", "k=1 \r\n", "k", 64, "k=1 \r"},
    {"UnterminatedLastLineNotFound", "x=1\nk=1", "k", 64, nullptr},
    {"LineOfSizeMinusTwoFound", "k=3456\n", "k", 8, "k=3456"},
    {"LineOfSizeMinusOneNotFound", "k=34567\n", "k", 8, nullptr},
    {"ScanGoesOnAfterLongLine", "k=34567\nk=1\n", "k", 8, "k=1"},
    {"TailOfLongLineNotFound", "xxxxxxx  k=1\n", "k", 8, nullptr},
    {"LineHoldingNulSkipped", "k\0=1\nk=2\n"s, "k", 64, "k=2"},
    {"ShortLineFound", "k\n", "k", 64, "k"},
    {"PrefixLongerThanLine", "k\n", "k=", 64, nullptr},
    {"EmptyFile", "", "k", 64, nullptr},
    {"BufferOfOneByte", "k=1\n", "k", 1, nullptr},
};

INSTANTIATE_TEST_SUITE_P(Lines, FindLineStartingWith, ::testing::ValuesIn(kFindCases), kCaseName);

TEST(FindLineStartingWithFailures, MissingFileLeavesBufferAndSize) {
    ScratchDir dir;
    char szBuffer[8] = "~~~~~~~";
    size_t nSize = sizeof(szBuffer);
    EXPECT_EQ(CFGFILE_FAILURE,
              CfgFile_FindLineStartingWith((dir / "device.ini").c_str(), "k", szBuffer, &nSize));
    EXPECT_EQ(sizeof(szBuffer), nSize);
    EXPECT_STREQ("~~~~~~~", szBuffer);
}

TEST(FindLineStartingWithDeathTest, AssertsEachArgument) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    char szBuffer[8];
    size_t nSize = sizeof(szBuffer), nZero = 0;
    const struct {
        const char *file, *prefix;
        char *buffer;
        size_t *pnSize;
        const char *expression; // as a regular expression
    } kCases[] = {
        {nullptr, "k", szBuffer, &nSize, "szFileName != NULL"},
        {"", "k", szBuffer, &nSize, "szFileName\\[0\\] != '\\\\0'"},
        {"f", nullptr, szBuffer, &nSize, "szPrefix != NULL"},
        {"f", "", szBuffer, &nSize, "szPrefix\\[0\\] != '\\\\0'"},
        {"f", "k", nullptr, &nSize, "szBuffer != NULL"},
        {"f", "k", szBuffer, nullptr, "pnBuffSize != NULL"},
        {"f", "k", szBuffer, &nZero, "\\*pnBuffSize > 0"},
    };
    for (const auto &c : kCases)
        EXPECT_DEATH(CfgFile_FindLineStartingWith(c.file, c.prefix, c.buffer, c.pnSize),
                     "ASSERTION FAILED: "s + c.expression + " in CfgFile_FindLineStartingWith")
            << c.expression;
}

// ------------------------------------------------- comment out and delete

struct LineCase {
    const char *name;
    std::string before;
    const char *prefix;
    std::string commented; // after CfgFile_CommentLineStartingWith
    std::string deleted;   // after CfgFile_DeleteLineStartingWith
};

void PrintTo(const LineCase &c, std::ostream *os) {
    *os << c.name;
}

class PrefixedLineChange : public ::testing::TestWithParam<LineCase> {
  protected:
    // Runs the change on "device.ini" with the leftovers of an interrupted
    // rewrite beside it. Every successful run replaces the file.
    void Check(int (*op)(const char *, const char *), const std::string &after) {
        const LineCase &c = GetParam();
        ScratchDir dir;
        const std::string file = dir / "device.ini";
        WriteFile(file, c.before);
        WriteFile(dir / "device.tmp", "stale tmp\n");
        WriteFile(dir / "device.bak", "stale bak\n");
        const ino_t nInode = Inode(file);
        EXPECT_EQ(CFGFILE_SUCCESS, op(file.c_str(), c.prefix));
        EXPECT_EQ(after, ReadFile(file));
        EXPECT_NE(nInode, Inode(file));
        EXPECT_FALSE(Exists(dir / "device.tmp") || Exists(dir / "device.bak"));
    }
};

TEST_P(PrefixedLineChange, CommentOut) {
    Check(CfgFile_CommentLineStartingWith, GetParam().commented);
}

TEST_P(PrefixedLineChange, Delete) {
    Check(CfgFile_DeleteLineStartingWith, GetParam().deleted);
}

// A 1300-character line whose last read, taken for a line, would begin with "k=1".
const std::string kLong1300 = std::string(1199, 'x') + std::string(98, ' ') + "k=1";

const LineCase kLineCases[] = {
    {"HashBeforeLeadingBlanks", "[a]\n  k=1\nk=2\n", "k=", "[a]\n#  k=1\nk=2\n", "[a]\nk=2\n"},
    {"SectionsPlayNoPart", "x=1\n[k]\nk=1\n", "[k", "x=1\n#[k]\nk=1\n", "x=1\nk=1\n"},
    {"CommentLinesNeverMatch", "# k=1\n  #k=2\nk=3\n", "k", "# k=1\n  #k=2\n#k=3\n",
     "# k=1\n  #k=2\n"},
    {"HashPrefixMatchesNothing", "#x=1\nx=2\n", "#x", "#x=1\nx=2\n", "#x=1\nx=2\n"},
    {"EmptyPrefixTakesFirstNonComment", "# c\n\nk=1\n", "", "# c\n#\nk=1\n", "# c\nk=1\n"},
    {"ShortLinesStay", "a\n\nab\nk=1\nb\n", "k", "a\n\nab\n#k=1\nb\n", "a\n\nab\nb\n"},
    {"CarriageReturnKept", "x\r\nk=1\r\ny\r\n", "k", "x\r\n#k=1\r\ny\r\n", "x\r\ny\r\n"},
    {"UnterminatedLastLineNeverMatched", "x=1\nk=1", "k", "x=1\nk=1", "x=1\nk=1"},
    {"CaseAndTabsCount", "K=1\n\tk=2\n", "k", "K=1\n\tk=2\n", "K=1\n\tk=2\n"},
    {"NoMatchSameBytes", "[a]\na=1\n", "b", "[a]\na=1\n", "[a]\na=1\n"},
    {"OverlongLineStaysWhole", kLong1300 + "\nk=2\n", "k", kLong1300 + "\n#k=2\n",
     kLong1300 + "\n"},
    {"NulLineStaysWhole", "k\0=1\n\0k\nk=2\n"s, "k", "k\0=1\n\0k\n#k=2\n"s, "k\0=1\n\0k\n"s},
};

INSTANTIATE_TEST_SUITE_P(Lines, PrefixedLineChange, ::testing::ValuesIn(kLineCases), kCaseName);

struct LineOperation {
    const char *szFunction;
    int (*op)(const char *, const char *);
};

const LineOperation kLineOperations[] = {
    {"CfgFile_CommentLineStartingWith", CfgFile_CommentLineStartingWith},
    {"CfgFile_DeleteLineStartingWith", CfgFile_DeleteLineStartingWith},
};

std::string Quoted(const char *szVerb, const std::string &path) {
    return std::string(szVerb) + " \"" + path + "\".\n";
}

TEST(PrefixedLineFailures, MissingFileAndNameLength) {
    ScratchDir dir;
    std::string name246 = dir / "";
    name246 += std::string(246 - name246.size(), 'n');
    const std::string name247 = name246 + "n";
    for (const LineOperation &line : kLineOperations) {
        EXPECT_EQ(CFGFILE_FAILURE, line.op((dir / "device.ini").c_str(), "k")) << line.szFunction;
        EXPECT_FALSE(Exists(dir / "device.ini") || Exists(dir / "device.tmp") ||
                     Exists(dir / "device.bak"));

        WriteFile(name246, "k=1\n");
        EXPECT_EQ(CFGFILE_SUCCESS, line.op(name246.c_str(), "k")) << line.szFunction;
        EXPECT_NE("k=1\n", ReadFile(name246));
        EXPECT_EQ(CFGFILE_BAD_PARAMETERS, line.op(name247.c_str(), "k")) << line.szFunction;
        EXPECT_FALSE(Exists(name247));
        EXPECT_FALSE(Exists(name247 + ".tmp"));
    }
}

// Both files are closed in reading order, the file first; every read is
// traced at level 8, the rest at level 7.
TEST(PrefixedLineTraces, FlowOfMatchAndOfNoMatch) {
    ScratchDir dir;
    const std::string file = dir / "device.ini", tmp = dir / "device.tmp";
    using Trace = std::vector<std::pair<int, std::string>>;
    const Trace opened = {{7, Quoted("OPENED", file)}, {7, Quoted("OPENED", tmp)}};
    const Trace closed = {{7, Quoted("closed", file)}, {7, Quoted("closed", tmp)}};
    const struct {
        const char *prefix;
        Trace middle;
    } kCases[] = {
        {"k", {{8, "Processing line 1.\n"}, {7, "Line found.\n"}, {8, "Processing line 2.\n"}}},
        {"zz",
         {{8, "Processing line 1.\n"},
          {8, "Processing line 2.\n"},
          {7, "line 2 is too long to be processed.\n"}}},
    };
    for (const LineOperation &line : kLineOperations)
        for (const auto &c : kCases) {
            WriteFile(file, "k=1\nzz");
            cfgtest::TraceCapture trace(8);
            EXPECT_EQ(CFGFILE_SUCCESS, line.op(file.c_str(), c.prefix));
            Trace expected = opened, actual;
            expected.insert(expected.end(), c.middle.begin(), c.middle.end());
            expected.insert(expected.end(), closed.begin(), closed.end());
            for (const cfgtest::TraceMessage &message : trace.Messages()) {
                actual.emplace_back(message.nLevel, message.text);
                EXPECT_EQ(line.szFunction, message.function) << message.text;
            }
            EXPECT_EQ(expected, actual) << line.szFunction << " " << c.prefix;
        }
}

TEST(PrefixedLineDeathTest, AssertsNames) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const LineOperation &line : kLineOperations) {
        EXPECT_DEATH(line.op(nullptr, "k"),
                     "ASSERTION FAILED: szFileName != NULL in "s + line.szFunction);
        EXPECT_DEATH(line.op("device.ini", nullptr),
                     "ASSERTION FAILED: szPrefix != NULL in "s + line.szFunction);
    }
}

} // namespace
