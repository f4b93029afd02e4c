#include "provider/expression/ParserBase.h"

namespace XRV::expression {

int32_t ParserBase::fail(std::string message) {
  if (error_.empty()) {
    error_ = current_.kind == TOKEN_ERROR ? current_.text : std::move(message);
    column_ = Lexer::errorColumn(current_);
  }
  return -1;
}

int32_t ParserBase::checked(int32_t node) {
  if (node < 0) {
    return node;
  }
  if (program_->depth(node) > Program::kMaxDepth) {
    return fail(std::string(what_) + " nested too deeply");
  }
  if (program_->nodeCount() > Program::kMaxNodes) {
    return fail(std::string(what_) + " too long");
  }
  return node;
}

bool ParserBase::enter() {
  if (++nesting_ > Program::kMaxDepth) {
    --nesting_;
    fail(std::string(what_) + " nested too deeply");
    return false;
  }
  return true;
}

}  // namespace XRV::expression
