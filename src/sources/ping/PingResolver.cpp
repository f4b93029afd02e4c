#include "sources/ping/PingResolver.h"

#include <netdb.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "framework/Trace.h"
#include "sources/ping/IcmpPacket.h"

namespace XRV::ping {
namespace {

std::atomic<int> runningThreads{0};

// What the caller and its lookup threads share; the last of them frees it.
struct Lookups {
  std::mutex mutex;
  std::condition_variable finished;
  std::vector<std::string> names;
  std::vector<std::string> results;
  size_t next = 0;
  size_t done = 0;
  bool abandoned = false;  // the caller stopped waiting: take no new names
};

std::string lookUp(const std::string& name) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_RAW;
  addrinfo* found = nullptr;
  std::string text;
  if (getaddrinfo(name.c_str(), nullptr, &hints, &found) == 0 && found != nullptr) {
    char buffer[XRV::icmp::kAddressTextSize];
    if (XRV::icmp::addressText(found->ai_addr, buffer, sizeof buffer)) {
      text = buffer;
    }
  }
  if (found != nullptr) {
    freeaddrinfo(found);
  }
  return text;
}

void lookUpNames(const std::shared_ptr<Lookups>& lookups) {
  for (;;) {
    size_t index;
    std::string name;
    {
      std::lock_guard<std::mutex> guard(lookups->mutex);
      if (lookups->abandoned || lookups->next >= lookups->names.size()) {
        break;
      }
      index = lookups->next++;
      name = lookups->names[index];
    }
    std::string text = lookUp(name);
    std::lock_guard<std::mutex> guard(lookups->mutex);
    lookups->results[index] = std::move(text);
    ++lookups->done;
    lookups->finished.notify_all();
  }
  runningThreads.fetch_sub(1);
}

}  // namespace

std::vector<std::string> resolveNames(const std::vector<std::string>& names, int timeoutMillis) {
  XRV_TRACE_FN();
  if (names.empty()) {
    return {};
  }
  auto lookups = std::make_shared<Lookups>();
  lookups->names = names;
  lookups->results.assign(names.size(), "");
  const size_t wanted = std::min<size_t>(names.size(), kThreadsPerCall);
  size_t started = 0;
  for (; started < wanted; ++started) {
    if (runningThreads.fetch_add(1) >= kMaxLookupThreads) {
      runningThreads.fetch_sub(1);
      break;
    }
    try {
      std::thread(lookUpNames, lookups).detach();
    } catch (const std::system_error& e) {
      runningThreads.fetch_sub(1);
      XRV_TRACE_ERROR("Cannot start a thread to resolve ping targets: %s", e.what());
      break;
    }
  }
  if (started == 0) {
    XRV_TRACE_ERROR("%d name lookups of ping targets are still waiting; %d names stay unresolved",
                    runningThreads.load(), static_cast<int>(names.size()));
    return lookups->results;
  }
  std::unique_lock<std::mutex> lock(lookups->mutex);
  const bool all = lookups->finished.wait_for(
      lock, std::chrono::milliseconds(timeoutMillis),
      [&] { return lookups->done == lookups->names.size(); });
  lookups->abandoned = true;
  if (!all) {
    XRV_TRACE_DETAIL("%d of %d names of ping targets were not resolved within %d ms",
                     static_cast<int>(names.size() - lookups->done),
                     static_cast<int>(names.size()), timeoutMillis);
  }
  return lookups->results;
}

int lookupThreadsRunning() { return runningThreads.load(); }

}  // namespace XRV::ping
