// Rewrites under real faults: a failure leaves the old file byte for byte, a
// success leaves only the new file, and nothing planted beside the file (a
// directory, a link, a leftover) is followed, kept or swapped in.
#include <fcntl.h>
#include <sys/sysmacros.h>

#include "rewrites.h"

using namespace cfgtest;

namespace {

using RewriteSafety = RewriteTest;

// A directory at the temporary name fails the rewrite before any copy, the
// file closed again; one at the backup name fails the swap, leaving the
// complete temporary file.
TEST_P(RewriteSafety, DirectoryAtCompanionNameKeepsFile) {
    WriteFile(file, kInput);
    ASSERT_EQ(0, chmod(file.c_str(), 0640));
    const ino_t nInode = Inode(file);
    ASSERT_EQ(0, mkdir(tmp.c_str(), 0755));
    TraceCapture trace(7);
    EXPECT_EQ(CFGFILE_FAILURE, Run());
    const std::vector<std::string> expected = {"OPENED \"" + file + "\".\n",
                                               "Unable to open tmp file \"" + tmp + "\".\n",
                                               "closed \"" + file + "\".\n"};
    const std::vector<std::string> texts = trace.Texts();
    // Several changes are worked out before the temporary file is opened.
    if (std::string(GetParam().name) != "ApplyChanges") {
        EXPECT_NE(texts.end(),
                  std::search(texts.begin(), texts.end(), expected.begin(), expected.end()));
    }
    // Nothing was copied, so the writer has no failed copy to report.
    EXPECT_FALSE(Traced(trace, "FAILED for"));
    ASSERT_EQ(0, rmdir(tmp.c_str()));
    ASSERT_EQ(0, mkdir(bak.c_str(), 0755));
    WriteFile(bak + "/occupied", "x");
    EXPECT_EQ(CFGFILE_FAILURE, Run());
    EXPECT_TRUE(Traced(trace, "Failed to rename config file \"" + file + "\" to backup"));
    EXPECT_EQ(kInput, ReadFile(file));
    EXPECT_EQ(nInode, Inode(file));
    // The temporary file is no more open than the file it was to replace.
    EXPECT_EQ(GetParam().after, ReadFile(tmp));
    EXPECT_EQ(0640u, StatOf(tmp).st_mode & 07777);
}

// A missing file is created by the setter only: the deletions have nothing to
// do, the line operations fail. A name of 246 characters is the longest taken
// (its companions' names must fit 255); a longer one is refused.
TEST_P(RewriteSafety, MissingFileAndNameLength) {
    const bool bCreates = GetParam().iUnopened == CFGFILE_FILE_ACCESS;
    const std::string name246 = dir / std::string(245 - dir.Path().size(), 'n');
    EXPECT_EQ(bCreates ? CFGFILE_SUCCESS : GetParam().iUnopened, GetParam().run(name246.c_str()));
    EXPECT_EQ(bCreates, Exists(name246));
    EXPECT_FALSE(Exists(name246 + ".tmp") || Exists(name246 + ".bak"));
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, GetParam().run((name246 + "n").c_str()));
    EXPECT_FALSE(Exists(name246 + "n"));
}

// Leftovers of an earlier rewrite are removed, never followed: the temporary
// name holds a link to a file that must survive.
TEST_P(RewriteSafety, ModeAndOwnerCarriedOverAndLeftoversRemoved) {
    const std::string victim = dir / "victim";
    WriteFile(victim, "precious\n");
    for (const mode_t nMode : {0640, 0600}) {
        WriteFile(file, kInput);
        WriteFile(bak, "[old]\nbackup=1\n");
        ASSERT_EQ(0, symlink(victim.c_str(), tmp.c_str()));
        ASSERT_EQ(0, chmod(file.c_str(), nMode));
        ASSERT_EQ(0, chown(file.c_str(), 1234, 5678));
        ASSERT_EQ(CFGFILE_SUCCESS, Run());
        EXPECT_EQ(GetParam().after, ReadFile(file));
        const struct stat st = StatOf(file);
        EXPECT_EQ(std::tuple(nMode, 1234u, 5678u),
                  std::tuple(st.st_mode & 07777, st.st_uid, st.st_gid));
        EXPECT_FALSE(Exists(tmp) || Exists(bak));
    }
    EXPECT_EQ("precious\n", ReadFile(victim));
}

