// fuzz_getters: random files, names and buffer sizes for the getters.
//
// Checked for every input: the string getter gives one of a lookup's results,
// writes nothing past its buffer and leaves the value terminated within it,
// reporting at least the size it copied; each typed getter reports the
// string getter's lookup result (or BAD_VALUE where the text may convert to
// nothing); no getter changes the file or leaves a file beside it.
#include "cfgfile_api.h"
#include "fuzz_support.h"

using namespace cfgfuzz;

namespace {

// A typed getter's result for a lookup that gave iLookup.
void CheckTyped(int iResult, int iLookup, bool bMayBeBadValue) {
    if (iLookup != CFGFILE_SUCCESS)
        FUZZ_CHECK(iResult == iLookup);
    else
        FUZZ_CHECK(iResult == CFGFILE_SUCCESS || (bMayBeBadValue && iResult == CFGFILE_BAD_VALUE));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nSize) {
    const Scratch &scratch = Scratch::Get();
    FuzzedDataProvider fdp(pData, nSize);
    const size_t nCapacity = fdp.ConsumeIntegralInRange<size_t>(1, 300);
    const bool bFilePresent = fdp.ConsumeIntegralInRange<int>(0, 15) != 0;
    const bool bTracing = fdp.ConsumeIntegralInRange<int>(0, 7) == 0;
    const int64_t nDefault = fdp.ConsumeIntegral<int64_t>();
    const std::string section = TakeText(fdp, 100);
    const std::string key = TakeText(fdp, 100);
    const std::string defaultValue = TakeText(fdp, 300);
    const std::string file = bFilePresent ? fdp.ConsumeRemainingBytesAsString() : std::string();
    const char *f = scratch.file.c_str();
    const char *s = section.c_str();
    const char *k = key.c_str();
    CheckBothWays(scratch, bFilePresent, file, [&] {
        GuardedBuffer value(nCapacity);
        size_t nValueSize = nCapacity;
        const int iResult =
            CfgFile_GetStringValue(f, s, k, value.Data(), &nValueSize, defaultValue.c_str());
        return std::to_string(iResult) + "/" + std::to_string(nValueSize) + "/" + value.bytes;
    });
    SetTracing(bTracing);

    GuardedBuffer buffer(nCapacity);
    size_t nValueSize = nCapacity;
    const int iLookup =
        CfgFile_GetStringValue(f, s, k, buffer.Data(), &nValueSize, defaultValue.c_str());
    FUZZ_CHECK(iLookup == CFGFILE_SUCCESS || iLookup == CFGFILE_BAD_PARAMETERS ||
               iLookup == CFGFILE_SECTION_NOT_FOUND || iLookup == CFGFILE_KEY_NOT_FOUND ||
               iLookup == CFGFILE_FILE_ACCESS);
    FUZZ_CHECK(buffer.GuardIntact());
    if (iLookup != CFGFILE_BAD_PARAMETERS)
        FUZZ_CHECK(strnlen(buffer.Data(), nCapacity) < nCapacity);
    if (iLookup == CFGFILE_SUCCESS)
        FUZZ_CHECK(nValueSize >= 1 && nValueSize - 1 >= strlen(buffer.Data()));

    // An over-long default is refused by the string getter alone: the typed
    // getters are compared with the lookup of a default every getter accepts.
    char szProbe[1];
    size_t nProbe = sizeof(szProbe);
    const int iResult = CfgFile_GetStringValue(f, s, k, szProbe, &nProbe, "");
    int nInt;
    INT64 nInt64;
    unsigned int nUnsigned;
    float fValue;
    BOOL bValue;
    VIDEO_FORMAT eFormat;
    long nResolution;
    UINT nWidth, nHeight;
    const int iDefault = static_cast<int>(nDefault);
    CheckTyped(CfgFile_GetIntValue(f, s, k, &nInt, iDefault), iResult, true);
    CheckTyped(CfgFile_GetInt64Value(f, s, k, &nInt64, nDefault), iResult, true);
    CheckTyped(CfgFile_GetUnsignedIntValue(f, s, k, &nUnsigned, iDefault), iResult, true);
    CheckTyped(CfgFile_GetFloatValue(f, s, k, &fValue, float(nDefault)), iResult, true);
    CheckTyped(CfgFile_GetBooleanValue(f, s, k, &bValue, iDefault), iResult, false);
    CheckTyped(CfgFile_GetVideoFormatValue(f, s, k, &eFormat, iDefault), iResult, false);
    CheckTyped(CfgFile_GetVideoResolutionValue(f, s, k, &nResolution, iDefault), iResult, false);
    CheckTyped(CfgFile_GetVideoSizeValues(f, s, k, &nWidth, 0, &nHeight, 0), iResult, false);

    // Reading never changes the file, nor creates one.
    std::string after;
    FUZZ_CHECK(ReadBytes(f, after) == bFilePresent && after == file);
    FUZZ_CHECK(!scratch.CompanionsLeft());
    return 0;
}
