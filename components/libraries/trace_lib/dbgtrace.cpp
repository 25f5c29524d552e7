// dbgtrace.cpp - trace channels with per-channel verbosity (libdbgtrace.so).
//
// Channels live in a fixed table of 32 entries and are never removed, so a
// handle stays valid for the life of the process, even after the last user
// closed it. Nothing is allocated on the heap and nothing here needs the C++
// run-time library: the library is linked by the C driver.
//
// Locking: one mutex guards the table and the output callback. The level of
// a channel is stored and read with atomic operations, so the not-printed
// path (level test only) never takes the lock.

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <errno.h>
#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

// The build hides every symbol by default; the entry points of the header are
// the ones to export (the version script then lists exactly these).
#pragma GCC visibility push(default)
#include "dbgtrace.h"
#pragma GCC visibility pop

namespace {

constexpr int kMaxChannels = 32;
constexpr size_t kNameSize = 32; // 31 characters and the terminator
// One formatted message, terminator included: room for a 1199-byte line of a
// settings file, a 256-byte path and the words around them.
constexpr size_t kTextSize = 1536;
// A whole output line, message and "CHANNEL[LEVEL] function (file:line): "
// prefix, is at most kLineSize - 1 bytes.
constexpr size_t kLineSize = kTextSize + 1024;
constexpr int kLevelSilent = -1;
constexpr char kLevelVariable[] = "DBGTRACE_LEVEL";
constexpr char kAssertChannel[] = "ASSERT";

struct Channel {
    tagHDBG record; // first member: the HDBG handed out points here
    char szName[kNameSize];
    int nUseCount;
    bool bExplicitLevel; // set through DbgSetChannelLevel; the environment no longer applies
};
static_assert(offsetof(Channel, record) == 0);

Channel g_aChannels[kMaxChannels];
int g_nChannels; // entries in use; grows under g_mutex, read atomically by the print path
pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
DBG_OUTPUT_PROC g_pfnOutput;
void *g_pOutputContext;

class TableLock {
  public:
    TableLock() { pthread_mutex_lock(&g_mutex); }
    ~TableLock() { pthread_mutex_unlock(&g_mutex); }
    TableLock(const TableLock &) = delete;
    TableLock &operator=(const TableLock &) = delete;
};

struct Output {
    DBG_OUTPUT_PROC pfnOutput;
    void *pContext;
};

const char *OrUnknown(const char *szText) {
    return szText != nullptr ? szText : "?";
}

int ClampLevel(int nLevel) {
    if (nLevel < 0)
        return kLevelSilent;
    return nLevel > DBG_LEVEL_MAX ? DBG_LEVEL_MAX : nLevel;
}

int LoadLevel(const tagHDBG *pRecord) {
    return __atomic_load_n(&pRecord->nMaxLevel, __ATOMIC_RELAXED);
}

void StoreLevel(tagHDBG *pRecord, int nLevel) {
    __atomic_store_n(&pRecord->nMaxLevel, nLevel, __ATOMIC_RELAXED);
}

// Accepts 1 to 31 characters; longer names are refused rather than cut, so
// two long names never end up as the same channel.
bool GetChannelName(const char *szChannel, std::string_view *psvName) {
    if (szChannel == nullptr)
        return false;
    size_t nLength = strnlen(szChannel, kNameSize);
    if (nLength == 0 || nLength == kNameSize)
        return false;
    *psvName = std::string_view(szChannel, nLength);
    return true;
}

// ------------------------------------------------------------ environment

std::string_view TrimBlanks(std::string_view svText) {
    while (!svText.empty() && (svText.front() == ' ' || svText.front() == '\t'))
        svText.remove_prefix(1);
    while (!svText.empty() && (svText.back() == ' ' || svText.back() == '\t'))
        svText.remove_suffix(1);
    return svText;
}

// An optional sign and decimal digits; large values saturate and clamp to
// DBG_LEVEL_MAX, negative ones mean silent.
bool ParseLevel(std::string_view svText, int *pnLevel) {
    bool bNegative = !svText.empty() && svText.front() == '-';
    if (!svText.empty() && (svText.front() == '-' || svText.front() == '+'))
        svText.remove_prefix(1);
    if (svText.empty())
        return false;
    int nValue = 0;
    for (char cDigit : svText) {
        if (cDigit < '0' || cDigit > '9')
            return false;
        if (nValue <= DBG_LEVEL_MAX)
            nValue = nValue * 10 + (cDigit - '0');
    }
    *pnLevel = ClampLevel(bNegative ? -nValue : nValue);
    return true;
}

struct EnvironmentLevels {
    int nGeneral = 0;
    int nChannel = 0;
    bool bChannel = false;
};

// One item: "LEVEL" for every channel or "CHANNEL:LEVEL" for one. Malformed
// items are ignored.
void ApplyItem(std::string_view svItem, std::string_view svChannel, EnvironmentLevels *pLevels) {
    size_t nColon = svItem.find(':');
    int nLevel = 0;
    if (nColon == std::string_view::npos) {
        if (ParseLevel(TrimBlanks(svItem), &nLevel))
            pLevels->nGeneral = nLevel;
        return;
    }
    std::string_view svName = TrimBlanks(std::string_view(svItem.data(), nColon));
    std::string_view svLevel = svItem;
    svLevel.remove_prefix(nColon + 1);
    if (svName != svChannel || !ParseLevel(TrimBlanks(svLevel), &nLevel))
        return;
    pLevels->nChannel = nLevel;
    pLevels->bChannel = true;
}

// A channel item wins over a plain one wherever it stands; among items of the
// same kind the last one wins. Without a setting the level is 0.
int LevelFromEnvironment(std::string_view svChannel) {
    const char *szSetting = getenv(kLevelVariable);
    if (szSetting == nullptr)
        return 0;
    EnvironmentLevels levels;
    std::string_view svRest(szSetting);
    while (!svRest.empty()) {
        size_t nComma = svRest.find(',');
        size_t nItem = nComma == std::string_view::npos ? svRest.size() : nComma;
        ApplyItem(std::string_view(svRest.data(), nItem), svChannel, &levels);
        svRest.remove_prefix(nComma == std::string_view::npos ? nItem : nItem + 1);
    }
    return levels.bChannel ? levels.nChannel : levels.nGeneral;
}

// ------------------------------------------------------------ table (callers hold g_mutex)

Channel *FindChannel(std::string_view svName) {
    for (int i = 0; i < g_nChannels; i++) {
        if (svName == g_aChannels[i].szName)
            return &g_aChannels[i];
    }
    return nullptr;
}

Channel *FindOrAddChannel(std::string_view svName) {
    Channel *pChannel = FindChannel(svName);
    if (pChannel != nullptr || g_nChannels == kMaxChannels)
        return pChannel;
    pChannel = &g_aChannels[g_nChannels];
    memcpy(pChannel->szName, svName.data(), svName.size());
    pChannel->szName[svName.size()] = '\0';
    // Publish the entry only once its name is complete.
    __atomic_store_n(&g_nChannels, g_nChannels + 1, __ATOMIC_RELEASE);
    return pChannel;
}

// Maps a handle back to its entry; anything that is not one of ours gives null.
Channel *ChannelFromHandle(HDBG hDbg) {
    uintptr_t nOffset =
        reinterpret_cast<uintptr_t>(hDbg) - reinterpret_cast<uintptr_t>(g_aChannels);
    if (nOffset % sizeof(Channel) != 0)
        return nullptr;
    size_t nIndex = nOffset / sizeof(Channel);
    if (nIndex >= static_cast<size_t>(__atomic_load_n(&g_nChannels, __ATOMIC_ACQUIRE)))
        return nullptr;
    return &g_aChannels[nIndex];
}

// ------------------------------------------------------------ output
//
// Nothing on the message path uses stdio streams or the heap: the text is
// formatted once with vsnprintf into a buffer on the stack, and the line is
// sent as pieces with one writev(2), so no second copy of it is ever made.

Output CurrentOutput() {
    TableLock lock;
    return Output{g_pfnOutput, g_pOutputContext};
}

// Writes nValue in decimal, as "%d" would, to pcOut (room for 11 characters);
// returns the number of characters written.
size_t FormatDecimal(int nValue, char *pcOut) {
    unsigned nMagnitude = static_cast<unsigned>(nValue);
    if (nValue < 0)
        nMagnitude = 0u - nMagnitude; // also right for INT_MIN
    char acDigits[10];
    size_t nDigits = 0;
    do {
        acDigits[nDigits++] = static_cast<char>('0' + nMagnitude % 10);
        nMagnitude /= 10;
    } while (nMagnitude != 0);
    size_t nLength = 0;
    if (nValue < 0)
        pcOut[nLength++] = '-';
    while (nDigits > 0)
        pcOut[nLength++] = acDigits[--nDigits];
    return nLength;
}

// The pieces of one output line, sent together with writev(2). A line never
// exceeds kLineSize - 1 bytes: a longer one is cut and still ends with a
// newline.
class LineParts {
  public:
    void Add(const char *pcData, size_t nSize) {
        if (nSize == 0)
            return;
        m_aParts[m_nParts++] = iovec{const_cast<char *>(pcData), nSize};
        m_nSize += nSize;
    }
    void Add(const char *szText) { Add(szText, strlen(szText)); }

