// Section enumeration, section deletion, key deletion and clearing a section's keys;
// a rewrite whose temporary file cannot be created.
#include <algorithm>
#include <functional>
#include <iterator>
#include <vector>

#include <sys/stat.h>

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

// A line of nLength characters whose last read, for a reader taking nPiece
// characters at a time, is blanks then `tail`: taken for a line of its own,
// that read would look like `tail`.
std::string OverlongLine(size_t nLength, size_t nPiece, const std::string &tail) {
    const size_t nHead = nLength / nPiece * nPiece;
    return std::string(nHead, 'x') + std::string(nLength - nHead - tail.size(), ' ') + tail;
}

const std::string kLong600 = OverlongLine(600, 511, "[x]");
const std::string kLong1100 = OverlongLine(1100, 511, "k=v");

// ------------------------------------------------------------ enumeration

struct EnumerateCase {
    const char *name;
    std::string file;
    const char *prefix;
    std::string list; // every matching name with its NUL, in file order
};

void PrintTo(const EnumerateCase &c, std::ostream *os) {
    *os << c.name;
}

class EnumerateSections : public ::testing::TestWithParam<EnumerateCase> {};

TEST_P(EnumerateSections, MeasuresAndCopiesWhatFits) {
    const EnumerateCase &c = GetParam();
    ScratchDir dir;
    const std::string file = dir / "device.ini";
    WriteFile(file, c.file);
    // Lists into nCapacity bytes and a guard byte (bBuffer false: no buffer at
    // all); expects `copied` there, its names counted, and the full size.
    auto expectListing = [&](bool bBuffer, size_t nCapacity, const std::string &copied) {
        std::vector<char> buffer(nCapacity + 1, '~');
        size_t nSize = bBuffer ? nCapacity : 12345;
        unsigned int nCount = 99;
        EXPECT_EQ(CFGFILE_SUCCESS,
                  CfgFile_EnumerateSections(file.c_str(), c.prefix,
                                            bBuffer ? buffer.data() : nullptr, &nSize, &nCount));
        EXPECT_EQ(copied + std::string(nCapacity + 1 - copied.size(), '~'),
                  std::string(buffer.data(), buffer.size()))
            << nCapacity;
        EXPECT_EQ(c.list.size(), nSize) << nCapacity;
        EXPECT_EQ(std::count(copied.begin(), copied.end(), '\0'), nCount) << nCapacity;
    };
    expectListing(false, 0, "");
    expectListing(true, 0, "");
    expectListing(true, c.list.size(), c.list);
    // One byte short: the last name is left out, the others stay whole.
    if (!c.list.empty()) {
        const std::string allButLast = c.list.substr(0, c.list.size() - 1);
        expectListing(true, allButLast.size(), c.list.substr(0, allButLast.rfind('\0') + 1));
    }
}

const EnumerateCase kEnumerateCases[] = {
    {"AllSections", "top=1\n[a]\nk=1\n[bc]\n", "", "a\0bc\0"s},
    {"NamesUntrimmed", "[ Net ]\n", "", " Net \0"s},
    {"BlankBeforeNameIsPartOfIt", "[ Net ]\n", "net", ""},
    {"PrefixWithBlank", "[ Net ]\n", " nE", " Net \0"s},
    {"PrefixAnyCase", "[Video]\n[video1]\n[audio]\n[VIDEOS]\n", "vIDeo",
     "Video\0video1\0VIDEOS\0"s},
    {"NameShorterThanPrefix", "[vid]\n", "video", ""},
    {"EmptyName", "[]x\n", "", "\0"s},
    {"ShortLineNotListed", "[]\n[a]\n", "", "a\0"s},
    {"UnterminatedLastLineNotListed", "[a]\n[b]", "", "a\0"s},
    {"OnlyBlanksSkipped", "\t[t]\n   [x] text\n#[c]\n[open\n", "", "x\0"s},
    {"NameEndsAtFirstBracket", "[a]b]\n", "", "a\0"s},
    {"DuplicatesListedTwice", "[a]\n[b]\n[A]\n", "a", "a\0A\0"s},
};

