#include "FollowState.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <charconv>
#include <fstream>
#include <sstream>
#include <vector>

namespace xrvlog {
namespace {

constexpr const char* kHeader = "xrvlog-tail 1";

std::uint64_t fnv1a(const char* data, std::size_t n) {
  std::uint64_t h = 1469598103934665603ULL;
  for (std::size_t i = 0; i < n; ++i) {
    h ^= static_cast<unsigned char>(data[i]);
    h *= 1099511628211ULL;
  }
  return h;
}

// Reads up to n bytes at offset 0; returns the count read or -1.
ssize_t readHead(int fd, char* buffer, std::size_t n) {
  std::size_t got = 0;
  while (got < n) {
    const ssize_t r = ::pread(fd, buffer + got, n - got, static_cast<off_t>(got));
    if (r < 0) {
      if (errno == EINTR) {
        continue;
      }
      return -1;
    }
    if (r == 0) {
      break;
    }
    got += static_cast<std::size_t>(r);
  }
  return static_cast<ssize_t>(got);
}

bool writeAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t w = ::write(fd, text.data() + done, text.size() - done);
    if (w < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    done += static_cast<std::size_t>(w);
  }
  return true;
}

std::string directoryOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

std::optional<Signature> readSignature(int fd, std::uint32_t maxBytes) {
  std::vector<char> buffer(maxBytes);
  const ssize_t got = readHead(fd, buffer.data(), maxBytes);
  if (got < 0) {
    return std::nullopt;
  }
  return Signature{static_cast<std::uint32_t>(got),
                   fnv1a(buffer.data(), static_cast<std::size_t>(got))};
}

bool signatureMatches(int fd, const Signature& signature) {
  if (signature.length == 0) {
    return true;
  }
  char stackBuffer[512];
  std::vector<char> heap;
  char* buffer = stackBuffer;
  if (signature.length > sizeof stackBuffer) {
    heap.resize(signature.length);
    buffer = heap.data();
  }
  const ssize_t got = readHead(fd, buffer, signature.length);
  return got == static_cast<ssize_t>(signature.length) &&
         fnv1a(buffer, signature.length) == signature.hash;
}

bool writeFollowState(const std::string& statePath, const FollowState& state) {
  std::ostringstream text;
  text << kHeader << '\n'
       << state.path << '\n'
       << state.device << ' ' << state.inode << ' ' << state.position << ' '
       << state.signature.length << ' ' << state.signature.hash << '\n';
  const std::string temporary = statePath + ".tmp";
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    return false;
  }
  const bool written = writeAll(fd, text.str()) && ::fsync(fd) == 0;
  const int savedErrno = errno;
  ::close(fd);
  if (!written || ::rename(temporary.c_str(), statePath.c_str()) != 0) {
    const int failure = written ? errno : savedErrno;
    ::unlink(temporary.c_str());
    errno = failure;
    return false;
  }
  // Make the rename itself durable.
  const int dir = ::open(directoryOf(statePath).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
  return true;
}

std::optional<FollowState> readFollowState(const std::string& statePath) {
  std::ifstream in(statePath);
  std::string header;
  FollowState state;
  std::string numbers;
  if (!std::getline(in, header) || header != kHeader || !std::getline(in, state.path) ||
      !std::getline(in, numbers)) {
    return std::nullopt;
  }
  std::uint64_t fields[5];
  const char* p = numbers.data();
  const char* const end = p + numbers.size();
  for (auto& field : fields) {
    while (p < end && *p == ' ') {
      ++p;
    }
    const auto [next, ec] = std::from_chars(p, end, field);
    if (ec != std::errc()) {
      return std::nullopt;
    }
    p = next;
  }
  if (p != end || fields[3] > (1U << 20)) {
    return std::nullopt;
  }
  state.device = fields[0];
  state.inode = fields[1];
  state.position = fields[2];
  state.signature = Signature{static_cast<std::uint32_t>(fields[3]), fields[4]};
  return state;
}

}  // namespace xrvlog
