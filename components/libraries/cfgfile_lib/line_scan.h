// line_scan.h - which lines of a block an operation must look at, and the
// scans that find them 64 bytes at a time (SSE2 on x86-64, NEON on AArch64,
// memchr and a byte loop elsewhere).
#ifndef CFGFILE_LINE_SCAN_H
#define CFGFILE_LINE_SCAN_H

#include "frame.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON) && defined(__aarch64__)
#include <arm_neon.h>
#endif

namespace cfglib {

// Which lines of a block an operation must look at one by one. The others
// may pass unread, as one run of text: kept, or left out when bLeaveOut.
struct LineFilter {
    bool bPass;              // false: every line needs a look
    char cFirst;             // lines whose first non-blank character is cFirst need a look
    std::string_view follow; // when this text follows it (empty: always)
    bool bSectionName;       // follow is a section name: after blanks, in any letter case
    bool bShortLines;        // the writer's look: short lines and section lines
    bool bPairs;             // (writer) an empty line and a section line after it may pass
    bool bLeaveOut;          // a rewrite leaves the lines passed out instead of copying them
    bool bTailFirst = false; // follow holds no line feed: its last byte may be compared first

    // Whether lines holding NUL bytes may not pass. Such a line is never
    // looked into, only copied whole; so passing it unread is the same unless
    // the passed lines are left out, or the writer's empty line would pass
    // with it while the writer on its own would drop the empty line.
    constexpr bool StopsAtNul() const { return bLeaveOut || bPairs; }
};

constexpr LineFilter kLookAtEveryLine{false, 0, {}, false, false, false, false};

// Whether follow text may be compared from its last byte: it holds no line
// feed, so that it can only match within one line.
constexpr bool TailFirst(std::string_view follow) {
    for (const char c : follow)
        if (c == '\n')
            return false;
    return !follow.empty();
}

// Section lines; with a name, only those that may name it.
constexpr LineFilter SectionLines(std::string_view name = {}, bool bLeaveOut = false) {
    return {true, '[', name, true, false, false, bLeaveOut, TailFirst(name)};
}

// Lines that may begin with szPrefix (not empty) after their blanks.
constexpr LineFilter PrefixedLines(std::string_view prefix) {
    const std::string_view follow(prefix.data() + 1, prefix.size() - 1);
    return {true, prefix[0], follow, false, false, false, false, TailFirst(follow)};
}

// Whether two bytes of which one lies outside ASCII are the same letter to
// the locale's tolower, as strcasecmp takes them. Kept out of line, so that
// the common case below needs no call.
inline __attribute__((noinline)) bool SameLocaleLetter(unsigned char c1, unsigned char c2) {
    return tolower(c1) == tolower(c2);
}

// Whether two bytes are the same letter to strcasecmp.
inline bool SameLetter(unsigned char c1, unsigned char c2) {
    if (c1 == c2)
        return true;
    if ((c1 | c2) >= 0x80)
        return SameLocaleLetter(c1, c2);
    const unsigned char cLower = c1 | 0x20;
    return (c1 ^ c2) == 0x20 && cLower >= 'a' && cLower <= 'z';
}

// Whether the text at pc, in a line that ends in a line feed before pcStop,
// may begin with the filter's follow text. A section line's name is trimmed
// and compared without regard to case (the locale's, like strcasecmp), so a
// name that differs before the end of follow can never match it.
inline bool MayFollow(const char *pc, const char *pcStop, const LineFilter &lineFilter) {
    const auto same = [&](char c1, char c2) {
        return lineFilter.bSectionName ? SameLetter(c1, c2) : c1 == c2;
    };
    if (lineFilter.bSectionName)
        while (*pc == ' ')
            ++pc;
    // Numbered names share their beginnings and differ at their ends.
    if (lineFilter.bTailFirst) {
        const size_t nLength = lineFilter.follow.size();
        if (static_cast<size_t>(pcStop - pc) < nLength ||
            !same(pc[nLength - 1], lineFilter.follow.back()))
            return false;
    }
    for (const char c : lineFilter.follow) {
        if (!same(*pc, c))
            return false;
        if (*pc == '\n')
            return true; // never past the end of the line
        ++pc;
    }
    return true;
}

// A cheap first look at the byte after a hit, which most hits fail: it may
// begin follow when it is follow's first byte; before a section name also
// that letter in the other case, a blank, or a byte outside ASCII (the
// locale's letters). MayFollow then looks at the whole text.
struct LeadByte {
    bool bAny;              // no first byte to look at
    bool bNameRules;        // before a section name
    unsigned char cCaseBit; // 0x20 when follow begins with an ASCII letter of a name
    unsigned char cFolded;  // follow's first byte, with cCaseBit set

