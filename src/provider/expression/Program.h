#pragma once

// Program: a parsed expression or filter, ready to be evaluated any number of times.
//
// The parsers build it node by node (children before parents) and name the root;
// constant parts are folded while it is built. Evaluation walks the nodes from the
// root. It allocates nothing for numbers and booleans; texts that an evaluation makes
// go to the context's scratch space.
//
// Thread-safe once built: evaluate() is const (the references' position hints are
// atomic, compiled regular expressions lock themselves).

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "provider/expression/EvalContext.h"
#include "provider/expression/Functions.h"
#include "provider/expression/RowValues.h"
#include "provider/expression/Value.h"

namespace XRV::expression {

class Regex;

enum NodeOp : uint8_t {
  NODE_LITERAL,
  NODE_REFERENCE,  // right: index of the reference
  NODE_NEGATE,     // left: operand
  NODE_NOT,
  NODE_ADD,  // left, right: operands
  NODE_SUBTRACT,
  NODE_MULTIPLY,
  NODE_DIVIDE,
  NODE_REMAINDER,
  NODE_EQUAL,
  NODE_NOT_EQUAL,
  NODE_LESS,
  NODE_LESS_EQUAL,
  NODE_GREATER,
  NODE_GREATER_EQUAL,
  NODE_AND,
  NODE_OR,
  NODE_CALL,      // function; left: first argument in arguments_; count
  NODE_INTERVAL,  // function: IntervalKind; left: argument node; right: slot
  NODE_LIKE,      // like() with a literal pattern; left: operand; right: index of the pattern
};

// A wildcard pattern known when the program is built, sorted by what matching it
// takes: most patterns are a prefix ("web*"), a suffix, a part or the whole text.
struct LikePattern {
  enum Kind : uint8_t { EXACT, PREFIX, SUFFIX, CONTAINS, GENERAL };
  explicit LikePattern(std::string_view text);
  bool matches(std::string_view text) const;
  // The same for a NUL-terminated text, without measuring it first when the pattern
  // is a prefix.
  bool matchesTerminated(const char* text) const;

  std::string pattern;  // the whole pattern (GENERAL)
  std::string core;     // the literal part (the others)
  Kind kind;
};

struct Node {
  Value literal;  // NODE_LITERAL; for a binary node of an attribute and an integer: the integer
  NodeOp op;
  bool attributeAndInteger;  // a binary node whose operands are an attribute and an integer
  uint8_t function;
  uint16_t count;
  int32_t left;
  int32_t right;  // for NODE_CALL of matches: the compiled pattern, or -1
  // The attribute of a reference, of an attribute-and-integer node, and of a like()
  // of an attribute (one load less on the hot path).
  const Reference* reference;
};

class Program {
 public:
  // The deepest nesting and the most nodes a program may have.
  static constexpr int kMaxDepth = 200;
  static constexpr size_t kMaxNodes = 10000;

  Program();
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // Evaluates the program. A failed evaluation gives EXPRESSION_NONE with the reason
  // in context.error. A text result lives in the row, in this program or in the
  // context's scratch space. With an interval frame that stores, every interval
  // function first records its argument's value (see IntervalData).
  Value evaluate(EvalContext& context) const;

  bool hasIntervalFunctions() const { return !intervalNodes_.empty(); }
  bool hasReferences() const { return !references_.empty(); }

  // --- Building (the parsers) ---
  int32_t addLiteral(const Value& value);
  // A copy of `text` kept by the program, as a literal value.
  Value keepText(std::string_view text);
  int32_t addReference(std::string_view name);
  int32_t addUnary(NodeOp op, int32_t operand);
  int32_t addBinary(NodeOp op, int32_t left, int32_t right);
  // A call of `function` with `arguments` (node indices). For `matches` with a
  // literal pattern the pattern is compiled now: -1 with *error set when it is
  // invalid.
  int32_t addCall(const FunctionInfo& function, const std::vector<int32_t>& arguments,
                  std::string* error);
  void setRoot(int32_t root) { root_ = root; }
  int depth(int32_t node) const { return depths_[static_cast<size_t>(node)]; }
  size_t nodeCount() const { return nodes_.size(); }
  const Node& node(int32_t index) const { return nodes_[static_cast<size_t>(index)]; }

 private:
  int32_t push(const Node& node, int depth);
  // Replaces node `index` by its value when every operand is a literal.
  int32_t fold(int32_t index);
  Value eval(int32_t index, EvalContext& context) const;
  // A literal or a reference without a call, else eval().
  Value operand(int32_t index, EvalContext& context) const;
  Value evalReference(const Node& node, EvalContext& context) const;
  Value evalLike(const Node& node, EvalContext& context) const;
  Value evalUnary(const Node& node, EvalContext& context) const;
  Value evalLogical(const Node& node, EvalContext& context) const;
  Value evalBinary(const Node& node, EvalContext& context) const;
  // An attribute against an integer when the attribute holds an integer (the
  // commonest operation of formulas and filters); EXPRESSION_NONE, with nothing
  // recorded, when it does not: the general path then decides.
  Value evalAttributeAndInteger(const Node& node, EvalContext& context) const;
  Value concatenate(const Value& left, const Value& right, EvalContext& context) const;
  Value evalCall(const Node& node, EvalContext& context) const;
  Value evalInterval(const Node& node, EvalContext& context) const;
  void recordSamples(EvalContext& context) const;

  std::vector<Node> nodes_;
  std::vector<int> depths_;
  std::vector<int32_t> arguments_;
  std::vector<std::unique_ptr<Reference>> references_;
  std::deque<std::string> texts_;
  std::vector<std::unique_ptr<Regex>> regexes_;
  std::deque<LikePattern> likePatterns_;
  std::vector<int32_t> intervalNodes_;
  int32_t root_ = -1;
};

// The value of two operands combined by a comparison node (NODE_EQUAL ...
// NODE_GREATER_EQUAL): numbers by value, texts bytewise, a number and a text by
// reading the text as a number, booleans only for (in)equality.
Value compare(NodeOp op, const Value& left, const Value& right, EvalContext& context);

}  // namespace XRV::expression