INSTANTIATE_TEST_SUITE_P(Maintenance, EnumerateSections, ::testing::ValuesIn(kEnumerateCases),
                         kCaseName);

TEST(EnumerateSectionsFailures, MissingFileAndNullArguments) {
    ScratchDir dir;
    const std::string file = dir / "device.ini";
    char szBuffer[4] = "~~~";
    size_t nSize = sizeof(szBuffer);
    unsigned int nCount = 7;
    EXPECT_EQ(-1, CfgFile_EnumerateSections(file.c_str(), "", szBuffer, &nSize, &nCount));
    EXPECT_EQ(0u, nSize);
    EXPECT_EQ(0u, nCount);
    EXPECT_STREQ("~~~", szBuffer);

    WriteFile(file, "[a]\n");
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS,
              CfgFile_EnumerateSections(file.c_str(), "", szBuffer, nullptr, &nCount));
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS,
              CfgFile_EnumerateSections(file.c_str(), "", szBuffer, &nSize, nullptr));
}

// -------------------------------------------------------------- deletions

struct DeletionCase {
    const char *name;
    std::string before;
    const char *szArg; // the section's name or prefix
    const char *szKey; // CfgFile_DeleteKey only
    std::string after;
    bool bReplaced;
};

void PrintTo(const DeletionCase &c, std::ostream *os) {
    *os << c.name;
}

class DeletionBytes : public ::testing::TestWithParam<DeletionCase> {
  protected:
    // Runs the deletion on "device.ini" with the leftovers of an interrupted
    // earlier rewrite beside it; none of them may remain.
    void Check(int (*op)(const char *, const DeletionCase &)) {
        const DeletionCase &c = GetParam();
        ScratchDir dir;
        const std::string file = dir / "device.ini";
        WriteFile(file, c.before);
        WriteFile(dir / "device.tmp", "stale tmp\n");
        WriteFile(dir / "device.bak", "stale bak\n");
        const ino_t nInode = Inode(file);
        EXPECT_EQ(CFGFILE_SUCCESS, op(file.c_str(), c));
        EXPECT_EQ(c.after, ReadFile(file));
        EXPECT_EQ(c.bReplaced, Inode(file) != nInode);
        EXPECT_FALSE(Exists(dir / "device.tmp") || Exists(dir / "device.bak"));
    }
};

class DeleteSectionsBytes : public DeletionBytes {};
class DeleteKeyBytes : public DeletionBytes {};
class DeleteAllSectionKeysBytes : public DeletionBytes {};

TEST_P(DeleteSectionsBytes, ExactBytes) {
    Check([](const char *f, const DeletionCase &c) { return CfgFile_DeleteSections(f, c.szArg); });
}

TEST_P(DeleteKeyBytes, ExactBytes) {
    Check([](const char *f, const DeletionCase &c) {
        return CfgFile_DeleteKey(f, c.szArg, c.szKey);
    });
}

TEST_P(DeleteAllSectionKeysBytes, ExactBytes) {
    Check([](const char *f, const DeletionCase &c) {
        return CfgFile_DeleteAllSectionKeys(f, c.szArg);
    });
}

const std::string kName80(80, 's');

