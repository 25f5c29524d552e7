// line_grammar.h - the kinds of lines (short, comment, section, key) and the
// names in them, shared by the lookup, the writer and the deletions.
#ifndef CFGFILE_LINE_GRAMMAR_H
#define CFGFILE_LINE_GRAMMAR_H

#include <strings.h>

#include "line_reader.h"

namespace cfglib {

// ------------------------------------------------------ 3. the line grammar
//
// A line is read with its line feed. Reads of 3 bytes or fewer are short
// lines. After leading blanks (the space character only; a tab is text) a
// "#" starts a comment line, a "[" a section line; any other line is a key
// line when it holds "=". Names compare without regard to letter case.

// Removes trailing blanks in place and returns the text after leading blanks.
inline char *_TrimSpaces(char *szInput) {
    char *pcStart = szInput;
    int nLength = static_cast<int>(strlen(szInput));
    while (*pcStart == ' ')
        ++pcStart;
    while (nLength > 0 && szInput[nLength - 1] == ' ')
        szInput[--nLength] = '\0';
    return pcStart;
}

inline char *SkipBlanks(char *pcText) {
    while (*pcText == ' ')
        ++pcText;
    return pcText;
}

inline const char *SkipBlanks(const char *pcText) {
    return SkipBlanks(const_cast<char *>(pcText));
}

// How one operation traces the examination of a section line.
struct SectionLineTraces {
    const char *szFunction;
    const char *szFileName; // non-null: the lookup's message for a missing "]", naming the file
    int nTrimmedLevel;      // level of "Trimmed section = ..."; 0: not traced
};

// Examines the section line whose "[" is at pcBracket. Returns the section's
// name, trimmed, in szSectionBuffer; nullptr when the line names no section
// (no "]", nothing or 80 characters and more between the brackets).
inline char *ExamineSectionLine(const SectionLineTraces &traces, int iLineCount,
                                const char *pcBracket, char (&szSectionBuffer)[kNameBufferSize]) {
    const char *szFunction = traces.szFunction;
    const char *pcMatch = strchr(pcBracket + 1, ']');
    if (pcMatch == nullptr) {
        if (traces.szFileName != nullptr)
            CFG_TRACE_AS(szFunction, 4,
                         "Line %d of file \"%s\" starts with '[' but there is no matching ']'.\n",
                         iLineCount, traces.szFileName);
        else
            CFG_TRACE_AS(szFunction, 7, "line %d starts with '[' but there is no matching ']'.\n",
                         iLineCount);
        return nullptr;
    }
    const int nSectionLength = static_cast<int>(pcMatch - pcBracket - 1);
    CFG_TRACE_AS(szFunction, 7, "Found end bracket line %d, section length=%d chars.\n", iLineCount,
                 nSectionLength);
    if (nSectionLength == 0) {
        CFG_TRACE_AS(szFunction, 7, "line %d, no section string between '['  and ']'.\n",
                     iLineCount);
        return nullptr;
    }
    if (nSectionLength >= static_cast<int>(kNameBufferSize)) {
        CFG_TRACE_AS(szFunction, 7, "line %d, section is too long (%d chars).\n", iLineCount,
                     nSectionLength);
        return nullptr;
    }
    memcpy(szSectionBuffer, pcBracket + 1, nSectionLength);
    szSectionBuffer[nSectionLength] = '\0';
    char *pcName = _TrimSpaces(szSectionBuffer);
    if (traces.nTrimmedLevel > 0)
        CFG_TRACE_AS(szFunction, traces.nTrimmedLevel, "Trimmed section = \"%s\".\n", pcName);
    return pcName;
}

// The key of a key line: the text from pcKeyStart up to pcEquals without
// blanks at either end, copied into szKeyNameBuffer. nullptr when the key
// itself has 80 characters or more: no name a caller can look up is that
// long, so such a line is treated as another key's.
inline const char *ExtractKeyName(const char *pcKeyStart, const char *pcEquals,
                                  char (&szKeyNameBuffer)[kNameBufferSize]) {
    std::string_view key(pcKeyStart, pcEquals - pcKeyStart);
    while (!key.empty() && key.front() == ' ')
        key.remove_prefix(1);
    while (!key.empty() && key.back() == ' ')
        key.remove_suffix(1);
    if (key.size() >= kNameBufferSize)
        return nullptr;
    memcpy(szKeyNameBuffer, key.data(), key.size());
    szKeyNameBuffer[key.size()] = '\0';
    return szKeyNameBuffer;
}

// Passes over the lines that lineFilter lets through.
inline void SkipLines(LineReader &reader, const LineFilter &lineFilter, size_t nCapacity) {
    while (!reader.PassLines(lineFilter, nCapacity).empty()) {
    }
}

} // namespace cfglib

#endif
