// xrv-agent: the monitoring agent as a program of its own, hosted by the standalone
// framework host (its tables served over HTTP).
//
//   AGENT_REF_FILE=agent.xml XRV_CONFIG_FILE=agent.ini xrv-agent host_instance
//
// Exit status: 0 when the agent ran and ended; 1 when it could not start (no instance
// name, or the HTTP server could not listen).

#include "framework/Framework.h"
#include "host/StandaloneHost.h"
#include "runtime/AgentMain.h"
#include "runtime/AgentStartup.h"

int main(int argc, char** argv) {
  // Lives as long as the process: a signal handler may still reach it while the
  // process ends.
  auto* host = new XRV::host::StandaloneHost();
  host->setStoppingHook(fwBeginTerminate);
  host->setTerminateHook(fwTerminate);
  fwSetHost(host);
  const int status = agentMain(argc, argv);
  return host->startFailed() ? 1 : status;
}
