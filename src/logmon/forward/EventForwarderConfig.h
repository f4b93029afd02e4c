#pragma once

// EventForwarderConfig: where an EventForwarder sends its events and where it keeps
// them until the event server has them (docs/event-forwarding.md).
//
// The log monitor's conf file names the server and the spool (EventServer,
// EventServerPort, EventServerTLS, EventServerCAFile, EventSpoolDirectory,
// EventSpoolMaxBytes); whoever reads the conf file fills this structure. The time
// settings have no conf keys: their defaults suit a server across a network, tests
// shorten them.

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace XRV::forward {

struct EventForwarderConfig {
  std::string host;        // the event server; empty: events are only spooled
  int port = 9315;
  bool tls = false;        // TLS over TCP, the server's certificate checked
  std::string caFile;      // PEM certificates the server's is checked against;
                           // empty: the system's trusted authorities
  std::string spoolDirectory;              // made when missing
  uint64_t spoolMaxBytes = 8 * 1024 * 1024;  // below 4096: 4096
  std::string stream;      // this sender's stream on the server, e.g. "host:group:subnode"

  std::chrono::milliseconds connectTimeout{10000};  // name look-up, connect, TLS, RESUME
  std::chrono::milliseconds ioTimeout{30000};       // no write progress or no ACK for this long
  std::chrono::milliseconds backoffMin{500};        // first wait after a failure, doubled
  std::chrono::milliseconds backoffMax{30000};      // up to this
  std::chrono::milliseconds syncInterval{1000};     // spooled events reach the disk within this
};

// The smallest spool the forwarder accepts.
inline constexpr uint64_t MIN_SPOOL_BYTES = 4096;
// Longest stream name; longer ones are cut.
inline constexpr size_t MAX_STREAM_NAME = 200;

// `name` with every character outside [A-Za-z0-9._:-] replaced by '_', cut to
// MAX_STREAM_NAME characters; "events" when that leaves nothing. The stream name
// is part of the spool's file names and of the protocol's first line.
std::string sanitiseStreamName(std::string_view name);

}  // namespace XRV::forward
