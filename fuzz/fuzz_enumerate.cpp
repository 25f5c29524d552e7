// fuzz_enumerate: random files, prefixes and buffer sizes for the section list.
//
// Checked for every input: measuring alone copies nothing and reports the
// size a buffer of any capacity reports too; a buffer of that size receives
// every name as consecutive terminated strings filling it exactly; a smaller
// buffer receives the first names of that list and nothing after them, and
// nothing past its capacity; every name begins with the prefix in any letter
// case and stands between "[" and "]" at the start of a line of the file;
// the file is not changed.
#include "cfgfile_api.h"
#include "fuzz_support.h"

using namespace cfgfuzz;

namespace {

// The consecutive terminated strings of the first nBytes of pcList.
std::vector<std::string_view> Names(const char *pcList, size_t nBytes) {
    std::vector<std::string_view> names;
    size_t nOffset = 0;
    while (nOffset < nBytes) {
        const size_t nLength = strnlen(pcList + nOffset, nBytes - nOffset);
        FUZZ_CHECK(nOffset + nLength < nBytes); // terminated within the list
        names.emplace_back(pcList + nOffset, nLength);
        nOffset += nLength + 1;
    }
    return names;
}

// A read of the file that begins, after blanks, with "[name]". The list is
// read in pieces of 511 bytes, and the last piece of a longer line counts as
// a line, as it does for the getters.
bool WrittenAsSection(const std::vector<std::string_view> &reads, std::string_view name) {
    for (std::string_view read : reads) {
        const std::string_view text = SkipBlanks(read);
        if (text.size() >= name.size() + 2 && text[0] == '[' &&
            text.substr(1, name.size()) == name && text[name.size() + 1] == ']')
            return true;
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nSize) {
    const Scratch &scratch = Scratch::Get();
    FuzzedDataProvider fdp(pData, nSize);
    const size_t nCapacity = fdp.ConsumeIntegralInRange<size_t>(0, 600);
    const bool bFilePresent = fdp.ConsumeIntegralInRange<int>(0, 15) != 0;
    SetTracing(fdp.ConsumeIntegralInRange<int>(0, 7) == 0);
    const std::string prefix = TakeText(fdp, 100);
    const std::string file = bFilePresent ? fdp.ConsumeRemainingBytesAsString() : std::string();
    Describe({{"prefix", prefix}, {"file", file}});
    PlaceFile(scratch, bFilePresent, file);
    const char *f = scratch.File();

    size_t nNeeded = 12345;
    unsigned int nCount = 12345;
    const int iResult = CfgFile_EnumerateSections(f, prefix.c_str(), nullptr, &nNeeded, &nCount);
    if (!bFilePresent) {
        FUZZ_CHECK(iResult == -1 && nNeeded == 0 && nCount == 0);
        return 0;
    }
    FUZZ_CHECK(iResult == CFGFILE_SUCCESS && nCount == 0);

    // A buffer of the measured size holds the whole list, filled exactly.
    GuardedBuffer whole(nNeeded);
    size_t nWholeSize = nNeeded;
    unsigned int nTotal = 0;
    FUZZ_CHECK(CfgFile_EnumerateSections(f, prefix.c_str(), whole.Data(), &nWholeSize, &nTotal) ==
               CFGFILE_SUCCESS);
    FUZZ_CHECK(whole.GuardIntact());
    FUZZ_CHECK(nWholeSize == nNeeded);
    const std::vector<std::string_view> names = Names(whole.Data(), nNeeded);
    FUZZ_CHECK(names.size() == nTotal);

    const std::vector<std::string_view> reads = Reads(file, 511);
    for (std::string_view name : names) {
        FUZZ_CHECK(StartsWithNoCase(name, prefix));
        FUZZ_CHECK(name.find_first_of("]\n") == std::string_view::npos);
        FUZZ_CHECK(WrittenAsSection(reads, name));
    }

    // Any other capacity: the first names that fit, then nothing.
    GuardedBuffer part(nCapacity);
    size_t nPartSize = nCapacity;
    unsigned int nCopied = 0;
    FUZZ_CHECK(CfgFile_EnumerateSections(f, prefix.c_str(), part.Data(), &nPartSize, &nCopied) ==
               CFGFILE_SUCCESS);
    FUZZ_CHECK(part.GuardIntact());
    FUZZ_CHECK(nPartSize == nNeeded);
    FUZZ_CHECK(nCopied <= nTotal);
    size_t nWritten = 0;
    for (unsigned int i = 0; i < nCopied; ++i)
        nWritten += names[i].size() + 1;
    FUZZ_CHECK(nWritten <= nCapacity);
    FUZZ_CHECK(memcmp(part.Data(), whole.Data(), nWritten) == 0);
    FUZZ_CHECK(part.UnwrittenFrom(nWritten));
    // Names are copied while they fit.
    FUZZ_CHECK(nCopied == nTotal || nWritten + names[nCopied].size() + 1 > nCapacity);

    std::string after;
    FUZZ_CHECK(ReadBytes(f, after) && after == file);
    return 0;
}
