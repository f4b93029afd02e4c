// The asynchronous run: the sender on the caller's thread, the receiver thread, and
// the matching of replies to their targets.

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

#include "framework/FwClock.h"
#include "framework/Trace.h"
#include "sources/ping/Ping.h"
#include "sources/ping/PingTarget.h"

namespace {

constexpr int kBatch = 64;          // requests per system call, replies per read
constexpr int kPacketSlot = 32;     // bytes per prepared request (18 used)
constexpr int kSendRetries = 50;    // waits for room in a full send buffer ...
constexpr int kSendRetryWaitMs = 10;  // ... of at most this long each
constexpr int kGatherWhileSendingMs = 1;

}  // namespace

// Requests waiting to go out through one socket in one system call.
struct Ping::SendBatch {
  int socket = 0;
  bool ipv4 = true;
  int count = 0;
  mmsghdr messages[kBatch];
  iovec vectors[kBatch];
  PingTarget* targets[kBatch];
  alignas(8) uint8_t packets[kBatch][kPacketSlot];
};

// Replies read in one system call, each with the time the kernel received it.
struct Ping::ReceiveBatch {
  mmsghdr messages[kBatch];
  iovec vectors[kBatch];
  sockaddr_storage sources[kBatch];
  alignas(cmsghdr) char controls[kBatch][CMSG_SPACE(sizeof(timespec))];
  char buffers[kBatch][XRV::icmp::kBufferSize];
};

// The run's targets by address: open addressing, twice as many slots as targets.
struct Ping::RunTable {
  std::vector<XRV::icmp::AddressKey> keys;
  std::vector<PingTarget*> targets;
  size_t mask = 0;

  void reset(int count) {
    size_t size = 16;
    while (size < static_cast<size_t>(count) * 2) {
      size <<= 1;
    }
    keys.assign(size, XRV::icmp::AddressKey{});  // keeps the capacity of earlier runs
    targets.assign(size, nullptr);
    mask = size - 1;
  }
  size_t slotOf(const XRV::icmp::AddressKey& key) const {
    size_t slot = key.hash() & mask;
    while (targets[slot] != nullptr && !(keys[slot] == key)) {
      slot = (slot + 1) & mask;
    }
    return slot;
  }
  PingTarget* find(const XRV::icmp::AddressKey& key) const { return targets[slotOf(key)]; }
  // False when another target has the address already.
  bool insert(const XRV::icmp::AddressKey& key, PingTarget* target) {
    const size_t slot = slotOf(key);
    if (targets[slot] != nullptr) {
      return targets[slot] == target;
    }
    keys[slot] = key;
    targets[slot] = target;
    return true;
  }
};

namespace {

// When the kernel received the datagram (wall-clock milliseconds); `readAt` when it
// did not say.
int64_t arrivalOf(msghdr& message, int64_t readAt) {
  for (cmsghdr* control = CMSG_FIRSTHDR(&message); control != nullptr;
       control = CMSG_NXTHDR(&message, control)) {
    if (control->cmsg_level == SOL_SOCKET && control->cmsg_type == SCM_TIMESTAMPNS) {
      timespec stamp;
      memcpy(&stamp, CMSG_DATA(control), sizeof stamp);
      return stamp.tv_sec * 1000LL + stamp.tv_nsec / 1000000;
    }
  }
  return readAt;
}

}  // namespace

void* asyncReceiverThread(void* engine) {
  static_cast<Ping*>(engine)->receiveLoop();
  return nullptr;
}

