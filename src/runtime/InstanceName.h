#pragma once

// The agent's instance name, worked out from the environment and the command line
// before the definition is read. First match wins:
//   1. XRV_INSTANCE_NAME, when set;
//   2. PROGRAM NAME TEST: NAME;
//   3. PROGRAM ARG (one argument): with MVOLA_HOSTNAME set to HOST and ARG of the
//      form HOST + one separator + NAME, the NAME; otherwise the text after the last
//      "_" of ARG. An ARG without "_" names no instance: that is an error;
//   4. PROGRAM alone: in the last path component of PROGRAM, the text after
//      "agent_" (searched without regard to case) up to the next "." ("Agent_Foo.bin"
//      gives "Foo"); without "agent_" there is no instance name.
// Any other command line gives no instance name.

#include "foundation/String.h"

// Writes the instance name (empty for none) to *name. False only when the one
// argument holds no "_" ("Instance value is null-Not able to find the separator"):
// the agent cannot start.
bool findInstanceName(int argc, char** argv, XRV::String* name);
