// lookup.cpp - the lookup of a value by section and key, and the getters that
// convert it to the caller's type or hand out the default.
#include <cfloat>
#include <cinttypes>

#include "line_grammar.h"

namespace cfglib {
namespace {

// Looks up the value of szKeyName in the first section named szSection.
// On success szBuffer holds the trimmed value cut to *pnBuffSize - 1
// characters (the rest of the buffer zero-filled) and *pnBuffSize becomes
// the whole value's length + 1; otherwise neither is touched.
// *pnBuffSize must be at least 1.
int _ReadValue(const char *szFileName, const char *szSection, const char *szKeyName, char *szBuffer,
               size_t *pnBuffSize) {
    int iRetCode = CFGFILE_FAILURE;
    BOOL bInSection = FALSE;
    int iLineCount = 0;
    char szSectionBuffer[kNameBufferSize];
    char szKeyNameBuffer[kNameBufferSize];

    FileDescriptor file(OpenFile(szFileName));
    ReaderBuffer<kLookupBlockSize> buffer;
    LineReader reader(file.Get(), buffer);
    if (!file.IsOpen() || !reader.Start()) {
        const int nErr = errno;
        char szErrorText[64];
        CFG_TRACE(7, "Unable to open \"%s\", errno (%d): \"%s\".\n", szFileName, nErr,
                  strerror_r(nErr, szErrorText, sizeof(szErrorText)));
        iRetCode = CFGFILE_FILE_ACCESS;
        CFG_TRACE(7, "Returning iRetCode=%d.\n", iRetCode);
        return iRetCode;
    }
    CFG_TRACE(7, "OPENED \"%s\".\n", szFileName);

    const SectionLineTraces sectionTraces{__func__, szFileName, 7};
    // Outside the section only section lines matter; the others pass unread
    // while no trace counts them.
    const bool bPassLines = !TraceOn(kLineTraceLevel);
    size_t nLineLength;
    char *szLine;
    for (;;) {
        if (bPassLines && !bInSection)
            SkipLines(reader, SectionLines(szSection), kLongLineBufferSize);
        if (!reader.Next(kLongLineBufferSize, &szLine, &nLineLength))
            break;
        ++iLineCount;
        CFG_TRACE(8, "Processing line %d.\n", iLineCount);
        if (reader.LastHoldsNul())
            continue; // not text: never a section or key line
        if (nLineLength <= kShortLineLength) {
            CFG_TRACE(8, "Line %d is too short to be processed.\n", iLineCount);
            continue;
        }
        if (nLineLength > kLongLineBufferSize - 2) // the line buffer is full
            CFG_TRACE(4,
                      "Line %d of file \"%s\" of %d chars might not have been read completely.\n",
                      iLineCount, szFileName, static_cast<int>(nLineLength));
        if (szLine[nLineLength - 1] != '\n')
            CFG_TRACE(
                5, "Line %d of file \"%s\" of %d char is not terminated by new line character.\n",
                iLineCount, szFileName, static_cast<int>(nLineLength));
        else
            szLine[--nLineLength] = '\0';
        if (nLineLength > 0 && szLine[nLineLength - 1] == '\r')
            szLine[--nLineLength] = '\0';

        char *pcLine = SkipBlanks(szLine);
        // Comment line.
        if (*pcLine == '#') {
            CFG_TRACE(8, "Skipping comment line %d.\n", iLineCount);
            continue;
        }
        // Section line: the next one after the requested section ends the search.
        if (*pcLine == '[') {
            CFG_TRACE(8, "Found section line %d.\n", iLineCount);
            if (bInSection) {
                CFG_TRACE(7, "Already in matching section returning error line %d.\n", iLineCount);
                break;
            }
            const char *pcMatch =
                ExamineSectionLine(sectionTraces, iLineCount, pcLine, szSectionBuffer);
            if (pcMatch != nullptr && strcasecmp(szSection, pcMatch) == 0) {
                bInSection = TRUE;
                CFG_TRACE(7, "Found section.\n");
            }
            continue;
        }
        // Key line, looked at only inside the requested section.
        if (!bInSection)
            continue;
        CFG_TRACE(8, "Found key=value line.\n");
        char *pcEquals = strchr(pcLine, '=');
        if (pcEquals == nullptr)
            continue;
        const char *pcTrimmedKeyName = ExtractKeyName(pcLine, pcEquals, szKeyNameBuffer);
        if (pcTrimmedKeyName == nullptr)
            continue;
        CFG_TRACE(7, "key=\"%s\".\n", pcTrimmedKeyName);
        if (strcasecmp(szKeyName, pcTrimmedKeyName) != 0)
            continue;
        CFG_TRACE(7, "key is a MATCH.\n");

        const char *pcTrimmedKeyValue = _TrimSpaces(pcEquals + 1);
        const size_t nValueLength = strlen(pcTrimmedKeyValue);
        CFG_TRACE(8, "value length=%d.\n", static_cast<int>(nValueLength));
        const size_t nCopy = nValueLength < *pnBuffSize ? nValueLength : *pnBuffSize - 1;
        memcpy(szBuffer, pcTrimmedKeyValue, nCopy);
        memset(szBuffer + nCopy, 0, *pnBuffSize - nCopy);
        CFG_TRACE(8, "value is \"%s\" length=%d.\n", szBuffer, static_cast<int>(nValueLength));
        *pnBuffSize = nValueLength + 1;
        iRetCode = CFGFILE_SUCCESS;
        break;
    }
    file.Close();
    CFG_TRACE(7, "closed \"%s\".\n", szFileName);
    if (iRetCode != CFGFILE_SUCCESS)
        iRetCode = reader.Refused() ? CFGFILE_FILE_ACCESS
                   : bInSection     ? CFGFILE_KEY_NOT_FOUND
                                    : CFGFILE_SECTION_NOT_FOUND;
    CFG_TRACE(7, "Returning iRetCode=%d.\n", iRetCode);
    return iRetCode;
}

// The numeric and boolean getters are one family: each member gives its
// types, its conversion and its trace texts; GetTypedValue does the rest.
struct GetterTexts {
    const char *szCalled;
    const char *szReturning;
    const char *szReturningDefault;
};

constexpr GetterTexts kIntTexts{
    "Called, file=\"%s\" section=\"%s\", key=\"%s\" pnValue=%p, nDefaultValue=%d.\n",
    "Returning value %d.\n", "Returning default value %d.\n"};
constexpr GetterTexts kUnsignedIntTexts{
    "Called, file=\"%s\" section=\"%s\", key=\"%s\" pnValue=%p, nDefaultValue=%u.\n",
    "Returning value %u.\n", "Returning default value %u.\n"};
constexpr GetterTexts kInt64Texts{
    "Called, file=\"%s\" section=\"%s\", key=\"%s\" pnValue=%p, nDefaultValue=%lld.\n",
    "Returning value %lld.\n", "Returning default value %lld.\n"};
constexpr GetterTexts kFloatTexts{
    "Called, file=\"%s\" section=\"%s\", key=\"%s\" pfValue=%p, fDefaultValue=%f.\n",
    "Returning value %f.\n", "Returning default value %f.\n"};
constexpr GetterTexts kBooleanTexts{
    "Called, file=\"%s\" section=\"%s\", key=\"%s\" pbValue=%p, bDefaultValue=%d.\n",
    "Returning bValue %d.\n", "Returning default bValue %d.\n"};

// The value as the trace formats above expect it.
int TraceArgument(int nValue) {
    return nValue;
}
unsigned int TraceArgument(unsigned int nValue) {
    return nValue;
}
long long TraceArgument(INT64 nValue) {
    return nValue;
}
double TraceArgument(float fValue) {
    return fValue;
}

// Checks the names and looks up the value text of a typed getter.
__attribute__((noinline)) int LookUpValueText(const char *szFileName, const char *szSection,
                                              const char *szKeyName,
                                              char (&szBuffer)[kValueBufferSize]) {
    size_t nSize = kValueBufferSize;
    if (szFileName == nullptr || !IsValidString(szSection, kNameBufferSize) ||
        !IsValidString(szKeyName, kNameBufferSize))
        return CFGFILE_BAD_PARAMETERS;
    return _ReadValue(szFileName, szSection, szKeyName, szBuffer, &nSize);
}

// Converts the value text; false when it is not a value of the type. The
// default is passed for conversions that fall back on it themselves.
template <class Value, class Converted>
using ConvertValue = bool (*)(const char *szText, Converted *pValue, Value defaultValue);

template <const GetterTexts &texts, class Value, class Converted>
int GetTypedValue(const char *szFunction, ConvertValue<Value, Converted> pfnConvert,
                  const char *szFileName, const char *szSection, const char *szKeyName,
                  Value *pValue, Value defaultValue) {
    char szBuffer[kValueBufferSize];
    CFG_TRACE_AS(szFunction, 7, texts.szCalled, szFileName, szSection, szKeyName,
                 static_cast<void *>(pValue), TraceArgument(defaultValue));
    int iRetCode = LookUpValueText(szFileName, szSection, szKeyName, szBuffer);
    if (iRetCode == CFGFILE_BAD_PARAMETERS)
        return iRetCode;
    if (iRetCode == CFGFILE_SUCCESS) {
        Converted value{};
        if (pfnConvert(szBuffer, &value, defaultValue)) {
            // int and unsigned int keep the low 32 bits of the 64-bit conversion.
            if (pValue != nullptr) {
                *pValue = static_cast<Value>(value);
                CFG_TRACE_AS(szFunction, 7, texts.szReturning, TraceArgument(*pValue));
            }
            return CFGFILE_SUCCESS;
        }
        iRetCode = CFGFILE_BAD_VALUE;
    }
    if (pValue != nullptr) {
        *pValue = defaultValue;
        CFG_TRACE_AS(szFunction, 7, texts.szReturningDefault, TraceArgument(defaultValue));
    }
    return iRetCode;
}

// The video getters trace nothing of their own.
bool VideoArgumentsValid(const char *szFileName, const char *szSection, const char *szKeyName) {
    return szFileName != nullptr && IsValidString(szSection, kNameBufferSize) &&
           IsValidString(szKeyName, kNameBufferSize);
}

template <class Code>
int GetVideoCode(const char *szFileName, const char *szSection, const char *szKeyName,
                 Code *plValue, long lDefaultValue, long (*pfnConvert)(const char *, long)) {
    char szBuffer[kValueBufferSize];
    const int iRetCode = LookUpValueText(szFileName, szSection, szKeyName, szBuffer);
    if (iRetCode == CFGFILE_BAD_PARAMETERS)
        return iRetCode;
    const long lValue =
        iRetCode == CFGFILE_SUCCESS ? pfnConvert(szBuffer, lDefaultValue) : lDefaultValue;
    if (plValue != nullptr)
        *plValue = static_cast<Code>(lValue);
    return iRetCode;
}

} // namespace
} // namespace cfglib

