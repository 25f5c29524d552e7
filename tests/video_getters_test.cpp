// Reading video settings: what the three video getters store and return for a
// found value, an unknown text, a failed lookup and refused arguments.
#include "cfgfile_api.h"
#include "test_support.h"

using cfgtest::ScratchDir;
using cfgtest::TraceCapture;
using cfgtest::WriteFile;

namespace {

constexpr long kDefaultCode = -5; // all high bits set: shows the default is stored bit for bit

struct CodeCase {
    const char *name;
    bool bFormat; // format getter, else resolution getter
    const char *value;
    long expected;
};

class VideoCode : public ::testing::TestWithParam<CodeCase> {};

TEST_P(VideoCode, StoresConvertedCodeOrDefault) {
    const CodeCase &c = GetParam();
    ScratchDir dir;
    const std::string file = dir / "cam.ini";
    WriteFile(file, std::string("[Video]\nMode=") + c.value + "\n");
    long lValue = 0;
    if (c.bFormat) {
        VIDEO_FORMAT format = 0;
        EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_GetVideoFormatValue(file.c_str(), "video", "mode",
                                                               &format, kDefaultCode));
        lValue = static_cast<long>(format);
    } else {
        EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_GetVideoResolutionValue(file.c_str(), "video", "mode",
                                                                   &lValue, kDefaultCode));
    }
    EXPECT_EQ(c.expected, lValue);
}

const CodeCase kCodeCases[] = {
    {"FormatInterlaced", true, "1080i50", static_cast<long>(VIDEO_FORMAT_1080I50)},
    {"FormatFractionalRate", true, "720p59.94", static_cast<long>(VIDEO_FORMAT_720P59_94)},
    {"FormatUnknown", true, "1080x", kDefaultCode},
    {"FormatResolutionOnly", true, "1080p", kDefaultCode},
    {"ResolutionLineCount", false, "1080", VIDEO_RESOLUTION_1080},
    {"ResolutionNamed", false, "4K", VIDEO_RESOLUTION_2160},
    {"ResolutionWidthByHeight", false, "2048x1080", VIDEO_RESOLUTION_DCI_2K},
    {"ResolutionUnknown", false, "huge", kDefaultCode},
    {"ResolutionFormatName", false, "1080i50", kDefaultCode},
};

INSTANTIATE_TEST_SUITE_P(VideoGetters, VideoCode, ::testing::ValuesIn(kCodeCases),
                         [](const auto &info) { return std::string(info.param.name); });

struct SizeCase {
    const char *name;
    std::string value;
    UINT nDefaultWidth, nDefaultHeight;
    UINT nWidth, nHeight;
};

class VideoSize : public ::testing::TestWithParam<SizeCase> {};

TEST_P(VideoSize, StoresSizeOrDefaultsCutTo13Bits) {
    const SizeCase &c = GetParam();
    ScratchDir dir;
    const std::string file = dir / "cam.ini";
    WriteFile(file, "[Video]\nSize=" + c.value + "\n");
    UINT nWidth = 1, nHeight = 1;
    EXPECT_EQ(CFGFILE_SUCCESS,
              CfgFile_GetVideoSizeValues(file.c_str(), "Video", "Size", &nWidth, c.nDefaultWidth,
                                         &nHeight, c.nDefaultHeight));
    EXPECT_EQ(c.nWidth, nWidth);
    EXPECT_EQ(c.nHeight, nHeight);
    nHeight = 1;
    EXPECT_EQ(CFGFILE_SUCCESS,
              CfgFile_GetVideoSizeValues(file.c_str(), "Video", "Size", nullptr, c.nDefaultWidth,
                                         &nHeight, c.nDefaultHeight));
    EXPECT_EQ(c.nHeight, nHeight);
}

const SizeCase kSizeCases[] = {
    {"LineCount", "1080", 1, 2, 1920, 1080},
    {"LineCountWithScan", "1080p", 1, 2, 1920, 1080},
    {"WidthByHeight", "1920x1080", 1, 2, 1920, 1080},
    {"Named", "4K", 1, 2, 3840, 2160},
    {"TrailingBlanks", "1080  ", 1, 2, 1920, 1080},
    {"TrailingTab", "1080\t", 1, 2, 1920, 1080},
    {"OneLetterTooMany", "1080pp", 640, 480, 640, 480},
    {"UnknownDefaultsCut", "wide", 8192, 8193, 0, 1},
    {"EmptyDefaultsCut", "", 10000, 8191, 10000 & 0x1FFF, 8191},
    // 255 characters fill the value buffer: nothing can be appended.
    {"FullBufferUnknown", std::string(255, 'x'), 8193, 8194, 1, 2},
    {"FullBufferTabPadded", "1080" + std::string(251, '\t'), 1, 2, 1920, 1080},
};

