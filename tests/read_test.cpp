// Reading values: the file grammar as the getters see it, results, defaults,
// cutting, and the trace messages with their levels.
#include <climits>
#include <cstdint>

#include "cfgfile_api.h"
#include "test_support.h"

using cfgtest::ScratchDir;
using cfgtest::TraceCapture;
using cfgtest::WriteFile;

namespace {

struct LookupCase {
    const char *name;
    std::string file;
    const char *section;
    const char *key;
    int iResult;
    const char *value; // expected on success
};

// Names the case in test output (and keeps its padding bytes out of it).
void PrintTo(const LookupCase &c, std::ostream *pOut) {
    *pOut << c.name;
}

class Lookup : public ::testing::TestWithParam<LookupCase> {};

TEST_P(Lookup, FindsValueOrSaysWhy) {
    const LookupCase &c = GetParam();
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    WriteFile(file, c.file);
    char szValue[256];
    size_t nSize = sizeof(szValue);
    ASSERT_EQ(c.iResult,
              CfgFile_GetStringValue(file.c_str(), c.section, c.key, szValue, &nSize, "dflt"));
    const std::string expected = c.iResult == CFGFILE_SUCCESS ? c.value : "dflt";
    EXPECT_EQ(expected, szValue);
    EXPECT_EQ(expected.size() + 1, nSize);
}

const std::string kLongLine = std::string(1199, 'x') + "k=tail\n"; // the tail is a piece of its own

const LookupCase kLookupCases[] = {
    {"CaselessNames", "[Net]\nMode = fast\n", "net", "mode", CFGFILE_SUCCESS, "fast"},
    {"BlanksAroundSection", "  [ net ]  \nk=v1\n", "net", "k", CFGFILE_SUCCESS, "v1"},
    {"TabBeforeSectionIsKeyLine", "\t[net]\nk=v1\n", "net", "k", CFGFILE_SECTION_NOT_FOUND, ""},
    {"TextAfterBracket", "[net] # main\nk=v1\n", "net", "k", CFGFILE_SUCCESS, "v1"},
    {"EmptyValue", "[a]\nab=\n", "a", "ab", CFGFILE_SUCCESS, ""},
    {"ThreeByteLineIsShort", "[a]\na=\n", "a", "a", CFGFILE_KEY_NOT_FOUND, ""},
    {"ShortUnterminatedSection", "k=1\n[a]", "a", "k", CFGFILE_SECTION_NOT_FOUND, ""},
    {"UnterminatedSectionOpens", "[ab]", "ab", "k", CFGFILE_KEY_NOT_FOUND, ""},
    {"UnterminatedKeyLine", "[a]\nkey=value", "a", "key", CFGFILE_SUCCESS, "value"},
    {"CarriageReturnRemoved", "[a]\nkey=value\r\n", "a", "key", CFGFILE_SUCCESS, "value"},
    {"OnlyOneCarriageReturn", "[a]\nkey=value\r\r\n", "a", "key", CFGFILE_SUCCESS, "value\r"},
    {"TabIsText", "[a]\nkey=\tv\t\n", "a", "key", CFGFILE_SUCCESS, "\tv\t"},
    {"InnerBlanksKept", "[a]\nmy key = 1 # one\n", "a", "my key", CFGFILE_SUCCESS, "1 # one"},
    {"FurtherEqualsInValue", "[a]\nab=b=c\n", "a", "ab", CFGFILE_SUCCESS, "b=c"},
    {"CommentSkipped", "[a]\n # k=1\nk=2\n", "a", "k", CFGFILE_SUCCESS, "2"},
    {"KeyBeforeFirstSection", "k=1\n[b]\n", "a", "k", CFGFILE_SECTION_NOT_FOUND, ""},
    {"KeyBeforeFirstSectionNotInSection", "k=1\n[a]\n", "a", "k", CFGFILE_KEY_NOT_FOUND, ""},
    {"SecondSameSectionEndsSearch", "[a]\n[a]\nk=1\n", "a", "k", CFGFILE_KEY_NOT_FOUND, ""},
    {"FirstDuplicateKeyWins", "[a]\nk=1\nk=2\n", "a", "k", CFGFILE_SUCCESS, "1"},
    {"MalformedSectionEndsSearch", "[a]\n[ab\nk=1\n", "a", "k", CFGFILE_KEY_NOT_FOUND, ""},
    {"EmptyBracketsEndSearch", "[a]\n []\nk=1\n", "a", "k", CFGFILE_KEY_NOT_FOUND, ""},
    {"MalformedSectionOutsideIgnored", "[ab\n []\n[a]\nk=1\n", "a", "k", CFGFILE_SUCCESS, "1"},
    {"Section79Chars", "[" + std::string(79, 's') + "]\nk=1\n", nullptr, "k", CFGFILE_SUCCESS, "1"},
    {"Section80CharsIgnored", "[" + std::string(80, 's') + "]\nk=1\n", nullptr, "k",
     CFGFILE_SECTION_NOT_FOUND, ""},
    {"BlankSectionName", "[   ]\nk=1\n", "", "k", CFGFILE_SUCCESS, "1"},
    {"LongKeyPartTrimsShort", "[a]\n" + std::string(90, ' ') + "k" + std::string(90, ' ') + "=1\n",
     "a", "k", CFGFILE_SUCCESS, "1"},
    {"PieceOfLongLineIsALine", "[a]\n" + kLongLine, "a", "k", CFGFILE_SUCCESS, "tail"},
    {"NulLineIgnored", std::string("[a]\nk=1\0x\nk=2\n", 14), "a", "k", CFGFILE_SUCCESS, "2"},
    {"EmptyFile", "", "a", "k", CFGFILE_SECTION_NOT_FOUND, ""},
};

// Names of 79 characters are the longest a getter accepts.
std::vector<LookupCase> LookupCases() {
    std::vector<LookupCase> cases(std::begin(kLookupCases), std::end(kLookupCases));
    static const std::string name79(79, 's');
    for (LookupCase &c : cases)
        if (c.section == nullptr)
            c.section = name79.c_str();
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Grammar, Lookup, ::testing::ValuesIn(LookupCases()),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(StringGetter, CutsToBufferAndReportsWholeLength) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    const std::string value300(300, 'v');
    WriteFile(file, "[a]\nk=" + value300 + "\nm=" + std::string(40, 'w') + "\n");
    char szValue[300];
    size_t nSize = 256;
    memset(szValue, '#', sizeof(szValue));
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_GetStringValue(file.c_str(), "a", "k", szValue, &nSize, ""));
    EXPECT_EQ(std::string(255, 'v'), szValue);
    EXPECT_EQ(301u, nSize);
    EXPECT_EQ('#', szValue[256]); // nothing written past the capacity

