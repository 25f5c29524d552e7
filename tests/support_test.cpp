// Text helpers and value conversions of the support library.
#include <float.h>
#include <math.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "support_lib.h"

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
