#include "framework/ReadFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "framework/Settings.h"

namespace {

std::string describe(const char* path, const char* what) { return std::string(path) + what; }

// Closes the descriptor when the read is over, whichever way.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

size_t maxReadFileBytes() {
  return static_cast<size_t>(XRV::settingNumber(XRV::Setting::MaxFileMb));
}

bool readWholeFile(const char* path, size_t maxBytes, std::string* contents,
                   std::string* problem) {
  if (path == nullptr) {
    *problem = "no file named";
    return false;
  }
  // Non-blocking, so that opening a FIFO does not wait for a writer to come.
  FileDescriptor file(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (file.get() < 0) {
    *problem = describe(path, ": cannot open: ") + strerror(errno);
    return false;
  }
  struct stat status {};
  if (fstat(file.get(), &status) != 0) {
    *problem = describe(path, ": cannot read: ") + strerror(errno);
    return false;
  }
  if (S_ISDIR(status.st_mode)) {
    *problem = describe(path, " is a directory, not a file");
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    *problem = describe(path, " is not a regular file (a FIFO, device or socket)");
    return false;
  }
  if (static_cast<unsigned long long>(status.st_size) > maxBytes) {
    *problem = describe(path, " is larger than ") + std::to_string(maxBytes / (1024 * 1024)) +
               " MB (" + std::to_string(static_cast<long long>(status.st_size)) + " bytes)";
    return false;
  }
  contents->clear();
  contents->resize(static_cast<size_t>(status.st_size));
  size_t used = 0;
  for (;;) {
    if (used == contents->size()) {
      // The file may have grown since fstat: read on, up to the limit.
      if (contents->size() > maxBytes) {
        *problem = describe(path, " grew beyond the size limit while it was read");
        return false;
      }
      contents->resize(contents->size() + 4096);
    }
    const ssize_t n = read(file.get(), contents->data() + used, contents->size() - used);
    if (n == 0) {
      break;
    }
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      *problem = describe(path, ": cannot read: ") + strerror(errno);
      return false;
    }
    used += static_cast<size_t>(n);
  }
  contents->resize(used);
  return true;
}
