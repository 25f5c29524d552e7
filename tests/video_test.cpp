// Names of video resolutions and formats, and the codes they convert to.
#include <string>

#include <gtest/gtest.h>

#include "support_lib.h"
#include "video/video_formats.h"

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