    static LeadByte Of(const LineFilter &lineFilter) {
        const bool bAny = lineFilter.follow.empty() || lineFilter.cFirst == '\n' ||
                          (lineFilter.bSectionName && lineFilter.follow[0] & 0x80);
        if (bAny)
            return {true, false, 0, 0};
        const unsigned char c = lineFilter.follow[0];
        const unsigned char cLower = c | 0x20;
        const bool bLetter = lineFilter.bSectionName && cLower >= 'a' && cLower <= 'z';
        return {false, lineFilter.bSectionName, static_cast<unsigned char>(bLetter ? 0x20 : 0),
                bLetter ? cLower : c};
    }

    bool MayBegin(unsigned char c) const {
        return bAny || (c | cCaseBit) == cFolded || (bNameRules && (c == ' ' || c >= 0x80));
    }
};

// Sixteen bytes at a time, on every target GCC vectorises for.
using Bytes16 = unsigned char __attribute__((vector_size(16)));

inline Bytes16 Load16(const char *pc) {
    Bytes16 v;
    memcpy(&v, pc, sizeof(v));
    return v;
}

// What comparing two of them gives: all bits of a byte set where they are equal.
using Compared16 = signed char __attribute__((vector_size(16)));

// Whether any byte of a comparison of 16 bytes is set, and the bytes of 64
// that pass a test as a bit mask (one bit a byte, the first byte lowest).
// x86-64 has an instruction that gathers the bits of 16 bytes; AArch64 keeps
// each byte's own bit of eight and gathers them with pairwise additions.
// Elsewhere the writer's scan goes byte by byte, and a lookup's search calls
// memchr.
#if defined(__SSE2__)
#define CFGFILE_BYTE_MASKS 1
// The instruction clears the upper bits itself: a cast to 16 bits would
// cost an extension of every mask.
inline uint64_t MaskOf(Compared16 compared) {
    return static_cast<unsigned>(_mm_movemask_epi8(reinterpret_cast<__m128i>(compared)));
}

inline bool AnySet(Compared16 compared) {
    return MaskOf(compared) != 0;
}

template <typename Test> uint64_t WindowBits(const char *pc, Test test) {
    return MaskOf(test(Load16(pc))) | MaskOf(test(Load16(pc + 16))) << 16 |
           MaskOf(test(Load16(pc + 32))) << 32 | MaskOf(test(Load16(pc + 48))) << 48;
}
#elif defined(__ARM_NEON) && defined(__aarch64__)
#define CFGFILE_BYTE_MASKS 1
inline bool AnySet(Compared16 compared) {
    return vmaxvq_u8(uint8x16_t(compared)) != 0;
}

template <typename Test> uint64_t WindowBits(const char *pc, Test test) {
    const uint8x16_t bits = {1, 2, 4, 8, 16, 32, 64, 128, 1, 2, 4, 8, 16, 32, 64, 128};
    const auto part = [&](int k) { return vandq_u8(uint8x16_t(test(Load16(pc + 16 * k))), bits); };
    const uint8x16_t halves = vpaddq_u8(vpaddq_u8(part(0), part(1)), vpaddq_u8(part(2), part(3)));
    return vgetq_lane_u64(vreinterpretq_u64_u8(vpaddq_u8(halves, halves)), 0);
}
#endif

// The line that a hit at pcHit, which passed the lead byte test, marks: its
// start; or, for a hit inside a line longer than nMaxRead bytes, that line's
// start, since the line is read in pieces that each count as a line; nullptr
// when it marks none. pcKnownLine is a line start before pcHit, moved on.
inline __attribute__((noinline)) const char *
MarkedLineAt(const char *pcStart, const char *pcStop, const char *pcHit,
             const LineFilter &lineFilter, size_t nMaxRead, const char *&pcKnownLine) {
    // A line feed ends its line: no text of follow comes after it there.
    if (*pcHit == '\n' && !lineFilter.follow.empty())
        return nullptr;
    if (!MayFollow(pcHit + 1, pcStop, lineFilter))
        return nullptr;
    const char *pcLine = pcHit;
    while (pcLine > pcStart && pcLine[-1] == ' ')
        --pcLine;
    if (pcLine == pcStart || pcLine[-1] == '\n')
        return pcLine;
    // Inside a line (rare): only far into a long line may a piece begin here.
    if (static_cast<size_t>(pcHit - pcKnownLine) < nMaxRead)
        return nullptr;
    const void *pvNewline = memrchr(pcKnownLine, '\n', pcHit - pcKnownLine);
    if (pvNewline != nullptr)
        pcKnownLine = static_cast<const char *>(pvNewline) + 1;
    return static_cast<size_t>(pcHit - pcKnownLine) >= nMaxRead ? pcKnownLine : nullptr;
}

// The start of the first line in [pcStart, pcStop) that the filter's cFirst
// and follow mark, or of a line longer than nMaxRead bytes with a piece
// that may be marked; pcStop when there is none. pcStart is a line start and
// pcStop - 1 a line feed.
inline const char *FirstMarkedLine(const char *pcStart, const char *pcStop,
                                   const LineFilter &lineFilter, size_t nMaxRead) {
    const LeadByte lead = LeadByte::Of(lineFilter);
    const char cFirst = lineFilter.cFirst;
    const char *pcKnownLine = pcStart;
    const auto lineMarkedBy = [&](const char *pcHit) -> const char * {
        if (!lead.MayBegin(pcHit[1]))
            return nullptr;
        return MarkedLineAt(pcStart, pcStop, pcHit, lineFilter, nMaxRead, pcKnownLine);
    };
    const char *pc = pcStart;
#ifdef CFGFILE_BYTE_MASKS
    // Hits may be a line apart: a search that starts again after each one
    // costs more than one pass that walks the hits of every 64-byte window.
    const Bytes16 wanted = Bytes16{} + static_cast<unsigned char>(cFirst);
    for (; pcStop - pc >= 64; pc += 64) {
        if (!AnySet((Load16(pc) == wanted) | (Load16(pc + 16) == wanted) |
                    (Load16(pc + 32) == wanted) | (Load16(pc + 48) == wanted)))
            continue;
        const auto isWanted = [&](Bytes16 bytes) { return bytes == wanted; };
        for (uint64_t nMask = WindowBits(pc, isWanted); nMask != 0; nMask &= nMask - 1)
            if (const char *pcLine = lineMarkedBy(pc + __builtin_ctzll(nMask)))
                return pcLine;
    }
#endif
    while (pc < pcStop) {
        const char *pcHit = static_cast<const char *>(memchr(pc, cFirst, pcStop - pc));
        if (pcHit == nullptr)
            break;
        pc = pcHit + 1;
        if (const char *pcLine = lineMarkedBy(pcHit))
            return pcLine;
    }
    return pcStop;
}

// Whether the line at pcLine, which ends before pcStop, is a short line:
// its line feed is among its first kShortLineLength (3) bytes.
inline bool IsShortLine(const char *pcLine, const char *pcStop) {
    static_assert(kShortLineLength == 3);
    const ptrdiff_t nLeft = pcStop - pcLine;
    return pcLine[0] == '\n' || (nLeft > 1 && pcLine[1] == '\n') ||
           (nLeft > 2 && pcLine[2] == '\n');
}

// Whether a line that starts at pcLine (before pcStop) may need the
// writer's look: a short line, or one that begins with "[" or a blank.
inline bool MayNeedWriterLook(const char *pcLine, const char *pcStop) {
    return IsShortLine(pcLine, pcStop) || *pcLine == '[' || *pcLine == ' ';
}

// Finds the lines of [pcStart, pcStop), whole lines, that may need the
// writer's look, in order. A line feed at i marks the line at i + 1, when
// one of the next three bytes is a line feed too, or the next one a "[" or a
// blank. The marks of the last window scanned are kept: in a file of short
// sections the next candidate mostly lies in the same window.
class WriterCandidates {
  public:
    WriterCandidates(const char *pcStart, const char *pcStop)
        : m_pcWindow(pcStart), m_pcJudged(pcStart), m_pcStop(pcStop) {}