const DeletionCase kDeleteSectionsCases[] = {
    {"WholeNameAnyCaseTrimmed", "[Video]\nk=1\n[ VIDEO ]\nk=2\n[video1]\nk=3\n", "video", nullptr,
     "[video1]\nk=3\n", true},
    {"PrefixWithFinalStar", "top\n[Video]\nk=1\n[video1]\n[Videos]\nx=1\n[audio]\na=1\n", "video*",
     nullptr, "top\n[audio]\na=1\n", true},
    {"InnerStarIsText", "[a*b]\n1=1\n[a*bc]\n2=2\n[ab]\n3=3\n", "a*b", nullptr,
     "[a*bc]\n2=2\n[ab]\n3=3\n", true},
    {"InnerStarThenFinalStar", "[a*b]\n1=1\n[a*bc]\n2=2\n[ab]\n3=3\n", "a*b*", nullptr,
     "[ab]\n3=3\n", true},
    // Unnamed, unclosed and over-long section lines are never selected, and end a selected one.
    {"StarTakesEveryNamedSection",
     "# head\nk=0\n[a]\nk=1\n[   ]\nk=2\n[b\nx=1\n[c]\n[" + kName80 + "]\ny=1\n[d]\n[]\nz=1\n", "*",
     nullptr, "# head\nk=0\n[b\nx=1\n[" + kName80 + "]\ny=1\n[]\nz=1\n", true},
    {"CommentsAndBlankLinesGo", "[a]\n# c\n\nk\nk=1\n# about b\n[b]\nx=1\n", "a", nullptr,
     "[b]\nx=1\n", true},
    {"UnterminatedLastLineStays", "[b]\n[a]\nk=1\nz=9", "a", nullptr, "[b]\nz=9", true},
    {"ConsecutiveAndSeparated", "[x1]\nk=1\n[x2]\nk=2\n[y]\nk=3\n  [x3]\nk=4\n", "x*", nullptr,
     "[y]\nk=3\n", true},
    {"NoMatchStillRewrites", "[a]\nk=1\n\tx\r\n", "b", nullptr, "[a]\nk=1\n\tx\r\n", true},
    {"EmptyPrefixTakesBlankName", "[   ]\nk=1\n[a]\nk=2\n", "", nullptr, "[a]\nk=2\n", true},
    {"OverlongLinesStayWhole", "[a]\n" + kLong600 + "\nk=1\n" + kLong1100 + "\nk=2\n[b]\ny=1\n",
     "a", nullptr, kLong600 + "\n" + kLong1100 + "\n[b]\ny=1\n", true},
};

const std::string kKey100(100, 'k');

const DeletionCase kDeleteKeyCases[] = {
    {"TrimmedAnyCase", "[ NET ]\n  port = 80\nhost=a\n", "net", "Port", "[ NET ]\nhost=a\n", true},
    {"TabIndentedKeyNotFound", "[a]\n\tk=1\n", "a", "k", "[a]\n\tk=1\n", false},
    {"OnlyFirstLineOfKey", "[a]\nk=1\n# c\n\nk=2\n", "a", "k", "[a]\n# c\n\nk=2\n", true},
    {"KeyMissing", "[a]\nx=1\n", "a", "k", "[a]\nx=1\n", false},
    {"LaterSameSectionNotSearched", "[a]\nx=1\n[b]\n[a]\nk=1\n", "a", "k",
     "[a]\nx=1\n[b]\n[a]\nk=1\n", false},
    {"UnclosedBracketEndsSearch", "[a]\n[oops\nk=1\n", "a", "k", "[a]\n[oops\nk=1\n", false},
    {"SearchedAgainAfterDeletion", "[a]\nk=1\n[b]\nk=2\n[a]\nk=3\nk=4\n", "a", "k",
     "[a]\n[b]\nk=2\n[a]\nk=4\n", true},
    {"SameNameHeadsSeveralSections", "[a]\nk=1\n[a]\nx=1\n[b]\nk=2\n", "a", "k",
     "[a]\n[a]\nx=1\n[b]\nk=2\n", true},
    {"UnterminatedKeyLineStays", "[a]\nk=1", "a", "k", "[a]\nk=1", false},
    {"ShortKeyLine", "[a]\na=\nb=1\n", "a", "a", "[a]\nb=1\n", true},
    {"CommentWithEqualsIsAnotherKey", "[a]\n#k=1\nk=2\n", "a", "k", "[a]\n#k=1\n", true},
    {"LongKeyPartPaddedShortKey", "[a]\n" + kKey100 + "=1\n" + std::string(100, ' ') + "k =2\n",
     "a", "k", "[a]\n" + kKey100 + "=1\n", true},
    {"LongKeyNeverMatches", "[a]\n" + kKey100 + "=1\n", "a", kKey100.c_str(),
     "[a]\n" + kKey100 + "=1\n", false},
    {"OverlongLineIsNoKeyLine", "[a]\n" + kLong1100 + "\n", "a", "k", "[a]\n" + kLong1100 + "\n",
     false},
    {"KeyAfterOverlongLines", "[a]\n" + kLong600 + "\n" + kLong1100 + "\nk=1\n", "a", "k",
     "[a]\n" + kLong600 + "\n" + kLong1100 + "\n", true},
};

