// While the trace is below level 4 the operations let lines that cannot
// matter pass unread, in runs; at higher levels they read every line. Each
// case here runs one operation on one generated file both ways and expects
// the same result, the same output and the same file left behind.
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
    static const std::string kLines[] = {
        "[net]\n",     "[Net2]\n",   "  [ net ]\n", "[nest]\n",    "[video]\n",   "[v]\n",
        "\t[net]\n",   "[net\n",     "[]x\n",       "port=80\n",   "Port = 81\n", "  port=82\n",
        "pot=1\n",     "mode=720\n", "m=1\n",       "# port=1\n",  "text\n",      "\n",
        "\n",          "\n",         "a\n",         "ab\n",        "\r\n",        "a=\n",
        "port=83\r\n", "[net]\r\n",  "x[net]\n",    "po\0rt=1\n"s, "\n[net]\n",   "\n[video]\n",
        "[NET]\n",     "[ NeT ]\n",  "\n[]\n",      "\n[n\n",      "\n  [x]\n"};
    std::string file;
    for (size_t i = std::uniform_int_distribution<size_t>(0, 1500)(random); i > 0; --i) {
        const size_t iKind = random() % std::size(kLines);
        if (iKind % 17 == 0) {
            const size_t nLength = std::uniform_int_distribution<size_t>(505, 1205)(random);
            const std::string filler(nLength * (iKind % 2 + 1) - 6, 'x');
            const int iForm = random() % 3;
            file += iForm == 0   ? filler + "[net]\n"
                    : iForm == 1 ? filler + " port=\n"
                                 : "[v" + filler + "]\n\n";
        } else if (iKind != 27 || random() % 8 == 0) { // NUL bytes keep blocks from passing
            file += kLines[iKind];
        }
    }
    if (!file.empty() && random() % 4 == 0)
        file.pop_back();
    return file;
}

// Runs an operation on a file; returns its result and what it handed out.
using Operation = std::pair<const char *, std::string (*)(const char *szFile)>;
int FindIn16Bytes(const char *szFile, const char *szPrefix) {
    char szLine[16];
    size_t nSize = sizeof(szLine);
    return CfgFile_FindLineStartingWith(szFile, szPrefix, szLine, &nSize);
}

#define RESULT(name, call) Operation(name, [](const char *f) { return std::to_string(call); })

const Operation kOperations[] = {
    {"GetStringValue",
     [](const char *f) {
         char szValue[64] = {};
         size_t nSize = sizeof(szValue);
         const int iResult = CfgFile_GetStringValue(f, "net", "port", szValue, &nSize, "none");
         return std::to_string(iResult) + szValue + "/" + std::to_string(nSize);
     }},
    {"EnumerateSections",
     [](const char *f) {
         char szNames[4096];
         size_t nSize = sizeof(szNames);
         unsigned int nCount = 0;
         const int iResult = CfgFile_EnumerateSections(f, "", szNames, &nSize, &nCount);
         return std::to_string(iResult) + std::string(szNames, std::min(nSize, sizeof(szNames))) +
                std::to_string(nCount);
     }},
    {"FindLineStartingWith",
     [](const char *f) {
         char szLine[600];
         size_t nSize = sizeof(szLine);
         const int iResult = CfgFile_FindLineStartingWith(f, "port", szLine, &nSize);
         return std::to_string(iResult) + (iResult ? "" : std::string(szLine, nSize));
     }},
    // A prefix that begins with a line feed: only an empty line can start
    // with one, and nothing can follow it there.
    RESULT("FindEmptyLine", FindIn16Bytes(f, "\n")),
    RESULT("FindLineFeedAndText", FindIn16Bytes(f, "\n[")),
    RESULT("SetStringValue", CfgFile_SetStringValue(f, "net", "port", "9")),
    RESULT("SetNewSection", CfgFile_SetStringValue(f, "nez", "p", "9")),
    RESULT("DeleteSections", CfgFile_DeleteSections(f, "ne*")),
    RESULT("DeleteKey", CfgFile_DeleteKey(f, "net", "port")),
    RESULT("DeleteAllSectionKeys", CfgFile_DeleteAllSectionKeys(f, "net")),
    RESULT("CommentLine", CfgFile_CommentLineStartingWith(f, "port")),
    RESULT("DeleteLine", CfgFile_DeleteLineStartingWith(f, "mode")),
};

class PassLines : public testing::TestWithParam<Operation> {
  protected:
    // The operation's result and output, and the file it leaves.
    std::string RunAtLevel(const std::string &bytes, int nLevel) {
        WriteFile(file, bytes);
        DbgSetChannelLevel("CFGFILELIB", nLevel);
        const std::string result = GetParam().second(file.c_str());
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
                         [](const auto &info) { return std::string(info.param.first); });

} // namespace
