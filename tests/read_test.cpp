// Reading values: refused arguments, what the typed
// and video getters store, files that read short or never end, the trace of
// one lookup, and the assertions of the line search.
#include <functional>

#include "cfgfile_api.h"
#include "test_support.h"

using namespace cfgtest;

namespace {

TEST(StringGetter, RefusedArgumentsTouchNothing) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    WriteFile(file, "[a]\nk=value\n");
    const std::string name80(80, 'n'), default256(256, 'd');
    const char *f = file.c_str(), *n80 = name80.c_str();
    char szValue[16] = "untouched", *b = szValue;
    size_t nSize = sizeof(szValue), nZero = 0, *s = &nSize, *z = &nZero;
    const struct {
        const char *file, *section, *key;
        char *buffer;
        size_t *size;
        const char *defaultValue;
    } kRefused[] = {{nullptr, "a", "k", b, s, ""},
                    {f, "a", "k", nullptr, s, ""},
                    {f, "a", "k", b, nullptr, ""},
                    {f, "a", "k", b, s, nullptr},
                    {f, "a", "k", b, s, default256.c_str()},
                    {f, nullptr, "k", b, s, ""},
                    {f, n80, "k", b, s, ""},
                    {f, "a", n80, b, s, ""},
                    {f, "a", "k", b, z, ""}};
    for (const auto &r : kRefused)
        EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_GetStringValue(r.file, r.section, r.key, r.buffer,
                                                                 r.size, r.defaultValue));
    EXPECT_STREQ("untouched", szValue);
    EXPECT_EQ(sizeof(szValue), nSize);
}

// A typed getter's result and the value it stored, as "result:value"; the
// value starts as 7. Types: i int, u unsigned, l 64-bit, f float, b or B
// boolean with the default FALSE or TRUE; v video format and r resolution
// (default -5), s width x height (default 8192x8193).
std::string Got(char cType, const char *szFile, const char *s, const char *k) {
    int n = 7;
    unsigned int u = 7, w = 7, h = 7;
    INT64 l = 7;
    float f = 7;
    BOOL b = 7;
    VIDEO_FORMAT v = 7;
    long r = 7;
    const int iResult = cType == 'i'   ? CfgFile_GetIntValue(szFile, s, k, &n, 1)
                        : cType == 'u' ? CfgFile_GetUnsignedIntValue(szFile, s, k, &u, 6)
                        : cType == 'l' ? CfgFile_GetInt64Value(szFile, s, k, &l, -1)
                        : cType == 'f' ? CfgFile_GetFloatValue(szFile, s, k, &f, 2.5f)
                        : cType == 'v' ? CfgFile_GetVideoFormatValue(szFile, s, k, &v, -5)
                        : cType == 'r' ? CfgFile_GetVideoResolutionValue(szFile, s, k, &r, -5)
                        : cType == 's'
                            ? CfgFile_GetVideoSizeValues(szFile, s, k, &w, 8192, &h, 8193)
                            : CfgFile_GetBooleanValue(szFile, s, k, &b, cType == 'B');
    using std::to_string;
    return to_string(iResult) + ":" +
           (cType == 'i'   ? to_string(n)
            : cType == 'u' ? to_string(u)
            : cType == 'l' ? to_string(l)
            : cType == 'f' ? to_string(f)
            : cType == 'v' ? to_string(long(v))
            : cType == 'r' ? to_string(r)
            : cType == 's' ? to_string(w) + "x" + to_string(h)
                           : to_string(b));
}

TEST(TypedGetters, ResultsAndStoredValues) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    WriteFile(file, "[n]\nport = 8080\nname = eighty\nbig = 4294967297\nhuge = 5000000000\n"
                    "over = 9223372036854775808\nneg = -1\nf = 1.50\nyes = Yes\nno = off\n"
                    "odd = maybe\nimin=-2147483648\numax=4294967295\n"
                    "[v]\nf=1080i50\nl=1080\nk4=4K\npp=1080pp\n");
    const auto code = [](long lCode) { return "0:" + std::to_string(lCode); };
    const struct {
        char cType;
        const char *section, *key;
        std::string expected;
    } kCases[] = {{'i', "n", "port", "0:8080"},
                  {'i', "n", "name", "4:1"},
                  {'i', "n", "big", "0:1"},
                  {'i', "n", "over", "4:1"},
                  {'i', "n", "imin", "0:-2147483648"},
                  {'i', "n", "none", "3:1"},
                  {'i', nullptr, "port", "1:7"},
                  {'u', "n", "umax", "0:4294967295"},
                  {'u', "n", "neg", "4:6"},
                  {'l', "n", "huge", "0:5000000000"},
                  {'l', "n", "over", "4:-1"},
                  {'f', "n", "f", "0:1.500000"},
                  {'f', "n", "name", "4:2.500000"},
                  {'b', "n", "yes", "0:1"},
                  {'B', "n", "no", "0:0"},
                  {'B', "n", "odd", "0:1"},
                  {'b', "n", "odd", "0:0"},
                  // A text a video getter cannot convert gives its default, with success.
                  {'v', "v", "f", code(long(VIDEO_FORMAT_1080I50))},
                  {'r', "v", "f", "0:-5"},
                  {'s', "v", "f", "0:0x1"},
                  {'v', "v", "l", "0:-5"},
                  {'r', "v", "l", code(VIDEO_RESOLUTION_1080)},
                  {'s', "v", "l", "0:1920x1080"},
                  {'s', "v", "k4", "0:3840x2160"},
                  // One trailing 'p' is dropped from resolutions: the size getter appends one.
                  {'r', "v", "pp", code(VIDEO_RESOLUTION_1080)},
                  {'v', "v", "none", "3:-5"},
                  {'s', "v", "none", "3:8192x8193"}};
    for (const auto &c : kCases)
        EXPECT_EQ(c.expected, Got(c.cType, file.c_str(), c.section, c.key)) << c.key;
    // Without a file each stores its default; without a name, nothing.
    for (const auto &[cType, expected] : {std::pair('i', "1"), {'r', "-5"}, {'s', "8192x8193"}}) {
        EXPECT_EQ("5:"s + expected, Got(cType, (dir / "no").c_str(), "n", "port"));
        EXPECT_EQ(cType == 's' ? "1:7x7" : "1:7", Got(cType, nullptr, "n", "port"));
    }
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_GetIntValue(file.c_str(), "n", "port", nullptr, 0));
}

