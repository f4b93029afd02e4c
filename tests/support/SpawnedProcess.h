#pragma once

// SpawnedProcess: a program that runs beside a test (a command that follows
// something until it is stopped), whose standard output the test reads line by line
// as it comes; standard error goes to a file. The destructor ends the program
// (SIGTERM) and reaps it.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

extern char** environ;

namespace XRV::testing {

class SpawnedProcess {
 public:
  explicit SpawnedProcess(const std::vector<std::string>& arguments,
                          const std::string& errorFile = "/dev/null") {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
      return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorFile.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::vector<char*> argv;
    for (const std::string& argument : arguments) {
      argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
      pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    fd_ = fds[0];
  }
  ~SpawnedProcess() {
    if (pid_ > 0 && !reaped_) {
      kill(pid_, SIGTERM);
      waitpid(pid_, nullptr, 0);
    }
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  SpawnedProcess(const SpawnedProcess&) = delete;
  SpawnedProcess& operator=(const SpawnedProcess&) = delete;

  bool started() const { return pid_ > 0; }

  // Its exit status once it ended within `seconds`; -1 when it is still running.
  int exitStatus(double seconds) {
    for (int waited = 0; pid_ > 0 && !reaped_ && waited < seconds * 100; ++waited) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        reaped_ = true;
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        break;
      }
      usleep(10000);
    }
    return reaped_ ? status_ : -1;
  }

  // Waits until `count` lines have come in all, `seconds` passed or the output
  // ended; every whole line so far.
  const std::vector<std::string>& waitForLines(size_t count, double seconds) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                     std::chrono::duration<double>(seconds));
    while (lines_.size() < count && fd_ >= 0) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
      pollfd wait{fd_, POLLIN, 0};
      if (left.count() <= 0 || poll(&wait, 1, static_cast<int>(left.count())) <= 0) {
        break;
      }
      char buffer[4096];
      const ssize_t got = read(fd_, buffer, sizeof buffer);
      if (got <= 0) {
        break;
      }
      partial_.append(buffer, static_cast<size_t>(got));
      for (size_t eol; (eol = partial_.find('\n')) != std::string::npos;) {
        lines_.push_back(partial_.substr(0, eol));
        partial_.erase(0, eol + 1);
      }
    }
    return lines_;
  }

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = -1;
  int fd_ = -1;
  std::string partial_;
  std::vector<std::string> lines_;
};

}  // namespace XRV::testing
