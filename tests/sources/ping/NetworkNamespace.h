#pragma once

// Runs a piece of a test in a child process inside a network namespace of its own,
// with only the loopback interface, up: what is done to the network there (echo
// switched off, capabilities dropped, sysctls changed) touches nothing outside, and
// no packet leaves the machine.
//
// The child reports failures as lines on a pipe; the parent turns each into a test
// failure. When the namespace cannot be made (no privilege, no user namespaces) the
// result says so and the caller skips.

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace XRV::testing {

class NamespaceChild {
 public:
  explicit NamespaceChild(int fd) : fd_(fd) {}
  // Records a failure (the parent reports it).
  void fail(const std::string& what) const {
    const std::string line = what + "\n";
    [[maybe_unused]] ssize_t written = write(fd_, line.data(), line.size());
  }
  void check(bool condition, const std::string& what) const {
    if (!condition) {
      fail(what);
    }
  }

 private:
  int fd_;
};

struct NamespaceRun {
  bool created = false;
  std::string whyNot;                  // when not created
  std::vector<std::string> failures;  // what the child reported
};

inline bool writeProcFile(const char* path, const char* text) {
  const int fd = open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  const bool written = write(fd, text, strlen(text)) == static_cast<ssize_t>(strlen(text));
  close(fd);
  return written;
}

// Makes the namespace in the calling (single-threaded) process: "" or why it failed.
inline std::string enterNetworkNamespace() {
  if (unshare(CLONE_NEWNET) != 0) {
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
      return std::string("unshare: ") + strerror(errno);
    }
    writeProcFile("/proc/self/setgroups", "deny");
    const std::string uidMap = "0 " + std::to_string(uid) + " 1";
    const std::string gidMap = "0 " + std::to_string(gid) + " 1";
    if (!writeProcFile("/proc/self/uid_map", uidMap.c_str()) ||
        !writeProcFile("/proc/self/gid_map", gidMap.c_str())) {
      return "cannot map the user in the new user namespace";
    }
  }
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
  const bool up = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &request) == 0 &&
                  (request.ifr_flags |= IFF_UP, ioctl(fd, SIOCSIFFLAGS, &request) == 0);
  if (fd >= 0) {
    close(fd);
  }
  return up ? "" : std::string("cannot bring lo up: ") + strerror(errno);
}

// Runs `body` in a child inside a fresh network namespace and waits for it.
inline NamespaceRun runInNetworkNamespace(const std::function<void(const NamespaceChild&)>& body) {
  NamespaceRun run;
  int failures[2];
  int reasons[2];
  if (pipe2(failures, O_CLOEXEC) != 0 || pipe2(reasons, O_CLOEXEC) != 0) {
    run.whyNot = "pipe failed";
    return run;
  }
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    close(failures[0]);
    close(reasons[0]);
    const std::string whyNot = enterNetworkNamespace();
    if (!whyNot.empty()) {
      [[maybe_unused]] ssize_t written = write(reasons[1], whyNot.data(), whyNot.size());
      _exit(77);
    }
    body(NamespaceChild(failures[1]));
    _exit(0);
  }
  close(failures[1]);
  close(reasons[1]);
  std::string reported;
  std::string reason;
  char buffer[512];
  ssize_t got;
  while ((got = read(failures[0], buffer, sizeof buffer)) > 0) {
    reported.append(buffer, got);
  }
  while ((got = read(reasons[0], buffer, sizeof buffer)) > 0) {
    reason.append(buffer, got);
  }
  close(failures[0]);
  close(reasons[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
    run.whyNot = reason;
    return run;
  }
  run.created = true;
  size_t start = 0;
  for (size_t end; (end = reported.find('\n', start)) != std::string::npos; start = end + 1) {
    run.failures.push_back(reported.substr(start, end - start));
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    run.failures.push_back("the child ended abnormally, status " + std::to_string(status));
  }
  return run;
}

}  // namespace XRV::testing

// Runs BODY (a lambda taking const NamespaceChild&) in a namespace; skips the test
// when none can be made, and fails it for every failure the child reported.
#define XRV_IN_NETWORK_NAMESPACE(BODY)                                             \
  do {                                                                             \
    const ::XRV::testing::NamespaceRun run_ = ::XRV::testing::runInNetworkNamespace(BODY); \
    if (!run_.created) {                                                           \
      GTEST_SKIP() << "no network namespace could be created: " << run_.whyNot;   \
    }                                                                              \
    for (const std::string& failure_ : run_.failures) {                            \
      ADD_FAILURE() << failure_;                                                   \
    }                                                                              \
  } while (0)
