/*
 * cfgfile_api.h - CFGFILELIB: settings kept in INI-style text files.
 *
 * Every operation is a stateless call that names the file by its path. The
 * library opens the file, works line by line in fixed buffers on its own
 * stack, closes the file and returns one of the result codes below. It keeps
 * nothing between calls and allocates nothing for the caller to free.
 *
 * File format (as read):
 *   [Section]          a section line; the name is trimmed of spaces
 *   key = value        a key line; key and value are trimmed of spaces
 *   # comment          a comment line
 * Names compare without regard to letter case. Only the space character is a
 * blank: a tab is an ordinary character. Lines of 3 bytes or fewer (line feed
 * included) are ignored by the reader. A CR before the LF is removed. Section
 * names hold 1 to 79 characters between the brackets, key names at most 79.
 * Lines are read in pieces of at most 1199 bytes (511 for the section and key
 * maintenance operations).
 *
 * Changes never edit a file where it lies: the new content is written to
 * "<name>.tmp" beside the file (mode 0600 until it gets the file's mode and
 * owner), flushed and synced to disk; the old file gets "<name>.bak" as a
 * second name (a hard link), the new one is renamed over the file's name,
 * the directory is synced and the backup is deleted. The name always holds
 * the whole old or the whole new file. Where the file system has no hard
 * links (vfat, exfat), the old file is renamed to "<name>.bak" instead, and
 * for a moment no file stands at the name (see CfgFile_RecoverFile). A
 * failure before the swap leaves the old file byte for byte; a failure
 * during the swap puts it back. ".tmp"/".bak" replace an existing
 * suffix of the file name ("device.ini" -> "device.tmp", "device.bak"), so two
 * files that differ only in their suffix must not live in one directory.
 * A path that is a symbolic link is rewritten at its target; the link stays.
 * Lines longer than the line buffer and lines holding NUL bytes are copied
 * through unchanged, never split, shortened or matched.
 * Only a regular file is a settings file. A directory, FIFO, socket or device
 * at the name is treated as a file that cannot be opened, and a change
 * creates nothing beside it. A lookup asks a file's type only when a read
 * goes past 64 KiB (most files are smaller and never need the call), finds
 * nothing at first, fails, or finds more after a short one; a device is
 * refused then. What it gave before (64 KiB at most) is read like a file's
 * text, and a device that ends within 64 KiB is read like a file.
 *
 * Threads and processes: calls share no memory. Changes of one file, from
 * threads or processes, exclude each other from their first read to the
 * removal of the backup, so none is lost: a change holds an
 * open-file-description lock (fcntl F_OFD_SETLK, one byte at offset 2^62) on
 * "<name>.tmp" and, at its end, on the file it swapped in. A change that
 * finds another at work waits for it, up to 10 seconds (the build option
 * CFGFILE_LOCK_WAIT_MS), then fails with CFGFILE_FAILURE and the file
 * untouched. The locks meet neither flock(2) on the file nor any lock file a
 * caller keeps of its own, so callers that serialise themselves keep
 * working. A temporary file left by a process that died is taken over by the
 * next change. Reads take no lock and always find a whole file (vfat aside).
 *
 * Trace output goes through the channel "CFGFILELIB" of libdbgtrace (see
 * dbgtrace.h); set DBGTRACE_LEVEL=CFGFILELIB:7 for the flow of each call, 8
 * for every line read.
 *
 * Compiles as C99 and as C++.
 */
#ifndef CFGFILE_API_H
#define CFGFILE_API_H

#include <stddef.h>
#include <sys/types.h>

#include "xtypes.h"
#include "video/video_formats.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define CFGFILE_API __attribute__((visibility("default")))
#else
#define CFGFILE_API
#endif

/* Result codes. Only CFGFILE_SUCCESS is success. */
enum {
    CFGFILE_SUCCESS = 0,           /* done as asked */
    CFGFILE_BAD_PARAMETERS = 1,    /* an argument was refused; the file was not opened */
    CFGFILE_SECTION_NOT_FOUND = 2, /* no section line names the section */
    CFGFILE_KEY_NOT_FOUND = 3,     /* the section has no line for the key */
    CFGFILE_BAD_VALUE = 4,         /* the value is not a number of the requested kind */
    CFGFILE_FILE_ACCESS = 5,       /* the file cannot be read, or not created (permission) */
    CFGFILE_FAILURE = 100          /* any other failure (I/O, rename, no matching line) */
};

