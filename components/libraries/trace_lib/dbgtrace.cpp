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
#include <unistd.h>

// The build hides every symbol by default; the entry points of the header are
// the ones to export (the version script then lists exactly these).
#pragma GCC visibility push(default)
#include "dbgtrace.h"
#pragma GCC visibility pop

namespace {

constexpr int kMaxChannels = 32;
constexpr size_t kNameSize = 32;              // 31 characters and the terminator
constexpr size_t kTextSize = 2048;            // one formatted message, terminator included
constexpr size_t kLineSize = kTextSize + 512; // message plus the "CHANNEL[LEVEL] ..." prefix
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

Output CurrentOutput() {
    TableLock lock;
    return Output{g_pfnOutput, g_pOutputContext};
}

void WriteAll(const char *pData, size_t nSize) {
    while (nSize > 0) {
        ssize_t nWritten = write(STDERR_FILENO, pData, nSize);
        if (nWritten < 0 && errno == EINTR)
            continue;
        if (nWritten <= 0)
            return;
        pData += nWritten;
        nSize -= static_cast<size_t>(nWritten);
    }
}

// The whole line goes out in one write(2), so lines of concurrent threads do
// not mix.
void WriteLine(const char *szChannel, int nLevel, const char *szFunction, const char *szFile,
               int nLine, const char *szText, size_t nTextLength) {
    bool bHasNewline = nTextLength > 0 && szText[nTextLength - 1] == '\n';
    char szOutput[kLineSize];
    int nLength = snprintf(szOutput, sizeof(szOutput), "%s[%d] %s (%s:%d): %s%s", szChannel, nLevel,
                           szFunction, szFile, nLine, szText, bHasNewline ? "" : "\n");
    if (nLength < 0)
        return;
    size_t nSize = static_cast<size_t>(nLength);
    if (nSize >= sizeof(szOutput)) {
        nSize = sizeof(szOutput) - 1;
        szOutput[nSize - 1] = '\n';
    }
    WriteAll(szOutput, nSize);
}

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
    if (hDbg == nullptr || nLevel > LoadLevel(hDbg) || szFormat == nullptr)
        return 0;
    const Channel *pChannel = ChannelFromHandle(hDbg);
    if (pChannel == nullptr)
        return 0;

    char szText[kTextSize];
    va_list args;
    va_start(args, szFormat);
    int nLength = vsnprintf(szText, sizeof(szText), szFormat, args);
    va_end(args);
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
    int nLength =
        snprintf(szMessage, sizeof(szMessage), "ASSERTION FAILED: %s in %s (%s:%d)\n",
                 OrUnknown(szExpression), OrUnknown(szFunction), OrUnknown(szFile), nLine);
    if (nLength >= 0) {
        size_t nSize = static_cast<size_t>(nLength);
        if (nSize >= sizeof(szMessage)) {
            nSize = sizeof(szMessage) - 1;
            szMessage[nSize - 1] = '\n';
        }
        WriteAll(szMessage, nSize);
        Output output = CurrentOutput();
        if (output.pfnOutput != nullptr)
            output.pfnOutput(output.pContext, kAssertChannel, 0, OrUnknown(szFunction),
                             OrUnknown(szFile), nLine, szMessage);
    }
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
