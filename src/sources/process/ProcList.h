#pragma once

// ProcList: a snapshot of every process of a Linux host, read from the /proc file
// system: one entry (ps_info) per numeric directory, filled from that process's
// stat, statm, status, io and cmdline files, plus the host's seconds since boot. The
// constructor takes the first snapshot; refresh() takes the next one in the same
// buffers. Entries are read by index or with a cursor.
//
// The files and their formats (ProcFiles.cpp) keep a few historical quirks on purpose:
//   - the command name in stat is read up to its first blank, so a name with blanks
//     ("a b") misaligns the fields after it and the entry keeps only the values read
//     before the misalignment (statFieldCount < 38);
//   - the io counters are 32-bit signed values: a count above 2147483647 wraps. The
//     same six counts are kept at their full width beside them (io64);
//   - cmdline is read only when stat, statm, status and io were all read, so a
//     process whose io file the agent may not read (another user's, when the agent
//     is not root) has no command line in the snapshot.
//
// What is kept of a process: an entry is stored when its stat file was read and the
// process did not vanish while it was read (vanished processes are traced as
// warnings and dropped); a later file that fails leaves the fields it would have
// filled at zero. A kernel thread has an empty command line and shows as its command
// name in brackets ("[kthreadd]").
//
// Reading: the process directories are read by a few walker threads while the
// calling thread watches them. Reading a file of /proc can block for as long as the
// process it describes is stuck (cmdline waits for the memory lock of a process in
// uninterruptible sleep); a walker busy on one process for longer than the read
// time-out is left behind and another walker carries on. The snapshot keeps the
// process without its command line when that was all that was left to read, and
// leaves it out otherwise; later snapshots skip its command line (or the whole
// process) for as long as the left-behind read has not returned. At most kMaxStuckReaders such reads are waited out at a time; beyond
// that no command line is read until one of them returns.
//
// Memory: entries, the command-line texts and every buffer are reused from one
// snapshot to the next; once they have grown to the host's process count, a
// snapshot makes no allocation per process. User names are looked up once per user
// id and snapshot.
//
// Not thread-safe: one thread at a time uses a ProcList. An entry and its texts stay
// valid until the next refresh() or the destruction of the ProcList.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// One process. Plain data: the texts are inline, except the command line, which
// points into the ProcList's storage.
struct ps_info {
  // From stat, in the file's order (clock ticks for times, pages for rss).
  int32_t pid;
  char commandName[64];
  char state;
  int32_t ppid;
  int32_t processGroup;
  int32_t session;
  int32_t terminal;
  int32_t terminalProcessGroup;
  unsigned long flags;
  unsigned long minorFaults;
  unsigned long childMinorFaults;
  unsigned long majorFaults;
  unsigned long childMajorFaults;
  unsigned long userTime;
  unsigned long systemTime;
  long childUserTime;
  long childSystemTime;
  long priority;
  long nice;
  long threadCount;  // kernel field 20
  long intervalTimerValue;
  unsigned long startTime;  // ticks after boot
  unsigned long virtualSize;  // bytes
  long residentSet;  // pages
  unsigned long residentLimit;
  unsigned long startCode;
  unsigned long endCode;
  unsigned long startStack;
  unsigned long stackPointer;
  unsigned long instructionPointer;
  unsigned long waitChannel;
  unsigned long pagesSwapped;
  unsigned long childPagesSwapped;
  int32_t processor;
  // Kernel fields 42 to 45, kept only when the whole line was read.
  unsigned long blockIoDelayTicks;
  unsigned long guestTime;
  unsigned long childGuestTime;
  unsigned long startData;
  int statFieldCount;  // values the stat line gave (38 when complete)

  // From statm (pages).
  long statmSize;
  long statmResident;
  long statmShared;
  long statmText;
  long statmLibrary;
  long statmData;
  long statmDirty;

  // From status.
  char name[64];
  char statusState;
  int32_t statusPid;
  int32_t statusPpid;
  int32_t uid[4];  // real, effective, saved, file system
  int32_t gid[4];
  char userName[4][33];  // of each uid; "" when the password database has none
  unsigned long vmSize;  // kB
  unsigned long vmLck;
  unsigned long vmRSS;
  unsigned long vmData;
  unsigned long vmStk;
  unsigned long vmExe;
  unsigned long vmLib;
  long threads;
  bool statusRead;  // the status file was read

