#pragma once

// SshSession: one SSH connection to a target, on libssh.
//
// connect() resolves the host, opens the TCP connection itself (so that a host that
// cannot be reached is told from one that refuses SSH, and so that the wait can be
// cut short), does the handshake, checks the host key (SshHostKeys) and
// authenticates; everything within the run's deadline. run() then opens one channel
// per command, sends the command and reads both streams, the exit status and the exit
// signal until the remote side closes the channel. A command that is still running at
// the deadline (or when its run is cancelled) is ended on the remote side: SIGKILL
// through the channel (which OpenSSH's server sends to the command's process group,
// for users other than root), and when that does not end it soon, "kill -9" of the
// process group on a second channel (every command first prints its shell's process
// id, taken off its output). The channel is closed once the remote side reports the
// end, or after a short grace.
//
// Failures carry a PERF_OBJECT_ERROR_CODE:
//   HOST_NAME_RESOLUTION_FAILED  the name does not resolve
//   REMOTE_HOST_UNAVAILABLE      no TCP connection (refused, unreachable, no answer)
//   CONNECTION_FAILURE           the SSH handshake failed, the host key was refused, or
//                                the connection broke
//   AUTHENTICATION_FAILED        the server refused the credentials, or the key file
//                                could not be read
//   TIMEOUT                      the deadline passed
//   RESPONSE_TOO_BIG             the command wrote more than the output limit
//
// Not thread-safe: one thread uses a session at a time (the pool hands it over).

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sources/ssh/SshTarget.h"

struct ssh_session_struct;
struct ssh_channel_struct;

struct SshOutcome {
  int code = 0;  // OBJECT_ACTIVE
  std::string message;

  bool ok() const { return code == 0; }
  static SshOutcome failure(int code, std::string message) {
    SshOutcome outcome;
    outcome.code = code;
    outcome.message = std::move(message);
    return outcome;
  }
};

class SshDeadline {
 public:
  explicit SshDeadline(std::chrono::milliseconds fromNow)
      : at_(std::chrono::steady_clock::now() + fromNow) {}
  std::chrono::steady_clock::time_point at() const { return at_; }
  long long remainingMillis() const;
  bool passed() const { return remainingMillis() <= 0; }

 private:
  std::chrono::steady_clock::time_point at_;
};

struct SshCommandOutput {
  std::string out;
  std::string err;
  int exitStatus = -1;     // -1: none received
  std::string exitSignal;  // the signal that ended the command, when one did
  bool started = false;    // the server accepted the command: it may have run
};

class SshSession {
 public:
  explicit SshSession(std::shared_ptr<const SshTarget> target);
  // Disconnects without removing files (close() does that first).
  ~SshSession();
  SshSession(const SshSession&) = delete;
  SshSession& operator=(const SshSession&) = delete;

  const SshTarget& target() const { return *target_; }
  // Connected and authenticated, and not broken since.
  bool usable() const;

  SshOutcome connect(const SshDeadline& deadline, const std::atomic<bool>& cancel);
  // Uploads each of `files` (local paths) not uploaded in this session yet, or
  // changed since, into the target's temp directory under its base name.
  SshOutcome uploadCommandFiles(const std::vector<std::string>& files, const SshDeadline& deadline);
  // Runs `command` (sent as it is). `limit`: bytes a stream may carry.
  SshOutcome run(const std::string& command, const SshDeadline& deadline,
                 const std::atomic<bool>& cancel, long long limit, SshCommandOutput* output);
  // Removes the uploaded files when the target says so (a short wait at most), then
  // disconnects.
  void close();

 private:
  SshOutcome openSocket(const SshDeadline& deadline, const std::atomic<bool>& cancel, int* fd);
  SshOutcome authenticate(const SshDeadline& deadline);
  // Starts "kill -9" of process group `pid` on a channel of its own; null when that
  // cannot be done.
  ssh_channel_struct* startKill(long pid);
  SshOutcome authenticateWithKey();
  SshOutcome authenticateInteractively();
  // Sets libssh's time-out of blocking calls to what is left of `deadline`.
  void limitBlockingCalls(const SshDeadline& deadline);
  // The outcome of a failed libssh call: TIMEOUT past the deadline, else `code` with
  // `what` and libssh's reason.
  SshOutcome libsshFailure(int code, const std::string& what, const SshDeadline& deadline);

  std::shared_ptr<const SshTarget> target_;
  ssh_session_struct* session_ = nullptr;
  bool authenticated_ = false;
  bool broken_ = false;
  // Files uploaded in this session: base name -> the local file's size and time.
  struct Uploaded {
    long long size = 0;
    long long modified = 0;
  };
  std::map<std::string, Uploaded> uploaded_;
};