void Ping::ensureRunBuffers() {
  XRV_TRACE_FN();
  if (table_ == nullptr) {
    table_ = new RunTable();
  }
  if (sendBatch_ == nullptr) {
    sendBatch_ = new (std::nothrow) SendBatch();
    receiveBatch_ = new (std::nothrow) ReceiveBatch();
    if (sendBatch_ == nullptr || receiveBatch_ == nullptr) {
      XRV_TRACE_ERROR("***** Unable to allocate %d bytes for ICMP buffer\n",
                      static_cast<int>(sizeof(SendBatch) + sizeof(ReceiveBatch)));
      releaseRunBuffers();
      return;
    }
    XRV_TRACE_DETAIL("Allocated ICMPbuffer @%p for length %d\n", static_cast<void*>(receiveBatch_),
                     static_cast<int>(sizeof(ReceiveBatch)));
    for (int i = 0; i < kBatch; ++i) {
      sendBatch_->vectors[i] = {sendBatch_->packets[i], XRV::icmp::kRequestLength};
      sendBatch_->messages[i] = {};
      sendBatch_->messages[i].msg_hdr.msg_iov = &sendBatch_->vectors[i];
      sendBatch_->messages[i].msg_hdr.msg_iovlen = 1;
      receiveBatch_->vectors[i] = {receiveBatch_->buffers[i], XRV::icmp::kBufferSize};
      receiveBatch_->messages[i] = {};
      receiveBatch_->messages[i].msg_hdr.msg_iov = &receiveBatch_->vectors[i];
      receiveBatch_->messages[i].msg_hdr.msg_iovlen = 1;
      receiveBatch_->messages[i].msg_hdr.msg_name = &receiveBatch_->sources[i];
    }
  }
}

void Ping::releaseRunBuffers() {
  if (receiveBatch_ != nullptr) {
    XRV_TRACE_FN();
    XRV_TRACE_DETAIL("Freeing ICMPbuffer @%p\n", static_cast<void*>(receiveBatch_));
  }
  delete sendBatch_;
  delete receiveBatch_;
  delete table_;
  sendBatch_ = nullptr;
  receiveBatch_ = nullptr;
  table_ = nullptr;
}

// --- The run ---

int Ping::start(List* targets, int timeoutMillis, int burstSize, int burstDelayMs) {
  XRV_TRACE_FN();
  if (targets == nullptr || targets->getCount() == 0) {
    XRV_TRACE_ERROR("***** List of devices to ping is empty");
    return 0;
  }
  if (isStopping()) {
    XRV_TRACE_ERROR("Cannot start pings when state is set to stopping");
    return 0;
  }
  asyncTargets_ = targets;
  waitTime_ = timeoutMillis;
  initPingLock();
  fwLockGet(&pingLock_);
  XRV_TRACE_DETAIL("Acquired icmpPingLock\n");
  openFamily(AF_INET);
  openFamily(AF_INET6);
  runIdentifier_ = XRV::icmp::nextIdentifier();
  ensureRunBuffers();
  if (sendBatch_ == nullptr) {
    fwLockRelease(&pingLock_);
    return 0;
  }
  prepareRun(targets);
  // Replies that came after an earlier run ended belong to no send of this one.
  discardPending(ipv4Socket_);
  discardPending(ipv6Socket_);
  uint64_t pendingWakeUps;
  [[maybe_unused]] ssize_t drained = read(wakeFd_, &pendingWakeUps, sizeof pendingWakeUps);
  outstanding_ = 0;
  sendDoneMillis_ = -1;
  receiverRunning_ = false;

  std::thread receiver;
  try {
    receiver = std::thread(asyncReceiverThread, this);
  } catch (const std::system_error& e) {
    XRV_TRACE_ERROR("Error creating ping receiver thread: %d errno: %d\n", e.code().value(), errno);
    fwLockRelease(&pingLock_);
    asyncTargets_ = nullptr;
    return 0;
  }
  for (int i = 0; i < 10 && !receiverRunning_.load(); ++i) {
    fwSleepMillis(2);
  }
  fwSleepMillis(5);

  sendAll(targets, burstSize, burstDelayMs);
  sendDoneMillis_ = fwMonotonicMillis();
  wake();
  try {
    // Also when stopping: the receiver ends at once then, and it must not outlive us.
    receiver.join();
  } catch (const std::system_error& e) {
    XRV_TRACE_ERROR("Error joining to the receiver thread %d: errno: %d\n", e.code().value(),
                    errno);
  }
  fwLockRelease(&pingLock_);
  XRV_TRACE_DETAIL("Released icmpPingLock\n");
  return 1;
}

