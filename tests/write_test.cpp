// Setting values: the exact bytes a set produces, and set-then-get round trips.
#include <cfloat>
#include <climits>
#include <cstdint>
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
    {"ReplaceTrimmedCaseless", "[ Net ]\n   PORT = 80\r\n", "net", "port", "81", "[ Net ]\nport=81\n"},
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

TEST(Writer, SectionNameLimit) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    const std::string name79(79, 's'), name80(80, 's');
    WriteFile(file, "[" + name79 + "]\nk=1\n[" + name80 + "]\nk=1\n");
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_SetStringValue(file.c_str(), name79.c_str(), "k", "2"));
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_SetStringValue(file.c_str(), name80.c_str(), "k", "3"));
    // The 80-character section is never matched: the set appends it again.
    EXPECT_EQ("[" + name79 + "]\nk=2\n\n[" + name80 + "]\nk=1\n\n[" + name80 + "]\nk=3\n",
              ReadFile(file));
}

TEST(Writer, KeyPartTooLongForNameBufferIsAnotherKey) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    const std::string longKey(120, 'k');
    const std::string padded = std::string(100, ' ') + "k" + std::string(100, ' ');
    WriteFile(file, "[a]\n" + longKey + "=1\n" + padded + "=2\n");
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_SetStringValue(file.c_str(), "a", "k", "3"));
    // The long key stays; the padded short key is found and replaced.
    EXPECT_EQ("[a]\n" + longKey + "=1\nk=3\n", ReadFile(file));
}

TEST(Writer, FileNameLength) {
    ScratchDir dir;
    std::string name246 = dir / "";
    name246 += std::string(246 - name246.size(), 'n');
    ASSERT_EQ(246u, name246.size());
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_SetIntValue(name246.c_str(), "a", "k", 1));
    const std::string name247 = name246 + "x";
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_SetIntValue(name247.c_str(), "a", "k", 1));
    EXPECT_FALSE(Exists(name247));
}

TEST(Writer, RefusesTextThatWouldBreakLines) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    WriteFile(file, "[a]\nk=1\n");
    const char *kBad[][3] = {{"a\n", "k", "v"}, {"a", "k\r", "v"}, {"a", "k", "v\n[x]"},
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

// Each setter's text, read back by its getter.
TEST(Setters, TextsAndRoundTrip) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    const char *f = file.c_str();
    char szValue[64];
    auto text = [&](const char *key) {
        size_t n = sizeof(szValue);
        CfgFile_GetStringValue(f, "t", key, szValue, &n, "?");
        return std::string(szValue);
    };
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_SetIntValue(f, "t", "imin", INT_MIN));
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_SetUnsignedIntValue(f, "t", "umax", UINT_MAX));
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_SetInt64Value(f, "t", "lmin", INT64_MIN));
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_SetBooleanValue(f, "t", "yes", 2));
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_SetBooleanValue(f, "t", "no", 0));
    EXPECT_EQ("-2147483648", text("imin"));
    EXPECT_EQ("4294967295", text("umax"));
    EXPECT_EQ("-9223372036854775808", text("lmin"));
    EXPECT_EQ("Yes", text("yes"));
    EXPECT_EQ("No", text("no"));

    int nInt = 0;
    unsigned int nUnsigned = 0;
    INT64 nInt64 = 0;
    BOOL bYes = FALSE, bNo = TRUE;
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_GetIntValue(f, "t", "imin", &nInt, 0));
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_GetUnsignedIntValue(f, "t", "umax", &nUnsigned, 0));
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_GetInt64Value(f, "t", "lmin", &nInt64, 0));
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_GetBooleanValue(f, "t", "yes", &bYes, FALSE));
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_GetBooleanValue(f, "t", "no", &bNo, TRUE));
    EXPECT_EQ(INT_MIN, nInt);
    EXPECT_EQ(UINT_MAX, nUnsigned);
    EXPECT_EQ(INT64_MIN, nInt64);
    EXPECT_TRUE(bYes);
    EXPECT_FALSE(bNo);
}

TEST(Setters, FloatTexts) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    const char *f = file.c_str();
    const struct {
        float fValue;
        int nPrecision;
        const char *text;
    } kCases[] = {{1.5f, 2, "1.50"},       {2.0f, 0, "2"},           {1.0f, -1, "1.000000"},
                  {0.1f, 9, "0.100000001"}, {0.1f, 3, "0.100"},      {-0.5f, 1, "-0.5"},
                  {9.9e22f, 6, "99000000506303229198336.000000"}};
    for (const auto &c : kCases) {
        ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_SetFloatValue(f, "t", "x", c.fValue, c.nPrecision));
        char szValue[64];
        size_t n = sizeof(szValue);
        CfgFile_GetStringValue(f, "t", "x", szValue, &n, "");
        EXPECT_STREQ(c.text, szValue);
        float fBack = 0;
        EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_GetFloatValue(f, "t", "x", &fBack, 0));
        EXPECT_NEAR(c.fValue, fBack, 0.05f * (c.fValue < 0 ? -c.fValue : c.fValue));
    }
    // Texts that do not fit 31 characters are refused, the file untouched.
    const std::string before = ReadFile(file);
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_SetFloatValue(f, "t", "x", 1e24f, 6));
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_SetFloatValue(f, "t", "x", FLT_MAX, 0));
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_SetFloatValue(f, "t", "x", 0.0f, 30));
    EXPECT_EQ(before, ReadFile(file));
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
        ASSERT_EQ(CFGFILE_SUCCESS,
                  CfgFile_SetStringValue(file.c_str(), section.c_str(), key.c_str(), value.c_str()));
        expected[{lower(section), lower(key)}] = value;
        if (i % 40 != 0)
            continue;
        for (const auto &[name, text] : expected) {
            char szValue[256];
            size_t nSize = sizeof(szValue);
            ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_GetStringValue(file.c_str(), name.first.c_str(),
                                                              name.second.c_str(), szValue, &nSize,
                                                              "?"))
                << "[" << name.first << "] " << name.second;
            EXPECT_EQ(text, szValue);
        }
    }
    EXPECT_EQ(0u, ReadFile(file).rfind("# device settings\n[base]\n", 0));
}

} // namespace
