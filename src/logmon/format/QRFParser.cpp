#include "logmon/format/QRFParser.h"

#include <strings.h>

#include <cctype>
#include <cstdlib>

#include "logmon/format/QRFScanner.h"
#include "logmon/format/QRFText.h"
#include "logmon/format/RegExPattern.h"

namespace {

bool isKeyword(const QRFToken& token, const char* word) {
  return token.type == QRFToken::WORD && strcasecmp(token.text.c_str(), word) == 0;
}

bool isIdentifier(const QRFToken& token) {
  if (token.type != QRFToken::WORD || token.text.empty() ||
      isdigit(static_cast<unsigned char>(token.text[0])) != 0) {
    return false;
  }
  for (char c : token.text) {
    if (isalnum(static_cast<unsigned char>(c)) == 0 && c != '_') {
      return false;
    }
  }
  return true;
}

bool isLineEnd(const QRFToken& token) {
  return token.type == QRFToken::NEWLINE || token.type == QRFToken::END;
}

// The tokens a slot value or a mapping may name, and the slots a mapping of one makes.
bool isKnownToken(const std::string& text) {
  return text == "%XRV_FILENAME%" || text == "%XRV_REGEX%" || text == "%XRV_REMHOST%";
}

// An expression cut into literal runs, blank runs and variables ("%s", "%12s", "%s+",
// "%t", "%n", "%%"; anything else after '%' becomes a part of its own that the
// generator refuses).
std::vector<std::string> splitExpression(const std::string& text, bool strict) {
  std::vector<std::string> parts;
  std::string literal;
  auto isBlank = [strict](char c) { return c == ' ' || (strict && c == '\t'); };
  auto flush = [&] {
    if (!literal.empty()) {
      parts.push_back(literal);
      literal.clear();
    }
  };
  size_t i = 0;
  while (i < text.size()) {
    const char c = text[i];
    if (isBlank(c)) {
      flush();
      size_t j = i;
      while (j < text.size() && isBlank(text[j])) {
        ++j;
      }
      parts.push_back(text.substr(i, j - i));
      i = j;
    } else if (c == '%') {
      flush();
      size_t j = i + 1;
      if (j < text.size() && text[j] == '%') {
        parts.emplace_back("%%");
        i = j + 1;
        continue;
      }
      while (j < text.size() && isdigit(static_cast<unsigned char>(text[j])) != 0) {
        ++j;
      }
      if (j < text.size()) {
        const char letter = text[j++];
        if (letter == 's' && j < text.size() &&
            (text[j] == '+' || text[j] == '*' || text[j] == '?')) {
          ++j;
        }
      }
      parts.push_back(text.substr(i, j - i));
      i = j;
    } else {
      literal += c;
      ++i;
    }
  }
  flush();
  return parts;
}

class Parser {
 public:
  Parser(std::string_view text, const QRFParseSettings& settings)
      : scanner_(text), settings_(settings) {}

  QRFParseResult run() {
    for (QRFToken token = scanner_.next(); token.type != QRFToken::END && result_.ok;
         token = scanner_.next()) {
      if (token.type == QRFToken::NEWLINE) {
        continue;
      }
      if (!isKeyword(token, "format")) {
        fail(token, "expected 'format' to begin a format");
        break;
      }
      parseFormat(token.line);
    }
    if (!result_.ok) {
      result_.formats.clear();
    }
    return std::move(result_);
  }

 private:
  struct Mapping {
    QRFToken source;
    std::string attribute;
  };

  bool fail(const QRFToken& token, const std::string& message) {
    if (result_.ok) {
      result_.ok = false;
      result_.errorLine = token.line;
      result_.errorToken = token.shown();
      result_.errorMessage = token.type == QRFToken::BAD ? token.problem : message;
    }
    return false;
  }

  QRFFormatNode* findFormat(const std::string& wskClass) const {
    for (auto it = result_.formats.rbegin(); it != result_.formats.rend(); ++it) {
      if ((*it)->getWskClass() == wskClass) {
        return it->get();
      }
    }
    return nullptr;
  }

  bool expectLineEnd(const char* after) {
    QRFToken token = scanner_.next();
    return isLineEnd(token) || fail(token, std::string("expected the end of the line after ") + after);
  }

