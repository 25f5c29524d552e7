// Setting values: the exact bytes a set produces, and set-then-get round trips.
#include <cfloat>
#include <climits>
#include <cstdint>
#include <functional>
#include <map>
#include <random>

#include "cfgfile_api.h"
#include "test_support.h"

using cfgtest::Exists;
using cfgtest::ReadFile;
using cfgtest::ScratchDir;
using cfgtest::WriteFile;

namespace {

struct SetCase {
    const char *name;
    const char *before; // nullptr: no file
    const char *section;
    const char *key;
    const char *value;
    const char *after;
};

// Names the case in test output (and keeps its padding bytes out of it).
void PrintTo(const SetCase &c, std::ostream *pOut) {
    *pOut << c.name;
}

class SetStringBytes : public ::testing::TestWithParam<SetCase> {};

TEST_P(SetStringBytes, ProducesExactFile) {
    const SetCase &c = GetParam();
    ScratchDir dir;
    const std::string file = dir / "device.ini";
    if (c.before != nullptr)
        WriteFile(file, c.before);
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_SetStringValue(file.c_str(), c.section, c.key, c.value));
    EXPECT_EQ(c.after, ReadFile(file));
    // A successful rewrite leaves neither companion file behind.
    EXPECT_FALSE(Exists(dir / "device.tmp"));
    EXPECT_FALSE(Exists(dir / "device.bak"));
}

const SetCase kSetCases[] = {
    {"MissingFile", nullptr, "Net", "Port", "80", "[Net]\nPort=80\n"},
    {"EmptyFile", "", "Net", "Port", "80", "\n[Net]\nPort=80\n"},
    {"AddAtEndOfSection", "[a]\nx=1\n\n[b]\ny=2\n", "a", "z", "3", "[a]\nx=1\nz=3\n\n[b]\ny=2\n"},
    {"AddAfterTrailingComment", "[a]\nx=1\n# note\n[b]\n", "a", "z", "3",
     "[a]\nx=1\n# note\nz=3\n\n[b]\n"},
    {"NewSectionAtEnd", "[a]\nx=1\n", "b", "y", "2", "[a]\nx=1\n\n[b]\ny=2\n"},
    {"ShortLinesDroppedBeforeChange", "[a]\n\n\n[b]\nk=1\n\n\n[c]\n", "c", "k", "2",
     "[a]\n\n[b]\nk=1\n\n[c]\nk=2\n"},
    {"LinesAfterChangeStay", "[a]\nk=1\n\n\n[b]\n", "a", "k", "2", "[a]\nk=2\n\n\n[b]\n"},
    {"ReplaceTrimmedCaseless", "[ Net ]\n   PORT = 80\r\n", "net", "port", "81",
     "[ Net ]\nport=81\n"},
    {"TabIndentedKeyIsOtherKey", "[a]\n\tk=1\n", "a", "k", "2", "[a]\n\tk=1\nk=2\n"},
    {"ShortKeyLineDroppedBeforeChange", "[a]\na=\nb=1\n", "a", "b", "2", "[a]\nb=2\n"},
    {"ShortKeyLineCopiedAfterChange", "[a]\nb=1\na=\n", "a", "b", "2", "[a]\nb=2\na=\n"},
    {"LineWithoutEqualsDroppedInSection", "[a]\nnoise\nk=1\n[b]\nnoise\n", "a", "k", "2",
     "[a]\nk=2\n[b]\nnoise\n"},
    {"FirstOfDuplicateSections", "[a]\nk=1\n[a]\nk=2\n", "a", "k", "3", "[a]\nk=3\n[a]\nk=2\n"},
    {"LaterDuplicateKeyStays", "[a]\nk=1\nk=2\n", "a", "k", "3", "[a]\nk=3\nk=2\n"},
    {"UnclosedSectionLineEndsSection", "[a]\nx=1\n[bb\n", "a", "k", "2", "[a]\nx=1\nk=2\n\n[bb\n"},
    {"ValueWithEquals", "[a]\nk=1\n", "a", "k", "b=c", "[a]\nk=b=c\n"},
    {"EmptyValue", "[a]\nk=1\n", "a", "k", "", "[a]\nk=\n"},
    {"CallerCaseForNewLines", "[a]\n", "NewSec", "MyKey", "v", "[a]\n\n[NewSec]\nMyKey=v\n"},
    {"BlankInNameNeverMatches", "[a]\nk=1\n", " a", "k", "2", "[a]\nk=1\n\n[ a]\nk=2\n"},
    {"UnterminatedLastKeyLineReplaced", "[a]\nk=1", "a", "k", "2", "[a]\nk=2\n"},
    {"KeyAfterUnterminatedLastLine", "[a]\nxy=1", "a", "k", "2", "[a]\nxy=1\nk=2\n"},
    {"ShortUnterminatedLastLineDropped", "[a]\nx=1", "a", "k", "2", "[a]\nk=2\n"},
    {"SectionAfterUnterminatedLastLine", "[a]\nxy=1", "b", "k", "2", "[a]\nxy=1\n[b]\nk=2\n"},
    {"UnterminatedSectionLineFound", "xy=1\n[ab]", "ab", "k", "2", "xy=1\n[ab]\nk=2\n"},
    {"TabsAndCarriageReturnsCopied", "[o]\n\tk = v \r\n[a]\n", "a", "k", "1",
     "[o]\n\tk = v \r\n\n[a]\nk=1\n"},
};

