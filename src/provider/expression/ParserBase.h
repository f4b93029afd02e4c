#pragma once

// ParserBase: what the formula and filter parsers share: the lexer and the current
// token, the first error with its column, the limits on nesting and size, and the
// loop that parses one level of left-associative binary operators.

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "provider/expression/Lexer.h"
#include "provider/expression/Program.h"

namespace XRV::expression {

class ParserBase {
 public:
  const std::string& error() const { return error_; }
  int column() const { return column_; }

 protected:
  ParserBase(std::string_view text, Program* program, const char* what)
      : lexer_(text), program_(program), what_(what) {
    advance();
  }

  void advance() { current_ = lexer_.next(); }

  // Records the first error, at the current token; returns -1.
  int32_t fail(std::string message);

  // `node` unless it makes the program too deep or too large.
  int32_t checked(int32_t node);

  // Enters one level of nesting (parentheses, a unary operator, a call); false, with
  // the error recorded, beyond Program::kMaxDepth. Every enter() is paired with leave().
  bool enter();
  void leave() { --nesting_; }

  // The binary operator of the current token among `kinds` (pairs of token and node).
  template <size_t N>
  bool operatorOf(const std::pair<TokenKind, NodeOp> (&kinds)[N], NodeOp* op) const {
    for (const auto& [token, node] : kinds) {
      if (current_.kind == token) {
        *op = node;
        return true;
      }
    }
    return false;
  }

  // left { operator right }, where `operatorAt` tells the node of the current token
  // (false when it is none of this level's) and `next` parses an operand.
  template <typename OperatorAt, typename Next>
  int32_t binaryLevel(OperatorAt operatorAt, Next next) {
    int32_t left = next();
    NodeOp op;
    while (left >= 0 && operatorAt(&op)) {
      advance();
      int32_t right = next();
      left = right < 0 ? -1 : checked(program_->addBinary(op, left, right));
    }
    return left;
  }

  // The end of the text must follow a complete `root`.
  int32_t atEnd(int32_t root) {
    if (root >= 0 && current_.kind != TOKEN_END) {
      return fail("unexpected " + Lexer::describe(current_) + " after a complete " + what_);
    }
    return root;
  }

  Lexer lexer_;
  Token current_;
  Program* program_;

 private:
  const char* what_;  // "formula" or "filter", for messages
  std::string error_;
  int column_ = 0;
  int nesting_ = 0;
};

// Runs `parse` (a parser's entry point returning the root) into a new Program.
template <typename Parser>
std::unique_ptr<Program> parseWith(std::string_view text, std::string* error, int* column) {
  auto program = std::make_unique<Program>();
  Parser parser(text, program.get());
  int32_t root = parser.parse();
  if (root < 0) {
    *error = parser.error();
    *column = parser.column();
    return nullptr;
  }
  program->setRoot(root);
  return program;
}

}  // namespace XRV::expression
