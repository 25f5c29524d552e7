// Rewrites with every system call failed or interrupted in turn: whatever
// call goes wrong, the file's name holds the whole old or the whole new
// content, never a short or empty file.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

#include "cfgfile_api.h"
#include "test_support.h"

extern "C" void CfgFileSeam_Arm(int nCall, int nErrno);
extern "C" int CfgFileSeam_Calls(void);

using cfgtest::Exists;
using cfgtest::ReadFile;
using cfgtest::ScratchDir;
using cfgtest::TraceCapture;
using cfgtest::WriteFile;

namespace {

// One rewriting operation, an input it changes and the bytes it makes of it.
struct Rewrite {
    const char *name;
    int (*run)(const char *szFile);
    const char *before;
    const char *after;
    bool bDeletion; // succeeds, changing nothing, when the file cannot be opened
};

constexpr char kInput[] = "[net]\nport=80\nhost=a\n# keep\n[video]\nmode=1080\n";

const Rewrite kRewrites[] = {
    {"SetValue", [](const char *f) { return CfgFile_SetStringValue(f, "net", "port", "81"); },
     kInput, "[net]\nport=81\nhost=a\n# keep\n[video]\nmode=1080\n", false},
    {"DeleteSections", [](const char *f) { return CfgFile_DeleteSections(f, "video"); }, kInput,
     "[net]\nport=80\nhost=a\n# keep\n", true},
    {"DeleteKey", [](const char *f) { return CfgFile_DeleteKey(f, "net", "host"); }, kInput,
     "[net]\nport=80\n# keep\n[video]\nmode=1080\n", true},
    {"DeleteAllSectionKeys", [](const char *f) { return CfgFile_DeleteAllSectionKeys(f, "net"); },
     kInput, "[net]\n# keep\n[video]\nmode=1080\n", true},
    {"CommentLine", [](const char *f) { return CfgFile_CommentLineStartingWith(f, "host"); },
     kInput, "[net]\nport=80\n#host=a\n# keep\n[video]\nmode=1080\n", false},
    {"DeleteLine", [](const char *f) { return CfgFile_DeleteLineStartingWith(f, "mode"); }, kInput,
     "[net]\nport=80\nhost=a\n# keep\n[video]\n", false},
};

// Names the case in test listings.
void PrintTo(const Rewrite &rewrite, std::ostream *pOut) {
    *pOut << rewrite.name;
}

bool Traced(const TraceCapture &trace, const std::string &prefix) {
    for (const std::string &text : trace.Texts())
        if (text.rfind(prefix, 0) == 0)
            return true;
    return false;
}

class RewriteFaults : public ::testing::TestWithParam<Rewrite> {
  protected:
    // Puts the input back and removes what an interrupted rewrite left.
    void Restore() {
        unlink(tmp.c_str());
        unlink(bak.c_str());
        WriteFile(file, GetParam().before);
    }

    // The number of seamed calls an undisturbed run makes.
    int CountCalls() {
        Restore();
        CfgFileSeam_Arm(0, 0);
        EXPECT_EQ(CFGFILE_SUCCESS, GetParam().run(file.c_str()));
        EXPECT_EQ(GetParam().after, ReadFile(file));
        return CfgFileSeam_Calls();
    }

    ScratchDir dir;
    const std::string file = dir / "device.ini";
    const std::string tmp = dir / "device.tmp";
    const std::string bak = dir / "device.bak";
};

TEST_P(RewriteFaults, FailedCallLeavesWholeOldOrNewFile) {
    const Rewrite &op = GetParam();
    const int nCalls = CountCalls();
    int nPoints = 0, nFailures = 0, nUnopened = 0;
    bool bMoveFailed = false, bBackupKept = false;
    for (const int nErrno : {EIO, ENOSPC}) {
        for (int k = 1; k <= nCalls; ++k) {
            SCOPED_TRACE("call " + std::to_string(k) + " of " + std::to_string(nCalls) +
                         " fails with errno " + std::to_string(nErrno));
            Restore();
            TraceCapture trace(7);
            CfgFileSeam_Arm(k, nErrno);
            const int iRetCode = op.run(file.c_str());
            CfgFileSeam_Arm(0, 0);
            ++nPoints;
            const std::string content = ReadFile(file);
            ASSERT_TRUE(content == op.before || content == op.after)
                << "found \"" << content << "\"";
            if (Traced(trace, "Failed to move tmp file to new config file, errno=")) {
                bMoveFailed = true;
                EXPECT_NE(CFGFILE_SUCCESS, iRetCode);
                EXPECT_EQ(op.before, content) << "the old file was not put back";
            }
            // Only the backup's deletion may fail after the swap: the backup stays.
            if (Traced(trace, "Failed to delete backup file")) {
                bBackupKept = true;
                EXPECT_EQ(CFGFILE_SUCCESS, iRetCode);
                EXPECT_EQ(op.after, content);
                EXPECT_EQ(op.before, ReadFile(bak));
                continue;
            }
            if (iRetCode == CFGFILE_SUCCESS && content == op.after) {
                EXPECT_FALSE(Exists(tmp));
                // The backup stays only when the directory could not be synced.
                if (Exists(bak)) {
                    EXPECT_EQ(op.before, ReadFile(bak));
                }
                continue;
            }
            if (iRetCode != CFGFILE_SUCCESS && content == op.before) {
                ++nFailures;
                continue;
            }
            // A deletion that cannot open the file has nothing to remove from it.
            EXPECT_TRUE(op.bDeletion && k == 1 && iRetCode == CFGFILE_SUCCESS)
                << "result " << iRetCode << " with content \"" << content << "\"";
            ++nUnopened;
        }
    }
    EXPECT_TRUE(bMoveFailed) << "no fault point reached the second rename";
    EXPECT_TRUE(bBackupKept) << "no fault point reached the backup's deletion";
    RecordProperty("fault_points", nPoints);
    printf("[ FAULTS   ] %s: %d calls, %d fault points, %d failed with the old file, "
           "%d deletions of a file they could not open\n",
           op.name, nCalls, nPoints, nFailures, nUnopened);
}

TEST_P(RewriteFaults, KillAfterAnyCallLeavesWholeFile) {
    const Rewrite &op = GetParam();
    const int nCalls = CountCalls();
    int nGood = 0;
    for (int k = 1; k <= nCalls; ++k) {
        SCOPED_TRACE("killed after call " + std::to_string(k) + " of " + std::to_string(nCalls));
        Restore();
        const pid_t pid = fork();
        if (pid == 0) {
            CfgFileSeam_Arm(k, 0);
            op.run(file.c_str());
            _exit(0);
        }
        int nStatus = 0;
        ASSERT_EQ(pid, waitpid(pid, &nStatus, 0));
        EXPECT_TRUE(WIFSIGNALED(nStatus) && WTERMSIG(nStatus) == SIGKILL);
        // Between the two renames the old content lives only under the backup name.
        const std::string content = ReadFile(Exists(file) ? file : bak);
        const bool bGood = content == op.before || (Exists(file) && content == op.after);
        EXPECT_TRUE(bGood) << "found \"" << content << "\"";
        nGood += bGood;
    }
    RecordProperty("crash_points", nCalls);
    printf("[ CRASHES  ] %s: %d crash points, %d states whole\n", op.name, nCalls, nGood);
}

INSTANTIATE_TEST_SUITE_P(AllRewrites, RewriteFaults, ::testing::ValuesIn(kRewrites),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
