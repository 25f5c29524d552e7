// fuzz_lines: random files and prefixes for the raw line operations.
//
// A line qualifies when it is read whole (it ends in its line feed, fits the
// operation's buffer and holds no NUL byte) and its text after leading
// blanks begins with the prefix. Checked for every input:
//   FindLineStartingWith hands out the first qualifying line that fits the
//   buffer, without its line feed, or fails when there is none; it writes
//   nothing past the buffer and does not change the file.
//   CommentLineStartingWith / DeleteLineStartingWith succeed on an existing
//   file (fail on a missing one, creating nothing), leave no
//   companion file and change exactly the first qualifying line that is not
//   a comment ("#" in front of it, or left out), or nothing; every other line
//   keeps its bytes and its place.
#include "cfgfile_api.h"
#include "fuzz_support.h"

using namespace cfgfuzz;

namespace {

constexpr size_t kMaxRead = 1199; // the rewriting operations read pieces of 1199 bytes

enum class Operation { Find, Comment, Delete };

// The text a prefix is compared with: after blanks; the line feed belongs to
// it for the rewriting operations, not for the search.
bool Qualifies(std::string_view line, size_t nMaxRead, std::string_view prefix,
               bool bWithLineFeed) {
    if (!IsWholeLine(line, nMaxRead))
        return false;
    const std::string_view text = bWithLineFeed ? line : line.substr(0, line.size() - 1);
    return SkipBlanks(text).substr(0, prefix.size()) == prefix;
}

void CheckFind(const char *f, const std::vector<std::string_view> &lines, const std::string &prefix,
               size_t nCapacity) {
    GuardedBuffer buffer(nCapacity);
    size_t nSize = nCapacity;
    const int iResult = CfgFile_FindLineStartingWith(f, prefix.c_str(), buffer.Data(), &nSize);
    FUZZ_CHECK(buffer.GuardIntact());
    // A line must leave room for its line feed and a terminator.
    const std::string_view *pExpected = nullptr;
    for (const std::string_view &line : lines) {
        if (Qualifies(line, nCapacity - 1, prefix, false)) {
            pExpected = &line;
            break;
        }
    }
    if (pExpected == nullptr) {
        FUZZ_CHECK(iResult == CFGFILE_FAILURE && nSize == nCapacity);
        return;
    }
    const std::string_view expected = pExpected->substr(0, pExpected->size() - 1);
    FUZZ_CHECK(iResult == CFGFILE_SUCCESS);
    FUZZ_CHECK(nSize == expected.size());
    FUZZ_CHECK(std::string_view(buffer.Data(), nSize + 1) == std::string(expected) + '\0');
}

void CheckRewrite(Operation operation, const std::vector<std::string_view> &before,
                  const std::vector<std::string_view> &after, const std::string &prefix) {
    size_t iChanged = before.size();
    for (size_t i = 0; i < before.size() && iChanged == before.size(); ++i)
        if (Qualifies(before[i], kMaxRead, prefix, true) && SkipBlanks(before[i]).front() != '#')
            iChanged = i;
    std::vector<std::string> expected(before.begin(), before.end());
    if (iChanged < before.size() && operation == Operation::Comment)
        expected[iChanged] = "#" + expected[iChanged];
    if (iChanged < before.size() && operation == Operation::Delete)
        expected.erase(expected.begin() + static_cast<ptrdiff_t>(iChanged));
    FUZZ_CHECK(after.size() == expected.size());
    for (size_t i = 0; i < after.size(); ++i)
        FUZZ_CHECK(after[i] == expected[i]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nSize) {
    const Scratch &scratch = Scratch::Get();
    FuzzedDataProvider fdp(pData, nSize);
    const Operation operation = static_cast<Operation>(fdp.ConsumeIntegralInRange<int>(0, 2));
    const size_t nCapacity = fdp.ConsumeIntegralInRange<size_t>(2, 300);
    const bool bFilePresent = fdp.ConsumeIntegralInRange<int>(0, 15) != 0;
    SetTracing(fdp.ConsumeIntegralInRange<int>(0, 7) == 0);
    const std::string prefix = TakeText(fdp, 100);
    const std::string file = bFilePresent ? fdp.ConsumeRemainingBytesAsString() : std::string();
    // The search refuses an empty prefix by ending the process.
    if (operation == Operation::Find && prefix.empty())
        return 0;
    std::string after;
    Describe({{"prefix", prefix}, {"file", file}, {"after", after}});
    PlaceFile(scratch, bFilePresent, file);
    const char *f = scratch.File();
    const std::vector<std::string_view> lines = SplitLines(file);

    if (operation == Operation::Find) {
        if (bFilePresent) {
            CheckFind(f, lines, prefix, nCapacity);
        } else {
            GuardedBuffer buffer(nCapacity);
            size_t nBuffSize = nCapacity;
            FUZZ_CHECK(CfgFile_FindLineStartingWith(f, prefix.c_str(), buffer.Data(), &nBuffSize) ==
                       CFGFILE_FAILURE);
            FUZZ_CHECK(nBuffSize == nCapacity && buffer.GuardIntact());
        }
        FUZZ_CHECK(ReadBytes(f, after) == bFilePresent && after == file);
        return 0;
    }

    const int iResult = operation == Operation::Comment
                            ? CfgFile_CommentLineStartingWith(f, prefix.c_str())
                            : CfgFile_DeleteLineStartingWith(f, prefix.c_str());
    FUZZ_CHECK(!Exists(scratch.Tmp()) && !Exists(scratch.Bak()));
    // A missing file is a failure, and is not created.
    FUZZ_CHECK(iResult == (bFilePresent ? CFGFILE_SUCCESS : CFGFILE_FAILURE));
    FUZZ_CHECK(ReadBytes(f, after) == bFilePresent);
    CheckRewrite(operation, lines, SplitLines(after), prefix);
    return 0;
}
