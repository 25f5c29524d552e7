// fuzz_lines: random files and prefixes for the raw line operations.
//
// Checked for every input: a line FindLineStartingWith hands out is a whole
// line of the file, without its line feed, whose text after leading blanks
// begins with the prefix, and nothing is written past the buffer.
// CommentLineStartingWith / DeleteLineStartingWith leave no companion file
// and change at most one line, one read whole (ending in its line feed,
// short enough, no NUL byte): "#" in front of it, or left out; every other
// line keeps its bytes and its place.
#include "cfgfile_api.h"
#include "fuzz_support.h"

using namespace cfgfuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nSize) {
    const Scratch &scratch = Scratch::Get();
    FuzzedDataProvider fdp(pData, nSize);
    const int iOperation = fdp.ConsumeIntegralInRange<int>(0, 2);
    const size_t nCapacity = fdp.ConsumeIntegralInRange<size_t>(2, 300);
    const bool bFilePresent = fdp.ConsumeIntegralInRange<int>(0, 15) != 0;
    const bool bTracing = fdp.ConsumeIntegralInRange<int>(0, 7) == 0;
    const std::string prefix = TakeText(fdp, 100);
    const std::string file = bFilePresent ? fdp.ConsumeRemainingBytesAsString() : std::string();
    // The search refuses an empty prefix by ending the process.
    if (iOperation == 0 && prefix.empty())
        return 0;
    const char *f = scratch.file.c_str();
    const Lines before = SplitLines(file);
    CheckBothWays(scratch, bFilePresent, file, [&] {
        if (iOperation != 0)
            return std::to_string(iOperation == 1
                                      ? CfgFile_CommentLineStartingWith(f, prefix.c_str())
                                      : CfgFile_DeleteLineStartingWith(f, prefix.c_str()));
        GuardedBuffer line(nCapacity);
        size_t nFound = nCapacity;
        const int iResult = CfgFile_FindLineStartingWith(f, prefix.c_str(), line.Data(), &nFound);
        return std::to_string(iResult) + "/" + std::to_string(nFound) + "/" +
               (iResult == CFGFILE_SUCCESS ? std::string(line.Data(), nFound) : "");
    });
    SetTracing(bTracing);
    PlaceFile(scratch, bFilePresent, file);

    if (iOperation == 0) {
        GuardedBuffer buffer(nCapacity);
        size_t nFound = nCapacity;
        const int iResult = CfgFile_FindLineStartingWith(f, prefix.c_str(), buffer.Data(), &nFound);
        FUZZ_CHECK(buffer.GuardIntact());
        if (iResult != CFGFILE_SUCCESS)
            return 0;
        const std::string line = std::string(buffer.Data(), nFound) + '\n';
        FUZZ_CHECK(nFound < nCapacity && strlen(buffer.Data()) == nFound);
        FUZZ_CHECK(std::find(before.begin(), before.end(), line) != before.end());
        FUZZ_CHECK(TrimBlanks(line, false).substr(0, prefix.size()) == prefix);
        return 0;
    }

    const int iResult = iOperation == 1 ? CfgFile_CommentLineStartingWith(f, prefix.c_str())
                                        : CfgFile_DeleteLineStartingWith(f, prefix.c_str());
    FUZZ_CHECK(!scratch.CompanionsLeft());
    FUZZ_CHECK(iResult == (bFilePresent ? CFGFILE_SUCCESS : CFGFILE_FAILURE));
    std::string after;
    FUZZ_CHECK(ReadBytes(f, after) == bFilePresent);
    const Lines lines = SplitLines(after);
    // The first line that differs is the changed one; the rest must match.
    size_t i = 0;
    while (i < before.size() && i < lines.size() && before[i] == lines[i])
        ++i;
    if (i == before.size() && i == lines.size())
        return 0;
    FUZZ_CHECK(i < before.size() && IsWholeLine(before[i], 1199));
    const size_t nRest = before.size() - i - 1;
    if (iOperation == 1)
        FUZZ_CHECK(i < lines.size() && lines[i] == "#" + std::string(before[i]));
    FUZZ_CHECK(lines.size() - nRest == i + (iOperation == 1));
    FUZZ_CHECK(std::equal(before.end() - nRest, before.end(), lines.end() - nRest));
    return 0;
}
