#pragma once

// The agent's start-up and orderly shutdown: the hooks through which the framework
// drives the agent.
//
//   fwPreInit   before the framework starts (main): Unicode and locale set-up, the
//               instance name, reading the agent definition named by AGENT_REF_FILE.
//   fwInit      once after it (main): node type, version and affinity; registers the
//               agent loader and the action callback; stores the agent's own managed
//               system name as XRV_AGENT_MSN.
//   load_agents when the framework is ready for the agent's tables: the built-in
//               status groups, the thread pool, a table server for every attribute
//               group, and the collection threads.
//   fwTerminate at orderly termination: tears everything down in a fixed order.
//
// All four run on one thread at a time, in this order; nothing here is meant to be
// called concurrently with itself. Termination signals take another road
// (AgentSignals.h).

#include "definition/AgentSettings.h"
#include "framework/FwLocale.h"

// The process locale found at start-up.
extern const FwLocale* applicationLocale;

// Returns the agent information record (valid for the life of the process), or null
// when the command line names an instance without the "_" separator. A definition
// that cannot be read ends the process (exit_with_notification(-1)).
const AgentInformation* fwPreInit(int argc, char** argv);

void fwInit();

// The agent loader. Returns 0.
int load_agents();

// The first step of an orderly stop: ends every running command (killed as after a
// time-out) and starts no new one, so that nothing waits for a script that hangs.
void fwBeginTerminate();

// Stops the collection threads and destroys every data provider, every attribute
// group and its table server. The framework has been told to shut down first.
void fwTerminate();

// Asks every data provider to stop the outside processes and connections it
// started; a subnode type's template provider does it for every subnode's copy.
void shutdownExternalProcesses();