const DeletionCase kDeleteAllSectionKeysCases[] = {
    {"KeyAndCommentLinesWithEquals", "[Net]\na=1\n# b=2\n# note\n\nc = 3\n[other]\nd=4\n", "net",
     nullptr, "[Net]\n# note\n\n[other]\nd=4\n", true},
    {"SeparatedSectionsBothCleared", "k=0\n[a]\nk=1\n[b]\nk=2\n[a]\nk=3\n", "a", nullptr,
     "k=0\n[a]\n[b]\nk=2\n[a]\n", true},
    {"SecondOfConsecutiveSectionLinesKept", "[a]\nk=1\n[a]\nk=2\n", "a", nullptr, "[a]\n[a]\nk=2\n",
     true},
    {"NoLineWithEquals", "[a]\n# note\n\n[b]\nk=1\n", "a", nullptr, "[a]\n# note\n\n[b]\nk=1\n",
     false},
    {"SectionMissing", "[a]\nk=1\n", "b", nullptr, "[a]\nk=1\n", false},
    {"UnterminatedLastLineStays", "[a]\nk=1\nj=2", "a", nullptr, "[a]\nj=2", true},
    {"ShortKeyLineOnlyInsideSection", "a=\n[a]\na=\n", "a", nullptr, "a=\n[a]\n", true},
    {"UnclosedBracketEndsSection", "[a]\nk=1\n[b\nk=2\n", "a", nullptr, "[a]\n[b\nk=2\n", true},
    {"OverlongLinesStayWhole", "[a]\n" + kLong1100 + "\nk=1\n" + kLong600 + "\nk=2\n", "a", nullptr,
     "[a]\n" + kLong1100 + "\n" + kLong600 + "\n", true},
};

INSTANTIATE_TEST_SUITE_P(Maintenance, DeleteSectionsBytes,
                         ::testing::ValuesIn(kDeleteSectionsCases), kCaseName);
INSTANTIATE_TEST_SUITE_P(Maintenance, DeleteKeyBytes, ::testing::ValuesIn(kDeleteKeyCases),
                         kCaseName);
INSTANTIATE_TEST_SUITE_P(Maintenance, DeleteAllSectionKeysBytes,
                         ::testing::ValuesIn(kDeleteAllSectionKeysCases), kCaseName);

struct Rewrite {
    const char *szFunction;
    std::function<int(const char *)> op;
};

const Rewrite kDeletions[] = {
    {"CfgFile_DeleteSections", [](const char *f) { return CfgFile_DeleteSections(f, "net"); }},
    {"CfgFile_DeleteKey", [](const char *f) { return CfgFile_DeleteKey(f, "net", "k"); }},
    {"CfgFile_DeleteAllSectionKeys",
     [](const char *f) { return CfgFile_DeleteAllSectionKeys(f, "net"); }},
};

std::string Quoted(const char *szVerb, const std::string &path) {
    return std::string(szVerb) + " \"" + path + "\".\n";
}

TEST(Deletions, MissingFileNullNamesAndLongName) {
    ScratchDir dir;
    const std::string file = dir / "device.ini";
    WriteFile(dir / "device.bak", "old\n");
    for (const Rewrite &rewrite : kDeletions) {
        EXPECT_EQ(CFGFILE_SUCCESS, rewrite.op(file.c_str())) << rewrite.szFunction;
        EXPECT_FALSE(Exists(file));
        EXPECT_FALSE(Exists(dir / "device.tmp"));
        EXPECT_EQ("old\n", ReadFile(dir / "device.bak"));
    }
    std::string name247 = dir / "";
    name247 += std::string(247 - name247.size(), 'n');
    WriteFile(name247, "[net]\nk=1\n");
    for (const Rewrite &rewrite : kDeletions)
        EXPECT_EQ(CFGFILE_BAD_PARAMETERS, rewrite.op(name247.c_str())) << rewrite.szFunction;
    EXPECT_EQ("[net]\nk=1\n", ReadFile(name247));
    EXPECT_FALSE(Exists(name247 + ".tmp"));

    WriteFile(file, "[a]\nk=1\n");
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_DeleteSections(file.c_str(), nullptr));
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_DeleteKey(file.c_str(), nullptr, "k"));
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_DeleteKey(file.c_str(), "a", nullptr));
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_DeleteAllSectionKeys(file.c_str(), nullptr));
    EXPECT_EQ("[a]\nk=1\n", ReadFile(file));
}

