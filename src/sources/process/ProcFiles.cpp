#include "sources/process/ProcFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "framework/Trace.h"

namespace {

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// The conversions of a scanf format, one call per directive, stopping at the first
// failure as scanf stops.
class Scan {
 public:
  explicit Scan(const char* text) : p_(text) {}

  // scanf's result: the values stored, or -1 when the input ended before the first.
  int result() const { return count_ == 0 && endedEarly_ ? -1 : count_; }

  // A blank in the format: any run of blanks.
  void blanks() {
    while (isBlank(*p_)) {
      ++p_;
    }
  }
  // A character of the format that is no blank and no conversion.
  void literal(char c) {
    if (failed_) {
      return;
    }
    if (*p_ == '\0') {
      stop(true);
    } else if (*p_ != c) {
      stop(false);
    } else {
      ++p_;
    }
  }
  // "%d" and "%ld": strtol's value (saturated), stored with the target's width.
  template <typename T>
  void signedNumber(T* out) {
    bool negative = false;
    unsigned long magnitude = 0;
    if (number(&negative, &magnitude)) {
      long value = 0;
      if (!negative) {
        value = magnitude > static_cast<unsigned long>(LONG_MAX) ? LONG_MAX : static_cast<long>(magnitude);
      } else {
        value = magnitude > static_cast<unsigned long>(LONG_MAX) ? LONG_MIN
                                                                 : -static_cast<long>(magnitude);
      }
      store(out, static_cast<T>(value));
    }
  }
  // "%lu": strtoul's value (saturated; a minus sign negates it).
  void unsignedNumber(unsigned long* out) {
    bool negative = false;
    unsigned long magnitude = 0;
    if (number(&negative, &magnitude)) {
      store(out, negative && magnitude != ULONG_MAX ? 0UL - magnitude : magnitude);
    }
  }
  // "%*d".
  void skipNumber() {
    bool negative = false;
    unsigned long magnitude = 0;
    number(&negative, &magnitude);
  }
  // "%s" into `size` bytes (a longer word is cut, and read to its end all the same).
  void word(char* out, size_t size) {
    if (!startField()) {
      return;
    }
    size_t length = 0;
    while (*p_ != '\0' && !isBlank(*p_)) {
      if (length + 1 < size) {
        out[length++] = *p_;
      }
      ++p_;
    }
    out[length] = '\0';
    ++count_;
  }
  // "%*s".
  void skipWord() {
    if (!startField()) {
      return;
    }
    while (*p_ != '\0' && !isBlank(*p_)) {
      ++p_;
    }
  }
  // "%c": the next character, blank or not.
  void character(char* out) {
    if (failed_) {
      return;
    }
    if (*p_ == '\0') {
      stop(true);
      return;
    }
    store(out, *p_++);
  }

 private:
  void stop(bool endOfInput) {
    failed_ = true;
    endedEarly_ = endOfInput;
  }
  // Skips the blanks before a field; false when the scan is over.
  bool startField() {
    if (failed_) {
      return false;
    }
    blanks();
    if (*p_ == '\0') {
      stop(true);
      return false;
    }
    return true;
  }
  bool number(bool* negative, unsigned long* magnitude) {
    if (!startField()) {
      return false;
    }
    if (*p_ == '+' || *p_ == '-') {
      *negative = *p_ == '-';
      ++p_;
    }
    if (*p_ < '0' || *p_ > '9') {
      stop(*p_ == '\0');
      return false;
    }
    unsigned long value = 0;
    bool overflow = false;
    for (; *p_ >= '0' && *p_ <= '9'; ++p_) {
      const unsigned long digit = static_cast<unsigned long>(*p_ - '0');
      if (value > (ULONG_MAX - digit) / 10) {
        overflow = true;
      } else {
        value = value * 10 + digit;
      }
    }
    *magnitude = overflow ? ULONG_MAX : value;
    return true;
  }
  template <typename T>
  void store(T* out, T value) {
    *out = value;
    ++count_;
  }

