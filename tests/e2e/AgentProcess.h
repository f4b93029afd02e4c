#pragma once

// AgentProcess: the real xrv-agent program, started for one test.
//
// The agent runs with the given definition and configuration file, its HTTP API on a
// free loopback port (XRV_HTTP_LISTEN=127.0.0.1:0; the port is read from the line it
// prints), its trace in a file, and a state directory of its own ($E2E_STATE) that
// the definition's commands may use. Variables of the test's own environment that
// would change the agent or its log engine (XRV_*, CDP_*, XRVLOG_*, AGENT_REF_FILE)
// are not passed on.
//
// Whatever happens in the test, the destructor kills the agent's whole process group
// and reaps the agent.

#include <sys/types.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace XRV::e2e {

struct AgentOptions {
  std::string definition;
  std::string configuration;                                     // empty: none
  std::vector<std::pair<std::string, std::string>> environment;  // added or replaced
};

class AgentProcess {
 public:
  explicit AgentProcess(const AgentOptions& options);
  ~AgentProcess();
  AgentProcess(const AgentProcess&) = delete;
  AgentProcess& operator=(const AgentProcess&) = delete;

  // Waits for the agent to say where it serves; false when it ended or timed out.
  bool waitUntilServing(std::chrono::milliseconds timeout = std::chrono::seconds(15));
  int port() const { return port_; }
  pid_t pid() const { return pid_; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  // Waits for the agent to end; true, with its wait status in *status, when it did.
  bool waitForExit(std::chrono::milliseconds timeout, int* status);
  bool running();

  std::string standardOutput() const;
  std::string standardError() const;
  std::string trace() const;
  const std::string& stateDirectory() const { return state_; }

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = 0;
  int port_ = 0;
  std::string state_;
};

// The live (not zombie) processes of process group `group`, as "pid command".
std::vector<std::string> processGroupMembers(pid_t group);

}  // namespace XRV::e2e