/* ---------------------------------------------------------------- getters
 *
 * Common to all getters:
 *   - szFileName must not be NULL; szSection and szKeyName must not be NULL
 *     and hold at most 79 characters. Otherwise: CFGFILE_BAD_PARAMETERS and
 *     nothing is stored.
 *   - On every other failure the default is stored (when the output pointer
 *     is not NULL) and the result says why: CFGFILE_FILE_ACCESS (file cannot
 *     be opened), CFGFILE_SECTION_NOT_FOUND, CFGFILE_KEY_NOT_FOUND.
 *   - Only the first section of a name counts, and in it the first line of
 *     the key. The value is the text after the first '=', trimmed of spaces.
 *   - Output pointers may be NULL: the call then only reports the result.
 *   - Typed getters read the value into a 256-byte buffer: a value longer
 *     than 255 characters is cut before conversion.
 */

/* Copies the value into szBuffer (capacity *pnBuffSize bytes, terminator
 * included), cut to *pnBuffSize - 1 characters, the rest of the buffer
 * zero-filled. On success *pnBuffSize becomes the length of the whole value
 * + 1, so a larger size than passed means the value was cut.
 * On a lookup failure szDefaultValue is copied (cut likewise) and *pnBuffSize
 * becomes its length + 1. A *pnBuffSize of 0 is refused.
 * CFGFILE_BAD_PARAMETERS (buffer and size untouched) when szFileName,
 * szBuffer, pnBuffSize or szDefaultValue is NULL, szDefaultValue holds 256 or
 * more characters, *pnBuffSize is 0, or a name is refused. */
CFGFILE_API int CfgFile_GetStringValue(const char *szFileName, const char *szSection,
                                       const char *szKeyName, char *szBuffer, size_t *pnBuffSize,
                                       const char *szDefaultValue);

/* Decimal integer: optional spaces or tabs around it, an optional '+' or
 * '-', digits, nothing else. A number outside the 64-bit signed range is
 * CFGFILE_BAD_VALUE; inside it, the low 32 bits are stored (4294967297 -> 1). */
CFGFILE_API int CfgFile_GetIntValue(const char *szFileName, const char *szSection,
                                    const char *szKeyName, int *pnValue, int nDefaultValue);

/* As CfgFile_GetIntValue without a sign: '-' is CFGFILE_BAD_VALUE; a number
 * above the 64-bit unsigned range is CFGFILE_BAD_VALUE; the low 32 bits of
 * a larger value are stored. */
CFGFILE_API int CfgFile_GetUnsignedIntValue(const char *szFileName, const char *szSection,
                                            const char *szKeyName, unsigned int *pnValue,
                                            unsigned int nDefaultValue);

/* Decimal 64-bit integer; outside the signed 64-bit range: CFGFILE_BAD_VALUE. */
CFGFILE_API int CfgFile_GetInt64Value(const char *szFileName, const char *szSection,
                                      const char *szKeyName, INT64 *pnValue, INT64 nDefaultValue);

/* Decimal floating-point text ("1.5", "-2", "1e3", "inf", "nan"); a value
 * beyond the float range is CFGFILE_BAD_VALUE. The decimal point is that of
 * the process's C locale (a '.' unless the application changes LC_NUMERIC). */
CFGFILE_API int CfgFile_GetFloatValue(const char *szFileName, const char *szSection,
                                      const char *szKeyName, float *pfValue, float fDefaultValue);

/* Yes/No, True/False, On/Off, 1/0 in any letter case give TRUE (1) or FALSE
 * (0); any other text gives bDefaultValue with CFGFILE_SUCCESS. Never
 * returns CFGFILE_BAD_VALUE. */
CFGFILE_API int CfgFile_GetBooleanValue(const char *szFileName, const char *szSection,
                                        const char *szKeyName, BOOL *pbValue, BOOL bDefaultValue);

/* Video format code of the value's name (video/video_formats.h); an unknown
 * name gives lDefaultValue with CFGFILE_SUCCESS. */
CFGFILE_API int CfgFile_GetVideoFormatValue(const char *szFileName, const char *szSection,
                                            const char *szKeyName, VIDEO_FORMAT *plValue,
                                            long lDefaultValue);

/* Resolution code of the value's name (video/video_formats.h); an unknown
 * name gives lDefaultValue with CFGFILE_SUCCESS. */
