#pragma once

// Ping: the ICMP echo engine. It sends echo requests and matches the replies, either
// one target at a time (ping: send, then wait for the reply) or for a whole list of
// targets at once (start: one receiver thread takes the replies while the caller
// sends to every target in turn, optionally in bursts). It measures response times in
// milliseconds and marks each target answered or not. IPv4 and IPv6 each have one
// socket, opened on first use and kept for the engine's life.
//
// Sockets: a raw socket where the process may open one (root, or CAP_NET_RAW);
// otherwise an unprivileged ICMP datagram socket, which the kernel offers to the
// groups in net.ipv4.ping_group_range (it sets the identifier itself, and hands over
// only the replies to this socket's requests, without their IP header). socketMode()
// tells which one a family has.
//
// An asynchronous run:
//   - resolves each target once (its resolved text is the canonical numeric form,
//     the form replies are matched in), skips a target whose address another target
//     of the list already has, and skips targets answered in an earlier run over the
//     same list;
//   - sends from one prepared block of requests, several per system call, through
//     the non-blocking socket of the target's family; with a burst size and delay it
//     sleeps after every burstSize-th send;
//   - the receiver thread reads the replies in batches and finds their target by
//     address in a hash table built for the run: a reply whose source is no target is
//     ignored;
//   - ends when every target sent to has answered, or a time-out after the last send.
//
// Thread-safety: pingLock serialises synchronous pings and whole runs of one engine.
// setStopping may be called from any thread; it wakes a run's receiver.

#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <mutex>

#include "foundation/List.h"
#include "framework/FwLock.h"
#include "sources/ping/IcmpPacket.h"

class PingTarget;

class Ping {
 public:
  enum class SocketMode { NONE, RAW, DATAGRAM };

  Ping();
  // `libraryName`: the support library the engine checks is registered (null: "xrv").
  explicit Ping(const char* libraryName);
  // Closes the sockets. No ping or run may be in progress.
  virtual ~Ping();
  Ping(const Ping&) = delete;
  Ping& operator=(const Ping&) = delete;

  // One synchronous ping of `target` (a name or a numeric address) resolved for
  // `family` (AF_UNSPEC: either): 1 when a valid reply came within timeoutMillis,
  // else 0.
  int ping(const char* target, unsigned short family, int timeoutMillis);
  // One asynchronous run over `targets` (PingTarget*, not owned). Returns 1 when the
  // run took place, 0 when it could not (empty list, stopping, no receiver thread).
  int start(List* targets, int timeoutMillis, int burstSize, int burstDelayMs);

  bool isStopping() const { return stopping_.load(); }
  // No new pings from now on; a run in progress stops waiting for replies.
  void setStopping(bool stopping);
  int getWaitTime() const { return waitTime_.load(); }
  List* getAsyncPingList() const { return asyncTargets_.load(); }

  // Opens the socket of `family` (AF_INET, AF_INET6) if it is not open; false when
  // neither a raw nor a datagram socket could be opened.
  bool openSocket(int family);
  SocketMode socketMode(int family) const;
  // The last errno of a failed attempt to open a raw socket of `family` (0: none).
  int rawSocketError(int family) const;
  // Sends of the last run (attempts, failed included) and the pauses its bursts made.
  int getLastRunSends() const { return lastRunSends_; }
  int getLastRunPauses() const { return lastRunPauses_; }

  // --- Internal operations (public for the receiver thread and for tests) ---
  bool initV4();
  bool initV6();
  // Resolves `text` to a socket address of `family` (AF_UNSPEC: the default family).
  static bool getTargetSocketAddress(const char* text, unsigned short family,
                                     sockaddr_storage* address, socklen_t* length);
  // Waits up to timeoutMillis for a datagram on `socket` and reads it into `buffer`
  // with its source: its length; 0 on a time-out; -1 on an error.
  int receive(char* buffer, int size, sockaddr_storage* fromAddress, char* fromText,
              int timeoutMillis, int socket);
  // Checks a reply read from the IPv4 (IPv6) socket against the target's address text.
  bool validateV4Reply(const char* expectedText, const char* packet, int length,
                       const char* sourceText);
  bool validateV6Reply(const char* expectedText, const char* packet, int length,
                       const char* sourceText);
  // A reply of the current run: marks its target answered when it is valid.
  void validateResponse(const sockaddr* source, const char* packet, int length, int64_t arrival);

