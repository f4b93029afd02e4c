#include "sources/ssh/SshSessionPool.h"

#include <algorithm>

#include "framework/Settings.h"
#include "framework/Trace.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Closes sessions (which may remove files on their hosts) without the pool's lock.
void closeAll(std::vector<std::unique_ptr<SshSession>> sessions) {
  for (auto& session : sessions) {
    session->close();
  }
}

}  // namespace

SshSessionPool& SshSessionPool::instance() {
  // Never destroyed: connectors of providers that outlive static destruction (a
  // command still running at exit) may still use it.
  static SshSessionPool* const pool = new SshSessionPool;
  return *pool;
}

void SshSessionPool::retain(const SshTarget& target) {
  XRV::MutexLock lock(mutex_);
  ++entries_[target.identity()].users;
}

void SshSessionPool::release(const SshTarget& target) {
  XRV_TRACE_FN();
  std::vector<std::unique_ptr<SshSession>> closing;
  {
    XRV::MutexLock lock(mutex_);
    auto entry = entries_.find(target.identity());
    if (entry == entries_.end() || --entry->second.users > 0) {
      return;
    }
    closing = std::move(entry->second.idle);
    entries_.erase(entry);
  }
  XRV_TRACE_DETAIL("No connector uses %s any more: closing its %zu idle sessions",
                   target.describe().c_str(), closing.size());
  closeAll(std::move(closing));
}

std::unique_ptr<SshSession> SshSessionPool::take(const std::shared_ptr<const SshTarget>& target,
                                                 bool* reused, SshOutcome* refused) {
  XRV_TRACE_FN();
  *reused = false;
  std::vector<std::unique_ptr<SshSession>> dead;
  std::unique_ptr<SshSession> session;
  {
    XRV::MutexLock lock(mutex_);
    Entry& entry = entries_[target->identity()];
    const auto now = steady_clock::now();
    if (now < entry.retryAt) {
      const auto wait = std::chrono::duration_cast<milliseconds>(entry.retryAt - now);
      *refused = entry.lastFailure;
      refused->message +=
          " (not tried again for another " + std::to_string((wait.count() + 999) / 1000) + " s)";
      return nullptr;
    }
    while (!entry.idle.empty() && session == nullptr) {
      std::unique_ptr<SshSession> candidate = std::move(entry.idle.back());
      entry.idle.pop_back();
      if (candidate->usable()) {
        session = std::move(candidate);
      } else {
        dead.push_back(std::move(candidate));
      }
    }
  }
  closeAll(std::move(dead));
  if (session != nullptr) {
    *reused = true;
    return session;
  }
  return std::make_unique<SshSession>(target);
}

void SshSessionPool::giveBack(std::unique_ptr<SshSession> session) {
  XRV_TRACE_FN();
  if (session == nullptr) {
    return;
  }
  const SshTarget& target = session->target();
  if (session->usable() && !target.disconnectAfterCommand) {
    XRV::MutexLock lock(mutex_);
    auto entry = entries_.find(target.identity());
    if (entry != entries_.end() && entry->second.users > 0 &&
        entry->second.idle.size() < kMaxIdleSessions) {
      entry->second.idle.push_back(std::move(session));
      return;
    }
  }
  session->close();
}

void SshSessionPool::connectionFailed(const SshTarget& target, const SshOutcome& failure) {
  XRV_TRACE_FN();
  const milliseconds longest(
      1000 * XRV::settingNumber(XRV::Setting::SshReconnectMaxDelay, XRV_SETTING_HERE()));
  XRV::MutexLock lock(mutex_);
  Entry& entry = entries_[target.identity()];
  entry.delay = std::min(longest, entry.delay.count() == 0 ? milliseconds(1000) : entry.delay * 2);
  entry.retryAt = steady_clock::now() + entry.delay;
  entry.lastFailure = failure;
  XRV_TRACE_DETAIL("Connecting to %s failed; next attempt in %lld ms", target.describe().c_str(),
                   static_cast<long long>(entry.delay.count()));
}

void SshSessionPool::connectionMade(const SshTarget& target) {
  XRV::MutexLock lock(mutex_);
  auto entry = entries_.find(target.identity());
  if (entry != entries_.end()) {
    entry->second.delay = milliseconds(0);
    entry->second.retryAt = {};
  }
}

size_t SshSessionPool::idleSessions(const SshTarget& target) {
  XRV::MutexLock lock(mutex_);
  auto entry = entries_.find(target.identity());
  return entry == entries_.end() ? 0 : entry->second.idle.size();
}

std::chrono::milliseconds SshSessionPool::backoff(const SshTarget& target) {
  XRV::MutexLock lock(mutex_);
  auto entry = entries_.find(target.identity());
  return entry == entries_.end() ? milliseconds(0) : entry->second.delay;
}
