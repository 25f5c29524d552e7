// Finding, commenting out and deleting the first line that begins with a
// prefix; lookups in files that read short or have no end.
#include <cstring>
#include <functional>

#include "cfgfile_api.h"
#include "test_support.h"

using namespace cfgtest;

namespace {

struct FindCase {
    std::string file;
    const char *prefix;
    size_t nBuffSize;
    const char *found; // nullptr: FAILURE, the size left as it was
    bool bMissing = false;
};

void PrintTo(const FindCase &c, std::ostream *pOut) {
    *pOut << "prefix \"" << c.prefix << "\" in " << c.nBuffSize << " bytes";
}

class FindLineStartingWith : public ::testing::TestWithParam<FindCase> {};

TEST_P(FindLineStartingWith, FindsFirstWholeLine) {
    const FindCase &c = GetParam();
    ScratchDir dir;
    if (!c.bMissing)
        WriteFile(dir / "device.ini", c.file);
    std::string buffer(c.nBuffSize + 1, '~'); // the last byte guards the end
    size_t nSize = c.nBuffSize;
    EXPECT_EQ(c.found ? CFGFILE_SUCCESS : CFGFILE_FAILURE,
              CfgFile_FindLineStartingWith((dir / "device.ini").c_str(), c.prefix, buffer.data(),
                                           &nSize));
    EXPECT_EQ('~', buffer.back());
    EXPECT_EQ(c.found ? strlen(c.found) : c.nBuffSize, nSize);
    EXPECT_EQ(c.found ? c.found : "", c.found ? std::string(buffer.c_str()) : "");
}

const FindCase kFindCases[] = {
    // Spaces before the prefix are skipped but kept; the match is case-sensitive.
    {"[a]\n   port=80 \r\n", "port", 64, "   port=80 \r"},
    {"Port=80\n", "port", 64, nullptr},
    {"\tport=80\n", "port", 64, nullptr},
    {" port=80\n", " port", 64, nullptr}, // spaces are skipped before matching
    {"[a]\nk=1\n  # note\n", "#", 64, "  # note"},
    {"x=0\nk=1\n[a]\nk=2\n", "k=", 64, "k=1"},
    // Only whole lines that fit the buffer less two bytes, holding no NUL, are found.
    {"x=1\nk=1", "k", 64, nullptr},
    {"k=3456\n", "k", 8, "k=3456"},
    {"k=34567\nk=1\n", "k", 8, "k=1"},
    {"xxxxxxx  k=1\n", "k", 8, nullptr},
    {"k\0=1\nk=2\n"s, "k", 64, "k=2"},
    {"", "k", 64, nullptr, true},
    {"k=1\n", "k", 1, nullptr},
};
INSTANTIATE_TEST_SUITE_P(Lines, FindLineStartingWith, ::testing::ValuesIn(kFindCases));

// A read that gives less than asked for ends nothing: procfs gives a record
// at a time, and reports a size of 0. A line deep in such a file is found.
TEST(LinesOfProcfs, ReadsPastShortReads) {
    std::ifstream symbols("/proc/kallsyms");
    std::vector<std::string> lines;
    for (std::string line; std::getline(symbols, line);)
        lines.push_back(line);
    if (lines.size() < 1000)
        GTEST_SKIP() << "/proc/kallsyms is too short here";
    const std::string wanted = lines[lines.size() * 3 / 4];
    char szLine[512];
    size_t nSize = sizeof(szLine);
    ASSERT_EQ(CFGFILE_SUCCESS,
              CfgFile_FindLineStartingWith("/proc/kallsyms", wanted.c_str(), szLine, &nSize));
    EXPECT_EQ(wanted, szLine);
}

// A lookup asks a file's type once it has read 64 KiB: a regular file reads
// on to its end, and a device that gives bytes without end is refused there
// by every lookup, as a file that cannot be opened.
TEST(LargeFiles, LookupsReadOnPastTheTypeCheckAndRefuseDevices) {
    ScratchDir dir;
    const std::string file = dir / "big.ini";
    std::string text;
    size_t nNamesSize = 0;
    for (int i = 0; i < 9000; ++i) {
        text += "[s" + std::to_string(i) + "]\nkey=" + std::to_string(i) + "\n";
        nNamesSize += std::to_string(i).size() + 2;
    }
    ASSERT_GT(text.size(), 2 * 65536u);
    WriteFile(file, text);
    for (const std::string &path : {file, "/dev/zero"s}) {
        const bool bFile = path == file;
        int nValue = 0;
        EXPECT_EQ(bFile ? CFGFILE_SUCCESS : CFGFILE_FILE_ACCESS,
                  CfgFile_GetIntValue(path.c_str(), "s8999", "key", &nValue, 7));
        EXPECT_EQ(bFile ? 8999 : 7, nValue);
        size_t nSize = 9;
        unsigned int nCount = 9;
        EXPECT_EQ(bFile ? CFGFILE_SUCCESS : -1,
                  CfgFile_EnumerateSections(path.c_str(), "", nullptr, &nSize, &nCount));
        EXPECT_EQ(std::pair(bFile ? nNamesSize : 0, 0u), std::pair(nSize, nCount));
        char szLine[64];
        nSize = sizeof(szLine);
        EXPECT_EQ(bFile ? CFGFILE_SUCCESS : CFGFILE_FAILURE,
                  CfgFile_FindLineStartingWith(path.c_str(), "[s8999]", szLine, &nSize));
    }
}

// Programming errors end the process, naming the failed check and the function.
TEST(LinesDeathTest, AssertsArguments) {
    PreferFreshProcessDeathTests();
    char szBuffer[8];
    size_t nSize = sizeof(szBuffer), nZero = 0;
    const auto find = CfgFile_FindLineStartingWith;
    const auto comment = CfgFile_CommentLineStartingWith, del = CfgFile_DeleteLineStartingWith;
    const std::pair<std::function<void()>, const char *> kCases[] = {
        {[&] { find(nullptr, "k", szBuffer, &nSize); }, "szFileName != NULL in CfgFile_Find"},
        {[&] { find("", "k", szBuffer, &nSize); }, "szFileName\\[0\\] != '\\\\0' in CfgFile_Find"},
        {[&] { find("f", nullptr, szBuffer, &nSize); }, "szPrefix != NULL in CfgFile_Find"},
        {[&] { find("f", "", szBuffer, &nSize); }, "szPrefix\\[0\\] != '\\\\0' in CfgFile_Find"},
        {[&] { find("f", "k", nullptr, &nSize); }, "szBuffer != NULL in CfgFile_Find"},
        {[&] { find("f", "k", szBuffer, nullptr); }, "pnBuffSize != NULL in CfgFile_Find"},
        {[&] { find("f", "k", szBuffer, &nZero); }, "\\*pnBuffSize > 0 in CfgFile_Find"},
        {[&] { comment(nullptr, "k"); }, "szFileName != NULL in CfgFile_Comment"},
        {[&] { comment("f", nullptr); }, "szPrefix != NULL in CfgFile_Comment"},
        {[&] { del(nullptr, "k"); }, "szFileName != NULL in CfgFile_DeleteLine"},
        {[&] { del("f", nullptr); }, "szPrefix != NULL in CfgFile_DeleteLine"},
    };
    for (const auto &[call, szMessage] : kCases)
        EXPECT_DEATH(call(), "ASSERTION FAILED: "s + szMessage);
}

struct LineCase {
    std::string before;
    const char *prefix;
    std::string commented, deleted;
};

void PrintTo(const LineCase &c, std::ostream *pOut) {
    *pOut << "prefix \"" << c.prefix << "\"";
}

class PrefixedLineChange : public ::testing::TestWithParam<LineCase> {};

// Every successful run replaces the file and leaves no other file behind.
TEST_P(PrefixedLineChange, CommentOutAndDelete) {
    const LineCase &c = GetParam();
    for (auto op : {CfgFile_CommentLineStartingWith, CfgFile_DeleteLineStartingWith}) {
        ScratchDir dir;
        const std::string file = dir / "device.ini";
        WriteFile(file, c.before);
        const ino_t nInode = Inode(file);
        EXPECT_EQ(CFGFILE_SUCCESS, op(file.c_str(), c.prefix));
        EXPECT_EQ(op == CfgFile_CommentLineStartingWith ? c.commented : c.deleted, ReadFile(file));
        EXPECT_NE(nInode, Inode(file));
        EXPECT_FALSE(Exists(dir / "device.tmp") || Exists(dir / "device.bak"));
    }
}

// A 1300-character line whose last read, taken for a line, would begin with "k=1".
const std::string kLong1300 = std::string(1199, 'x') + std::string(98, ' ') + "k=1";

const LineCase kLineCases[] = {
    // '#' goes before the spaces of the first matching line that is not a comment already.
    {"[a]\n  k=1\nk=2\n", "k=", "[a]\n#  k=1\nk=2\n", "[a]\nk=2\n"},
    {"# k=1\n  #k=2\nk=3\n", "k", "# k=1\n  #k=2\n#k=3\n", "# k=1\n  #k=2\n"},
    {"#x=1\nx=2\n", "#x", "#x=1\nx=2\n", "#x=1\nx=2\n"},
    {"# c\n\nk=1\n", "", "# c\n#\nk=1\n", "# c\nk=1\n"},
    // Short, blank and unterminated lines, CR, over-long lines and NUL bytes.
    {"a\n\nab\nk=1\nb\n", "k", "a\n\nab\n#k=1\nb\n", "a\n\nab\nb\n"},
    {"x\r\nk=1\r\ny\r\n", "k", "x\r\n#k=1\r\ny\r\n", "x\r\ny\r\n"},
    {"x=1\nk=1", "k", "x=1\nk=1", "x=1\nk=1"},
    {kLong1300 + "\nk=2\n", "k", kLong1300 + "\n#k=2\n", kLong1300 + "\n"},
    {"k\0=1\n\0k\nk=2\n"s, "k", "k\0=1\n\0k\n#k=2\n"s, "k\0=1\n\0k\n"s},
};
INSTANTIATE_TEST_SUITE_P(Lines, PrefixedLineChange, ::testing::ValuesIn(kLineCases));

} // namespace
