// Rewrites with every system call failed or interrupted in turn: whatever
// call goes wrong, the file's name holds the whole old or the whole new
// content, never a short or empty file.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <thread>

#include <fcntl.h>

#include "rewrites.h"

extern "C" void CfgFileSeam_Arm(int nCall, int nErrno);
extern "C" void CfgFileSeam_RefuseLinks(int bRefuse);
extern "C" void CfgFileSeam_RefuseSyncs(int bRefuse);
extern "C" int CfgFileSeam_Calls(void);

using namespace cfgtest;

namespace {

using RewriteFaults = RewriteTest;

TEST_P(RewriteFaults, FailedOrKilledCallLeavesWholeFile) {
    const Rewrite &op = GetParam();
    // Puts the input back and removes what an interrupted rewrite left.
    const auto fnRestore = [&] {
        unlink(tmp.c_str());
        unlink(bak.c_str());
        WriteFile(file, kInput);
    };
    fnRestore();
    CfgFileSeam_Arm(0, 0);
    ASSERT_EQ(CFGFILE_SUCCESS, Run());
    const int nCalls = CfgFileSeam_Calls();
    int nFailures = 0, nUnopened = 0, nMoveFailures = 0, nWhole = 0;
    for (const int nErrno : {EIO, ENOSPC})
        for (int k = 1; k <= nCalls; ++k) {
            SCOPED_TRACE("call " + std::to_string(k) + ", errno " + std::to_string(nErrno));
            fnRestore();
            TraceCapture trace(7);
            CfgFileSeam_Arm(k, nErrno);
            const int iRetCode = Run();
            CfgFileSeam_Arm(0, 0);
            const std::string content = ReadFile(file);
            ASSERT_TRUE(content == kInput || content == op.after) << content;
            // A failed second rename must put the old file back: the checks below hold.
            nMoveFailures += Traced(trace, "Failed to move tmp file to new config file, errno=");
            if (iRetCode == CFGFILE_SUCCESS && content == op.after) {
                EXPECT_FALSE(Exists(tmp));
                // A backup stays when it could not be deleted or the directory synced.
                EXPECT_TRUE(!Exists(bak) || ReadFile(bak) == kInput);
            } else if (iRetCode != CFGFILE_SUCCESS && content == kInput) {
                ++nFailures;
            } else {
                // A deletion that cannot open the file has nothing to remove from it.
                EXPECT_TRUE(op.iUnopened == CFGFILE_SUCCESS && k == 1);
                ++nUnopened;
            }
        }
    EXPECT_GT(nMoveFailures, 0) << "no fault point reached the second rename";
    printf("[ FAULTS   ] %s: %d fault points, %d failed with the old file, %d unopened\n", op.name,
           2 * nCalls, nFailures, nUnopened);

    // Killed after any call: the name always holds the whole old or new file.
    // Where the file system gives no second name (vfat), the old file is
    // moved to the backup name instead: one crash point lies between the two
    // renames, and CfgFile_RecoverFile puts the backup back.
    for (const bool bRefuseLinks : {false, true}) {
        int nRecovered = 0;
        for (int k = 1; k <= nCalls; ++k) {
            SCOPED_TRACE("killed after call " + std::to_string(k));
            fnRestore();
            EXPECT_EQ(-SIGKILL, InChild(false, [&] {
                CfgFileSeam_RefuseLinks(bRefuseLinks);
                CfgFileSeam_Arm(k, 0);
                return Run();
            }));
            nRecovered += !Exists(file);
            ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_RecoverFile(file.c_str()));
            const std::string content = ReadFile(file);
            const bool bWhole = content == kInput || content == op.after;
            EXPECT_TRUE(bWhole) << content;
            nWhole += bWhole;
        }
        EXPECT_EQ(bRefuseLinks ? 1 : 0, nRecovered);
    }
    printf("[ CRASHES  ] %s: %d crash points with links, %d without; whole at %d\n", op.name,
           nCalls, nCalls, nWhole);
}

// A new file that could not be synced to disk is never swapped in.
TEST_P(RewriteFaults, UnsyncedFileIsNeverSwappedIn) {
    WriteFile(file, kInput);
    CfgFileSeam_Arm(0, 0);
    CfgFileSeam_RefuseSyncs(1);
    const int iRetCode = Run();
    CfgFileSeam_RefuseSyncs(0);
    EXPECT_EQ(CFGFILE_FAILURE, iRetCode);
    EXPECT_EQ(kInput, ReadFile(file));
}

