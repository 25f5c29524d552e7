// Processes and threads that change and read one file at the same time,
// with no lock of their own: no update is lost, no set fails, and no read
// ever finds the file missing or half written.
#include <atomic>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include "cfgfile_api.h"
#include "test_support.h"

using namespace cfgtest;

namespace {

constexpr int kWriters = 4;        // processes
constexpr int kThreads = 2;        // threads in each
constexpr int kKeysPerThread = 25; // 200 keys in all
constexpr int kReaders = 2;        // processes

std::string KeyName(int iWriter, int iThread, int iKey) {
    return "k" + std::to_string(iWriter) + "_" + std::to_string(iThread) + "_" +
           std::to_string(iKey);
}

// Counts that the child processes leave for the test.
struct SharedCounts {
    std::atomic<int> nFailedSets;
    std::atomic<int> nReads;
    std::atomic<int> nDefaults;
    std::atomic<bool> bWritersDone;
};

// Forks a child that runs fnChild and exits.
template <class Fn> pid_t Spawn(Fn fnChild) {
    const pid_t pid = fork();
    if (pid == 0) {
        fnChild();
        _exit(0);
    }
    return pid;
}

// Sets this writer's keys from kThreads threads at once.
void WriteKeys(const std::string &file, int iWriter, SharedCounts *pCounts) {
    std::vector<std::thread> threads;
    for (int iThread = 0; iThread < kThreads; ++iThread)
        threads.emplace_back([&, iThread] {
            for (int iKey = 0; iKey < kKeysPerThread; ++iKey) {
                const std::string key = KeyName(iWriter, iThread, iKey);
                if (CfgFile_SetStringValue(file.c_str(), "stress", key.c_str(), key.c_str()) !=
                    CFGFILE_SUCCESS)
                    ++pCounts->nFailedSets;
            }
        });
    for (std::thread &thread : threads)
        thread.join();
}

// Reads a key that never changes until the writers are done.
void ReadSteadyKey(const std::string &file, SharedCounts *pCounts) {
    while (!pCounts->bWritersDone) {
        int nValue = 0;
        ++pCounts->nReads;
        if (CfgFile_GetIntValue(file.c_str(), "steady", "answer", &nValue, -1) != CFGFILE_SUCCESS ||
            nValue != 42)
            ++pCounts->nDefaults;
    }
}

class ConcurrentChanges : public ::testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        void *pShared = mmap(nullptr, sizeof(SharedCounts), PROT_READ | PROT_WRITE,
                             MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(MAP_FAILED, pShared);
        m_pCounts = new (pShared) SharedCounts{};
    }
    void TearDown() override { munmap(m_pCounts, sizeof(SharedCounts)); }

    ScratchDir dir;
    const std::string file = dir / "device.ini";
    SharedCounts *m_pCounts = nullptr;
};

// With the file there, readers read all along; with it missing, the
// writers all race to create it, and none may create it over another.
TEST_P(ConcurrentChanges, EveryValueLandsAndEveryReadFindsTheFile) {
    const bool bFileThere = GetParam();
    const std::string before = "[steady]\nanswer=42\nkept=yes\n";
    if (bFileThere)
        WriteFile(file, before);
    std::vector<pid_t> writers, readers;
    for (int iWriter = 0; iWriter < kWriters; ++iWriter)
        writers.push_back(Spawn([&, iWriter] { WriteKeys(file, iWriter, m_pCounts); }));
    for (int iReader = 0; bFileThere && iReader < kReaders; ++iReader)
        readers.push_back(Spawn([&] { ReadSteadyKey(file, m_pCounts); }));
    for (const pid_t pid : writers)
        EXPECT_EQ(pid, waitpid(pid, nullptr, 0));
    m_pCounts->bWritersDone = true;
    for (const pid_t pid : readers)
        EXPECT_EQ(pid, waitpid(pid, nullptr, 0));

    int nLost = 0;
    for (int iWriter = 0; iWriter < kWriters; ++iWriter)
        for (int iThread = 0; iThread < kThreads; ++iThread)
            for (int iKey = 0; iKey < kKeysPerThread; ++iKey) {
                const std::string key = KeyName(iWriter, iThread, iKey);
                char szValue[32] = "";
                size_t nSize = sizeof(szValue);
                CfgFile_GetStringValue(file.c_str(), "stress", key.c_str(), szValue, &nSize, "");
                nLost += key != szValue;
            }
    printf("[ STRESS   ] %s: %d sets, %d lost, %d failed; %d reads, %d defaults\n",
           bFileThere ? "file there" : "file missing", kWriters * kThreads * kKeysPerThread, nLost,
           m_pCounts->nFailedSets.load(), m_pCounts->nReads.load(), m_pCounts->nDefaults.load());
    EXPECT_EQ(0, nLost);
    EXPECT_EQ(0, m_pCounts->nFailedSets);
    EXPECT_EQ(0, m_pCounts->nDefaults);
    if (bFileThere) {
        EXPECT_EQ(0u, ReadFile(file).find(before));
    }
    EXPECT_FALSE(Exists(dir / "device.tmp") || Exists(dir / "device.bak"));
}

INSTANTIATE_TEST_SUITE_P(FileThereOrMissing, ConcurrentChanges, ::testing::Bool(),
                         [](const auto &info) { return info.param ? "There" : "Missing"; });

// A caller that serialises with flock on the settings file itself, as
// flock(1) does, is neither blocked nor failed by the library's exclusion.
TEST(CallerLocks, FlockOnTheFileStillLetsChangesThrough) {
    ScratchDir dir;
    const std::string file = dir / "device.ini";
    WriteFile(file, "[net]\nport=80\n");
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, flock(fd, LOCK_EX));
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_SetIntValue(file.c_str(), "net", "port", 81));
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_DeleteKey(file.c_str(), "net", "port"));
    close(fd);
    EXPECT_EQ("[net]\n", ReadFile(file));
}

} // namespace
