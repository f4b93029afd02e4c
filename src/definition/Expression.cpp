#include "definition/Expression.h"

#include <atomic>

namespace {
std::atomic<ExpressionParser> installedParser{nullptr};
}  // namespace

void registerExpressionParser(ExpressionParser parser) {
  installedParser.store(parser, std::memory_order_release);
}

ExpressionParser getExpressionParser() { return installedParser.load(std::memory_order_acquire); }
