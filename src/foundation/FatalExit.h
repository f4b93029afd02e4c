#pragma once

// The agent's road out when it cannot go on (a broken agent definition, above all).

// Writes "Fatal Error (<code>) Detected. Exiting\n" to standard error and sends
// SIGTERM to the calling thread. With no handler installed for SIGTERM (definitions
// are read before the signal handlers are set up) that ends the process by signal 15;
// with the agent's handler installed the signal takes the handler's road. Should the
// signal neither end the process nor the handler leave it (the thread blocks
// SIGTERM), the calling thread ends.
[[noreturn]] void exit_with_notification(int code);
