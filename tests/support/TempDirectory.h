#pragma once

// TempDirectory: a directory of a test's own under /tmp, removed with what it holds,
// and files in it written as a program writing a log would.

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace XRV::testing {

class TempDirectory {
 public:
  // `prefix`: the start of the directory's path; six random characters follow.
  explicit TempDirectory(const std::string& prefix = "/tmp/xrv-test-") {
    std::string pattern = prefix + "XXXXXX";
    path_ = mkdtemp(pattern.data()) == nullptr ? "" : pattern;
  }
  ~TempDirectory() {
    std::error_code ignored;
    if (!path_.empty()) {
      std::filesystem::remove_all(path_, ignored);
    }
  }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  // Appends `text` to the file `name` (made when missing) in one write, as a logger
  // does: a reader sees all of it or none. False when that failed.
  bool append(const std::string& name, const std::string& text) const {
    const int fd = open(file(name).c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
      return false;
    }
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return close(fd) == 0 && written;
  }

 private:
  std::string path_;
};

}  // namespace XRV::testing
