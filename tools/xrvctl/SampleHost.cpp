#include "SampleHost.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace {
// The ORIGINNODE column holds 32 bytes.
constexpr size_t kOriginNodeSize = 32;
}  // namespace

SampleHost::SampleHost(const char* nodeType) {
  // As the agent names itself: HOST:NODETYPE, the host being the configured host name
  // (CTAFW_HOSTNAME) or the system's without its domain.
  std::string host;
  if (char* configured = fwGetConfiguredHostName()) {
    host = configured;
    free(configured);
  }
  if (host.empty()) {
    char system[256] = {};
    if (gethostname(system, sizeof system - 1) == 0) {
      host = system;
      host = host.substr(0, host.find('.'));
    }
  }
  const std::string suffix =
      nodeType == nullptr || *nodeType == '\0' ? "" : std::string(":") + nodeType;
  const size_t room = suffix.size() < kOriginNodeSize ? kOriginNodeSize - suffix.size() : 0;
  originNode_ = (host.empty() ? "localhost" : host).substr(0, room) + suffix;
}

std::vector<std::string> SampleHost::takeRows() {
  std::vector<std::string> rows;
  rows.swap(rows_);
  return rows;
}

int SampleHost::acceptRow(GenericAgentBase& /*request*/, const char* row, int length) {
  rows_.emplace_back(row, static_cast<size_t>(length));
  return 0;
}

int SampleHost::run(int /*argc*/, char** /*argv*/) { return 0; }

bool SampleHost::originNode(char* buffer, size_t size) {
  if (originNode_.size() + 1 > size) {
    return false;
  }
  memcpy(buffer, originNode_.c_str(), originNode_.size() + 1);
  return true;
}
