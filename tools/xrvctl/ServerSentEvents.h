#pragma once

// Reading a Server-Sent Events stream (text/event-stream) as it arrives: bytes in,
// whole messages out. Lines end with LF, CRLF or CR; a message ends at an empty
// line; several data lines join with LF; comment lines (":...") and unknown fields
// are skipped, and so is a message without a data line.

#include <functional>
#include <string>
#include <string_view>

struct SseMessage {
  std::string event = "message";  // the default type
  std::string data;
  std::string id;
  bool hasId = false;
};

class SseParser {
 public:
  using Deliver = std::function<void(const SseMessage&)>;

  // Takes the next bytes; `deliver` gets each message they complete.
  void feed(std::string_view bytes, const Deliver& deliver);
  // Forgets a half-received message (the connection was lost).
  void reset();

 private:
  void line(std::string_view text, const Deliver& deliver);

  std::string line_;
  bool afterCr_ = false;  // a CR ended the last line: a LF right after belongs to it
  SseMessage message_;
  bool hasData_ = false;
};