  bool parseFormat(int line) {
    QRFToken name = scanner_.next();
    if (name.type != QRFToken::WORD) {
      return fail(name, "expected the format's class name after 'format'");
    }
    auto node = std::make_unique<QRFFormatNode>(name.text, static_cast<int>(result_.formats.size()),
                                                line);
    QRFToken token = scanner_.next();
    if (isKeyword(token, "extends")) {
      QRFToken superclass = scanner_.next();
      if (superclass.type != QRFToken::WORD) {
        return fail(superclass, "expected the class of a format defined above after 'extends'");
      }
      QRFFormatNode* found = findFormat(superclass.text);
      if (found == nullptr) {
        return fail(superclass, qrf::format("%.100s is not defined", superclass.text.c_str()));
      }
      node->setSuperclass(found);
      token = scanner_.next();
    }
    if (!isLineEnd(token)) {
      return fail(token, "expected 'extends' or the end of the line after the class name");
    }
    std::vector<Mapping> mappings;
    const std::string unclosed =
        qrf::format("expected 'end' to close format %.100s begun at line %d", name.text.c_str(), line);
    for (;;) {
      token = scanner_.next();
      if (token.type == QRFToken::NEWLINE) {
        continue;
      }
      if (token.type == QRFToken::END || isKeyword(token, "format")) {
        return fail(token, unclosed);
      }
      if (isKeyword(token, "end")) {
        return expectLineEnd("'end'") && finish(std::move(node), mappings);
      }
      bool parsed = false;
      if (isKeyword(token, "pattern") || isKeyword(token, "regex")) {
        parsed = parseExpression(*node, token);
      } else if (isKeyword(token, "map")) {
        parsed = parseMapping(&mappings);
      } else if (isKeyword(token, "hidden")) {
        parsed = parseSlot(*node, scanner_.next(), false);
      } else if (token.type == QRFToken::WORD) {
        parsed = parseSlot(*node, token, true);
      } else {
        fail(token, "expected a slot, 'pattern', 'regex', 'map' or 'end'");
      }
      if (!parsed) {
        return false;
      }
    }
  }

  bool parseExpression(QRFFormatNode& node, const QRFToken& keyword) {
    if (node.hasExpression()) {
      return fail(keyword, qrf::format("a format has one pattern or regex, and this one has one "
                                       "since line %d",
                                       node.getExpressionLine()));
    }
    QRFToken text = scanner_.restOfLine();
    if (text.type == QRFToken::BAD) {
      return fail(text, text.problem);
    }
    const bool isRegex = isKeyword(keyword, "regex");
    if (text.text.empty()) {
      return fail(keyword, std::string("expected the expression after '") +
                               (isRegex ? "regex" : "pattern") + "'");
    }
    node.setExpressionLine(keyword.line);
    if (isRegex) {
      int groups = 0;
      int position = -1;
      std::string error;
      if (!RegExPattern::check(text.text, &groups, &position, &error)) {
        return fail(text, qrf::format("Invalid regular expression at position: %d (%s)", position,
                                      error.c_str()));
      }
      const RegExPattern::Layout layout = RegExPattern::layout(text.text);
      if (!layout.problem.empty()) {
        return fail(text, "in a format's regex " + layout.problem);
      }
      // The agent puts "()" behind the expression: a quote must not take it in.
      node.addRegex(layout.openQuote ? text.text + "\\E" : text.text);
      node.setVariableCount(groups);
    } else {
      int variables = 0;
      for (const std::string& part : splitExpression(text.text, settings_.strict)) {
        node.addToExpression(part);
        variables += QRFExpressionPart::classify(part, settings_.strict).isVariable() ? 1 : 0;
      }
      node.setVariableCount(variables);
    }
    return expectLineEnd("the expression");
  }

  bool parseMapping(std::vector<Mapping>* mappings) {
    QRFToken source = scanner_.next();
    if (source.type == QRFToken::TOKEN) {
      if (source.text != "%XRV_FILENAME%" && source.text != "%XRV_REGEX%") {
        return fail(source, "Invalid PQL attribute mapping: '" + source.text + "'");
      }
    } else if (!isIdentifier(source)) {
      return fail(source, "expected a slot, %XRV_FILENAME% or %XRV_REGEX% after 'map'");
    }
    QRFToken to = scanner_.next();
    if (!isKeyword(to, "to")) {
      return fail(to, "expected 'to' after the slot of a mapping");
    }
    QRFToken attribute = scanner_.next();
    if (!isIdentifier(attribute)) {
      return fail(attribute, "expected the name of a custom attribute after 'to'");
    }
    mappings->push_back({source, attribute.text});
    return expectLineEnd("the attribute");
  }

  bool parseSlot(QRFFormatNode& node, const QRFToken& name, bool visible) {
    if (!isIdentifier(name)) {
      return fail(name, "expected a slot name (a letter or _, then letters, digits and _)");
    }
    if (name.text.compare(0, 5, "__QRF") == 0) {
      return fail(name, "slot names beginning with __QRF are reserved");
    }
    QRFToken equals = scanner_.next();
    if (equals.type != QRFToken::EQUALS) {
      return fail(equals, "expected '=' after the slot name " + name.text);
    }
    std::unique_ptr<QRFSlot> slot;
    if (!parseValue(name, visible, &slot) || !expectLineEnd(("the value of slot " + name.text).c_str())) {
      return false;
    }
    if (slot != nullptr) {
      node.addSlot(std::move(slot));
    }
    return true;
  }