    nSize = 16;
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_GetStringValue(file.c_str(), "a", "m", szValue, &nSize, ""));
    EXPECT_EQ(std::string(15, 'w'), szValue);
    EXPECT_EQ(41u, nSize);

    // The default is cut the same way; the size tells its whole length.
    nSize = 4;
    ASSERT_EQ(CFGFILE_KEY_NOT_FOUND,
              CfgFile_GetStringValue(file.c_str(), "a", "x", szValue, &nSize, "0123456789"));
    EXPECT_STREQ("012", szValue);
    EXPECT_EQ(11u, nSize);

    nSize = sizeof(szValue);
    EXPECT_EQ(CFGFILE_FILE_ACCESS,
              CfgFile_GetStringValue((dir / "missing").c_str(), "a", "k", szValue, &nSize, "dflt"));
    EXPECT_STREQ("dflt", szValue);
    EXPECT_EQ(5u, nSize);
}

TEST(StringGetter, RefusedArgumentsTouchNothing) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    WriteFile(file, "[a]\nk=value\n");
    const std::string name80(80, 'n'), default256(256, 'd');
    char szValue[16] = "untouched";
    size_t nSize = sizeof(szValue);
    size_t nZero = 0;
    const struct {
        const char *file, *section, *key;
        char *buffer;
        size_t *size;
        const char *defaultValue;
    } kRefused[] = {
        {nullptr, "a", "k", szValue, &nSize, ""},
        {file.c_str(), "a", "k", nullptr, &nSize, ""},
        {file.c_str(), "a", "k", szValue, nullptr, ""},
        {file.c_str(), "a", "k", szValue, &nSize, nullptr},
        {file.c_str(), "a", "k", szValue, &nSize, default256.c_str()},
        {file.c_str(), nullptr, "k", szValue, &nSize, ""},
        {file.c_str(), name80.c_str(), "k", szValue, &nSize, ""},
        {file.c_str(), "a", name80.c_str(), szValue, &nSize, ""},
        {file.c_str(), "a", "k", szValue, &nZero, ""},
    };
    for (const auto &r : kRefused) {
        TraceCapture trace(4);
        EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_GetStringValue(r.file, r.section, r.key, r.buffer,
                                                                 r.size, r.defaultValue));
        EXPECT_EQ(std::vector<std::string>{"Invalid parameters detected.\n"}, trace.Texts());
    }
    EXPECT_STREQ("untouched", szValue);
    EXPECT_EQ(sizeof(szValue), nSize);
}

