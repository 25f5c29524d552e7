// Names of video resolutions and formats, and the codes they convert to.
#include <string>

#include <gtest/gtest.h>

#include "support_lib.h"
#include "video/video_formats.h"

namespace {

// A default such as the size getter builds: bit 63 marks it, 333x444 in the size fields.
const long kDefault = (long)(0x8000000000000000ull | VIDEO_RESOLUTION_CODE(333, 444));

// The size getter converts the value text with "p" appended: both must give the same code.
TEST(VideoResolutionTest, NamesWithAndWithoutAppendedP) {
    const struct {
        const char *szText;
        long lExpected;
    } kCases[] = {
        {"480", VIDEO_RESOLUTION_480},          {"576p", VIDEO_RESOLUTION_576},
        {"720P", VIDEO_RESOLUTION_720},         {"1080i", VIDEO_RESOLUTION_1080},
        {"1440p", VIDEO_RESOLUTION_1440},       {"2160", VIDEO_RESOLUTION_2160},
        {"4320p", VIDEO_RESOLUTION_4320},       {" \t1080\t", VIDEO_RESOLUTION_1080},
        {"4096X2160", VIDEO_RESOLUTION_DCI_4K}, {"8191x1", VIDEO_RESOLUTION_CODE(8191, 1)},
        {"vga", VIDEO_RESOLUTION_VGA},          {"fhd", VIDEO_RESOLUTION_1080},
        {"4k", VIDEO_RESOLUTION_2160},          {"8K", VIDEO_RESOLUTION_4320}};
    for (const auto &test : kCases) {
        std::string sWithP = std::string(test.szText) + "p";
        EXPECT_EQ(test.lExpected, ConvertVideoResolutionString(test.szText, kDefault))
            << test.szText;
        EXPECT_EQ(test.lExpected, ConvertVideoResolutionString(sWithP.c_str(), kDefault)) << sWithP;
    }
    for (const char *szText : {"", "1000", "1080ppp", "0x1080", "8192x100", "1920x", "1920 x 1080",
                               "1080p50", "1080pxp"})
        EXPECT_EQ(kDefault, ConvertVideoResolutionString(szText, kDefault)) << szText;
}

TEST(VideoFormatTest, SizeScanAndRate) {
    const struct {
        const char *szText;
        long lExpected;
    } kCases[] = {{"1080i59.94", VIDEO_FORMAT_1080I59_94}, {"720p50", VIDEO_FORMAT_720P50},
                  {"2160P60", VIDEO_FORMAT_2160P60},       {"1080p23.976", VIDEO_FORMAT_1080P23_98},
                  {" 576i50\t", VIDEO_FORMAT_576I50},      {"1920x1080p60", VIDEO_FORMAT_1080P60},
                  {"1080p29.970", VIDEO_FORMAT_1080P29_97}};
    for (const auto &test : kCases)
        EXPECT_EQ(test.lExpected, ConvertVideoFormatString(test.szText, kDefault)) << test.szText;
    for (const char *szText :
         {"1080p", "1080p0", "1080p300.01", "1080p59.9400", "1000p50", "1080p60fps", "1080 p60"})
        EXPECT_EQ(kDefault, ConvertVideoFormatString(szText, kDefault)) << szText;

    VIDEO_FORMAT nFormat = ConvertVideoFormatString("1920x1080i59.94", 0);
    EXPECT_EQ(VIDEO_RESOLUTION_1080, VIDEO_FORMAT_RESOLUTION(nFormat));
    EXPECT_EQ(1, VIDEO_FORMAT_IS_INTERLACED(nFormat));
    EXPECT_EQ(5994u, VIDEO_FORMAT_RATE_X100(nFormat));
    EXPECT_EQ(333u, VIDEO_RESOLUTION_WIDTH(kDefault)); // the marker bit stays out of the fields
    EXPECT_EQ(444u, VIDEO_RESOLUTION_HEIGHT(kDefault));
}

} // namespace