CFGFILE_API int CfgFile_GetVideoResolutionValue(const char *szFileName, const char *szSection,
                                                const char *szKeyName, long *plValue,
                                                long lDefaultValue);

/* Width and height of the resolution the value names ("1080", "1080p",
 * "1920x1080"). An unknown text gives the defaults cut to 13 bits (0..8191)
 * with CFGFILE_SUCCESS; a lookup failure stores the defaults unchanged. */
CFGFILE_API int CfgFile_GetVideoSizeValues(const char *szFileName, const char *szSection,
                                           const char *szKeyName, UINT *pnWidth, UINT nDefaultWidth,
                                           UINT *pnHeight, UINT nDefaultHeight);

/* ---------------------------------------------------------------- setters
 *
 * Common to all setters: set key szKeyName of section szSection to the value,
 * replacing the first line of the key in the first section of that name, or
 * adding the key at the end of the section, or appending the section at the
 * end of the file, or creating a missing file ("[Section]\nkey=value\n",
 * mode 0644 before the umask). All texts must be non-NULL strings.
 * Results:
 *   CFGFILE_SUCCESS         the key holds the value.
 *   CFGFILE_BAD_PARAMETERS  szFileName is longer than 246 characters (or is a
 *                           link whose target is), or a float text does not
 *                           fit 31 characters; nothing is touched.
 *   CFGFILE_FILE_ACCESS     the file exists but cannot be read, or is missing
 *                           and may not be created (permission denied).
 *   CFGFILE_FAILURE         any other failure (temporary file, write, sync,
 *                           rename); the old file stays byte for byte.
 * Names and values are written as given, with no blank around '='. Lines of
 * 3 bytes or fewer before the changed line are dropped, and one empty line is
 * kept before each section line (the file's first section line excepted).
 */
CFGFILE_API int CfgFile_SetStringValue(const char *szFileName, const char *szSection,
                                       const char *szKeyName, const char *szBuffer);
/* Written with "%d". */
CFGFILE_API int CfgFile_SetIntValue(const char *szFileName, const char *szSection,
                                    const char *szKeyName, int nValue);
/* Written with "%u". */
CFGFILE_API int CfgFile_SetUnsignedIntValue(const char *szFileName, const char *szSection,
                                            const char *szKeyName, unsigned int nValue);
/* Written with "%ld". */
CFGFILE_API int CfgFile_SetInt64Value(const char *szFileName, const char *szSection,
                                      const char *szKeyName, INT64 nValue);
/* Written with "%.*f", DecimalPrecision decimals (six when negative). A text
 * longer than 31 characters (|value| >= 1e24 with six decimals, or a large
 * precision) is refused with CFGFILE_BAD_PARAMETERS and nothing is written. */
CFGFILE_API int CfgFile_SetFloatValue(const char *szFileName, const char *szSection,
                                      const char *szKeyName, float fValue, int DecimalPrecision);
/* Written as "Yes" (nonzero) or "No". */
CFGFILE_API int CfgFile_SetBooleanValue(const char *szFileName, const char *szSection,
                                        const char *szKeyName, BOOL bValue);

/* Gives the file (a link is followed) to group GroupID, owner unchanged, and
 * adds group write permission. CFGFILE_SUCCESS, or CFGFILE_FAILURE when
 * chown, stat or chmod fails (traced at level 3 with errno). */
CFGFILE_API int CfgFile_SetGroupOwnership(const char *szFileName, gid_t GroupID);

/* Puts a file back from its backup after an interrupted change: when
 * nothing stands at szFileName (at the end of its symbolic links) and
 * "<name>.bak" is a regular file, the backup is renamed to the name and the
 * directory synced. Otherwise nothing is done. A change interrupted while it
 * moved the old file aside (on file systems without hard links, such as
 * vfat; or by an older version of this library) leaves that state: call this
 * once when the application starts. It waits for a change of the file in
 * progress, as changes wait for each other.
 * Results:
 *   CFGFILE_SUCCESS         the file was restored, or there was nothing to do.
 *   CFGFILE_BAD_PARAMETERS  szFileName is NULL or longer than 246 characters
 *                           (or is a link whose target is); nothing touched.
 *   CFGFILE_FAILURE         the backup could not be moved back or its
 *                           directory synced, or a change of the file did not
 *                           end within the wait for it. */