INSTANTIATE_TEST_SUITE_P(Writer, SetStringBytes, ::testing::ValuesIn(kSetCases),
                         [](const auto &info) { return std::string(info.param.name); });

// Names the format cannot hold: an 80-character section never matches (each
// set appends it again); a key part too long for a name is another key's.
TEST(Writer, NameLimits) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    const std::string name79(79, 's'), name80(80, 's'), longKey(120, 'k');
    const std::string padded = std::string(100, ' ') + "k" + std::string(100, ' ');
    WriteFile(file,
              "[" + name79 + "]\n" + longKey + "=1\n" + padded + "=2\n[" + name80 + "]\nk=1\n");
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_SetStringValue(file.c_str(), name79.c_str(), "k", "3"));
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_SetStringValue(file.c_str(), name80.c_str(), "k", "4"));
    EXPECT_EQ("[" + name79 + "]\n" + longKey + "=1\nk=3\n\n[" + name80 + "]\nk=1\n\n[" + name80 +
                  "]\nk=4\n",
              ReadFile(file));
}

TEST(Writer, FileNameLength) {
    ScratchDir dir;
    std::string name246 = dir / "";
    name246 += std::string(246 - name246.size(), 'n');
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_SetIntValue(name246.c_str(), "a", "k", 1));
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_SetIntValue((name246 + "x").c_str(), "a", "k", 1));
    EXPECT_FALSE(Exists(name246 + "x"));
}

TEST(Writer, RefusesTextThatWouldBreakLines) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    WriteFile(file, "[a]\nk=1\n");
    const char *kBad[][3] = {{"a\n", "k", "v"},   {"a", "k\r", "v"},   {"a", "k", "v\n[x]"},
                             {nullptr, "k", "v"}, {"a", nullptr, "v"}, {"a", "k", nullptr}};
    for (const auto &bad : kBad)
        EXPECT_EQ(CFGFILE_BAD_PARAMETERS,
                  CfgFile_SetStringValue(file.c_str(), bad[0], bad[1], bad[2]));
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_SetStringValue(nullptr, "a", "k", "v"));
    EXPECT_EQ("[a]\nk=1\n", ReadFile(file));
}

TEST(Writer, OverlongLinesPassThroughWhole) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    for (size_t nLength : {1197u, 1198u, 1199u, 1200u, 2397u, 2398u, 3000u}) {
        // The tail of the long line looks like a short line and like a key line.
        const std::string longLine = std::string(nLength - 2, 'x') + "k=";
        const std::string tail = std::string(nLength, 'y') + "\n[a]\nk=9\n";
        WriteFile(file, "[a]\n" + longLine + "\nk=1\n" + tail);
        ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_SetStringValue(file.c_str(), "a", "k", "2"));
        EXPECT_EQ("[a]\n" + longLine + "\nk=2\n" + tail, ReadFile(file)) << nLength;
    }
}

TEST(Writer, NulBytesPassThrough) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    const std::string withNul("[a]\nj=1\0x\nk=1\n\0\nq=2\n", 21);
    WriteFile(file, withNul);
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_SetStringValue(file.c_str(), "a", "k", "2"));
    EXPECT_EQ(std::string("[a]\nj=1\0x\nk=2\n\0\nq=2\n", 21), ReadFile(file));
}

