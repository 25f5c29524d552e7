// Text helpers and value conversions of the support library.
#include <float.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include <gtest/gtest.h>

#include "support_lib.h"

namespace {

TEST(TextTest, IsValidStringNeedsRoomForTerminator) {
    char szLong[81] = {};
    memset(szLong, 'k', 80);
    EXPECT_EQ(0, IsValidString(NULL, 80));
    EXPECT_EQ(1, IsValidString("", 80));
    EXPECT_EQ(1, IsValidString(szLong + 1, 80)); // 79 characters
    EXPECT_EQ(0, IsValidString(szLong, 80));
}

TEST(TextTest, CopyAndCatWriteNothingPastSize) {
    const struct {
        int (*pfnCopy)(char *, const char *, size_t);
        const char *szInitial, *szText;
        size_t nSize;
        const char *szExpected;
        int iResult;
    } kCases[] = {{CopyString, "", "abc", 4, "abc", 1},  {CopyString, "", "abc", 3, "ab", 0},
                  {CopyString, "", "abc", 1, "", 0},     {CopyString, "xy", "abc", 0, "xy", 0},
                  {StringCat, "ab", "cd", 5, "abcd", 1}, {StringCat, "ab", "cd", 4, "abc", 0},
                  {StringCat, "ab", "", 3, "ab", 1},     {StringCat, "ab", "cd", 2, "ab", 0}};
    for (const auto &test : kCases) {
        char acBuffer[16];
        memset(acBuffer, '#', sizeof(acBuffer));
        strcpy(acBuffer, test.szInitial);
        EXPECT_EQ(test.iResult, test.pfnCopy(acBuffer, test.szText, test.nSize)) << test.szText;
        EXPECT_STREQ(test.szExpected, acBuffer) << test.nSize;
        EXPECT_EQ('#', acBuffer[std::max(test.nSize, strlen(test.szInitial) + 1)]) << test.nSize;
    }
    // The size getter appends "p" to a value of up to 255 characters in its 256-byte buffer.
    char acValue[257];
    memset(acValue, 'v', 255);
    acValue[255] = '\0';
    acValue[256] = '#';
    EXPECT_EQ(0, StringCat(acValue, "p", 256));
    EXPECT_EQ('\0', acValue[255]);
    EXPECT_EQ('#', acValue[256]);
}

TEST(ConversionTest, IntegersWithinTheirRange) {
    // Signed and unsigned verdicts, then the value's bits where accepted.
    const struct {
        const char *szText;
        bool bSigned, bUnsigned;
        uint64_t nBits;
    } kCases[] = {
        {" \t+42\t ", true, true, 42},
        {"007", true, true, 7},
        {"-0", true, false, 0},
        {"-2147483648", true, false, (uint64_t)INT32_MIN},
        {"4294967295", true, true, UINT32_MAX},
        {"9223372036854775807", true, true, INT64_MAX},
        {"-9223372036854775808", true, false, (uint64_t)INT64_MIN},
        {"9223372036854775808", false, true, 1ull << 63},
        {"18446744073709551615", false, true, UINT64_MAX},
        {"0", true, true, 0},
    };
    for (const auto &test : kCases) {
        LONG lValue = 77;
        INT64 llValue = 77;
        ULONG nValue = 77; // each stays 77 when refused
        EXPECT_EQ(test.bSigned, StringToDecLONG(test.szText, &lValue) != 0) << test.szText;
        EXPECT_EQ(test.bSigned, StringToDecINT64(test.szText, &llValue) != 0) << test.szText;
        EXPECT_EQ(test.bUnsigned, StringToDecULONG(test.szText, &nValue) != 0) << test.szText;
        EXPECT_EQ(test.bSigned ? (LONG)test.nBits : 77, lValue) << test.szText;
        EXPECT_EQ(test.bSigned ? (INT64)test.nBits : 77, llValue) << test.szText;
        EXPECT_EQ(test.bUnsigned ? test.nBits : 77u, nValue) << test.szText;
    }
    for (const char *szText :
         {"", "+", "1 2", "12a", "0x10", "1.0", "-9223372036854775809", "18446744073709551616"}) {
        LONG lValue = 0;
        ULONG nValue = 0;
        EXPECT_FALSE(StringToDecLONG(szText, &lValue)) << szText;
        EXPECT_FALSE(StringToDecULONG(szText, &nValue)) << szText;
    }
}

TEST(ConversionTest, FloatsAsFixedNotationWritesThem) {
    for (float fValue : {0.0f, -2.25f, 3.14159f, FLT_MIN, FLT_MAX, -FLT_MAX}) {
        for (int iPrecision : {0, 1, 6, 9}) {
            char szText[400];
            snprintf(szText, sizeof(szText), "%.*f", iPrecision, fValue);
            float fRead = 0;
            ASSERT_TRUE(StringToFLOAT(szText, &fRead)) << szText;
            // Half a unit of the last digit: FLT_MAX's 39-digit "%.0f" must come back exact.
            EXPECT_NEAR(fValue, fRead, 0.5 * pow(10, -iPrecision)) << szText;
        }
    }
    float fValue = 0;
    for (const char *szText : {"-inf", "nan", "-NAN", " +.5\t", "5.", "2.5E-3", "1e-50"})
        EXPECT_TRUE(StringToFLOAT(szText, &fValue)) << szText;
    for (const char *szText : {"", ".", "0x1p3", "1.5x", "1e", "1,5", "- 1", "nan(1)", "1e39"}) {
        fValue = 42;
        EXPECT_FALSE(StringToFLOAT(szText, &fValue)) << szText;
        EXPECT_EQ(42, fValue) << szText;
    }
}

TEST(ConversionTest, BooleanWordsOrTheDefault) {
    const int kDefault = -1;
    const struct {
        const char *szText;
        int iExpected;
    } kCases[] = {{"Yes", 1},     {"No", 0},          {" true\t", 1},  {"FALSE", 0},
                  {"on", 1},      {"Off", 0},         {"1", 1},        {"0", 0},
                  {"", kDefault}, {"yess", kDefault}, {NULL, kDefault}};
    for (const auto &test : kCases) {
        for (BOOL bDefault : {0, 1, 5}) {
            BOOL bExpected = test.iExpected == kDefault ? bDefault : test.iExpected;
            EXPECT_EQ(bExpected, ConvertBooleanString(test.szText, bDefault))
                << (test.szText ? test.szText : "NULL") << " default " << bDefault;
        }
    }
}

} // namespace
