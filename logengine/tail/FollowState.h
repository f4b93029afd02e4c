#pragma once
// Where a follower stands in its file, kept across restarts in a small text file:
//
//   xrvlog-tail 1
//   /var/log/app.log
//   DEV INO POSITION SIGNATURE_LENGTH SIGNATURE_HASH
//
// The signature is a hash of the file's first bytes; when they change under the same
// inode, the file was truncated and written again.

#include <cstdint>
#include <optional>
#include <string>

namespace xrvlog {

struct Signature {
  std::uint32_t length = 0;  // bytes hashed, up to the follower's signature size
  std::uint64_t hash = 0;

  bool operator==(const Signature&) const = default;
};

struct FollowState {
  std::string path;
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t position = 0;  // offset of the first byte not yet handed out as a line
  Signature signature;

  bool operator==(const FollowState&) const = default;
};

// Hash of the first min(maxBytes, file size) bytes of fd; nullopt on a read error.
std::optional<Signature> readSignature(int fd, std::uint32_t maxBytes);
// True when the first signature.length bytes of fd still hash to signature.hash.
bool signatureMatches(int fd, const Signature& signature);

// Writes the state to a temporary file beside statePath, syncs it and renames it over
// statePath, so a crash leaves either the old state or the new one. False (and errno
// set) on failure.
bool writeFollowState(const std::string& statePath, const FollowState& state);
// nullopt when the file is missing or not a state file this code wrote.
std::optional<FollowState> readFollowState(const std::string& statePath);

}  // namespace xrvlog
