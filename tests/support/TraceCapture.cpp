#include "support/TraceCapture.h"

namespace XRV::testing {

TraceCapture::TraceCapture(const char* rules) {
  XRV::trace::setSink(this);
  XRV::trace::configure(rules);
}

TraceCapture::~TraceCapture() {
  XRV::trace::configure("error");
  XRV::trace::setSink(nullptr);
}

void TraceCapture::traceLine(const char* line, size_t length) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string text(line, length);
  if (!text.empty() && text.back() == '\n') {
    text.pop_back();
  }
  lines_.push_back(std::move(text));
}

std::vector<std::string> TraceCapture::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::vector<std::string> TraceCapture::texts() const {
  std::vector<std::string> result;
  for (const std::string& line : lines()) {
    // "date time [tid] file:line function: text": the text follows the first ": "
    // after the function name, which itself may hold "::" but never ": ".
    size_t bracket = line.find("] ");
    size_t separator = bracket == std::string::npos ? std::string::npos : line.find(": ", bracket);
    result.push_back(separator == std::string::npos ? line : line.substr(separator + 2));
  }
  return result;
}

bool TraceCapture::hasText(const std::string& text) const {
  for (const std::string& candidate : texts()) {
    if (candidate == text) {
      return true;
    }
  }
  return false;
}

bool TraceCapture::containsText(const std::string& fragment) const {
  for (const std::string& candidate : texts()) {
    if (candidate.find(fragment) != std::string::npos) {
      return true;
    }
  }
  return false;
}

void TraceCapture::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

}  // namespace XRV::testing