// One row per getter and input: what it returns and what it stores.
TEST(TypedGetters, ResultsAndStoredValues) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    WriteFile(file, "[n]\nport = 8080\nname = eighty\nbig = 4294967297\nhuge = 5000000000\n"
                    "over = 9223372036854775808\nneg = -1\nf = 1.50\nyes = Yes\nno = off\n"
                    "odd = maybe\n");
    const char *f = file.c_str();
    using Outcome = std::pair<int, std::string>;
    auto getInt = [&](const char *szFile, const char *szSection, const char *szKey) {
        int nValue = -7;
        const int iResult = CfgFile_GetIntValue(szFile, szSection, szKey, &nValue, 1);
        return Outcome{iResult, std::to_string(nValue)};
    };
    auto getUnsigned = [&](const char *szKey) {
        unsigned int nValue = 0;
        const int iResult = CfgFile_GetUnsignedIntValue(f, "n", szKey, &nValue, 6);
        return Outcome{iResult, std::to_string(nValue)};
    };
    auto getInt64 = [&](const char *szKey) {
        INT64 nValue = 0;
        const int iResult = CfgFile_GetInt64Value(f, "n", szKey, &nValue, -1);
        return Outcome{iResult, std::to_string(nValue)};
    };
    auto getFloat = [&](const char *szKey) {
        float fValue = 0;
        const int iResult = CfgFile_GetFloatValue(f, "n", szKey, &fValue, 2.5f);
        return Outcome{iResult, std::to_string(fValue)};
    };
    auto getBool = [&](const char *szKey, BOOL bDefault) {
        BOOL bValue = 7;
        const int iResult = CfgFile_GetBooleanValue(f, "n", szKey, &bValue, bDefault);
        return Outcome{iResult, std::to_string(bValue)};
    };
    const struct {
        Outcome actual;
        Outcome expected;
    } kCases[] = {
        {getInt(f, "n", "port"), {CFGFILE_SUCCESS, "8080"}},
        {getInt(f, "n", "name"), {CFGFILE_BAD_VALUE, "1"}},
        {getInt(f, "n", "big"), {CFGFILE_SUCCESS, "1"}}, // the low 32 bits
        {getInt(f, "n", "over"), {CFGFILE_BAD_VALUE, "1"}},
        {getInt(f, "n", "none"), {CFGFILE_KEY_NOT_FOUND, "1"}},
        {getInt(f, "x", "port"), {CFGFILE_SECTION_NOT_FOUND, "1"}},
        {getInt((dir / "no").c_str(), "n", "port"), {CFGFILE_FILE_ACCESS, "1"}},
        {getInt(nullptr, "n", "port"), {CFGFILE_BAD_PARAMETERS, "-7"}},
        {getInt(f, nullptr, "port"), {CFGFILE_BAD_PARAMETERS, "-7"}},
        {getUnsigned("big"), {CFGFILE_SUCCESS, "1"}},
        {getUnsigned("neg"), {CFGFILE_BAD_VALUE, "6"}},
        {getInt64("huge"), {CFGFILE_SUCCESS, "5000000000"}},
        {getInt64("over"), {CFGFILE_BAD_VALUE, "-1"}},
        {getFloat("f"), {CFGFILE_SUCCESS, "1.500000"}},
        {getFloat("name"), {CFGFILE_BAD_VALUE, "2.500000"}},
        {getBool("yes", FALSE), {CFGFILE_SUCCESS, "1"}},
        {getBool("no", TRUE), {CFGFILE_SUCCESS, "0"}},
        {getBool("odd", TRUE), {CFGFILE_SUCCESS, "1"}},
        {getBool("odd", FALSE), {CFGFILE_SUCCESS, "0"}},
    };
    for (size_t i = 0; i < std::size(kCases); ++i)
        EXPECT_EQ(kCases[i].expected, kCases[i].actual) << "row " << i;
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_GetIntValue(f, "n", "port", nullptr, 0));
}

