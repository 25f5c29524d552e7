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
 * its terminator: returns 1 when szText is not NULL and holds at most
 * nMaxSize - 1 characters (the empty text included), else 0. Never negative,
 * so callers refuse a text on 0. Reads at most nMaxSize bytes of szText. */
int IsValidString(const char *szText, size_t nMaxSize);

/* Copies szSource into szDest (nDestSize bytes), cut to nDestSize - 1
 * characters and always terminated. nDestSize 0 or a NULL pointer writes
 * nothing. Writes at most nDestSize bytes and reads at most nDestSize bytes
 * of szSource. Returns 1 when the whole text fitted, else 0. */
int CopyString(char *szDest, const char *szSource, size_t nDestSize);

/* Appends szText to the string in szDest (nDestSize bytes in all), as much
 * as fits, and keeps szDest terminated; never writes past nDestSize bytes.
 * When szDest holds no terminator within nDestSize bytes, or a pointer is
 * NULL, nothing is written. Returns 1 when all of szText fitted, else 0. */
int StringCat(char *szDest, const char *szText, size_t nDestSize);

/* ---------------------------------------------------------- conversions
 * Numeric conversions return nonzero when the whole text was converted and
 * the value stored; zero otherwise, and the variable is then left as it was.
 * A NULL text or pointer gives zero. Spaces and tabs around the number are
 * ignored; anything else before or after it is refused. The C locale's
 * syntax applies whatever the process locale is.
 */

/* Decimal 64-bit signed integer: an optional '+' or '-', then one or more
 * decimal digits (leading zeros allowed). A value outside the LONG range is
 * refused. */
BOOL StringToDecLONG(const char *szText, LONG *plValue);
/* Decimal 64-bit unsigned integer: an optional '+', then one or more decimal
 * digits. Any '-' is refused ("-0" too), as is a value above 2^64 - 1. */
BOOL StringToDecULONG(const char *szText, ULONG *plValue);
/* Decimal 64-bit signed integer; the same syntax and range as StringToDecLONG. */
BOOL StringToDecINT64(const char *szText, INT64 *plValue);
/* Decimal floating-point number: an optional sign, digits with an optional
 * point (at least one digit in all: "5", "5.", ".5"), an optional exponent
 * ('e' or 'E', an optional sign, one or more digits); or one of the words
 * "inf", "infinity", "nan" in any letter case, after an optional sign. The
 * value is rounded to the nearest float. Refused: hexadecimal forms,
 * "nan(...)", and a finite number too large for a float (one too small comes
 * back as zero or a denormal). */
BOOL StringToFLOAT(const char *szText, float *pfValue);

/* Truth value of a word, ignoring letter case and spaces or tabs around it:
 * "yes", "true", "on", "1" give TRUE (1); "no", "false", "off", "0" give
 * FALSE (0); any other text, NULL included, gives bDefault unchanged. */
BOOL ConvertBooleanString(const char *szText, BOOL bDefault);

/* Video format code (video/video_formats.h) of a name, ignoring letter case
 * and spaces or tabs around it: a frame size, 'p' (progressive) or 'i'
 * (interlaced), and a rate, with nothing between them. The frame size is a
 * line count (480, 576, 720, 1080, 1440, 2160 or 4320, at the widths of the
 * VIDEO_RESOLUTION_<lines> codes) or WIDTHxHEIGHT (each 1 to 8191). The rate
 * is a decimal number with up to three decimals, rounded to hundredths and
 * then 1.00 to 300.00: "1080i59.94", "720p50", "1080p23.976" (stored as
 * 23.98), "1920x1080p60". Any other text, NULL included, gives lDefault. */
long ConvertVideoFormatString(const char *szText, long lDefault);

