// The formula grammar: recursive descent, one function per precedence level.

#include <vector>

#include "provider/expression/ParserBase.h"
#include "provider/expression/Parsers.h"

namespace XRV::expression {

namespace {

class FormulaParser : public ParserBase {
 public:
  FormulaParser(std::string_view text, Program* program) : ParserBase(text, program, "formula") {}

  // The root node, or -1 with error() and column() set.
  int32_t parse() { return atEnd(parseOr()); }

 private:
  int32_t parseOr() {
    static constexpr std::pair<TokenKind, NodeOp> kOr[] = {{TOKEN_OR, NODE_OR}};
    return binaryLevel([this](NodeOp* op) { return operatorOf(kOr, op); },
                       [this] { return parseAnd(); });
  }

  int32_t parseAnd() {
    static constexpr std::pair<TokenKind, NodeOp> kAnd[] = {{TOKEN_AND, NODE_AND}};
    return binaryLevel([this](NodeOp* op) { return operatorOf(kAnd, op); },
                       [this] { return parseEquality(); });
  }

  int32_t parseEquality() {
    static constexpr std::pair<TokenKind, NodeOp> kEquality[] = {{TOKEN_EQUAL, NODE_EQUAL},
                                                                 {TOKEN_NOT_EQUAL, NODE_NOT_EQUAL}};
    return binaryLevel([this](NodeOp* op) { return operatorOf(kEquality, op); },
                       [this] { return parseRelational(); });
  }

  int32_t parseRelational() {
    static constexpr std::pair<TokenKind, NodeOp> kOrder[] = {
        {TOKEN_LESS, NODE_LESS},
        {TOKEN_LESS_EQUAL, NODE_LESS_EQUAL},
        {TOKEN_GREATER, NODE_GREATER},
        {TOKEN_GREATER_EQUAL, NODE_GREATER_EQUAL}};
    return binaryLevel([this](NodeOp* op) { return operatorOf(kOrder, op); },
                       [this] { return parseAdditive(); });
  }

  int32_t parseAdditive() {
    static constexpr std::pair<TokenKind, NodeOp> kAdditive[] = {{TOKEN_PLUS, NODE_ADD},
                                                                 {TOKEN_MINUS, NODE_SUBTRACT}};
    return binaryLevel([this](NodeOp* op) { return operatorOf(kAdditive, op); },
                       [this] { return parseTerm(); });
  }

  int32_t parseTerm() {
    static constexpr std::pair<TokenKind, NodeOp> kTerm[] = {
        {TOKEN_STAR, NODE_MULTIPLY}, {TOKEN_SLASH, NODE_DIVIDE}, {TOKEN_PERCENT, NODE_REMAINDER}};
    return binaryLevel([this](NodeOp* op) { return operatorOf(kTerm, op); },
                       [this] { return parseUnary(); });
  }

  int32_t parseUnary() {
    const TokenKind kind = current_.kind;
    if (kind != TOKEN_MINUS && kind != TOKEN_PLUS && kind != TOKEN_BANG) {
      return parsePrimary();
    }
    if (!enter()) {
      return -1;
    }
    advance();
    int32_t operand = parseUnary();
    leave();
    if (operand < 0 || kind == TOKEN_PLUS) {
      return operand;
    }
    return checked(program_->addUnary(kind == TOKEN_MINUS ? NODE_NEGATE : NODE_NOT, operand));
  }

  int32_t parsePrimary() {
    int32_t node = -1;
    switch (current_.kind) {
      case TOKEN_NUMBER:
        node = program_->addLiteral(current_.number);
        break;
      case TOKEN_TEXT:
        node = program_->addLiteral(program_->keepText(current_.text));
        break;
      case TOKEN_QUOTED_NAME:
        node = program_->addReference(current_.text);
        break;
      case TOKEN_NAME:
        return parseName();
      case TOKEN_OPEN:
        return parseParenthesised();
      default:
        return fail("unexpected " + Lexer::describe(current_));
    }
    advance();
    return node;
  }

  int32_t parseParenthesised() {
    if (!enter()) {
      return -1;
    }
    advance();
    int32_t inner = parseOr();
    leave();
    if (inner < 0) {
      return inner;
    }
    if (current_.kind != TOKEN_CLOSE) {
      return fail("expected ')' but found " + Lexer::describe(current_));
    }
    advance();
    return inner;
  }

  // An attribute, true, false, or a function call.
  int32_t parseName() {
    Token name = current_;
    advance();
    if (current_.kind != TOKEN_OPEN) {
      if (name.text == "true" || name.text == "false") {
        return program_->addLiteral(Value::boolean(name.text == "true"));
      }
      return program_->addReference(name.text);
    }
    const FunctionInfo* function = findFunction(name.text);
    if (function == nullptr) {
      current_ = name;  // mark the name
      return fail("unknown function " + name.text);
    }
    if (!enter()) {
      return -1;
    }
    advance();
    std::vector<int32_t> arguments;
    while (current_.kind != TOKEN_CLOSE) {
      int32_t argument = parseOr();
      if (argument < 0) {
        return argument;
      }
      arguments.push_back(argument);
      if (current_.kind != TOKEN_COMMA) {
        break;
      }
      advance();
    }
    leave();
    if (current_.kind != TOKEN_CLOSE) {
      return fail("expected ',' or ')' in the arguments of " + name.text + " but found " +
                  Lexer::describe(current_));
    }
    int count = static_cast<int>(arguments.size());
    if (count < function->minArguments || count > function->maxArguments) {
      std::string expected = std::to_string(function->minArguments);
      if (function->maxArguments != function->minArguments) {
        expected += " to " + std::to_string(function->maxArguments);
      }
      return fail(name.text + " takes " + expected + " argument" +
                  (function->maxArguments == 1 ? "" : "s") + ", not " + std::to_string(count));
    }
    std::string error;
    int32_t call = program_->addCall(*function, arguments, &error);
    if (call < 0) {
      return fail(error);
    }
    advance();
    return checked(call);
  }
};

}  // namespace

std::unique_ptr<Program> parseFormula(std::string_view text, std::string* error, int* column) {
  return parseWith<FormulaParser>(text, error, column);
}

}  // namespace XRV::expression