  bool parseValue(const QRFToken& name, bool visible, std::unique_ptr<QRFSlot>* slot) {
    QRFToken value = scanner_.next();
    auto make = [&](const std::string& text, QRFSlotType type) {
      *slot = std::make_unique<QRFSlot>(name.text, text, type, visible, name.line);
    };
    if (value.type == QRFToken::VARIABLE) {
      if (atoi(value.text.c_str() + 1) < 1) {
        return fail(value, "variables are numbered from $1");
      }
      make(value.text, QRF_SLOT_VARIABLE);
    } else if (value.type == QRFToken::STRING) {
      make(value.text, QRF_SLOT_LITERAL);
    } else if (value.type == QRFToken::TOKEN && isKnownToken(value.text)) {
      make(value.text, QRF_SLOT_LITERAL);
    } else if (isKeyword(value, "default")) {
      std::string computed;
      if (settings_.defaultValue && settings_.defaultValue(name.text, name.line, &computed)) {
        make(computed, QRF_SLOT_DEFAULT);
      }
    } else if (isKeyword(value, "printf")) {
      return parsePrintf(name, visible, slot);
    } else if (isKeyword(value, "list")) {
      return parseList(name, visible, slot);
    } else {
      return fail(value, "expected a value: $N, \"text\", default, printf(...) or list(...)");
    }
    return true;
  }

  bool parsePrintf(const QRFToken& name, bool visible, std::unique_ptr<QRFSlot>* slot) {
    QRFToken token = scanner_.next();
    if (token.type != QRFToken::OPEN) {
      return fail(token, "expected '(' after printf");
    }
    QRFToken control = scanner_.next();
    if (control.type != QRFToken::STRING) {
      return fail(control, "expected the control string of printf, in double quotes");
    }
    *slot = std::make_unique<QRFSlot>(name.text, control.text, QRF_SLOT_PRINTF, visible, name.line);
    for (token = scanner_.next(); token.type == QRFToken::COMMA; token = scanner_.next()) {
      QRFToken variable = scanner_.next();
      if (!isIdentifier(variable)) {
        return fail(variable, "expected the name of a slot in printf");
      }
      (*slot)->addPrintfVar(variable.text);
    }
    return token.type == QRFToken::CLOSE || fail(token, "expected ',' or ')' in printf");
  }

  bool parseList(const QRFToken& name, bool visible, std::unique_ptr<QRFSlot>* slot) {
    QRFToken token = scanner_.next();
    if (token.type != QRFToken::OPEN) {
      return fail(token, "expected '(' after list");
    }
    *slot = std::make_unique<QRFSlot>(name.text, "", QRF_SLOT_LIST, visible, name.line);
    std::string shown;
    do {
      QRFToken item = scanner_.next();
      if (item.type == QRFToken::VARIABLE && atoi(item.text.c_str() + 1) >= 1) {
        (*slot)->addListItem({true, item.text});
      } else if (item.type == QRFToken::STRING) {
        (*slot)->addListItem({false, item.text});
      } else {
        return fail(item, "expected $N or \"text\" as an item of list");
      }
      shown += (shown.empty() ? "" : ",") + item.text;
      token = scanner_.next();
    } while (token.type == QRFToken::COMMA);
    (*slot)->setValue(shown);
    return token.type == QRFToken::CLOSE || fail(token, "expected ',' or ')' in list");
  }

  bool finish(std::unique_ptr<QRFFormatNode> node, const std::vector<Mapping>& mappings) {
    if (node->getSuperclass() != nullptr) {
      node->inheritFrom(*node->getSuperclass());
    }
    for (const Mapping& mapping : mappings) {
      std::string slotName = mapping.source.text;
      if (mapping.source.type == QRFToken::TOKEN) {
        slotName = slotName.substr(1, slotName.size() - 2);
        if (node->getSlot(slotName) == nullptr) {
          node->addSlot(std::make_unique<QRFSlot>(slotName, mapping.source.text, QRF_SLOT_LITERAL,
                                                  true, mapping.source.line));
        }
      }
      QRFSlot* slot = node->getSlot(slotName);
      if (slot == nullptr) {
        return fail(mapping.source, "Invalid PQL attribute mapping: '" + slotName + "'");
      }
      slot->setPQLCustomSlot(mapping.attribute);
    }
    result_.formats.push_back(std::move(node));
    return true;
  }

  QRFScanner scanner_;
  const QRFParseSettings& settings_;
  QRFParseResult result_;
};

}  // namespace

QRFParseResult parseFormatText(std::string_view text, const QRFParseSettings& settings) {
  return Parser(text, settings).run();
}
