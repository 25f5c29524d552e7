// Setting values: refused texts, over-long lines, the texts of the typed
// setters, and the trace of one rewrite.
#include <climits>

#include "cfgfile_api.h"
#include "test_support.h"

using namespace cfgtest;

namespace {

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
    for (size_t nLength : {1198u, 1199u, 1200u, 2398u}) {
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

// Every message of clearing a section's keys, at level 7 under the operation's name.
TEST(Tracing, MessagesOfOneRewrite) {
    ScratchDir dir;
    const std::string file = dir / "f.ini", tmp = dir / "f.tmp";
    WriteFile(file, "[Net]\nk=1\nb\n[x]\n");
    TraceCapture trace(7);
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_DeleteAllSectionKeys(file.c_str(), "net"));
    std::string steps;
    for (const TraceMessage &message : trace.Messages()) {
        steps += message.text;
        EXPECT_EQ(std::pair(7, "CfgFile_DeleteAllSectionKeys"s),
                  std::pair(message.nLevel, message.function));
    }
    EXPECT_EQ("OPENED \"" + file + "\".\nOPENED \"" + tmp +
                  "\".\nProcessing line 1.\nFound end bracket line 1, section length=3 chars.\n"
                  "line 1, Found section: net.\nCopying line 1.\nProcessing line 2.\n"
                  "Deleting line 2.\nProcessing line 3.\nCopying line 3.\nProcessing line 4.\n"
                  "line 4, Found end of section: net.\nCopying line 4.\nclosed \"" +
                  tmp + "\".\nclosed \"" + file + "\".\n",
              steps);
}

} // namespace
