// The filter grammar:
//   filter    := or
//   or        := and { (OR | ||) and }
//   and       := not { (AND | &&) not }
//   not       := (NOT | !) not | "(" or ")" | condition
//   condition := operand compare operand | operand [NOT] LIKE text
//   operand   := attribute | number | - number | text

#include <strings.h>

#include "provider/expression/ParserBase.h"
#include "provider/expression/Parsers.h"

namespace XRV::expression {

namespace {

class FilterParser : public ParserBase {
 public:
  FilterParser(std::string_view text, Program* program) : ParserBase(text, program, "filter") {}

  int32_t parse() { return atEnd(parseOr()); }

 private:
  bool isKeyword(const char* word) const {
    return current_.kind == TOKEN_NAME && strcasecmp(current_.text.c_str(), word) == 0;
  }

  int32_t parseOr() {
    return binaryLevel(
        [this](NodeOp* op) {
          *op = NODE_OR;
          return isKeyword("OR") || current_.kind == TOKEN_OR;
        },
        [this] { return parseAnd(); });
  }

  int32_t parseAnd() {
    return binaryLevel(
        [this](NodeOp* op) {
          *op = NODE_AND;
          return isKeyword("AND") || current_.kind == TOKEN_AND;
        },
        [this] { return parseNot(); });
  }

  int32_t parseNot() {
    const bool negation = isKeyword("NOT") || current_.kind == TOKEN_BANG;
    if (!negation && current_.kind != TOKEN_OPEN) {
      return parseCondition();
    }
    if (!enter()) {
      return -1;
    }
    advance();
    int32_t inner = negation ? parseNot() : parseOr();
    leave();
    if (inner < 0) {
      return inner;
    }
    if (negation) {
      return checked(program_->addUnary(NODE_NOT, inner));
    }
    if (current_.kind != TOKEN_CLOSE) {
      return fail("expected ')' but found " + Lexer::describe(current_));
    }
    advance();
    return inner;
  }

  int32_t parseCondition() {
    int32_t left = parseOperand();
    if (left < 0) {
      return left;
    }
    bool negatedLike = false;
    if (isKeyword("NOT")) {
      negatedLike = true;
      advance();
      if (!isKeyword("LIKE")) {
        return fail("expected LIKE after NOT but found " + Lexer::describe(current_));
      }
    }
    if (isKeyword("LIKE")) {
      advance();
      if (current_.kind != TOKEN_TEXT) {
        return fail("LIKE needs a quoted pattern, not " + Lexer::describe(current_));
      }
      int32_t pattern = program_->addLiteral(program_->keepText(current_.text));
      std::string error;
      int32_t like = program_->addCall(*findFunction("like"), {left, pattern}, &error);
      advance();
      return checked(negatedLike ? program_->addUnary(NODE_NOT, like) : like);
    }
    static constexpr std::pair<TokenKind, NodeOp> kComparison[] = {
        {TOKEN_EQUAL, NODE_EQUAL},     {TOKEN_NOT_EQUAL, NODE_NOT_EQUAL},
        {TOKEN_LESS, NODE_LESS},       {TOKEN_LESS_EQUAL, NODE_LESS_EQUAL},
        {TOKEN_GREATER, NODE_GREATER}, {TOKEN_GREATER_EQUAL, NODE_GREATER_EQUAL}};
    NodeOp op;
    if (!operatorOf(kComparison, &op)) {
      return fail("expected a comparison or LIKE but found " + Lexer::describe(current_));
    }
    advance();
    int32_t right = parseOperand();
    if (right < 0) {
      return right;
    }
    return checked(program_->addBinary(op, left, right));
  }

  int32_t parseOperand() {
    int32_t node = -1;
    switch (current_.kind) {
      case TOKEN_NUMBER:
        node = program_->addLiteral(current_.number);
        break;
      case TOKEN_MINUS:
        advance();
        if (current_.kind != TOKEN_NUMBER) {
          return fail("expected a number after '-' but found " + Lexer::describe(current_));
        }
        node = program_->addUnary(NODE_NEGATE, program_->addLiteral(current_.number));
        break;
      case TOKEN_TEXT:
        node = program_->addLiteral(program_->keepText(current_.text));
        break;
      case TOKEN_QUOTED_NAME:
        node = program_->addReference(current_.text);
        break;
      case TOKEN_NAME:
        if (isKeyword("AND") || isKeyword("OR") || isKeyword("NOT") || isKeyword("LIKE")) {
          return fail("expected an attribute or a value but found the keyword " + current_.text);
        }
        node = program_->addReference(current_.text);
        break;
      default:
        return fail("expected an attribute or a value but found " + Lexer::describe(current_));
    }
    advance();
    return node;
  }
};

}  // namespace

std::unique_ptr<Program> parseFilter(std::string_view text, std::string* error, int* column) {
  return parseWith<FilterParser>(text, error, column);
}

}  // namespace XRV::expression
