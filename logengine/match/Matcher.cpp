#include "match/Matcher.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <time.h>

#include <algorithm>
#include <cctype>

namespace xrvlog {
namespace {

std::string pcre2_message(int code) {
  PCRE2_UCHAR buffer[256];
  int length = pcre2_get_error_message(code, buffer, sizeof buffer);
  if (length < 0) return "PCRE2 error " + std::to_string(code);
  return std::string(reinterpret_cast<const char*>(buffer), static_cast<std::size_t>(length));
}

std::string pcre2_version() {
  char buffer[64] = {};
  if (pcre2_config(PCRE2_CONFIG_VERSION, buffer) < 0) return "PCRE2";
  return std::string("PCRE2 ") + buffer;
}

bool jit_available() {
  uint32_t jit = 0;
  return pcre2_config(PCRE2_CONFIG_JIT, &jit) >= 0 && jit != 0;
}

uint64_t thread_cpu_ns() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

bool all_digits(std::string_view text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool name_char(char c, bool first) {
  return c == '_' || std::isalpha(static_cast<unsigned char>(c)) ||
         (!first && std::isdigit(static_cast<unsigned char>(c)));
}

// Resolves a group given by number or name; throws with `where` describing the reference.
uint32_t resolve_group(pcre2_code* code, std::size_t index, std::string_view group,
                       std::size_t offset, const std::string& where) {
  uint32_t groups = 0;
  pcre2_pattern_info(code, PCRE2_INFO_CAPTURECOUNT, &groups);
  if (all_digits(group)) {
    unsigned long number = group.size() > 9 ? ~0ul : std::stoul(std::string(group));
    if (number > groups) {
      throw PatternError(index, offset,
                         where + " names group " + std::string(group) +
                             ", but the expression has " + std::to_string(groups) + " groups");
    }
    return static_cast<uint32_t>(number);
  }
  std::string name(group);
  int number = pcre2_substring_number_from_name(code, reinterpret_cast<PCRE2_SPTR>(name.c_str()));
  if (number < 0) {
    throw PatternError(index, offset,
                       where + " names group '" + name + "', which the expression does not have");
  }
  return static_cast<uint32_t>(number);
}

}  // namespace

PatternError::PatternError(std::size_t pattern, std::size_t offset, const std::string& message)
    : std::runtime_error("filter " + std::to_string(pattern + 1) + ": " + message),
      pattern_(pattern),
      offset_(offset) {}

PatternStats& PatternStats::operator+=(const PatternStats& other) {
  matches += other.matches;
  misses += other.misses;
  limit_hits += other.limit_hits;
  cpu_ns += other.cpu_ns;
  return *this;
}

namespace {

// Splits a REPLACEFIRST text into literal pieces and group references.
template <typename Piece>
std::vector<Piece> parse_replacement(const std::string& text, pcre2_code* code, std::size_t index) {
  std::vector<Piece> pieces;
  std::string literal;
  std::size_t i = 0;
  while (i < text.size()) {
    if (text[i] != '$') {
      literal += text[i++];
      continue;
    }
    const std::size_t dollar = i;
    if (i + 1 == text.size()) throw PatternError(index, dollar, "the replacement ends in '$'");
    std::string_view reference;
    const char next = text[i + 1];
    if (next == '$') {
      literal += '$';
      i += 2;
      continue;
    }
    if (next == '{') {
      std::size_t close = text.find('}', i + 2);
      if (close == std::string::npos) {
        throw PatternError(index, dollar, "the replacement has '${' without its '}'");
      }
      reference = std::string_view(text).substr(i + 2, close - i - 2);
      i = close + 1;
    } else if (std::isdigit(static_cast<unsigned char>(next)) || name_char(next, true)) {
      const bool digits = std::isdigit(static_cast<unsigned char>(next));
      std::size_t end = i + 1;
      while (end < text.size() && (digits ? std::isdigit(static_cast<unsigned char>(text[end])) != 0
                                          : name_char(text[end], false))) {
        ++end;
      }
      reference = std::string_view(text).substr(i + 1, end - i - 1);
      i = end;
    } else {
      throw PatternError(index, dollar,
                         "'$' in the replacement must be followed by a group, {group} or '$'");
    }
    const uint32_t group = resolve_group(code, index, reference, dollar,
                                         "the replacement at offset " + std::to_string(dollar));
    if (!literal.empty()) pieces.push_back(Piece{std::move(literal), -1});
    literal.clear();
    pieces.push_back(Piece{{}, static_cast<int>(group)});
  }
  if (!literal.empty()) pieces.push_back(Piece{std::move(literal), -1});
  return pieces;
}

}  // namespace

std::shared_ptr<const PatternSet> PatternSet::compile(std::vector<PatternSpec> filters,
                                                      const MatchLimits& limits) {
  std::shared_ptr<PatternSet> set(new PatternSet);
  set->limits_ = limits;
  const bool jit = limits.use_jit && jit_available();
  std::string jit_failure = !limits.use_jit ? "switched off" : !jit ? "not built into PCRE2" : "";
  std::size_t jitted = 0;

  for (std::size_t index = 0; index < filters.size(); ++index) {
    Compiled compiled{std::move(filters[index]), nullptr, {}, {}};
    const std::string& expression = compiled.filter.expression;
    uint32_t options = 0;
    if (compiled.filter.kind == PatternKind::Match) {
      options = PCRE2_ANCHORED;
    } else if (compiled.filter.kind == PatternKind::Whole) {
      options = PCRE2_ANCHORED | PCRE2_ENDANCHORED;
    }
    if (limits.utf) options |= PCRE2_UTF | PCRE2_MATCH_INVALID_UTF;
    int error = 0;
    PCRE2_SIZE offset = 0;
    compiled.code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(expression.data()),
                                  expression.size(), options, &error, &offset, nullptr);
    if (compiled.code == nullptr) {
      throw PatternError(index, offset,
                         pcre2_message(error) + " at offset " + std::to_string(offset) + " of \"" +
                             expression + "\"");
    }
    // Owned by the set from here on, so that a later error frees it.
    set->patterns_.push_back(std::move(compiled));
    Compiled& added = set->patterns_.back();

    if (jit) {
      int rc = pcre2_jit_compile(added.code, PCRE2_JIT_COMPLETE);
      if (rc == 0) {
        ++jitted;
      } else if (jit_failure.empty()) {
        jit_failure = "filter " + std::to_string(index + 1) + ": " + pcre2_message(rc);
      }
    }
    for (const FieldSpec& field : added.filter.fields) {
      added.field_groups.push_back(resolve_group(added.code, index, field.group, std::string::npos,
                                                 "field '" + field.name + "'"));
    }
    if (added.filter.replacement) {
      added.replacement = parse_replacement<Piece>(*added.filter.replacement, added.code, index);
    }
    uint32_t groups = 0;
    pcre2_pattern_info(added.code, PCRE2_INFO_CAPTURECOUNT, &groups);
    set->max_groups_ = std::max(set->max_groups_, groups);
    set->max_fields_ = std::max(set->max_fields_, added.field_groups.size());
  }

