#include "AgentProcess.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <regex>
#include <sstream>
#include <thread>

#include "support/Files.h"
#include "support/Wait.h"

extern char** environ;

namespace XRV::e2e {

using XRV::testing::readFile;

namespace {

bool passedOn(const char* assignment) {
  return strncmp(assignment, "XRV_", 4) != 0 && strncmp(assignment, "CDP_", 4) != 0 &&
         strncmp(assignment, "XRVLOG_", 7) != 0 && strncmp(assignment, "AGENT_REF_FILE=", 15) != 0;
}

}  // namespace

AgentProcess::AgentProcess(const AgentOptions& options) {
  char pattern[] = "/tmp/xrv-e2e.XXXXXX";
  state_ = mkdtemp(pattern) == nullptr ? "/tmp" : pattern;

  std::vector<std::string> environment;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (passedOn(*variable)) {
      environment.emplace_back(*variable);
    }
  }
  std::vector<std::pair<std::string, std::string>> settings = {
      {"AGENT_REF_FILE", options.definition},
      {"XRV_HTTP_LISTEN", "127.0.0.1:0"},
      {"XRV_TRACE_FILE", state_ + "/agent.trace"},
      {"E2E_STATE", state_},
  };
  if (!options.configuration.empty()) {
    settings.emplace_back("XRV_CONFIG_FILE", options.configuration);
  }
  settings.insert(settings.end(), options.environment.begin(), options.environment.end());
  for (const auto& setting : settings) {
    const std::string prefix = setting.first + "=";
    std::erase_if(environment, [&prefix](const std::string& v) { return v.starts_with(prefix); });
    environment.push_back(prefix + setting.second);
  }
  std::vector<char*> envp;
  for (std::string& variable : environment) {
    envp.push_back(variable.data());
  }
  envp.push_back(nullptr);
  const std::string out = state_ + "/stdout";
  const std::string err = state_ + "/stderr";
  char* argv[] = {const_cast<char*>(XRV_AGENT), nullptr};

  pid_ = fork();
  if (pid_ == 0) {
    // A group of its own from the start, so that the test can always kill it whole.
    setpgid(0, 0);
    const int outFd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int errFd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(outFd, STDOUT_FILENO);
    dup2(errFd, STDERR_FILENO);
    execve(XRV_AGENT, argv, envp.data());
    _exit(127);
  }
  if (pid_ > 0) {
    setpgid(pid_, pid_);  // the same from this side: no race with the first kill
  }
}

AgentProcess::~AgentProcess() {
  if (::testing::Test::HasFailure()) {
    // What the agent said helps most when a test fails.
    std::string err = standardError();
    if (err.size() > 20000) {
      err = "..." + err.substr(err.size() - 20000);
    }
    ADD_FAILURE() << "the agent's standard error:\n" << err;
  }
  if (pid_ > 0) {
    killpg(pid_, SIGKILL);
    if (!reaped_) {
      waitpid(pid_, &status_, 0);
    }
  }
  std::string command = "rm -rf '" + state_ + "'";
  if (state_.starts_with("/tmp/xrv-e2e.")) {
    [[maybe_unused]] int ignored = system(command.c_str());
  }
}

bool AgentProcess::running() {
  if (reaped_ || pid_ <= 0) {
    return false;
  }
  if (waitpid(pid_, &status_, WNOHANG) == pid_) {
    reaped_ = true;
    return false;
  }
  return true;
}

bool AgentProcess::waitUntilServing(std::chrono::milliseconds timeout) {
  static const std::regex serving(R"(serving the HTTP API on http://127\.0\.0\.1:(\d+)/)");
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    std::smatch match;
    const std::string out = standardOutput();
    if (std::regex_search(out, match, serving)) {
      port_ = std::stoi(match[1]);
      return true;
    }
    if (!running()) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

bool AgentProcess::waitForExit(std::chrono::milliseconds timeout, int* status) {
  if (!XRV::testing::waitUntil([this] { return !running(); },
                               std::chrono::duration<double>(timeout).count())) {
    return false;
  }
  *status = status_;
  return reaped_;
}

std::string AgentProcess::standardOutput() const { return readFile(state_ + "/stdout"); }
std::string AgentProcess::standardError() const { return readFile(state_ + "/stderr"); }
std::string AgentProcess::trace() const { return readFile(state_ + "/agent.trace"); }

std::vector<std::string> processGroupMembers(pid_t group) {
  std::vector<std::string> members;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) {
    return members;
  }
  while (dirent* entry = readdir(proc)) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') {
      continue;
    }
    const std::string stat = readFile(std::string("/proc/") + entry->d_name + "/stat");
    // pid (comm) state ppid pgrp ...; comm may hold blanks and parentheses.
    const size_t open = stat.find('(');
    const size_t close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos) {
      continue;
    }
    std::istringstream rest(stat.substr(close + 2));
    char state = 0;
    long ppid = 0;
    long pgrp = 0;
    rest >> state >> ppid >> pgrp;
    if (pgrp == group && state != 'Z') {
      members.push_back(std::string(entry->d_name) + " " + stat.substr(open + 1, close - open - 1));
    }
  }
  closedir(proc);
  return members;
}

}  // namespace XRV::e2e