void Ping::prepareRun(List* targets) {
  XRV_TRACE_FN();
  const int count = targets->getCount();
  table_->reset(count);
  char copy[256];
  for (int i = 0; i < count; ++i) {
    auto* target = static_cast<PingTarget*>(targets->get(i));
    // Not answered by an earlier run over this list: a late reply to that run's
    // request must not count for this one before the new request is out.
    int32_t awaiting = PingTarget::STATE_AWAITING_REPLY;
    target->state.compare_exchange_strong(awaiting, PingTarget::STATE_NOT_SENT);
    if (target->getResolvedAddress() == nullptr || target->socketAddressLength == 0) {
      snprintf(copy, sizeof copy, "%.255s", target->getAddress() == nullptr ? "" : target->getAddress());
      sockaddr_storage address;
      socklen_t length = 0;
      if (!getTargetSocketAddress(copy, AF_UNSPEC, &address, &length)) {
        XRV_TRACE_ERROR("*** Failed to initialize socket address for %s\n", copy);
        continue;
      }
      if (table_->find(XRV::icmp::keyOf(reinterpret_cast<sockaddr*>(&address))) != nullptr) {
        XRV_TRACE_DETAIL("Ignoring duplicate target: %s\n", copy);
        continue;
      }
      char text[XRV::icmp::kAddressTextSize];
      XRV::icmp::addressText(reinterpret_cast<sockaddr*>(&address), text, sizeof text);
      target->setResolvedAddress(text);
      target->socketAddress = address;
      target->socketAddressLength = length;
    }
    if (!table_->insert(XRV::icmp::keyOf(reinterpret_cast<sockaddr*>(&target->socketAddress)),
                        target)) {
      XRV_TRACE_DETAIL("Ignoring duplicate target: %s\n", target->getResolvedAddress());
    }
  }
}

PingTarget* Ping::findTarget(const sockaddr* source) const {
  return table_->find(XRV::icmp::keyOf(source));
}

void Ping::sendAll(List* targets, int burstSize, int burstDelayMs) {
  XRV_TRACE_FN();
  const bool bursts = burstSize >= 1 && burstDelayMs >= 1;
  SendBatch& batch = *sendBatch_;
  batch.count = 0;
  int sends = 0;
  int pauses = 0;
  const int count = targets->getCount();
  for (int i = 0; i < count && !isStopping(); ++i) {
    auto* target = static_cast<PingTarget*>(targets->get(i));
    if (target->socketAddressLength == 0 ||
        findTarget(reinterpret_cast<sockaddr*>(&target->socketAddress)) != target) {
      continue;  // not resolved, or another target has its address
    }
    if (target->getState() == PingTarget::STATE_ANSWERED) {
      continue;
    }
    const bool ipv4 = target->socketAddress.ss_family == AF_INET;
    const int socket = ipv4 ? ipv4Socket_.load() : ipv6Socket_.load();
    ++target->attempts;
    if (socket == 0) {
      XRV_TRACE_ERROR("Socket not available to ping %s", target->getResolvedAddress());
      target->sendTime.store(fwTimeMillis(), std::memory_order_relaxed);
      target->state.store(PingTarget::STATE_SEND_FAILED, std::memory_order_release);
    } else {
      if (batch.count > 0 && batch.socket != socket) {
        flush(batch);
      }
      batch.socket = socket;
      batch.ipv4 = ipv4;
      batch.targets[batch.count] = target;
      mmsghdr& message = batch.messages[batch.count];
      message.msg_hdr.msg_name = &target->socketAddress;
      message.msg_hdr.msg_namelen = target->socketAddressLength;
      ++batch.count;
    }
    ++sends;
    if (bursts && (sends - 1) % burstSize == burstSize - 1) {
      flush(batch);
      fwSleepMillis(burstDelayMs);
      ++pauses;
    } else if (batch.count == kBatch) {
      flush(batch);
    }
  }
  flush(batch);
  lastRunSends_ = sends;
  lastRunPauses_ = pauses;
}

