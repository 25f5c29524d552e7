// Several changes in one rewrite: CfgFile_ApplyChanges leaves, byte for
// byte, what the same sets and removals made one by one leave, on random
// files holding the odd lines the format allows; it refuses bad arguments
// with nothing touched, and writes nothing when nothing changes.
#include <random>

#include <sys/stat.h>

#include "cfgfile_api.h"
#include "test_support.h"

using namespace cfgtest;

namespace {

// Lines a file may hold: sections (also unclosed, blank-padded, repeated),
// keys in any case and spacing, short and blank lines, comments, lines
// without '=', a CR LF line, a tab-indented key and an over-long line.
const std::string kLines[] = {
    "[a]\n",       "[ A ]\n", "[b]\n",     "[c\n",
    "\n",          "x\n",     "ab\n",      "#c\n",
    "# note\n",    "k=1\n",   " K = 2 \n", "k2=v v\n",
    "junk line\n", "k=1\r\n", "\tk=3\n",   "n=" + std::string(1300, 'n') + "\n",
    "[new]\n"};
const char *const kSections[] = {"a", "A", "b", "c", "new", "z"};
const char *const kKeys[] = {"k", "K", "k2", "x", "n"};
const std::string kLongValue(1250, 'v');
const char *const kValues[] = {nullptr, nullptr, "1", "v v", "=", "", kLongValue.c_str()};

template <class T, size_t N> const T &Pick(std::mt19937 &random, const T (&items)[N]) {
    return items[random() % N];
}

std::string RandomFile(std::mt19937 &random) {
    std::string text;
    for (int i = static_cast<int>(random() % 12); i > 0; --i)
        text += Pick(random, kLines);
    if (!text.empty() && random() % 4 == 0)
        text.pop_back(); // no line feed at the end
    return text;
}

// The file's bytes, or "<missing>".
std::string Content(const std::string &path) {
    return Exists(path) ? ReadFile(path) : "<missing>";
}

TEST(ApplyChanges, EqualsTheSameChangesOneByOne) {
    ScratchDir dir("/dev/shm");
    const std::string one = dir / "one.ini", all = dir / "all.ini";
    std::mt19937 random(20261124);
    constexpr int kCases = 5000;
    for (int iCase = 0; iCase < kCases; ++iCase) {
        const bool bMissing = random() % 8 == 0;
        const std::string text = RandomFile(random);
        unlink(one.c_str());
        unlink(all.c_str());
        if (!bMissing) {
            WriteFile(one, text);
            WriteFile(all, text);
        }
        std::vector<CFGFILE_CHANGE> changes(1 + random() % 6);
        for (CFGFILE_CHANGE &change : changes) {
            change = {Pick(random, kSections), Pick(random, kKeys), Pick(random, kValues)};
            const int iResult =
                change.szValue ? CfgFile_SetStringValue(one.c_str(), change.szSection,
                                                        change.szKeyName, change.szValue)
                               : CfgFile_DeleteKey(one.c_str(), change.szSection, change.szKeyName);
            ASSERT_EQ(CFGFILE_SUCCESS, iResult);
        }
        ASSERT_EQ(CFGFILE_SUCCESS,
                  CfgFile_ApplyChanges(all.c_str(), changes.data(), changes.size()));
        ASSERT_EQ(Content(one), Content(all)) << "case " << iCase << ", file:\n" << text;
        ASSERT_FALSE(Exists(dir / "all.tmp") || Exists(dir / "all.bak"));
    }
    printf("[ CHANGES  ] %d random change lists gave the bytes of one by one\n", kCases);
}

TEST(ApplyChanges, RefusesBadArgumentsWithNothingTouched) {
    ScratchDir dir;
    const std::string file = dir / "a.ini", longName = dir / std::string(247, 'n');
    WriteFile(file, "[a]\nk=1\n");
    const CFGFILE_CHANGE kGood = {"a", "k", "2"};
    const struct {
        const char *szFile;
        CFGFILE_CHANGE change;
        size_t nChanges;
    } kCases[] = {
        {nullptr, kGood, 1},
        {longName.c_str(), kGood, 1},
        {file.c_str(), {nullptr, "k", "2"}, 1},
        {file.c_str(), {"", "k", "2"}, 1},
        {file.c_str(), {"a", nullptr, "2"}, 1},
        {file.c_str(), {"a", "", "2"}, 1},
        {file.c_str(), {"a\n", "k", "2"}, 1},
        {file.c_str(), {"a", "k\r", "2"}, 1},
        {file.c_str(), {"a", "k", "2\n3"}, 1},
        {file.c_str(), kGood, CFGFILE_MAX_CHANGES + 1},
    };
    std::vector<CFGFILE_CHANGE> changes(CFGFILE_MAX_CHANGES + 1, kGood);
    for (const auto &c : kCases) {
        changes[0] = c.change;
        EXPECT_EQ(CFGFILE_BAD_PARAMETERS,
                  CfgFile_ApplyChanges(c.szFile, changes.data(), c.nChanges));
        EXPECT_EQ("[a]\nk=1\n", ReadFile(file));
    }
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_ApplyChanges(file.c_str(), nullptr, 1));
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_ApplyChanges(file.c_str(), nullptr, 0));
    EXPECT_FALSE(Exists(dir / "a.tmp"));
}

// Changes that leave the bytes as they were leave the file where it is.
TEST(ApplyChanges, WritesNothingWhenNothingChanges) {
    ScratchDir dir;
    const std::string file = dir / "a.ini";
    WriteFile(file, "[a]\nk=1\n\n[b]\nx=2\n");
    struct stat before, after;
    ASSERT_EQ(0, stat(file.c_str(), &before));
    const CFGFILE_CHANGE kSame[] = {{"a", "k", "1"}, {"b", "missing", nullptr}, {"B", "x", "2"}};
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_ApplyChanges(file.c_str(), kSame, 3));
    ASSERT_EQ(0, stat(file.c_str(), &after));
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
    EXPECT_FALSE(Exists(dir / "a.tmp"));
}

} // namespace
