// rewrites.h - the six operations that rewrite a settings file, each with an
// input it changes and the bytes it makes of it; a fixture around them and a
// helper that runs a rewrite in a child process.
#ifndef CFGFILE_TEST_REWRITES_H
#define CFGFILE_TEST_REWRITES_H

#include <algorithm>

#include <grp.h>
#include <sys/wait.h>

#include "cfgfile_api.h"
#include "test_support.h"

namespace cfgtest {

struct Rewrite {
    const char *name;
    int (*run)(const char *szFile);
    const char *after;
    int iUnopened; // the result for a file that cannot be opened for reading
};

// Names the case in test output.
inline void PrintTo(const Rewrite &rewrite, std::ostream *pOut) {
    *pOut << rewrite.name;
}

inline constexpr char kInput[] = "[net]\nport=80\nhost=a\n# keep\n[video]\nmode=1080\n";

inline const Rewrite kRewrites[] = {
    {"SetValue", [](const char *f) { return CfgFile_SetStringValue(f, "net", "port", "81"); },
     "[net]\nport=81\nhost=a\n# keep\n[video]\nmode=1080\n", CFGFILE_FILE_ACCESS},
    {"DeleteSections", [](const char *f) { return CfgFile_DeleteSections(f, "video"); },
     "[net]\nport=80\nhost=a\n# keep\n", CFGFILE_SUCCESS},
    {"DeleteKey", [](const char *f) { return CfgFile_DeleteKey(f, "net", "host"); },
     "[net]\nport=80\n# keep\n[video]\nmode=1080\n", CFGFILE_SUCCESS},
    {"DeleteAllSectionKeys", [](const char *f) { return CfgFile_DeleteAllSectionKeys(f, "net"); },
     "[net]\n# keep\n[video]\nmode=1080\n", CFGFILE_SUCCESS},
    {"CommentLine", [](const char *f) { return CfgFile_CommentLineStartingWith(f, "host"); },
     "[net]\nport=80\n#host=a\n# keep\n[video]\nmode=1080\n", CFGFILE_FAILURE},
    {"DeleteLine", [](const char *f) { return CfgFile_DeleteLineStartingWith(f, "mode"); },
     "[net]\nport=80\nhost=a\n# keep\n[video]\n", CFGFILE_FAILURE},
    {"ApplyChanges",
     [](const char *f) {
         const CFGFILE_CHANGE kChanges[] = {{"net", "port", "81"}, {"net", "host", nullptr}};
         return CfgFile_ApplyChanges(f, kChanges, 2);
     },
     "[net]\nport=81\n# keep\n[video]\nmode=1080\n", CFGFILE_FILE_ACCESS},
};

inline std::string RewriteName(const ::testing::TestParamInfo<Rewrite> &info) {
    return info.param.name;
}

// True when some captured message begins with prefix.
inline bool Traced(const TraceCapture &trace, const std::string &prefix) {
    return std::ranges::any_of(trace.Texts(), [&](auto &text) { return text.starts_with(prefix); });
}

// Runs fnChild in a child process, as "nobody" when bNobody so that file
// permissions apply; its exit status, or minus the signal that ended it.
template <class Fn> int InChild(bool bNobody, Fn fnChild) {
    const pid_t pid = fork();
    if (pid == 0)
        _exit(bNobody && (setgroups(0, nullptr) || setgid(65534) || setuid(65534)) ? 255
                                                                                   : fnChild());
    int nStatus = 0;
    waitpid(pid, &nStatus, 0);
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -WTERMSIG(nStatus);
}

// "device.ini" in a scratch directory, with the names of its companions.
class RewriteTest : public ::testing::TestWithParam<Rewrite> {
  protected:
    int Run() { return GetParam().run(file.c_str()); }

    ScratchDir dir;
    const std::string file = dir / "device.ini", tmp = dir / "device.tmp";
    const std::string bak = dir / "device.bak";
};

} // namespace cfgtest

#endif
