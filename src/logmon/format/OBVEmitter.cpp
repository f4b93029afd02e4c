#include "logmon/format/OBVEmitter.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "framework/ReadFile.h"
#include "framework/Trace.h"

using XRV::forward::EventForwarder;
using XRV::forward::EventForwarderConfig;
using XRV::forward::EventForwarderStatus;

namespace {

std::string_view trimmed(std::string_view text) {
  const char* blanks = " \t\r\n\f\v";
  const size_t start = text.find_first_not_of(blanks);
  if (start == std::string_view::npos) {
    return {};
  }
  return text.substr(start, text.find_last_not_of(blanks) - start + 1);
}

}  // namespace

OBVEmitter::OBVEmitter(const char* confPath) : confPath_(confPath == nullptr ? "" : confPath) {
  XRV_TRACE_FN();
  reset();
}

OBVEmitter::OBVEmitter(const char* confPath, const std::string& text)
    : confPath_(confPath == nullptr ? "" : confPath) {
  XRV_TRACE_FN();
  parse(text);
}

bool OBVEmitter::reset() {
  XRV_TRACE_FN();
  values_.clear();
  error_ = OBV_OK;
  errorText_.clear();
  // The open tells a missing file and a refused one apart; readWholeFile refuses the
  // rest (directories, FIFOs, devices, oversized files).
  const int fd = open(confPath_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) {
    const int cause = errno;
    error_ = cause == ENOENT || cause == ENOTDIR ? OBV_CONF_FILE_MISSING
             : cause == EACCES || cause == EPERM ? OBV_CONF_FILE_ACCESS_DENIED
                                                 : OBV_CONF_FILE_UNREADABLE;
    errorText_ = confPath_ + ": cannot open: " + strerror(cause);
    XRV_TRACE_ERROR("%s", errorText_.c_str());
    return false;
  }
  close(fd);
  std::string text;
  if (!readWholeFile(confPath_.c_str(), maxReadFileBytes(), &text, &errorText_)) {
    error_ = OBV_CONF_FILE_UNREADABLE;
    XRV_TRACE_ERROR("%s", errorText_.c_str());
    return false;
  }
  return parse(text);
}

bool OBVEmitter::parse(const std::string& text) {
  XRV_TRACE_FN();
  std::string_view rest(text);
  for (int line = 1; !rest.empty(); ++line) {
    const size_t end = rest.find('\n');
    std::string_view current = trimmed(rest.substr(0, end));
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    if (current.empty() || current.front() == '#') {
      continue;
    }
    const size_t equals = current.find('=');
    std::string_view name = trimmed(current.substr(0, equals == std::string_view::npos ? 0 : equals));
    if (equals == std::string_view::npos || name.empty() ||
        name.find_first_of(" \t") != std::string_view::npos) {
      values_.clear();
      error_ = OBV_CONF_FILE_INVALID;
      errorText_ = confPath_ + ":" + std::to_string(line) + ": expected NAME=value, found '" +
                   std::string(current.substr(0, 100)) + "'";
      XRV_TRACE_ERROR("%s", errorText_.c_str());
      return false;
    }
    std::string_view value = trimmed(current.substr(equals + 1));
    if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
      value = value.substr(1, value.size() - 2);
    }
    bool replaced = false;
    for (auto& [key, old] : values_) {
      if (key.size() == name.size() && strncasecmp(key.data(), name.data(), name.size()) == 0) {
        old = std::string(value);
        replaced = true;
      }
    }
    if (!replaced) {
      values_.emplace_back(std::string(name), std::string(value));
    }
  }
  XRV_TRACE_DETAIL("Read %zu keys from conf file %s", values_.size(), confPath_.c_str());
  return true;
}

PERF_OBJECT_ERROR_CODE OBVEmitter::perfErrorCode(int error) {
  switch (error) {
    case OBV_OK:
      return OBJECT_ACTIVE;
    case OBV_CONF_FILE_MISSING:
      return CONF_FILE_DOES_NOT_EXIST;
    case OBV_CONF_FILE_INVALID:
      return INVALID_CONF_FILE;
    case OBV_CONF_FILE_ACCESS_DENIED:
      return CONF_FILE_ACCESS_DENIED;
    default:
      return OBV_INITIALIZATION_FAILED;
  }
}

const char* OBVEmitter::getConfValue(const char* key) const {
  if (key == nullptr) {
    return nullptr;
  }
  for (const auto& [name, value] : values_) {
    if (strcasecmp(name.c_str(), key) == 0) {
      return value.c_str();
    }
  }
  return nullptr;
}

