#pragma once

// SshSessionPool: the SSH sessions the agent keeps, per target (SshTarget::identity:
// host, port, user and credentials), shared by every connector of that target.
//
// A run takes a session for itself: an idle one of its target, or a new one that it
// connects. Runs that overlap on one target each get their own session, so that a
// slow command never holds up another; up to kMaxIdleSessions of them are kept for
// later runs. No lock is held while a session does network I/O: the pool's lock
// guards its maps only, and sessions are closed outside it.
//
// A target whose connection failed is not tried again before its back-off has passed:
// 1 s after the first failure, doubling up to CDP_SSH_RECONNECT_MAX_DELAY; runs in
// between fail at once with the last failure. A connection that works ends the
// back-off. The back-off belongs to the target and lives as long as a connector uses
// the target (retain / release).

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "framework/Mutex.h"
#include "sources/ssh/SshSession.h"

class SshSessionPool {
 public:
  static constexpr size_t kMaxIdleSessions = 4;

  static SshSessionPool& instance();

  // A connector uses / stops using `target`. When the last one stops, the target's
  // idle sessions are closed and its back-off forgotten.
  void retain(const SshTarget& target);
  void release(const SshTarget& target);

  // An idle session of `target` (*reused set), or a new one not connected yet. Null
  // while the target waits out its back-off, with the reason in *refused.
  std::unique_ptr<SshSession> take(const std::shared_ptr<const SshTarget>& target, bool* reused,
                                   SshOutcome* refused);
  // A session back from its run: kept when it is usable, its target keeps sessions and
  // still has users; closed otherwise.
  void giveBack(std::unique_ptr<SshSession> session);
  void connectionFailed(const SshTarget& target, const SshOutcome& failure);
  void connectionMade(const SshTarget& target);

  // For tests: the idle sessions of `target`, and the back-off it waits out now.
  size_t idleSessions(const SshTarget& target);
  std::chrono::milliseconds backoff(const SshTarget& target);

 private:
  struct Entry {
    int users = 0;
    std::vector<std::unique_ptr<SshSession>> idle;
    std::chrono::steady_clock::time_point retryAt{};
    std::chrono::milliseconds delay{0};
    SshOutcome lastFailure;
  };

  XRV::Mutex mutex_;
  std::map<std::string, Entry> entries_ XRV_GUARDED_BY(mutex_);
};