  const char* p_;
  int count_ = 0;
  bool failed_ = false;
  bool endedEarly_ = false;
};

// Whether `text` starts with `key`; a short text fails at its end. Inlined for each
// literal key: status has some fifty lines, and each is tried against several keys.
template <size_t N>
inline bool startsWith(const char* text, const char (&key)[N]) {
  for (size_t i = 0; i + 1 < N; ++i) {
    if (text[i] != key[i]) {
      return false;
    }
  }
  return true;
}

// A line "KEY value" whose value goes to `field` by `Scan::unsignedNumber`.
template <size_t N>
inline bool vmLine(const char* line, const char (&key)[N], unsigned long* field) {
  if (!startsWith(line, key)) {
    return false;
  }
  Scan(line + N - 1).unsignedNumber(field);
  return true;
}

// The value after `key` of an io line, at full width.
uint64_t fullWidth(const char* text) {
  while (*text != '\0' && (*text < '0' || *text > '9')) {
    ++text;
  }
  return strtoull(text, nullptr, 10);
}

}  // namespace

namespace procfiles {

int parseStat(char* line, ps_info* info) {
  char* close = strrchr(line, ')');
  if (close == nullptr) {
    return -2;
  }
  *close = ' ';
  Scan scan(line);
  scan.signedNumber(&info->pid);
  scan.blanks();
  scan.literal('(');
  scan.word(info->commandName, sizeof info->commandName);
  scan.blanks();
  scan.character(&info->state);
  scan.signedNumber(&info->ppid);
  scan.signedNumber(&info->processGroup);
  scan.signedNumber(&info->session);
  scan.signedNumber(&info->terminal);
  scan.signedNumber(&info->terminalProcessGroup);
  for (unsigned long* field : {&info->flags, &info->minorFaults, &info->childMinorFaults,
                               &info->majorFaults, &info->childMajorFaults, &info->userTime,
                               &info->systemTime}) {
    scan.unsignedNumber(field);
  }
  for (long* field : {&info->childUserTime, &info->childSystemTime, &info->priority, &info->nice,
                      &info->threadCount, &info->intervalTimerValue}) {
    scan.signedNumber(field);
  }
  scan.unsignedNumber(&info->startTime);
  scan.unsignedNumber(&info->virtualSize);
  scan.signedNumber(&info->residentSet);
  for (unsigned long* field : {&info->residentLimit, &info->startCode, &info->endCode,
                               &info->startStack, &info->stackPointer, &info->instructionPointer}) {
    scan.unsignedNumber(field);
  }
  for (int mask = 0; mask < 4; ++mask) {
    scan.skipWord();  // pending, blocked, ignored and caught signals
  }
  scan.unsignedNumber(&info->waitChannel);
  scan.unsignedNumber(&info->pagesSwapped);
  scan.unsignedNumber(&info->childPagesSwapped);
  scan.skipNumber();  // exit signal
  scan.signedNumber(&info->processor);
  scan.skipNumber();  // real-time priority
  scan.skipNumber();  // policy
  unsigned long last[4] = {};
  for (unsigned long& field : last) {
    scan.unsignedNumber(&field);
  }
  const int count = scan.result();
  if (count == kStatFields) {
    info->blockIoDelayTicks = last[0];
    info->guestTime = last[1];
    info->childGuestTime = last[2];
    info->startData = last[3];
  }
  return count;
}

int parseStatm(const char* line, ps_info* info) {
  Scan scan(line);
  for (long* field : {&info->statmSize, &info->statmResident, &info->statmShared, &info->statmText,
                      &info->statmLibrary, &info->statmData, &info->statmDirty}) {
    scan.signedNumber(field);
  }
  return scan.result();
}

StatusLine parseStatusLine(const char* line, ps_info* info) {
  switch (line[0]) {
    case 'N':
      if (startsWith(line, "Name:")) {
        Scan(line + 5).word(info->name, sizeof info->name);
        return STATUS_NAME;
      }
      break;
    case 'S':
      if (startsWith(line, "State:")) {
        Scan scan(line + 6);
        scan.blanks();
        scan.character(&info->statusState);
        return STATUS_STATE;
      }
      if (startsWith(line, "StaBrk:") || startsWith(line, "StaStk:")) {
        return STATUS_IGNORED;
      }
      break;
    case 'P':
      if (startsWith(line, "Pid:")) {
        Scan(line + 4).signedNumber(&info->statusPid);
        return STATUS_PID;
      }
      if (startsWith(line, "PPid:")) {
        Scan(line + 5).signedNumber(&info->statusPpid);
        return STATUS_PPID;
      }
      break;
    case 'U':
    case 'G': {
      const bool uid = line[0] == 'U';
      if (uid ? !startsWith(line, "Uid:") : !startsWith(line, "Gid")) {
        break;
      }
      Scan scan(line + (uid ? 4 : 3));
      if (!uid) {
        scan.literal(':');
      }
      for (int32_t& id : uid ? info->uid : info->gid) {
        scan.signedNumber(&id);
      }
      return uid ? STATUS_UID : STATUS_GID;
    }
    case 'V':
      if (line[1] != 'm') {
        break;
      }
      if (vmLine(line, "VmSize:", &info->vmSize) || vmLine(line, "VmLck:", &info->vmLck) ||
          vmLine(line, "VmRSS:", &info->vmRSS) || vmLine(line, "VmData:", &info->vmData) ||
          vmLine(line, "VmStk:", &info->vmStk) || vmLine(line, "VmExe:", &info->vmExe) ||
          vmLine(line, "VmLib:", &info->vmLib)) {
        return STATUS_VM;
      }
      if (startsWith(line, "VmPeak:")) {
        return STATUS_IGNORED;
      }
      break;
    case 'T':
      if (startsWith(line, "Threads:")) {
        Scan(line + 8).signedNumber(&info->threads);
        return STATUS_THREADS;
      }
      break;
    default:
      break;
  }
  return STATUS_SKIPPED;
}

namespace {

// The counter of an io line: its 32-bit field with the wrap of "%d", and its full
// width.
template <size_t N>
inline bool ioLine(const char* line, const char (&key)[N], int32_t* field, uint64_t* wide) {
  if (!startsWith(line, key)) {
    return false;
  }
  Scan scan(line + N - 1);
  if (line[N - 1] == ':') {
    scan.literal(':');  // "write_bytes" is matched without its colon, as it always was
  }
  scan.signedNumber(field);
  *wide = fullWidth(line + N - 1);
  return true;
}

}  // namespace

bool parseIoLine(const char* line, ps_info* info) {
  switch (line[0]) {
    case 'r':
      return ioLine(line, "rchar:", &info->readChars, &info->io64.readChars) ||
             ioLine(line, "read_bytes:", &info->readBytes, &info->io64.readBytes);
    case 'w':
      return ioLine(line, "wchar:", &info->writtenChars, &info->io64.writtenChars) ||
             ioLine(line, "write_bytes", &info->writtenBytes, &info->io64.writtenBytes);
    case 's':
      return ioLine(line, "syscr:", &info->readCalls, &info->io64.readCalls) ||
             ioLine(line, "syscw:", &info->writeCalls, &info->io64.writeCalls);
    case 'c':
      return startsWith(line, "cancelled_write_bytes:");
    default:
      return false;
  }
}

size_t cleanCmdline(char* text, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    if (text[i] == '\0') {
      text[i] = ' ';
    }
  }
  if (length > static_cast<size_t>(ProcList::kCmdlineMax)) {
    length = ProcList::kCmdlineMax;
  }
  text[length] = '\0';
  return length;
}

}  // namespace procfiles