 private:
  friend void* asyncReceiverThread(void* engine);

  struct SendBatch;
  struct ReceiveBatch;
  struct RunTable;

  bool initFamily(int family);
  // poll with the engine's traces: the number ready, 0 on a time-out, -1 on an error.
  static int waitReadable(pollfd* watched, int count, int timeoutMillis);
  bool fromExpectedSource(const char* expectedText, const char* sourceText);
  bool checkLibrary();
  void initPingLock();
  bool openFamily(int family);
  int pingV4(const sockaddr_storage* address, socklen_t length, const char* text,
             int timeoutMillis, bool async);
  int pingV6(const sockaddr_storage* address, socklen_t length, const char* text,
             int timeoutMillis, bool async);
  int pingWith(int family, const sockaddr_storage* address, socklen_t length, const char* text,
               int timeoutMillis);
  int pingOne(int family, const sockaddr_storage* address, socklen_t length, const char* text,
              int timeoutMillis, bool async);
  // The synchronous wait for the reply to a request sent at `start`.
  int awaitReply(bool ipv4, int socket, char* buffer, const char* text, int64_t start,
                 int timeoutMillis);
  bool checkReplyType(const char* packet, int length, int offset, int reply, int request,
                      int unreachable, const char* expectedText, const char* sourceText);
  // The blocks a run sends from and receives into: made by the first run, kept.
  void ensureRunBuffers();
  void releaseRunBuffers();
  // A run's preparation: resolves the targets, drops duplicates, builds the table.
  void prepareRun(List* targets);
  void sendAll(List* targets, int burstSize, int burstDelayMs);
  void flush(SendBatch& batch);
  void receiveLoop();
  // Waits for replies (or a wake-up) up to waitMillis and handles them: 0 on a
  // time-out, -1 on an error, 1 otherwise.
  int receiveReplies(int waitMillis);
  int drainSocket(int socket, bool ipv4);
  void discardPending(int socket);
  void wake();
  // The target of a reply's source address in this run, or null.
  PingTarget* findTarget(const sockaddr* source) const;

  std::atomic<int> ipv4Socket_{0};
  std::atomic<int> ipv6Socket_{0};
  char* libraryName_ = nullptr;
  FwLock pingLock_{};
  std::once_flag lockOnce_;
  bool lockInitialised_ = false;
  std::atomic<List*> asyncTargets_{nullptr};
  std::atomic<int> waitTime_{0};
  std::atomic<bool> stopping_{false};

  SocketMode ipv4Mode_ = SocketMode::NONE;
  SocketMode ipv6Mode_ = SocketMode::NONE;
  int ipv4RawError_ = 0;
  int ipv6RawError_ = 0;
  int wakeFd_ = -1;  // eventfd that interrupts the receiver's wait

  // The current run (written before the receiver starts, or atomics).
  std::atomic<int> outstanding_{0};      // targets sent to and not answered yet
  std::atomic<int64_t> sendDoneMillis_{-1};  // when sending finished; -1 while it goes on
  std::atomic<bool> receiverRunning_{false};
  uint16_t runIdentifier_ = 0;
  RunTable* table_ = nullptr;             // read-only while the receiver runs
  SendBatch* sendBatch_ = nullptr;        // the sender's
  ReceiveBatch* receiveBatch_ = nullptr;  // the receiver thread's
  int lastRunSends_ = 0;
  int lastRunPauses_ = 0;
};