TEST(Tracing, LevelsFilterMessages) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    WriteFile(file, "[n]\nport = 8080\n");
    const struct {
        int nLevel;
        size_t nMessages;
    } kLevels[] = {{8, 16}, {7, 10}, {6, 0}, {2, 0}};
    for (const auto &l : kLevels) {
        TraceCapture trace(l.nLevel);
        int nPort = 0;
        ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_GetIntValue(file.c_str(), "n", "port", &nPort, 0));
        EXPECT_EQ(l.nMessages, trace.Messages().size()) << "level " << l.nLevel;
        for (const auto &message : trace.Messages())
            EXPECT_LE(message.nLevel, l.nLevel);
    }
}

TEST(Tracing, MessagesOfOneLookup) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    WriteFile(file, "[n]\nport = 8080\n");
    TraceCapture trace(7);
    int nPort = 0;
    ASSERT_EQ(CFGFILE_SUCCESS, CfgFile_GetIntValue(file.c_str(), "n", "port", &nPort, 0));
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
        "Returning value 8080.\n",
    };
    EXPECT_EQ(expected, trace.Texts());
    EXPECT_EQ("CfgFile_GetIntValue", trace.Messages().front().function);
    EXPECT_EQ("_ReadValue", trace.Messages()[1].function);
}

TEST(Tracing, NullArgumentsPrintSafely) {
    TraceCapture trace(7);
    int nValue = 3;
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_GetIntValue(nullptr, nullptr, nullptr, &nValue, 0));
    ASSERT_EQ(1u, trace.Messages().size()); // the entry message only
    EXPECT_NE(std::string::npos, trace.Messages()[0].text.find("file=\"(null)\""));
}

TEST(Tracing, LongLinesAndMissingLineFeed) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    WriteFile(file, std::string(1999, 'x') + "\n[ab]");
    TraceCapture trace(5);
    int nValue = 0;
    EXPECT_EQ(CFGFILE_KEY_NOT_FOUND, CfgFile_GetIntValue(file.c_str(), "ab", "k", &nValue, 0));
    const std::vector<std::string> expected = {
        "Line 1 of file \"" + file + "\" of 1199 chars might not have been read completely.\n",
        "Line 1 of file \"" + file + "\" of 1199 char is not terminated by new line character.\n",
        "Line 3 of file \"" + file + "\" of 4 char is not terminated by new line character.\n",
    };
    EXPECT_EQ(expected, trace.Texts());
}

} // namespace