INSTANTIATE_TEST_SUITE_P(VideoGetters, VideoSize, ::testing::ValuesIn(kSizeCases),
                         [](const auto &info) { return std::string(info.param.name); });

struct MissingCase {
    const char *name;
    const char *content; // nullptr: no file
    int iResult;
};

class VideoLookupFails : public ::testing::TestWithParam<MissingCase> {};

TEST_P(VideoLookupFails, StoresDefaultsUnchanged) {
    const MissingCase &c = GetParam();
    ScratchDir dir;
    const std::string file = dir / "cam.ini";
    if (c.content != nullptr)
        WriteFile(file, c.content);
    VIDEO_FORMAT format = 0;
    long lValue = 0;
    EXPECT_EQ(c.iResult,
              CfgFile_GetVideoFormatValue(file.c_str(), "Video", "Mode", &format, kDefaultCode));
    EXPECT_EQ(static_cast<VIDEO_FORMAT>(kDefaultCode), format);
    EXPECT_EQ(c.iResult, CfgFile_GetVideoResolutionValue(file.c_str(), "Video", "Mode", &lValue,
                                                         kDefaultCode));
    EXPECT_EQ(kDefaultCode, lValue);
    UINT nWidth = 0, nHeight = 0;
    EXPECT_EQ(c.iResult, CfgFile_GetVideoSizeValues(file.c_str(), "Video", "Mode", &nWidth, 10000,
                                                    &nHeight, 8192));
    EXPECT_EQ(10000u, nWidth);
    EXPECT_EQ(8192u, nHeight);
    nHeight = 0;
    EXPECT_EQ(c.iResult, CfgFile_GetVideoSizeValues(file.c_str(), "Video", "Mode", nullptr, 10000,
                                                    &nHeight, 9000));
    EXPECT_EQ(9000u, nHeight);
}

const MissingCase kMissingCases[] = {
    {"NoFile", nullptr, CFGFILE_FILE_ACCESS},
    {"NoSection", "[Audio]\nMode=1080p50\n", CFGFILE_SECTION_NOT_FOUND},
    {"NoKey", "[Video]\nModes=1080p50\n[Other]\nMode=1080p50\n", CFGFILE_KEY_NOT_FOUND},
};

INSTANTIATE_TEST_SUITE_P(VideoGetters, VideoLookupFails, ::testing::ValuesIn(kMissingCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(VideoGetters, RefusedArgumentsStoreNothing) {
    ScratchDir dir;
    const std::string file = dir / "cam.ini";
    WriteFile(file, "[Video]\nMode=1080p50\n");
    const std::string name80(80, 's');
    struct {
        const char *szFile, *szSection, *szKey;
    } const kRefused[] = {{nullptr, "Video", "Mode"},
                          {file.c_str(), name80.c_str(), "Mode"},
                          {file.c_str(), "Video", name80.c_str()}};
    TraceCapture trace(8);
    for (const auto &a : kRefused) {
        VIDEO_FORMAT format = 7;
        long lValue = 7;
        UINT nWidth = 7, nHeight = 7;
        EXPECT_EQ(CFGFILE_BAD_PARAMETERS,
                  CfgFile_GetVideoFormatValue(a.szFile, a.szSection, a.szKey, &format, 1));
        EXPECT_EQ(CFGFILE_BAD_PARAMETERS,
                  CfgFile_GetVideoResolutionValue(a.szFile, a.szSection, a.szKey, &lValue, 1));
        EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_GetVideoSizeValues(a.szFile, a.szSection, a.szKey,
                                                                     &nWidth, 1, &nHeight, 1));
        EXPECT_TRUE(format == 7 && lValue == 7 && nWidth == 7 && nHeight == 7);
    }
    EXPECT_TRUE(trace.Messages().empty());
}

TEST(VideoGetters, OnlyTheLookupTraces) {
    ScratchDir dir;
    const std::string file = dir / "cam.ini";
    WriteFile(file, "[Video]\nMode=1080p50\nSize=odd\n");
    TraceCapture trace(8);
    // Found, unknown and missing values, with nowhere to store them.
    for (const char *szKey : {"Mode", "Size", "Absent"}) {
        CfgFile_GetVideoFormatValue(file.c_str(), "Video", szKey, nullptr, 0);
        CfgFile_GetVideoResolutionValue(file.c_str(), "Video", szKey, nullptr, 0);
        CfgFile_GetVideoSizeValues(file.c_str(), "Video", szKey, nullptr, 0, nullptr, 0);
    }
    ASSERT_FALSE(trace.Messages().empty());
    for (const cfgtest::TraceMessage &message : trace.Messages())
        EXPECT_EQ("_ReadValue", message.function) << message.text;
}

} // namespace
