#include "sources/ping/IcmpPacket.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace XRV::icmp {
namespace {

std::atomic<uint32_t> identifierSeed{0};
std::atomic<uint16_t> sequenceCounter{0};

void putShort(uint8_t* at, uint16_t value) {
  const uint16_t network = htons(value);
  memcpy(at, &network, sizeof network);
}

void putBody(uint8_t* buffer, uint16_t identifier, uint16_t sequence, uint32_t timestamp) {
  putShort(buffer + 4, identifier);
  putShort(buffer + 6, sequence);
  memcpy(buffer + 8, &timestamp, sizeof timestamp);  // host order
  memcpy(buffer + 12, kPayload, sizeof kPayload);    // the terminator included
}

}  // namespace

uint16_t checksum(const void* data, int length) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  uint32_t sum = 0;
  for (int i = 0; i + 1 < length; i += 2) {
    uint16_t word;
    memcpy(&word, bytes + i, sizeof word);
    sum += word;
  }
  sum = (sum >> 16) + (sum & 0xFFFF);
  sum += sum >> 16;
  return static_cast<uint16_t>(~sum);
}

uint16_t nextIdentifier() {
  // Every packet seeds the generator afresh: the identifier is a function of the seed
  // alone, whichever thread asks. rand_r keeps that generator to this call.
  unsigned int seed = identifierSeed.fetch_add(1, std::memory_order_relaxed);
  const int32_t random = rand_r(&seed);
  const auto product = static_cast<int32_t>(static_cast<uint32_t>(random) * 65535U);
  return static_cast<uint16_t>(product / 2147483647);
}

uint16_t nextSequence() {
  return static_cast<uint16_t>(sequenceCounter.fetch_add(1, std::memory_order_relaxed) + 1);
}

int buildRequestV4(uint8_t* buffer, uint16_t identifier, uint16_t sequence, uint32_t timestamp) {
  buffer[0] = kEchoRequest;
  buffer[1] = 0;
  buffer[2] = 0;
  buffer[3] = 0;
  putBody(buffer, identifier, sequence, timestamp);
  const uint16_t sum = checksum(buffer, kRequestLength);
  memcpy(buffer + 2, &sum, sizeof sum);  // already in network order: it is summed that way
  return kRequestLength;
}

int buildRequestV6(uint8_t* buffer, uint8_t type, uint16_t identifier, uint16_t sequence,
                   uint32_t timestamp) {
  buffer[0] = type;
  buffer[1] = 0;
  buffer[2] = 0;
  buffer[3] = 0;
  putBody(buffer, identifier, sequence, timestamp);
  return kRequestLength;
}

bool AddressKey::operator==(const AddressKey& other) const {
  return family == other.family && memcmp(bytes, other.bytes, sizeof bytes) == 0;
}

uint64_t AddressKey::hash() const {
  uint64_t low;
  uint64_t high;
  memcpy(&low, bytes, sizeof low);
  memcpy(&high, bytes + 8, sizeof high);
  uint64_t h = (low ^ (high * 0x9E3779B97F4A7C15ULL) ^ family) * 0xBF58476D1CE4E5B9ULL;
  return h ^ (h >> 31);
}

AddressKey keyOf(const sockaddr* address) {
  AddressKey key;
  if (address->sa_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
    memcpy(key.bytes, &v4->sin_addr, sizeof v4->sin_addr);
    key.family = 4;
  } else if (address->sa_family == AF_INET6) {
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
    memcpy(key.bytes, &v6->sin6_addr, sizeof v6->sin6_addr);
    key.family = 6;
  }
  return key;
}

bool addressText(const sockaddr* address, char* text, size_t size) {
  const void* raw = nullptr;
  if (address->sa_family == AF_INET) {
    raw = &reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
  } else if (address->sa_family == AF_INET6) {
    raw = &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
  } else {
    return false;
  }
  return inet_ntop(address->sa_family, raw, text, static_cast<socklen_t>(size)) != nullptr;
}

bool parseNumericAddress(const char* text, sockaddr_storage* address, socklen_t* length) {
  memset(address, 0, sizeof *address);
  auto* v4 = reinterpret_cast<sockaddr_in*>(address);
  if (inet_pton(AF_INET, text, &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    *length = sizeof *v4;
    return true;
  }
  auto* v6 = reinterpret_cast<sockaddr_in6*>(address);
  if (strchr(text, ':') != nullptr && inet_pton(AF_INET6, text, &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    *length = sizeof *v6;
    return true;
  }
  return false;
}

}  // namespace XRV::icmp
