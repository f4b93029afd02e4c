#include "provider/expression/Program.h"

#include <algorithm>
#include <cstring>

#include "foundation/UTF8String.h"
#include "provider/ResultMetric.h"
#include "provider/expression/Arithmetic.h"
#include "provider/expression/IntervalData.h"
#include "provider/expression/Regex.h"
#include "provider/expression/Scratch.h"
#include "provider/expression/Text.h"

namespace XRV::expression {

namespace {

const char* operatorText(NodeOp op) {
  switch (op) {
    case NODE_ADD:
      return "+";
    case NODE_SUBTRACT:
      return "-";
    case NODE_MULTIPLY:
      return "*";
    case NODE_DIVIDE:
      return "/";
    case NODE_REMAINDER:
      return "%";
    case NODE_EQUAL:
      return "==";
    case NODE_NOT_EQUAL:
      return "!=";
    case NODE_LESS:
      return "<";
    case NODE_LESS_EQUAL:
      return "<=";
    case NODE_GREATER:
      return ">";
    case NODE_GREATER_EQUAL:
      return ">=";
    case NODE_AND:
      return "&&";
    case NODE_OR:
      return "||";
    case NODE_NOT:
      return "!";
    case NODE_NEGATE:
      return "unary -";
    default:
      return "?";
  }
}

const char* intervalName(IntervalKind kind) {
  switch (kind) {
    case INTERVAL_AVERAGE:
      return "average";
    case INTERVAL_MINIMUM:
      return "minimum";
    case INTERVAL_MAXIMUM:
      return "maximum";
    case INTERVAL_DELTA:
      return "delta";
    case INTERVAL_RATE:
      return "rate";
  }
  return "?";
}

// A row value as a value of the language. Unsigned values beyond the 64-bit signed
// range become doubles.
[[gnu::always_inline]] inline Value fromResult(const ResultMetric& metric) {
  switch (metric.getKind()) {
    case RESULT_INT32:
      return Value::integer(metric.getInt());
    case RESULT_INT64:
      return Value::int64(metric.getInt64());
    case RESULT_UINT64: {
      unsigned long long value = metric.getUInt64();
      if (value > static_cast<unsigned long long>(INT64_MAX)) {
        return Value::real(static_cast<double>(value));
      }
      return Value::int64(static_cast<int64_t>(value));
    }
    case RESULT_DOUBLE:
      return Value::real(metric.getDouble());
    case RESULT_STRING: {
      const char* text = metric.getString();
      return Value::text(text, strlen(text));
    }
    case RESULT_UTF8: {
      const UTF8String* text = metric.getUTF8String();
      return Value::text(text->c_str(), text->length());
    }
  }
  return Value::none();
}

// The truth of a condition: booleans, and numbers (non-zero is true). -1 when
// `value` is neither.
int truth(const Value& value) {
  switch (value.type) {
    case EXPRESSION_BOOLEAN:
      return value.b ? 1 : 0;
    case EXPRESSION_INT32:
    case EXPRESSION_INT64:
      return value.i != 0 ? 1 : 0;
    case EXPRESSION_DOUBLE:
      return value.d != 0.0 ? 1 : 0;
    default:
      return -1;
  }
}

bool orderHolds(NodeOp op, int order) {
  if (order == kUnordered) {
    return op == NODE_NOT_EQUAL;
  }
  switch (op) {
    case NODE_EQUAL:
      return order == 0;
    case NODE_NOT_EQUAL:
      return order != 0;
    case NODE_LESS:
      return order < 0;
    case NODE_LESS_EQUAL:
      return order <= 0;
    case NODE_GREATER:
      return order > 0;
    case NODE_GREATER_EQUAL:
      return order >= 0;
    default:
      return false;
  }
}

}  // namespace

Value compare(NodeOp op, const Value& left, const Value& right, EvalContext& context) {
  if (left.isNumber() && right.isNumber()) {
    return Value::boolean(orderHolds(op, compareNumbers(left, right)));
  }
  if (left.isText() && right.isText()) {
    int order = left.view().compare(right.view());
    return Value::boolean(orderHolds(op, order < 0 ? -1 : (order > 0 ? 1 : 0)));
  }
  if (left.type == EXPRESSION_BOOLEAN && right.type == EXPRESSION_BOOLEAN &&
      (op == NODE_EQUAL || op == NODE_NOT_EQUAL)) {
    return Value::boolean((left.b == right.b) == (op == NODE_EQUAL));
  }
  if ((left.isNumber() && right.isText()) || (left.isText() && right.isNumber())) {
    const Value& text = left.isText() ? left : right;
    Value number;
    if (!parseNumber(text.view(), &number)) {
      return context.fail("cannot compare " + describeValue(text) + " with a number");
    }
    return left.isText() ? compare(op, number, right, context) : compare(op, left, number, context);
  }
  return context.fail(std::string("cannot compare ") + describeValue(left) + " and " +
                      describeValue(right) + " with " + operatorText(op));
}

LikePattern::LikePattern(std::string_view text) : pattern(text), kind(GENERAL) {
  if (text.find_first_of("?\\") != std::string_view::npos) {
    return;
  }
  const bool leading = !text.empty() && text.front() == '*';
  std::string_view inner = text.substr(leading ? 1 : 0);
  const bool trailing = !inner.empty() && inner.back() == '*';
  inner = inner.substr(0, inner.size() - (trailing ? 1 : 0));
  if (inner.find('*') != std::string_view::npos) {
    return;
  }
  core.assign(inner);
  kind = leading ? (trailing ? CONTAINS : SUFFIX) : (trailing ? PREFIX : EXACT);
}

bool LikePattern::matches(std::string_view text) const {
  switch (kind) {
    case EXACT:
      return text == core;
    case PREFIX:
      return text.size() >= core.size() && memcmp(text.data(), core.data(), core.size()) == 0;
    case SUFFIX:
      return text.size() >= core.size() &&
             memcmp(text.data() + text.size() - core.size(), core.data(), core.size()) == 0;
    case CONTAINS:
      return text.find(core) != std::string_view::npos;
    case GENERAL:
      break;
  }
  return wildcardMatch(text, pattern);
}

[[gnu::always_inline]] inline bool LikePattern::matchesTerminated(const char* text) const {
  if (kind == PREFIX) {
    for (char c : core) {
      if (*text++ != c) {
        return false;
      }
    }
    return true;
  }
  return matches(text);
}

Program::Program() = default;
Program::~Program() = default;

// --- Building ---

int32_t Program::push(const Node& node, int depth) {
  nodes_.push_back(node);
  depths_.push_back(depth);
  return static_cast<int32_t>(nodes_.size() - 1);
}

int32_t Program::addLiteral(const Value& value) {
  Node node{};
  node.op = NODE_LITERAL;
  node.literal = value;
  return push(node, 1);
}

Value Program::keepText(std::string_view text) {
  texts_.emplace_back(text);
  return Value::text(texts_.back().data(), texts_.back().size());
}

int32_t Program::addReference(std::string_view name) {
  references_.push_back(std::make_unique<Reference>(std::string(name)));
  Node node{};
  node.op = NODE_REFERENCE;
  node.reference = references_.back().get();
  node.right = static_cast<int32_t>(references_.size() - 1);
  return push(node, 1);
}

int32_t Program::addUnary(NodeOp op, int32_t operand) {
  Node node{};
  node.op = op;
  node.left = operand;
  return fold(push(node, depth(operand) + 1));
}

int32_t Program::addBinary(NodeOp op, int32_t left, int32_t right) {
  Node node{};
  node.op = op;
  node.left = left;
  node.right = right;
  const Node& rightNode = this->node(right);
  if (this->node(left).op == NODE_REFERENCE && rightNode.op == NODE_LITERAL &&
      rightNode.literal.isInteger() && op >= NODE_ADD && op <= NODE_GREATER_EQUAL) {
    node.attributeAndInteger = true;
    node.literal = rightNode.literal;
    node.reference = this->node(left).reference;
  }
  return fold(push(node, std::max(depth(left), depth(right)) + 1));
}

int32_t Program::addCall(const FunctionInfo& function, const std::vector<int32_t>& arguments,
                         std::string* error) {
  Node node{};
  node.function =
      static_cast<uint8_t>(function.id == FUNCTION_INTERVAL ? static_cast<int>(function.interval)
                                                            : static_cast<int>(function.id));
  int deepest = 0;
  for (int32_t argument : arguments) {
    deepest = std::max(deepest, depth(argument));
  }
  if (function.id == FUNCTION_INTERVAL) {
    node.op = NODE_INTERVAL;
    node.left = arguments[0];
    node.right = static_cast<int32_t>(intervalNodes_.size());
    intervalNodes_.push_back(static_cast<int32_t>(nodes_.size()));
    return push(node, deepest + 1);
  }
  if (function.id == FUNCTION_LIKE && this->node(arguments[1]).op == NODE_LITERAL &&
      this->node(arguments[1]).literal.isText()) {
    node.op = NODE_LIKE;
    node.left = arguments[0];
    node.reference = this->node(arguments[0]).reference;  // null unless an attribute
    node.right = static_cast<int32_t>(likePatterns_.size());
    likePatterns_.emplace_back(this->node(arguments[1]).literal.view());
    return fold(push(node, deepest + 1));
  }
  node.op = NODE_CALL;
  node.left = static_cast<int32_t>(arguments_.size());
  node.count = static_cast<uint16_t>(arguments.size());
  node.right = -1;
  arguments_.insert(arguments_.end(), arguments.begin(), arguments.end());
  if (function.id == FUNCTION_MATCHES && this->node(arguments[1]).op == NODE_LITERAL) {
    const Value& pattern = this->node(arguments[1]).literal;
    Scratch scratch;
    EvalContext context;
    context.scratch = &scratch;
    std::unique_ptr<Regex> compiled = Regex::compile(context.text(pattern), error);
    if (compiled == nullptr) {
      return -1;
    }
    node.right = static_cast<int32_t>(regexes_.size());
    regexes_.push_back(std::move(compiled));
  }
  return fold(push(node, deepest + 1));
}

int32_t Program::fold(int32_t index) {
  const Node node = nodes_[static_cast<size_t>(index)];
  if (node.op == NODE_LIKE) {
    if (nodes_[static_cast<size_t>(node.left)].op != NODE_LITERAL) {
      return index;
    }
  } else if (node.op == NODE_CALL) {
    for (int i = 0; i < node.count; ++i) {
      if (nodes_[static_cast<size_t>(arguments_[static_cast<size_t>(node.left + i)])].op !=
          NODE_LITERAL) {
        return index;
      }
    }
  } else {
    if (nodes_[static_cast<size_t>(node.left)].op != NODE_LITERAL) {
      return index;
    }
    if (node.op != NODE_NEGATE && node.op != NODE_NOT &&
        nodes_[static_cast<size_t>(node.right)].op != NODE_LITERAL) {
      return index;
    }
  }
  Scratch scratch;
  EvalContext context;
  context.scratch = &scratch;
  Value value = eval(index, context);
  if (value.failed()) {
    return index;  // fails again at every evaluation, with its message
  }
  if (value.isText()) {
    value = keepText(value.view());
  }
  nodes_[static_cast<size_t>(index)] = Node{};
  nodes_[static_cast<size_t>(index)].op = NODE_LITERAL;
  nodes_[static_cast<size_t>(index)].literal = value;
  depths_[static_cast<size_t>(index)] = 1;
  return index;
}

// --- Evaluation ---

Value Program::evaluate(EvalContext& context) const {
  if (root_ < 0) {
    return context.fail("empty expression");
  }
  if (context.interval != nullptr && context.interval->store && !intervalNodes_.empty()) {
    recordSamples(context);
    if (!context.error.empty()) {
      return Value::none();
    }
  }
  return operand(root_, context);
}

void Program::recordSamples(EvalContext& context) const {
  const IntervalFrame& frame = *context.interval;
  if (frame.data == nullptr) {
    return;
  }
  for (int32_t index : intervalNodes_) {
    const Node& node = nodes_[static_cast<size_t>(index)];
    Value value = eval(node.left, context);
    if (value.failed()) {
      return;
    }
    if (!value.isNumber()) {
      context.fail(std::string(intervalName(static_cast<IntervalKind>(node.function))) +
                   " needs a number, not " + describeValue(value));
      return;
    }
    frame.data->obtain(this, node.right, frame.row)
        .add(frame.now, value, frame.data->keepSeconds());
  }
  frame.data->sweep(frame.now);
}

// The hot path: evaluation of literals, references and integer arithmetic and
// comparisons stays in small functions without texts of their own; everything that
// builds a message lives in the cold functions below.

namespace {

[[gnu::cold, gnu::noinline]] Value missingAttribute(const Reference& reference,
                                                    EvalContext& context) {
  return context.fail("attribute " + reference.name + " is not in the row");
}

[[gnu::cold, gnu::noinline]] Value wrongOperand(const char* what, const Value& operand,
                                                EvalContext& context) {
  return context.fail(std::string(what) + describeValue(operand));
}

[[gnu::cold, gnu::noinline]] Value wrongOperands(NodeOp op, const Value& left, const Value& right,
                                                 EvalContext& context) {
  return context.fail(std::string("cannot apply ") + operatorText(op) + " to " +
                      describeValue(left) + " and " + describeValue(right));
}

// Integers a and b combined by `op` without a call: comparisons always, arithmetic
// when both are 32-bit (which cannot overflow 64 bits); EXPRESSION_NONE otherwise.
[[gnu::always_inline]] inline Value integerOperation(NodeOp op, int64_t a, int64_t b,
                                                     bool both32Bit) {
  switch (op) {
    case NODE_EQUAL:
      return Value::boolean(a == b);
    case NODE_NOT_EQUAL:
      return Value::boolean(a != b);
    case NODE_LESS:
      return Value::boolean(a < b);
    case NODE_LESS_EQUAL:
      return Value::boolean(a <= b);
    case NODE_GREATER:
      return Value::boolean(a > b);
    case NODE_GREATER_EQUAL:
      return Value::boolean(a >= b);
    case NODE_ADD:
      return both32Bit ? Value::integer(a + b) : Value::none();
    case NODE_SUBTRACT:
      return both32Bit ? Value::integer(a - b) : Value::none();
    case NODE_MULTIPLY:
      return both32Bit ? Value::integer(a * b) : Value::none();
    case NODE_DIVIDE:
      return both32Bit ? Value::integer(b == 0 ? 0 : a / b) : Value::none();
    default:
      return Value::none();
  }
}

}  // namespace

inline Value Program::operand(int32_t index, EvalContext& context) const {
  const Node& node = nodes_[static_cast<size_t>(index)];
  if (node.op == NODE_LITERAL) {
    return node.literal;
  }
  if (node.op == NODE_REFERENCE) {
    return evalReference(node, context);
  }
  if (node.attributeAndInteger) {
    Value fast = evalAttributeAndInteger(node, context);
    if (!fast.failed()) {
      return fast;
    }
  } else if (node.op == NODE_LIKE) {
    return evalLike(node, context);
  } else if (node.op == NODE_AND || node.op == NODE_OR) {
    return evalLogical(node, context);
  }
  return eval(index, context);
}

[[gnu::always_inline]] inline Value Program::evalAttributeAndInteger(const Node& node,
                                                                     EvalContext& context) const {
  const ResultMetric* found = context.row == nullptr ? nullptr : context.row->find(*node.reference);
  if (found == nullptr) {
    return Value::none();
  }
  int64_t a;
  if (found->getKind() == RESULT_INT32) {
    a = found->getInt();
  } else if (found->getKind() == RESULT_INT64) {
    a = found->getInt64();
  } else {
    return Value::none();
  }
  return integerOperation(
      node.op, a, node.literal.i,
      found->getKind() == RESULT_INT32 && node.literal.type == EXPRESSION_INT32);
}

// Dispatches: every case but the attribute-and-integer one is a jump, not a call.
Value Program::eval(int32_t index, EvalContext& context) const {
  const Node& node = nodes_[static_cast<size_t>(index)];
  if (node.attributeAndInteger) {
    Value fast = evalAttributeAndInteger(node, context);
    if (!fast.failed()) {
      return fast;
    }
  }
  switch (node.op) {
    case NODE_LITERAL:
      return node.literal;
    case NODE_REFERENCE:
      return evalReference(node, context);
    case NODE_NEGATE:
    case NODE_NOT:
      return evalUnary(node, context);
    case NODE_AND:
    case NODE_OR:
      return evalLogical(node, context);
    case NODE_CALL:
      return evalCall(node, context);
    case NODE_INTERVAL:
      return evalInterval(node, context);
    case NODE_LIKE:
      return evalLike(node, context);
    default:
      return evalBinary(node, context);
  }
}

Value Program::evalReference(const Node& node, EvalContext& context) const {
  const ResultMetric* value = context.row == nullptr ? nullptr : context.row->find(*node.reference);
  return value == nullptr ? missingAttribute(*node.reference, context) : fromResult(*value);
}

[[gnu::always_inline]] inline Value Program::evalLike(const Node& node,
                                                      EvalContext& context) const {
  const LikePattern& pattern = likePatterns_[static_cast<size_t>(node.right)];
  if (node.reference != nullptr && context.row != nullptr) {
    // A byte-string attribute is matched in place, without measuring it.
    const ResultMetric* found = context.row->find(*node.reference);
    if (found != nullptr && found->isString()) {
      return Value::boolean(pattern.matchesTerminated(found->getString()));
    }
  }
  Value value = operand(node.left, context);
  if (value.failed()) {
    return value;
  }
  return Value::boolean(pattern.matches(context.text(value)));
}

Value Program::evalUnary(const Node& node, EvalContext& context) const {
  Value value = operand(node.left, context);
  if (value.failed()) {
    return value;
  }
  if (node.op == NODE_NEGATE) {
    return value.isNumber() ? negate(value)
                            : wrongOperand("unary - needs a number, not ", value, context);
  }
  int holds = truth(value);
  if (holds < 0) {
    return wrongOperand("! needs a boolean or a number, not ", value, context);
  }
  return Value::boolean(holds == 0);
}

Value Program::evalLogical(const Node& node, EvalContext& context) const {
  const char* needs = node.op == NODE_AND ? "&& needs booleans or numbers, not "
                                          : "|| needs booleans or numbers, not ";
  Value left = operand(node.left, context);
  if (left.failed()) {
    return left;
  }
  int holds = truth(left);
  if (holds < 0) {
    return wrongOperand(needs, left, context);
  }
  if ((node.op == NODE_AND) != (holds == 1)) {
    return Value::boolean(holds == 1);  // decided by the left side
  }
  Value right = operand(node.right, context);
  if (right.failed()) {
    return right;
  }
  holds = truth(right);
  if (holds < 0) {
    return wrongOperand(needs, right, context);
  }
  return Value::boolean(holds == 1);
}

Value Program::evalBinary(const Node& node, EvalContext& context) const {
  Value left = operand(node.left, context);
  if (left.failed()) {
    return left;
  }
  Value right = operand(node.right, context);
  if (right.failed()) {
    return right;
  }
  // The common case first: integers, computed here without a call.
  if (left.isInteger() && right.isInteger()) {
    Value result = integerOperation(
        node.op, left.i, right.i, left.type == EXPRESSION_INT32 && right.type == EXPRESSION_INT32);
    if (!result.failed()) {
      return result;
    }
  }
  if (node.op >= NODE_EQUAL) {
    return compare(static_cast<NodeOp>(node.op), left, right, context);
  }
  if (left.isNumber() && right.isNumber()) {
    return arithmetic(static_cast<ArithmeticOp>(node.op - NODE_ADD), left, right);
  }
  if (node.op == NODE_ADD && (left.isText() || right.isText()) && left.type != EXPRESSION_BOOLEAN &&
      right.type != EXPRESSION_BOOLEAN) {
    return concatenate(left, right, context);
  }
  return wrongOperands(static_cast<NodeOp>(node.op), left, right, context);
}

Value Program::concatenate(const Value& left, const Value& right, EvalContext& context) const {
  std::string_view a = context.text(left);
  std::string_view b = context.text(right);
  char* joined = context.scratch->allocate(a.size() + b.size());
  memcpy(joined, a.data(), a.size());
  memcpy(joined + a.size(), b.data(), b.size());
  return Value::text(joined, a.size() + b.size());
}

Value Program::evalCall(const Node& node, EvalContext& context) const {
  const int32_t* arguments = arguments_.data() + node.left;
  if (node.function == FUNCTION_IF) {
    Value condition = eval(arguments[0], context);
    if (condition.failed()) {
      return condition;
    }
    int holds = truth(condition);
    if (holds < 0) {
      return context.fail("if needs a boolean or a number as its condition, not " +
                          describeValue(condition));
    }
    return eval(arguments[holds == 1 ? 1 : 2], context);
  }
  Value values[kMaxArguments];
  for (int i = 0; i < node.count; ++i) {
    values[i] = eval(arguments[i], context);
    if (values[i].failed()) {
      return values[i];
    }
  }
  Regex* regex = node.right >= 0 ? regexes_[static_cast<size_t>(node.right)].get() : nullptr;
  return callFunction(static_cast<FunctionId>(node.function), values, node.count, context, regex);
}

Value Program::evalInterval(const Node& node, EvalContext& context) const {
  const char* name = intervalName(static_cast<IntervalKind>(node.function));
  const IntervalFrame* frame = context.interval;
  if (frame == nullptr || frame->data == nullptr) {
    return context.fail(std::string(name) +
                        " has no samples here (interval functions work in "
                        "formulas of attributes only)");
  }
  const SampleSeries* series = frame->data->find(this, node.right, frame->row);
  Value result;
  if (series == nullptr || !series->compute(static_cast<IntervalKind>(node.function), frame->now,
                                            frame->interval, &result)) {
    return context.fail(std::string(name) + " has no samples yet for this row");
  }
  return result;
}

}  // namespace XRV::expression