// Each setter's text, and its getter reading that text back.
TEST(Setters, TextsReadBack) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    const char *f = file.c_str();
    int nInt = 0;
    unsigned int nUnsigned = 0;
    INT64 nInt64 = 0;
    BOOL bValue = FALSE;
    float fValue = 0;
    const struct {
        std::function<int()> set;
        const char *text;
        std::function<bool()> readsBack;
    } kCases[] = {
        {[&] { return CfgFile_SetIntValue(f, "t", "k", INT_MIN); }, "-2147483648",
         [&] { return !CfgFile_GetIntValue(f, "t", "k", &nInt, 0) && nInt == INT_MIN; }},
        {[&] { return CfgFile_SetUnsignedIntValue(f, "t", "k", UINT_MAX); }, "4294967295",
         [&] {
             return !CfgFile_GetUnsignedIntValue(f, "t", "k", &nUnsigned, 0) &&
                    nUnsigned == UINT_MAX;
         }},
        {[&] { return CfgFile_SetInt64Value(f, "t", "k", INT64_MIN); }, "-9223372036854775808",
         [&] { return !CfgFile_GetInt64Value(f, "t", "k", &nInt64, 0) && nInt64 == INT64_MIN; }},
        {[&] { return CfgFile_SetBooleanValue(f, "t", "k", 2); }, "Yes",
         [&] { return !CfgFile_GetBooleanValue(f, "t", "k", &bValue, FALSE) && bValue; }},
        {[&] { return CfgFile_SetBooleanValue(f, "t", "k", 0); }, "No",
         [&] { return !CfgFile_GetBooleanValue(f, "t", "k", &bValue, TRUE) && !bValue; }},
        {[&] { return CfgFile_SetFloatValue(f, "t", "k", 1.5f, 2); }, "1.50",
         [&] { return !CfgFile_GetFloatValue(f, "t", "k", &fValue, 0) && fValue == 1.5f; }},
        {[&] { return CfgFile_SetFloatValue(f, "t", "k", 2.0f, 0); }, "2",
         [&] { return !CfgFile_GetFloatValue(f, "t", "k", &fValue, 0) && fValue == 2.0f; }},
        {[&] { return CfgFile_SetFloatValue(f, "t", "k", -1.0f, -1); }, "-1.000000",
         [&] { return !CfgFile_GetFloatValue(f, "t", "k", &fValue, 0) && fValue == -1.0f; }},
        {[&] { return CfgFile_SetFloatValue(f, "t", "k", 0.1f, 9); }, "0.100000001",
         [&] { return !CfgFile_GetFloatValue(f, "t", "k", &fValue, 0) && fValue == 0.1f; }},
        {[&] { return CfgFile_SetFloatValue(f, "t", "k", 9.9e22f, 6); },
         "99000000506303229198336.000000",
         [&] { return !CfgFile_GetFloatValue(f, "t", "k", &fValue, 0) && fValue == 9.9e22f; }},
    };
    for (const auto &c : kCases) {
        ASSERT_EQ(CFGFILE_SUCCESS, c.set());
        EXPECT_EQ(std::string("[t]\nk=") + c.text + "\n", ReadFile(file));
        EXPECT_TRUE(c.readsBack()) << c.text;
    }
    // A float text that would not fit 31 characters is refused, the file untouched.
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_SetFloatValue(f, "t", "k", 1e24f, 6));
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_SetFloatValue(f, "t", "k", FLT_MAX, 0));
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_SetFloatValue(f, "t", "k", 0.0f, 30));
    EXPECT_EQ("[t]\nk=99000000506303229198336.000000\n", ReadFile(file));
}

// For random names and values within the format's limits, every set is read
// back, and every value set before it still reads back unchanged.
TEST(Setters, RandomRoundTripKeepsOtherValues) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    std::mt19937 random(20261123);
    const std::string alphabet = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJ0123456789_.-:/ #[]=";
    auto randomText = [&](size_t nMin, size_t nMax) {
        std::uniform_int_distribution<size_t> length(nMin, nMax);
        std::uniform_int_distribution<size_t> pick(0, alphabet.size() - 1);
        std::string text;
        for (size_t i = length(random); i > 0; --i)
            text += alphabet[pick(random)];
        // Blanks at either end are trimmed by the reader: not part of a name or value.
        if (!text.empty() && text.front() == ' ')
            text.front() = 'x';
        if (!text.empty() && text.back() == ' ')
            text.back() = 'x';
        return text;
    };
    auto lower = [](std::string text) {
        for (char &c : text)
            c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        return text;
    };
    std::map<std::pair<std::string, std::string>, std::string> expected;
    WriteFile(file, "# device settings\n[base]\nname=unit\n");
    expected[{"base", "name"}] = "unit";
    for (int i = 0; i < 400; ++i) {
        const std::string section = randomText(1, 20);
        const std::string key = randomText(1, 20);
        const std::string value = randomText(0, 200);
        // Outside the format: a "]" ends a section name, "=" a key, "#" or
        // "[" in front makes a comment or section line.
        if (section.find(']') != std::string::npos || key.find('=') != std::string::npos ||
            key[0] == '#' || key[0] == '[')
            continue;
        ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_SetStringValue(file.c_str(), section.c_str(),
                                                          key.c_str(), value.c_str()));
        expected[{lower(section), lower(key)}] = value;
        if (i % 40 != 0)
            continue;
        for (const auto &[name, text] : expected) {
            char szValue[256];
            size_t nSize = sizeof(szValue);
            ASSERT_EQ(CFGFILE_SUCCESS,
                      CfgFile_GetStringValue(file.c_str(), name.first.c_str(), name.second.c_str(),
                                             szValue, &nSize, "?"))
                << "[" << name.first << "] " << name.second;
            EXPECT_EQ(text, szValue);
        }
    }
    EXPECT_EQ(0u, ReadFile(file).rfind("# device settings\n[base]\n", 0));
}

} // namespace
