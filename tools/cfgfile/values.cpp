// values.cpp - value types of the command line: names, parsing and printing.
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <strings.h>

#include "cfgfile_tool.h"

namespace cfgtool {

namespace {

struct TypeName {
    const char *szName;
    ValueType type;
};

constexpr TypeName kTypeNames[] = {
    {"string", ValueType::String},
    {"int", ValueType::Int},
    {"uint", ValueType::Uint},
    {"int64", ValueType::Int64},
    {"float", ValueType::Float},
    {"bool", ValueType::Bool},
    {"video-format", ValueType::VideoFormat},
    {"video-resolution", ValueType::VideoResolution},
    {"video-size", ValueType::VideoSize},
};

// strtol and friends skip leading white space and accept an empty text; the
// command line should not.
bool StartsLikeNumber(const char *szText) {
    return szText[0] != '\0' && !isspace(static_cast<unsigned char>(szText[0]));
}

template <class T> bool ParseSigned(const char *szText, T *pnValue) {
    if (!StartsLikeNumber(szText))
        return false;
    char *pcEnd = nullptr;
    errno = 0;
    const long long llValue = strtoll(szText, &pcEnd, 10);
    if (errno != 0 || *pcEnd != '\0' || llValue < std::numeric_limits<T>::min() ||
        llValue > std::numeric_limits<T>::max())
        return false;
    *pnValue = static_cast<T>(llValue);
    return true;
}

template <class T> bool ParseUnsigned(const char *szText, T *pnValue) {
    // strtoull takes "-1" for the largest value: a sign is refused here.
    if (!StartsLikeNumber(szText) || szText[0] == '-')
        return false;
    char *pcEnd = nullptr;
    errno = 0;
    const unsigned long long ullValue = strtoull(szText, &pcEnd, 10);
    if (errno != 0 || *pcEnd != '\0' || ullValue > std::numeric_limits<T>::max())
        return false;
    *pnValue = static_cast<T>(ullValue);
    return true;
}

} // namespace

bool ParseValueType(const char *szName, ValueType *pType) {
    for (const TypeName &known : kTypeNames) {
        if (strcmp(szName, known.szName) == 0) {
            *pType = known.type;
            return true;
        }
    }
    return false;
}

const char *ValueTypeName(ValueType type) {
    for (const TypeName &known : kTypeNames) {
        if (known.type == type)
            return known.szName;
    }
    return "?";
}

bool ParseInt(const char *szText, int *pnValue) {
    return ParseSigned(szText, pnValue);
}
bool ParseUint(const char *szText, unsigned *pnValue) {
    return ParseUnsigned(szText, pnValue);
}
bool ParseInt64(const char *szText, int64_t *pnValue) {
    return ParseSigned(szText, pnValue);
}
bool ParseUint64(const char *szText, uint64_t *pnValue) {
    return ParseUnsigned(szText, pnValue);
}

bool ParseFloat(const char *szText, float *pfValue) {
    if (!StartsLikeNumber(szText))
        return false;
    char *pcEnd = nullptr;
    errno = 0;
    const float fValue = strtof(szText, &pcEnd);
    // An underflow gives a usable (tiny or zero) number; an overflow does not.
    if (*pcEnd != '\0' || (errno == ERANGE && std::isinf(fValue)))
        return false;
    *pfValue = fValue;
    return true;
}

bool ParseBool(const char *szText, bool *pbValue) {
    static constexpr const char *kTrue[] = {"yes", "true", "on", "1"};
    static constexpr const char *kFalse[] = {"no", "false", "off", "0"};
    for (const char *szName : kTrue) {
        if (strcasecmp(szText, szName) == 0) {
            *pbValue = true;
            return true;
        }
    }
    for (const char *szName : kFalse) {
        if (strcasecmp(szText, szName) == 0) {
            *pbValue = false;
            return true;
        }
    }
    return false;
}

bool ParseSize(const char *szText, unsigned *pnWidth, unsigned *pnHeight) {
    const char *pcCross = strchr(szText, 'x');
    if (pcCross == nullptr)
        return false;
    const std::string sWidth(szText, pcCross);
    return ParseUint(sWidth.c_str(), pnWidth) && ParseUint(pcCross + 1, pnHeight);
}

std::string FormatFloat(float fValue) {
    char szText[48];
    // Nine significant digits always read back as the same float; fewer often do.
    for (int nDigits = 6; nDigits <= 9; ++nDigits) {
        snprintf(szText, sizeof(szText), "%.*g", nDigits, static_cast<double>(fValue));
        if (strtof(szText, nullptr) == fValue)
            break;
    }
    return szText;
}

bool TypedText(const char *szText, ValueType type, int nPrecision, std::string *psText) {
    char szNumber[32];
    int nInt = 0;
    unsigned nUint = 0;
    int64_t nInt64 = 0;
    float fValue = 0;
    bool bValue = false;
    int nLength = 0;
    switch (type) {
    case ValueType::Int:
        if (!ParseInt(szText, &nInt))
            return false;
        *psText = std::to_string(nInt);
        return true;
    case ValueType::Uint:
        if (!ParseUint(szText, &nUint))
            return false;
        *psText = std::to_string(nUint);
        return true;
    case ValueType::Int64:
        if (!ParseInt64(szText, &nInt64))
            return false;
        *psText = std::to_string(nInt64);
        return true;
    case ValueType::Float:
        // As the float setter: fixed decimals, and refused when they do not
        // fit its buffer (a cut number would be another number).
        if (!ParseFloat(szText, &fValue))
            return false;
        nLength =
            snprintf(szNumber, sizeof(szNumber), "%.*f", nPrecision, static_cast<double>(fValue));
        if (nLength < 0 || static_cast<size_t>(nLength) >= sizeof(szNumber))
            return false;
        *psText = szNumber;
        return true;
    case ValueType::Bool:
        if (!ParseBool(szText, &bValue))
            return false;
        *psText = bValue ? "Yes" : "No";
        return true;
    default:
        *psText = szText;
        return true;
    }
}

} // namespace cfgtool
