// bench_files.h - the settings files the benchmarks work on.
//
// Files are generated, not shipped: every run and every implementation reads
// the same bytes. A file is a run of sections of nine keys each, separated by
// an empty line, with key and value lengths of a device's settings. It is in
// the form the library's writer produces ("key=value", one empty line before
// each section line but the first), so a rewrite that changes one value
// leaves every other byte where it was.
#ifndef CFGFILE_BENCH_FILES_H
#define CFGFILE_BENCH_FILES_H

#include <cstdio>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace cfgbench {

// A generated file and the places in it that the benchmarks look up.
struct BenchFile {
    std::string text;
    int nLines = 0;
    std::string firstSection;  // holds the key looked up near the start
    std::string middleSection; // where keys are replaced, added and deleted
    std::string lastSection;   // holds the key looked up near the end
    std::string findPrefix;    // a line prefix found only in the last section
    size_t nFirstKeyEnd = 0;   // byte offset just past the key line near the start
    size_t nLastKeyEnd = 0;    // byte offset just past the key line near the end
    size_t nFindLineEnd = 0;   // byte offset just past the line findPrefix finds
    int nFirstValue = 0;       // the values of the two keys looked up
    int nLastValue = 0;
};

// Key looked up near the start (third line of the first section), and the
// last key of every section, looked up near the end. Both hold integers.
inline constexpr char kFirstKey[] = "Port";
inline constexpr char kLastKey[] = "Priority";
inline constexpr char kMissingSection[] = "NoSuchSection";
inline constexpr char kReplacedKey[] = "Bitrate";
inline constexpr char kDeletedKey[] = "Description";
inline constexpr char kAddedKey[] = "Gain";
inline constexpr char kNewSection[] = "Extra";

inline constexpr int kKeysPerSection = 9;
inline constexpr int kFirstSectionLines = 1 + kKeysPerSection;
inline constexpr int kSectionLines = 1 + kFirstSectionLines; // with the empty line before it

// Deterministic pseudo-random numbers, so that a size always gives one file.
class Numbers {
  public:
    unsigned Next(unsigned nRange) {
        m_nState = m_nState * 6364136223846793005ULL + 1442695040888963407ULL;
        return static_cast<unsigned>(m_nState >> 33) % nRange;
    }

  private:
    unsigned long long m_nState = 42;
};

inline void AppendKeyLine(std::string &text, const char *szKey, const std::string &value) {
    text += szKey;
    text += '=';
    text += value;
    text += '\n';
}

inline void AppendSection(BenchFile &file, Numbers &numbers, int iSection) {
    static const char *const kKinds[] = {"Stream", "Audio", "Overlay", "Recorder", "Uplink"};
    static const char *const kCodecs[] = {"H.264", "H.265", "MJPEG", "AAC", "G.711"};
    static const char *const kResolutions[] = {"1920x1080", "1280x720", "3840x2160", "720x576"};
    static const char *const kDescriptions[] = {
        "Main stream for the recorder", "Preview for the web page",
        "Low bit rate for mobile clients", "Backup link to the archive"};
    char szName[48];
    snprintf(szName, sizeof(szName), "%s%04d", kKinds[iSection % 5], iSection);
    if (iSection > 0)
        file.text += '\n';
    file.text += '[';
    file.text += szName;
    file.text += "]\n";

    char szIndex[16];
    snprintf(szIndex, sizeof(szIndex), "%04d", iSection);
    const std::string nameValue = std::string(kKinds[iSection % 5]) + " " + szIndex;
    char szAddress[32];
    snprintf(szAddress, sizeof(szAddress), "192.168.%u.%u", numbers.Next(256), numbers.Next(256));
    AppendKeyLine(file.text, "Name", nameValue);
    const size_t nNameLineEnd = file.text.size();
    AppendKeyLine(file.text, "Enabled", numbers.Next(2) ? "Yes" : "No");
    const int nPort = static_cast<int>(1024 + numbers.Next(60000));
    AppendKeyLine(file.text, kFirstKey, std::to_string(nPort));
    if (iSection == 0) {
        file.nFirstKeyEnd = file.text.size();
        file.nFirstValue = nPort;
    }
    AppendKeyLine(file.text, "Address", szAddress);
    AppendKeyLine(file.text, "Codec", kCodecs[numbers.Next(5)]);
    AppendKeyLine(file.text, kReplacedKey, std::to_string(1000000 + numbers.Next(8000000)));
    AppendKeyLine(file.text, "Resolution", kResolutions[numbers.Next(4)]);
    AppendKeyLine(file.text, kDeletedKey, kDescriptions[numbers.Next(4)]);
    file.nLastValue = static_cast<int>(numbers.Next(10));
    AppendKeyLine(file.text, kLastKey, std::to_string(file.nLastValue));

    if (iSection == 0)
        file.firstSection = szName;
    file.lastSection = szName;
    file.findPrefix = "Name=" + nameValue;
    file.nLastKeyEnd = file.text.size();
    file.nFindLineEnd = nNameLineEnd;
}

// A file of nLines lines (at least one section): whole sections, and comment
// lines at the top to make up the count.
inline BenchFile MakeBenchFile(int nLines) {
    BenchFile file;
    const int nSections =
        nLines < kFirstSectionLines ? 1 : 1 + (nLines - kFirstSectionLines) / kSectionLines;
    const int nSectionLines = kFirstSectionLines + (nSections - 1) * kSectionLines;
    std::string header;
    for (int iLine = nSectionLines; iLine < nLines; ++iLine)
        header += "# Settings of the device, written by the configuration service\n";
    file.text = header;
    Numbers numbers;
    for (int iSection = 0; iSection < nSections; ++iSection) {
        AppendSection(file, numbers, iSection);
        if (iSection == nSections / 2)
            file.middleSection = file.lastSection;
    }
    file.nLines = nLines > nSectionLines ? nLines : nSectionLines;
    return file;
}

// Replaces the file at szPath with text. The old file is unlinked and a new
// one created (no truncation, no rename over it), so that ext4 starts no
// early write-back of the old content that a timed call would then wait for.
inline bool WriteWholeFile(const char *szPath, const std::string &text) {
    unlink(szPath);
    const int fd = open(szPath, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    const bool bWritten = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return close(fd) == 0 && bWritten;
}

} // namespace cfgbench

#endif // CFGFILE_BENCH_FILES_H
