// Reading video settings: what the three video getters store and return for a
// found value, an unknown text, a failed lookup and refused arguments.
#include "cfgfile_api.h"
#include "test_support.h"

using namespace cfgtest;

namespace {

constexpr long kCode = -5;                    // a default code with all high bits set
constexpr UINT kWidth = 8192, kHeight = 8193; // default sizes beyond 13 bits
constexpr int kOk = CFGFILE_SUCCESS;

struct VideoCase {
    const char *name;
    const char *content; // nullptr: no file
    int iResult;
    long lFormat, lResolution;
    UINT nWidth, nHeight;
};

void PrintTo(const VideoCase &c, std::ostream *pOut) {
    *pOut << c.name;
}

class VideoGetters : public ::testing::TestWithParam<VideoCase> {};

// Every getter reads key "m" of section "v"; only the lookup traces. A refused
// call (no file name) stores nothing.
TEST_P(VideoGetters, StoreCodeOrDefault) {
    const VideoCase &c = GetParam();
    ScratchDir dir;
    const std::string path = dir / "cam.ini";
    if (c.content != nullptr)
        WriteFile(path, c.content);
    const char *szFile = c.iResult == CFGFILE_BAD_PARAMETERS ? nullptr : path.c_str();
    TraceCapture trace(8);
    VIDEO_FORMAT format = 0;
    long lResolution = 0;
    UINT nWidth = 0, nHeight = 0, nHeightOnly = 0;
    EXPECT_EQ(c.iResult, CfgFile_GetVideoFormatValue(szFile, "v", "m", &format, kCode));
    EXPECT_EQ(c.iResult, CfgFile_GetVideoResolutionValue(szFile, "v", "m", &lResolution, kCode));
    EXPECT_EQ(c.iResult,
              CfgFile_GetVideoSizeValues(szFile, "v", "m", &nWidth, kWidth, &nHeight, kHeight));
    EXPECT_EQ(c.iResult,
              CfgFile_GetVideoSizeValues(szFile, "v", "m", nullptr, kWidth, &nHeightOnly, kHeight));
    EXPECT_EQ(c.lFormat, static_cast<long>(format));
    EXPECT_EQ(c.lResolution, lResolution);
    EXPECT_EQ(c.nWidth, nWidth);
    EXPECT_EQ(c.nHeight, nHeight);
    EXPECT_EQ(c.nHeight, nHeightOnly);
    for (const TraceMessage &message : trace.Messages())
        EXPECT_EQ("_ReadValue", message.function) << message.text;
}

const VideoCase kCases[] = {
    {"Format", "[v]\nm=1080i50\n", kOk, long(VIDEO_FORMAT_1080I50), kCode, 0, 1},
    {"LineCount", "[v]\nm=1080\n", kOk, kCode, VIDEO_RESOLUTION_1080, 1920, 1080},
    {"Named", "[v]\nm=4K\n", kOk, kCode, VIDEO_RESOLUTION_2160, 3840, 2160},
    // One trailing 'p' is dropped from resolution names, as the size getter appends one.
    {"OneLetterTooMany", "[v]\nm=1080pp\n", kOk, kCode, VIDEO_RESOLUTION_1080, 0, 1},
    {"NoFile", nullptr, CFGFILE_FILE_ACCESS, kCode, kCode, kWidth, kHeight},
    {"NoKey", "[v]\nmm=1080\n[w]\nm=1080\n", CFGFILE_KEY_NOT_FOUND, kCode, kCode, kWidth, kHeight},
    {"NoName", nullptr, CFGFILE_BAD_PARAMETERS, 0, 0, 0, 0},
};

INSTANTIATE_TEST_SUITE_P(Video, VideoGetters, ::testing::ValuesIn(kCases),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
