// fuzz_enumerate: random files, prefixes and buffer sizes for the section list.
//
// Checked for every input: measuring alone reports the size a buffer reports
// too; a buffer of that size receives the names as consecutive terminated
// strings, each beginning with the prefix in any letter case; a buffer of
// any other capacity receives the first of them, nothing after them and
// nothing past its capacity.
#include "cfgfile_api.h"
#include "fuzz_support.h"

using namespace cfgfuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t nSize) {
    const Scratch &scratch = Scratch::Get();
    FuzzedDataProvider fdp(pData, nSize);
    const size_t nCapacity = fdp.ConsumeIntegralInRange<size_t>(0, 600);
    const bool bFilePresent = fdp.ConsumeIntegralInRange<int>(0, 15) != 0;
    const bool bTracing = fdp.ConsumeIntegralInRange<int>(0, 7) == 0;
    const std::string prefix = TakeText(fdp, 100);
    const std::string file = bFilePresent ? fdp.ConsumeRemainingBytesAsString() : std::string();
    const char *f = scratch.file.c_str();
    const char *p = prefix.c_str();
    CheckBothWays(scratch, bFilePresent, file, [&] {
        GuardedBuffer names(nCapacity);
        size_t nNamesSize = nCapacity;
        unsigned int nNames = 0;
        const int iResult = CfgFile_EnumerateSections(f, p, names.Data(), &nNamesSize, &nNames);
        return std::to_string(iResult) + "/" + std::to_string(nNamesSize) + "/" +
               std::to_string(nNames) + "/" + names.bytes;
    });
    SetTracing(bTracing);

    size_t nNeeded = 0;
    unsigned int nCount = 0;
    if (CfgFile_EnumerateSections(f, p, nullptr, &nNeeded, &nCount) != CFGFILE_SUCCESS)
        return 0;

    // A buffer of the measured size holds the whole list, filled exactly.
    GuardedBuffer whole(nNeeded);
    size_t nWholeSize = nNeeded;
    unsigned int nTotal = 0;
    FUZZ_CHECK(CfgFile_EnumerateSections(f, p, whole.Data(), &nWholeSize, &nTotal) ==
               CFGFILE_SUCCESS);
    FUZZ_CHECK(whole.GuardIntact() && nWholeSize == nNeeded);
    std::vector<size_t> ends; // the offset after each name's terminator
    for (size_t nOffset = 0; nOffset < nNeeded; nOffset = ends.back()) {
        const std::string_view name(whole.Data() + nOffset,
                                    strnlen(whole.Data() + nOffset, nNeeded - nOffset));
        FUZZ_CHECK(nOffset + name.size() < nNeeded && StartsWithNoCase(name, prefix));
        ends.push_back(nOffset + name.size() + 1);
    }
    FUZZ_CHECK(ends.size() == nTotal);

    // Any other capacity: the first names that fit, then nothing.
    GuardedBuffer part(nCapacity);
    size_t nPartSize = nCapacity;
    unsigned int nCopied = 0;
    FUZZ_CHECK(CfgFile_EnumerateSections(f, p, part.Data(), &nPartSize, &nCopied) ==
               CFGFILE_SUCCESS);
    FUZZ_CHECK(nPartSize == nNeeded && nCopied <= nTotal);
    const size_t nWritten = nCopied == 0 ? 0 : ends[nCopied - 1];
    FUZZ_CHECK(nWritten <= nCapacity && part.UnwrittenFrom(nWritten));
    FUZZ_CHECK(memcmp(part.Data(), whole.Data(), nWritten) == 0);
    return 0;
}
