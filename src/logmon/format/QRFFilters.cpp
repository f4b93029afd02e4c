// The filter term of one format: its expression (or regular expression) as a
// pattern, and the REPLACEFIRST template that writes its slots into the event text.

#include <algorithm>
#include <cctype>
#include <cstring>

#include "logmon/format/QRFConfig.h"
#include "logmon/format/QRFReport.h"
#include "logmon/format/RegExPattern.h"

namespace {

// PRINTF slots may fill in other PRINTF slots, this deep at most (a guard against
// slots that fill in each other).
constexpr int kMaxPrintfDepth = 8;
// The largest count a {1,N} repeat may have in the engine's expressions.
constexpr int kMaxWidth = 65535;

// The regular expression of one part of an expression; "" for a part that has none
// (an illegal variable).
std::string partRegex(const QRFExpressionPart& kind, const std::string& part, bool strict) {
  switch (kind.kind) {
    case QRFExpressionPart::BLANK:
      return strict ? "[ \t\\t\\r\\f\\v]+" : " +";
    case QRFExpressionPart::NEWLINE:
      return "\\r?\\n";
    case QRFExpressionPart::TIME:
      return "(\\S+ +\\S+ +\\S+)";
    case QRFExpressionPart::STRING:
      if (kind.repeat == '*') {
        return "(.*)";
      }
      if (kind.repeat == '+') {
        return "(\\S.*)";
      }
      if (kind.width >= 0) {
        return kind.width < 1 ? "(\\S+?)"
                              : "(\\S{1," + std::to_string(std::min(kind.width, kMaxWidth)) +
                                    "})\\S*?";
      }
      return "(\\S+)";
    case QRFExpressionPart::LITERAL:
      return part == "%%" ? "%" : QRFConfig::escapeRegexChars(part);
    default:
      return "";
  }
}

// The number at the end of a custom attribute's name ("CustomSlot3": 3); 0 without one.
int customSlotNumber(const std::string& attribute) {
  size_t digits = attribute.size();
  while (digits > 0 && isdigit(static_cast<unsigned char>(attribute[digits - 1])) != 0 &&
         attribute.size() - digits < 9) {
    --digits;
  }
  return digits == attribute.size() ? 0 : atoi(attribute.c_str() + digits);
}

// `text` (a template) with each "${N}" written "$N" where no digit follows it. A '$'
// of the slots' own text is escaped, so every unescaped "${" is a reference.
std::string shortenReferences(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      out += text.substr(i, 2);
      ++i;
      continue;
    }
    const size_t close = text.compare(i, 2, "${") == 0 ? text.find('}', i + 2) : std::string::npos;
    if (close != std::string::npos &&
        (close + 1 == text.size() || isdigit(static_cast<unsigned char>(text[close + 1])) == 0)) {
      out += "$" + text.substr(i + 2, close - i - 2);
      i = close;
      continue;
    }
    out += text[i];
  }
  return out;
}

}  // namespace

std::string QRFConfig::escapeRegexChars(const std::string& literal) {
  static const char kSpecial[] = "*?+[(){}^$|\\./";
  std::string escaped;
  escaped.reserve(literal.size() * 2);
  for (char c : literal) {
    if (c != '\0' && strchr(kSpecial, c) != nullptr) {
      escaped += '\\';
    }
    escaped += c;
  }
  return escaped;
}

std::string QRFConfig::quoteSlotValue(const std::string& value) {
  std::string quoted;
  quoted.reserve(value.size() + 8);
  for (char c : value) {
    if (c == '\\' || c == '$' || c == ')') {
      quoted += '\\';
    }
    quoted += c;
  }
  return quoted;
}

