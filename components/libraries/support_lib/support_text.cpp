/*
 * support_text.cpp - bounded text tests and copies.
 */
#include <string.h>

#include "support_lib.h"

int IsValidString(const char *szText, size_t nMaxSize) {
    if (szText == NULL)
        return 0;
    // strnlen, not strlen: a text without a terminator must not be read past the limit.
    return strnlen(szText, nMaxSize) < nMaxSize ? 1 : 0;
}

int CopyString(char *szDest, const char *szSource, size_t nDestSize) {
    if (szDest == NULL || szSource == NULL || nDestSize == 0)
        return 0;
    size_t nLength = strnlen(szSource, nDestSize);
    bool bFits = nLength < nDestSize;
    size_t nCopy = bFits ? nLength : nDestSize - 1;
    memmove(szDest, szSource, nCopy);
    szDest[nCopy] = '\0';
    return bFits ? 1 : 0;
}

int StringCat(char *szDest, const char *szText, size_t nDestSize) {
    if (szDest == NULL || szText == NULL)
        return 0;
    size_t nUsed = strnlen(szDest, nDestSize);
    if (nUsed == nDestSize)
        return 0; // no terminator in the buffer: there is no end to append at
    return CopyString(szDest + nUsed, szText, nDestSize - nUsed);
}
