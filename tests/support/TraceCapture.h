#pragma once

// Captures trace lines while it lives, with the given rules in force (default: every
// function at every level). Restores error-only tracing to standard error after.

#include <mutex>
#include <string>
#include <vector>

#include "framework/Trace.h"

namespace XRV::testing {

class TraceCapture : public XRV::trace::Sink {
 public:
  explicit TraceCapture(const char* rules = "all");
  ~TraceCapture() override;
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  void traceLine(const char* line, size_t length) override;

  // Every captured line, without its line feed.
  std::vector<std::string> lines() const;
  // The text part of every line (what follows "function: ").
  std::vector<std::string> texts() const;
  // True when some line's text equals `text` exactly.
  bool hasText(const std::string& text) const;
  // True when some line's text contains `fragment`.
  bool containsText(const std::string& fragment) const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace XRV::testing