    // The start of the first line after pc that may need the writer's look;
    // pcStop when there is none. pc is never before the line the previous
    // call returned: the kept marks are read relative to it.
    const char *After(const char *pc) {
#ifdef CFGFILE_BYTE_MASKS
        if (pc < m_pcJudged) {
            const uint64_t nLeft = m_nMarks & ~((uint64_t(1) << (pc - m_pcWindow)) - 1);
            if (nLeft != 0)
                return m_pcWindow + __builtin_ctzll(nLeft) + 1;
            pc = m_pcJudged;
        }
        for (; static_cast<size_t>(m_pcStop - pc) >= kWindow; pc += kAdvance) {
            const uint64_t nMarks = WindowMarks(pc);
            if (nMarks != 0) {
                m_pcWindow = pc;
                m_pcJudged = pc + kAdvance;
                m_nMarks = nMarks;
                return pc + __builtin_ctzll(nMarks) + 1;
            }
        }
#endif
        for (; pc < m_pcStop - 1; ++pc)
            if (*pc == '\n' && MayNeedWriterLook(pc + 1, m_pcStop))
                return pc + 1;
        return m_pcStop;
    }

  private:
#ifdef CFGFILE_BYTE_MASKS
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__);
    // A line feed is judged when its next three bytes lie in the window too,
    // and the next window starts after it.
    static constexpr size_t kWindow = 64;
    static constexpr size_t kAdvance = kWindow - kShortLineLength;

