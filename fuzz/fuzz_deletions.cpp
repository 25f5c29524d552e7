// fuzz_deletions: random files and names for the three deletions.
//
// Checked for every input: the deletion succeeds and leaves no companion
// file; it only removes whole lines, so the new file's lines are the old
// ones in order with some left out; it never removes an over-long line, a
// line holding NUL bytes or an unterminated last line; a file it does not
// change keeps its inode when it is only replaced on a change. Per deletion:
// DeleteKey removes at most one line per section line of that name, each a
// line of that key; DeleteAllSectionKeys removes lines holding '=' only;
// DeleteSections leaves no section line of a selected section.
#include "cfgfile_api.h"
#include "fuzz_support.h"

using namespace cfgfuzz;

namespace {

constexpr size_t kMaxRead = 511; // the deletions read lines in pieces of 511 bytes

enum class Deletion { Sections, Key, AllSectionKeys };

// The line's key, trimmed, when it can be one: not a section line, and
// holding '='. Comment lines are not told apart: a key name that begins
// with '#' selects one.
bool KeyOf(std::string_view line, std::string_view &key) {
    const std::string_view text = SkipBlanks(line);
    const size_t nEquals = text.find('=');
    if (text.empty() || text.front() == '[' || nEquals == std::string_view::npos)
        return false;
    key = TrimBlanks(text.substr(0, nEquals));
    return true;
}

// The section lines the library examines: whole, longer than a short line.
bool NamesSection(std::string_view line, std::string_view &name) {
    return IsWholeLine(line, kMaxRead) && line.size() > 3 &&
           SectionName(line.substr(0, line.size() - 1), name);
}

bool SelectedBy(std::string_view name, std::string_view pattern) {
    if (!pattern.empty() && pattern.back() == '*')
        return StartsWithNoCase(name, pattern.substr(0, pattern.size() - 1));
    return EqualNoCase(name, pattern);
}

size_t CountSectionLines(const std::vector<std::string_view> &lines, std::string_view section) {
    size_t nCount = 0;
    std::string_view name;
    for (std::string_view line : lines)
        if (NamesSection(line, name) && EqualNoCase(name, section))
            ++nCount;
    return nCount;
}

void CheckDeleteKey(const std::vector<std::string_view> &before,
                    const std::vector<std::string_view> &removed, std::string_view section,
                    std::string_view key) {
    // After a deletion the scan goes on: a later section of the same name
    // may lose its first line of the key as well.
    FUZZ_CHECK(removed.size() <= CountSectionLines(before, section));
    for (std::string_view line : removed) {
        std::string_view lineKey;
        FUZZ_CHECK(KeyOf(line, lineKey) && EqualNoCase(lineKey, key));
    }
}

void CheckDeleteSections(const std::vector<std::string_view> &after, std::string_view pattern) {
    std::string_view name;
    for (std::string_view line : after)
        FUZZ_CHECK(!NamesSection(line, name) || !SelectedBy(name, pattern));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nSize) {
    const Scratch &scratch = Scratch::Get();
    FuzzedDataProvider fdp(pData, nSize);
    const Deletion deletion = static_cast<Deletion>(fdp.ConsumeIntegralInRange<int>(0, 2));
    const bool bFilePresent = fdp.ConsumeIntegralInRange<int>(0, 15) != 0;
    SetTracing(fdp.ConsumeIntegralInRange<int>(0, 7) == 0);
    const std::string section = TakeText(fdp, 100);
    const std::string key = TakeText(fdp, 100);
    const std::string file = bFilePresent ? fdp.ConsumeRemainingBytesAsString() : std::string();
    std::string after;
    Describe({{"section", section}, {"key", key}, {"file", file}, {"after", after}});
    PlaceFile(scratch, bFilePresent, file);
    const char *f = scratch.File();
    const ino_t nInodeBefore = Inode(f);

    int iResult = CFGFILE_FAILURE;
    switch (deletion) {
    case Deletion::Sections:
        iResult = CfgFile_DeleteSections(f, section.c_str());
        break;
    case Deletion::Key:
        iResult = CfgFile_DeleteKey(f, section.c_str(), key.c_str());
        break;
    case Deletion::AllSectionKeys:
        iResult = CfgFile_DeleteAllSectionKeys(f, section.c_str());
        break;
    }
    FUZZ_CHECK(iResult == CFGFILE_SUCCESS);
    FUZZ_CHECK(!Exists(scratch.Tmp()) && !Exists(scratch.Bak()));
    // A missing file has nothing to remove, and is not created.
    FUZZ_CHECK(ReadBytes(f, after) == bFilePresent);
    if (!bFilePresent)
        return 0;

    const std::vector<std::string_view> before = SplitLines(file);
    const std::vector<std::string_view> kept = SplitLines(after);
    FUZZ_CHECK(IsSubsequence(kept, before));
    const std::vector<std::string_view> removed = Removed(kept, before);
    for (std::string_view line : removed)
        FUZZ_CHECK(IsWholeLine(line, kMaxRead));
    if (removed.empty() && deletion != Deletion::Sections)
        FUZZ_CHECK(Inode(f) == nInodeBefore); // replaced only on a change

    switch (deletion) {
    case Deletion::Sections:
        CheckDeleteSections(kept, section);
        break;
    case Deletion::Key:
        CheckDeleteKey(before, removed, section, key);
        break;
    case Deletion::AllSectionKeys:
        for (std::string_view line : removed)
            FUZZ_CHECK(line.find('=') != std::string_view::npos);
        break;
    }
    return 0;
}
