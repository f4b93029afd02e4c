#include "framework/Trace.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "framework/Mutex.h"
#include "framework/Settings.h"
#include "framework/TraceRules.h"

namespace XRV::trace {

std::atomic<uint32_t> ruleGeneration{1};

namespace {

constexpr int kStandardError = 2;

struct TraceState {
  XRV::Mutex mutex;
  TraceRuleSet rules XRV_GUARDED_BY(mutex);
  bool environmentLoaded XRV_GUARDED_BY(mutex) = false;
  int ownFd XRV_GUARDED_BY(mutex) = -1;  // our descriptor once a file was set
  std::atomic<int> fd{kStandardError};
  std::atomic<Sink*> sink{nullptr};
};

// Never destroyed: destructors of other static objects may still trace at exit.
TraceState& state() {
  static TraceState* const s = new TraceState;
  return *s;
}

void reportProblem(const std::string& text) {
  std::string line = "xrvagent: " + text + "\n";
  ssize_t ignored = ::write(kStandardError, line.data(), line.size());
  (void)ignored;
}

void bumpGeneration() {
  uint32_t next = ruleGeneration.load(std::memory_order_relaxed) + 1;
  if (next == 0) {
    next = 1;  // 0 would match a site that never computed its mask
  }
  ruleGeneration.store(next, std::memory_order_relaxed);
}

bool setOutputFileLocked(TraceState& s, const char* path, std::string* error)
    XRV_REQUIRES(s.mutex) {
  if (path == nullptr || *path == '\0') {
    if (s.ownFd >= 0) {
      dup2(kStandardError, s.ownFd);
    }
    return true;
  }
  int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) {
    if (error != nullptr) {
      *error = std::string("cannot open trace file '") + path + "': " + strerror(errno);
    }
    return false;
  }
  if (s.ownFd < 0) {
    s.ownFd = fd;
    s.fd.store(fd, std::memory_order_release);
  } else {
    // Swap the file under the descriptor number that writers already use, so that
    // a writer never sees a closed or reused descriptor.
    dup2(fd, s.ownFd);
    close(fd);
  }
  return true;
}

void loadEnvironmentLocked(TraceState& s) XRV_REQUIRES(s.mutex) {
  s.environmentLoaded = true;
  TraceRuleSet rules;
  std::string error;
  // Read without tracing: the trace facility is what is being set up.
  const SettingRead text = readSetting(Setting::Trace);
  if (text.set && !rules.parse(text.text.c_str(), &error)) {
    reportProblem("XRV_TRACE: " + error + "; the rule is ignored");
  }
  s.rules = std::move(rules);
  const SettingRead file = readSetting(Setting::TraceFile);
  if (!setOutputFileLocked(s, file.set ? file.text.c_str() : nullptr, &error)) {
    reportProblem("XRV_TRACE_FILE: " + error + "; tracing to standard error");
  }
  bumpGeneration();
}

void ensureEnvironmentLoaded(TraceState& s) XRV_REQUIRES(s.mutex) {
  if (!s.environmentLoaded) {
    loadEnvironmentLocked(s);
  }
}

int currentThreadId() {
  static thread_local int id = static_cast<int>(syscall(SYS_gettid));
  return id;
}

// "YYYY-MM-DD HH:MM:SS.mmm [tid] file:line function: "; returns its length.
size_t formatPrefix(char* out, size_t size, Site& site, int line) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  // localtime_r takes a lock and reads the time zone: do it once per second per thread.
  static thread_local time_t cachedSecond = -1;
  static thread_local struct tm cachedTm;
  if (now.tv_sec != cachedSecond) {
    localtime_r(&now.tv_sec, &cachedTm);
    cachedSecond = now.tv_sec;
  }
  int n = snprintf(out, size,
                   "%04d-%02d-%02d %02d:%02d:%02d.%03d [%d] %s:%d %s: ", cachedTm.tm_year + 1900,
                   cachedTm.tm_mon + 1, cachedTm.tm_mday, cachedTm.tm_hour, cachedTm.tm_min,
                   cachedTm.tm_sec, static_cast<int>(now.tv_nsec / 1000000), currentThreadId(),
                   site.file(), line, site.functionName());
  if (n < 0) {
    return 0;
  }
  return static_cast<size_t>(n) < size ? static_cast<size_t>(n) : size - 1;
}

