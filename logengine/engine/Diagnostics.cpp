#include "Diagnostics.h"

#include <unistd.h>

#include <memory>
#include <mutex>

namespace xrvlog {
namespace {

std::mutex& sinkLock() {
  static auto* lock = new std::mutex;  // never destroyed: file threads may outlive exit()
  return *lock;
}

DiagnosticSink& sink() {
  static auto* installed = new DiagnosticSink;
  return *installed;
}

}  // namespace

void setDiagnosticSink(DiagnosticSink replacement) {
  std::lock_guard<std::mutex> hold(sinkLock());
  sink() = std::move(replacement);
}

void diagnose(const std::string& message) {
  std::lock_guard<std::mutex> hold(sinkLock());
  if (sink()) {
    sink()(message);
    return;
  }
  // One write per line, so lines of several threads never interleave.
  const std::string line = "xrvlog: " + message + "\n";
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace xrvlog
