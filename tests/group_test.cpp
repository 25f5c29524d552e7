// Handing a settings file to a group: the group, the mode bits, failures and
// their messages. Runs as root, which may give a file to any group.
#include <grp.h>
#include <sys/wait.h>

#include "cfgfile_api.h"
#include "test_support.h"

using cfgtest::ScratchDir;
using cfgtest::TraceCapture;
using cfgtest::WriteFile;

namespace {

constexpr gid_t kGroup = 4321;
constexpr gid_t kOldGroup = 99;
constexpr uid_t kOwner = 1234;
constexpr uid_t kNobody = 65534;

struct stat StatOf(const std::string &path) {
    struct stat st {};
    EXPECT_EQ(0, stat(path.c_str(), &st)) << path;
    return st;
}

struct ModeCase {
    const char *name;
    mode_t before;
    gid_t group;
    mode_t after;
};

class GroupMode : public ::testing::TestWithParam<ModeCase> {};

TEST_P(GroupMode, GivesFileToGroupWithGroupWrite) {
    const ModeCase &c = GetParam();
    ScratchDir dir;
    const std::string file = dir / "cam.ini";
    WriteFile(file, "[a]\nk=1\n");
    ASSERT_EQ(0, chown(file.c_str(), kOwner, kOldGroup));
    ASSERT_EQ(0, chmod(file.c_str(), c.before));
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_SetGroupOwnership(file.c_str(), c.group));
    const struct stat st = StatOf(file);
    EXPECT_EQ(c.group == static_cast<gid_t>(-1) ? kOldGroup : c.group, st.st_gid);
    EXPECT_EQ(kOwner, st.st_uid);
    EXPECT_EQ(c.after, st.st_mode & 07777);
}

const ModeCase kModeCases[] = {
    {"Readable", 0644, kGroup, 0664},
    {"AlreadyGroupWritable", 0660, kGroup, 0660},
    {"OtherBitsKept", 0604, kGroup, 0624},
    {"OtherWriteOnly", 0002, kGroup, 0022},
    {"SetGroupIdAndStickyKept", 03644, kGroup, 03664}, // root's chmod keeps set-group-ID
    {"UnchangedGroupStillGetsWrite", 0640, static_cast<gid_t>(-1), 0660},
};

INSTANTIATE_TEST_SUITE_P(GroupOwnership, GroupMode, ::testing::ValuesIn(kModeCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(GroupOwnership, LinkChangesItsTarget) {
    ScratchDir dir;
    const std::string target = dir / "real.ini", link = dir / "cam.ini";
    WriteFile(target, "");
    ASSERT_EQ(0, chmod(target.c_str(), 0644));
    ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_SetGroupOwnership(link.c_str(), kGroup));
    EXPECT_EQ(kGroup, StatOf(target).st_gid);
    EXPECT_EQ(0664u, StatOf(target).st_mode & 07777);
    struct stat linkStat {};
    ASSERT_EQ(0, lstat(link.c_str(), &linkStat));
    EXPECT_TRUE(S_ISLNK(linkStat.st_mode));
    EXPECT_EQ(0u, linkStat.st_gid);
}

TEST(GroupOwnership, MissingFileFailsWithOneMessage) {
    ScratchDir dir;
    const std::string file = dir / "none.ini";
    TraceCapture trace(8);
    EXPECT_EQ(CFGFILE_FAILURE, CfgFile_SetGroupOwnership(file.c_str(), kGroup));
    ASSERT_EQ(1u, trace.Messages().size());
    EXPECT_EQ(3, trace.Messages()[0].nLevel);
    EXPECT_EQ("Failed to set group ownership file \"" + file +
                  "\", errno=2, \"No such file or directory\".\n",
              trace.Messages()[0].text);
    EXPECT_FALSE(cfgtest::Exists(file));
}

// Exit codes of the unprivileged child below.
enum ChildExit { kChildOk = 0, kChildNoDrop = 10, kChildWrongResult, kChildWrongMessage };

ChildExit TryAsNobody(const std::string &file) {
    if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0)
        return kChildNoDrop;
    TraceCapture trace(3);
    if (CfgFile_SetGroupOwnership(file.c_str(), kGroup) != CFGFILE_FAILURE)
        return kChildWrongResult;
    const std::string expected = "Failed to set group ownership file \"" + file +
                                 "\", errno=1, \"Operation not permitted\".\n";
    if (trace.Texts() != std::vector<std::string>{expected})
        return kChildWrongMessage;
    return kChildOk;
}

TEST(GroupOwnership, UnprivilegedCallerIsRefused) {
    ScratchDir dir;
    const std::string file = dir / "cam.ini";
    WriteFile(file, "[a]\n");
    ASSERT_EQ(0, chmod(file.c_str(), 0644));
    ASSERT_EQ(0, chmod(dir.Path().c_str(), 0755)); // the child must reach the file
    const pid_t pid = fork();
    ASSERT_NE(-1, pid);
    if (pid == 0)
        _exit(TryAsNobody(file));
    int nStatus = 0;
    ASSERT_EQ(pid, waitpid(pid, &nStatus, 0));
    ASSERT_TRUE(WIFEXITED(nStatus));
    EXPECT_EQ(kChildOk, WEXITSTATUS(nStatus));
    EXPECT_EQ(0u, StatOf(file).st_gid);
    EXPECT_EQ(0644u, StatOf(file).st_mode & 07777);
}

TEST(GroupOwnership, NullNameRefused) {
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_SetGroupOwnership(nullptr, kGroup));
}

} // namespace