// A temporary file that no change holds (its process died) is taken over;
// one that a live change holds is neither removed nor swapped in: the
// change waits for it, and fails, untouched, when the wait runs out.
TEST_P(RewriteFaults, TemporaryFileOfALiveChangeIsNeverTaken) {
    const Rewrite &op = GetParam();
    CfgFileSeam_Arm(0, 0);
    WriteFile(file, kInput);
    WriteFile(tmp, "left by a change that died");
    EXPECT_EQ(CFGFILE_SUCCESS, Run());
    EXPECT_EQ(op.after, ReadFile(file));
    EXPECT_FALSE(Exists(tmp));

    WriteFile(file, kInput);
    WriteFile(tmp, "held by a live change");
    const int fd = open(tmp.c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_start = off_t(1) << 62;
    lock.l_len = 1;
    ASSERT_EQ(0, fcntl(fd, F_OFD_SETLK, &lock));
    EXPECT_EQ(CFGFILE_FAILURE, Run());
    EXPECT_EQ(kInput, ReadFile(file));
    EXPECT_EQ("held by a live change", ReadFile(tmp));
    // Released while the change waits: it goes on and succeeds.
    std::thread release([&] {
        usleep(100000);
        close(fd);
    });
    EXPECT_EQ(CFGFILE_SUCCESS, Run());
    release.join();
    EXPECT_EQ(op.after, ReadFile(file));
}

// Lines that need no look are copied in runs: besides the calls that open,
// sync and swap the files, a rewrite makes a read and a write per block of
// the file, whatever its number of lines.
TEST_P(RewriteFaults, SystemCallsGrowWithBlocksNotLines) {
    std::string filler;
    for (int iSection = 0; iSection < 1000; ++iSection)
        filler += "\n[filler" + std::to_string(iSection) + "]\nname=value of some length\nk=2\n";
    const std::string input = filler + "\n" + kInput + filler;
    WriteFile(file, input);
    TraceCapture silent(0); // a trace that numbers lines makes every line a stop
    CfgFileSeam_Arm(0, 0);
    ASSERT_EQ(CFGFILE_SUCCESS, Run());
    const int nBlocks = static_cast<int>(input.size() / CFGFILE_IO_BLOCK) + 1;
    EXPECT_LE(CfgFileSeam_Calls(), 16 + 2 * nBlocks) << input.size() << " bytes";
}

INSTANTIATE_TEST_SUITE_P(AllRewrites, RewriteFaults, ::testing::ValuesIn(kRewrites), RewriteName);

// A read that fails in a lookup: a line it cuts is never taken for a value,
// and a device is told by its type and refused like a file that cannot be
// opened. The calls: open, first read, second read.
TEST(LookupFaults, FailedReadCutsNoValueAndRefusesDevices) {
    ScratchDir dir;
    const std::string file = dir / "cut.ini";
    std::string text = "[net]\n";
    while (text.size() + 100 <= 4089)
        text += "# " + std::string(97, 'x') + "\n";
    text += "#" + std::string(4089 - text.size() - 2, 'x') + "\n";
    text += "port=12345\n"; // "port=12" ends the first 4 KiB block
    ASSERT_EQ(4100u, text.size());
    WriteFile(file, text);
    const struct {
        const char *szPath;
        int nFailedCall;
        int iResult;
        int nValue;
    } kCases[] = {{file.c_str(), 0, CFGFILE_SUCCESS, 12345},
                  {file.c_str(), 3, CFGFILE_KEY_NOT_FOUND, 7},
                  {"/dev/zero", 3, CFGFILE_FILE_ACCESS, 7}};
    for (const auto &c : kCases) {
        SCOPED_TRACE(std::string(c.szPath) + ", failed call " + std::to_string(c.nFailedCall));
        CfgFileSeam_Arm(c.nFailedCall, EIO);
        int nValue = 0;
        EXPECT_EQ(c.iResult, CfgFile_GetIntValue(c.szPath, "net", "port", &nValue, 7));
        CfgFileSeam_Arm(0, 0);
        EXPECT_EQ(c.nValue, nValue);
    }
}

} // namespace
