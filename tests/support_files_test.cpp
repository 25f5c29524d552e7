// Companion file names and the mode and owner given to rewritten files.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "support_lib.h"

namespace {

// Gives the path both companion names; expects success and three different names.
void CheckCompanionNames(const std::string &sPath, char *szBackup, char *szTemporary) {
    strcpy(szBackup, sPath.c_str());
    strcpy(szTemporary, sPath.c_str());
    EXPECT_NE(0, StringReplaceAddSuffix(szBackup, 256, '.', "bak")) << sPath;
    EXPECT_NE(0, StringReplaceAddSuffix(szTemporary, 256, '.', "tmp")) << sPath;
    EXPECT_NE(sPath, szBackup);
    EXPECT_NE(sPath, szTemporary);
    EXPECT_STRNE(szBackup, szTemporary);
}

TEST(SuffixTest, ReplacesSuffixOfFileNameOnly) {
    const struct {
        const char *szPath, *szBackup, *szTemporary;
    } kCases[] = {
        {"config", "config.bak", "config.tmp"},
        {"dir.d/dev.ini", "dir.d/dev.bak", "dir.d/dev.tmp"},
        {"./cfg", "./cfg.bak", "./cfg.tmp"},
        {"etc/.profile", "etc/.profile.bak", "etc/.profile.tmp"},
        {"a.b.c", "a.b.bak", "a.b.tmp"},
        {"cfg.tmp", "cfg.bak", "cfg.tmp.tmp"},
        {"cfg.bak", "cfg.bak.bak", "cfg.tmp"},
        {"cfg.", "cfg.bak", "cfg.tmp"},
    };
    for (const auto &test : kCases) {
        char szBackup[256], szTemporary[256];
        CheckCompanionNames(test.szPath, szBackup, szTemporary);
        EXPECT_STREQ(test.szBackup, szBackup);
        EXPECT_STREQ(test.szTemporary, szTemporary);
    }
}

TEST(SuffixTest, LongestPathFitsAndTooLongIsRefused) {
    const std::string sDir = "/var/lib/" + std::string(120, 'd') + ".d/";
    const std::string sLong = sDir + std::string(242 - sDir.size(), 'c');
    for (const char *szEnd : {".ini", ".tmp", ".bak", "cccc"}) { // 246 characters
        char szBackup[256], szTemporary[256];
        CheckCompanionNames(sLong + szEnd, szBackup, szTemporary);
    }
    char szName[16] = "config";
    EXPECT_EQ(0, StringReplaceAddSuffix(szName, 10, '.', "tmp")); // needs 11 bytes
    EXPECT_EQ(0, StringReplaceAddSuffix(szName, sizeof(szName), '.', NULL));
    EXPECT_STREQ("config", szName);
    szName[0] = '\0';
    EXPECT_EQ(0, StringReplaceAddSuffix(szName, sizeof(szName), '.', "tmp"));
}

// A scratch directory holding an empty "device.ini" and the stream of a new "device.tmp".
class FileModeTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(nullptr, mkdtemp(m_szDir));
        m_sSource = std::string(m_szDir) + "/device.ini";
        FILE *pSource = fopen(m_sSource.c_str(), "w");
        ASSERT_NE(nullptr, pSource);
        fclose(pSource);
        m_pCopy = fopen((std::string(m_szDir) + "/device.tmp").c_str(), "w");
        ASSERT_NE(nullptr, m_pCopy);
    }
    void TearDown() override {
        if (m_pCopy != nullptr)
            fclose(m_pCopy);
        unlink(m_sSource.c_str());
        unlink((std::string(m_szDir) + "/device.tmp").c_str());
        rmdir(m_szDir);
    }
    struct stat CopyStat() {
        struct stat fileStat = {};
        fstat(fileno(m_pCopy), &fileStat);
        return fileStat;
    }
    void ExpectStreamUsable() {
        EXPECT_GE(fputs("[Net]\n", m_pCopy), 0);
        EXPECT_EQ(0, fclose(m_pCopy));
        m_pCopy = nullptr;
    }
    char m_szDir[32] = "/tmp/supportXXXXXX";
    std::string m_sSource;
    FILE *m_pCopy = nullptr;
};

TEST_F(FileModeTest, CopiesPermissionBitsButNoSpecialBits) {
    for (mode_t nMode : {0640, 0400, 04755, 03777}) {
        ASSERT_EQ(0, chmod(m_sSource.c_str(), nMode));
        EXPECT_EQ(1, CopyFilePermissions(m_sSource.c_str(), m_pCopy));
        EXPECT_EQ(nMode & 0777, CopyStat().st_mode & 07777) << std::oct << nMode;
    }
    ExpectStreamUsable(); // though the file is now read-only to its owner
}

TEST_F(FileModeTest, MissingSourceChangesNothing) {
    ASSERT_EQ(0, fchmod(fileno(m_pCopy), 0600));
    const std::string sMissing = std::string(m_szDir) + "/missing.ini";
    EXPECT_EQ(0, CopyFilePermissions(sMissing.c_str(), m_pCopy));
    EXPECT_EQ(0, CopyFileOwnership(sMissing.c_str(), m_pCopy));
    EXPECT_EQ(0600u, CopyStat().st_mode & 07777);
    ExpectStreamUsable();
}

TEST_F(FileModeTest, DefaultModeIgnoresUmask) {
    mode_t nOldMask = umask(077);
    EXPECT_EQ(1, SetDefaultFilePermissions(m_pCopy));
    umask(nOldMask);
    EXPECT_EQ(0644u, CopyStat().st_mode & 07777);
}

TEST_F(FileModeTest, RootCopiesOwnerAndGroup) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root may give a file away";
    ASSERT_EQ(0, chown(m_sSource.c_str(), 12345, 23456));
    EXPECT_EQ(1, CopyFileOwnership(m_sSource.c_str(), m_pCopy));
    EXPECT_EQ(12345u, CopyStat().st_uid);
    EXPECT_EQ(23456u, CopyStat().st_gid);
    ExpectStreamUsable();
}

} // namespace
