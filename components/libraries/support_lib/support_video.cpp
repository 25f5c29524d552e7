/*
 * support_video.cpp - names of video resolutions and formats, and their codes.
 */
#include <string.h>
#include <strings.h>

#include <string_view>

#include "support_lib.h"
#include "video/video_formats.h"

namespace {

constexpr unsigned kMaxDimension = VIDEO_DIMENSION_MASK;
constexpr unsigned kMinRateX100 = 100;
constexpr unsigned kMaxRateX100 = 30000;

struct FrameSize {
    unsigned nWidth;
    unsigned nHeight;
};

struct NamedSize {
    const char *szName;
    FrameSize size;
};

// Frame sizes known by their line count alone.
constexpr FrameSize kLineCountSizes[] = {
    {720, 480}, {720, 576}, {1280, 720}, {1920, 1080}, {2560, 1440}, {3840, 2160}, {7680, 4320},
};

constexpr NamedSize kNamedSizes[] = {
    {"VGA", {640, 480}},   {"HD", {1280, 720}},  {"FHD", {1920, 1080}}, {"QHD", {2560, 1440}},
    {"UHD", {3840, 2160}}, {"4K", {3840, 2160}}, {"8K", {7680, 4320}},
};

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}
bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

std::string_view TrimBlanks(std::string_view svText) {
    while (!svText.empty() && IsBlank(svText.front()))
        svText.remove_prefix(1);
    while (!svText.empty() && IsBlank(svText.back()))
        svText.remove_suffix(1);
    return svText;
}

// Takes the letter cLower, in either case, from the front of svText.
bool TakeLetter(std::string_view &svText, char cLower) {
    if (svText.empty() || (svText.front() | 0x20) != cLower)
        return false;
    svText.remove_prefix(1);
    return true;
}

// Takes a decimal number of at most nMax from the front of svText.
bool TakeNumber(std::string_view &svText, unsigned nMax, unsigned *pnValue) {
    if (svText.empty() || !IsDigit(svText.front()))
        return false;
    unsigned nValue = 0;
    while (!svText.empty() && IsDigit(svText.front())) {
        nValue = nValue * 10 + static_cast<unsigned>(svText.front() - '0');
        if (nValue > nMax)
            return false;
        svText.remove_prefix(1);
    }
    *pnValue = nValue;
    return true;
}

// Takes a frame size, a known line count or WIDTHxHEIGHT, from the front of svText.
bool TakeFrameSize(std::string_view &svText, FrameSize *pSize) {
    unsigned nFirst = 0;
    if (!TakeNumber(svText, kMaxDimension, &nFirst))
        return false;
    if (TakeLetter(svText, 'x')) {
        unsigned nHeight = 0;
        if (nFirst == 0 || !TakeNumber(svText, kMaxDimension, &nHeight) || nHeight == 0)
            return false;
        *pSize = {nFirst, nHeight};
        return true;
    }
    for (const FrameSize &known : kLineCountSizes) {
        if (known.nHeight == nFirst) {
            *pSize = known;
            return true;
        }
    }
    return false;
}

// Takes a rate with up to three decimals and gives it in hundredths, rounded.
bool TakeRate(std::string_view &svText, unsigned *pnRateX100) {
    unsigned nWhole = 0;
    if (!TakeNumber(svText, kMaxRateX100 / 100, &nWhole))
        return false;
    unsigned nThousandths = 0;
    if (!svText.empty() && svText.front() == '.') {
        svText.remove_prefix(1);
        std::string_view svDecimals = svText;
        if (!TakeNumber(svText, 999, &nThousandths))
            return false;
        size_t nDecimals = svDecimals.size() - svText.size();
        if (nDecimals > 3)
            return false;
        for (size_t i = nDecimals; i < 3; ++i)
            nThousandths *= 10;
    }
    unsigned nRateX100 = nWhole * 100 + (nThousandths + 5) / 10;
    if (nRateX100 < kMinRateX100 || nRateX100 > kMaxRateX100)
        return false;
    *pnRateX100 = nRateX100;
    return true;
}

bool FindNamedSize(std::string_view svText, FrameSize *pSize) {
    for (const NamedSize &named : kNamedSizes) {
        if (svText.size() == strlen(named.szName) &&
            strncasecmp(svText.data(), named.szName, svText.size()) == 0) {
            *pSize = named.size;
            return true;
        }
    }
    return false;
}

} // namespace

long ConvertVideoResolutionString(const char *szText, long lDefault) {
    if (szText == NULL)
        return lDefault;
    std::string_view svText = TrimBlanks(szText);
    // The size getter appends "p" to whatever the file says, tabs after the value included:
    // one trailing 'p' is dropped here, and the blanks before it.
    if (!svText.empty() && (svText.back() | 0x20) == 'p')
        svText.remove_suffix(1);
    svText = TrimBlanks(svText);

    FrameSize size;
    if (FindNamedSize(svText, &size))
        return VIDEO_RESOLUTION_CODE(size.nWidth, size.nHeight);
    if (!TakeFrameSize(svText, &size))
        return lDefault;
    if (!TakeLetter(svText, 'p'))
        TakeLetter(svText, 'i');
    if (!svText.empty())
        return lDefault;
    return VIDEO_RESOLUTION_CODE(size.nWidth, size.nHeight);
}

long ConvertVideoFormatString(const char *szText, long lDefault) {
    if (szText == NULL)
        return lDefault;
    std::string_view svText = TrimBlanks(szText);
    FrameSize size;
    if (!TakeFrameSize(svText, &size))
        return lDefault;
    bool bInterlaced = TakeLetter(svText, 'i');
    if (!bInterlaced && !TakeLetter(svText, 'p'))
        return lDefault;
    unsigned nRateX100 = 0;
    if (!TakeRate(svText, &nRateX100) || !svText.empty())
        return lDefault;
    return static_cast<long>(VIDEO_FORMAT_CODE(size.nWidth, size.nHeight, bInterlaced, nRateX100));
}
