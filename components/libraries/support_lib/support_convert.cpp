/*
 * support_convert.cpp - conversions of value text into numbers and truth values.
 */
#include <errno.h>
#include <locale.h>
#include <math.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <initializer_list>
#include <string_view>

#include "support_lib.h"

namespace {

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}
bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

const char *SkipBlanks(const char *pc) {
    while (IsBlank(*pc))
        ++pc;
    return pc;
}

// A decimal integer split into its sign and magnitude.
struct DecimalText {
    bool bNegative;
    uint64_t nMagnitude;
};

// Reads [blanks][+|-]digits[blanks] and nothing else. Fails on a magnitude above 2^64 - 1;
// the callers check their own range.
bool ParseDecimal(const char *szText, DecimalText *pResult) {
    if (szText == NULL)
        return false;
    const char *pc = SkipBlanks(szText);
    bool bNegative = *pc == '-';
    if (*pc == '+' || *pc == '-')
        ++pc;
    if (!IsDigit(*pc))
        return false;
    uint64_t nMagnitude = 0;
    for (; IsDigit(*pc); ++pc) {
        unsigned nDigit = static_cast<unsigned>(*pc - '0');
        if (nMagnitude > (UINT64_MAX - nDigit) / 10)
            return false;
        nMagnitude = nMagnitude * 10 + nDigit;
    }
    if (*SkipBlanks(pc) != '\0')
        return false;
    *pResult = {bNegative, nMagnitude};
    return true;
}

// True when the words match, ignoring ASCII letter case.
bool EqualsWord(std::string_view svText, const char *szWord) {
    return svText.size() == strlen(szWord) &&
           strncasecmp(svText.data(), szWord, svText.size()) == 0;
}

// Returns the end of the number at pc: digits with an optional point (one digit at least) and
// an optional exponent, or one of the words inf, infinity, nan. NULL when there is none.
const char *ScanFloat(const char *pc) {
    for (const char *szWord : {"infinity", "inf", "nan"}) {
        size_t nLength = strlen(szWord);
        if (strncasecmp(pc, szWord, nLength) == 0)
            return pc + nLength;
    }
    const char *pcStart = pc;
    while (IsDigit(*pc))
        ++pc;
    bool bIntegerDigits = pc != pcStart;
    if (*pc == '.')
        ++pc;
    if (!bIntegerDigits && !IsDigit(*pc))
        return NULL;
    while (IsDigit(*pc))
        ++pc;
    if (*pc != 'e' && *pc != 'E')
        return pc;
    ++pc;
    if (*pc == '+' || *pc == '-')
        ++pc;
    if (!IsDigit(*pc))
        return NULL;
    while (IsDigit(*pc))
        ++pc;
    return pc;
}

} // namespace

BOOL StringToDecLONG(const char *szText, LONG *plValue) {
    DecimalText number;
    if (plValue == NULL || !ParseDecimal(szText, &number))
        return FALSE;
    uint64_t nLimit = static_cast<uint64_t>(INT64_MAX) + (number.bNegative ? 1 : 0);
    if (number.nMagnitude > nLimit)
        return FALSE;
    // Negating in unsigned arithmetic reaches INT64_MIN without signed overflow.
    uint64_t nBits = number.bNegative ? 0 - number.nMagnitude : number.nMagnitude;
    *plValue = static_cast<LONG>(nBits);
    return TRUE;
}

BOOL StringToDecULONG(const char *szText, ULONG *plValue) {
    DecimalText number;
    if (plValue == NULL || !ParseDecimal(szText, &number) || number.bNegative)
        return FALSE;
    *plValue = number.nMagnitude;
    return TRUE;
}

BOOL StringToDecINT64(const char *szText, INT64 *plValue) {
    return StringToDecLONG(szText, plValue);
}

BOOL StringToFLOAT(const char *szText, float *pfValue) {
    if (szText == NULL || pfValue == NULL)
        return FALSE;
    const char *pcNumber = SkipBlanks(szText);
    const char *pc = pcNumber;
    if (*pc == '+' || *pc == '-')
        ++pc;
    const char *pcEnd = ScanFloat(pc);
    if (pcEnd == NULL || *SkipBlanks(pcEnd) != '\0')
        return FALSE;

    // The C locale keeps '.' as the point whatever locale the application set. glibc hands
    // out its built-in C locale object here, so nothing is allocated.
    locale_t hLocale = newlocale(LC_ALL_MASK, "C", (locale_t)0);
    if (hLocale == (locale_t)0)
        return FALSE;
    int iSavedErrno = errno;
    errno = 0;
    char *pcConverted = NULL;
    float fValue = strtof_l(pcNumber, &pcConverted, hLocale);
    bool bOverflow = errno == ERANGE && isinf(fValue);
    errno = iSavedErrno;
    freelocale(hLocale);
    if (pcConverted != pcEnd || bOverflow)
        return FALSE;
    *pfValue = fValue;
    return TRUE;
}

BOOL ConvertBooleanString(const char *szText, BOOL bDefault) {
    if (szText == NULL)
        return bDefault;
    std::string_view svText = SkipBlanks(szText);
    while (!svText.empty() && IsBlank(svText.back()))
        svText.remove_suffix(1);
    for (const char *szWord : {"yes", "true", "on", "1"}) {
        if (EqualsWord(svText, szWord))
            return TRUE;
    }
    for (const char *szWord : {"no", "false", "off", "0"}) {
        if (EqualsWord(svText, szWord))
            return FALSE;
    }
    return bDefault;
}
