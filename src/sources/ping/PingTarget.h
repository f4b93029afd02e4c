#pragma once

// PingTarget: one target of an asynchronous ping run (an element of the list handed
// to Ping::start). The ping data source owns the records and keeps them across
// collections; the engine writes only the fields below.
//
// State: 0 not sent yet, 3 sent and awaiting a reply, 1 answered, 2 the send failed.
// A target still 3 when the run ends was not answered.
//
// Thread-safety: during a run the sender sets the send time and then state 3
// (release); the receiver thread reads the state (acquire) before anything else and
// writes the reply's fields. Outside a run only the owner touches the record.

#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdint>

class PingTarget {
 public:
  static constexpr int32_t STATE_NOT_SENT = 0;
  static constexpr int32_t STATE_ANSWERED = 1;
  static constexpr int32_t STATE_SEND_FAILED = 2;
  static constexpr int32_t STATE_AWAITING_REPLY = 3;

  // `address`: the target as the engine resolves it (copied); may be null.
  explicit PingTarget(const char* address = nullptr);
  virtual ~PingTarget();
  PingTarget(const PingTarget&) = delete;
  PingTarget& operator=(const PingTarget&) = delete;

  // Back to "not pinged": state 0, no times, no attempts, no resolved address.
  void clearRun();

  int32_t getState() const { return state.load(std::memory_order_acquire); }
  const char* getAddress() const { return address_; }
  void setAddress(const char* address);
  const char* getResolvedAddress() const { return resolved_; }
  void setResolvedAddress(const char* text);
  int64_t getResponseTime() const { return responseTime; }
  int64_t getRoundTrip() const { return roundTrip; }
  int32_t getAttempts() const { return attempts; }

  // --- The engine's fields, in the order the engine uses them ---
  std::atomic<int32_t> state{STATE_NOT_SENT};
  std::atomic<int64_t> sendTime{0};  // milliseconds, when the last request went out
  // Accumulated: for the answer, its time after the send plus one time-out per
  // attempt made for it.
  int64_t responseTime = 0;
  int32_t attempts = 0;  // incremented before each send; a negative count blocks answers

  // --- Kept with the record by the engine ---
  int64_t roundTrip = -1;  // milliseconds from the answered send to its reply; -1: none
  sockaddr_storage socketAddress{};  // valid once the resolved text is set
  socklen_t socketAddressLength = 0;

 private:
  char* address_ = nullptr;   // owned
  char* resolved_ = nullptr;  // owned; filled on first use
};
