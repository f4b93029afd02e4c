#pragma once

// What one reset of a format-file log monitor group builds from its conf and format
// files (LogMonitorQrf.cpp), shared with the records that arrive until the next reset
// (LogMonitorQrfRows.cpp). Read-only once published, but for the emitter's forwarder,
// which is thread-safe.

#include <memory>
#include <string>

#include "logmon/LogMonitorQueryClass.h"
#include "logmon/format/OBVEmitter.h"
#include "logmon/format/QRFConfig.h"

struct LogMonitorQueryClass::QrfState {
  // Null when the conf file could not be read. Declared before `config`, which reads
  // the conf keys through it, so that it goes last.
  std::unique_ptr<OBVEmitter> emitter;
  // Null when the format file could not be used.
  std::unique_ptr<QRFConfig> config;
  // The syslog daemon's pipe among the sources; "" when there is none.
  std::string syslogPipe;

  // Stops the forwarder first: its spool is then free for the next reset's.
  ~QrfState() {
    if (emitter != nullptr) {
      emitter->stopForwarding();
    }
  }
};
