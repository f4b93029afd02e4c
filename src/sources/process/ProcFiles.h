#pragma once

// The files of one /proc process directory, and the parsers of their lines.
//
// The parsers read a line as the C library's sscanf reads it with the historical
// formats of each file (numbers in decimal, leading blanks skipped, a blank in the
// format skipping any run of blanks, "%d" stored as a 32-bit value, an overflowing
// number saturated as strtol and strtoul saturate it), without sscanf's cost. They
// are pure functions, for direct tests.
//
// ProcFileReader reads the files of one process at a time into a ps_info, with the
// error handling of a snapshot: each file reader first checks that the process's
// directory is still there, and a failure ends the reading of that process with a
// severity (1: the process vanished before it was read; 2: it vanished while it
// was read; 3: a file could not be read or understood). Not thread-safe: one reader
// per walker thread.

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "sources/process/ProcList.h"

namespace procfiles {

// Values a complete stat line gives.
constexpr int kStatFields = 38;

// Parses a stat line as "%d (%s  %c %d %d ... %lu" after replacing its last ')'
// with a blank (done in place). Returns the number of values converted, -1 when the
// line ends before the first, or -2 when the line has no ')'. The last four values
// are stored only when all 38 were converted.
int parseStat(char* line, ps_info* info);
// "%ld %ld %ld %ld %ld %ld %ld": the values converted (-1 for an empty line).
int parseStatm(const char* line, ps_info* info);

// What a status line was.
enum StatusLine {
  STATUS_NAME,
  STATUS_STATE,
  STATUS_PID,
  STATUS_PPID,
  STATUS_UID,
  STATUS_GID,
  STATUS_VM,       // one of VmSize, VmLck, VmRSS, VmData, VmStk, VmExe, VmLib
  STATUS_THREADS,
  STATUS_IGNORED,  // VmPeak, StaBrk, StaStk
  STATUS_SKIPPED,  // any other line
};
StatusLine parseStatusLine(const char* line, ps_info* info);
// One io line: true when its key was one of the counters (or cancelled_write_bytes).
bool parseIoLine(const char* line, ps_info* info);
// Turns `length` raw bytes of a cmdline file (in `text`, which has room for one byte
// more) into the command line: NUL bytes become blanks, at most
// ProcList::kCmdlineMax characters are kept, and the text is terminated. Returns its
// length.
size_t cleanCmdline(char* text, size_t length);

}  // namespace procfiles

class ProcFileReader {
 public:
  // Room for the longest file read whole; longer ones are cut (the lines a snapshot
  // needs come first).
  static constexpr size_t kBufferSize = 16384;

  using ReadHook = std::function<void(const char* path)>;

  // Reads below the directory open as `rootFd`, whose path is `root`.
  ProcFileReader(int rootFd, const std::string& root, ProcList::StatType statType);
  ProcFileReader(const ProcFileReader&) = delete;
  ProcFileReader& operator=(const ProcFileReader&) = delete;

  // Reads the files of the process directory `name` that the snapshot's kind asks
  // for, except cmdline, into `info` (cleared first). Returns whether the entry is
  // to be kept; *cmdlineDue tells whether its command line is still to be read.
  bool readProcess(const char* name, ps_info* info, bool* cmdlineDue);
  // Reads the command line of the process readProcess read last (`info`). Returns
  // whether the entry is still to be kept (false when the process vanished); the
  // text is in *text (empty when it could not be read), valid until the next call.
  bool readCmdline(const ps_info& info, const char** text, size_t* length);
  // Called with the path of each file before it is read, and of the process's
  // directory before that; null for none.
  void setReadHook(std::shared_ptr<const ReadHook> hook) { hook_ = std::move(hook); }
  // Drops whatever readProcess left pending, for a process whose command line is not
  // read (traces the end of its reading).
  void finishWithoutCmdline();

 private:
  struct Failure {
    int severity;
    const char* message;
  };

  // Sets the file part of the path; returns the path.
  const char* fileName(const char* file);
  bool directoryExists();
  // Starts on the file `file` of the process: the hook, then the check that the
  // process is still there (failing with `goneMessage`). False when it is gone.
  bool startFile(const char* file, const char* goneMessage);
  // Reads the file started on whole into the buffer (terminated); its length, or -1.
  long readFile(size_t limit);
  // Reads the file `file` whole and returns its first line (terminated), or null
  // when it could not be read (`unreadable` says so). nextLine gives the line after
  // the one given last, null after the last.
  char* readLines(const char* file, const char* unreadable);
  char* nextLine();
  char* terminateLine(char* line);
  // Always false: `message` with severity 3, or the process's disappearance.
  bool failRead(const char* message);
  bool fail(int severity, const char* message);
  void reportFailure();

  bool readStat(ps_info* info);
  bool readStatm(ps_info* info);
  bool readStatus(ps_info* info);
  bool readIo(ps_info* info);

  void callHook(const char* path) {
    if (hook_ != nullptr) {
      (*hook_)(path);
    }
  }

  std::shared_ptr<const ReadHook> hook_;
  int rootFd_;
  ProcList::StatType statType_;
  std::string path_;       // root + "/" + name [+ "/" + file]
  size_t rootLength_;      // of root + "/"
  size_t directoryLength_; // of root + "/" + name
  std::unique_ptr<char[]> buffer_;
  char* end_ = nullptr;      // of the file in the buffer
  char* lineEnd_ = nullptr;  // of the line readLines or nextLine gave last
  Failure failure_{0, nullptr};
};
