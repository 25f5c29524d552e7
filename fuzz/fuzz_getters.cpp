// fuzz_getters: random files, names and buffer sizes for the getters.
//
// Checked for every input: the string getter's result is one of those a
// lookup can give; a value it returns ends a key line of the file that holds
// no NUL byte, trimmed, and is cut to the buffer, terminated and zero-filled
// behind, with nothing written past the capacity; a failed lookup gives the
// default; each typed getter reports the same lookup result as the string
// getter (BAD_VALUE only where the text converts to nothing), with or without
// an output pointer; and no getter changes the file or leaves a file beside it.
#include "cfgfile_api.h"
#include "fuzz_support.h"

using namespace cfgfuzz;

namespace {

constexpr size_t kMaxNameLength = 79;
constexpr size_t kMaxDefaultLength = 255;

struct Lookup {
    const char *szFile;
    const char *szSection;
    const char *szKey;
    int iResult; // the string getter's result with a valid default
};

// Whether the value ends a read of the file (a line, or a piece of an
// over-long one; its line feed, one CR and trailing blanks set aside) that
// holds no NUL byte, after '=' and blanks: a lookup finds values nowhere else.
bool EndsKeyRead(std::string_view file, std::string_view value) {
    for (std::string_view read : Reads(file, 1199)) {
        if (HoldsNul(read))
            continue;
        if (EndsWithNewline(read))
            read.remove_suffix(1);
        if (!read.empty() && read.back() == '\r')
            read.remove_suffix(1);
        read = TrimBlanks(read);
        if (read.size() < value.size() || read.substr(read.size() - value.size()) != value)
            continue;
        const std::string_view before = TrimBlanks(read.substr(0, read.size() - value.size()));
        if (!before.empty() && before.back() == '=')
            return true;
    }
    return false;
}

// The results a getter whose text converts to a value (or fails to) may give,
// when the lookup itself gave iLookup.
bool ConversionResultFits(int iResult, int iLookup, bool bMayBeBadValue) {
    if (iLookup != CFGFILE_SUCCESS)
        return iResult == iLookup;
    return iResult == CFGFILE_SUCCESS || (bMayBeBadValue && iResult == CFGFILE_BAD_VALUE);
}

void CheckStringValue(const Lookup &lookup, const std::string &file, size_t nCapacity,
                      const std::string &defaultValue, bool bFilePresent) {
    GuardedBuffer buffer(nCapacity);
    size_t nSize = nCapacity;
    const int iResult = CfgFile_GetStringValue(lookup.szFile, lookup.szSection, lookup.szKey,
                                               buffer.Data(), &nSize, defaultValue.c_str());
    FUZZ_CHECK(buffer.GuardIntact());
    if (defaultValue.size() > kMaxDefaultLength || lookup.iResult == CFGFILE_BAD_PARAMETERS) {
        FUZZ_CHECK(iResult == CFGFILE_BAD_PARAMETERS);
        FUZZ_CHECK(nSize == nCapacity && buffer.UnwrittenFrom(0));
        return;
    }
    FUZZ_CHECK(iResult == lookup.iResult);
    const char *szValue = buffer.Data();
    if (iResult != CFGFILE_SUCCESS) {
        FUZZ_CHECK(nSize == defaultValue.size() + 1);
        FUZZ_CHECK(std::string_view(szValue) ==
                   std::string_view(defaultValue).substr(0, nCapacity - 1));
        return;
    }
    // The value, cut to the buffer; the rest of the buffer zero-filled.
    FUZZ_CHECK(nSize >= 1);
    const size_t nValueLength = nSize - 1;
    const size_t nCopied = nValueLength < nCapacity ? nValueLength : nCapacity - 1;
    FUZZ_CHECK(strnlen(szValue, nCapacity) == nCopied);
    for (size_t i = nCopied; i < nCapacity; ++i)
        FUZZ_CHECK(szValue[i] == '\0');
    const std::string_view value(szValue, nCopied);
    FUZZ_CHECK(value.find('\n') == std::string_view::npos);
    FUZZ_CHECK(value.empty() || value.front() != ' ');
    FUZZ_CHECK(bFilePresent && file.find(value) != std::string::npos);
    if (nCopied == nValueLength)
        FUZZ_CHECK(EndsKeyRead(file, value));
}

template <class Value, class Getter>
void CheckTyped(const Lookup &lookup, Getter getter, Value defaultValue, bool bMayBeBadValue) {
    Value value;
    memset(&value, 0x5A, sizeof(value));
    const Value untouched = value;
    const int iResult = getter(&value, defaultValue);
    FUZZ_CHECK(ConversionResultFits(iResult, lookup.iResult, bMayBeBadValue));
    if (iResult == CFGFILE_BAD_PARAMETERS)
        FUZZ_CHECK(memcmp(&value, &untouched, sizeof(Value)) == 0);
    else if (iResult != CFGFILE_SUCCESS)
        FUZZ_CHECK(memcmp(&value, &defaultValue, sizeof(Value)) == 0);
    // Without an output pointer the call only reports the result.
    FUZZ_CHECK(getter(nullptr, defaultValue) == iResult);
}

void CheckTypedGetters(const Lookup &lookup, int64_t nDefault) {
    const char *f = lookup.szFile;
    const char *s = lookup.szSection;
    const char *k = lookup.szKey;
    int nInt = 0;
    INT64 nInt64 = 0;
    unsigned int nUnsigned = 0;
    const int iInt = CfgFile_GetIntValue(f, s, k, &nInt, static_cast<int>(nDefault));
    const int iInt64 = CfgFile_GetInt64Value(f, s, k, &nInt64, nDefault);
    const int iUnsigned =
        CfgFile_GetUnsignedIntValue(f, s, k, &nUnsigned, static_cast<unsigned int>(nDefault));
    FUZZ_CHECK(ConversionResultFits(iInt64, lookup.iResult, true));
    FUZZ_CHECK(ConversionResultFits(iUnsigned, lookup.iResult, true));
    // The integer getters share one syntax: they agree on the text, and the
    // narrower ones store its low 32 bits. ("-0" is 0 but refused unsigned.)
    FUZZ_CHECK(iInt == iInt64);
    if (iInt64 == CFGFILE_SUCCESS)
        FUZZ_CHECK(nInt == static_cast<int>(static_cast<uint64_t>(nInt64)));
    if (iInt64 == CFGFILE_SUCCESS && nInt64 > 0)
        FUZZ_CHECK(iUnsigned == CFGFILE_SUCCESS && nUnsigned == static_cast<unsigned int>(nInt64));

    CheckTyped<int>(
        lookup, [&](int *p, int d) { return CfgFile_GetIntValue(f, s, k, p, d); },
        static_cast<int>(nDefault), true);
    CheckTyped<float>(
        lookup, [&](float *p, float d) { return CfgFile_GetFloatValue(f, s, k, p, d); },
        static_cast<float>(nDefault), true);

    const BOOL bDefault = static_cast<BOOL>(nDefault);
    BOOL bValue = bDefault;
    const int iBool = CfgFile_GetBooleanValue(f, s, k, &bValue, bDefault);
    FUZZ_CHECK(ConversionResultFits(iBool, lookup.iResult, false));
    FUZZ_CHECK(bValue == TRUE || bValue == FALSE || bValue == bDefault);
    FUZZ_CHECK(CfgFile_GetBooleanValue(f, s, k, nullptr, bDefault) == iBool);

    CheckTyped<VIDEO_FORMAT>(
        lookup,
        [&](VIDEO_FORMAT *p, VIDEO_FORMAT d) {
            return CfgFile_GetVideoFormatValue(f, s, k, p, static_cast<long>(d));
        },
        static_cast<VIDEO_FORMAT>(nDefault), false);
    CheckTyped<long>(
        lookup, [&](long *p, long d) { return CfgFile_GetVideoResolutionValue(f, s, k, p, d); },
        static_cast<long>(nDefault), false);

    const UINT nDefaultWidth = static_cast<UINT>(nDefault);
    const UINT nDefaultHeight = static_cast<UINT>(nDefault >> 32);
    UINT nWidth = 0, nHeight = 0;
    const int iSize =
        CfgFile_GetVideoSizeValues(f, s, k, &nWidth, nDefaultWidth, &nHeight, nDefaultHeight);
    FUZZ_CHECK(ConversionResultFits(iSize, lookup.iResult, false));
    if (iSize == CFGFILE_SUCCESS)
        FUZZ_CHECK(nWidth <= 0x1FFF && nHeight <= 0x1FFF);
    else if (iSize != CFGFILE_BAD_PARAMETERS)
        FUZZ_CHECK(nWidth == nDefaultWidth && nHeight == nDefaultHeight);
    FUZZ_CHECK(CfgFile_GetVideoSizeValues(f, s, k, nullptr, 0, nullptr, 0) == iSize);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nSize) {
    const Scratch &scratch = Scratch::Get();
    FuzzedDataProvider fdp(pData, nSize);
    const size_t nCapacity = fdp.ConsumeIntegralInRange<size_t>(1, 300);
    const bool bFilePresent = fdp.ConsumeIntegralInRange<int>(0, 15) != 0;
    SetTracing(fdp.ConsumeIntegralInRange<int>(0, 7) == 0);
    const int64_t nDefault = fdp.ConsumeIntegral<int64_t>();
    const std::string section = TakeText(fdp, 100);
    const std::string key = TakeText(fdp, 100);
    const std::string defaultValue = TakeText(fdp, 300);
    const std::string file = bFilePresent ? fdp.ConsumeRemainingBytesAsString() : std::string();
    Describe({{"section", section}, {"key", key}, {"default", defaultValue}, {"file", file}});
    PlaceFile(scratch, bFilePresent, file);

    // The lookup's result, found with a default every getter accepts.
    Lookup lookup{scratch.File(), section.c_str(), key.c_str(), 0};
    char szProbe[1];
    size_t nProbe = sizeof(szProbe);
    lookup.iResult =
        CfgFile_GetStringValue(lookup.szFile, lookup.szSection, lookup.szKey, szProbe, &nProbe, "");
    const bool bNamesValid = section.size() <= kMaxNameLength && key.size() <= kMaxNameLength;
    if (!bNamesValid)
        FUZZ_CHECK(lookup.iResult == CFGFILE_BAD_PARAMETERS);
    else if (!bFilePresent)
        FUZZ_CHECK(lookup.iResult == CFGFILE_FILE_ACCESS);
    else
        FUZZ_CHECK(lookup.iResult == CFGFILE_SUCCESS ||
                   lookup.iResult == CFGFILE_SECTION_NOT_FOUND ||
                   lookup.iResult == CFGFILE_KEY_NOT_FOUND);

    CheckStringValue(lookup, file, nCapacity, defaultValue, bFilePresent);
    CheckTypedGetters(lookup, nDefault);

    // Reading never changes the file, nor creates one.
    std::string after;
    FUZZ_CHECK(ReadBytes(scratch.File(), after) == bFilePresent);
    FUZZ_CHECK(after == file);
    FUZZ_CHECK(!Exists(scratch.Tmp()) && !Exists(scratch.Bak()));
    return 0;
}