std::string QRFConfig::generateFormatFilter(QRFFormatNode& node, int* lines) {
  XRV_TRACE_FN();
  const std::string expression = node.getExpressionString();
  std::string filter = "ScanRegEx(0,^()[ \t]*";
  bool previousVariable = false;
  for (int i = 0; i < node.getNumExpressionParts(); ++i) {
    const std::string& part = node.getExpressionPart(i);
    const QRFExpressionPart kind = QRFExpressionPart::classify(part, strict_);
    if (kind.kind == QRFExpressionPart::ILLEGAL) {
      QRF_FAULT(formatPath_, node.getExpressionLine(),
                "Format for class %s contains illegal variable \"%s\" in format expression \"%s\"",
                node.getWskClass().c_str(), part.c_str(), expression.c_str());
      return "";
    }
    if (kind.kind == QRFExpressionPart::BAD_REPEAT) {
      QRF_FAULT(formatPath_, node.getExpressionLine(),
                "Repeat signifier %c not recognized-- only '+' and '*' are allowed", kind.repeat);
      return "";
    }
    if (kind.isVariable() && previousVariable) {
      QRF_WARN(formatPath_, node.getExpressionLine(),
               "WARNING: Invalid construct \"%%s%%s\" in expression \"%s\".  This can never "
               "match; discarding",
               expression.c_str());
      return "";
    }
    previousVariable = kind.isVariable();
    *lines += kind.kind == QRFExpressionPart::NEWLINE ? 1 : 0;
    filter += partRegex(kind, part, strict_);
  }
  filter += strict_ ? "[ \t\\t\\r\\f\\v]*()$" : "[ \t]*()$";
  return filter;
}

std::string QRFConfig::generateRegexFilter(QRFFormatNode& node, int* lines) {
  XRV_TRACE_FN();
  std::string regex = node.getRegex();
  const std::vector<size_t> newlines = RegExPattern::layout(regex).newlines;
  *lines += static_cast<int>(newlines.size());
  // A record that spans lines may have come with CR LF line ends.
  for (auto it = newlines.rbegin(); it != newlines.rend(); ++it) {
    regex.replace(*it, 2, "\\r?\\n");
  }
  return "MatchRegEx(0,()" + regex + "()";
}

std::string QRFConfig::firstLinePattern(QRFFormatNode& node) {
  XRV_TRACE_FN();
  if (!node.getRegex().empty()) {
    const std::string& regex = node.getRegex();
    const std::vector<size_t> newlines = RegExPattern::layout(regex).newlines;
    const std::string first = "()" + regex.substr(0, newlines.empty() ? regex.size() : newlines[0]);
    int groups = 0;
    int position = 0;
    std::string error;
    if (!RegExPattern::check(first, &groups, &position, &error)) {
      QRF_WARN(formatPath_, node.getExpressionLine(),
               "WARNING: the first line of the regular expression of format %s, \"%s\", is not "
               "an expression of its own (%s); the format does not end multi-line records",
               node.getWskClass().c_str(), first.c_str(), error.c_str());
      return "";
    }
    return first;
  }
  std::string pattern = "^()[ \t]*";
  for (int i = 0; i < node.getNumExpressionParts(); ++i) {
    const QRFExpressionPart kind = QRFExpressionPart::classify(node.getExpressionPart(i), strict_);
    if (kind.kind == QRFExpressionPart::NEWLINE) {
      break;
    }
    pattern += partRegex(kind, node.getExpressionPart(i), strict_);
  }
  return pattern;
}

std::string QRFConfig::variableReference(const QRFFormatNode& node, const QRFSlot& slot,
                                         int variable, bool* ok) {
  XRV_TRACE_FN();
  if (variable < 1 || variable > node.getVariableCount()) {
    QRF_WARN(formatPath_, slot.getLine(),
             "WARNING: slot %s of format %s refers to $%d, but the format has %d variables; "
             "leaving the slot out",
             slot.getName().c_str(), node.getWskClass().c_str(), variable,
             node.getVariableCount());
    *ok = false;
    return "";
  }
  // The filter's first group is the empty "()" before the expression. The braces keep
  // a digit that follows apart; generateMdlFilter drops them where none does.
  return "${" + std::to_string(variable + 1) + "}";
}

