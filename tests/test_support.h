// test_support.h - scratch directories, file bytes and trace capture for the tests.
#ifndef CFGFILE_TEST_SUPPORT_H
#define CFGFILE_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "dbgtrace.h"

namespace cfgtest {

using namespace std::string_literals;

// A directory of its own for each test, removed with everything in it.
class ScratchDir {
  public:
    // szBase: where it is made (/dev/shm: a tmpfs, whose fsync costs nothing).
    explicit ScratchDir(const std::string &base = "/tmp") {
        std::string path = base + "/cfgfile-test-XXXXXX";
        m_path = mkdtemp(path.data());
    }
    ~ScratchDir() {
        if (system(
                ("chmod -R u+rwx '" + m_path + "' 2>/dev/null; rm -rf '" + m_path + "'").c_str()))
            ADD_FAILURE() << "could not remove " << m_path;
    }
    const std::string &Path() const { return m_path; }
    std::string operator/(const std::string &name) const { return m_path + "/" + name; }

  private:
    std::string m_path;
};

inline void WriteFile(const std::string &path, const std::string &bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline std::string ReadFile(const std::string &path) {
    std::stringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

inline struct stat StatOf(const std::string &path) {
    struct stat st {};
    lstat(path.c_str(), &st);
    return st;
}
inline bool Exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}
inline ino_t Inode(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// Death tests run in a fresh process of the test binary where they can. Under
// an emulator the binary cannot run itself again; cross builds set
// GTEST_DEATH_TEST_STYLE=fast and the test forks instead.
inline void PreferFreshProcessDeathTests() {
    if (getenv("GTEST_DEATH_TEST_STYLE") == nullptr)
        GTEST_FLAG_SET(death_test_style, "threadsafe");
}

// One message the library printed.
struct TraceMessage {
    int nLevel;
    std::string function, text;
};

// Captures the messages of the library's channel at a chosen level.
class TraceCapture {
  public:
    explicit TraceCapture(int nLevel = 8) {
        DbgSetChannelLevel("CFGFILELIB", nLevel);
        DbgSetOutput(&TraceCapture::Receive, this);
    }
    ~TraceCapture() {
        DbgSetOutput(nullptr, nullptr);
        DbgSetChannelLevel("CFGFILELIB", 0);
    }
    const std::vector<TraceMessage> &Messages() const { return m_messages; }

    // The texts of the messages of one level (all levels: 0), in order.
    std::vector<std::string> Texts(int nLevel = 0) const {
        std::vector<std::string> texts;
        for (const TraceMessage &message : m_messages)
            if (nLevel == 0 || message.nLevel == nLevel)
                texts.push_back(message.text);
        return texts;
    }
    bool Contains(const std::string &text) const { return std::ranges::count(Texts(), text) > 0; }

  private:
    static void Receive(void *pContext, const char *, int nLevel, const char *szFunction,
                        const char *, int, const char *szText) {
        static_cast<TraceCapture *>(pContext)->m_messages.push_back(
            {nLevel, szFunction ? szFunction : "", szText ? szText : ""});
    }
    std::vector<TraceMessage> m_messages;
};

} // namespace cfgtest

#endif
