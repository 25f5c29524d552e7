// The support library: text helpers, value conversions, companion file names,
// the mode and owner given to rewritten files, and video names and codes.
#include <float.h>
#include <math.h>

#include <tuple>

#include "support_lib.h"
#include "test_support.h"
#include "video/video_formats.h"

TEST(TextTest, NothingWrittenOrReadPastSize) {
    EXPECT_EQ(0, IsValidString(NULL, 80));
    EXPECT_EQ(1, IsValidString(std::string(79, 'k').c_str(), 80));
    EXPECT_EQ(0, IsValidString(std::string(80, 'k').c_str(), 80));
    // Append (else copy), text in the buffer, text given, size; then the result and the text.
    // The last row is the size getter appending "p" to a 255-character value in 256 bytes.
    const std::string s255(255, 'v');
    const std::tuple<bool, std::string, const char *, size_t, int, std::string> kCases[] = {
        {0, "", "abc", 4, 1, "abc"},   {0, "", "abc", 3, 0, "ab"},   {0, "xy", "abc", 0, 0, "xy"},
        {1, "ab", "cd", 5, 1, "abcd"}, {1, "ab", "cd", 4, 0, "abc"}, {1, "ab", "cd", 2, 0, "ab"},
        {1, s255, "p", 256, 0, s255}};
    for (const auto &[bCat, sInitial, szText, nSize, iResult, sExpected] : kCases) {
        std::string sBuffer = sInitial + '\0' + std::string(259 - sInitial.size(), '#');
        EXPECT_EQ(iResult, (bCat ? StringCat : CopyString)(sBuffer.data(), szText, nSize)) << nSize;
        EXPECT_EQ(sExpected, sBuffer.c_str());
        EXPECT_EQ('#', sBuffer[std::max(nSize, sInitial.size() + 1)]) << nSize;
    }
}

TEST(ConversionTest, IntegersWithinTheirRange) {
    // Text, accepted as signed, as unsigned, and the value's 64 bits where accepted.
    const std::tuple<const char *, bool, bool, uint64_t> kCases[] = {
        {"9223372036854775807", 1, 1, INT64_MAX},   {" \t+42\t ", 1, 1, 42},
        {"-9223372036854775808", 1, 0, 1ull << 63}, {"-0", 1, 0, 0},
        {"9223372036854775808", 0, 1, 1ull << 63},  {"", 0, 0, 0},
        {"18446744073709551615", 0, 1, UINT64_MAX}, {"+", 0, 0, 0},
        {"-9223372036854775809", 0, 0, 0},          {"1 2", 0, 0, 0},
        {"18446744073709551616", 0, 0, 0},          {"12a", 0, 0, 0}};
    for (const auto &[szText, bSigned, bUnsigned, nBits] : kCases) {
        LONG lValue = 77;
        ULONG nValue = 77; // each stays 77 when refused
        EXPECT_EQ(bSigned, StringToDecLONG(szText, &lValue) != 0) << szText;
        EXPECT_EQ(bUnsigned, StringToDecULONG(szText, &nValue) != 0) << szText;
        EXPECT_EQ(bSigned ? (LONG)nBits : 77, lValue) << szText;
        EXPECT_EQ(bUnsigned ? nBits : 77u, nValue) << szText;
    }
}

TEST(ConversionTest, FloatsAsFixedNotationWritesThem) {
    float fRead = 42;
    for (const char *szText : {"", ".", "0x1p3", "1.5x", "1e", "1,5", "- 1", "nan(1)", "1e39"})
        EXPECT_FALSE(StringToFLOAT(szText, &fRead)) << szText;
    EXPECT_EQ(42, fRead); // a refused text leaves the value alone
    for (const char *szText : {"-inf", "nan", "-NAN", " +.5\t", "5.", "2.5E-3", "1e-50"})
        EXPECT_TRUE(StringToFLOAT(szText, &fRead)) << szText;
    for (float fValue : {0.0f, -2.25f, 3.14159f, FLT_MIN, FLT_MAX, -FLT_MAX})
        for (int iPrecision : {0, 1, 6, 9}) {
            char szText[400];
            snprintf(szText, sizeof(szText), "%.*f", iPrecision, fValue);
            ASSERT_TRUE(StringToFLOAT(szText, &fRead)) << szText;
            // Half a unit of the last digit: FLT_MAX's 39-digit "%.0f" must come back exact.
            EXPECT_NEAR(fValue, fRead, 0.5 * pow(10, -iPrecision)) << szText;
        }
}

TEST(ConversionTest, BooleanWordsOrTheDefault) {
    // -1: the default comes back.
    const std::pair<const char *, int> kCases[] = {
        {"Yes", 1}, {"No", 0}, {" true\t", 1}, {"FALSE", 0}, {"on", 1}, {"Off", 0},
        {"1", 1},   {"0", 0},  {"", -1},       {"yess", -1}, {NULL, -1}};
    for (const auto &[szText, iExpected] : kCases)
        for (BOOL bDefault : {0, 1})
            EXPECT_EQ(iExpected < 0 ? bDefault : iExpected, ConvertBooleanString(szText, bDefault))
                << szText;
}

