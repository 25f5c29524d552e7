/*
 * dbgtrace.h - trace channels with per-channel verbosity (libdbgtrace.so).
 *
 * A component opens a named channel once (usually from a load hook) and keeps
 * the handle. Before formatting a message it compares the message's level with
 * the handle's nMaxLevel, so a silent channel costs one pointer test and one
 * integer comparison. Levels are small integers; a message is printed when its
 * level is less than or equal to the channel's nMaxLevel.
 *
 * Setting levels:
 *   - environment, read when a channel is opened:
 *       DBGTRACE_LEVEL=CFGFILELIB:7            one channel
 *       DBGTRACE_LEVEL=3,CFGFILELIB:8          every channel at 3, one at 8
 *     Items are separated by commas; an item naming the channel wins over a
 *     plain level wherever it stands, among items of one kind the last wins,
 *     and malformed items are ignored. Levels above DBG_LEVEL_MAX count as
 *     DBG_LEVEL_MAX, negative levels silence the channel (level -1). The
 *     variable is read when a channel is opened while no one holds it open
 *     (first open, or again after every user closed it).
 *   - at run time: DbgSetChannelLevel("CFGFILELIB", 7); the new level applies
 *     to the next message, also for channels opened later. A level set this
 *     way is final: the environment no longer applies to that channel.
 *   A channel that no setting names starts at level 0: only level-0 messages
 *   are printed.
 *
 * Channel names are case-sensitive and 1 to 31 characters long; longer names
 * are refused, not cut. Channels are never removed, so a handle stays valid
 * until the process ends.
 *
 * Output: one line per message on stderr, written with a single writev(2) so
 *   that lines of concurrent threads do not mix,
 *     CHANNEL[LEVEL] function (file:line): text
 *   or, after DbgSetOutput(), to the caller's callback. A newline is added
 *   when the text has none. Null "%s" arguments print as "(null)", a null
 *   function or file name as "?". A text is cut to 1535 characters; a cut
 *   text still ends with a newline. A line longer than 2559 bytes (only
 *   possible with very long function or file names) is cut to 2559 bytes,
 *   again ending with a newline. Printing takes nothing from the heap and uses
 *   no stdio stream (unless the format itself asks the C library for it,
 *   e.g. with a field width in the thousands).
 *
 * Compiles as C99 and as C++.
 */
#ifndef DBGTRACE_H
#define DBGTRACE_H

#include "xtypes.h"

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The record behind a channel handle. It belongs to the trace library;
 * users only read nMaxLevel. */
struct tagHDBG {
    DWORD dwReserved;
    int nMaxLevel;
};
typedef struct tagHDBG *HDBG;

/* Highest accepted level; larger values are clamped to it. */
#define DBG_LEVEL_MAX 9

/* Opens (or finds) the channel szChannel and stores its handle in *phDbg.
 * Returns 1 on success; 0 when an argument is null or the channel table
 * (32 channels) is full, in which case *phDbg is set to NULL. */
int _DoDbgInit(const char *szChannel, HDBG *phDbg);

/* Formats and prints one message on the channel when nLevel <= nMaxLevel.
 * szFunction, szFile and nLine say where the message comes from. A null
 * hDbg prints nothing. errno is left as it was. Returns the number of
 * characters of the text (after a cut, at most 1535), or 0 when nothing was
 * printed. */
int _DoDbgPrintEx(HDBG hDbg, int nLevel, const char *szFunction, const char *szFile, int nLine,
                  const char *szFormat, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 6, 7)))
#endif
    ;

/* _DoDbgPrintEx with the arguments of the format as a va_list. */
int _DoDbgVPrintEx(HDBG hDbg, int nLevel, const char *szFunction, const char *szFile, int nLine,
                   const char *szFormat, va_list args)
#if defined(__GNUC__)
    __attribute__((format(printf, 6, 0)))
#endif
    ;

/* Releases the caller's use of the channel and sets *phDbg to NULL.
 * Returns 1, or 0 when phDbg is null. */
int _DoDbgUninitEx(HDBG *phDbg, const char *szFunction, const char *szFile, int nLine);

/* Reports a failed assertion on stderr (and to the output callback, if one is
 * installed) as "ASSERTION FAILED: <expression> in <function> (<file>:<line>)"
 * and then ends the process with abort(). It never returns. */
void _DoAssert(const char *szExpression, const char *szFunction, const char *szFile, int nLine)
#if defined(__GNUC__)
    __attribute__((noreturn))
#endif
    ;

/* Sets the level of a channel, opened or not yet opened. A negative level
 * silences it. Returns 1, or 0 when szChannel is null or the table is full. */
int DbgSetChannelLevel(const char *szChannel, int nLevel);

/* Returns the level of a channel, or -1 when no channel has that name (a
 * silenced channel reports -1 as well). */
int DbgGetChannelLevel(const char *szChannel);

/* Receives each printed message instead of stderr. szText is the formatted
 * message as the component wrote it (normally ending in a newline); szFunction
 * and szFile are never null. Failed assertions arrive on the channel "ASSERT"
 * at level 0. The callback runs in the thread that printed, with no lock of
 * the trace library held; it may be called from several threads at once. */
typedef void (*DBG_OUTPUT_PROC)(void *pContext, const char *szChannel, int nLevel,
                                const char *szFunction, const char *szFile, int nLine,
                                const char *szText);

/* Routes messages to pfnOutput (with pContext); NULL restores stderr. A
 * message that another thread is printing at that moment may still reach the
 * previous callback. */
void DbgSetOutput(DBG_OUTPUT_PROC pfnOutput, void *pContext);

#ifdef __cplusplus
}
#endif

#endif /* DBGTRACE_H */