void Ping::flush(SendBatch& batch) {
  XRV_TRACE_FN();
  if (batch.count == 0) {
    return;
  }
  // Wall-clock time, as the kernel stamps the replies.
  const int64_t now = fwTimeMillis();
  const auto stamp = static_cast<uint32_t>(now);
  const uint16_t v6Identifier = static_cast<uint16_t>(gettid());
  for (int k = 0; k < batch.count; ++k) {
    PingTarget* target = batch.targets[k];
    const uint16_t sequence = XRV::icmp::nextSequence();
    const int length =
        batch.ipv4 ? XRV::icmp::buildRequestV4(batch.packets[k], runIdentifier_, sequence, stamp)
                   : XRV::icmp::buildRequestV6(batch.packets[k], XRV::icmp::kEchoRequestV6,
                                               v6Identifier, sequence, stamp);
    XRV_TRACE_DETAIL("Pinging %s with %d bytes of data on socket %d\n",
                     target->getResolvedAddress(), length, batch.socket);
    target->sendTime.store(now, std::memory_order_relaxed);
    target->state.store(PingTarget::STATE_AWAITING_REPLY, std::memory_order_release);
    outstanding_.fetch_add(1, std::memory_order_relaxed);
  }
  int sent = 0;
  int retries = 0;
  while (sent < batch.count) {
    const int result =
        sendmmsg(batch.socket, &batch.messages[sent], batch.count - sent, MSG_DONTWAIT);
    if (result > 0) {
      sent += result;
      continue;
    }
    const int error = errno;
    if ((error == EAGAIN || error == ENOBUFS || error == EINTR) && retries < kSendRetries &&
        !isStopping()) {
      ++retries;
      pollfd room{batch.socket, POLLOUT, 0};
      poll(&room, 1, kSendRetryWaitMs);
      continue;
    }
    PingTarget* target = batch.targets[sent];
    XRV_TRACE_ERROR("***** ICMP sendto %s[%d] failed, addrlen %d\n", target->getResolvedAddress(),
                    batch.socket, static_cast<int>(target->socketAddressLength));
    XRV_TRACE_ERROR("### sendto errno=%d strerror: %s\n", error, strerror(error));
    int32_t awaiting = PingTarget::STATE_AWAITING_REPLY;
    if (target->state.compare_exchange_strong(awaiting, PingTarget::STATE_SEND_FAILED)) {
      outstanding_.fetch_sub(1, std::memory_order_relaxed);
    }
    ++sent;
  }
  batch.count = 0;
}

// --- The receiver ---

void Ping::receiveLoop() {
  XRV_TRACE_FN();
  receiverRunning_ = true;
  const int timeout = waitTime_;
  int wait = timeout;
  while (!isStopping()) {
    if (receiveReplies(wait) == 0) {
      break;
    }
    const int64_t sendDone = sendDoneMillis_.load();
    if (sendDone < 0) {
      // While requests go out, replies are let gather for a moment: one read takes
      // many, and the kernel's stamps keep their times exact. The end of sending
      // cuts the pause short.
      pollfd sendingDone{wakeFd_, POLLIN, 0};
      poll(&sendingDone, 1, kGatherWhileSendingMs);
      wait = timeout;
      continue;
    }
    if (outstanding_.load() == 0) {
      XRV_TRACE_DETAIL("Every target of the run has answered\n");
      break;
    }
    wait = static_cast<int>(timeout - (fwMonotonicMillis() - sendDone));
    if (wait < 1) {
      break;
    }
  }
}

