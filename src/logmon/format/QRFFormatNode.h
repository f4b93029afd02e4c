#pragma once

// QRFFormatNode: one format of a format file (docs/format-files.md): the event class
// it gives, the expression (or regular expression) a log record must match, and the
// slots every event of the format carries. A format may inherit the slots and the
// expression of a superclass defined before it.

#include <memory>
#include <string>
#include <vector>

#include "logmon/format/QRFSlot.h"

// One part of a format expression, as the generator reads it.
struct QRFExpressionPart {
  enum Kind {
    LITERAL,   // text matched as it is
    BLANK,     // a run of blanks: one or more blanks
    NEWLINE,   // %n
    TIME,      // %t: three words
    STRING,    // %s, %Ns, %s+, %s*
    ILLEGAL,   // % followed by something else
    BAD_REPEAT,  // %s followed by a repeat character other than + and *
  };
  Kind kind = LITERAL;
  int width = -1;   // STRING: the N of %Ns; -1 without one
  char repeat = 0;  // STRING, BAD_REPEAT: '+', '*' or the character found; 0 without one

  // `strict`: tabs count as blanks.
  static QRFExpressionPart classify(const std::string& part, bool strict);
  bool isVariable() const { return kind == TIME || kind == STRING; }
};

class QRFFormatNode {
 public:
  QRFFormatNode(const std::string& wskClass, int index, int line);

  // The event class of the format's events ("*DISCARD*": records matching it are
  // dropped).
  const std::string& getWskClass() const { return wskClass_; }
  // The format's place in the configuration's list; events carry it as their prefix.
  int getIndex() const { return index_; }
  // The line of the format file where the format begins.
  int getLine() const { return line_; }

  QRFFormatNode* getSuperclass() const { return superclass_; }
  void setSuperclass(QRFFormatNode* superclass) { superclass_ = superclass; }

  // The expression, cut into parts: literal runs, blank runs and variables ("%s").
  void addToExpression(const std::string& part) { expression_.push_back(part); }
  int getNumExpressionParts() const { return static_cast<int>(expression_.size()); }
  const std::string& getExpressionPart(int index) const { return expression_[index]; }
  std::string getExpressionString() const;
  // A regular expression instead of an expression.
  void addRegex(const std::string& regex) { regex_ = regex; }
  const std::string& getRegex() const { return regex_; }
  bool hasExpression() const { return !expression_.empty() || !regex_.empty(); }
  // The line of the expression or regular expression (the superclass's when inherited).
  int getExpressionLine() const { return expressionLine_; }
  void setExpressionLine(int line) { expressionLine_ = line; }

  // The capture groups a slot may refer to as $1 to $N.
  int getVariableCount() const { return variableCount_; }
  void setVariableCount(int count) { variableCount_ = count; }

  // Adds `slot`; a slot of the same name is replaced in its place (keeping its
  // custom-attribute mapping unless the new one has its own).
  void addSlot(std::unique_ptr<QRFSlot> slot);
  const std::vector<std::unique_ptr<QRFSlot>>& getSlots() const { return slots_; }
  QRFSlot* getSlot(const std::string& name) const;
  // Drops the slot `name` (one the generator cannot write).
  void removeSlot(const std::string& name);

  // Takes the superclass's expression (when this format has none) and copies of its
  // slots, before the slots of its own.
  void inheritFrom(const QRFFormatNode& superclass);

 private:
  std::string wskClass_;
  int index_;
  int line_;
  QRFFormatNode* superclass_ = nullptr;
  std::vector<std::string> expression_;
  std::string regex_;
  int expressionLine_ = 0;
  int variableCount_ = 0;
  std::vector<std::unique_ptr<QRFSlot>> slots_;
};
