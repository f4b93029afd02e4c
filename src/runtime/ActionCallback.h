#pragma once

// The agent's answer to the actions (commands) that the framework hands it.
//
// This build has no action library: actionCallback runs nothing. It traces the
// refused action and answers with a non-zero status, so that whoever sent it sees
// that it did not run. An operator who wants the framework's own libraries to run
// actions instead sets CDP_DP_REGISTER_ACTION_CALLBACK to "N" (see fwInit).

#include "framework/Framework.h"

// The status every action gets from this build: not run.
inline constexpr int kActionNotRun = 1;

int actionCallback(const FwCommand& command);
