// Rewrites under real faults: a failure leaves the old file byte for byte, a
// success leaves only the new file, and nothing planted beside the file (a
// directory, a link, a leftover) is followed, kept or swapped in.
#include <csignal>
#include <string>

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cfgfile_api.h"
#include "test_support.h"

using cfgtest::Exists;
using cfgtest::Inode;
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
};

constexpr char kInput[] = "[net]\nport=80\nhost=a\n# keep\n[video]\nmode=1080\n";

const Rewrite kRewrites[] = {
    {"SetValue", [](const char *f) { return CfgFile_SetStringValue(f, "net", "port", "81"); },
     kInput, "[net]\nport=81\nhost=a\n# keep\n[video]\nmode=1080\n"},
    {"DeleteSections", [](const char *f) { return CfgFile_DeleteSections(f, "video"); }, kInput,
     "[net]\nport=80\nhost=a\n# keep\n"},
    {"DeleteKey", [](const char *f) { return CfgFile_DeleteKey(f, "net", "host"); }, kInput,
     "[net]\nport=80\n# keep\n[video]\nmode=1080\n"},
    {"DeleteAllSectionKeys", [](const char *f) { return CfgFile_DeleteAllSectionKeys(f, "net"); },
     kInput, "[net]\n# keep\n[video]\nmode=1080\n"},
    {"CommentLine", [](const char *f) { return CfgFile_CommentLineStartingWith(f, "host"); },
     kInput, "[net]\nport=80\n#host=a\n# keep\n[video]\nmode=1080\n"},
    {"DeleteLine", [](const char *f) { return CfgFile_DeleteLineStartingWith(f, "mode"); }, kInput,
     "[net]\nport=80\nhost=a\n# keep\n[video]\n"},
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

struct stat StatOf(const std::string &path) {
    struct stat st {};
    lstat(path.c_str(), &st);
    return st;
}

// Runs fnChild in a child process; its exit status, or -1 when it did not exit.
template <class Fn> int InChild(Fn fnChild) {
    const pid_t pid = fork();
    if (pid == 0)
        _exit(fnChild());
    int nStatus = 0;
    if (pid < 0 || waitpid(pid, &nStatus, 0) != pid || !WIFEXITED(nStatus))
        return -1;
    return WEXITSTATUS(nStatus);
}

// Becomes "nobody", so that file permissions apply to the caller.
bool DropPrivileges() {
    return setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0;
}

class RewriteSafety : public ::testing::TestWithParam<Rewrite> {
  protected:
    int Run() { return GetParam().run(file.c_str()); }

    ScratchDir dir;
    const std::string file = dir / "device.ini";
    const std::string tmp = dir / "device.tmp";
    const std::string bak = dir / "device.bak";
};

TEST_P(RewriteSafety, DirectoryAtTemporaryNameFailsBeforeAnyChange) {
    WriteFile(file, GetParam().before);
    const ino_t nInode = Inode(file);
    ASSERT_EQ(0, mkdir(tmp.c_str(), 0755));
    TraceCapture trace(7);
    EXPECT_EQ(CFGFILE_FAILURE, Run());
    EXPECT_EQ(GetParam().before, ReadFile(file));
    EXPECT_EQ(nInode, Inode(file));
    EXPECT_TRUE(trace.Contains("Unable to open tmp file \"" + tmp + "\".\n"));
    // Nothing was copied, so the writer has no failed copy to report.
    EXPECT_FALSE(Traced(trace, "FAILED for"));
}

TEST_P(RewriteSafety, DirectoryAtBackupNameKeepsFileAndPrivateTemporary) {
    ASSERT_EQ(0, mkdir(bak.c_str(), 0755));
    WriteFile(bak + "/occupied", "x");
    for (const mode_t nMode : {0600, 0640}) {
        SCOPED_TRACE(nMode);
        WriteFile(file, GetParam().before);
        ASSERT_EQ(0, chmod(file.c_str(), nMode));
        TraceCapture trace(7);
        EXPECT_EQ(CFGFILE_FAILURE, Run());
        EXPECT_EQ(GetParam().before, ReadFile(file));
        EXPECT_TRUE(Traced(trace, "Failed to rename config file \"" + file + "\" to backup \"" +
                                      bak + "\", errno="));
        // The temporary file left behind is complete and no more open than the file.
        EXPECT_EQ(GetParam().after, ReadFile(tmp));
        EXPECT_EQ(nMode, StatOf(tmp).st_mode & 07777);
    }
}

TEST_P(RewriteSafety, FileSizeLimitFailsTheWriteAndKeepsTheFile) {
    std::string before;
    for (int i = 0; i < 40; ++i)
        before += "# padding that makes the file larger than the limit\n";
    before += GetParam().before;
    WriteFile(file, before);
    const int nStatus = InChild([&] {
        const rlimit limit{100, 100};
        signal(SIGXFSZ, SIG_IGN);
        return setrlimit(RLIMIT_FSIZE, &limit) == 0 ? Run() : 255;
    });
    EXPECT_EQ(CFGFILE_FAILURE, nStatus);
    EXPECT_EQ(before, ReadFile(file));
}

TEST_P(RewriteSafety, ModeAndOwnerCarriedOver) {
    for (const mode_t nMode : {0640, 0600}) {
        SCOPED_TRACE(nMode);
        WriteFile(file, GetParam().before);
        ASSERT_EQ(0, chmod(file.c_str(), nMode));
        ASSERT_EQ(0, chown(file.c_str(), 1234, 5678));
        ASSERT_EQ(CFGFILE_SUCCESS, Run());
        EXPECT_EQ(GetParam().after, ReadFile(file));
        const struct stat st = StatOf(file);
        EXPECT_EQ(nMode, st.st_mode & 07777);
        EXPECT_EQ(1234u, st.st_uid);
        EXPECT_EQ(5678u, st.st_gid);
    }
}

TEST_P(RewriteSafety, LinkedPathRewrittenAtTarget) {
    const std::string linkDir = dir / "etc", dataDir = dir / "data";
    ASSERT_EQ(0, mkdir(linkDir.c_str(), 0755));
    ASSERT_EQ(0, mkdir(dataDir.c_str(), 0755));
    const std::string target = dataDir + "/device.ini", link = linkDir + "/device.ini";
    WriteFile(target, GetParam().before);
    ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
    ASSERT_EQ(CFGFILE_SUCCESS, GetParam().run(link.c_str()));
    EXPECT_TRUE(S_ISLNK(StatOf(link).st_mode));
    EXPECT_EQ(GetParam().after, ReadFile(target));
    for (const char *szLeftover : {"/device.tmp", "/device.bak"}) {
        EXPECT_FALSE(Exists(linkDir + szLeftover));
        EXPECT_FALSE(Exists(dataDir + szLeftover));
    }
}

TEST_P(RewriteSafety, LinkAtTemporaryNameIsNotFollowed) {
    const std::string victim = dir / "victim";
    WriteFile(victim, "precious\n");
    WriteFile(file, GetParam().before);
    ASSERT_EQ(0, symlink(victim.c_str(), tmp.c_str()));
    ASSERT_EQ(CFGFILE_SUCCESS, Run());
    EXPECT_EQ(GetParam().after, ReadFile(file));
    EXPECT_EQ("precious\n", ReadFile(victim));
    EXPECT_FALSE(Exists(tmp));
}

TEST_P(RewriteSafety, LeftoverCompanionFilesAreReplacedAndRemoved) {
    WriteFile(file, GetParam().before);
    WriteFile(tmp, std::string(3000, 'g') + "\n[garbage]\nk=v\n");
    WriteFile(bak, "[old]\nbackup=1\n");
    ASSERT_EQ(CFGFILE_SUCCESS, Run());
    EXPECT_EQ(GetParam().after, ReadFile(file));
    EXPECT_FALSE(Exists(tmp));
    EXPECT_FALSE(Exists(bak));
}

// A directory or FIFO at the name is never read (a FIFO would block), never
// replaced, and nothing is created beside it.
TEST_P(RewriteSafety, NonRegularFileAtNameIsLeftAlone) {
    ASSERT_EQ(0, mkdir(file.c_str(), 0755));
    const std::string fifo = dir / "pipe.ini";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0644));
    alarm(20);
    GetParam().run(file.c_str());
    GetParam().run(fifo.c_str());
    alarm(0);
    EXPECT_TRUE(S_ISDIR(StatOf(file).st_mode));
    EXPECT_TRUE(S_ISFIFO(StatOf(fifo).st_mode));
    for (const char *szLeftover : {"device.tmp", "device.bak", "pipe.tmp", "pipe.bak"})
        EXPECT_FALSE(Exists(dir / szLeftover)) << szLeftover;
}

