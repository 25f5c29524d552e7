// cfgfile_bench.cpp - the cost of one call of the settings library, beside
// the least the same work costs in system calls (the physical floor) and
// beside three general-purpose INI libraries doing the same job.
//
// Benchmarks are named "<operation>/<implementation>/<lines>":
//   get_first, get_last, get_missing  integer lookup of a key near the start,
//                                     near the end, and in a missing section
//   set_replace, set_add, set_new_section, delete_key
//   enumerate, find_line
//   rewrite/floor                     the physical floor of every change
//   rewrite/protocol                  the floor plus the calls a change makes
//                                     by its definition (locks, mode, owner,
//                                     backup link)
//   rewrite/streamed                  the protocol floor with the file passed
//                                     through a block of the library's default
//                                     size, a read and a write per block
// Implementations: ours, floor, scan (lookups: the floor plus finding every
// section line), inih (lookups only), iniparser, glib; and "paired": ours and
// the floor timed in turns, reporting the median ratio of the turns.
//
// The physical floor of a read is open, one read(2) of the bytes the
// operation needs into a buffer as large as they are, close; of a change,
// that read of the whole file, one write(2) of as many bytes to a temporary
// file, fsync, one rename over the file and an fsync of the directory.
//
// Files lie in $BENCH_DIR (default /dev/shm/cfgfile-bench), so one binary
// measures a tmpfs and a disk file system alike. Times are wall-clock: a
// rewrite on disk waits for the device. The library is found through the
// run path or LD_LIBRARY_PATH, so one binary measures any build of it.

#include <benchmark/benchmark.h>
#include <glib.h>
#include <ini.h>
#include <iniparser.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <strings.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#include <sys/stat.h>
#include <unistd.h>

#include "bench_files.h"
#include "cfgfile_api.h"

namespace {

using cfgbench::BenchFile;

constexpr int kSizes[] = {10, 100, 1000, 10000};
// The library's default block: the streamed floor passes files through it.
constexpr size_t kIoBlock = 1280;
// The library reads into a block that starts on a cache line, which the
// kernel copies to faster; so do the floors.
constexpr size_t kBlockAlignment = 64;
constexpr size_t kReadBeforeTypeCheck = 65536; // a lookup asks the type after this much
constexpr int kNotFound = -1;                  // every generated value is >= 0
constexpr int kLookupBatch = 8;                // lookups per side and turn of a paired benchmark

std::string g_benchDir;

// A heap buffer of exactly the bytes a floor moves, from a cache line on.
class FloorBuffer {
  public:
    explicit FloorBuffer(size_t nSize) : m_storage(nSize + kBlockAlignment) {
        void *pv = m_storage.data();
        size_t nSpace = m_storage.size();
        m_pc = static_cast<char *>(std::align(kBlockAlignment, nSize, pv, nSpace));
    }
    char *data() const { return m_pc; }