    // Sends the line to stderr, resuming after partial writes and
    // interruptions; gives up silently on any other failure.
    void Write() {
        if (m_nSize > kLineSize - 1)
            CutLine();
        iovec *pPart = m_aParts;
        int nParts = m_nParts;
        while (nParts > 0) {
            ssize_t nWritten = writev(STDERR_FILENO, pPart, nParts);
            if (nWritten < 0 && errno == EINTR)
                continue;
            if (nWritten <= 0)
                return;
            size_t nDone = static_cast<size_t>(nWritten);
            while (nParts > 0 && nDone >= pPart->iov_len) {
                nDone -= pPart->iov_len;
                pPart++;
                nParts--;
            }
            if (nParts > 0) {
                pPart->iov_base = static_cast<char *>(pPart->iov_base) + nDone;
                pPart->iov_len -= nDone;
            }
        }
    }

  private:
    // WriteLine adds at most eight pieces; cutting the line adds a newline.
    static constexpr int kMaxParts = 9;

    // Keeps the first kLineSize - 2 bytes and ends them with a newline.
    void CutLine() {
        size_t nKeep = kLineSize - 2;
        int nPart = 0;
        while (nKeep > m_aParts[nPart].iov_len)
            nKeep -= m_aParts[nPart++].iov_len;
        m_aParts[nPart].iov_len = nKeep;
        m_nParts = nPart + 1;
        m_nSize = kLineSize - 2;
        Add("\n", 1);
    }