int Ping::receiveReplies(int waitMillis) {
  XRV_TRACE_FN();
  pollfd watched[3] = {{wakeFd_, POLLIN, 0}, {ipv4Socket_, POLLIN, 0}, {ipv6Socket_, POLLIN, 0}};
  // A socket not open is -1 to poll, which skips it.
  for (pollfd& entry : watched) {
    entry.fd = entry.fd == 0 ? -1 : entry.fd;
  }
  const int ready = waitReadable(watched, 3, waitMillis);
  if (ready <= 0) {
    return ready;
  }
  if ((watched[0].revents & POLLIN) != 0) {
    uint64_t count;
    [[maybe_unused]] ssize_t drained = read(wakeFd_, &count, sizeof count);
  }
  if ((watched[1].revents & POLLIN) != 0) {
    drainSocket(watched[1].fd, true);
  }
  if ((watched[2].revents & POLLIN) != 0) {
    drainSocket(watched[2].fd, false);
  }
  return 1;
}

int Ping::drainSocket(int socket, bool ipv4) {
  XRV_TRACE_FN();
  ReceiveBatch& batch = *receiveBatch_;
  int total = 0;
  for (;;) {
    for (int i = 0; i < kBatch; ++i) {
      batch.messages[i].msg_hdr.msg_namelen = sizeof(sockaddr_storage);
      batch.messages[i].msg_hdr.msg_control = batch.controls[i];
      batch.messages[i].msg_hdr.msg_controllen = sizeof batch.controls[i];
    }
    const int received = recvmmsg(socket, batch.messages, kBatch, MSG_DONTWAIT, nullptr);
    if (received <= 0) {
      if (received == 0) {
        XRV_TRACE_DETAIL("### recvfrom rc=0, the peer has performed an orderly shutdown.\n");
      }
      return total;
    }
    const int64_t readAt = fwTimeMillis();
    for (int i = 0; i < received; ++i) {
      const auto* source = reinterpret_cast<const sockaddr*>(&batch.sources[i]);
      if ((source->sa_family == AF_INET) != ipv4) {
        continue;
      }
      validateResponse(source, batch.buffers[i], static_cast<int>(batch.messages[i].msg_len),
                       arrivalOf(batch.messages[i].msg_hdr, readAt));
    }
    total += received;
    if (received < kBatch) {
      return total;
    }
  }
}

void Ping::discardPending(int socket) {
  if (socket == 0) {
    return;
  }
  char scrap[XRV::icmp::kBufferSize];
  while (recv(socket, scrap, sizeof scrap, MSG_DONTWAIT) >= 0) {
  }
}

void Ping::validateResponse(const sockaddr* source, const char* packet, int length,
                            int64_t arrival) {
  XRV_TRACE_FN();
  char sourceText[XRV::icmp::kAddressTextSize];
  if (!XRV::icmp::addressText(source, sourceText, sizeof sourceText)) {
    return;
  }
  PingTarget* target = findTarget(source);
  if (target == nullptr) {
    XRV_TRACE_DETAIL(">>> ICMP message from <%s> is from no target of this run, ignoring\n",
                     sourceText);
    return;
  }
  const bool valid = source->sa_family == AF_INET
                         ? validateV4Reply(target->getResolvedAddress(), packet, length, sourceText)
                         : validateV6Reply(target->getResolvedAddress(), packet, length, sourceText);
  if (!valid || target->getState() != PingTarget::STATE_AWAITING_REPLY || target->attempts < 0) {
    return;
  }
  const int64_t sent = target->sendTime.load(std::memory_order_relaxed);
  if (arrival < sent) {
    XRV_TRACE_DETAIL("Host %s response time is invalid, assuming response is old\n",
                     target->getResolvedAddress());
    return;
  }
  int32_t awaiting = PingTarget::STATE_AWAITING_REPLY;
  if (!target->state.compare_exchange_strong(awaiting, PingTarget::STATE_ANSWERED,
                                             std::memory_order_acq_rel)) {
    return;  // the sender marked its send failed meanwhile
  }
  target->roundTrip = arrival - sent;
  target->responseTime += target->roundTrip + static_cast<int64_t>(waitTime_) * target->attempts;
  outstanding_.fetch_sub(1, std::memory_order_acq_rel);
  XRV_TRACE_DETAIL("Host %s response time is %d ms\n", target->getResolvedAddress(),
                   static_cast<int>(target->roundTrip));
}
