// Companion file names and the mode and owner given to rewritten files.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "support_lib.h"
#include "test_support.h"

TEST(SuffixTest, CompanionNamesDifferFromThePathAndEachOther) {
    // 246 characters with dots in the directories; and a name too long for either suffix.
    const std::string sLong = std::string(120, 'd') + ".d/" + std::string(119, 'c') + ".tmp";
    // Path; then its backup and temporary names, the three all different; or "": refused, the
    // path left as it was.
    const std::tuple<std::string, std::string, std::string> kCases[] = {
        {"cfg", "cfg.bak", "cfg.tmp"},    {"d.d/f.ini", "d.d/f.bak", "d.d/f.tmp"},
        {"e/.p", "e/.p.bak", "e/.p.tmp"}, {"a.b.c", "a.b.bak", "a.b.tmp"},
        {"x.tmp", "x.bak", "x.tmp.tmp"},  {"x.bak", "x.bak.bak", "x.tmp"},
        {"x.", "x.bak", "x.tmp"},         {sLong, sLong.substr(0, 242) + ".bak", sLong + ".tmp"},
        {std::string(252, 'c'), "", ""},  {"", "", ""}};
    for (const auto &[sPath, sBackup, sTemporary] : kCases) {
        SCOPED_TRACE(sPath);
        // The path in a 256-byte buffer.
        std::string sBak = sPath + std::string(256 - sPath.size(), '\0'), sTmp = sBak;
        EXPECT_EQ(!sBackup.empty(), StringReplaceAddSuffix(sBak.data(), 256, '.', "bak") != 0);
        EXPECT_EQ(!sTemporary.empty(), StringReplaceAddSuffix(sTmp.data(), 256, '.', "tmp") != 0);
        EXPECT_EQ(sBackup.empty() ? sPath : sBackup, sBak.c_str());
        EXPECT_EQ(sTemporary.empty() ? sPath : sTemporary, sTmp.c_str());
    }
}

static mode_t ModeOf(int nFd) {
    struct stat fileStat = {};
    fstat(nFd, &fileStat);
    return fileStat.st_mode & 07777;
}

TEST(FileModeTest, CopiesPermissionBitsButNoSpecialBitsAndOwner) {
    cfgtest::ScratchDir dir;
    const std::string sSource = dir / "device.ini";
    cfgtest::WriteFile(sSource, "");
    FILE *pCopy = fopen((dir / "device.tmp").c_str(), "w");
    const int nFd = fileno(pCopy);
    for (mode_t nMode : {0640, 0400, 04755, 03777}) {
        ASSERT_EQ(0, chmod(sSource.c_str(), nMode));
        for (bool bStream : {true, false}) {
            ASSERT_EQ(0, fchmod(nFd, 0200));
            EXPECT_EQ(1, bStream ? CopyFilePermissions(sSource.c_str(), pCopy)
                                 : CopyFilePermissionsToFd(sSource.c_str(), nFd));
            EXPECT_EQ(nMode & 0777, ModeOf(nFd)) << std::oct << nMode << bStream;
        }
    }
    // The owner and group a file already has can always be given again.
    EXPECT_EQ(1, CopyFileOwnershipToFd(sSource.c_str(), nFd));
    if (geteuid() == 0) { // only root may give a file away
        ASSERT_EQ(0, chown(sSource.c_str(), 12345, 23456));
        EXPECT_EQ(1, CopyFileOwnership(sSource.c_str(), pCopy));
        struct stat copyStat = {};
        fstat(nFd, &copyStat);
        EXPECT_EQ(std::make_pair(12345u, 23456u), std::make_pair(copyStat.st_uid, copyStat.st_gid));
    }
    fclose(pCopy);
}

TEST(FileModeTest, DefaultModeWhateverTheUmaskAndBadArgumentsChangeNothing) {
    cfgtest::ScratchDir dir;
    const std::string sPath = dir / "device.ini", sMissing = dir / "missing.ini";
    mode_t nOldMask = umask(0077);
    FILE *pFile = fopen(sPath.c_str(), "w");
    const int nFd = fileno(pFile);
    EXPECT_EQ(1, SetDefaultFilePermissionsOnFd(nFd));
    EXPECT_EQ(0644u, ModeOf(nFd));
    ASSERT_EQ(0, fchmod(nFd, 0600));
    EXPECT_EQ(1, SetDefaultFilePermissions(pFile));
    EXPECT_EQ(0644u, ModeOf(nFd));
    umask(nOldMask);

    ASSERT_EQ(0, fchmod(nFd, 0600));
    const int nClosed = dup(nFd);
    close(nClosed);
    const int kResults[] = {
        SetDefaultFilePermissionsOnFd(-1),           SetDefaultFilePermissionsOnFd(nClosed),
        SetDefaultFilePermissions(nullptr),          CopyFilePermissionsToFd(nullptr, nFd),
        CopyFilePermissionsToFd(sPath.c_str(), -1),  CopyFilePermissionsToFd(sMissing.c_str(), nFd),
        CopyFilePermissions(sPath.c_str(), nullptr), CopyFileOwnershipToFd(nullptr, nFd),
        CopyFileOwnershipToFd(sPath.c_str(), -1),    CopyFileOwnership(sPath.c_str(), nullptr)};
    for (size_t i = 0; i < std::size(kResults); i++)
        EXPECT_EQ(0, kResults[i]) << "call " << i;
    EXPECT_EQ(0600u, ModeOf(nFd));
    fclose(pFile);
}
