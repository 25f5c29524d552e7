// Reading values: the file grammar as the getters see it, results, defaults,
// cutting, and the trace messages with their levels.
#include "cfgfile_api.h"
#include "test_support.h"

using namespace cfgtest;

namespace {

const std::string kName79(79, 's');

struct LookupCase {
    const char *name;
    std::string file;
    const char *section, *key;
    int iResult;
    const char *value; // expected on success
};

void PrintTo(const LookupCase &c, std::ostream *pOut) {
    *pOut << c.name;
}

class Lookup : public ::testing::TestWithParam<LookupCase> {};

TEST_P(Lookup, FindsValueOrSaysWhy) {
    const LookupCase &c = GetParam();
    ScratchDir dir;
    WriteFile(dir / "f.ini", c.file);
    char szValue[256];
    size_t nSize = sizeof(szValue);
    ASSERT_EQ(c.iResult, CfgFile_GetStringValue((dir / "f.ini").c_str(), c.section, c.key, szValue,
                                                &nSize, "dflt"));
    const std::string expected = c.iResult == CFGFILE_SUCCESS ? c.value : "dflt";
    EXPECT_EQ(expected, szValue);
    EXPECT_EQ(expected.size() + 1, nSize);
}

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
    {"Section79Chars", "[" + kName79 + "]\nk=1\n", kName79.c_str(), "k", CFGFILE_SUCCESS, "1"},
    {"Section80CharsIgnored", "[" + kName79 + "s]\nk=1\n", kName79.c_str(), "k",
     CFGFILE_SECTION_NOT_FOUND, ""},
    {"BlankSectionName", "[   ]\nk=1\n", "", "k", CFGFILE_SUCCESS, "1"},
    {"LongKeyPartTrimsShort", "[a]\n" + std::string(90, ' ') + "k" + std::string(90, ' ') + "=1\n",
     "a", "k", CFGFILE_SUCCESS, "1"},
    // A line over 1199 bytes is read in pieces; its tail is a line of its own.
    {"PieceOfLongLineIsALine", "[a]\n" + std::string(1199, 'x') + "k=tail\n", "a", "k",
     CFGFILE_SUCCESS, "tail"},
    {"NulLineIgnored", "[a]\nk=1\0x\nk=2\n"s, "a", "k", CFGFILE_SUCCESS, "2"},
    {"EmptyFile", "", "a", "k", CFGFILE_SECTION_NOT_FOUND, ""},
};

INSTANTIATE_TEST_SUITE_P(Grammar, Lookup, ::testing::ValuesIn(kLookupCases),
                         [](const auto &info) { return std::string(info.param.name); });

// The value, or the default, is cut to the buffer; the size tells its whole length.
TEST(StringGetter, CutsToBufferAndReportsWholeLength) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    WriteFile(file, "[a]\nk=" + std::string(300, 'v') + "\nm=" + std::string(40, 'w') + "\n");
    const struct {
        std::string file;
        const char *key;
        size_t nCapacity;
        const char *defaultValue;
        int iResult;
        std::string value;
        size_t nSize;
    } kCases[] = {{file, "k", 256, "", CFGFILE_SUCCESS, std::string(255, 'v'), 301},
                  {file, "m", 16, "", CFGFILE_SUCCESS, std::string(15, 'w'), 41},
                  {file, "x", 4, "0123456789", CFGFILE_KEY_NOT_FOUND, "012", 11},
                  {dir / "missing", "k", 300, "dflt", CFGFILE_FILE_ACCESS, "dflt", 5}};
    for (const auto &c : kCases) {
        std::string buffer(c.nCapacity + 1, '#');
        size_t nSize = c.nCapacity;
        EXPECT_EQ(c.iResult, CfgFile_GetStringValue(c.file.c_str(), "a", c.key, buffer.data(),
                                                    &nSize, c.defaultValue));
        EXPECT_EQ(c.value, buffer.c_str());
        EXPECT_EQ(c.nSize, nSize);
        EXPECT_EQ('#', buffer.back()) << "written past the capacity";
    }
}

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
    for (const auto &r : kRefused) {
        TraceCapture trace(4);
        EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_GetStringValue(r.file, r.section, r.key, r.buffer,
                                                                 r.size, r.defaultValue));
        EXPECT_EQ(std::vector<std::string>{"Invalid parameters detected.\n"}, trace.Texts());
    }
    EXPECT_STREQ("untouched", szValue);
    EXPECT_EQ(sizeof(szValue), nSize);
}

