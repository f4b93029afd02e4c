#include "logmon/format/QRFEventText.h"

#include <cctype>

#include "logmon/format/QRFConfig.h"

bool decodeEventText(std::string_view text, const QRFConfig& config, QRFEventText* event) {
  size_t at = 0;
  while (at < text.size() && isdigit(static_cast<unsigned char>(text[at])) != 0 && at < 9) {
    ++at;
  }
  if (at > 0 && at < text.size() && text[at] == '#') {
    event->formatIndex = std::stoi(std::string(text.substr(0, at)));
    ++at;
  } else {
    at = 0;
  }
  enum { OUTSIDE, NAME, BEFORE_VALUE, VALUE } state = OUTSIDE;
  bool quoted = false;
  QRFEventSlot slot;
  std::string current;
  for (; at < text.size(); ++at) {
    const char c = text[at];
    if (c == config.getQuoteTag() && (state == VALUE || state == NAME)) {
      quoted = !quoted;
      continue;
    }
    if (quoted) {
      current += c;
      continue;
    }
    if (state == OUTSIDE) {
      if (c != config.getStartNameTag()) {
        return false;
      }
      state = NAME;
    } else if (state == NAME) {
      if (c == config.getEndNameTag()) {
        slot = QRFEventSlot{current, {}, false};
        current.clear();
        state = BEFORE_VALUE;
      } else {
        current += c;
      }
    } else if (state == BEFORE_VALUE) {
      if (c != config.getStartValTag()) {
        return false;
      }
      state = VALUE;
    } else if (c == config.getStartListTag() && current.empty() && !slot.list) {
      slot.list = true;
    } else if (slot.list && c == config.getListSeparatorTag()) {
      slot.values.push_back(current);
      current.clear();
    } else if (slot.list && c == config.getEndListTag()) {
      slot.values.push_back(current);
      current.clear();
    } else if (c == config.getEndValTag()) {
      if (!slot.list) {
        slot.values.push_back(current);
      }
      current.clear();
      event->slots.push_back(std::move(slot));
      slot = QRFEventSlot{};
      state = OUTSIDE;
    } else {
      current += c;
    }
  }
  return state == OUTSIDE && !quoted;
}