  private:
    std::vector<char> m_storage;
    char *m_pc;
};

// One integer lookup, named the way each implementation names it.
struct Lookup {
    std::string section;
    std::string key;
    std::string entry; // "section:key" for iniparser
    size_t nOffset;    // just past the key's line; the file's size when it is missing
    int nExpected;     // kNotFound when missing
    std::shared_ptr<FloorBuffer> floorBuffer; // nOffset bytes, for the floors
};

// A file that one benchmark rewrites, and the names a safe rewrite uses beside it.
struct WriteTarget {
    std::string path;
    std::string tmpPath;
    std::string backupPath;
    const BenchFile *pFile;
};

WriteTarget MakeWriteTarget(const std::string &stem, const BenchFile &file) {
    const std::string base = g_benchDir + "/" + stem;
    return {base + ".ini", base + ".tmp", base + ".bak", &file};
}

bool SyncDirectory(const char *szDirectory) {
    const int fd = open(szDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool bSynced = fsync(fd) == 0;
    return close(fd) == 0 && bSynced;
}

// ------------------------------------------------------------------ floor

// The physical floor of a read: open, one read(2) of the nBytes the
// operation needs, close.
bool FloorRead(const char *szPath, size_t nBytes, char *pcBuffer) {
    const int fd = open(szPath, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool bRead = read(fd, pcBuffer, nBytes) == static_cast<ssize_t>(nBytes);
    benchmark::DoNotOptimize(pcBuffer);
    close(fd);
    return bRead;
}

// The "[" of [pcStart, pcStop) at the start of a line, found the fastest way
// known here: 64 bytes at a time on x86-64, with a look at the byte before
// each hit; elsewhere with the C library's memchr.
size_t CountSectionLines(const char *pcStart, const char *pcStop) {
    size_t nSections = 0;
    const char *pc = pcStart;
    const auto count = [&](const char *pcHit) {
        nSections += pcHit == pcStart || pcHit[-1] == '\n';
    };
#if defined(__SSE2__)
    const __m128i bracket = _mm_set1_epi8('[');
    const auto hits = [&](const char *pcAt) {
        return _mm_cmpeq_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(pcAt)), bracket);
    };
    const auto maskOf = [&](const char *pcAt) {
        return static_cast<uint64_t>(static_cast<uint16_t>(_mm_movemask_epi8(hits(pcAt))));
    };
    for (; pcStop - pc >= 64; pc += 64) {
        // Most windows hold no "[": one test of all four parts first.
        if (_mm_movemask_epi8(_mm_or_si128(_mm_or_si128(hits(pc), hits(pc + 16)),
                                           _mm_or_si128(hits(pc + 32), hits(pc + 48)))) == 0)
            continue;
        const uint64_t nMask =
            maskOf(pc) | maskOf(pc + 16) << 16 | maskOf(pc + 32) << 32 | maskOf(pc + 48) << 48;
        for (uint64_t nBits = nMask; nBits != 0; nBits &= nBits - 1)
            count(pc + __builtin_ctzll(nBits));
    }
#endif
    for (; (pc = static_cast<const char *>(memchr(pc, '[', pcStop - pc))); ++pc)
        count(pc);
    return nSections;
}

// The least work of a lookup as the library defines it, on top of the read
// floor: a file that gives more than 64 KiB is asked its type (fstat), so that
// a device is refused, and every section line of the bytes read is found
// (CountSectionLines). Nothing else of a line is looked at.
bool ScanRead(const char *szPath, size_t nBytes, char *pcBuffer) {
    const int fd = open(szPath, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    struct stat st;
    bool bOk = read(fd, pcBuffer, nBytes) == static_cast<ssize_t>(nBytes) &&
               (nBytes <= kReadBeforeTypeCheck || (fstat(fd, &st) == 0 && S_ISREG(st.st_mode)));
    benchmark::DoNotOptimize(CountSectionLines(pcBuffer, pcBuffer + nBytes));
    close(fd);
    return bOk;
}

// The one byte far past any file's end that a change locks, on its
// temporary file (for writing) and on the file (for reading).
bool LockByte(int fd, short nType) {
    struct flock lock {};
    lock.l_type = nType;
    lock.l_whence = SEEK_SET;
    lock.l_start = off_t{1} << 62;
    lock.l_len = 1;
    return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

// Floor: the physical floor of a change, the whole file read and written
// once (as many bytes as it holds: a change adds or drops a line at most).
// Protocol: also the calls a change makes by its definition: the temporary
// file and the file locked, the file's mode and owner carried over (each a
// stat of the file and a change of the temporary file), a leftover backup
// removed, the file linked to the backup name before the swap and the
// backup removed after it. Streamed: the protocol floor with the file passed
// through a block of the library's default size, a read and a write per
// block, as a change that must look at every line streams it.
enum class RewriteFloor { Floor, Protocol, Streamed };

bool FloorRewrite(const WriteTarget &target, char *pcBuffer, RewriteFloor kind) {
    const bool bProtocol = kind != RewriteFloor::Floor;
    const char *szPath = target.path.c_str();
    const char *szBackup = target.backupPath.c_str();
    const size_t nSize = target.pFile->text.size();
    const size_t nStep = kind == RewriteFloor::Streamed ? kIoBlock : nSize;
    const int fdIn = open(szPath, O_RDONLY | O_CLOEXEC);
    const int fdOut = open(target.tmpPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    bool bOk = fdIn >= 0 && fdOut >= 0;
    struct stat st;
    if (bOk && bProtocol)
        bOk = LockByte(fdOut, F_WRLCK) && LockByte(fdIn, F_RDLCK) && stat(szPath, &st) == 0 &&
              fchmod(fdOut, st.st_mode) == 0 && stat(szPath, &st) == 0 &&
              fchown(fdOut, st.st_uid, st.st_gid) == 0;
    for (size_t nDone = 0; bOk && nDone < nSize; nDone += nStep) {
        const size_t nBytes = std::min(nStep, nSize - nDone);
        bOk = read(fdIn, pcBuffer, nBytes) == static_cast<ssize_t>(nBytes) &&
              write(fdOut, pcBuffer, nBytes) == static_cast<ssize_t>(nBytes);
    }
    if (fdIn >= 0)
        close(fdIn);
    bOk = bOk && fsync(fdOut) == 0;
    if (bProtocol)
        unlink(szBackup);
    bOk = bOk && (!bProtocol || link(szPath, szBackup) == 0) &&
          rename(target.tmpPath.c_str(), szPath) == 0 && SyncDirectory(g_benchDir.c_str());
    if (bProtocol)
        bOk = unlink(szBackup) == 0 && bOk;
    // A change holds the lock on its new file to its end.
    return fdOut >= 0 && close(fdOut) == 0 && bOk;
}

// ------------------------------------------------------------------- inih

// inih goes on after a handler reports an error, so a lookup stops the parse
// by having the line reader report the end of the file once the key is found.
struct InihSearch {
    FILE *fp;
    const Lookup *pLookup;
    int nValue;
    bool bFound;
};

char *InihReadLine(char *szLine, int nSize, void *pvSearch) {
    auto *pSearch = static_cast<InihSearch *>(pvSearch);
    return pSearch->bFound ? nullptr : fgets(szLine, nSize, pSearch->fp);
}

int InihOnKey(void *pvSearch, const char *szSection, const char *szName, const char *szValue) {
    auto *pSearch = static_cast<InihSearch *>(pvSearch);
    if (strcasecmp(szSection, pSearch->pLookup->section.c_str()) == 0 &&
        strcasecmp(szName, pSearch->pLookup->key.c_str()) == 0) {
        pSearch->nValue = atoi(szValue);
        pSearch->bFound = true;
    }
    return 1;
}

int InihGet(const char *szPath, const Lookup &lookup) {
    InihSearch search{fopen(szPath, "r"), &lookup, kNotFound, false};
    if (search.fp == nullptr)
        return kNotFound - 1;
    ini_parse_stream(InihReadLine, &search, InihOnKey, &search);
    fclose(search.fp);
    return search.nValue;
}

struct InihSections {
    char szLast[128];
    int nCount;
};

int InihOnSectionKey(void *pvSections, const char *szSection, const char *, const char *) {
    auto *pSections = static_cast<InihSections *>(pvSections);
    if (pSections->nCount == 0 || strcmp(pSections->szLast, szSection) != 0) {
        snprintf(pSections->szLast, sizeof(pSections->szLast), "%s", szSection);
        ++pSections->nCount;
    }
    return 1;
}

int InihEnumerate(const char *szPath) {
    InihSections sections{};
    return ini_parse(szPath, InihOnSectionKey, &sections) == 0 ? sections.nCount : kNotFound;
}

// -------------------------------------------------------------- iniparser

int IniparserGet(const char *szPath, const Lookup &lookup) {
    dictionary *pDict = iniparser_load(szPath);
    if (pDict == nullptr)
        return kNotFound - 1;
    const int nValue = iniparser_getint(pDict, lookup.entry.c_str(), kNotFound);
    iniparser_freedict(pDict);
    return nValue;
}

int IniparserEnumerate(const char *szPath) {
    dictionary *pDict = iniparser_load(szPath);
    if (pDict == nullptr)
        return kNotFound;
    const int nSections = iniparser_getnsec(pDict);
    for (int iSection = 0; iSection < nSections; ++iSection)
        benchmark::DoNotOptimize(iniparser_getsecname(pDict, iSection));
    iniparser_freedict(pDict);
    return nSections;
}

// Loads the file, lets fnChange change the dictionary and writes it back as
// durably as the library does: temporary file synced, renamed over the
// file, directory synced. iniparser itself has no way to save.
bool IniparserRewrite(const WriteTarget &target,
                      const std::function<bool(dictionary *)> &fnChange) {
    dictionary *pDict = iniparser_load(target.path.c_str());
    if (pDict == nullptr)
        return false;
    bool bOk = fnChange(pDict);
    FILE *fp = fopen(target.tmpPath.c_str(), "w");
    if (fp != nullptr) {
        iniparser_dump_ini(pDict, fp);
        bOk = fflush(fp) == 0 && fsync(fileno(fp)) == 0 && bOk;
        bOk = fclose(fp) == 0 && bOk;
    }
    iniparser_freedict(pDict);
    return fp != nullptr && bOk && rename(target.tmpPath.c_str(), target.path.c_str()) == 0 &&
           SyncDirectory(g_benchDir.c_str());
}

// ------------------------------------------------------------------- GLib

int GlibGet(const char *szPath, const Lookup &lookup) {
    GKeyFile *pKeyFile = g_key_file_new();
    int nValue = kNotFound - 1;
    if (g_key_file_load_from_file(pKeyFile, szPath, G_KEY_FILE_NONE, nullptr)) {
        GError *pError = nullptr;
        nValue =
            g_key_file_get_integer(pKeyFile, lookup.section.c_str(), lookup.key.c_str(), &pError);
        if (pError != nullptr) {
            g_error_free(pError);
            nValue = kNotFound;
        }
    }
    g_key_file_free(pKeyFile);
    return nValue;
}

int GlibEnumerate(const char *szPath) {
    GKeyFile *pKeyFile = g_key_file_new();
    gsize nGroups = 0;
    if (g_key_file_load_from_file(pKeyFile, szPath, G_KEY_FILE_NONE, nullptr))
        g_strfreev(g_key_file_get_groups(pKeyFile, &nGroups));
    g_key_file_free(pKeyFile);
    return static_cast<int>(nGroups);
}

// Loads the file with its comments, lets fnChange change it and saves it the
// way GLib saves (g_file_set_contents), as an application using it would.
bool GlibRewrite(const WriteTarget &target, const std::function<bool(GKeyFile *)> &fnChange) {
    GKeyFile *pKeyFile = g_key_file_new();
    bool bOk = g_key_file_load_from_file(pKeyFile, target.path.c_str(), G_KEY_FILE_KEEP_COMMENTS,
                                         nullptr) &&
               fnChange(pKeyFile) &&
               g_key_file_save_to_file(pKeyFile, target.path.c_str(), nullptr);
    g_key_file_free(pKeyFile);
    return bOk;
}

// ------------------------------------------------------------------- ours

int OursGet(const char *szPath, const Lookup &lookup) {
    int nValue = kNotFound - 1;
    CfgFile_GetIntValue(szPath, lookup.section.c_str(), lookup.key.c_str(), &nValue, kNotFound);
    return nValue;
}

int OursEnumerate(const char *szPath) {
    static char szNames[64 * 1024];
    size_t nSize = sizeof(szNames);
    unsigned int nCount = 0;
    if (CfgFile_EnumerateSections(szPath, "", szNames, &nSize, &nCount) != CFGFILE_SUCCESS)
        return kNotFound;
    return static_cast<int>(nCount);
}

// ------------------------------------------------------------ the loops

using GetFunction = int (*)(const char *, const Lookup &);
using CountFunction = int (*)(const char *);
// Changes the target; the iteration's number lets a change alternate values.
using WriteFunction = std::function<bool(const WriteTarget &, int64_t)>;

void RunLookup(benchmark::State &state, GetFunction pfnGet, const char *szPath,
               const Lookup &lookup) {
    for (auto _ : state) {
        if (pfnGet(szPath, lookup) != lookup.nExpected) {
            state.SkipWithError("wrong value");
            break;
        }
    }
}

void RunCount(benchmark::State &state, CountFunction pfnCount, const char *szPath, int nExpected) {
    for (auto _ : state) {
        if (pfnCount(szPath) != nExpected) {
            state.SkipWithError("wrong count");
            break;
        }
    }
}

// bRestore: the original file is put back after every call, so that every
// call does the same work. Only the call itself is timed, by the loop's own
// clock: pausing the benchmark's timer around the restore would add the
// timer's own system calls (it reads the CPU clock too) to the rows that
// restore and not to the others.
void RunWrite(benchmark::State &state, const WriteTarget &target, const WriteFunction &fnWrite,
              bool bRestore) {
    if (!cfgbench::WriteWholeFile(target.path.c_str(), target.pFile->text)) {
        state.SkipWithError("cannot write the file");
        return;
    }
    int64_t nIteration = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        const bool bWritten = fnWrite(target, nIteration++);
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        if (!bWritten) {
            state.SkipWithError("write failed");
            break;
        }
        if (bRestore)
            cfgbench::WriteWholeFile(target.path.c_str(), target.pFile->text);
    }
}

// One side of a paired benchmark: a call, and whether it did its job.
using Call = std::function<bool()>;

double SecondsOf(int nCalls, const Call &fnCall, const std::function<void()> &fnAfter, bool &bOk) {
    double dSeconds = 0;
    for (int i = 0; i < nCalls && bOk; ++i) {
        const auto start = std::chrono::steady_clock::now();
        bOk = fnCall();
        dSeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (fnAfter)
            fnAfter();
    }
    return dSeconds;
}

// Times ours and the floor in turns of nBatch calls each, the side that goes
// first alternating, and reports the median of the turns' ratios ours/floor
// as the counter "paired". Both sides of a turn meet the same state of the
// machine, which on a shared machine drifts by more than the fastest runs of
// two separate benchmarks can tell apart. fnAfterOurs and fnAfterFloor run
// untimed after each call (putting the file back).
void RunPaired(benchmark::State &state, int nBatch, const Call &fnOurs, const Call &fnFloor,
               const std::function<void()> &fnAfterOurs = {},
               const std::function<void()> &fnAfterFloor = {}) {
    std::vector<double> ratios;
    bool bOk = true;
    for (auto _ : state) {
        const bool bOursFirst = ratios.size() % 2 == 0;
        const double dFirst = SecondsOf(nBatch, bOursFirst ? fnOurs : fnFloor,
                                        bOursFirst ? fnAfterOurs : fnAfterFloor, bOk);
        const double dSecond = SecondsOf(nBatch, bOursFirst ? fnFloor : fnOurs,
                                         bOursFirst ? fnAfterFloor : fnAfterOurs, bOk);
        if (!bOk) {
            state.SkipWithError("call failed");
            return;
        }
        const double dOurs = bOursFirst ? dFirst : dSecond;
        ratios.push_back(dOurs / (dFirst + dSecond - dOurs));
        state.SetIterationTime(dFirst + dSecond); // the benchmark's time is a turn's
    }
    std::sort(ratios.begin(), ratios.end());
    state.counters["paired"] = ratios.empty() ? 0 : ratios[ratios.size() / 2];
}

// ------------------------------------------------------------ registration

// Everything a file of one size is benchmarked with.
struct SizeCase {
    BenchFile file;
    std::string readPath; // shared by every benchmark that only reads
    Lookup first;
    Lookup last;
    Lookup missing;
};

Lookup MakeLookup(const std::string &section, const char *szKey, size_t nOffset, int nExpected) {
    std::string entry = section + ":" + szKey;
    return {section, szKey, entry, nOffset, nExpected, std::make_shared<FloorBuffer>(nOffset)};
}

// Wall-clock time; with repetitions, the fastest run is reported too: other
// work on the machine can only make a run slower.
// bManualTime: the loop times each call itself (RunWrite).
void Register(const std::string &name, std::function<void(benchmark::State &)> fnRun,
              bool bManualTime = false) {
    auto *pBenchmark = benchmark::RegisterBenchmark(
        name.c_str(), [fnRun](benchmark::State &state) { fnRun(state); });
    if (bManualTime)
        pBenchmark->UseManualTime();
    else
        pBenchmark->UseRealTime();
    pBenchmark->Unit(benchmark::kMicrosecond)
        ->ComputeStatistics("min", [](const std::vector<double> &times) {
            return *std::min_element(times.begin(), times.end());
        });
}

void RegisterLookups(const SizeCase &sizeCase, const std::string &suffix) {
    const struct {
        const char *szImpl;
        GetFunction pfnGet;
    } kImpls[] = {{"ours", OursGet},
                  {"floor",
                   [](const char *szPath, const Lookup &lookup) {
                       return FloorRead(szPath, lookup.nOffset, lookup.floorBuffer->data())
                                  ? lookup.nExpected
                                  : kNotFound - 1;
                   }},
                  {"scan",
                   [](const char *szPath, const Lookup &lookup) {
                       return ScanRead(szPath, lookup.nOffset, lookup.floorBuffer->data())
                                  ? lookup.nExpected
                                  : kNotFound - 1;
                   }},
                  {"inih", InihGet},
                  {"iniparser", IniparserGet},
                  {"glib", GlibGet}};
    const struct {
        const char *szOp;
        const Lookup *pLookup;
    } kOps[] = {{"get_first", &sizeCase.first},
                {"get_last", &sizeCase.last},
                {"get_missing", &sizeCase.missing}};
    for (const auto &op : kOps) {
        for (const auto &impl : kImpls)
            Register(
                std::string(op.szOp) + "/" + impl.szImpl + suffix,
                [&sizeCase, &lookup = *op.pLookup, pfnGet = impl.pfnGet](benchmark::State &state) {
                    RunLookup(state, pfnGet, sizeCase.readPath.c_str(), lookup);
                });
        Register(
            std::string(op.szOp) + "/paired" + suffix,
            [&sizeCase, &lookup = *op.pLookup](benchmark::State &state) {
                const char *szPath = sizeCase.readPath.c_str();
                RunPaired(
                    state, kLookupBatch,
                    [&] { return OursGet(szPath, lookup) == lookup.nExpected; },
                    [&] { return FloorRead(szPath, lookup.nOffset, lookup.floorBuffer->data()); });
            },
            true);
    }
}

bool OursFindLine(const SizeCase &sizeCase) {
    char szLine[1200];
    size_t nSize = sizeof(szLine);
    return CfgFile_FindLineStartingWith(sizeCase.readPath.c_str(), sizeCase.file.findPrefix.c_str(),
                                        szLine, &nSize) == CFGFILE_SUCCESS;
}

void RegisterScans(const SizeCase &sizeCase, const std::string &suffix) {
    const int nSections =
        static_cast<int>(std::count(sizeCase.file.text.begin(), sizeCase.file.text.end(), '['));
    const struct {
        const char *szImpl;
        CountFunction pfnCount;
    } kImpls[] = {{"ours", OursEnumerate},
                  {"inih", InihEnumerate},
                  {"iniparser", IniparserEnumerate},
                  {"glib", GlibEnumerate}};
    for (const auto &impl : kImpls)
        Register("enumerate/" + std::string(impl.szImpl) + suffix,
                 [&sizeCase, pfnCount = impl.pfnCount, nSections](benchmark::State &state) {
                     RunCount(state, pfnCount, sizeCase.readPath.c_str(), nSections);
                 });
    // The floor of each scan reads the bytes the scan needs.
    const auto fnFloor = [&sizeCase](size_t nBytes) {
        return [&sizeCase, nBytes, pBuffer = std::make_shared<FloorBuffer>(nBytes)] {
            return FloorRead(sizeCase.readPath.c_str(), nBytes, pBuffer->data());
        };
    };
    const auto fnEnumerateFloor = fnFloor(sizeCase.file.text.size());
    Register("enumerate/floor" + suffix, [fnEnumerateFloor](benchmark::State &state) {
        for (auto _ : state)
            fnEnumerateFloor();
    });
    Register(
        "enumerate/paired" + suffix,
        [&sizeCase, nSections, fnEnumerateFloor](benchmark::State &state) {
            const char *szPath = sizeCase.readPath.c_str();
            RunPaired(
                state, kLookupBatch, [&] { return OursEnumerate(szPath) == nSections; },
                fnEnumerateFloor);
        },
        true);

    Register("find_line/ours" + suffix, [&sizeCase](benchmark::State &state) {
        for (auto _ : state) {
            if (!OursFindLine(sizeCase)) {
                state.SkipWithError("line not found");
                break;
            }
        }
    });
    const auto fnFindFloor = fnFloor(sizeCase.file.nFindLineEnd);
    Register("find_line/floor" + suffix, [fnFindFloor](benchmark::State &state) {
        for (auto _ : state)
            fnFindFloor();
    });
    Register(
        "find_line/paired" + suffix,
        [&sizeCase, fnFindFloor](benchmark::State &state) {
            RunPaired(
                state, kLookupBatch, [&] { return OursFindLine(sizeCase); }, fnFindFloor);
        },
        true);
}

// The same change made by each implementation that writes.
struct WriteOperation {
    const char *szOp;
    bool bOursRestores; // set_replace alternates two values instead
    std::function<bool(const char *szPath, const BenchFile &, int64_t)> fnOurs;
    std::function<bool(dictionary *, const BenchFile &)> fnIniparser;
    std::function<bool(GKeyFile *, const BenchFile &)> fnGlib;
};

std::vector<WriteOperation> MakeWriteOperations() {
    using cfgbench::kAddedKey;
    using cfgbench::kDeletedKey;
    using cfgbench::kNewSection;
    using cfgbench::kReplacedKey;
    return {
        {"set_replace", false,
         [](const char *szPath, const BenchFile &file, int64_t nIteration) {
             const int nValue = nIteration % 2 ? 4000000 : 6000000;
             return CfgFile_SetIntValue(szPath, file.middleSection.c_str(), kReplacedKey, nValue) ==
                    CFGFILE_SUCCESS;
         },
         [](dictionary *pDict, const BenchFile &file) {
             return iniparser_set(pDict, (file.middleSection + ":" + kReplacedKey).c_str(),
                                  "4000000") == 0;
         },
         [](GKeyFile *pKeyFile, const BenchFile &file) {
             g_key_file_set_integer(pKeyFile, file.middleSection.c_str(), kReplacedKey, 4000000);
             return true;
         }},
        {"set_add", true,
         [](const char *szPath, const BenchFile &file, int64_t) {
             return CfgFile_SetIntValue(szPath, file.middleSection.c_str(), kAddedKey, 12) ==
                    CFGFILE_SUCCESS;
         },
         [](dictionary *pDict, const BenchFile &file) {
             return iniparser_set(pDict, (file.middleSection + ":" + kAddedKey).c_str(), "12") == 0;
         },
         [](GKeyFile *pKeyFile, const BenchFile &file) {
             g_key_file_set_integer(pKeyFile, file.middleSection.c_str(), kAddedKey, 12);
             return true;
         }},
        {"set_new_section", true,
         [](const char *szPath, const BenchFile &, int64_t) {
             return CfgFile_SetIntValue(szPath, kNewSection, kAddedKey, 12) == CFGFILE_SUCCESS;
         },
         [](dictionary *pDict, const BenchFile &) {
             return iniparser_set(pDict, kNewSection, nullptr) == 0 &&
                    iniparser_set(pDict, (std::string(kNewSection) + ":" + kAddedKey).c_str(),
                                  "12") == 0;
         },
         [](GKeyFile *pKeyFile, const BenchFile &) {
             g_key_file_set_integer(pKeyFile, kNewSection, kAddedKey, 12);
             return true;
         }},
        {"delete_key", true,
         [](const char *szPath, const BenchFile &file, int64_t) {
             return CfgFile_DeleteKey(szPath, file.middleSection.c_str(), kDeletedKey) ==
                    CFGFILE_SUCCESS;
         },
         [](dictionary *pDict, const BenchFile &file) {
             const std::string entry = file.middleSection + ":" + kDeletedKey;
             iniparser_unset(pDict, entry.c_str());
             return iniparser_find_entry(pDict, entry.c_str()) == 0;
         },
         [](GKeyFile *pKeyFile, const BenchFile &file) {
             return g_key_file_remove_key(pKeyFile, file.middleSection.c_str(), kDeletedKey,
                                          nullptr) != FALSE;
         }},
    };
}

// Registers one write benchmark of target, timed call by call.
void RegisterWrite(const std::string &name, WriteTarget target, WriteFunction fnWrite,
                   bool bRestore) {
    Register(
        name,
        [target = std::move(target), fnWrite = std::move(fnWrite),
         bRestore](benchmark::State &state) { RunWrite(state, target, fnWrite, bRestore); },
        true);
}

// Registers ours and the rewrite floor of one write operation, timed in turns.
void RegisterPairedWrite(const std::string &name, const WriteOperation &op, const std::string &stem,
                         const BenchFile &file) {
    const WriteTarget ours = MakeWriteTarget(stem + "paired-ours", file);
    const WriteTarget floor = MakeWriteTarget(stem + "paired-floor", file);
    auto pBuffer = std::make_shared<FloorBuffer>(file.text.size());
    Register(
        name,
        [&op, ours, floor, pBuffer](benchmark::State &state) {
            if (!cfgbench::WriteWholeFile(ours.path.c_str(), ours.pFile->text) ||
                !cfgbench::WriteWholeFile(floor.path.c_str(), floor.pFile->text)) {
                state.SkipWithError("cannot write the file");
                return;
            }
            int64_t nIteration = 0;
            const auto fnRestore = [&] {
                if (op.bOursRestores)
                    cfgbench::WriteWholeFile(ours.path.c_str(), ours.pFile->text);
            };
            RunPaired(
                state, 1, [&] { return op.fnOurs(ours.path.c_str(), *ours.pFile, nIteration++); },
                [&] { return FloorRewrite(floor, pBuffer->data(), RewriteFloor::Floor); },
                fnRestore);
        },
        true);
}

void RegisterWrites(const SizeCase &sizeCase, const std::string &suffix) {
    static const std::vector<WriteOperation> kOperations = MakeWriteOperations();
    const std::string size = suffix.substr(1);
    for (const WriteOperation &op : kOperations) {
        const std::string stem = std::string(op.szOp) + "-" + size + "-";
        const auto fnName = [&](const char *szImpl) {
            return std::string(op.szOp) + "/" + szImpl + suffix;
        };
        RegisterWrite(
            fnName("ours"), MakeWriteTarget(stem + "ours", sizeCase.file),
            [&op](const WriteTarget &t, int64_t nIteration) {
                return op.fnOurs(t.path.c_str(), *t.pFile, nIteration);
            },
            op.bOursRestores);
        RegisterWrite(
            fnName("iniparser"), MakeWriteTarget(stem + "iniparser", sizeCase.file),
            [&op](const WriteTarget &t, int64_t) {
                return IniparserRewrite(
                    t, [&](dictionary *pDict) { return op.fnIniparser(pDict, *t.pFile); });
            },
            true);
        RegisterWrite(
            fnName("glib"), MakeWriteTarget(stem + "glib", sizeCase.file),
            [&op](const WriteTarget &t, int64_t) {
                return GlibRewrite(
                    t, [&](GKeyFile *pKeyFile) { return op.fnGlib(pKeyFile, *t.pFile); });
            },
            true);
        RegisterPairedWrite(fnName("paired"), op, stem, sizeCase.file);
    }
    const struct {
        RewriteFloor kind;
        const char *szName;
    } kFloors[] = {{RewriteFloor::Floor, "floor"},
                   {RewriteFloor::Protocol, "protocol"},
                   {RewriteFloor::Streamed, "streamed"}};
    for (const auto &floor : kFloors) {
        // One buffer per benchmark, as large as the file.
        auto pBuffer = std::make_shared<FloorBuffer>(sizeCase.file.text.size());
        RegisterWrite(
            std::string("rewrite/") + floor.szName + suffix,
            MakeWriteTarget("rewrite-" + size + "-" + floor.szName, sizeCase.file),
            [pBuffer, kind = floor.kind](const WriteTarget &t, int64_t) {
                return FloorRewrite(t, pBuffer->data(), kind);
            },
            false);
    }
}

} // namespace

int main(int argc, char **argv) {
    const char *szDir = getenv("BENCH_DIR");
    g_benchDir = szDir != nullptr && *szDir != '\0' ? szDir : "/dev/shm/cfgfile-bench";
    if (mkdir(g_benchDir.c_str(), 0755) != 0 && errno != EEXIST) {
        perror(g_benchDir.c_str());
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;

    static std::vector<SizeCase> cases;
    cases.reserve(std::size(kSizes));
    for (int nLines : kSizes) {
        SizeCase &sizeCase = cases.emplace_back();
        sizeCase.file = cfgbench::MakeBenchFile(nLines);
        sizeCase.readPath = g_benchDir + "/read-" + std::to_string(nLines) + ".ini";
        sizeCase.first = MakeLookup(sizeCase.file.firstSection, cfgbench::kFirstKey,
                                    sizeCase.file.nFirstKeyEnd, sizeCase.file.nFirstValue);
        sizeCase.last = MakeLookup(sizeCase.file.lastSection, cfgbench::kLastKey,
                                   sizeCase.file.nLastKeyEnd, sizeCase.file.nLastValue);
        sizeCase.missing = MakeLookup(cfgbench::kMissingSection, cfgbench::kFirstKey,
                                      sizeCase.file.text.size(), kNotFound);
        if (!cfgbench::WriteWholeFile(sizeCase.readPath.c_str(), sizeCase.file.text)) {
            perror(sizeCase.readPath.c_str());
            return 1;
        }
        benchmark::AddCustomContext("file_bytes_" + std::to_string(nLines),
                                    std::to_string(sizeCase.file.text.size()));
    }
    for (const SizeCase &sizeCase : cases) {
        const std::string suffix = "/" + std::to_string(sizeCase.file.nLines);
        RegisterLookups(sizeCase, suffix);
        RegisterScans(sizeCase, suffix);
        RegisterWrites(sizeCase, suffix);
    }
    benchmark::AddCustomContext("bench_dir", g_benchDir);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