// A link is rewritten at its target, unless the target's path leaves no room
// for the companion names. A link to nothing stays as it is, and nothing is
// created for it.
TEST_P(RewriteSafety, LinksAreFollowedWithinLimits) {
    const std::string data = dir / "data", deep = dir / std::string(220, 'd');
    for (const std::string &target : {data, deep}) {
        ASSERT_EQ(0, mkdir(target.c_str(), 0755));
        WriteFile(target + "/device.ini", kInput);
    }
    ASSERT_EQ(0, symlink((deep + "/device.ini").c_str(), file.c_str()));
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, Run());
    EXPECT_EQ(kInput, ReadFile(deep + "/device.ini"));
    ASSERT_EQ(0, unlink(file.c_str()));
    ASSERT_EQ(0, symlink((data + "/device.ini").c_str(), file.c_str()));
    ASSERT_EQ(CFGFILE_SUCCESS, Run());
    EXPECT_TRUE(S_ISLNK(StatOf(file).st_mode));
    EXPECT_EQ(GetParam().after, ReadFile(data + "/device.ini"));
    EXPECT_FALSE(Exists(tmp) || Exists(bak) || Exists(data + "/device.tmp") ||
                 Exists(data + "/device.bak"));
    ASSERT_EQ(0, unlink(file.c_str()));
    ASSERT_EQ(0, symlink((dir / "missing.ini").c_str(), file.c_str()));
    Run();
    EXPECT_TRUE(S_ISLNK(StatOf(file).st_mode));
    EXPECT_FALSE(Exists(dir / "missing.ini") || Exists(tmp) || Exists(bak));
}

// A directory or FIFO at the name is never read (a FIFO would block), a
// device (here through links) is found out at its first read; none is
// replaced, and nothing is created beside it.
TEST_P(RewriteSafety, NonRegularFileAtNameIsLeftAlone) {
    const std::string fifo = dir / "pipe.ini", zero = dir / "zero.ini", null = dir / "null.ini";
    ASSERT_EQ(0, mkdir(file.c_str(), 0755));
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0644));
    ASSERT_EQ(0, symlink("/dev/zero", zero.c_str()));
    ASSERT_EQ(0, symlink("/dev/null", null.c_str()));
    alarm(20);
    for (const std::string &path : {file, fifo, zero, null}) {
        GetParam().run(path.c_str());
        int nValue = 0;
        EXPECT_EQ(CFGFILE_FILE_ACCESS,
                  CfgFile_GetIntValue(path.c_str(), "net", "port", &nValue, 7));
    }
    alarm(0);
    EXPECT_TRUE(S_ISDIR(StatOf(file).st_mode) && S_ISFIFO(StatOf(fifo).st_mode));
    EXPECT_TRUE(S_ISCHR(StatOf("/dev/zero").st_mode) && S_ISCHR(StatOf("/dev/null").st_mode));
    for (const std::string &leftover : {dir / "device.tmp", dir / "device.bak", dir / "pipe.tmp",
                                        dir / "pipe.bak", "/dev/zero.tmp"s, "/dev/null.tmp"s})
        EXPECT_FALSE(Exists(leftover)) << leftover;
    // A device whose first read gives less than a block (the kernel log gives
    // one record) is found out at that read too.
    const std::string kmsg = dir / "kmsg.ini";
    const int fd = mknod(kmsg.c_str(), S_IFCHR | 0600, makedev(1, 11)) == 0
                       ? open(kmsg.c_str(), O_RDONLY | O_NONBLOCK)
                       : -1;
    if (fd < 0)
        GTEST_SKIP() << "the kernel log cannot be read here";
    close(fd);
    GetParam().run(kmsg.c_str());
    EXPECT_TRUE(S_ISCHR(StatOf(kmsg).st_mode));
    EXPECT_FALSE(Exists(dir / "kmsg.tmp") || Exists(dir / "kmsg.bak"));
}

// As "nobody": a file it may not read is never replaced, and one it may not
// create is not created. Either ends as for a file that cannot be opened, and
// only the setter, which creates missing files, reports the refused creation.
TEST_P(RewriteSafety, NoAccessChangesNothing) {
    const std::string missing = dir / "ro/device.ini";
    const bool bCreates = GetParam().iUnopened == CFGFILE_FILE_ACCESS;
    ASSERT_EQ(0, chmod(dir.Path().c_str(), 0777));
    ASSERT_EQ(0, mkdir((dir / "ro").c_str(), 0755));
    WriteFile(file, kInput);
    ASSERT_EQ(0, chmod(file.c_str(), 0));
    const ino_t nInode = Inode(file);
    EXPECT_EQ(GetParam().iUnopened, InChild(true, [&] { return Run(); }));
    EXPECT_EQ(GetParam().iUnopened, InChild(true, [&] {
                  TraceCapture trace(7);
                  const int iRetCode = GetParam().run(missing.c_str());
                  const bool bTraced = trace.Contains("Failed to create new file, errno=13.\n");
                  return bTraced == bCreates ? iRetCode : 128;
              }));
    EXPECT_EQ(kInput, ReadFile(file));
    EXPECT_EQ(nInode, Inode(file));
    EXPECT_FALSE(Exists(tmp) || Exists(bak) || Exists(missing));
}

INSTANTIATE_TEST_SUITE_P(AllRewrites, RewriteSafety, ::testing::ValuesIn(kRewrites), RewriteName);

} // namespace
