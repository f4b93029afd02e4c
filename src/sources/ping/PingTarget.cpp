#include "sources/ping/PingTarget.h"

#include <cstdlib>
#include <cstring>

#include "foundation/Utilities.h"

PingTarget::PingTarget(const char* address) { Utilities::setOwnedText(&address_, address); }

PingTarget::~PingTarget() {
  free(address_);
  free(resolved_);
}

void PingTarget::clearRun() {
  state.store(STATE_NOT_SENT, std::memory_order_relaxed);
  sendTime.store(0, std::memory_order_relaxed);
  responseTime = 0;
  attempts = 0;
  roundTrip = -1;
  socketAddressLength = 0;
  Utilities::setOwnedText(&resolved_, nullptr);
}

void PingTarget::setAddress(const char* address) { Utilities::setOwnedText(&address_, address); }

void PingTarget::setResolvedAddress(const char* text) {
  Utilities::setOwnedText(&resolved_, text);
}
