#pragma once

// The agent program: prepares the process and hands it to the framework.
//
//   1. fwPreInit (instance name, agent definition);
//   2. an atexit trace, the signal handlers, its own process group (so that shutdown
//      reaches every child it started, and the parent shell's signals do not reach
//      it), the working directory CDP_BINPATH when set;
//   3. fwInit, then the framework's main loop until the framework ends.
//
// The framework host must be installed (fwSetHost) before it is called.

// Returns 0 once the framework has ended; 1, with a message on standard error, when
// the command line names no usable instance.
int agentMain(int argc, char** argv);
