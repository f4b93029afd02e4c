#include "runtime/ActionCallback.h"

#include "framework/Trace.h"

int actionCallback(const FwCommand& command) {
  XRV_TRACE_FN();
  XRV_TRACE_ERROR("ERROR: action %s not run: this agent has no action library (node %s, text %s)",
                  command.name == nullptr ? "" : command.name,
                  command.node == nullptr ? "main node" : command.node,
                  command.text == nullptr ? "" : command.text);
  return kActionNotRun;
}