// A lookup asks a file's type once it has read 64 KiB: a regular file reads
// on to its end, and a device that gives bytes without end is refused there
// by every lookup, as a file that cannot be opened. A read that gives less
// than asked for ends nothing: procfs gives a record at a time.
TEST(LargeFiles, LookupsReadOnPastTheTypeCheckAndRefuseDevices) {
    ScratchDir dir;
    const std::string file = dir / "big.ini";
    std::string text;
    for (int i = 0; i < 9000; ++i)
        text += "[s" + std::to_string(i) + "]\nkey=" + std::to_string(i) + "\n";
    WriteFile(file, text);
    for (const std::string &path : {file, "/dev/zero"s}) {
        const bool bFile = path == file;
        EXPECT_EQ(bFile ? "0:8999" : "5:1", Got('i', path.c_str(), "s8999", "key"));
        size_t nSize = 9;
        unsigned int nCount = 9;
        EXPECT_EQ(bFile ? CFGFILE_SUCCESS : -1,
                  CfgFile_EnumerateSections(path.c_str(), "s8", nullptr, &nSize, &nCount));
        EXPECT_EQ(std::pair(bFile ? 6543u : 0u, 0u), std::pair(unsigned(nSize), nCount));
        char szLine[64];
        nSize = sizeof(szLine);
        EXPECT_EQ(bFile ? CFGFILE_SUCCESS : CFGFILE_FAILURE,
                  CfgFile_FindLineStartingWith(path.c_str(), "[s8999]", szLine, &nSize));
    }
    std::ifstream symbols("/proc/kallsyms");
    std::vector<std::string> lines;
    for (std::string line; std::getline(symbols, line);)
        lines.push_back(line);
    if (lines.size() < 1000)
        GTEST_SKIP() << "/proc/kallsyms is too short here";
    char szLine[512];
    size_t nSize = sizeof(szLine);
    const std::string wanted = lines[lines.size() * 3 / 4];
    ASSERT_EQ(CFGFILE_SUCCESS,
              CfgFile_FindLineStartingWith("/proc/kallsyms", wanted.c_str(), szLine, &nSize));
    EXPECT_EQ(wanted, szLine);
}

// The messages of one lookup, their functions, and how many each level lets through.
TEST(Tracing, MessagesOfOneLookupByLevel) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    WriteFile(file, "[n]\nport = 8080\n");
    int nPort = 0;
    for (const auto &[nLevel, nMessages] : {std::pair{8, 16u}, {7, 10u}, {6, 0u}}) {
        TraceCapture trace(nLevel);
        ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_GetIntValue(file.c_str(), "n", "port", &nPort, 0));
        EXPECT_EQ(nMessages, trace.Messages().size()) << "level " << nLevel;
        if (nLevel != 7)
            continue;
        char szCalled[512];
        snprintf(szCalled, sizeof(szCalled),
                 "Called, file=\"%s\" section=\"n\", key=\"port\" pnValue=%p, nDefaultValue=0.\n",
                 file.c_str(), static_cast<void *>(&nPort));
        const std::vector<std::string> expected = {
            szCalled,
            "OPENED \"" + file + "\".\n",
            "Found end bracket line 1, section length=1 chars.\n",
            "Trimmed section = \"n\".\n",
            "Found section.\n",
            "key=\"port\".\n",
            "key is a MATCH.\n",
            "closed \"" + file + "\".\n",
            "Returning iRetCode=0.\n",
            "Returning value 8080.\n"};
        EXPECT_EQ(expected, trace.Texts());
        EXPECT_EQ("CfgFile_GetIntValue", trace.Messages().front().function);
        EXPECT_EQ("_ReadValue", trace.Messages()[1].function);
    }
}

// Programming errors end the process, naming the failed check and the function.
TEST(LinesDeathTest, AssertsArguments) {
    PreferFreshProcessDeathTests();
    char szBuffer[8];
    size_t nSize = sizeof(szBuffer), nZero = 0;
    const auto find = CfgFile_FindLineStartingWith;
    const std::pair<std::function<void()>, const char *> kCases[] = {
        {[&] { find("", "k", szBuffer, &nSize); }, "szFileName\\[0\\] != '\\\\0' in CfgFile_Find"},
        {[&] { find("f", "k", szBuffer, &nZero); }, "\\*pnBuffSize > 0 in CfgFile_Find"},
        {[&] { CfgFile_CommentLineStartingWith("f", nullptr); }, "szPrefix != NULL in CfgFile_Com"},
        {[&] { CfgFile_DeleteLineStartingWith(nullptr, "k"); },
         "szFileName != NULL in CfgFile_Del"},
    };
    for (const auto &[call, szMessage] : kCases)
        EXPECT_DEATH(call(), "ASSERTION FAILED: "s + szMessage);
}

} // namespace