/* Resolution code (video/video_formats.h) of a name, ignoring letter case
 * and spaces or tabs around it. A name is one of
 *   - a line count 480, 576, 720, 1080, 1440, 2160 or 4320, optionally
 *     followed by 'p' or 'i' ("1080", "1080p", "1080i" are 1920x1080);
 *   - WIDTHxHEIGHT, each 1 to 8191, optionally followed by 'p' or 'i';
 *   - VGA (640x480), HD (1280x720), FHD (1920x1080), QHD (2560x1440),
 *     UHD or 4K (3840x2160), 8K (7680x4320);
 * and any name may be followed by one more 'p', blanks allowed before it,
 * since the size getter appends "p" to the value text it converts
 * ("1080pp", "1920x1080p", "4Kp", "1080\tp").
 * Any other text, NULL included, gives lDefault. */
long ConvertVideoResolutionString(const char *szText, long lDefault);

/* ---------------------------------------------------------------- files */

/* Gives the path in szName (a buffer of nSize bytes) the suffix szSuffix
 * after cSeparator, to name a companion file in the same directory. Only a
 * separator in the last path component counts, and not one that begins it
 * (".profile" has none). The text after the last such separator is replaced
 * ("dir.d/dev.ini" -> "dir.d/dev.tmp", "a.b.c" -> "a.b.tmp", "cfg." ->
 * "cfg.tmp"); a name without one gets cSeparator and szSuffix appended
 * ("config" -> "config.tmp", ".profile" -> ".profile.tmp"). When the
 * existing suffix already equals szSuffix, cSeparator and szSuffix are
 * appended instead ("cfg.tmp" -> "cfg.tmp.tmp"), so the result always
 * differs from the path. Returns nonzero on success; 0, with szName
 * unchanged, when the result and its terminator do not fit nSize bytes, a
 * pointer is NULL, szName is empty or unterminated within nSize bytes, or
 * cSeparator is '\0' or '/'. */
int StringReplaceAddSuffix(char *szName, size_t nSize, char cSeparator, const char *szSuffix);

/* Gives the open file nFd the permission bits (mode & 0777) of the file at
 * szPath, following a symbolic link. The set-user-ID, set-group-ID and
 * sticky bits are not carried: a file rewritten through a copy must not gain
 * privileges on the way. nFd stays open, at its offset. Returns 1 on
 * success; 0 on failure, a NULL path or a negative nFd, and then nothing is
 * changed. */
int CopyFilePermissionsToFd(const char *szPath, int nFd);

/* Gives the open file nFd the owner and group of the file at szPath
 * (following a symbolic link), as far as the caller may: when the owner
 * cannot be set (the caller is not privileged), it still tries to set the
 * group alone, which a member of that group may do. nFd stays open, at its
 * offset, in every case. Returns 1 when owner and group were both set; 0
 * otherwise or for a NULL path or a negative nFd. */
int CopyFileOwnershipToFd(const char *szPath, int nFd);

/* Gives the open file nFd the default mode of configuration files, 0644
 * (rw-r--r--), whatever the process umask is. nFd stays open. Returns 1 on
 * success; 0 on failure or a negative nFd. */
int SetDefaultFilePermissionsOnFd(int nFd);

/* Gives the file behind pStream the permission bits (mode & 0777) of the
 * file at szPath, following a symbolic link. The set-user-ID, set-group-ID
 * and sticky bits are not carried: a file rewritten through a copy must not
 * gain privileges on the way. The stream stays open, at its position and
 * usable. Returns 1 on success; 0 on failure or a NULL argument, and then
 * nothing is changed. */
int CopyFilePermissions(const char *szPath, FILE *pStream);

/* Gives the file behind pStream the owner and group of the file at szPath
 * (following a symbolic link), as far as the caller may: when the owner
 * cannot be set (the caller is not privileged), it still tries to set the
 * group alone, which a member of that group may do. The stream stays open,
 * at its position and usable, in every case. Returns 1 when owner and group
 * were both set; 0 otherwise or for a NULL argument. */
int CopyFileOwnership(const char *szPath, FILE *pStream);

/* Gives the file behind pStream the default mode of configuration files,
 * 0644 (rw-r--r--), whatever the process umask is. The stream stays open and
 * usable. Returns 1 on success; 0 on failure or a NULL stream. */
int SetDefaultFilePermissions(FILE *pStream);

#ifdef __cplusplus
}
#endif

#endif /* SUPPORT_LIB_H */
