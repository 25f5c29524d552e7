// rewrite.h - the safe rewrite, written once: a change streams the file
// line by line into "<name>.tmp", then swaps it in. Each operation supplies
// its line buffer size, its decision for each line and its rules.
#ifndef CFGFILE_REWRITE_H
#define CFGFILE_REWRITE_H

#include "change_lock.h"
#include "line_grammar.h"
#include "output_file.h"

namespace cfglib {

// One read of a rewrite, as an operation sees it.
struct RewriteLine {
    const char *szText; // the read, terminated; copied as it is unless left out
    size_t nLength;     // bytes read, line feed included
    int iLineCount;
    bool bHasNewline;
    bool bPiece; // first or middle piece of a line longer than the buffer

    // A line ending in its line feed: neither a piece nor an unterminated last line.
    bool IsWholeLine() const { return bHasNewline && !bPiece; }
};

enum class Verdict {
    Copy,        // copy the read unchanged
    LeaveOut,    // leave the read out of the new file
    Written,     // the operation has written what stands for the read
    WriteFailed, // a write of the operation failed
    Stop,        // nothing more will change: stop reading (the copy is discarded)
};

// How an operation differs in the sequence.
struct RewriteRules {
    const char *szFunction;       // the name its traces carry
    int nProcessingLevel;         // level of "Processing line %d."
    bool bTemporaryClosedFirst;   // the temporary file is closed before the file
    bool bDiscardWhenUnchanged;   // keep the file when nothing was left out
    bool bCreatesMissing = false; // a missing file is created (the writer)
};

struct RewriteNames {
    char szTarget[kPathBufferSize]; // the file rewritten: the name, or a link's target
    char szTmpFileName[kPathBufferSize];
};

struct RewriteResult {
    bool bOpened;  // false: the file could not be opened for reading (nErrno)
    bool bCopying; // the temporary file was created and the copy begun
    int nErrno;
    int iRetCode; // the result, when the file was opened
};

// Builds the name of the backup file of names.szTarget; false when it cannot.
bool BackupName(const RewriteNames &names, char (&szBackupFileName)[kPathBufferSize]);

// Names the file szPath and its temporary file.
void NameRewrite(const char *szFunction, const char *szPath, RewriteNames &names);

// Checks the name and builds the names of the temporary and backup files.
int PrepareRewrite(const char *szFunction, const char *szFileName, RewriteNames &names);

// Where a chain of symbolic links ends.
enum class LinkEnd {
    File,    // at something that is no link
    Missing, // at a name where nothing stands
    TooLong, // its path would be longer than a file name may be
    Unknown, // a loop, or a link that cannot be read
};

// Follows the chain of symbolic links at szPath into szTarget, the
// directories above it as they are: the companion files lie beside the
// file the chain ends at.
LinkEnd FollowLinks(const char *szPath, char (&szTarget)[kPathBufferSize]);

// Copies the rest of the file unchanged: the rest of the block, then the
// rest of the file, by the kernel where it can. False when a write failed.
bool CopyTail(LineReader &reader, OutputFile &tmp);

// What a rewrite calls back of its operation: its line capacity (the
// line buffer of N bytes it reads lines of up to N - 1 bytes with), which
// lines it need not look at, its decision for each line it looks at, the
// text added after them, and whether anything changed. The sequence is
// compiled once; only these differ.
class RewriteSteps {
  public:
    virtual size_t LineCapacity() const = 0;
    virtual bool InTail() const = 0;
    virtual LineFilter Passable() const = 0;
    virtual Verdict Classify(const RewriteLine &line, OutputFile &tmp) = 0;
    virtual bool Finish(OutputFile &tmp) = 0;
    virtual bool Changed() const = 0;

  protected:
    ~RewriteSteps() = default;
};

template <size_t N, class Operation> class StepsOf final : public RewriteSteps {
  public:
    explicit StepsOf(Operation &op) : m_op(op) {}
    size_t LineCapacity() const override { return N; }
    bool InTail() const override { return m_op.InTail(); }
    LineFilter Passable() const override { return m_op.Passable(); }
    Verdict Classify(const RewriteLine &line, OutputFile &tmp) override {
        return m_op.Classify(line, tmp);
    }
    bool Finish(OutputFile &tmp) override { return m_op.Finish(tmp); }
    bool Changed() const override { return m_op.Changed(); }

  private:
    Operation &m_op;
};

// Opens the file a change works on (-1 with errno when it cannot; errno
// ENOENT for a missing file) and takes the change's exclusion in temp.
int OpenExclusively(const RewriteRules &rules, RewriteNames &names, LockedTemp &temp);

// Swaps the new file, complete under names.szTmpFileName, in through the
// backup name; traces its failures as szFunction.
int SwapIn(const char *szFunction, const RewriteNames &names, const char *szBackupFileName);

// Streams the file open as fdIn through the operation into fdOut: a change
// worked out in memory. CFGFILE_FAILURE when a read or a write failed.
int StreamThrough(const RewriteRules &rules, const RewriteNames &names, int fdIn, int fdOut,
                  RewriteSteps &op);

// The steps of a multi-change, each worked out from the file open as fdIn
// into fdOut: a set (writer.cpp) and the removal of a key (deletions.cpp),
// which tells whether it found the key; and the text of a new file.
int SetValueThrough(const RewriteNames &names, int fdIn, int fdOut, const char *szSection,
                    const char *szKeyName, const char *szValue);
int RemoveKeyThrough(const RewriteNames &names, int fdIn, int fdOut, const char *szSection,
                     const char *szKeyName, bool *pbRemoved);
bool WriteNewFileText(OutputFile &out, const char *szSection, const char *szKeyName,
                      const char *szValue);

// Rewrites the file named in names (retargeted to a link's target), with
// temp held. The sequence is compiled once; only the operation's steps differ.
RewriteResult RunRewrite(const RewriteRules &rules, RewriteNames &names, LockedTemp &temp,
                         RewriteSteps &op);

// Rewrites the file with an operation that reads lines of up to N - 1 bytes.
template <size_t N, class Operation>
RewriteResult RewriteFile(const RewriteRules &rules, RewriteNames &names, LockedTemp &temp,
                          Operation &op) {
    StepsOf<N, Operation> steps(op);
    return RunRewrite(rules, names, temp, steps);
}

} // namespace cfglib

#endif