// --- Reading the files of one process ---

ProcFileReader::ProcFileReader(int rootFd, const std::string& root, ProcList::StatType statType)
    : rootFd_(rootFd),
      statType_(statType),
      path_(root + "/"),
      rootLength_(path_.size()),
      directoryLength_(path_.size()),
      buffer_(new char[kBufferSize + 1]) {
  path_.reserve(path_.size() + 64);
}

const char* ProcFileReader::fileName(const char* file) {
  path_.resize(directoryLength_);
  if (file != nullptr) {
    path_ += '/';
    path_ += file;
  }
  return path_.c_str();
}

bool ProcFileReader::directoryExists() {
  path_.resize(directoryLength_);
  return faccessat(rootFd_, path_.c_str() + rootLength_, F_OK, AT_EACCESS) == 0;
}

bool ProcFileReader::startFile(const char* file, const char* goneMessage) {
  callHook(fileName(file));
  if (!directoryExists()) {
    return fail(2, goneMessage);
  }
  fileName(file);
  return true;
}

long ProcFileReader::readFile(size_t limit) {
  const int fd = openat(rootFd_, path_.c_str() + rootLength_, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return -1;
  }
  // A short read is the end: /proc gives a file whole, and regular files do too.
  ssize_t got = 0;
  do {
    got = read(fd, buffer_.get(), limit);
  } while (got < 0 && errno == EINTR);
  close(fd);
  if (got < 0) {
    return -1;
  }
  buffer_[got] = '\0';
  return got;
}

