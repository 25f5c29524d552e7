// Section enumeration, section deletion, key deletion and clearing a section's
// keys, and how the rewrites trace their work.
#include "cfgfile_api.h"
#include "test_support.h"

using namespace cfgtest;

namespace {

// 600 characters whose second 511-character read, taken for a line, would be a section line.
const std::string kLong600 = std::string(511, 'x') + std::string(86, ' ') + "[x]";

struct EnumerateCase {
    const char *prefix;
    std::string file, list; // list: every matching name with its NUL, in file order
};

void PrintTo(const EnumerateCase &c, std::ostream *pOut) {
    *pOut << "prefix \"" << c.prefix << "\"";
}

class EnumerateSections : public ::testing::TestWithParam<EnumerateCase> {};

// Measures without a buffer, then lists into no bytes, the exact size and one
// byte less (the last name left out), each buffer followed by a guard byte.
TEST_P(EnumerateSections, MeasuresAndCopiesWhatFits) {
    const EnumerateCase &c = GetParam();
    ScratchDir dir;
    WriteFile(dir / "device.ini", c.file);
    const std::string allButLast = c.list.substr(0, std::max<size_t>(c.list.size(), 1) - 1);
    const std::string fits[] = {"", "", c.list, c.list.substr(0, allButLast.rfind('\0') + 1)};
    const size_t nCapacity[] = {0, 0, c.list.size(), allButLast.size()};
    for (int i = 0; i < 4; ++i) {
        std::string buffer(nCapacity[i] + 1, '~');
        size_t nSize = i == 0 ? 12345 : nCapacity[i];
        unsigned int nCount = 99;
        EXPECT_EQ(CFGFILE_SUCCESS,
                  CfgFile_EnumerateSections((dir / "device.ini").c_str(), c.prefix,
                                            i == 0 ? nullptr : buffer.data(), &nSize, &nCount));
        EXPECT_EQ(fits[i] + std::string(nCapacity[i] + 1 - fits[i].size(), '~'), buffer) << i;
        EXPECT_EQ(c.list.size(), nSize) << i;
        EXPECT_EQ(std::ranges::count(fits[i], '\0'), nCount) << i;
    }
    // A missing file lists nothing, and says so.
    size_t nSize = 4;
    unsigned int nCount = 7;
    EXPECT_EQ(-1, CfgFile_EnumerateSections((dir / "f").c_str(), "", nullptr, &nSize, &nCount));
    EXPECT_EQ(0u, nSize + nCount);
}

const EnumerateCase kEnumerateCases[] = {
    // Names as written; the prefix matches in any letter case; duplicates are listed twice.
    {" nE", "[ Net ]\n[net]\n", " Net \0"s}, // names are not trimmed
    {"vIDeo", "[Video]\n[vid]\n[video1]\n[VIDEO]\n", "Video\0video1\0VIDEO\0"s},
    {"", "[]x\n", "\0"s},
    // Only lines longer than "[]" that start with '[' after spaces, hold a ']' and end in a
    // line feed.
    {"", "[]\n[a]b]\n[b]", "a\0"s}, // too short; name ends at first ']'; unterminated
    {"", "\t[t]\n   [x] text\n#[c]\n[open\n", "x\0"s},
};
INSTANTIATE_TEST_SUITE_P(Maintenance, EnumerateSections, ::testing::ValuesIn(kEnumerateCases));

// op: 'S' deletes sections, 'K' a key, 'A' every key of a section.
struct DeletionCase {
    char op;
    std::string before;
    const char *section; // a section prefix for 'S'
    std::string after;
    const char *key = nullptr;
};

void PrintTo(const DeletionCase &c, std::ostream *pOut) {
    *pOut << c.op << " " << c.section;
}

class Deletion : public ::testing::TestWithParam<DeletionCase> {};

// Runs beside the leftovers of an interrupted rewrite, which must go. Section
// deletion always replaces the file; the others only when they removed a line.
TEST_P(Deletion, ExactBytes) {
    const DeletionCase &c = GetParam();
    ScratchDir dir;
    const std::string file = dir / "device.ini";
    WriteFile(file, c.before);
    WriteFile(dir / "device.tmp", "stale tmp\n");
    WriteFile(dir / "device.bak", "stale bak\n");
    const ino_t nInode = Inode(file);
    const char *f = file.c_str();
    EXPECT_EQ(CFGFILE_SUCCESS, c.op == 'S'   ? CfgFile_DeleteSections(f, c.section)
                               : c.op == 'K' ? CfgFile_DeleteKey(f, c.section, c.key)
                                             : CfgFile_DeleteAllSectionKeys(f, c.section));
    EXPECT_EQ(c.after, ReadFile(file));
    EXPECT_EQ(c.op == 'S' || c.before != c.after, Inode(file) != nInode);
    EXPECT_FALSE(Exists(dir / "device.tmp") || Exists(dir / "device.bak"));
}

const DeletionCase kDeletionCases[] = {
    // A whole name matches trimmed, in any case; a final '*' makes a prefix, an inner one is text.
    {'S', "[Video]\nk=1\n[ VIDEO ]\nk=2\n[video1]\nk=3\n", "video", "[video1]\nk=3\n"},
    {'S', "top\n[Video]\nk=1\n[video1]\n[a]\n[videos]\n", "video*", "top\n[a]\n"},
    {'S', "[a*b]\n1\n[a*bc]\n2\n[ab]\n", "a*b", "[a*bc]\n2\n[ab]\n"},
    {'S', "[a*b]\n1\n[a*bc]\n2\n[ab]\n", "a*b*", "[ab]\n"},
    // "*" keeps what precedes the first section; unclosed and empty names are never selected.
    {'S', "# head\nk=0\n[a]\nk=1\n[b\nx=1\n[c]\n[]\nz=1\n", "*", "# head\nk=0\n[b\nx=1\n[]\nz=1\n"},
    {'S', "[b]\n[a]\n# c\n\nk\nz=9", "a", "[b]\nz=9"},    // unterminated last line stays
    {'S', "[a]\nk=1\n\tx\r\n", "b", "[a]\nk=1\n\tx\r\n"}, // rewritten all the same
    // "" selects blank names only; an over-long line passes through whole.
    {'S', "[   ]\nk=1\n[a]\nk=2\n", "", "[a]\nk=2\n"},
    {'S', "[a]\n" + kLong600 + "\nk=1\n[b]\n", "a", kLong600 + "\n[b]\n"},
    // The first line of the key in the first section of the name, up to the next '['; after a
    // deletion, a later section of the name is searched again.
    {'K', "[ NET ]\n  port = 80\nhost=a\n", "net", "[ NET ]\nhost=a\n", "Port"},
    {'K', "[a]\n\tk=1\n", "a", "[a]\n\tk=1\n", "k"},
    {'K', "[a]\nk=1\n# c\n\nk=2\n", "a", "[a]\n# c\n\nk=2\n", "k"},
    {'K', "[a]\nx=1\n[b]\n[a]\nk=1\n", "a", "[a]\nx=1\n[b]\n[a]\nk=1\n", "k"},
    {'K', "[a]\nk=1\n[b]\nk=2\n[a]\nk=3\nk=4\n", "a", "[a]\n[b]\nk=2\n[a]\nk=4\n", "k"},
    {'K', "[a]\nk=1\n[a]\nx=1\n[b]\nk=2\n", "a", "[a]\n[a]\nx=1\n[b]\nk=2\n", "k"},
    // Over-long lines stay whole, whatever their tail looks like.
    {'K', "[a]\n" + kLong600 + "k=1\nk=2\n", "a", "[a]\n" + kLong600 + "k=1\n", "k"},
    {'A', "[a]\n" + kLong600 + "k=1\nk=2\n", "a", "[a]\n" + kLong600 + "k=1\n"},
    // Unterminated and short lines; a long key part is no match for a short key.
    {'K', "[a]\nk=1", "a", "[a]\nk=1", "k"},
    {'K', "[a]\na=\nb=1\n", "a", "[a]\nb=1\n", "a"},
    {'K', "[a]\n" + std::string(100, 'k') + "=1\n" + std::string(100, ' ') + "k =2\n", "a",
     "[a]\n" + std::string(100, 'k') + "=1\n", "k"},
    // Every line holding '=' goes, comments too, in every section of the name; a section line
    // right after a matching one is kept with its keys.
    {'A', "[Net]\na=1\n# b=2\n# note\n\nc = 3\n[other]\nd=4\n", "net",
     "[Net]\n# note\n\n[other]\nd=4\n"},
    {'A', "k=0\n[a]\nk=1\n[b]\nk=2\n[a]\nk=3\n", "a", "k=0\n[a]\n[b]\nk=2\n[a]\n"},
    {'A', "[a]\nk=1\n[a]\nk=2\n", "a", "[a]\n[a]\nk=2\n"},
    {'A', "[a]\n# note\n\n[b]\nk=1\n", "a", "[a]\n# note\n\n[b]\nk=1\n"},
};
INSTANTIATE_TEST_SUITE_P(Maintenance, Deletion, ::testing::ValuesIn(kDeletionCases));

#define REWRITE(fn, ...) std::pair(#fn, [](const char *f) { return fn(f, __VA_ARGS__); })

// Every message at level 7 under the operation's name; the deletions close the
// temporary file first, the line operations the file first.
TEST(Rewrites, TraceAtLevel7) {
    const std::pair<const char *, int (*)(const char *)> kRewrites[] = {
        REWRITE(CfgFile_DeleteSections, "net"), REWRITE(CfgFile_DeleteKey, "net", "k"),
        REWRITE(CfgFile_DeleteAllSectionKeys, "net"), REWRITE(CfgFile_CommentLineStartingWith, "k"),
        REWRITE(CfgFile_DeleteLineStartingWith, "k")};
    ScratchDir dir;
    const std::string file = dir / "f.ini", tmp = dir / "f.tmp";
    const auto quoted = [](const char *szVerb, const std::string &path) {
        return std::string(szVerb) + " \"" + path + "\".\n";
    };
    // Clearing a section's keys, between opening and closing both files.
    const std::string kClearingKeys =
        "Processing line 1.\nFound end bracket line 1, section length=3 chars.\n"
        "line 1, Found section: net.\nCopying line 1.\nProcessing line 2.\nDeleting line 2.\n"
        "Processing line 3.\nCopying line 3.\nProcessing line 4.\n"
        "line 4, Found end of section: net.\nCopying line 4.\n";
    for (size_t i = 0; i < std::size(kRewrites); ++i) {
        const auto [szFunction, pfnRewrite] = kRewrites[i];
        WriteFile(file, "[Net]\nk=1\nb\n[x]\n");
        TraceCapture trace(7);
        EXPECT_EQ(CFGFILE_SUCCESS, pfnRewrite(file.c_str()));
        std::string steps;
        for (const TraceMessage &message : trace.Messages()) {
            steps += message.text;
            EXPECT_EQ(std::pair(7, std::string(szFunction)),
                      std::pair(message.nLevel, message.function));
        }
        const std::string opened = quoted("OPENED", file) + quoted("OPENED", tmp);
        const std::string closed = i < 3 ? quoted("closed", tmp) + quoted("closed", file)
                                         : quoted("closed", file) + quoted("closed", tmp);
        EXPECT_TRUE(steps.starts_with(opened) && steps.ends_with(closed)) << steps;
        EXPECT_EQ(i == 2 ? opened + kClearingKeys + closed : steps, steps);
    }
}

} // namespace