bool QRFConfig::slotTemplate(QRFFormatNode& node, const QRFSlot& slot, std::string* out) {
  XRV_TRACE_FN();
  bool ok = true;
  switch (slot.getType()) {
    case QRF_SLOT_LITERAL:
    case QRF_SLOT_DEFAULT:
      *out = quoteSlotValue(slot.getValue());
      return true;
    case QRF_SLOT_VARIABLE:
      *out = variableReference(node, slot, slot.getVariable(), &ok);
      return ok;
    case QRF_SLOT_LIST:
      *out = quoteSlotValue(std::string(1, getStartListTag()));
      for (size_t i = 0; i < slot.getListItems().size() && ok; ++i) {
        const QRFSlot::ListItem& item = slot.getListItems()[i];
        *out += i == 0 ? "" : quoteSlotValue(std::string(1, getListSeparatorTag()));
        *out += item.variable ? variableReference(node, slot, atoi(item.text.c_str() + 1), &ok)
                              : quoteSlotValue(item.text);
      }
      *out += quoteSlotValue(std::string(1, getEndListTag()));
      return ok;
    case QRF_SLOT_PRINTF:
      break;
  }
  if (printfDepth_ >= kMaxPrintfDepth) {
    QRF_FAULT(formatPath_, slot.getLine(),
              "Invalid PRINTF in format %s, slot %s.  PRINTF slots fill in each other more than "
              "%d deep",
              node.getWskClass().c_str(), slot.getName().c_str(), kMaxPrintfDepth);
    return false;
  }
  const std::string& control = slot.getValue();
  const std::vector<std::string>& variables = slot.getPrintfVars();
  size_t used = 0;
  out->clear();
  for (size_t i = 0; i < control.size(); ++i) {
    if (control[i] == '%' && i + 1 < control.size() && control[i + 1] == 's') {
      ++i;
      if (used >= variables.size()) {
        QRF_FAULT(formatPath_, slot.getLine(),
                  "Invalid PRINTF in format %s, slot %s.  There are not enough variables to "
                  "satisfy all the '%%s' controls in the format string",
                  node.getWskClass().c_str(), slot.getName().c_str());
        return false;
      }
      const std::string& name = variables[used++];
      const QRFSlot* filler = node.getSlot(name);
      std::string piece;
      if (filler == nullptr) {
        QRF_WARN(formatPath_, slot.getLine(),
                 "WARNING: undefined slot %s in printf, continuing with literal value",
                 name.c_str());
        piece = quoteSlotValue(name);
      } else {
        ++printfDepth_;
        ok = slotTemplate(node, *filler, &piece);
        --printfDepth_;
        if (!ok) {
          return false;
        }
      }
      *out += piece;
      continue;
    }
    if (control[i] == '%' && i + 1 < control.size() && control[i + 1] == '%') {
      ++i;
    }
    *out += quoteSlotValue(std::string(1, control[i]));
  }
  if (used < variables.size()) {
    QRF_WARN(formatPath_, slot.getLine(),
             "WARNING: PRINTF in format %s, slot %s has more variables than '%%s' controls; the "
             "rest are ignored",
             node.getWskClass().c_str(), slot.getName().c_str());
  }
  return true;
}

std::string QRFConfig::generateMdlFilter(int index) {
  XRV_TRACE_FN();
  int lines = 1;
  return generateMdlFilter(index, &lines);
}

std::string QRFConfig::generateMdlFilter(int index, int* lines) {
  XRV_TRACE_FN();
  QRFFormatNode* node = getFormat(index);
  if (node == nullptr) {
    return "";
  }
  XRV_TRACE_DETAIL("Generating MDL for format %s:%s", node->getWskClass().c_str(),
                   node->getExpressionString().c_str());
  if (!node->hasExpression()) {
    XRV_TRACE_DETAIL("Format for class %s has no expression; it serves as a superclass only",
                     node->getWskClass().c_str());
    return "";
  }
  *lines = 1;
  std::string filter = node->getRegex().empty() ? generateFormatFilter(*node, lines)
                                                : generateRegexFilter(*node, lines);
  if (filter.empty()) {
    return "";
  }
  if (*lines > 1) {
    XRV_TRACE_DETAIL("Format for class %s is %d lines long", node->getWskClass().c_str(), *lines);
  }
  std::string text = std::to_string(index) + "#";
  for (const auto& slot : node->getSlots()) {
    if (!slot->isVisible()) {
      continue;
    }
    if (!slot->getPQLCustomSlot().empty()) {
      XRV_TRACE_DETAIL("PQL Custom attribute mapping for slot \"%s\" is '%d'",
                       slot->getName().c_str(), customSlotNumber(slot->getPQLCustomSlot()));
    }
    std::string value;
    if (!slotTemplate(*node, *slot, &value)) {
      continue;
    }
    text += quoteSlotValue(std::string(1, getStartNameTag())) + quoteSlotValue(slot->getName()) +
            quoteSlotValue(std::string(1, getEndNameTag())) +
            quoteSlotValue(std::string(1, getStartValTag())) + value +
            quoteSlotValue(std::string(1, getEndValTag()));
  }
  return filter + ",REPLACEFIRST(" + shortenReferences(text) + "))";
}
