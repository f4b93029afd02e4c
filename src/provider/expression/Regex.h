#pragma once

// Regex: one compiled regular expression (ICU syntax) of the `matches` function.
//
// Thread-safe: an ICU matcher keeps its match state inside, so find() takes the
// object's own lock; expressions of different attribute groups never share one.

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

struct URegularExpression;

namespace XRV::expression {

class Regex {
 public:
  // Compiles `pattern` (UTF-8). Null, with a description in *error, when it is no
  // valid regular expression.
  static std::unique_ptr<Regex> compile(std::string_view pattern, std::string* error);
  ~Regex();
  Regex(const Regex&) = delete;
  Regex& operator=(const Regex&) = delete;

  // True when the expression matches somewhere in `text` (UTF-8). False with
  // *error set when ICU cannot run the match.
  bool find(std::string_view text, std::string* error);

 private:
  explicit Regex(URegularExpression* compiled) : compiled_(compiled) {}

  std::mutex lock_;
  URegularExpression* compiled_;
};

}  // namespace XRV::expression
