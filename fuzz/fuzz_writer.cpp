// fuzz_writer: random files, names and values for the setters.
//
// Checked for every input: a set that does not succeed leaves the file byte
// for byte as it was (or missing); a successful one leaves no companion file
// and, when the names, the value and the file are all within the format,
// reads back as the value set.
#include "cfgfile_api.h"
#include "fuzz_support.h"

using namespace cfgfuzz;

namespace {

bool HasOuterBlank(std::string_view text) {
    return !text.empty() && (text.front() == ' ' || text.back() == ' ');
}

// Texts the reader gives back as they were written: names it can match, a
// value it neither trims nor cuts, and a file whose lines it reads whole
// (a piece of an over-long line could look like a section or key line).
bool RoundTrips(std::string_view section, std::string_view key, std::string_view value,
                std::string_view file) {
    for (std::string_view line : SplitLines(file))
        if (line.size() - (line.back() == '\n') > 1198)
            return false;
    return !section.empty() && section.size() <= 79 && section.find(']') == section.npos &&
           !HasOuterBlank(section) && !key.empty() && key.size() <= 79 &&
           key.find('=') == key.npos && key.front() != '#' && key.front() != '[' &&
           !HasOuterBlank(key) && value.size() <= 255 && !HasOuterBlank(value) &&
           key.size() + value.size() >= 2;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nSize) {
    const Scratch &scratch = Scratch::Get();
    FuzzedDataProvider fdp(pData, nSize);
    const int iSetter = fdp.ConsumeIntegralInRange<int>(0, 4);
    const bool bFilePresent = fdp.ConsumeIntegralInRange<int>(0, 15) != 0;
    const bool bTracing = fdp.ConsumeIntegralInRange<int>(0, 7) == 0;
    const int64_t nNumber = fdp.ConsumeIntegral<int64_t>();
    const int nPrecision = fdp.ConsumeIntegralInRange<int>(-2, 40);
    const std::string section = TakeText(fdp, 100);
    const std::string key = TakeText(fdp, 100);
    TakeText(fdp, 100); // a second section and key, not used here
    TakeText(fdp, 100);
    std::string value = TakeText(fdp, 300);
    const std::string file = bFilePresent ? fdp.ConsumeRemainingBytesAsString() : std::string();
    const char *f = scratch.file.c_str();
    const char *s = section.c_str();
    const char *k = key.c_str();
    // Every setter writes through the string setter's writer.
    CheckBothWays(scratch, bFilePresent, file,
                  [&] { return std::to_string(CfgFile_SetStringValue(f, s, k, value.c_str())); });
    SetTracing(bTracing);
    PlaceFile(scratch, bFilePresent, file);

    int iResult = CFGFILE_FAILURE;
    if (iSetter == 0) {
        iResult = CfgFile_SetStringValue(f, s, k, value.c_str());
    } else if (iSetter == 1) {
        iResult = CfgFile_SetIntValue(f, s, k, static_cast<int>(nNumber));
        value = std::to_string(static_cast<int>(nNumber));
    } else if (iSetter == 2) {
        iResult = CfgFile_SetInt64Value(f, s, k, nNumber);
        value = std::to_string(nNumber);
    } else if (iSetter == 3) {
        iResult = CfgFile_SetBooleanValue(f, s, k, static_cast<BOOL>(nNumber));
        value = static_cast<BOOL>(nNumber) ? "Yes" : "No";
    } else {
        const float fValue = static_cast<float>(nNumber) / 1024.0f;
        char szText[64];
        snprintf(szText, sizeof(szText), "%.*f", nPrecision, static_cast<double>(fValue));
        iResult = CfgFile_SetFloatValue(f, s, k, fValue, nPrecision);
        value = szText;
    }

    std::string after;
    const bool bPresentAfter = ReadBytes(f, after);
    if (iResult != CFGFILE_SUCCESS) {
        // Refused for a line break or a float text too long: nothing else fails here.
        FUZZ_CHECK(iResult == CFGFILE_BAD_PARAMETERS);
        FUZZ_CHECK(bPresentAfter == bFilePresent && after == file);
        return 0;
    }
    FUZZ_CHECK(bPresentAfter && !scratch.CompanionsLeft());
    if (!RoundTrips(section, key, value, file))
        return 0;
    char szValue[256] = "";
    size_t nValueSize = sizeof(szValue);
    FUZZ_CHECK(CfgFile_GetStringValue(f, s, k, szValue, &nValueSize, "") == CFGFILE_SUCCESS);
    FUZZ_CHECK(value == szValue && nValueSize == value.size() + 1);
    return 0;
}
