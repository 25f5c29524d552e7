// fuzz_writer: random files, names and values for the setters.
//
// Checked for every input: a text holding CR or LF is refused and anything
// else succeeds (a missing file is created); a refused set leaves the file
// byte for byte; a successful one leaves no companion file, writes the key
// line "key=value", keeps every over-long line and every line holding NUL
// bytes, and, when the names, the value and the file are all within the
// format, reads back as the value set while another key's lookup is
// unchanged.
#include "cfgfile_api.h"
#include "fuzz_support.h"

using namespace cfgfuzz;

namespace {

constexpr size_t kMaxNameLength = 79;
constexpr size_t kMaxValueLength = 255;
constexpr size_t kLineBufferSize = 1200; // the writer's and the getters' pieces: 1199 bytes

bool HoldsLineBreak(std::string_view text) {
    return text.find_first_of("\r\n") != std::string_view::npos;
}

bool HasOuterBlank(std::string_view text) {
    return !text.empty() && (text.front() == ' ' || text.back() == ' ');
}

// Texts the reader gives back as they were written: names it can match,
// a value it does not trim or cut, and a key line longer than a short line.
bool TextsRoundTrip(std::string_view section, std::string_view key, std::string_view value) {
    const bool bSectionOk = !section.empty() && section.size() <= kMaxNameLength &&
                            section.find(']') == std::string_view::npos && !HasOuterBlank(section);
    const bool bKeyOk = !key.empty() && key.size() <= kMaxNameLength &&
                        key.find('=') == std::string_view::npos && key.front() != '#' &&
                        key.front() != '[' && !HasOuterBlank(key);
    const bool bValueOk = value.size() <= kMaxValueLength && !HasOuterBlank(value);
    return bSectionOk && bKeyOk && bValueOk && key.size() + value.size() >= 2;
}

// A file whose lines the writer and the reader both see whole: none is split
// into pieces, where a piece could look like a section or key line to one of them.
bool FileRoundTrips(std::string_view file) {
    for (std::string_view line : SplitLines(file))
        if (line.size() - (EndsWithNewline(line) ? 1 : 0) > kLineBufferSize - 2)
            return false;
    return true;
}

// A line the writer must pass through unchanged: one it reads in pieces, or
// one holding NUL bytes. Its line feed may be added when it ended the file.
bool MustSurvive(std::string_view line) {
    return line.size() > kLineBufferSize - 1 || HoldsNul(line);
}

bool SurvivesIn(std::string_view line, const std::vector<std::string_view> &outputLines) {
    for (std::string_view output : outputLines) {
        if (output == line)
            return true;
        if (!EndsWithNewline(line) && output.size() == line.size() + 1 &&
            output.substr(0, line.size()) == line && output.back() == '\n')
            return true;
    }
    return false;
}

// The result and value of a lookup, to compare one before and after a set.
struct Reading {
    int iResult;
    std::string value;
    bool operator==(const Reading &) const = default;
};

Reading Read(const char *szFile, const std::string &section, const std::string &key) {
    char szValue[kMaxValueLength + 1] = ""; // a refused lookup stores nothing
    size_t nSize = sizeof(szValue);
    const int iResult =
        CfgFile_GetStringValue(szFile, section.c_str(), key.c_str(), szValue, &nSize, "");
    return {iResult, std::string(szValue) + "/" + std::to_string(nSize)};
}

enum class Setter { String, Int, Int64, Boolean, Float };

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nSize) {
    const Scratch &scratch = Scratch::Get();
    FuzzedDataProvider fdp(pData, nSize);
    const Setter setter = static_cast<Setter>(fdp.ConsumeIntegralInRange<int>(0, 4));
    const bool bFilePresent = fdp.ConsumeIntegralInRange<int>(0, 15) != 0;
    SetTracing(fdp.ConsumeIntegralInRange<int>(0, 7) == 0);
    const int64_t nNumber = fdp.ConsumeIntegral<int64_t>();
    const int nPrecision = fdp.ConsumeIntegralInRange<int>(-2, 40);
    const std::string section = TakeText(fdp, 100);
    const std::string key = TakeText(fdp, 100);
    const std::string otherSection = TakeText(fdp, 100);
    const std::string otherKey = TakeText(fdp, 100);
    std::string value = TakeText(fdp, 300);
    // Without a file the set creates one: no line of the input survives.
    const std::string file = bFilePresent ? fdp.ConsumeRemainingBytesAsString() : std::string();
    std::string after;
    Describe({{"section", section},
              {"key", key},
              {"value", value},
              {"file", file},
              {"other section", otherSection},
              {"other key", otherKey},
              {"after", after}});
    PlaceFile(scratch, bFilePresent, file);
    const char *f = scratch.File();

    // Any other key's lookup in an existing file must come out of the set as it went in.
    const bool bOtherKey =
        bFilePresent && (!EqualNoCase(section, otherSection) || !EqualNoCase(key, otherKey));
    const Reading otherBefore = Read(f, otherSection, otherKey);

    int iResult = CFGFILE_FAILURE;
    const char *s = section.c_str();
    const char *k = key.c_str();
    switch (setter) {
    case Setter::String:
        iResult = CfgFile_SetStringValue(f, s, k, value.c_str());
        break;
    case Setter::Int:
        iResult = CfgFile_SetIntValue(f, s, k, static_cast<int>(nNumber));
        value = std::to_string(static_cast<int>(nNumber));
        break;
    case Setter::Int64:
        iResult = CfgFile_SetInt64Value(f, s, k, nNumber);
        value = std::to_string(nNumber);
        break;
    case Setter::Boolean:
        iResult = CfgFile_SetBooleanValue(f, s, k, static_cast<BOOL>(nNumber));
        value = static_cast<BOOL>(nNumber) ? "Yes" : "No";
        break;
    case Setter::Float: {
        const float fValue = static_cast<float>(nNumber) / 1024.0f;
        char szText[64];
        const int nLength =
            snprintf(szText, sizeof(szText), "%.*f", nPrecision, static_cast<double>(fValue));
        iResult = CfgFile_SetFloatValue(f, s, k, fValue, nPrecision);
        if (nLength < 0 || nLength > 31) {
            FUZZ_CHECK(iResult == CFGFILE_BAD_PARAMETERS);
            value.clear();
        } else {
            value = szText;
        }
        break;
    }
    }

    const bool bRefused = HoldsLineBreak(section) || HoldsLineBreak(key) || HoldsLineBreak(value);
    const bool bPresentAfter = ReadBytes(f, after);
    if (bRefused || iResult != CFGFILE_SUCCESS) {
        // Refused for a line break, or a float text too long; nothing else
        // can fail here. Either way the file is as it was.
        FUZZ_CHECK(iResult == CFGFILE_BAD_PARAMETERS);
        FUZZ_CHECK(bPresentAfter == bFilePresent);
        FUZZ_CHECK(after == file);
        return 0;
    }
    FUZZ_CHECK(bPresentAfter);
    FUZZ_CHECK(!Exists(scratch.Tmp()) && !Exists(scratch.Bak()));

    const std::vector<std::string_view> outputLines = SplitLines(after);
    const std::string keyLine = key + "=" + value + "\n";
    bool bKeyLineWritten = false;
    for (std::string_view line : outputLines)
        bKeyLineWritten = bKeyLineWritten || line == keyLine;
    FUZZ_CHECK(bKeyLineWritten);
    for (std::string_view line : SplitLines(file))
        if (MustSurvive(line))
            FUZZ_CHECK(SurvivesIn(line, outputLines));

    if (!TextsRoundTrip(section, key, value) || !FileRoundTrips(file))
        return 0;
    const Reading reading = Read(f, section, key);
    FUZZ_CHECK(reading.iResult == CFGFILE_SUCCESS);
    FUZZ_CHECK(reading.value == value + "/" + std::to_string(value.size() + 1));
    if (!bOtherKey)
        return 0;
    // A section the set added now holds a key: other keys of it are missing keys.
    Reading otherExpected = otherBefore;
    if (otherBefore.iResult == CFGFILE_SECTION_NOT_FOUND && EqualNoCase(section, otherSection))
        otherExpected.iResult = CFGFILE_KEY_NOT_FOUND;
    FUZZ_CHECK(Read(f, otherSection, otherKey) == otherExpected);
    return 0;
}