using namespace cfglib;

extern "C" {

CFGFILE_API int CfgFile_GetStringValue(const char *szFileName, const char *szSection,
                                       const char *szKeyName, char *szBuffer, size_t *pnBuffSize,
                                       const char *szDefaultValue) {
    int iRetCode = CFGFILE_BAD_PARAMETERS;
    CFG_TRACE(7,
              "Called, file=\"%s\" section=\"%s\", key=\"%s\" buffer=%p, buffsize=%p, "
              "defaultval=\"%s\".\n",
              szFileName, szSection, szKeyName, static_cast<void *>(szBuffer),
              static_cast<void *>(pnBuffSize), szDefaultValue);
    // A null or over-long default is refused like a bad name: it is copied
    // and measured on every failure path.
    if (szFileName == nullptr || szBuffer == nullptr || pnBuffSize == nullptr || *pnBuffSize == 0 ||
        !IsValidString(szDefaultValue, kValueBufferSize) ||
        !IsValidString(szSection, kNameBufferSize) || !IsValidString(szKeyName, kNameBufferSize)) {
        CFG_TRACE(4, "Invalid parameters detected.\n");
        return iRetCode;
    }

    iRetCode = _ReadValue(szFileName, szSection, szKeyName, szBuffer, pnBuffSize);
    if (iRetCode == CFGFILE_SUCCESS) {
        CFG_TRACE(7, "Returning value \"%s\" size=%d.\n", szBuffer, static_cast<int>(*pnBuffSize));
        return iRetCode;
    }
    CopyString(szBuffer, szDefaultValue, *pnBuffSize);
    *pnBuffSize = strlen(szDefaultValue) + 1;
    CFG_TRACE(7, "Returning default value \"%s\" size=%d.\n", szBuffer,
              static_cast<int>(*pnBuffSize));
    return iRetCode;
}

CFGFILE_API int CfgFile_GetIntValue(const char *szFileName, const char *szSection,
                                    const char *szKeyName, int *pnValue, int nDefaultValue) {
    ConvertValue<int, LONG> pfnConvert = [](const char *szText, LONG *pnValue, int) {
        return StringToDecLONG(szText, pnValue) != 0;
    };
    return GetTypedValue<kIntTexts>(__func__, pfnConvert, szFileName, szSection, szKeyName, pnValue,
                                    nDefaultValue);
}

CFGFILE_API int CfgFile_GetUnsignedIntValue(const char *szFileName, const char *szSection,
                                            const char *szKeyName, unsigned int *pnValue,
                                            unsigned int nDefaultValue) {
    ConvertValue<unsigned int, ULONG> pfnConvert = [](const char *szText, ULONG *pnValue,
                                                      unsigned int) {
        return StringToDecULONG(szText, pnValue) != 0;
    };
    return GetTypedValue<kUnsignedIntTexts>(__func__, pfnConvert, szFileName, szSection, szKeyName,
                                            pnValue, nDefaultValue);
}

CFGFILE_API int CfgFile_GetInt64Value(const char *szFileName, const char *szSection,
                                      const char *szKeyName, INT64 *pnValue, INT64 nDefaultValue) {
    ConvertValue<INT64, INT64> pfnConvert = [](const char *szText, INT64 *pnValue, INT64) {
        return StringToDecINT64(szText, pnValue) != 0;
    };
    return GetTypedValue<kInt64Texts>(__func__, pfnConvert, szFileName, szSection, szKeyName,
                                      pnValue, nDefaultValue);
}

CFGFILE_API int CfgFile_GetFloatValue(const char *szFileName, const char *szSection,
                                      const char *szKeyName, float *pfValue, float fDefaultValue) {
    ConvertValue<float, float> pfnConvert = [](const char *szText, float *pfValue, float) {
        return StringToFLOAT(szText, pfValue) != 0;
    };
    return GetTypedValue<kFloatTexts>(__func__, pfnConvert, szFileName, szSection, szKeyName,
                                      pfValue, fDefaultValue);
}

// A text that names no truth value gives the caller's default: never a bad value.
CFGFILE_API int CfgFile_GetBooleanValue(const char *szFileName, const char *szSection,
                                        const char *szKeyName, BOOL *pbValue, BOOL bDefaultValue) {
    ConvertValue<BOOL, BOOL> pfnConvert = [](const char *szText, BOOL *pbValue, BOOL bDefault) {
        *pbValue = ConvertBooleanString(szText, bDefault);
        return true;
    };
    return GetTypedValue<kBooleanTexts>(__func__, pfnConvert, szFileName, szSection, szKeyName,
                                        pbValue, bDefaultValue);
}

CFGFILE_API int CfgFile_GetVideoFormatValue(const char *szFileName, const char *szSection,
                                            const char *szKeyName, VIDEO_FORMAT *plValue,
                                            long lDefaultValue) {
    return GetVideoCode(szFileName, szSection, szKeyName, plValue, lDefaultValue,
                        ConvertVideoFormatString);
}

CFGFILE_API int CfgFile_GetVideoResolutionValue(const char *szFileName, const char *szSection,
                                                const char *szKeyName, long *plValue,
                                                long lDefaultValue) {
    return GetVideoCode(szFileName, szSection, szKeyName, plValue, lDefaultValue,
                        ConvertVideoResolutionString);
}

CFGFILE_API int CfgFile_GetVideoSizeValues(const char *szFileName, const char *szSection,
                                           const char *szKeyName, UINT *pnWidth, UINT nDefaultWidth,
                                           UINT *pnHeight, UINT nDefaultHeight) {
    constexpr unsigned long kMarker = 0x8000000000000000UL;
    size_t nSize = kValueBufferSize;
    char szBuffer[kValueBufferSize];
    const long lDefaultResolution = static_cast<long>(
        ((static_cast<unsigned long>(nDefaultWidth) << 22) & 0x7FFC00000UL) |
        ((static_cast<unsigned long>(nDefaultHeight) << 9) & 0x3FFE00UL) | kMarker);
    if (!VideoArgumentsValid(szFileName, szSection, szKeyName))
        return CFGFILE_BAD_PARAMETERS;

    const int iRetCode = _ReadValue(szFileName, szSection, szKeyName, szBuffer, &nSize);
    if (iRetCode != CFGFILE_SUCCESS) {
        if (pnWidth != nullptr)
            *pnWidth = nDefaultWidth;
        if (pnHeight != nullptr)
            *pnHeight = nDefaultHeight;
        return iRetCode;
    }
    // Sizes are written as line counts ("1080") as often as with a scan letter.
    StringCat(szBuffer, "p", sizeof(szBuffer));
    const long lValue = ConvertVideoResolutionString(szBuffer, lDefaultResolution);
    if (pnWidth != nullptr)
        *pnWidth = static_cast<UINT>((lValue >> 22) & 0x1FFF);
    if (pnHeight != nullptr)
        *pnHeight = static_cast<UINT>((lValue >> 9) & 0x1FFF);
    return CFGFILE_SUCCESS;
}

} // extern "C"
