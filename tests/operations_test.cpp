// File bytes in, one operation, result and file bytes out: lookups, sets,
// deletions, line operations and the section list on the same grammar. Every
// case runs twice, with the trace silent (lines that cannot matter pass
// unread) and at level 9 (every line read), and both must agree; generated
// files put the two ways to the same test at block edges.
#include <algorithm>
#include <cstring>
#include <random>

#include "cfgfile_api.h"
#include "test_support.h"

using namespace cfgtest;

namespace {

// The arguments of a case, separated by '|'.
std::vector<std::string> Split(const std::string &args) {
    std::vector<std::string> parts(1);
    for (char c : args)
        c == '|' ? void(parts.emplace_back()) : parts.back().push_back(c);
    return parts;
}

// Runs op on file with args: G get (section|key|capacity), F find (prefix|capacity),
// E list sections (prefix), S set (section|key|value), D delete sections
// (prefix), K delete key (section|key), A delete a section's keys, C comment
// out and L delete the line with a prefix. Reads give "result:output", with
// a section list's NULs as '|'; rewrites give the file they leave.
std::string Apply(char op, const std::string &file, const std::string &args) {
    const std::vector<std::string> a = Split(args + "||");
    const char *f = file.c_str(), *a0 = a[0].c_str(), *a1 = a[1].c_str(), *a2 = a[2].c_str();
    size_t nSize;
    int iResult;
    if (op == 'G') {
        // The value, or the default, cut to the buffer; the size tells its
        // whole length, shown when the value is cut.
        std::string buffer(a[2].empty() ? 256 : std::stoul(a[2]) + 1, '~');
        nSize = buffer.size() - 1;
        iResult = CfgFile_GetStringValue(f, a0, a1, buffer.data(), &nSize, "dflt");
        EXPECT_EQ('~', buffer.back());
        const std::string value = buffer.c_str();
        return std::to_string(iResult) + ":" + value +
               (nSize == value.size() + 1 ? "" : "/" + std::to_string(nSize));
    }
    if (op == 'F') {
        const size_t nCapacity = a[1].empty() ? 64 : std::stoul(a[1]);
        std::string buffer(nCapacity + 1, '~'); // the last byte guards the end
        nSize = nCapacity;
        iResult = CfgFile_FindLineStartingWith(f, a0, buffer.data(), &nSize);
        EXPECT_EQ('~', buffer.back());
        EXPECT_EQ(iResult ? nCapacity : strlen(buffer.c_str()), nSize);
        return std::to_string(iResult) + ":" + (iResult ? "" : buffer.substr(0, nSize));
    }
    if (op == 'E') {
        // Measured without a buffer; then listed into the exact size, and into
        // one byte less, which leaves the last name out.
        unsigned int nCount = 99;
        nSize = 12345;
        iResult = CfgFile_EnumerateSections(f, a0, nullptr, &nSize, &nCount);
        EXPECT_EQ(0u, nCount);
        std::string list;
        for (size_t nCapacity : {nSize, nSize - (nSize > 0)}) {
            std::string buffer(nCapacity + 1, '~');
            size_t nGot = nCapacity;
            EXPECT_EQ(iResult, CfgFile_EnumerateSections(f, a0, buffer.data(), &nGot, &nCount));
            EXPECT_EQ(nSize, nGot);
            // The whole list first; then the names that fit.
            const std::string fits =
                nCapacity == nSize
                    ? buffer.substr(0, nCapacity)
                    : list.substr(0, nCapacity ? list.rfind('\0', nCapacity - 1) + 1 : 0);
            EXPECT_EQ(fits + std::string(nCapacity + 1 - fits.size(), '~'), buffer);
            EXPECT_EQ(std::ranges::count(fits, '\0'), nCount);
            list = nCapacity == nSize ? fits : list;
        }
        std::ranges::replace(list, '\0', '|');
        return std::to_string(iResult) + ":" + list;
    }
    iResult = op == 'S'   ? CfgFile_SetStringValue(f, a0, a1, a2)
              : op == 'D' ? CfgFile_DeleteSections(f, a0)
              : op == 'K' ? CfgFile_DeleteKey(f, a0, a1)
              : op == 'A' ? CfgFile_DeleteAllSectionKeys(f, a0)
              : op == 'C' ? CfgFile_CommentLineStartingWith(f, a0)
                          : CfgFile_DeleteLineStartingWith(f, a0);
    return iResult ? "failed " + std::to_string(iResult) : ReadFile(file);
}

// Runs op on a file of these bytes silent and at level 9; both must agree.
std::string Outcome(char op, const std::string &args, const std::string &bytes) {
    ScratchDir dir;
    const std::string file = dir / "device.ini";
    std::string outcome[2];
    DbgSetOutput([](void *, const char *, int, const char *, const char *, int, const char *) {},
                 nullptr);
    for (int nLevel : {9, 0}) {
        WriteFile(file, bytes);
        const ino_t nInode = Inode(file);
        DbgSetChannelLevel("CFGFILELIB", nLevel);
        outcome[nLevel > 0] = Apply(op, file, args);
        DbgSetChannelLevel("CFGFILELIB", 0);
        // A key or a section's keys deleted from nowhere leave the file as it
        // was; every other change replaces it, leaving no companion file.
        const bool bReplaced = strchr("SDCL", op) || (strchr("KA", op) && ReadFile(file) != bytes);
        EXPECT_EQ(bReplaced, Inode(file) != nInode) << op << " " << args;
        EXPECT_FALSE(Exists(dir / "device.tmp") || Exists(dir / "device.bak"));
    }
    DbgSetOutput(nullptr, nullptr);
    EXPECT_EQ(outcome[1], outcome[0]) << "reading every line differs, " << op << " " << args;
    return outcome[0];
}

struct Case {
    char op;
    std::string before, args, expected;
};

void PrintTo(const Case &c, std::ostream *pOut) {
    *pOut << c.op << " \"" << c.args << "\"";
}

class Operation : public ::testing::TestWithParam<Case> {};

TEST_P(Operation, GivesExpectedOutcome) {
    EXPECT_EQ(GetParam().expected, Outcome(GetParam().op, GetParam().args, GetParam().before));
}

const std::string kName79(79, 's'), k100(100, 'k'), s100(100, ' ');
// Over-long lines whose tail, read as a line of its own, would be a key or a section.
const std::string kLong600 = std::string(511, 'x') + std::string(86, ' ') + "[x]";
const std::string kLong1300 = std::string(1199, 'x') + std::string(98, ' ') + "k=1";

const Case kCases[] = {
    // Lookups: names trimmed and caseless; a tab is text; values untrimmed inside.
    {'G', "[Net]\nMode = fast  \n", "net|mode", "0:fast"},
    {'G', "  [ net ]  \nk=v1\n", "net|k", "0:v1"},
    {'G', "\t[net]\nk=v1\n", "net|k", "2:dflt"},
    {'G', "[net] # main\nk=v1\n", "net|k", "0:v1"},
    {'G', "[a]\nmy key = \t1 # one\t\n", "a|my key", "0:\t1 # one\t"},
    {'G', "[a]\nab=b=c\n", "a|ab", "0:b=c"},
    {'G', "[a]\nab=\n", "a|ab", "0:"},
    // Reads of three bytes are short lines; an unterminated line counts as read.
    {'G', "[a]\na=\n", "a|a", "3:dflt"},
    {'G', "[ab]", "ab|k", "3:dflt"},
    {'G', "[a]\nkey=value", "a|key", "0:value"},
    {'G', "[a]\nkey=value\r\r\n", "a|key", "0:value\r"},
    {'G', "[a]\n # k=1\nk=2\n", "a|k", "0:2"},
    {'G', "k=1\n[a]\n", "a|k", "3:dflt"},
    // The first section of the name ends at any line that starts with '['.
    {'G', "[a]\n[a]\nk=1\n", "a|k", "3:dflt"},
    {'G', "[a]\nk=1\nk=2\n", "a|k", "0:1"},
    {'G', "[a]\n[ab\nk=1\n", "a|k", "3:dflt"},
    {'G', "[ab\n []\n[a]\nk=1\n", "a|k", "0:1"},
    {'G', "[" + kName79 + "]\nk=1\n", kName79 + "|k", "0:1"},
    {'G', "[" + kName79 + "s]\nk=1\n", kName79 + "|k", "2:dflt"},
    {'G', "[   ]\nk=1\n", "|k", "0:1"},
    {'G', "[a]\n" + s100 + "k" + s100 + "=1\n", "a|k", "0:1"},
    {'G', "[a]\n" + std::string(1199, 'x') + "k=tail\n", "a|k", "0:tail"},
    {'G', "[a]\nk=1\0x\nk=2\n"s, "a|k", "0:2"},
    {'G', "", "a|k", "2:dflt"},
    {'G', "[a]\nk=" + std::string(300, 'v'), "a|k|256", "0:" + std::string(255, 'v') + "/301"},
    {'G', "[a]\nm=" + std::string(40, 'w'), "a|m|16", "0:" + std::string(15, 'w') + "/41"},
    {'G', "[a]\n", "a|x|4", "3:dfl/5"},
    // Finding: the first whole line, spaces before the prefix skipped but
    // kept, that fits the buffer less two bytes and holds no NUL.
    {'F', "[a]\n   port=80 \r\n", "port", "0:   port=80 \r"},
    {'F', "Port=80\n", "port", "100:"},
    {'F', "[a]\nk=1\n  # note\n", "#", "0:  # note"},
    {'F', "x=0\nk=1\n[a]\nk=2\n", "k=", "0:k=1"},
    {'F', "x=1\nk=1", "k", "100:"},
    {'F', "k=34567\nk=3456\n", "k|8", "0:k=3456"},
    {'F', "xxxxxxx  k=1\n", "k|8", "100:"},
    {'F', "k\0=1\nk=2\n"s, "k", "0:k=2"},
    // Line changes: '#' before the spaces of the first matching line that is
    // not a comment; short, CR, unterminated, over-long and NUL lines.
    {'C', "[a]\n  k=1\nk=2\n", "k=", "[a]\n#  k=1\nk=2\n"},
    {'L', "[a]\n  k=1\nk=2\n", "k=", "[a]\nk=2\n"},
    {'C', "# k=1\n  #k=2\nk=3\n", "k", "# k=1\n  #k=2\n#k=3\n"},
    {'L', "#x=1\nx=2\n", "#x", "#x=1\nx=2\n"},
    {'C', "# c\n\nk=1\n", "", "# c\n#\nk=1\n"},
    {'L', "a\n\nab\nk=1\nb\n", "k", "a\n\nab\nb\n"},
    {'C', "x\r\nk=1\r\ny\r\n", "k", "x\r\n#k=1\r\ny\r\n"},
    {'L', "x=1\nk=1", "k", "x=1\nk=1"},
    {'C', kLong1300 + "\nk=2\n", "k", kLong1300 + "\n#k=2\n"},
    {'L', "k\0=1\n\0k\nk=2\n"s, "k", "k\0=1\n\0k\n"s},
    // Sets: a new key after the section's last line that is not blank, a new
    // section after a blank line; before the change, short lines and lines
    // without '=' in the section are dropped.
    {'S', "", "Net|Port|80", "\n[Net]\nPort=80\n"},
    {'S', "[a]\nx=1\n\n[b]\ny=2\n", "a|z|3", "[a]\nx=1\nz=3\n\n[b]\ny=2\n"},
    {'S', "[a]\nx=1\n# note\n[b]\n", "a|z|3", "[a]\nx=1\n# note\nz=3\n\n[b]\n"},
    {'S', "[a]\nx=1\n", "b|y|2", "[a]\nx=1\n\n[b]\ny=2\n"},
    {'S', "[a]\n\n\n[b]\nk=1\n\n\n[c]\n", "c|k|2", "[a]\n\n[b]\nk=1\n\n[c]\nk=2\n"},
    {'S', "[a]\nk=1\n\n\n[b]\n", "a|k|2", "[a]\nk=2\n\n\n[b]\n"},
    {'S', "[ Net ]\n   PORT = 80\r\n", "net|port|81", "[ Net ]\nport=81\n"},
    {'S', "[a]\nnoise\nk=1\n[b]\nnoise\n", "a|k|2", "[a]\nk=2\n[b]\nnoise\n"},
    {'S', "[a]\nk=1\n[a]\nk=2\n", "a|k|3", "[a]\nk=3\n[a]\nk=2\n"},
    {'S', "[a]\nk=1\nk=2\n", "a|k|3", "[a]\nk=3\nk=2\n"},
    {'S', "[a]\nx=1\n[bb\n", "a|k|2", "[a]\nx=1\nk=2\n\n[bb\n"},
    {'S', "[a]\nk=1", "a|k|2", "[a]\nk=2\n"},
    {'S', "[a]\nxy=1", "a|k|2", "[a]\nxy=1\nk=2\n"},
    {'S', "[a]\nxy=1", "b|k|2", "[a]\nxy=1\n[b]\nk=2\n"},
    {'S', "xy=1\n[ab]", "ab|k|2", "xy=1\n[ab]\nk=2\n"},
    {'S', "[o]\n\tk = v \r\n[a]\n", "a|k|1", "[o]\n\tk = v \r\n\n[a]\nk=1\n"},
    {'S', "[a]\nj=1\0x\nk=1\n\0\nq=2\n"s, "a|k|2", "[a]\nj=1\0x\nk=2\n\0\nq=2\n"s},
    {'S', "[a]\n" + std::string(120, 'k') + "=1\n" + s100 + "k" + s100 + "=2\n", "a|k|3",
     "[a]\n" + std::string(120, 'k') + "=1\nk=3\n"},
    // Section deletion: whole names trimmed and caseless; a final '*' makes
    // a prefix, an inner one is text; unclosed and empty names never match.
    {'D', "[Video]\nk=1\n[ VIDEO ]\nk=2\n[video1]\nk=3\n", "video", "[video1]\nk=3\n"},
    {'D', "top\n[Video]\nk=1\n[video1]\n[a]\n[videos]\n", "video*", "top\n[a]\n"},
    {'D', "[a*b]\n1\n[a*bc]\n2\n[ab]\n", "a*b*", "[ab]\n"},
    {'D', "# head\nk=0\n[a]\nk=1\n[b\nx=1\n[c]\n[]\nz=1\n", "*", "# head\nk=0\n[b\nx=1\n[]\nz=1\n"},
    {'D', "[b]\n[a]\n# c\n\nk\nz=9", "a", "[b]\nz=9"},
    {'D', "[a]\nk=1\n\tx\r\n", "b", "[a]\nk=1\n\tx\r\n"},
    {'D', "[   ]\nk=1\n[a]\nk=2\n", "", "[a]\nk=2\n"},
    {'D', "[a]\n" + kLong600 + "\nk=1\n[b]\n", "a", kLong600 + "\n[b]\n"},
    // Key deletion: the first line of the key in the first section of the
    // name; after a deletion, a later section of the name is searched again.
    {'K', "[ NET ]\n  port = 80\nhost=a\n", "net|Port", "[ NET ]\nhost=a\n"},
    {'K', "[a]\nk=1\n# c\n\nk=2\n", "a|k", "[a]\n# c\n\nk=2\n"},
    {'K', "[a]\nx=1\n[b]\n[a]\nk=1\n", "a|k", "[a]\nx=1\n[b]\n[a]\nk=1\n"},
    {'K', "[a]\nk=1\n[b]\nk=2\n[a]\nk=3\nk=4\n", "a|k", "[a]\n[b]\nk=2\n[a]\nk=4\n"},
    {'K', "[a]\n" + kLong600 + "k=1\nk=2\n", "a|k", "[a]\n" + kLong600 + "k=1\n"},
    {'K', "[a]\nk=1", "a|k", "[a]\nk=1"},
    {'K', "[a]\na=\nb=1\n", "a|a", "[a]\nb=1\n"},
    {'K', "[a]\n" + k100 + "=1\n" + s100 + "k =2\n", "a|k", "[a]\n" + k100 + "=1\n"},
    // A section's keys: every line holding '=', comments too, in every
    // section of the name; a section line right after a matching one stays.
    {'A', "[Net]\na=1\n# b=2\n# note\n\nc = 3\n[other]\nd=4\n", "net",
     "[Net]\n# note\n\n[other]\nd=4\n"},
    {'A', "k=0\n[a]\nk=1\n[b]\nk=2\n[a]\nk=3\n", "a", "k=0\n[a]\n[b]\nk=2\n[a]\n"},
    {'A', "[a]\nk=1\n[a]\nk=2\n", "a", "[a]\n[a]\nk=2\n"},
    {'A', "[a]\n# note\n\n[b]\nk=1\n", "a", "[a]\n# note\n\n[b]\nk=1\n"},
    {'A', "[a]\n" + kLong600 + "k=1\nk=2\n", "a", "[a]\n" + kLong600 + "k=1\n"},
    // The section list: names as written, prefix caseless, duplicates twice;
    // only lines longer than "[]" that hold a ']' and end in a line feed.
    {'E', "[ Net ]\n[net]\n", " nE", "0: Net |"},
    {'E', "[Video]\n[vid]\n[video1]\n[VIDEO]\n", "vIDeo", "0:Video|video1|VIDEO|"},
    {'E', "[]x\n", "", "0:|"},
    {'E', "[]\n[a]b]\n[b]", "", "0:a|"},
    {'E', "\t[t]\n   [x] text\n#[c]\n[open\n", "", "0:x|"},
};
INSTANTIATE_TEST_SUITE_P(Grammar, Operation, ::testing::ValuesIn(kCases), [](const auto &info) {
    return info.param.op + std::to_string(info.index);
});

// Files of pieces that meet the edges of passing lines unread: names that
// share first letters with the ones looked up, blanks and tabs before "[",
// short lines of every kind, carriage returns, NUL bytes, lines that end or
// split where the reads do, and "[" at a piece start.
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

class PassLines : public ::testing::TestWithParam<std::pair<char, const char *>> {};

TEST_P(PassLines, SameOutcomeAsReadingEveryLine) {
    std::mt19937 random(20261123);
    for (int iCase = 0; iCase < 60 && !HasFailure(); ++iCase)
        Outcome(GetParam().first, GetParam().second, RandomFile(random));
}

// A prefix that begins with a line feed: only an empty line can start with
// one, and nothing can follow it there.
INSTANTIATE_TEST_SUITE_P(Operations, PassLines,
                         ::testing::Values(std::pair('G', "net|port"), std::pair('E', ""),
                                           std::pair('F', "port|600"), std::pair('F', "\n|16"),
                                           std::pair('F', "\n[|16"), std::pair('S', "net|port|9"),
                                           std::pair('S', "nez|p|9"), std::pair('D', "ne*"),
                                           std::pair('K', "net|port"), std::pair('A', "net"),
                                           std::pair('C', "port"), std::pair('L', "mode")));

} // namespace