int OBVEmitter::getConfInt(const char* key, int defaultValue) const {
  const char* value = getConfValue(key);
  if (value == nullptr) {
    return defaultValue;
  }
  char* end = nullptr;
  errno = 0;
  const long number = strtol(value, &end, 10);
  if (end == value || !trimmed(end).empty() || errno != 0 || number < INT32_MIN ||
      number > INT32_MAX) {
    return defaultValue;
  }
  return static_cast<int>(number);
}

bool OBVEmitter::getConfFlag(const char* key) const {
  const char* value = getConfValue(key);
  return value != nullptr && (value[0] == 'y' || value[0] == 'Y');
}

// --- Forwarding ---

bool OBVEmitter::forwardingConfig(const std::string& stream, EventForwarderConfig* config) const {
  XRV_TRACE_FN();
  const char* host = getConfValue("EventServer");
  if (host == nullptr || *host == '\0') {
    return false;
  }
  config->host = host;
  config->port = getConfInt("EventServerPort", config->port);
  if (config->port < 1 || config->port > 65535) {
    XRV_TRACE_ERROR("EventServerPort %s in %s is not a port, using 9315",
                    getConfValue("EventServerPort"), confPath_.c_str());
    config->port = 9315;
  }
  config->tls = getConfFlag("EventServerTLS");
  const char* caFile = getConfValue("EventServerCAFile");
  config->caFile = caFile == nullptr ? "" : caFile;
  const char* spool = getConfValue("EventSpoolDirectory");
  config->spoolDirectory = spool == nullptr || *spool == '\0' ? "event-spool" : spool;
  if (config->spoolDirectory[0] != '/') {
    const size_t slash = confPath_.rfind('/');
    config->spoolDirectory =
        (slash == std::string::npos ? std::string(".") : confPath_.substr(0, slash)) + "/" +
        config->spoolDirectory;
  }
  const char* maxBytes = getConfValue("EventSpoolMaxBytes");
  if (maxBytes != nullptr) {
    char* end = nullptr;
    errno = 0;
    const unsigned long long bytes = strtoull(maxBytes, &end, 10);
    if (end == maxBytes || !trimmed(end).empty() || errno != 0 || maxBytes[0] == '-') {
      XRV_TRACE_ERROR("EventSpoolMaxBytes %s in %s is not a number of bytes, using %llu", maxBytes,
                      confPath_.c_str(), static_cast<unsigned long long>(config->spoolMaxBytes));
    } else {
      config->spoolMaxBytes = bytes;
    }
  }
  config->stream = stream;
  return true;
}

bool OBVEmitter::startForwarding(const EventForwarderConfig& config) {
  XRV_TRACE_FN();
  if (forwarder_ != nullptr) {
    return forwarder_->ready();
  }
  server_ = config.host + ":" + std::to_string(config.port);
  forwarder_ = std::make_unique<EventForwarder>(config);
  XRV_TRACE_DETAIL("Forwarding OBV events of %s to %s%s as stream %s, spool %s", confPath_.c_str(),
                   server_.c_str(), config.tls ? " (TLS)" : "", forwarder_->stream().c_str(),
                   config.spoolDirectory.c_str());
  return forwarder_->ready();
}

bool OBVEmitter::submit(std::string_view eventText) {
  return forwarder_ != nullptr && forwarder_->submit(eventText);
}

bool OBVEmitter::forwardingStatus(EventForwarderStatus* status, std::string* server) const {
  if (forwarder_ == nullptr) {
    return false;
  }
  *status = forwarder_->status();
  *server = server_;
  return true;
}

void OBVEmitter::stopForwarding() {
  XRV_TRACE_FN();
  if (forwarder_ == nullptr || forwardingStopped_.exchange(true)) {
    return;
  }
  forwarder_->stop();
  const EventForwarderStatus status = forwarder_->status();
  XRV_TRACE_DETAIL(
      "Stopped forwarding OBV events to %s as stream %s: %llu submitted, %llu acknowledged, %llu "
      "pending, %llu dropped",
      server_.c_str(), forwarder_->stream().c_str(),
      static_cast<unsigned long long>(status.submitted),
      static_cast<unsigned long long>(status.acknowledged),
      static_cast<unsigned long long>(status.pendingEvents),
      static_cast<unsigned long long>(status.dropped));
}