TEST(SuffixTest, CompanionNamesDifferFromThePathAndEachOther) {
    // 246 characters with dots in the directories; and a name too long for either suffix.
    const std::string sLong = std::string(120, 'd') + ".d/" + std::string(119, 'c') + ".tmp";
    // Path; then its backup and temporary names, the three all different; or "": refused, the
    // path left as it was.
    const std::tuple<std::string, std::string, std::string> kCases[] = {
        {"cfg", "cfg.bak", "cfg.tmp"},    {"d.d/f.ini", "d.d/f.bak", "d.d/f.tmp"},
        {"e/.p", "e/.p.bak", "e/.p.tmp"}, {"a.b.c", "a.b.bak", "a.b.tmp"},
        {"x.tmp", "x.bak", "x.tmp.tmp"},  {"x.bak", "x.bak.bak", "x.tmp"},
        {"x.", "x.bak", "x.tmp"},         {sLong, sLong.substr(0, 242) + ".bak", sLong + ".tmp"},
        {std::string(252, 'c'), "", ""},  {"", "", ""}};
    for (const auto &[sPath, sBackup, sTemporary] : kCases) {
        SCOPED_TRACE(sPath);
        // The path in a 256-byte buffer.
        std::string sBak = sPath + std::string(256 - sPath.size(), '\0'), sTmp = sBak;
        EXPECT_EQ(!sBackup.empty(), StringReplaceAddSuffix(sBak.data(), 256, '.', "bak") != 0);
        EXPECT_EQ(!sTemporary.empty(), StringReplaceAddSuffix(sTmp.data(), 256, '.', "tmp") != 0);
        EXPECT_EQ(sBackup.empty() ? sPath : sBackup, sBak.c_str());
        EXPECT_EQ(sTemporary.empty() ? sPath : sTemporary, sTmp.c_str());
    }
}

// Only the permission bits: one who may not give the copy the file's owner
// must not give it a set-ID bit either.
TEST(FileModeTest, CopiesPermissionBitsButNoSpecialBits) {
    cfgtest::ScratchDir dir;
    cfgtest::WriteFile(dir / "device.ini", "");
    FILE *pCopy = fopen((dir / "device.tmp").c_str(), "w");
    for (mode_t nMode : {0640, 07777}) {
        ASSERT_EQ(0, chmod((dir / "device.ini").c_str(), nMode));
        EXPECT_EQ(1, CopyFilePermissions((dir / "device.ini").c_str(), pCopy));
        EXPECT_EQ(nMode & 0777, cfgtest::StatOf(dir / "device.tmp").st_mode & 07777) << nMode;
    }
    fclose(pCopy);
}

// A default such as the size getter builds: bit 63 marks it, 333x444 in the size fields.
const long kDefault = (long)(0x8000000000000000ull | VIDEO_RESOLUTION_CODE(333, 444));

// The size getter converts the value text with "p" appended: both must give the same code.
TEST(VideoResolutionTest, NamesWithAndWithoutAppendedP) {
    const std::pair<const char *, long> kCases[] = {
        {"480", VIDEO_RESOLUTION_480},    {"8191x1", VIDEO_RESOLUTION_CODE(8191, 1)},
        {"1080i", VIDEO_RESOLUTION_1080}, {" \t720P\t", VIDEO_RESOLUTION_720},
        {"8K", VIDEO_RESOLUTION_4320},    {"4096X2160", VIDEO_RESOLUTION_DCI_4K}};
    for (const auto &[szText, lExpected] : kCases)
        for (const std::string &sText : {std::string(szText), std::string(szText) + "p"})
            EXPECT_EQ(lExpected, ConvertVideoResolutionString(sText.c_str(), kDefault)) << sText;
    for (const char *szText : {"1080ppp", "1080p50", "8192x100", "1920x", "0x1080"})
        EXPECT_EQ(kDefault, ConvertVideoResolutionString(szText, kDefault)) << szText;
}

TEST(VideoFormatTest, SizeScanAndRate) {
    const std::pair<const char *, long> kCases[] = {
        {"1080i59.94", VIDEO_FORMAT_1080I59_94}, {"1080p23.976", VIDEO_FORMAT_1080P23_98},
        {" 576i50\t", VIDEO_FORMAT_576I50},      {"1920x1080p60", VIDEO_FORMAT_1080P60},
        {"720p50", VIDEO_FORMAT_720P50},         {"2160P60", VIDEO_FORMAT_2160P60}};
    for (const auto &[szText, lExpected] : kCases)
        EXPECT_EQ(lExpected, ConvertVideoFormatString(szText, kDefault)) << szText;
    for (const char *szText : {"1080p", "1080p0", "1080p300.01", "1080p59.9400", "1080 p60"})
        EXPECT_EQ(kDefault, ConvertVideoFormatString(szText, kDefault)) << szText;
}
