/*
 * support_lib.h - text, conversion and file helpers used by CFGFILELIB.
 *
 * A static library linked into libcfgfile.so; none of these routines is
 * exported from it. All routines are reentrant: they keep no state and
 * touch only what they are given.
 */
#ifndef SUPPORT_LIB_H
#define SUPPORT_LIB_H

#include <stddef.h>
#include <stdio.h>

#include "xtypes.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------- text */

/* Tests that szText is a string that fits a buffer of nMaxSize bytes with
 * its terminator. Returns 1 when it does (the empty text included); 0 when
 * szText is NULL or holds nMaxSize or more characters. Never negative. */
int IsValidString(const char *szText, size_t nMaxSize);

/* Copies szSource into szDest (nDestSize bytes), cut to nDestSize - 1
 * characters and always terminated. nDestSize 0 or a NULL pointer writes
 * nothing. Returns 1 when the whole text fitted, else 0. */
int CopyString(char *szDest, const char *szSource, size_t nDestSize);

/* Appends szText to the string in szDest (nDestSize bytes in all), as much
 * as fits, and keeps szDest terminated. Returns 1 when all of it fitted. */
int StringCat(char *szDest, const char *szText, size_t nDestSize);

/* ---------------------------------------------------------- conversions
 * Numeric conversions return nonzero when the whole text was converted and
 * the value stored; zero otherwise (the variable is then left as it was).
 */

/* Decimal 64-bit signed integer. */
BOOL StringToDecLONG(const char *szText, LONG *plValue);
/* Decimal 64-bit unsigned integer. */
BOOL StringToDecULONG(const char *szText, ULONG *plValue);
/* Decimal 64-bit signed integer. */
BOOL StringToDecINT64(const char *szText, INT64 *plValue);
/* Decimal floating-point number. */
BOOL StringToFLOAT(const char *szText, float *pfValue);

/* Truth value of a word; bDefault for a text that names none. */
BOOL ConvertBooleanString(const char *szText, BOOL bDefault);

/* Video format code of a name (video/video_formats.h); lDefault if unknown. */
long ConvertVideoFormatString(const char *szText, long lDefault);
/* Resolution code of a name (video/video_formats.h); lDefault if unknown. */
long ConvertVideoResolutionString(const char *szText, long lDefault);

/* ---------------------------------------------------------------- files */

/* Gives the path in szName (a buffer of nSize bytes) the suffix szSuffix
 * after cSeparator. Returns nonzero on success, 0 when the result does not
 * fit or an argument is NULL (szName is then unchanged). */
int StringReplaceAddSuffix(char *szName, size_t nSize, char cSeparator, const char *szSuffix);

/* Gives the file behind pStream the permission bits of the file at szPath.
 * Returns 1 on success, 0 on failure (nothing changed). */
int CopyFilePermissions(const char *szPath, FILE *pStream);

/* Gives the file behind pStream the owner and group of the file at szPath,
 * as far as the caller may. Returns 1 on success, 0 on failure. */
int CopyFileOwnership(const char *szPath, FILE *pStream);

/* Gives the file behind pStream the default mode of configuration files.
 * Returns 1 on success, 0 on failure. */
int SetDefaultFilePermissions(FILE *pStream);

#ifdef __cplusplus
}
#endif

#endif /* SUPPORT_LIB_H */
