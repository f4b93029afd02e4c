#include "support/SshServer.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <thread>

#include "support/Files.h"

namespace XRV::testing {

int freeLoopbackPort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  close(fd);
  return port;
}

SshServer::SshServer() {
  if (geteuid() != 0) {
    reason_ = "sshd for tests needs root (it runs in namespaces of its own)";
    return;
  }
  if (access("/usr/sbin/sshd", X_OK) != 0 || access("/usr/bin/ssh-keygen", X_OK) != 0) {
    reason_ = "no /usr/sbin/sshd or ssh-keygen (Debian: openssh-server)";
    return;
  }
  port_ = freeLoopbackPort();
  available_ = start();
}

SshServer::~SshServer() { stop(); }

bool SshServer::start() {
  stop();
  const std::string logFile = directory_.file("sshd.log");
  // Emptied here, not in the child: the wait below must not read the last start's log.
  close(open(logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  pid_ = fork();
  if (pid_ == 0) {
    setpgid(0, 0);
    // A test that dies takes its sshd along: the namespace ends with its first process.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int fd = open(logFile.c_str(), O_WRONLY | O_APPEND);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    const std::string port = std::to_string(port_);
    execl(TEST_SSHD, TEST_SSHD, directory_.path().c_str(), port.c_str(), nullptr);
    _exit(127);
  }
  const std::string listening = "Server listening on 127.0.0.1 port " + std::to_string(port_);
  for (int i = 0; i < 1000; ++i) {
    if (log().find(listening) != std::string::npos) {
      return true;
    }
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  reason_ = "sshd did not start: " + log();
  stop();
  return false;
}

void SshServer::stop() {
  if (pid_ <= 0) {
    return;
  }
  // The first process of the PID namespace: killing it ends every process in it.
  std::istringstream children(
      readFile("/proc/" + std::to_string(pid_) + "/task/" + std::to_string(pid_) + "/children"));
  for (pid_t child = 0; children >> child;) {
    kill(child, SIGKILL);
  }
  kill(pid_, SIGKILL);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  // Until sshd's sessions are gone too, and the port can be taken again.
  for (int i = 0; i < 500; ++i) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port_));
    const bool refused = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0;
    close(fd);
    if (refused) {
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::string SshServer::knownHostsLine() const {
  std::istringstream key(readFile(directory_.file("host_ed25519.pub")));
  std::string type;
  std::string blob;
  key >> type >> blob;
  return "[127.0.0.1]:" + std::to_string(port_) + " " + type + " " + blob + "\n";
}

void SshServer::replaceHostKey() {
  std::filesystem::remove(directory_.file("host_ed25519"));
  std::filesystem::remove(directory_.file("host_ed25519.pub"));
  const std::string command = "ssh-keygen -q -t ed25519 -N '' -C xrv-test-host -f '" +
                              directory_.file("host_ed25519") + "'";
  [[maybe_unused]] const int ignored = system(command.c_str());
}

std::string SshServer::log() const { return readFile(directory_.file("sshd.log")); }

}  // namespace XRV::testing