  // From io: 32-bit on purpose (see above), and the same counts at full width.
  int32_t readChars;
  int32_t writtenChars;
  int32_t readCalls;
  int32_t writeCalls;
  int32_t readBytes;
  int32_t writtenBytes;
  struct {
    uint64_t readChars;
    uint64_t writtenChars;
    uint64_t readCalls;
    uint64_t writeCalls;
    uint64_t readBytes;
    uint64_t writtenBytes;
  } io64;
  bool ioRead;  // the io file was read

  // From cmdline: at most 2047 characters, NUL bytes turned into blanks; "" when
  // it was not read.
  const char* cmdline;
};

class ProcList {
 public:
  // Which files are read: stat, statm, status, io and cmdline, or stat and status.
  enum StatType { FULL_STATUS_INFO, MEMORY_INFO };

  static constexpr int kReservedEntries = 100;
  static constexpr int kCmdlineMax = 2047;
  static constexpr int kDefaultReadTimeoutMillis = 500;
  static constexpr int kMaxStuckReaders = 8;
  static constexpr int kMaxWalkers = 4;

  // Takes the first snapshot of `procRoot` (a directory laid out as /proc; tests
  // pass a tree of their own). A read that takes longer than `readTimeoutMillis` is
  // left behind (see above).
  explicit ProcList(StatType statType, const char* procRoot = "/proc",
                    int readTimeoutMillis = kDefaultReadTimeoutMillis);
  ~ProcList();
  ProcList(const ProcList&) = delete;
  ProcList& operator=(const ProcList&) = delete;

  // Takes a new snapshot, replacing the entries. False when it could not be set up
  // (uptime or the root directory unreadable); the getters then report that.
  bool refresh();

  // The entries of the last snapshot. When it could not be set up, these trace
  // "Cannot retrieve ProcList rows - error in setting up list" and return null (0
  // for the count and the seconds).
  int getCount();
  ps_info* getEntry(int index);
  // The entry at the cursor, moving the cursor on; null after the last.
  ps_info* getNextEntry();
  void resetCursor() { cursor_ = 0; }
  unsigned long getSecondsSinceBoot();

  bool isValid() const { return valid_; }
  StatType getStatType() const { return statType_; }
  const char* getProcRoot() const { return root_.c_str(); }
  // Walker threads per snapshot; 0 (the default) chooses by process and processor
  // count.
  void setWalkerCount(int walkers) { walkerCount_ = walkers; }
  // From the next snapshot on, `hook` is called on a walker thread with the path of
  // each process directory before it is read and of each file before it is read
  // (tests make processes vanish there). Null for none.
  void setReadHook(std::function<void(const char* path)> hook);
  // Reads left behind by any ProcList that have not returned yet.
  static int stuckReaderCount();

 private:
  struct Walker;
  struct Shared;

  bool readUptime();
  bool listDirectory();
  void walk();
  bool startWalker();
  void superviseWalkers();
  void commit(Walker& walker, int index, bool kept, const char* cmdline, size_t cmdlineLength);
  void compact();
  void resolveUserNames();
  int chooseWalkerCount() const;

  // In this order: what is read, the cursor, the count, the uptime, a line buffer
  // (the calling thread's; each walker has its own path and buffer), and the entries.
  StatType statType_;
  int cursor_ = 0;
  int count_ = 0;
  unsigned long secondsSinceBoot_ = 0;
  std::vector<char> line_;
  std::vector<ps_info> entries_;

  std::string root_;
  int rootFd_ = -1;
  int readTimeoutMillis_;
  int walkerCount_ = 0;
  bool valid_ = false;

  // One snapshot's work, guarded by the shared lock while walkers run: the next
  // directory to read, the directory names, whether each entry was kept, and the
  // offset of each command line in `cmdlines_` (offset 0 holds "").
  int nextIndex_ = 0;
  std::vector<char> names_;  // kNameSize bytes per directory
  std::vector<uint8_t> kept_;
  std::vector<uint32_t> cmdlineOffsets_;
  std::vector<char> cmdlines_;
  // Per-uid user names of this snapshot.
  struct UserName {
    uid_t uid;
    bool known;
    char name[33];
  };
  std::vector<UserName> userNames_;
  std::vector<char> passwdBuffer_;

  std::shared_ptr<Shared> shared_;
  std::vector<std::shared_ptr<Walker>> walkers_;
};
