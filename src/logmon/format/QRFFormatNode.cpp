#include "logmon/format/QRFFormatNode.h"

#include <cctype>

QRFExpressionPart QRFExpressionPart::classify(const std::string& part, bool strict) {
  QRFExpressionPart result;
  if (part.empty()) {
    return result;
  }
  if (part.find_first_not_of(strict ? " \t" : " ") == std::string::npos) {
    result.kind = BLANK;
    return result;
  }
  if (part[0] != '%' || part == "%%") {
    return result;
  }
  size_t i = 1;
  long width = -1;
  while (i < part.size() && isdigit(static_cast<unsigned char>(part[i])) != 0) {
    width = (width < 0 ? 0 : width) * 10 + (part[i] - '0');
    width = width > 1000000 ? 1000000 : width;
    ++i;
  }
  const char letter = i < part.size() ? part[i] : '\0';
  const std::string tail = i + 1 < part.size() ? part.substr(i + 1) : "";
  if (letter == 'n' && width < 0 && tail.empty()) {
    result.kind = NEWLINE;
  } else if (letter == 't' && width < 0 && tail.empty()) {
    result.kind = TIME;
  } else if (letter == 's' && tail.empty()) {
    result.kind = STRING;
    result.width = static_cast<int>(width);
  } else if (letter == 's' && tail.size() == 1) {
    result.kind = tail[0] == '+' || tail[0] == '*' ? STRING : BAD_REPEAT;
    result.width = static_cast<int>(width);
    result.repeat = tail[0];
  } else {
    result.kind = ILLEGAL;
  }
  return result;
}

QRFFormatNode::QRFFormatNode(const std::string& wskClass, int index, int line)
    : wskClass_(wskClass), index_(index), line_(line) {}

std::string QRFFormatNode::getExpressionString() const {
  if (!regex_.empty()) {
    return regex_;
  }
  std::string joined;
  for (const std::string& part : expression_) {
    joined += part;
  }
  return joined;
}

void QRFFormatNode::addSlot(std::unique_ptr<QRFSlot> slot) {
  for (auto& existing : slots_) {
    if (existing->getName() == slot->getName()) {
      if (slot->getPQLCustomSlot().empty()) {
        slot->setPQLCustomSlot(existing->getPQLCustomSlot());
      }
      existing = std::move(slot);
      return;
    }
  }
  slots_.push_back(std::move(slot));
}

QRFSlot* QRFFormatNode::getSlot(const std::string& name) const {
  for (const auto& slot : slots_) {
    if (slot->getName() == name) {
      return slot.get();
    }
  }
  return nullptr;
}

void QRFFormatNode::removeSlot(const std::string& name) {
  for (auto it = slots_.begin(); it != slots_.end(); ++it) {
    if ((*it)->getName() == name) {
      slots_.erase(it);
      return;
    }
  }
}

void QRFFormatNode::inheritFrom(const QRFFormatNode& superclass) {
  if (!hasExpression()) {
    expression_ = superclass.expression_;
    regex_ = superclass.regex_;
    expressionLine_ = superclass.expressionLine_;
    variableCount_ = superclass.variableCount_;
  }
  std::vector<std::unique_ptr<QRFSlot>> own = std::move(slots_);
  slots_.clear();
  for (const auto& slot : superclass.slots_) {
    slots_.push_back(std::make_unique<QRFSlot>(*slot));
  }
  for (auto& slot : own) {
    addSlot(std::move(slot));
  }
}