CFGFILE_API int CfgFile_RecoverFile(const char *szFileName);

/* ------------------------------------------------------------ maintenance */

/* Lists the section names that begin with szSectionPrefix (any letter case;
 * "" lists all) into szBuffer as consecutive NUL-terminated strings, in file
 * order, exactly as written between '[' and the first ']' (not trimmed).
 * *pnSize: in, the capacity of szBuffer (read only when szBuffer is not
 * NULL); out, the bytes the whole list needs. *pnCount: the names copied.
 * Names that do not fit are not copied; the copied ones are always the first.
 * A NULL szBuffer only measures. Returns CFGFILE_SUCCESS, or -1 (with
 * *pnSize and *pnCount 0) when the file cannot be opened. szFileName,
 * szSectionPrefix, pnSize and pnCount must not be NULL. */
CFGFILE_API int CfgFile_EnumerateSections(const char *szFileName, const char *szSectionPrefix,
                                          char *szBuffer, size_t *pnSize, unsigned int *pnCount);

/* Removes whole sections: the section line and every line up to the next
 * line beginning with '['. szSectionPrefix is a whole name, or a prefix
 * ending in '*' ("video*"); any letter case. An empty szSectionPrefix selects
 * sections whose name is blank ("[ ]"). The file is rewritten even when no
 * section is selected. CFGFILE_SUCCESS also when the file cannot be opened
 * for reading, missing or unreadable: there is nothing the call can remove,
 * and nothing is created. CFGFILE_BAD_PARAMETERS for a name over 246
 * characters or a NULL argument; CFGFILE_FAILURE when the rewrite fails (the
 * old file stays byte for byte). If the directory cannot be synced after the
 * swap, the call succeeds and keeps "<name>.bak" as the durable old copy. */
CFGFILE_API int CfgFile_DeleteSections(const char *szFileName, const char *szSectionPrefix);

/* Removes the first line of key szKeyName in the first section named
 * szSection (after a removal, later sections of that name are searched
 * again). When the file cannot be opened, or the section or key is missing,
 * the file is left as it was (not rewritten) and CFGFILE_SUCCESS is returned.
 * Results otherwise as for CfgFile_DeleteSections. */
CFGFILE_API int CfgFile_DeleteKey(const char *szFileName, const char *szSection,
                                  const char *szKeyName);

/* Removes every line holding '=' (comments with '=' too) from each section
 * named szSection; the section lines and other lines stay. The file is only
 * replaced when something was removed. Results as for CfgFile_DeleteKey. */
CFGFILE_API int CfgFile_DeleteAllSectionKeys(const char *szFileName, const char *szSection);

/* ------------------------------------------------------------ raw lines
 *
 * A line matches when its text after leading spaces begins with szPrefix
 * (exact bytes, letter case included). Only whole lines ending in a line
 * feed are matched. Null arguments are programming errors: they are reported
 * through _DoAssert (dbgtrace.h), which ends the process.
 */

/* Reads the file into szBuffer and hands out the first matching line without
 * its line feed; *pnBuffSize: in, the buffer size; out, the line's length.
 * A line must fit *pnBuffSize - 2 characters to be found. CFGFILE_SUCCESS,
 * or CFGFILE_FAILURE for a missing file or no match (*pnBuffSize unchanged;
 * szBuffer may hold scan data). Asserts that szFileName and szPrefix are
 * non-NULL and non-empty, szBuffer and pnBuffSize non-NULL, *pnBuffSize > 0. */
CFGFILE_API int CfgFile_FindLineStartingWith(const char *szFileName, const char *szPrefix,
                                             char *szBuffer, size_t *pnBuffSize);

/* Writes '#' in front of the first matching line that is not a comment
 * already. The file is rewritten even when nothing matches.
 * CFGFILE_SUCCESS; CFGFILE_BAD_PARAMETERS for a name over 246 characters;
 * CFGFILE_FAILURE for a missing file or a failed rewrite (old file stays). */
CFGFILE_API int CfgFile_CommentLineStartingWith(const char *szFileName, const char *szPrefix);

/* Removes the first matching line that is not a comment. Results as for
 * CfgFile_CommentLineStartingWith. */
CFGFILE_API int CfgFile_DeleteLineStartingWith(const char *szFileName, const char *szPrefix);

#ifdef __cplusplus
}
#endif

#endif /* CFGFILE_API_H */
