// cfgfile.cpp - command line of the cfgfile tool: options, commands, help.
//
//   cfgfile [-v LEVEL] [--lock] COMMAND [OPTIONS] FILE ...
//
// Each command is one call of the settings library; its result code is the
// exit status, so scripts can tell a missing key from a missing file.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "cfgfile_api.h"
#include "cfgfile_tool.h"
#include "dbgtrace.h"

namespace cfgtool {

namespace {

// Options a command takes, besides --help.
enum : unsigned {
    kOptType = 1u,
    kOptDefault = 2u,
    kOptPrecision = 4u,
    kOptFormat = 8u,
    kOptScript = 16u // -f
};

// "set" takes any number of SECTION KEY VALUE triples.
constexpr size_t kManyArgs = static_cast<size_t>(-1);

struct Command {
    const char *szName;
    const char *szSynopsis; // what follows the name
    const char *szHelp;     // printed after the synopsis by --help
    size_t nMinArgs;
    size_t nMaxArgs;
    unsigned fOptions;
    bool bChangesFile; // warned about a backup left by an interrupted change
    int (*pfnRun)(const Arguments &);
};

const Command kCommands[] = {
    {"get", "FILE SECTION KEY [--type TYPE] [--default VALUE]",
     "Prints the value of KEY in SECTION on one line.\n"
     "  --type TYPE      string (default), int, uint, int64, float, bool,\n"
     "                   video-format, video-resolution or video-size\n"
     "  --default VALUE  printed, with exit status 0, when the file, the section\n"
     "                   or the key is missing, or a bool or video value names\n"
     "                   nothing known\n"
     "A bool prints as yes or no, a video format or resolution as its decimal\n"
     "code, a video size as WIDTHxHEIGHT (also the form of its --default).\n"
     "A number that does not parse fails with 4 (CFGFILE_BAD_VALUE), --default\n"
     "or not; so does an unknown bool or video name without --default.\n",
     3, 3, kOptType | kOptDefault, false, RunGet},
    {"set", "FILE SECTION KEY VALUE [SECTION KEY VALUE]... [--type TYPE] [--precision N]",
     "Sets KEY in SECTION to VALUE, adding the key, the section or the file.\n"
     "Several triples are set in one rewrite: all of them or, on a failure, none.\n"
     "  --type TYPE      string (default), int, uint, int64, float or bool;\n"
     "                   applies to every VALUE\n"
     "  --precision N    decimals written for a float (default 6)\n"
     "A VALUE that is not of the type fails with 1 and leaves the file alone.\n"
     "Bools are yes/no, true/false, on/off or 1/0 and are written as Yes or No.\n"
     "Put '--' before a VALUE that begins with '--'.\n",
     4, kManyArgs, kOptType | kOptPrecision, true, RunSet},
    {"apply", "FILE [-f SCRIPT]",
     "Makes the changes read from SCRIPT, or from standard input, in one rewrite:\n"
     "all of them or, on any failure, none. One change a line:\n"
     "  set SECTION KEY VALUE\n"
     "  del-key SECTION KEY\n"
     "Words are separated by blanks and quoted as in sh, with no expansion:\n"
     "  '...'   everything literally, up to the next '\n"
     "  \"...\"   literally, except that \\\" \\\\ \\$ and \\` stand for \" \\ $ and `\n"
     "  \\c      outside quotes: the character c\n"
     "VALUE is exactly one word: quote a value with blanks ('Lobby camera').\n"
     "Blank lines are skipped; so is the rest of a line from a word beginning\n"
     "with an unquoted #. A line that cannot be read (unknown verb, wrong number\n"
     "of words, unterminated quote, empty section or key) is reported with its\n"
     "number, and the file is left as it is: exit status 1. At most 1024 changes.\n",
     1, 1, kOptScript, true, RunApply},
    {"del-key", "FILE SECTION KEY",
     "Removes the first line of KEY in the first SECTION that holds it.\n"
     "A missing file, section or key is not an error.\n",
     3, 3, 0, true, RunDeleteKey},
    {"clear-section", "FILE SECTION",
     "Removes every line holding '=' from each section named SECTION.\n", 2, 2, 0, true,
     RunClearSection},
    {"del-sections", "FILE NAME|PREFIX*",
     "Removes whole sections: the section NAME, or every section whose name\n"
     "begins with PREFIX. Quote the '*' from the shell.\n",
     2, 2, 0, true, RunDeleteSections},
    {"keys", "FILE SECTION",
     "Prints the keys of SECTION, one a line, in file order and as first written.\n"
     "A missing SECTION fails with 2.\n",
     2, 2, 0, false, RunKeys},
    {"show", "FILE SECTION [--format lines|sh]",
     "Prints the keys of SECTION with their values.\n"
     "  --format lines   KEY=VALUE lines (the default)\n"
     "  --format sh      NAME='VALUE' lines that sh can eval: NAME is KEY with each\n"
     "                   character other than A-Z a-z 0-9 _ made '_', and '_' put\n"
     "                   before a leading digit; ' in VALUE is written '\\''. When\n"
     "                   two keys give one NAME, the first is printed and the\n"
     "                   later ones are left out with a warning on stderr.\n"
     "The names are the file's: a key named PATH sets PATH. Eval the output of\n"
     "a file you do not trust in a subshell.\n",
     2, 2, kOptFormat, false, RunShow},
    {"sections", "FILE [PREFIX]",
     "Prints the names of the sections, or of those beginning with PREFIX,\n"
     "one a line, in file order and as written.\n",
     1, 2, 0, false, RunSections},
    {"find-line", "FILE PREFIX",
     "Prints the first line that begins with PREFIX after leading spaces\n"
     "(exact bytes); fails with 100 when there is none.\n",
     2, 2, 0, false, RunFindLine},
    {"comment-line", "FILE PREFIX",
     "Puts '#' before the first line, not a comment, that begins with PREFIX.\n", 2, 2, 0, true,
     RunCommentLine},
    {"del-line", "FILE PREFIX", "Removes the first line, not a comment, that begins with PREFIX.\n",
     2, 2, 0, true, RunDeleteLine},
    {"chgrp", "FILE GROUP",
     "Gives FILE to GROUP (a name or a number) and makes it group-writable.\n", 2, 2, 0, false,
     RunChangeGroup},
    {"recover", "FILE",
     "Puts FILE back from its backup when a change was interrupted after moving\n"
     "FILE away: FILE is missing and the backup (FILE with its suffix replaced by\n"
     ".bak) exists. Does nothing otherwise.\n",
     1, 1, 0, false, RunRecover},
};

const char kMainHelp[] =
    "usage: cfgfile [-v LEVEL] [--lock] COMMAND [OPTIONS] FILE ...\n"
    "\n"
    "Reads and changes INI-style settings files.\n"
    "\n"
    "Commands:\n"
    "  get FILE SECTION KEY            print a value\n"
    "  set FILE SECTION KEY VALUE...   set values, in one rewrite\n"
    "  apply FILE [-f SCRIPT]          make the changes of a script, all or none\n"
    "  del-key FILE SECTION KEY        remove a key\n"
    "  clear-section FILE SECTION      remove the keys of a section\n"
    "  del-sections FILE NAME|PREFIX*  remove whole sections\n"
    "  keys FILE SECTION               list the keys of a section\n"
    "  show FILE SECTION [--format F]  print a section's keys and values\n"
    "  sections FILE [PREFIX]          list section names\n"
    "  find-line FILE PREFIX           print the first line beginning with PREFIX\n"
    "  comment-line FILE PREFIX        comment that line out\n"
    "  del-line FILE PREFIX            remove that line\n"
    "  chgrp FILE GROUP                give the file to a group, group-writable\n"
    "  recover FILE                    restore FILE from its backup after an\n"
    "                                  interrupted change\n"
    "\n"
    "Options:\n"
    "  -v LEVEL     trace the library on stderr up to LEVEL (7: each call)\n"
    "  --lock       hold an exclusive lock on FILE.lock while the command runs\n"
    "  -h, --help   show this help; 'cfgfile help COMMAND' for a command\n"
    "  --version    show the version\n"
    "\n"
    "Exit status: 0 on success, the library's result code (1-5, 100) on failure,\n"
    "64 for a usage error. See cfgfile(1).\n";

const Command *FindCommand(const char *szName) {
    for (const Command &command : kCommands) {
        if (strcmp(command.szName, szName) == 0)
            return &command;
    }
    return nullptr;
}

void PrintCommandHelp(const Command &command) {
    printf("usage: cfgfile [-v LEVEL] [--lock] %s %s\n\n%s", command.szName, command.szSynopsis,
           command.szHelp);
}

int UsageError(const Command *pCommand, const char *szFormat, ...)
    __attribute__((format(printf, 2, 3)));

// Says what is wrong with the command line and how it should look.
int UsageError(const Command *pCommand, const char *szFormat, ...) {
    fputs("cfgfile: ", stderr);
    if (pCommand != nullptr)
        fprintf(stderr, "%s: ", pCommand->szName);
    va_list args;
    va_start(args, szFormat);
    vfprintf(stderr, szFormat, args);
    va_end(args);
    if (pCommand != nullptr)
        fprintf(stderr, "\nusage: cfgfile %s %s\n", pCommand->szName, pCommand->szSynopsis);
    else
        fputs("\nusage: cfgfile [-v LEVEL] [--lock] COMMAND [OPTIONS] FILE ...\n", stderr);
    return kExitUsage;
}

// Where a command's option goes, or nullptr when the command has no such option.
const char **OptionSlot(const Command &command, std::string_view svName, Arguments &args) {
    if (svName == "--type" && (command.fOptions & kOptType) != 0)
        return &args.szType;
    if (svName == "--default" && (command.fOptions & kOptDefault) != 0)
        return &args.szDefault;
    if (svName == "--precision" && (command.fOptions & kOptPrecision) != 0)
        return &args.szPrecision;
    if (svName == "--format" && (command.fOptions & kOptFormat) != 0)
        return &args.szFormat;
    if (svName == "-f" && (command.fOptions & kOptScript) != 0)
        return &args.szScript;
    return nullptr;
}

// Splits the words after the command's name into options and positional
// arguments. Options may stand anywhere, as "--name VALUE" or "--name=VALUE";
// a word beginning with a single '-' ("-5") is positional, except "-f SCRIPT"
// of apply. Returns -1 when the
// words are usable, otherwise the exit status (0 after --help).
int ParseCommandLine(const Command &command, int argc, char **argv, Arguments &args) {
    bool bOptionsEnded = false;
    for (int iArg = 0; iArg < argc; ++iArg) {
        const char *szWord = argv[iArg];
        const bool bScript =
            !bOptionsEnded && strcmp(szWord, "-f") == 0 && (command.fOptions & kOptScript) != 0;
        if (!bScript && (bOptionsEnded || strncmp(szWord, "--", 2) != 0)) {
            if (!bOptionsEnded && strcmp(szWord, "-h") == 0) {
                PrintCommandHelp(command);
                return 0;
            }
            args.vszPositional.push_back(szWord);
            continue;
        }
        if (strcmp(szWord, "--") == 0) {
            bOptionsEnded = true;
            continue;
        }
        if (strcmp(szWord, "--help") == 0) {
            PrintCommandHelp(command);
            return 0;
        }
        const char *pcEquals = strchr(szWord, '=');
        const std::string_view svName =
            pcEquals != nullptr ? std::string_view(szWord, pcEquals - szWord) : szWord;
        const char **pszSlot = OptionSlot(command, svName, args);
        if (pszSlot == nullptr)
            return UsageError(&command, "unknown option '%s'", szWord);
        if (pcEquals != nullptr)
            *pszSlot = pcEquals + 1;
        else if (iArg + 1 < argc)
            *pszSlot = argv[++iArg];
        else
            return UsageError(&command, "option '%s' needs a value", szWord);
    }
    return -1;
}

// Checks what the command line itself can tell, before any file is touched.
int CheckArguments(const Command &command, const Arguments &args) {
    const size_t nCount = args.vszPositional.size();
    if (nCount < command.nMinArgs || nCount > command.nMaxArgs ||
        (command.pfnRun == RunSet && (nCount - 1) % 3 != 0))
        return UsageError(&command, "expected %s", command.szSynopsis);
    if (args.szFormat != nullptr && strcmp(args.szFormat, "lines") != 0 &&
        strcmp(args.szFormat, "sh") != 0)
        return UsageError(&command, "unknown format '%s' (lines or sh)", args.szFormat);
    ValueType type = ValueType::String;
    if (args.szType != nullptr && !ParseValueType(args.szType, &type))
        return UsageError(&command, "unknown type '%s'", args.szType);
    const bool bVideoType = type == ValueType::VideoFormat || type == ValueType::VideoResolution ||
                            type == ValueType::VideoSize;
    if (command.pfnRun == RunSet && bVideoType)
        return UsageError(&command, "set takes --type string, int, uint, int64, float or bool");
    if (args.szPrecision != nullptr && type != ValueType::Float)
        return UsageError(&command, "--precision needs --type float");
    // The library asserts on an empty name in places: refuse it everywhere.
    if (args.vszPositional[0][0] == '\0')
        return ReportWhy(command.szName, CFGFILE_BAD_PARAMETERS, "the file name is empty");
    return -1;
}

int RunCommand(const Command &command, int argc, char **argv, bool bLock) {
    Arguments args;
    int iExit = ParseCommandLine(command, argc, argv, args);
    if (iExit < 0)
        iExit = CheckArguments(command, args);
    if (iExit >= 0)
        return iExit;
    const char *szFile = args.vszPositional[0];
    if (bLock && (iExit = LockFile(command.szName, szFile)) != 0)
        return iExit;
    if (command.bChangesFile)
        WarnOfLeftBackup(szFile);
    return command.pfnRun(args);
}

int RunHelp(int argc, char **argv) {
    if (argc == 0) {
        fputs(kMainHelp, stdout);
        return 0;
    }
    const Command *pCommand = FindCommand(argv[0]);
    if (argc > 1)
        return UsageError(nullptr, "help takes one command name");
    if (pCommand == nullptr)
        return UsageError(nullptr, "unknown command '%s'", argv[0]);
    PrintCommandHelp(*pCommand);
    return 0;
}

// Global options before the command. Returns the index of the command's name,
// or -1 with *piExit set when the process should end.
int ParseGlobalOptions(int argc, char **argv, bool *pbLock, int *piExit) {
    int iArg = 1;
    for (; iArg < argc && argv[iArg][0] == '-'; ++iArg) {
        const char *szWord = argv[iArg];
        int nLevel = 0;
        if (strcmp(szWord, "--lock") == 0) {
            *pbLock = true;
        } else if (strcmp(szWord, "-h") == 0 || strcmp(szWord, "--help") == 0) {
            fputs(kMainHelp, stdout);
            *piExit = 0;
            return -1;
        } else if (strcmp(szWord, "--version") == 0) {
            printf("cfgfile %s\n", CFGFILE_TOOL_VERSION);
            *piExit = 0;
            return -1;
        } else if (strncmp(szWord, "-v", 2) == 0) {
            // "-v LEVEL" or "-vLEVEL"
            const char *szLevel = szWord[2] != '\0' ? szWord + 2
                                  : iArg + 1 < argc ? argv[++iArg]
                                                    : "";
            if (!ParseInt(szLevel, &nLevel)) {
                *piExit = UsageError(nullptr, "-v needs a level (0-9)");
                return -1;
            }
            DbgSetChannelLevel("CFGFILELIB", nLevel);
        } else {
            *piExit = UsageError(nullptr, "unknown option '%s'", szWord);
            return -1;
        }
    }
    if (iArg == argc) {
        *piExit = UsageError(nullptr, "no command given");
        return -1;
    }
    return iArg;
}

void PrintResult(const char *szCommand, int iResult) {
    fprintf(stderr, "cfgfile: %s: %s (%d)", szCommand, ResultName(iResult), iResult);
}

int ExitStatus(int iResult) {
    switch (iResult) {
    case CFGFILE_SUCCESS:
    case CFGFILE_BAD_PARAMETERS:
    case CFGFILE_SECTION_NOT_FOUND:
    case CFGFILE_KEY_NOT_FOUND:
    case CFGFILE_BAD_VALUE:
    case CFGFILE_FILE_ACCESS:
    case CFGFILE_FAILURE:
        return iResult;
    case -1: // the file cannot be opened
        return CFGFILE_FILE_ACCESS;
    default:
        return CFGFILE_FAILURE;
    }
}

} // namespace

const char *ResultName(int iResult) {
    switch (iResult) {
    case CFGFILE_SUCCESS:
        return "CFGFILE_SUCCESS";
    case CFGFILE_BAD_PARAMETERS:
        return "CFGFILE_BAD_PARAMETERS";
    case CFGFILE_SECTION_NOT_FOUND:
        return "CFGFILE_SECTION_NOT_FOUND";
    case CFGFILE_KEY_NOT_FOUND:
        return "CFGFILE_KEY_NOT_FOUND";
    case CFGFILE_BAD_VALUE:
        return "CFGFILE_BAD_VALUE";
    case CFGFILE_FILE_ACCESS:
        return "CFGFILE_FILE_ACCESS";
    case CFGFILE_FAILURE:
        return "CFGFILE_FAILURE";
    default:
        return "unknown result";
    }
}

int Report(const char *szCommand, int iResult) {
    if (iResult == CFGFILE_SUCCESS)
        return 0;
    PrintResult(szCommand, ExitStatus(iResult));
    fputc('\n', stderr);
    return ExitStatus(iResult);
}

int ReportWhy(const char *szCommand, int iResult, const char *szFormat, ...) {
    PrintResult(szCommand, ExitStatus(iResult));
    fputs(": ", stderr);
    va_list args;
    va_start(args, szFormat);
    vfprintf(stderr, szFormat, args);
    va_end(args);
    fputc('\n', stderr);
    return ExitStatus(iResult);
}

} // namespace cfgtool

int main(int argc, char **argv) {
    using namespace cfgtool;
    bool bLock = false;
    int iExit = 0;
    const int iCommand = ParseGlobalOptions(argc, argv, &bLock, &iExit);
    if (iCommand < 0)
        return iExit;
    const char *szName = argv[iCommand];
    const int nRest = argc - iCommand - 1;
    char **pszRest = argv + iCommand + 1;
    if (strcmp(szName, "help") == 0)
        return RunHelp(nRest, pszRest);
    const Command *pCommand = FindCommand(szName);
    if (pCommand == nullptr)
        return UsageError(nullptr, "unknown command '%s'", szName);
    return RunCommand(*pCommand, nRest, pszRest, bLock);
}
