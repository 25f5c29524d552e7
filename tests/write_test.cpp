// Setting values: the exact bytes a set produces, and set-then-get round trips.
#include <cfloat>
#include <climits>

#include "cfgfile_api.h"
#include "test_support.h"

using namespace cfgtest;

namespace {

const std::string kName79(79, 's'), kName80(80, 's');

struct SetCase {
    const char *name;
    std::string before;
    const char *section, *key, *value;
    std::string after;
};

void PrintTo(const SetCase &c, std::ostream *pOut) {
    *pOut << c.name;
}

class SetStringBytes : public ::testing::TestWithParam<SetCase> {};

TEST_P(SetStringBytes, ProducesExactFile) {
    const SetCase &c = GetParam();
    ScratchDir dir;
    const std::string file = dir / "device.ini";
    WriteFile(file, c.before);
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_SetStringValue(file.c_str(), c.section, c.key, c.value));
    EXPECT_EQ(c.after, ReadFile(file));
    // A successful rewrite leaves neither companion file behind.
    EXPECT_FALSE(Exists(dir / "device.tmp") || Exists(dir / "device.bak"));
}

const std::string kPadded = std::string(100, ' ') + "k" + std::string(100, ' ');

const SetCase kSetCases[] = {
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
    {"NulBytesPassThrough", "[a]\nj=1\0x\nk=1\n\0\nq=2\n"s, "a", "k", "2",
     "[a]\nj=1\0x\nk=2\n\0\nq=2\n"s},
    // A key part too long for a name is another key's; one that trims short is the key.
    {"LongKeyParts", "[" + kName79 + "]\n" + std::string(120, 'k') + "=1\n" + kPadded + "=2\n",
     kName79.c_str(), "k", "3", "[" + kName79 + "]\n" + std::string(120, 'k') + "=1\nk=3\n"},
    // An 80-character section never matches: each set appends it again.
    {"Section80NeverMatches", "[" + kName80 + "]\nk=1\n", kName80.c_str(), "k", "4",
     "[" + kName80 + "]\nk=1\n\n[" + kName80 + "]\nk=4\n"},
};

INSTANTIATE_TEST_SUITE_P(Writer, SetStringBytes, ::testing::ValuesIn(kSetCases),
                         [](const auto &info) { return std::string(info.param.name); });

// A missing file is created; a name of 246 characters is the longest taken.
TEST(Writer, CreatesFileUpToNameLength) {
    ScratchDir dir;
    std::string name246 = dir / "";
    name246 += std::string(246 - name246.size(), 'n');
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_SetIntValue(name246.c_str(), "a", "k", 1));
    EXPECT_EQ("[a]\nk=1\n", ReadFile(name246));
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_SetIntValue((name246 + "x").c_str(), "a", "k", 1));
    EXPECT_FALSE(Exists(name246 + "x"));
}

TEST(Writer, RefusesTextThatWouldBreakLines) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    WriteFile(file, "[a]\nk=1\n");
    const char *kBad[][4] = {{"", "a\n", "k", "v"},    {"", "a", "k\r", "v"},
                             {"", "a", "k", "v\n[x]"}, {"", nullptr, "k", "v"},
                             {"", "a", nullptr, "v"},  {"", "a", "k", nullptr},
                             {nullptr, "a", "k", "v"}};
    for (const auto &bad : kBad)
        EXPECT_EQ(CFGFILE_BAD_PARAMETERS,
                  CfgFile_SetStringValue(bad[0] ? file.c_str() : nullptr, bad[1], bad[2], bad[3]));
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

TEST(Setters, Texts) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    const std::pair<int (*)(const char *), const char *> kCases[] = {
        {[](const char *f) { return CfgFile_SetIntValue(f, "t", "k", INT_MIN); }, "-2147483648"},
        {[](const char *f) { return CfgFile_SetUnsignedIntValue(f, "t", "k", UINT_MAX); },
         "4294967295"},
        {[](const char *f) { return CfgFile_SetInt64Value(f, "t", "k", INT64_MIN); },
         "-9223372036854775808"},
        {[](const char *f) { return CfgFile_SetBooleanValue(f, "t", "k", 2); }, "Yes"},
        {[](const char *f) { return CfgFile_SetBooleanValue(f, "t", "k", 0); }, "No"},
    };
    for (const auto &[pfnSet, szText] : kCases) {
        ASSERT_EQ(CFGFILE_SUCCESS, pfnSet(file.c_str()));
        EXPECT_EQ("[t]\nk="s + szText + "\n", ReadFile(file));
    }
}

// Each float text reads back as the float set; one that would not fit 31
// characters is refused, the file untouched.
TEST(Setters, FloatTextsReadBack) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    const std::tuple<float, int, const char *> kCases[] = {
        {1.5f, 2, "1.50"},
        {2.0f, 0, "2"},
        {-1.0f, -1, "-1.000000"},
        {0.1f, 9, "0.100000001"},
        {9.9e22f, 6, "99000000506303229198336.000000"},
        {1e24f, 6, nullptr},
        {FLT_MAX, 0, nullptr},
        {0.0f, 30, nullptr}};
    std::string last;
    for (const auto &[fValue, nPrecision, szText] : kCases) {
        const int iResult = CfgFile_SetFloatValue(file.c_str(), "t", "k", fValue, nPrecision);
        last = szText ? "[t]\nk="s + szText + "\n" : last;
        EXPECT_EQ(szText ? CFGFILE_SUCCESS : CFGFILE_BAD_PARAMETERS, iResult) << nPrecision;
        EXPECT_EQ(last, ReadFile(file));
        float fRead = 0;
        EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_GetFloatValue(file.c_str(), "t", "k", &fRead, 0));
        EXPECT_TRUE(!szText || fRead == fValue) << szText;
    }
}

} // namespace
