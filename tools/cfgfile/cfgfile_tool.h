// cfgfile_tool.h - pieces shared by the files of the cfgfile command-line tool.
#ifndef CFGFILE_TOOL_H
#define CFGFILE_TOOL_H

#include <cstdint>
#include <string>
#include <vector>

namespace cfgtool {

// Exit status of a usage error (sysexits.h EX_USAGE).
constexpr int kExitUsage = 64;

// What a command line holds after the command's name.
struct Arguments {
    std::vector<const char *> vszPositional; // FILE and the rest, in order
    const char *szType = nullptr;            // --type
    const char *szDefault = nullptr;         // --default
    const char *szPrecision = nullptr;       // --precision
    const char *szFormat = nullptr;          // --format
    const char *szScript = nullptr;          // -f
};

// ------------------------------------------------------------- reporting

// The name of a library result code ("CFGFILE_KEY_NOT_FOUND").
const char *ResultName(int iResult);

// Reports a failed result of szCommand on stderr and returns the exit status
// for it; returns 0 for CFGFILE_SUCCESS. -1 (a file that cannot be opened)
// becomes CFGFILE_FILE_ACCESS.
int Report(const char *szCommand, int iResult);

// As Report, with a reason after the result's name.
int ReportWhy(const char *szCommand, int iResult, const char *szFormat, ...)
    __attribute__((format(printf, 3, 4)));

// ---------------------------------------------------------------- values

enum class ValueType {
    String,
    Int,
    Uint,
    Int64,
    Float,
    Bool,
    VideoFormat,
    VideoResolution,
    VideoSize
};

bool ParseValueType(const char *szName, ValueType *pType);
const char *ValueTypeName(ValueType type);

// Whole-text conversions: no blanks, nothing after the number, in range.
bool ParseInt(const char *szText, int *pnValue);
bool ParseUint(const char *szText, unsigned *pnValue);
bool ParseInt64(const char *szText, int64_t *pnValue);
bool ParseUint64(const char *szText, uint64_t *pnValue);
bool ParseFloat(const char *szText, float *pfValue);
bool ParseBool(const char *szText, bool *pbValue);
bool ParseSize(const char *szText, unsigned *pnWidth, unsigned *pnHeight);

// The shortest text that reads back as fValue.
std::string FormatFloat(float fValue);

// Converts szText to the type and back to the text that type's setter of the
// library writes ("on" as bool: "Yes"). False when szText is not of the type.
bool TypedText(const char *szText, ValueType type, int nPrecision, std::string *psText);

// ------------------------------------------------------------- commands

int RunGet(const Arguments &args);
int RunSet(const Arguments &args);
int RunDeleteKey(const Arguments &args);
int RunClearSection(const Arguments &args);
int RunDeleteSections(const Arguments &args);
int RunSections(const Arguments &args);
int RunFindLine(const Arguments &args);
int RunCommentLine(const Arguments &args);
int RunDeleteLine(const Arguments &args);
int RunChangeGroup(const Arguments &args);
int RunRecover(const Arguments &args);
int RunApply(const Arguments &args);
int RunKeys(const Arguments &args);
int RunShow(const Arguments &args);

// Sets several SECTION KEY VALUE triples in one rewrite.
int RunSetMany(const Arguments &args, ValueType type, int nPrecision);

// ------------------------------------------------------------------ files

// The name the library gives the backup of szPath while it swaps in a change.
std::string BackupName(const std::string &sPath);

// Warns on stderr when szFile is missing and its backup exists.
void WarnOfLeftBackup(const char *szFile);

// Takes an exclusive lock on "<szFile>.lock", held until the process ends.
// Returns 0, or the exit status after reporting the failure.
int LockFile(const char *szCommand, const char *szFile);

} // namespace cfgtool

#endif // CFGFILE_TOOL_H
