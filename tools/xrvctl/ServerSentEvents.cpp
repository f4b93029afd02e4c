#include "ServerSentEvents.h"

void SseParser::feed(std::string_view bytes, const Deliver& deliver) {
  for (char c : bytes) {
    if (afterCr_ && c == '\n') {
      afterCr_ = false;
      continue;
    }
    afterCr_ = c == '\r';
    if (c == '\r' || c == '\n') {
      line(line_, deliver);
      line_.clear();
    } else {
      line_ += c;
    }
  }
}

void SseParser::reset() {
  line_.clear();
  afterCr_ = false;
  message_ = SseMessage();
  hasData_ = false;
}

void SseParser::line(std::string_view text, const Deliver& deliver) {
  if (text.empty()) {
    if (hasData_) {
      deliver(message_);
    }
    message_ = SseMessage();
    hasData_ = false;
    return;
  }
  const size_t colon = text.find(':');
  if (colon == 0) {
    return;  // a comment
  }
  const std::string_view field = text.substr(0, colon);
  std::string_view value = colon == std::string_view::npos ? "" : text.substr(colon + 1);
  if (!value.empty() && value.front() == ' ') {
    value.remove_prefix(1);
  }
  if (field == "data") {
    if (hasData_) {
      message_.data += '\n';
    }
    message_.data += value;
    hasData_ = true;
  } else if (field == "event") {
    message_.event = value;
  } else if (field == "id") {
    message_.id = value;
    message_.hasId = true;
  }
}