INSTANTIATE_TEST_SUITE_P(AllRewrites, RewriteSafety, ::testing::ValuesIn(kRewrites),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(RewriteSafetyOnce, DeleteKeyWithNothingToDeleteKeepsFileAndClearsLeftovers) {
    ScratchDir dir;
    const std::string file = dir / "device.ini";
    WriteFile(file, kInput);
    WriteFile(dir / "device.tmp", "garbage\n");
    WriteFile(dir / "device.bak", "old\n");
    const ino_t nInode = Inode(file);
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_DeleteKey(file.c_str(), "net", "absent"));
    EXPECT_EQ(kInput, ReadFile(file));
    EXPECT_EQ(nInode, Inode(file));
    EXPECT_FALSE(Exists(dir / "device.tmp"));
    EXPECT_FALSE(Exists(dir / "device.bak"));
}

TEST(RewriteSafetyOnce, NonRegularFileIsUnreadableForGettersAndSetter) {
    ScratchDir dir;
    const std::string directory = dir / "dir.ini", fifo = dir / "pipe.ini";
    ASSERT_EQ(0, mkdir(directory.c_str(), 0755));
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0644));
    alarm(20);
    for (const std::string &path : {directory, fifo}) {
        SCOPED_TRACE(path);
        char szBuffer[16];
        size_t nSize = sizeof(szBuffer);
        EXPECT_EQ(CFGFILE_FILE_ACCESS,
                  CfgFile_GetStringValue(path.c_str(), "net", "port", szBuffer, &nSize, "dflt"));
        EXPECT_STREQ("dflt", szBuffer);
        int nValue = 0;
        EXPECT_EQ(CFGFILE_FILE_ACCESS,
                  CfgFile_GetIntValue(path.c_str(), "net", "port", &nValue, 7));
        EXPECT_EQ(7, nValue);
        EXPECT_NE(CFGFILE_SUCCESS, CfgFile_SetStringValue(path.c_str(), "net", "port", "81"));
    }
    alarm(0);
}

