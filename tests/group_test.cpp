// Handing a settings file to a group: the group, the mode bits, failures and
// their messages. Runs as root, which may give a file to any group.
#include "rewrites.h"

using namespace cfgtest;

namespace {

// Each file is named through a link: its target changes, the link does not.
TEST(GroupOwnership, GivesTargetToGroupWithGroupWrite) {
    const struct {
        unsigned int nBefore, nGroup, nAfter;
    } kCases[] = {
        {0644, 4321, 0664},
        {0660, 4321, 0660},
        {02644, 4321, 02664},    // root's chmod keeps set-group-ID
        {0640, gid_t(-1), 0660}, // group unchanged, write still added
    };
    ScratchDir dir;
    const std::string file = dir / "cam.ini", link = dir / "link.ini";
    ASSERT_EQ(0, symlink(file.c_str(), link.c_str()));
    for (const auto &c : kCases) {
        WriteFile(file, "[a]\n");
        ASSERT_EQ(0, chown(file.c_str(), 1234, 99));
        ASSERT_EQ(0, chmod(file.c_str(), c.nBefore));
        EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_SetGroupOwnership(link.c_str(), c.nGroup));
        const struct stat st = StatOf(file);
        EXPECT_EQ(std::tuple(1234u, c.nGroup == gid_t(-1) ? 99 : c.nGroup, c.nAfter),
                  std::tuple(st.st_uid, st.st_gid, st.st_mode & 07777))
            << std::oct << c.nBefore;
        EXPECT_EQ(0u, StatOf(link).st_gid);
    }
}

// A failure is traced once, at level 3, with errno and its text; the caller is
// "nobody", who may neither give a file away nor find a missing one.
TEST(GroupOwnership, FailureTracesErrno) {
    ScratchDir dir;
    const std::string file = dir / "cam.ini", missing = dir / "none.ini";
    WriteFile(file, "[a]\n");
    ASSERT_EQ(0, chmod(dir.Path().c_str(), 0755));
    for (const auto &[path, szError] :
         {std::pair{missing, "errno=2, \"No such file or directory\""},
          std::pair{file, "errno=1, \"Operation not permitted\""}}) {
        EXPECT_EQ(0, InChild(true,
                             [&] {
                                 TraceCapture trace(8);
                                 const std::vector<std::string> expected = {
                                     "Failed to set group ownership file \"" + path + "\", " +
                                     szError + ".\n"};
                                 return CfgFile_SetGroupOwnership(path.c_str(), 4321) ==
                                                    CFGFILE_FAILURE &&
                                                trace.Messages().size() == 1 &&
                                                trace.Texts(3) == expected
                                            ? 0
                                            : 2;
                             }))
            << path;
    }
}

} // namespace