    iovec m_aParts[kMaxParts];
    int m_nParts = 0;
    size_t m_nSize = 0;
};

// Sends "CHANNEL[LEVEL] function (file:line): text" to stderr, with a newline
// added when the text has none. Kept out of line, so that its pieces do not
// add to the stack taken while the text is formatted.
[[gnu::noinline]] void WriteLine(const char *szChannel, int nLevel, const char *szFunction,
                                 const char *szFile, int nLine, const char *szText,
                                 size_t nTextLength) {
    char acLevel[16]; // "[" level "] "
    char acLine[16];  // ":" line "): "
    size_t nLevelLength = 0, nLineLength = 0;
    acLevel[nLevelLength++] = '[';
    nLevelLength += FormatDecimal(nLevel, acLevel + nLevelLength);
    acLevel[nLevelLength++] = ']';
    acLevel[nLevelLength++] = ' ';
    acLine[nLineLength++] = ':';
    nLineLength += FormatDecimal(nLine, acLine + nLineLength);
    memcpy(acLine + nLineLength, "): ", 3);
    nLineLength += 3;

    LineParts line;
    line.Add(szChannel);
    line.Add(acLevel, nLevelLength);
    line.Add(szFunction);
    line.Add(" (", 2);
    line.Add(szFile);
    line.Add(acLine, nLineLength);
    line.Add(szText, nTextLength);
    if (nTextLength == 0 || szText[nTextLength - 1] != '\n')
        line.Add("\n", 1);
    line.Write();
}

// Formats the text of a message and hands it to the output. Kept out of line,
// so that a message that is not printed never touches the text buffer's stack.
[[gnu::noinline]] int PrintMessage(const Channel *pChannel, int nLevel, const char *szFunction,
                                   const char *szFile, int nLine, const char *szFormat,
                                   va_list args) {
    char szText[kTextSize];
    int nLength = vsnprintf(szText, sizeof(szText), szFormat, args);
    if (nLength < 0)
        return 0;
    // A cut message still ends its line.
    if (static_cast<size_t>(nLength) >= sizeof(szText)) {
        nLength = sizeof(szText) - 1;
        szText[nLength - 1] = '\n';
    }

    Output output = CurrentOutput();
    if (output.pfnOutput != nullptr)
        output.pfnOutput(output.pContext, pChannel->szName, nLevel, OrUnknown(szFunction),
                         OrUnknown(szFile), nLine, szText);
    else
        WriteLine(pChannel->szName, nLevel, OrUnknown(szFunction), OrUnknown(szFile), nLine, szText,
                  static_cast<size_t>(nLength));
    return nLength;
}

// Appends text to a fixed buffer, cutting what does not fit; the text stays
// terminated.
class TextBuilder {
  public:
    TextBuilder(char *pcBuffer, size_t nSize) : m_pcBuffer(pcBuffer), m_nSize(nSize) {
        m_pcBuffer[0] = '\0';
    }
    void Add(const char *szText) {
        size_t nCopy = strnlen(szText, m_nSize - 1 - m_nLength);
        if (szText[nCopy] != '\0')
            m_bCut = true;
        memcpy(m_pcBuffer + m_nLength, szText, nCopy);
        m_nLength += nCopy;
        m_pcBuffer[m_nLength] = '\0';
    }
    void AddDecimal(int nValue) {
        char acDigits[12];
        acDigits[FormatDecimal(nValue, acDigits)] = '\0';
        Add(acDigits);
    }
    // A text that was cut still ends with a newline, in place of its last character.
    size_t Finish() {
        if (m_bCut)
            m_pcBuffer[m_nLength - 1] = '\n';
        return m_nLength;
    }