// The flow of each deletion at level 7: every message, in order, carrying the
// operation's name; the temporary file is closed before the file.
TEST(Deletions, TraceFlowAtLevel7) {
    ScratchDir dir;
    const std::string file = dir / "device.ini", tmp = dir / "device.tmp";
    const std::string head[] = {Quoted("OPENED", file), Quoted("OPENED", tmp),
                                "Processing line 1.\n",
                                "Found end bracket line 1, section length=3 chars.\n"};
    const std::string tail[] = {Quoted("closed", tmp), Quoted("closed", file)};
    const std::vector<std::string> kMiddles[] = {
        {"Processing line 2.\n", "Processing line 3.\n", "Processing line 4.\n",
         "Found end bracket line 4, section length=1 chars.\n"},
        {"Processing line 2.\n", "key=\"k\".\n", "Processing line 3.\n", "Processing line 4.\n",
         "Found end bracket line 4, section length=1 chars.\n"},
        {"line 1, Found section: net.\n", "Copying line 1.\n", "Processing line 2.\n",
         "Deleting line 2.\n", "Processing line 3.\n", "Copying line 3.\n", "Processing line 4.\n",
         "line 4, Found end of section: net.\n", "Copying line 4.\n"},
    };
    for (size_t i = 0; i < std::size(kDeletions); ++i) {
        WriteFile(file, "[Net]\nk=1\nb\n[x]\n");
        cfgtest::TraceCapture trace(7);
        EXPECT_EQ(CFGFILE_SUCCESS, kDeletions[i].op(file.c_str()));
        std::vector<std::string> expected(std::begin(head), std::end(head));
        expected.insert(expected.end(), kMiddles[i].begin(), kMiddles[i].end());
        expected.insert(expected.end(), std::begin(tail), std::end(tail));
        EXPECT_EQ(expected, trace.Texts()) << kDeletions[i].szFunction;
        for (const cfgtest::TraceMessage &message : trace.Messages()) {
            EXPECT_EQ(7, message.nLevel) << message.text;
            EXPECT_EQ(kDeletions[i].szFunction, message.function) << message.text;
        }
    }
}

// Every rewrite, the line operations included, leaves the file as it was.
TEST(Rewrites, TemporaryFileCannotBeCreated) {
    ScratchDir dir;
    const std::string file = dir / "device.ini", tmp = dir / "device.tmp";
    ASSERT_EQ(0, mkdir(tmp.c_str(), 0700));
    WriteFile(file, "[Net]\nk=1\n");
    const ino_t nInode = Inode(file);
    std::vector<Rewrite> rewrites(std::begin(kDeletions), std::end(kDeletions));
    rewrites.push_back({"CfgFile_CommentLineStartingWith",
                        [](const char *f) { return CfgFile_CommentLineStartingWith(f, "k"); }});
    rewrites.push_back({"CfgFile_DeleteLineStartingWith",
                        [](const char *f) { return CfgFile_DeleteLineStartingWith(f, "k"); }});
    for (const Rewrite &rewrite : rewrites) {
        cfgtest::TraceCapture trace(7);
        EXPECT_EQ(CFGFILE_FAILURE, rewrite.op(file.c_str())) << rewrite.szFunction;
        const std::vector<std::string> expected = {
            Quoted("OPENED", file), Quoted("Unable to open tmp file", tmp), Quoted("closed", file)};
        EXPECT_EQ(expected, trace.Texts()) << rewrite.szFunction;
        EXPECT_EQ("[Net]\nk=1\n", ReadFile(file));
        EXPECT_EQ(nInode, Inode(file));
        EXPECT_FALSE(Exists(dir / "device.bak"));
    }
}

} // namespace