void emit(const char* line, size_t length) {
  TraceState& s = state();
  if (Sink* sink = s.sink.load(std::memory_order_acquire)) {
    sink->traceLine(line, length);
    return;
  }
  int fd = s.fd.load(std::memory_order_acquire);
  while (length > 0) {
    ssize_t written = ::write(fd, line, length);
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      return;
    }
    line += written;
    length -= static_cast<size_t>(written);
  }
}

// Finishes a line whose text ends at `end`: one trailing line feed of the text is
// kept as the line's own end, otherwise one is added. `buffer` has room for it.
size_t terminate(char* buffer, size_t end) {
  if (end == 0 || buffer[end - 1] != '\n') {
    buffer[end++] = '\n';
  }
  buffer[end] = '\0';
  return end;
}

}  // namespace

const char* Site::functionName() noexcept {
  const char* name = name_.load(std::memory_order_acquire);
  if (name != nullptr) {
    return name;
  }
  // Computed once per site and kept for the life of the process.
  std::string computed = traceFunctionName(prettyFunction_);
  char* copy = strdup(computed.c_str());
  if (copy == nullptr) {
    return prettyFunction_;
  }
  const char* expected = nullptr;
  if (!name_.compare_exchange_strong(expected, copy, std::memory_order_acq_rel)) {
    free(copy);
    return expected;
  }
  return copy;
}

uint64_t Site::refresh() noexcept {
  TraceState& s = state();
  const char* name = functionName();
  XRV::MutexLock lock(s.mutex);
  ensureEnvironmentLoaded(s);
  uint64_t generation = ruleGeneration.load(std::memory_order_relaxed);
  uint64_t value = (generation << 32) | s.rules.maskFor(name, file_);
  state_.store(value, std::memory_order_relaxed);
  return value;
}

void write(Site& site, int line, const char* format, ...) noexcept {
  char stackBuffer[2048];
  size_t prefix = formatPrefix(stackBuffer, sizeof stackBuffer, site, line);
  va_list args;
  va_start(args, format);
  va_list again;
  va_copy(again, args);
  int textLength = vsnprintf(stackBuffer + prefix, sizeof stackBuffer - prefix, format, args);
  va_end(args);
  if (textLength < 0) {
    va_end(again);
    size_t end = prefix;
    const char bad[] = "(unprintable trace text)";
    memcpy(stackBuffer + end, bad, sizeof bad - 1);
    emit(stackBuffer, terminate(stackBuffer, end + sizeof bad - 1));
    return;
  }
  size_t needed = prefix + static_cast<size_t>(textLength) + 2;  // line feed and NUL
  if (needed <= sizeof stackBuffer) {
    va_end(again);
    emit(stackBuffer, terminate(stackBuffer, prefix + static_cast<size_t>(textLength)));
    return;
  }
  // A long text (a whole command output, an MDL): only here does tracing allocate.
  char* heapBuffer = static_cast<char*>(malloc(needed));
  if (heapBuffer == nullptr) {
    va_end(again);
    emit(stackBuffer, terminate(stackBuffer, sizeof stackBuffer - 2));
    return;
  }
  memcpy(heapBuffer, stackBuffer, prefix);
  vsnprintf(heapBuffer + prefix, needed - prefix, format, again);
  va_end(again);
  emit(heapBuffer, terminate(heapBuffer, prefix + static_cast<size_t>(textLength)));
  free(heapBuffer);
}

void writeText(Site& site, int line, const char* text) noexcept { write(site, line, "%s", text); }

bool configure(const char* rules, std::string* error) {
  TraceState& s = state();
  XRV::MutexLock lock(s.mutex);
  ensureEnvironmentLoaded(s);
  TraceRuleSet parsed;
  bool ok = parsed.parse(rules == nullptr ? "" : rules, error);
  s.rules = std::move(parsed);
  bumpGeneration();
  return ok;
}

bool setOutputFile(const char* path, std::string* error) {
  TraceState& s = state();
  XRV::MutexLock lock(s.mutex);
  ensureEnvironmentLoaded(s);
  return setOutputFileLocked(s, path, error);
}

void setSink(Sink* sink) { state().sink.store(sink, std::memory_order_release); }

void loadFromEnvironment() {
  TraceState& s = state();
  XRV::MutexLock lock(s.mutex);
  loadEnvironmentLocked(s);
}

}  // namespace XRV::trace