    static uint64_t WindowMarks(const char *pc) {
        constexpr uint64_t kJudged = (uint64_t(1) << kAdvance) - 1;
        const Bytes16 newline = Bytes16{} + '\n';
        const Bytes16 bracket = Bytes16{} + '[';
        const Bytes16 blank = Bytes16{} + ' ';
        const auto isNewline = [&](Bytes16 bytes) { return bytes == newline; };
        const auto isOpener = [&](Bytes16 bytes) { return (bytes == bracket) | (bytes == blank); };
        const uint64_t nNewlines = WindowBits(pc, isNewline);
        const uint64_t nOpeners = WindowBits(pc, isOpener);
        return nNewlines & kJudged &
               ((nNewlines >> 1) | (nNewlines >> 2) | (nNewlines >> 3) | (nOpeners >> 1));
    }

    uint64_t m_nMarks = 0; // of the window at m_pcWindow, for line feeds before m_pcJudged
#endif
    const char *m_pcWindow;
    const char *m_pcJudged;
    const char *m_pcStop;
};

// The writer's look: short lines and section lines. Outside the section
// it sets, the writer leaves out short lines and writes an empty line before
// every section line but the first; so an empty line, and a section line
// after it that cannot name the section, come out as they were and pass
// together when bPairs. pcStart is a line start, pcStop - 1 a line feed.
inline const char *FirstLineForWriter(const char *pcStart, const char *pcStop,
                                      const LineFilter &lineFilter) {
    WriterCandidates candidates(pcStart, pcStop);
    const char *pcLine = pcStart;
    while (pcLine < pcStop) {
        if (!MayNeedWriterLook(pcLine, pcStop)) {
            pcLine = candidates.After(pcLine);
            continue;
        }
        const bool bEmpty = *pcLine == '\n';
        const char *pc = bEmpty ? pcLine + 1 : pcLine;
        while (pc < pcStop && *pc == ' ')
            ++pc;
        // A line of blanks and text, or an empty line that passes with the
        // section line after it; anything else needs a look.
        if (!bEmpty && *pc != '[' && !IsShortLine(pcLine, pcStop))
            pcLine = candidates.After(pcLine);
        else if (bEmpty && lineFilter.bPairs && pc < pcStop && *pc == '[' &&
                 !IsShortLine(pcLine + 1, pcStop) && !MayFollow(pc + 1, pcStop, lineFilter))
            pcLine = candidates.After(pc); // from inside the section line
        else
            return pcLine;
    }
    return pcStop;
}

// The start of the first line in [pcStart, pcStop), which holds whole lines
// only, longer than nMaxRead bytes: such a line is read in pieces.
inline const char *FirstLongLine(const char *pcStart, const char *pcStop, size_t nMaxRead) {
    const char *pc = pcStart;
    while (static_cast<size_t>(pcStop - pc) > nMaxRead) {
        const void *pvNewline = memrchr(pc, '\n', nMaxRead);
        if (pvNewline == nullptr)
            return pc;
        pc = static_cast<const char *>(pvNewline) + 1;
    }
    return pcStop;
}

} // namespace cfglib

#endif