TEST(RewriteSafetyOnce, CreationDeniedIsFileAccess) {
    ScratchDir dir;
    const std::string readOnlyDir = dir / "ro";
    ASSERT_EQ(0, chmod(dir.Path().c_str(), 0755));
    ASSERT_EQ(0, mkdir(readOnlyDir.c_str(), 0755));
    const std::string file = readOnlyDir + "/device.ini";
    // Result code, plus 128 when the creation failure was not traced.
    const int nStatus = InChild([&] {
        if (!DropPrivileges())
            return 255;
        TraceCapture trace(7);
        const int iRetCode = CfgFile_SetStringValue(file.c_str(), "net", "port", "81");
        return iRetCode + (trace.Contains("Failed to create new file, errno=13.\n") ? 0 : 128);
    });
    EXPECT_EQ(CFGFILE_FILE_ACCESS, nStatus);
    EXPECT_FALSE(Exists(file));
}

TEST(RewriteSafetyOnce, UnreadableFileIsNeverReplaced) {
    ScratchDir dir;
    const std::string openDir = dir / "rw";
    ASSERT_EQ(0, chmod(dir.Path().c_str(), 0755));
    ASSERT_EQ(0, mkdir(openDir.c_str(), 0777));
    ASSERT_EQ(0, chmod(openDir.c_str(), 0777));
    const std::string file = openDir + "/device.ini";
    WriteFile(file, kInput);
    ASSERT_EQ(0, chmod(file.c_str(), 0));
    const ino_t nInode = Inode(file);
    const int nStatus = InChild([&] {
        return DropPrivileges() ? CfgFile_SetStringValue(file.c_str(), "net", "port", "81") : 255;
    });
    EXPECT_EQ(CFGFILE_FILE_ACCESS, nStatus);
    EXPECT_EQ(kInput, ReadFile(file));
    EXPECT_EQ(nInode, Inode(file));
    EXPECT_FALSE(Exists(openDir + "/device.tmp"));
}

} // namespace
