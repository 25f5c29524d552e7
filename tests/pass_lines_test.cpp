// While the trace is below level 4 the operations let lines that cannot
// matter pass unread, in runs; at higher levels they read every line. Each
// case here runs one operation on one generated file both ways and expects
// the same result, the same output and the same file left behind.
#include <functional>
#include <random>

#include "cfgfile_api.h"
#include "test_support.h"

using namespace cfgtest;

namespace {

// Pieces of files, chosen to meet the edges of passing: names that share
// first letters with the ones looked up, blanks and tabs before "[", short
// lines of every kind, carriage returns, NUL bytes, lines that end or split
// exactly where the 511- and 1199-byte reads do, and "[" at a piece start.
std::string RandomFile(std::mt19937 &random) {
    static const char *const kLines[] = {
        "[net]\n",     "[Net2]\n",   "  [ net ]\n", "[nest]\n",   "[video]\n",   "[v]\n",
        "\t[net]\n",   "[net\n",     "[]x\n",       "port=80\n",  "Port = 81\n", "  port=82\n",
        "pot=1\n",     "mode=720\n", "m=1\n",       "# port=1\n", "text\n",      "\n",
        "\n",          "\n",         "a\n",         "ab\n",       "\r\n",        "a=\n",
        "port=83\r\n", "[net]\r\n",  "x[net]\n",    "po\0rt=1\n", "\n[net]\n",   "\n[video]\n",
        "[NET]\n",     "[ NeT ]\n",  "\n[]\n",      "\n[n\n",     "\n  [x]\n"};
    std::uniform_int_distribution<int> pick(0, std::size(kLines) - 1);
    std::uniform_int_distribution<int> longLength(505, 1205);
    const size_t nLines = std::uniform_int_distribution<size_t>(0, 1500)(random);
    std::string file;
    for (size_t i = 0; i < nLines; ++i) {
        const int iKind = pick(random);
        if (iKind % 17 == 0) {
            const size_t nLength = longLength(random) * (iKind % 2 + 1);
            const std::string filler(nLength - 6, 'x');
            const int iForm = random() % 3;
            file += iForm == 0   ? filler + "[net]\n"
                    : iForm == 1 ? filler + " port=\n"
                                 : "[v" + filler + "]\n\n";
        } else {
            // A NUL byte keeps a whole block from passing: keep them rare.
            if (iKind != 27)
                file += kLines[iKind];
            else if (random() % 8 == 0)
                file.append(kLines[iKind], 8);
        }
    }
    if (!file.empty() && random() % 4 == 0)
        file.pop_back();
    return file;
}

struct Operation {
    const char *name;
    // Runs the operation on a file; returns its result and what it handed out.
    std::function<std::string(const char *szFile)> run;
};

std::string Result(int iResult, const std::string &output = {}) {
    return std::to_string(iResult) + ":" + output;
}

const Operation kOperations[] = {
    {"GetStringValue",
     [](const char *f) {
         char szValue[64] = {};
         size_t nSize = sizeof(szValue);
         const int iResult = CfgFile_GetStringValue(f, "net", "port", szValue, &nSize, "none");
         return Result(iResult, std::string(szValue) + "/" + std::to_string(nSize));
     }},
    {"EnumerateSections",
     [](const char *f) {
         char szNames[4096];
         size_t nSize = sizeof(szNames);
         unsigned int nCount = 0;
         const int iResult = CfgFile_EnumerateSections(f, "", szNames, &nSize, &nCount);
         return Result(iResult, std::string(szNames, std::min(nSize, sizeof(szNames))) +
                                    std::to_string(nCount));
     }},
    {"FindLineStartingWith",
     [](const char *f) {
         char szLine[600];
         size_t nSize = sizeof(szLine);
         const int iResult = CfgFile_FindLineStartingWith(f, "port", szLine, &nSize);
         return Result(iResult, iResult == CFGFILE_SUCCESS ? std::string(szLine, nSize) : "");
     }},
    // A prefix that begins with a line feed: only an empty line can start
    // with one, and nothing can follow it there.
    {"FindEmptyLine",
     [](const char *f) {
         char szLine[16];
         size_t nSize = sizeof(szLine);
         return Result(CfgFile_FindLineStartingWith(f, "\n", szLine, &nSize));
     }},
    {"FindLineFeedAndText",
     [](const char *f) {
         char szLine[16];
         size_t nSize = sizeof(szLine);
         return Result(CfgFile_FindLineStartingWith(f, "\n[", szLine, &nSize));
     }},
    {"SetStringValue",
     [](const char *f) { return Result(CfgFile_SetStringValue(f, "net", "port", "9")); }},
    {"SetNewSection",
     [](const char *f) { return Result(CfgFile_SetStringValue(f, "nez", "p", "9")); }},
    {"DeleteSections", [](const char *f) { return Result(CfgFile_DeleteSections(f, "ne*")); }},
    {"DeleteKey", [](const char *f) { return Result(CfgFile_DeleteKey(f, "net", "port")); }},
    {"DeleteAllSectionKeys",
     [](const char *f) { return Result(CfgFile_DeleteAllSectionKeys(f, "net")); }},
    {"CommentLine",
     [](const char *f) { return Result(CfgFile_CommentLineStartingWith(f, "port")); }},
    {"DeleteLine", [](const char *f) { return Result(CfgFile_DeleteLineStartingWith(f, "mode")); }},
};

void PrintTo(const Operation &operation, std::ostream *pOut) {
    *pOut << operation.name;
}

class PassLines : public testing::TestWithParam<Operation> {
  protected:
    // The operation's result and output, and the file it leaves.
    std::string RunAtLevel(const std::string &bytes, int nLevel) {
        WriteFile(file, bytes);
        DbgSetChannelLevel("CFGFILELIB", nLevel);
        const std::string result = GetParam().run(file.c_str());
        DbgSetChannelLevel("CFGFILELIB", 0);
        return result + "\n" + ReadFile(file);
    }

    ScratchDir dir;
    const std::string file = dir / "settings.ini";
};

TEST_P(PassLines, SameOutcomeAsReadingEveryLine) {
    // Every message is formatted, and dropped.
    DbgSetOutput([](void *, const char *, int, const char *, const char *, int, const char *) {},
                 nullptr);
    std::mt19937 random(20261123);
    for (int iCase = 0; iCase < 60; ++iCase) {
        const std::string bytes = RandomFile(random);
        ASSERT_EQ(RunAtLevel(bytes, 9), RunAtLevel(bytes, 0)) << "case " << iCase;
    }
    DbgSetOutput(nullptr, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Operations, PassLines, testing::ValuesIn(kOperations),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
