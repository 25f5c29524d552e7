// fuzz_deletions: random files and names for the three deletions.
//
// Checked for every input: the deletion succeeds and leaves no companion
// file; it only removes whole lines, so the new file's lines are the old ones
// in order with some left out; it never removes an over-long line, a line
// holding NUL bytes or an unterminated last line; DeleteKey removes at most
// one line per section line of that name.
#include "cfgfile_api.h"
#include "fuzz_support.h"

using namespace cfgfuzz;

namespace {

constexpr size_t kMaxRead = 511; // the deletions read lines in pieces of 511 bytes

// The lines of `before` missing from `after`; false when `after` is not
// `before` with some lines left out.
bool Removed(const Lines &before, const Lines &after, Lines &removed) {
    size_t iAfter = 0;
    for (std::string_view line : before) {
        if (iAfter < after.size() && after[iAfter] == line)
            ++iAfter;
        else
            removed.push_back(line);
    }
    return iAfter == after.size();
}

// An upper bound on the section lines naming the section: "[", a name that
// trims to it, then "]".
size_t CountSectionLines(const Lines &lines, std::string_view section) {
    size_t nCount = 0;
    for (std::string_view line : lines) {
        const std::string_view text = TrimBlanks(line, false);
        const size_t nClose = text.find(']');
        if (!text.empty() && text[0] == '[' && nClose != text.npos &&
            EqualNoCase(TrimBlanks(text.substr(1, nClose - 1)), section))
            ++nCount;
    }
    return nCount;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nSize) {
    const Scratch &scratch = Scratch::Get();
    FuzzedDataProvider fdp(pData, nSize);
    const int iDeletion = fdp.ConsumeIntegralInRange<int>(0, 2);
    const bool bFilePresent = fdp.ConsumeIntegralInRange<int>(0, 15) != 0;
    const bool bTracing = fdp.ConsumeIntegralInRange<int>(0, 7) == 0;
    const std::string section = TakeText(fdp, 100);
    const std::string key = TakeText(fdp, 100);
    const std::string file = bFilePresent ? fdp.ConsumeRemainingBytesAsString() : std::string();
    const char *f = scratch.file.c_str();
    auto deletion = [&] {
        return iDeletion == 0   ? CfgFile_DeleteSections(f, section.c_str())
               : iDeletion == 1 ? CfgFile_DeleteKey(f, section.c_str(), key.c_str())
                                : CfgFile_DeleteAllSectionKeys(f, section.c_str());
    };
    CheckBothWays(scratch, bFilePresent, file, [&] { return std::to_string(deletion()); });
    SetTracing(bTracing);
    PlaceFile(scratch, bFilePresent, file);

    const int iResult = deletion();
    FUZZ_CHECK(iResult == CFGFILE_SUCCESS && !scratch.CompanionsLeft());
    // A missing file has nothing to remove, and is not created.
    std::string after;
    FUZZ_CHECK(ReadBytes(f, after) == bFilePresent);

    const Lines before = SplitLines(file);
    Lines removed;
    FUZZ_CHECK(Removed(before, SplitLines(after), removed));
    for (std::string_view line : removed)
        FUZZ_CHECK(IsWholeLine(line, kMaxRead));
    if (removed.empty())
        FUZZ_CHECK(after == file);
    if (iDeletion == 1)
        FUZZ_CHECK(removed.size() <= CountSectionLines(before, section));
    return 0;
}