  private:
    char *m_pcBuffer;
    size_t m_nSize;
    size_t m_nLength = 0;
    bool m_bCut = false;
};

} // namespace

// ------------------------------------------------------------ entry points

extern "C" {

int _DoDbgInit(const char *szChannel, HDBG *phDbg) {
    if (phDbg == nullptr)
        return 0;
    *phDbg = nullptr;
    std::string_view svName;
    if (!GetChannelName(szChannel, &svName))
        return 0;

    TableLock lock;
    Channel *pChannel = FindOrAddChannel(svName);
    if (pChannel == nullptr)
        return 0;
    // Opening a channel nobody holds reads the environment again, so a library
    // that is unloaded and loaded again sees the current setting.
    if (pChannel->nUseCount == 0 && !pChannel->bExplicitLevel)
        StoreLevel(&pChannel->record, LevelFromEnvironment(svName));
    pChannel->nUseCount++;
    *phDbg = &pChannel->record;
    return 1;
}

int _DoDbgPrintEx(HDBG hDbg, int nLevel, const char *szFunction, const char *szFile, int nLine,
                  const char *szFormat, ...) {
    va_list args;
    va_start(args, szFormat);
    const int nLength = _DoDbgVPrintEx(hDbg, nLevel, szFunction, szFile, nLine, szFormat, args);
    va_end(args);
    return nLength;
}

int _DoDbgVPrintEx(HDBG hDbg, int nLevel, const char *szFunction, const char *szFile, int nLine,
                   const char *szFormat, va_list args) {
    if (hDbg == nullptr || nLevel > LoadLevel(hDbg) || szFormat == nullptr)
        return 0;
    const Channel *pChannel = ChannelFromHandle(hDbg);
    if (pChannel == nullptr)
        return 0;
    // A trace call between a failing call and the caller's look at errno must
    // not change what the caller sees.
    int nSavedErrno = errno;
    int nLength = PrintMessage(pChannel, nLevel, szFunction, szFile, nLine, szFormat, args);
    errno = nSavedErrno;
    return nLength;
}

int _DoDbgUninitEx(HDBG *phDbg, const char * /*szFunction*/, const char * /*szFile*/,
                   int /*nLine*/) {
    if (phDbg == nullptr)
        return 0;
    TableLock lock;
    Channel *pChannel = ChannelFromHandle(*phDbg);
    if (pChannel != nullptr && pChannel->nUseCount > 0)
        pChannel->nUseCount--;
    *phDbg = nullptr;
    return 1;
}

void _DoAssert(const char *szExpression, const char *szFunction, const char *szFile, int nLine) {
    char szMessage[kTextSize];
    TextBuilder message(szMessage, sizeof(szMessage));
    message.Add("ASSERTION FAILED: ");
    message.Add(OrUnknown(szExpression));
    message.Add(" in ");
    message.Add(OrUnknown(szFunction));
    message.Add(" (");
    message.Add(OrUnknown(szFile));
    message.Add(":");
    message.AddDecimal(nLine);
    message.Add(")\n");
    LineParts line;
    line.Add(szMessage, message.Finish());
    line.Write();
    Output output = CurrentOutput();
    if (output.pfnOutput != nullptr)
        output.pfnOutput(output.pContext, kAssertChannel, 0, OrUnknown(szFunction),
                         OrUnknown(szFile), nLine, szMessage);
    abort();
}

int DbgSetChannelLevel(const char *szChannel, int nLevel) {
    std::string_view svName;
    if (!GetChannelName(szChannel, &svName))
        return 0;
    TableLock lock;
    Channel *pChannel = FindOrAddChannel(svName);
    if (pChannel == nullptr)
        return 0;
    pChannel->bExplicitLevel = true;
    StoreLevel(&pChannel->record, ClampLevel(nLevel));
    return 1;
}

int DbgGetChannelLevel(const char *szChannel) {
    std::string_view svName;
    if (!GetChannelName(szChannel, &svName))
        return -1;
    TableLock lock;
    const Channel *pChannel = FindChannel(svName);
    return pChannel != nullptr ? LoadLevel(&pChannel->record) : -1;
}

void DbgSetOutput(DBG_OUTPUT_PROC pfnOutput, void *pContext) {
    TableLock lock;
    g_pfnOutput = pfnOutput;
    g_pOutputContext = pContext;
}

} // extern "C"