bool ProcFileReader::failRead(const char* message) {
  // The process may have gone between the check and the read.
  return directoryExists() ? fail(3, message)
                           : fail(2, "Warn - stat failed; directory may no longer exist");
}

char* ProcFileReader::readLines(const char* file, const char* unreadable) {
  if (!startFile(file, "Warn - stat failed; directory may no longer exist")) {
    return nullptr;
  }
  const long length = readFile(kBufferSize);
  if (length <= 0) {
    failRead(unreadable);
    return nullptr;
  }
  end_ = buffer_.get() + length;
  return terminateLine(buffer_.get());
}

char* ProcFileReader::terminateLine(char* line) {
  if (line >= end_) {
    return nullptr;
  }
  char* next = static_cast<char*>(memchr(line, '\n', static_cast<size_t>(end_ - line)));
  lineEnd_ = next == nullptr ? end_ : next;
  *lineEnd_ = '\0';
  return line;
}

char* ProcFileReader::nextLine() { return terminateLine(lineEnd_ + 1); }

bool ProcFileReader::fail(int severity, const char* message) {
  failure_ = Failure{severity, message};
  return false;
}

void ProcFileReader::reportFailure() {
  XRV_TRACE_FN();
  if (failure_.severity > 1) {
    XRV_TRACE_DETAIL("Error - cannot retrieve data for < %s >\n", fileName(nullptr));
    XRV_TRACE_DETAIL("Error - %s ...continuing\n", failure_.message);
  }
}

bool ProcFileReader::readProcess(const char* name, ps_info* info, bool* cmdlineDue) {
  XRV_TRACE_FN();
  memset(info, 0, sizeof *info);
  info->cmdline = "";
  *cmdlineDue = false;
  failure_ = Failure{0, nullptr};
  path_.resize(rootLength_);
  path_ += name;
  directoryLength_ = path_.size();
  callHook(path_.c_str());

  bool statRead = false;
  switch (statType_) {
    case ProcList::FULL_STATUS_INFO:
      if (!directoryExists()) {
        XRV_TRACE_DETAIL("Warn - Directory no longer exists < %s >\n", path_.c_str());
        fail(1, "Dir no longer exists");
        break;
      }
      statRead = readStat(info);
      *cmdlineDue = statRead && readStatm(info) && readStatus(info) && readIo(info);
      break;
    case ProcList::MEMORY_INFO:
      if (!directoryExists()) {
        XRV_TRACE_DETAIL("Warn - stat(%s) failed; directory may not exit\n", path_.c_str());
        fail(1, "Dir no longer exists");
        break;
      }
      statRead = readStat(info);
      if (statRead && readStatus(info)) {
        XRV_TRACE_DETAIL("completiing < %s >\n", fileName(nullptr));
      }
      break;
    default:
      XRV_TRACE_ERROR("ProcList: Incorrectly called\n");
      return false;
  }
  if (failure_.severity != 0) {
    reportFailure();
  }
  return statRead && failure_.severity != 1 && failure_.severity != 2;
}

