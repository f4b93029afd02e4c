#pragma once

// ProcessRule: which processes one rule of a process data source takes, and the
// instance counts it expects. A process matches when it satisfies every criterion
// the rule has:
//   - name: its command name (as stat gives it) is exactly this;
//   - cmdline: this regular expression (ICU syntax) matches somewhere in its command
//     line (without the trailing blank that ends it);
//   - user: its effective user is this user name, or this numeric user id.
//
// Thread-safe once built: matching only reads, and the expression takes its own lock.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "sources/process/ProcList.h"

namespace XRV::expression {
class Regex;
}

class ProcessRule {
 public:
  // A rule named `rule` (the row's Rule value; when empty, the first criterion given
  // names it). Null, with the reason in *error, when the rule has no criterion or
  // its expression does not compile. `maximum` 0: no upper bound.
  static std::shared_ptr<ProcessRule> make(const std::string& rule, const std::string& name,
                                           const std::string& cmdline, const std::string& user,
                                           int minimum, int maximum, std::string* error);
  ~ProcessRule();
  ProcessRule(const ProcessRule&) = delete;
  ProcessRule& operator=(const ProcessRule&) = delete;

  bool matches(const ps_info& process) const;

  const std::string& rule() const { return rule_; }
  const std::string& name() const { return name_; }
  const std::string& cmdlinePattern() const { return cmdlinePattern_; }
  const std::string& user() const { return user_; }
  int minimum() const { return minimum_; }
  int maximum() const { return maximum_; }

  // The command line without the blank the NUL byte after its last argument became.
  static std::string_view trimmedCmdline(const ps_info& process);

 private:
  ProcessRule() = default;

  std::string rule_;
  std::string name_;
  std::string cmdlinePattern_;
  std::unique_ptr<XRV::expression::Regex> cmdline_;
  std::string user_;
  int64_t userId_ = -1;  // the user given as a number
  int minimum_ = 1;
  int maximum_ = 0;
};