  set->jit_ = jitted == set->patterns_.size();
  set->status_ = pcre2_version() + ", ";
  if (set->jit_) {
    set->status_ += "JIT";
  } else if (jitted > 0) {
    set->status_ += "JIT for " + std::to_string(jitted) + " of " +
                    std::to_string(set->patterns_.size()) + " filters, interpreter for the rest (" +
                    jit_failure + ")";
  } else {
    set->status_ += "interpreter (JIT " +
                    (jit_failure.empty() ? std::string("unavailable") : jit_failure) + ")";
  }
  return set;
}

PatternSet::~PatternSet() {
  for (Compiled& compiled : patterns_) pcre2_code_free(compiled.code);
}

Matcher::Matcher(std::shared_ptr<const PatternSet> set) : set_(std::move(set)) {
  const MatchLimits& limits = set_->limits();
  data_ = pcre2_match_data_create(set_->max_groups_ + 1, nullptr);
  context_ = pcre2_match_context_create(nullptr);
  if (data_ == nullptr || context_ == nullptr) throw std::bad_alloc();
  pcre2_set_match_limit(context_, limits.match_limit);
  pcre2_set_depth_limit(context_, limits.depth_limit);
  pcre2_set_heap_limit(context_, limits.heap_limit_kib);
  if (limits.use_jit) {
    const std::size_t start = std::min<std::size_t>(32 * 1024, limits.jit_stack_max);
    jit_stack_ = pcre2_jit_stack_create(start, std::max(start, limits.jit_stack_max), nullptr);
    if (jit_stack_ == nullptr) throw std::bad_alloc();
    pcre2_jit_stack_assign(context_, nullptr, jit_stack_);
  }
  result_.fields.reserve(set_->max_fields_);
  stats_.resize(set_->size());
  until_sample_ = limits.cpu_sample_period;
  if (limits.cpu_sample_period != 0) {
    // Reading the thread's CPU clock is a system call that costs more than matching a
    // short line; each sample would otherwise carry one read, scaled up by the period.
    uint64_t cheapest = ~uint64_t{0};
    uint64_t before = thread_cpu_ns();
    for (int i = 0; i < 16; ++i) {
      const uint64_t after = thread_cpu_ns();
      cheapest = std::min(cheapest, after - before);
      before = after;
    }
    clock_cost_ns_ = cheapest;
  }
}

Matcher::~Matcher() {
  pcre2_jit_stack_free(jit_stack_);
  pcre2_match_context_free(context_);
  pcre2_match_data_free(data_);
}

const MatchResult& Matcher::match(std::string_view line) {
  result_.pattern = -1;
  result_.fields.clear();
  result_.text = line;

  const uint32_t period = set_->limits().cpu_sample_period;
  bool sample = false;
  if (period != 0 && --until_sample_ == 0) {
    sample = true;
    until_sample_ = period;
  }
  uint64_t before = sample ? thread_cpu_ns() : 0;

  bool limited = false;
  const auto subject = reinterpret_cast<PCRE2_SPTR>(line.data());
  for (std::size_t index = 0; index < set_->patterns_.size(); ++index) {
    PatternStats& stats = stats_[index];
    int rc = pcre2_match(set_->patterns_[index].code, subject, line.size(), 0, 0, data_, context_);
    if (rc >= 0) {
      ++stats.matches;
      fill(index, line);
    } else {
      ++stats.misses;
      // Anything but a plain miss is a limit reached (or another matching error): the
      // record is given up for this filter.
      if (rc != PCRE2_ERROR_NOMATCH) {
        ++stats.limit_hits;
        limited = true;
      }
    }
    if (sample) {
      const uint64_t after = thread_cpu_ns();
      const uint64_t spent = after - before;
      stats.cpu_ns += (spent > clock_cost_ns_ ? spent - clock_cost_ns_ : 0) * period;
      before = after;
    }
    if (rc >= 0) return result_;
  }
  if (limited) ++limited_records_;
  return result_;
}

Matcher::Fit Matcher::fit(std::string_view text) {
  const auto subject = reinterpret_cast<PCRE2_SPTR>(text.data());
  for (const PatternSet::Compiled& pattern : set_->patterns_) {
    if (pcre2_match(pattern.code, subject, text.size(), 0, 0, data_, context_) >= 0) {
      return Fit::Complete;
    }
  }
  // A hard partial match prefers "more text could match" to a match found: only
  // asked once no filter matches as the text stands. (JIT code is compiled for
  // complete matches only; PCRE2 runs these on its interpreter.)
  for (const PatternSet::Compiled& pattern : set_->patterns_) {
    if (pcre2_match(pattern.code, subject, text.size(), 0, PCRE2_PARTIAL_HARD, data_, context_) ==
        PCRE2_ERROR_PARTIAL) {
      return Fit::Partial;
    }
  }
  return Fit::None;
}

void Matcher::fill(std::size_t index, std::string_view line) {
  const PatternSet::Compiled& pattern = set_->patterns_[index];
  const PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(data_);
  auto group_text = [&](uint32_t group) {
    const PCRE2_SIZE start = ovector[2 * group];
    const PCRE2_SIZE end = ovector[2 * group + 1];
    if (start == PCRE2_UNSET || end < start) return std::string_view();
    return line.substr(start, end - start);
  };
  result_.pattern = static_cast<int>(index);
  for (uint32_t group : pattern.field_groups) result_.fields.push_back(group_text(group));
  if (!pattern.filter.replacement) return;

  // \K can leave the start of the match past its end; the replaced span is then empty.
  const std::size_t end = ovector[1];
  const std::size_t start = std::min<std::size_t>(ovector[0], end);
  replaced_.assign(line.substr(0, start));
  for (const PatternSet::Piece& piece : pattern.replacement) {
    if (piece.group < 0) {
      replaced_ += piece.literal;
    } else {
      replaced_ += group_text(static_cast<uint32_t>(piece.group));
    }
  }
  replaced_ += line.substr(end);
  result_.text = replaced_;
}

}  // namespace xrvlog