bool ProcFileReader::readStat(ps_info* info) {
  XRV_TRACE_FN();
  if (!startFile("stat", "Warn - stat failed; directory may no longer exist")) {
    return false;
  }
  if (readFile(kBufferSize) <= 0) {
    return failRead("Warn - getline failed for stat file");
  }
  char* line = buffer_.get();
  line[strcspn(line, "\n")] = '\0';
  info->statFieldCount = procfiles::parseStat(line, info);
  if (info->statFieldCount == -2) {
    return fail(3, "Warn - strrchr failed - buffer format unknown");
  }
  return true;
}

bool ProcFileReader::readStatm(ps_info* info) {
  XRV_TRACE_FN();
  if (!startFile("statm", "Warn - stat failed; directory may no longer exist")) {
    return false;
  }
  if (readFile(kBufferSize) <= 0) {
    return failRead("Warn - getline failed for statm file");
  }
  procfiles::parseStatm(buffer_.get(), info);
  return true;
}

bool ProcFileReader::readStatus(ps_info* info) {
  XRV_TRACE_FN();
  char* line = readLines("status", "Warn - getline failed for status file");
  if (line == nullptr) {
    return false;
  }
  bool vm = false;
  bool threads = false;
  int skipped = 0;
  for (; line != nullptr; line = nextLine()) {
    switch (procfiles::parseStatusLine(line, info)) {
      case procfiles::STATUS_VM:
        vm = true;
        break;
      case procfiles::STATUS_THREADS:
        threads = true;
        break;
      case procfiles::STATUS_SKIPPED:
        ++skipped;
        break;
      default:
        break;
    }
  }
  info->statusRead = true;
  XRV_TRACE_DETAIL("Line skipped count: %d\n", skipped);
  if (!vm) {
    XRV_TRACE_DETAIL("Kernel thread - no VM data");
  }
  if (!threads) {
    XRV_TRACE_DETAIL("No Process thread count - pre-2.6 kernel");
  }
  return true;
}

bool ProcFileReader::readIo(ps_info* info) {
  XRV_TRACE_FN();
  char* line = readLines("io", "Warn - getline failed for io file");
  if (line == nullptr) {
    return false;
  }
  for (; line != nullptr; line = nextLine()) {
    if (*line == '\0') {
      XRV_TRACE_DETAIL("Skipping empty line\n");
    } else {
      procfiles::parseIoLine(line, info);
    }
  }
  info->ioRead = true;
  return true;
}

bool ProcFileReader::readCmdline(const ps_info& info, const char** text, size_t* length) {
  XRV_TRACE_FN();
  *text = "";
  *length = 0;
  bool kept = startFile("cmdline", "Warn - process does not exist");
  if (kept) {
    const long got = readFile(static_cast<size_t>(ProcList::kCmdlineMax) + 1);
    if (got < 0) {
      failRead("Warn - failed to open cmdline");
      kept = failure_.severity != 2;
    } else {
      char* cmdline = buffer_.get();
      size_t used = procfiles::cleanCmdline(cmdline, static_cast<size_t>(got));
      if (used == 0) {
        // A kernel thread: its command name in brackets.
        used = static_cast<size_t>(
            snprintf(cmdline, static_cast<size_t>(ProcList::kCmdlineMax) + 1, "[%s]",
                     info.commandName));
        used = used > static_cast<size_t>(ProcList::kCmdlineMax) ? ProcList::kCmdlineMax : used;
      }
      XRV_TRACE_DETAIL("Cmdline: %s ", cmdline);
      *text = cmdline;
      *length = used;
    }
  }
  if (failure_.severity != 0) {
    reportFailure();
  } else {
    XRV_TRACE_DETAIL("completiing < %s >\n", fileName(nullptr));
  }
  return kept;
}

void ProcFileReader::finishWithoutCmdline() {
  XRV_TRACE_FN();
  XRV_TRACE_DETAIL("completiing < %s >\n", fileName(nullptr));
}
