#pragma once

// OBVEmitter: the owner of a format-file log monitor's configuration (.conf) file.
// Every conf key of format-file mode (log sources, separators, sizes, syslog, flood
// control, ...) is read through getConfValue; docs/format-files.md lists them.
//
// The conf file is a text of NAME=value lines:
//
//   # comment
//   LogSources=/var/log/apache2/access.log,/var/log/apache2/other_vhosts_access.log
//   EventMaxSize = 4096
//
// Blanks around names and values are dropped, and so is one pair of double quotes
// around a value. Blank lines and lines whose first non-blank character is '#' are
// comments. Names are matched without regard to case; a repeated name replaces the
// earlier value. A line that is neither makes the whole file invalid.
//
// It also forwards events: when the conf file names an event server (EventServer and
// the keys beside it, docs/event-forwarding.md), startForwarding() builds an
// EventForwarder from those keys and submit() hands it each event text.
//
// Thread-safety: reading the conf file (the constructor, reset) and starting
// forwarding are for the owner alone, before anything else uses the object; after
// that getConfValue and the other readers, submit(), forwardingStatus() and
// stopForwarding() may be called from any threads.

#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "logmon/forward/EventForwarder.h"
#include "provider/PerfObject.h"

class OBVEmitter {
 public:
  // What reading the conf file gave (getError).
  enum Error {
    OBV_OK = 0,
    OBV_CONF_FILE_MISSING = 1,        // the file does not exist
    OBV_CONF_FILE_INVALID = 2,        // a line is not NAME=value
    OBV_CONF_FILE_ACCESS_DENIED = 3,  // no permission to read it
    OBV_CONF_FILE_UNREADABLE = 4,     // anything else: a directory, an I/O error, too large
  };

  // Reads `confPath` (getError says how that went).
  explicit OBVEmitter(const char* confPath);
  // Takes the conf text itself; `confPath` only names it in messages.
  OBVEmitter(const char* confPath, const std::string& text);

  // Reads the conf file again (after it changed); the previous keys are forgotten.
  // False when reading failed (getError).
  bool reset();

  int getError() const { return error_; }
  // What went wrong, for the operator ("FILE:LINE: ..."); "" when nothing did.
  const std::string& getErrorText() const { return errorText_; }
  // The error code a log monitor group reports for `error`: CONF_FILE_DOES_NOT_EXIST,
  // INVALID_CONF_FILE, CONF_FILE_ACCESS_DENIED, else OBV_INITIALIZATION_FAILED.
  static PERF_OBJECT_ERROR_CODE perfErrorCode(int error);

  const std::string& getConfFile() const { return confPath_; }

  // The value of `key` as written in the file, or null when the file does not set
  // it. Valid until the next reset.
  const char* getConfValue(const char* key) const;
  // The value of `key` as a whole number; `defaultValue` when unset or not a number.
  int getConfInt(const char* key, int defaultValue) const;
  // True when `key` is set and its value starts with Y or y.
  bool getConfFlag(const char* key) const;

  // --- Forwarding to an event server ---
  // The forwarder's settings from the conf keys; false when the conf file names no
  // event server. `stream` names this sender's events on the server. A relative
  // EventSpoolDirectory is taken from the conf file's directory.
  bool forwardingConfig(const std::string& stream, XRV::forward::EventForwarderConfig* config) const;
  // Starts forwarding with `config` (the owner may shorten its times first); at most
  // once. False when the forwarder could not open its spool (it then drops events).
  bool startForwarding(const XRV::forward::EventForwarderConfig& config);
  bool isForwarding() const { return forwarder_ != nullptr; }
  // Hands `eventText` to the forwarder; false when there is none or it dropped the
  // event.
  bool submit(std::string_view eventText);
  // The forwarder's counters and its server as "HOST:PORT"; false when not forwarding.
  bool forwardingStatus(XRV::forward::EventForwarderStatus* status, std::string* server) const;
  // Stops the forwarder (its spool stays for the next one); later events are dropped.
  void stopForwarding();

 private:
  bool parse(const std::string& text);

  std::string confPath_;
  int error_ = OBV_OK;
  std::string errorText_;
  std::vector<std::pair<std::string, std::string>> values_;  // in file order
  std::string server_;                                        // HOST:PORT while forwarding
  std::unique_ptr<XRV::forward::EventForwarder> forwarder_;   // set once, kept to the end
  std::atomic<bool> forwardingStopped_{false};
};
