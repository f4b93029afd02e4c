#pragma once

// The trace facility.
//
// Every function of the agent starts with XRV_TRACE_FN(), which writes "Entry" and
// "Exit" lines when flow tracing is on for that function, and declares the call
// site that XRV_TRACE_DETAIL / XRV_TRACE_ERROR use for formatted lines:
//
//   void ResultsManager::updateResults() {
//     XRV_TRACE_FN();
//     XRV_TRACE_DETAIL("purging...... %s curr=%s, inst time=%s", name, now, stamp);
//   }
//
// Which lines are written is decided per function by the rules in XRV_TRACE (see
// TraceRules.h); lines go to the file named by XRV_TRACE_FILE (appended) or to
// standard error, one line per event:
//
//   YYYY-MM-DD HH:MM:SS.mmm [thread-id] file:line function: text
//
// A switched-off trace point costs two relaxed atomic loads and a compare: no
// formatting, no allocation, no lock. Each call site caches its function's mask
// together with the generation of the rule set it was computed from; changing the
// rules bumps the generation and every site recomputes once, under a lock.
//
// Thread-safe. Safe to use during static initialisation.

#include <atomic>
#include <cstdint>
#include <string>

namespace XRV::trace {

// Flags of a function's trace mask.
inline constexpr uint32_t TRACE_DETAIL = 1;     // formatted detail lines
inline constexpr uint32_t TRACE_FLOW = 64;      // function entry and exit
inline constexpr uint32_t TRACE_ERROR = 0x100;  // errors; the default for every function

// Generation of the current rule set. Starts at 1 so that a fresh site (state 0)
// always computes its mask on first use.
extern std::atomic<uint32_t> ruleGeneration;

constexpr const char* baseName(const char* path) {
  const char* base = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/') {
      base = p + 1;
    }
  }
  return base;
}

// One function's trace point: its name and file, and the cached mask.
class Site {
 public:
  constexpr Site(const char* prettyFunction, const char* file) noexcept
      : prettyFunction_(prettyFunction), file_(file) {}
  Site(const Site&) = delete;
  Site& operator=(const Site&) = delete;

  bool enabled(uint32_t flag) noexcept {
    uint64_t state = state_.load(std::memory_order_relaxed);
    if (static_cast<uint32_t>(state >> 32) != ruleGeneration.load(std::memory_order_relaxed))
        [[unlikely]] {
      state = refresh();
    }
    return (state & flag) != 0;
  }

  // "Class::method" (or "function"): the name the rules match against. Never null.
  const char* functionName() noexcept;
  const char* file() const noexcept { return file_; }

 private:
  uint64_t refresh() noexcept;

  std::atomic<uint64_t> state_{0};  // generation << 32 | mask
  std::atomic<const char*> name_{nullptr};
  const char* prettyFunction_;
  const char* file_;
};

// Writes one formatted line for the site. Callers test site.enabled() first.
void write(Site& site, int line, const char* format, ...) noexcept
    __attribute__((format(printf, 3, 4)));
void writeText(Site& site, int line, const char* text) noexcept;

// Writes "Entry" on construction and "Exit" on destruction when flow tracing is on
// for the site at construction time.
class Scope {
 public:
  Scope(Site& site, int line) noexcept
      : site_(site.enabled(TRACE_FLOW) ? &site : nullptr), line_(line) {
    if (site_ != nullptr) [[unlikely]] {
      writeText(*site_, line_, "Entry");
    }
  }
  ~Scope() {
    if (site_ != nullptr) [[unlikely]] {
      writeText(*site_, line_, "Exit");
    }
  }
  Scope(const Scope&) = delete;
  Scope& operator=(const Scope&) = delete;

 private:
  Site* site_;
  int line_;
};

// Receives finished lines instead of the trace file (tests capture them this way).
class Sink {
 public:
  virtual ~Sink() = default;
  // `line` ends with '\n'; it is valid only during the call.
  virtual void traceLine(const char* line, size_t length) = 0;
};

// Replaces the rules (XRV_TRACE syntax). Returns false and describes the first bad
// rule in *error when some rule is invalid; the valid rules are applied anyway.
bool configure(const char* rules, std::string* error = nullptr);
// Sends lines to `path` (appended, created when missing), or to standard error when
// `path` is null or empty. Returns false with a description when the file cannot be
// opened; the previous destination stays.
bool setOutputFile(const char* path, std::string* error = nullptr);
// Installs a sink (null to go back to the file). The caller keeps ownership and must
// uninstall it before destroying it.
void setSink(Sink* sink);
// Re-reads XRV_TRACE and XRV_TRACE_FILE. Done automatically on first use; problems
// are reported once on standard error and do not stop the agent.
void loadFromEnvironment();

}  // namespace XRV::trace

#define XRV_TRACE_SITE()                                                                           \
  static constinit ::XRV::trace::Site xrvTraceSite_(static_cast<const char*>(__PRETTY_FUNCTION__), \
                                                    ::XRV::trace::baseName(__FILE__))

// Entry/exit tracing for the enclosing function, and the site for the macros below.
#define XRV_TRACE_FN() \
  XRV_TRACE_SITE();    \
  const ::XRV::trace::Scope xrvTraceScope_(xrvTraceSite_, __LINE__)

#define XRV_TRACE_ENABLED(flag) (xrvTraceSite_.enabled(::XRV::trace::flag))

#define XRV_TRACE_AT(flag, ...)                                   \
  do {                                                            \
    if (xrvTraceSite_.enabled(::XRV::trace::flag)) [[unlikely]] { \
      ::XRV::trace::write(xrvTraceSite_, __LINE__, __VA_ARGS__);  \
    }                                                             \
  } while (0)

#define XRV_TRACE_DETAIL(...) XRV_TRACE_AT(TRACE_DETAIL, __VA_ARGS__)
#define XRV_TRACE_ERROR(...) XRV_TRACE_AT(TRACE_ERROR, __VA_ARGS__)
