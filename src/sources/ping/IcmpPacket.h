#pragma once

// The ICMP echo request as the ping engine builds it, and the address helpers the
// engine and the ping data source share.
//
// IPv4 request, 16-bit fields in network byte order:
//
//   0 type 8 | 1 code 0 | 2 checksum | 4 identifier | 6 sequence |
//   8 timestamp (32-bit milliseconds, host order) | 12 "Zelto" | 17 NUL
//
// 18 bytes in all. The checksum is the Internet checksum over length / 2 whole
// 16-bit words: with an odd length the last byte stays out of the sum, on purpose.
// The IPv6 request has the same layout with the caller's type, the thread's id as
// identifier and no checksum (the kernel computes it).
//
// The sequence counter and the seed of the identifier are process-wide; both are
// atomics taken without a lock.

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

namespace XRV::icmp {

inline constexpr int kBufferSize = 1600;
inline constexpr char kPayload[] = "Zelto";
// 8 header bytes, the 4-byte timestamp, the payload and its terminator.
inline constexpr int kRequestLength = 8 + 4 + static_cast<int>(sizeof kPayload);
inline constexpr uint8_t kEchoReply = 0;
inline constexpr uint8_t kDestinationUnreachable = 3;
inline constexpr uint8_t kEchoRequest = 8;
inline constexpr uint8_t kEchoReplyV6 = 129;
inline constexpr uint8_t kEchoRequestV6 = 128;
inline constexpr uint8_t kDestinationUnreachableV6 = 1;
// The IPv4 header in front of a reply read from a raw socket (no options assumed).
inline constexpr int kIpHeaderLength = 20;
// Longest address text with its terminator (an IPv6 address).
inline constexpr int kAddressTextSize = INET6_ADDRSTRLEN;

// One's-complement sum of `length` / 2 words, carries folded twice, inverted.
uint16_t checksum(const void* data, int length);
// The next packet identifier: the seed counter taken and incremented, the random
// generator seeded with it, and the product of the random number and 65535 in
// wrapping 32-bit arithmetic divided by 2147483647. Almost always 0: replies are
// matched by address, never by identifier.
uint16_t nextIdentifier();
// The next sequence number, from 1 up (wrapping at 16 bits).
uint16_t nextSequence();

// Writes the IPv4 request into `buffer` (at least kRequestLength bytes, the rest left
// as it is) and returns its length.
int buildRequestV4(uint8_t* buffer, uint16_t identifier, uint16_t sequence, uint32_t timestamp);
// The same for IPv6 with the message type `type`; the checksum stays 0.
int buildRequestV6(uint8_t* buffer, uint8_t type, uint16_t identifier, uint16_t sequence,
                   uint32_t timestamp);

// An address of either family in a fixed-size form, usable as a hash key.
struct AddressKey {
  uint8_t bytes[16] = {};
  uint8_t family = 0;  // 4 or 6; 0 for none

  bool operator==(const AddressKey& other) const;
  uint64_t hash() const;
};

// The key of a socket address; family 0 for other families.
AddressKey keyOf(const sockaddr* address);
// The numeric text of a socket address into `text` (kAddressTextSize bytes); false
// for other families.
bool addressText(const sockaddr* address, char* text, size_t size);
// Parses a numeric IPv4 or IPv6 text (no names) into `address`; false when `text` is
// no numeric address.
bool parseNumericAddress(const char* text, sockaddr_storage* address, socklen_t* length);

}  // namespace XRV::icmp
