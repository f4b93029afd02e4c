// Matching log lines against the filters of a log definition with PCRE2.
//
// A PatternSet is compiled once per definition load (JIT-compiled where the platform
// allows) and shared read-only by every file thread. Each thread owns a Matcher: its
// match data, JIT stack, output buffers and statistics, so matching a line allocates
// nothing once the buffers have grown to the largest record seen.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

struct pcre2_real_code_8;
struct pcre2_real_match_data_8;
struct pcre2_real_match_context_8;
struct pcre2_real_jit_stack_8;

namespace xrvlog {

// How a filter's expression is applied to a line.
enum class PatternKind {
  Scan,   // found anywhere in the line
  Match,  // must match starting at the line's first byte
  Whole,  // must match the whole line, from its first byte to its last
};

// A field filled from a capture group: `group` is a group number ("2") or name ("host").
struct FieldSpec {
  std::string name;
  std::string group;
};

// One filter. The filters of a set are tried in order; the first that matches wins (OR).
struct PatternSpec {
  PatternKind kind = PatternKind::Scan;
  std::string expression;
  std::vector<FieldSpec> fields;
  // REPLACEFIRST: the first match in the line is replaced by this text, in which $n,
  // ${n} and ${name} stand for a group's text and $$ for a dollar sign.
  std::optional<std::string> replacement;
};

// Bounds on the effort one record may cost. A record that reaches one of them counts
// as unmatched and as a limit hit of the filter that was trying it. PCRE2 applies the
// match limit at each start position, so a scan filter's whole effort on a line is
// bounded by the limit times the line's length; the reader's bound on a record's size
// keeps that finite.
struct MatchLimits {
  uint32_t match_limit = 1'000'000;  // backtracking steps per start position
  uint32_t depth_limit = 10'000;     // interpreter only: nested backtracking frames
  uint32_t heap_limit_kib = 4096;    // interpreter only: its backtracking frames
  std::size_t jit_stack_max = 1024 * 1024;
  bool use_jit = true;  // false forces the interpreter
  bool utf = true;      // lines are UTF-8 (invalid sequences never match)
  // CPU time is read on every Nth line and scaled by N; 0 switches it off.
  uint32_t cpu_sample_period = 64;
};

// A filter that does not compile, a field naming a group the expression lacks, or a
// malformed replacement. offset() is the byte offset in the expression (or in the
// replacement text), or npos when the error is not at a position.
class PatternError : public std::runtime_error {
 public:
  PatternError(std::size_t pattern, std::size_t offset, const std::string& message);
  std::size_t pattern() const { return pattern_; }
  std::size_t offset() const { return offset_; }

 private:
  std::size_t pattern_;
  std::size_t offset_;
};

struct PatternStats {
  uint64_t matches = 0;
  uint64_t misses = 0;
  uint64_t limit_hits = 0;  // counted as misses too
  uint64_t cpu_ns = 0;      // estimated from the sampled lines
  PatternStats& operator+=(const PatternStats& other);
};

class PatternSet {
 public:
  // Compiles every filter; throws PatternError for the first one that is wrong.
  static std::shared_ptr<const PatternSet> compile(std::vector<PatternSpec> filters,
                                                   const MatchLimits& limits = {});
  ~PatternSet();
  PatternSet(const PatternSet&) = delete;
  PatternSet& operator=(const PatternSet&) = delete;

  std::size_t size() const { return patterns_.size(); }
  const PatternSpec& filter(std::size_t index) const { return patterns_[index].filter; }
  const MatchLimits& limits() const { return limits_; }
  // True when every filter runs JIT-compiled code.
  bool jit() const { return jit_; }
  // The PCRE2 version and how the filters run, for the engine's status output.
  const std::string& status() const { return status_; }

 private:
  friend class Matcher;
  // A replacement text split into literal pieces and group references.
  struct Piece {
    std::string literal;
    int group = -1;
  };
  struct Compiled {
    PatternSpec filter;
    pcre2_real_code_8* code = nullptr;
    std::vector<uint32_t> field_groups;
    std::vector<Piece> replacement;
  };
  PatternSet() = default;

  std::vector<Compiled> patterns_;
  MatchLimits limits_;
  uint32_t max_groups_ = 0;
  std::size_t max_fields_ = 0;
  bool jit_ = false;
  std::string status_;
};

struct MatchResult {
  int pattern = -1;                      // the filter that matched, -1 when none did
  std::vector<std::string_view> fields;  // in the order of the filter's fields, into the line
  std::string_view text;                 // the line after REPLACEFIRST, or the line itself
  bool matched() const { return pattern >= 0; }
};

// Not thread-safe: one per thread, all sharing one PatternSet.
class Matcher {
 public:
  explicit Matcher(std::shared_ptr<const PatternSet> set);
  ~Matcher();
  Matcher(const Matcher&) = delete;
  Matcher& operator=(const Matcher&) = delete;

  // Tries the filters in order, one scan each at most, and stops at the first that
  // matches. The result's views stay valid until the next call or until `line` dies.
  const MatchResult& match(std::string_view line);

  // How the filters take `text`: Complete when one matches it as it stands, Partial
  // when none does but one could once more text is appended (the text ran out while
  // the filter was still matching), else None. Counts nothing in the statistics.
  enum class Fit { None, Partial, Complete };
  Fit fit(std::string_view text);

  const PatternSet& patterns() const { return *set_; }
  const std::vector<PatternStats>& stats() const { return stats_; }
  // Records dropped because a filter reached a limit.
  uint64_t limited_records() const { return limited_records_; }

 private:
  void fill(std::size_t index, std::string_view line);

  std::shared_ptr<const PatternSet> set_;
  pcre2_real_match_data_8* data_ = nullptr;
  pcre2_real_match_context_8* context_ = nullptr;
  pcre2_real_jit_stack_8* jit_stack_ = nullptr;
  MatchResult result_;
  std::string replaced_;
  std::vector<PatternStats> stats_;
  uint64_t limited_records_ = 0;
  uint32_t until_sample_ = 1;
  uint64_t clock_cost_ns_ = 0;
};

}  // namespace xrvlog