// A typed getter's result and the value it stored, as "result:value"; the
// value starts as 7. Types: i int, u unsigned, l 64-bit, f float, and b or B
// boolean with the default FALSE or TRUE.
std::string Got(char cType, const char *szFile, const char *szSection, const char *szKey) {
    int n = 7;
    unsigned int u = 7;
    INT64 l = 7;
    float f = 7;
    BOOL b = 7;
    const auto got = [](int iResult, const auto &value) {
        return std::to_string(iResult) + ":" + std::to_string(value);
    };
    const char *s = szSection, *k = szKey;
    return cType == 'i'   ? got(CfgFile_GetIntValue(szFile, s, k, &n, 1), n)
           : cType == 'u' ? got(CfgFile_GetUnsignedIntValue(szFile, s, k, &u, 6), u)
           : cType == 'l' ? got(CfgFile_GetInt64Value(szFile, s, k, &l, -1), l)
           : cType == 'f' ? got(CfgFile_GetFloatValue(szFile, s, k, &f, 2.5f), f)
                          : got(CfgFile_GetBooleanValue(szFile, s, k, &b, cType == 'B'), b);
}

TEST(TypedGetters, ResultsAndStoredValues) {
    ScratchDir dir;
    const std::string file = dir / "f.ini";
    WriteFile(file, "[n]\nport = 8080\nname = eighty\nbig = 4294967297\nhuge = 5000000000\n"
                    "over = 9223372036854775808\nneg = -1\nf = 1.50\nyes = Yes\nno = off\n"
                    "odd = maybe\nimin=-2147483648\numax=4294967295\n"
                    "lmin=-9223372036854775808\n");
    const struct {
        char cType;
        const char *section, *key, *expected;
    } kCases[] = {{'i', "n", "port", "0:8080"},
                  {'i', "n", "name", "4:1"},
                  {'i', "n", "big", "0:1"},
                  {'i', "n", "over", "4:1"},
                  {'i', "n", "imin", "0:-2147483648"},
                  {'i', "n", "none", "3:1"},
                  {'i', "x", "port", "2:1"},
                  {'i', nullptr, "port", "1:7"},
                  {'u', "n", "big", "0:1"},
                  {'u', "n", "umax", "0:4294967295"},
                  {'u', "n", "neg", "4:6"},
                  {'l', "n", "huge", "0:5000000000"},
                  {'l', "n", "lmin", "0:-9223372036854775808"},
                  {'l', "n", "over", "4:-1"},
                  {'f', "n", "f", "0:1.500000"},
                  {'f', "n", "name", "4:2.500000"},
                  {'b', "n", "yes", "0:1"},
                  {'B', "n", "no", "0:0"},
                  {'B', "n", "odd", "0:1"},
                  {'b', "n", "odd", "0:0"}};
    for (const auto &c : kCases)
        EXPECT_EQ(c.expected, Got(c.cType, file.c_str(), c.section, c.key)) << c.key;
    EXPECT_EQ("5:1", Got('i', (dir / "no").c_str(), "n", "port"));
    EXPECT_EQ("1:7", Got('i', nullptr, "n", "port"));
    EXPECT_EQ(CFGFILE_SUCCESS, CfgFile_GetIntValue(file.c_str(), "n", "port", nullptr, 0));
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
    TraceCapture trace(7);
    EXPECT_EQ(CFGFILE_BAD_PARAMETERS, CfgFile_GetIntValue(nullptr, nullptr, nullptr, &nPort, 0));
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
    const std::string line = "Line 1 of file \"" + file + "\" of 1199 ";
    const std::vector<std::string> expected = {
        line + "chars might not have been read completely.\n",
        line + "char is not terminated by new line character.\n",
        "Line 3 of file \"" + file + "\" of 4 char is not terminated by new line character.\n"};
    EXPECT_EQ(expected, trace.Texts());
}

} // namespace
