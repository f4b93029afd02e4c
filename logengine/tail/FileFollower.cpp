#include "FileFollower.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

#include <algorithm>
#include <cstring>

namespace xrvlog {
namespace {

// Rotated-away files still open at once; beyond this the oldest is finished early.
constexpr std::size_t kMaxRetired = 4;

constexpr std::uint32_t kFileEvents = IN_MODIFY | IN_MOVE_SELF | IN_DELETE_SELF | IN_ATTRIB;
constexpr std::uint32_t kDirectoryEvents =
    IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ONLYDIR;

std::string directoryOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

// The name in dir whose inode is (device, inode), or an empty string.
std::string findByInode(const std::string& dir, std::uint64_t device, std::uint64_t inode) {
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) {
    return {};
  }
  std::string found;
  while (const dirent* entry = ::readdir(d)) {
    if (entry->d_ino != inode) {
      continue;
    }
    struct stat st {};
    const std::string candidate = dir + "/" + entry->d_name;
    if (::stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_dev == device &&
        st.st_ino == inode) {
      found = candidate;
      break;
    }
  }
  ::closedir(d);
  return found;
}

}  // namespace

struct FileFollower::OpenFile {
  OpenFile(std::size_t block, std::size_t maxLine) : lines(block, maxLine) {}

  int fd = -1;
  int watch = -1;
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t readPosition = 0;  // offset of the next read
  Signature signature;
  LineAssembler lines;
  Clock::time_point lastGrowth;
  // After a truncation: a writer that does not append keeps writing at its old offset
  // and leaves a hole of NUL bytes at the top, which is no log text.
  bool skipNuls = false;
};

FileFollower::FileFollower(FollowerOptions options, LineHandler handler)
    : options_(std::move(options)), handler_(std::move(handler)) {
  counting_ = [this](std::string_view line, unsigned flags) {
    ++stats_.lines;
    handler_(line, flags);
  };
  wakeFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (options_.useInotify) {
    inotifyFd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  }
  lastSave_ = Clock::now();
  start();
}

FileFollower::~FileFollower() {
  if (stateDirty_) {
    saveState();
  }
  for (auto& file : retired_) {
    closeFile(*file);
  }
  if (current_) {
    closeFile(*current_);
  }
  if (inotifyFd_ >= 0) {
    ::close(inotifyFd_);
  }
  if (wakeFd_ >= 0) {
    ::close(wakeFd_);
  }
}

bool FileFollower::following() const { return current_ != nullptr; }

void FileFollower::start() {
  watchDirectory();
  std::optional<FollowState> saved;
  if (!options_.statePath.empty()) {
    if (options_.eraseRestart) {
      ::unlink(options_.statePath.c_str());
    } else if (options_.start == StartMode::Tail || options_.start == StartMode::Resume) {
      saved = readFollowState(options_.statePath);
      if (saved && saved->path != options_.path) {
        saved.reset();
      }
    }
  }
  if (!saved) {
    // A file missing now is new when it appears: it is then read from its top.
    openCurrent(options_.start == StartMode::RestartFromTop || options_.start == StartMode::Resume);
    return;
  }
  struct stat st {};
  if (::stat(options_.path.c_str(), &st) == 0 && st.st_dev == saved->device &&
      st.st_ino == saved->inode) {
    if (openCurrent(true)) {
      if (st.st_size >= static_cast<off_t>(saved->position) &&
          signatureMatches(current_->fd, saved->signature)) {
        current_->readPosition = saved->position;
      } else {
        ++stats_.truncations;
      }
    }
    return;
  }
  // Rotated while we were down: finish the old file first if it is still beside it.
  const std::string old = findByInode(directoryOf(options_.path), saved->device, saved->inode);
  if (!old.empty()) {
    const int fd = ::open(old.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat ost {};
    if (fd >= 0 && ::fstat(fd, &ost) == 0 && ost.st_ino == saved->inode &&
        ost.st_size >= static_cast<off_t>(saved->position) &&
        signatureMatches(fd, saved->signature)) {
      auto file = std::make_unique<OpenFile>(options_.readBlockSize, options_.maxLineLength);
      file->fd = fd;
      file->device = ost.st_dev;
      file->inode = ost.st_ino;
      file->readPosition = saved->position;
      file->signature = saved->signature;
      file->lastGrowth = Clock::now();
      if (inotifyFd_ >= 0) {
        file->watch = ::inotify_add_watch(inotifyFd_, old.c_str(), kFileEvents);
      }
      ++stats_.opens;
      ++stats_.rotations;
      retired_.push_back(std::move(file));
    } else if (fd >= 0) {
      ::close(fd);
    }
  }
  openCurrent(true);
}

bool FileFollower::openCurrent(bool fromTop) {
  const int fd = ::open(options_.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    return false;
  }
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    return false;
  }
  auto file = std::make_unique<OpenFile>(options_.readBlockSize, options_.maxLineLength);
  file->fd = fd;
  file->device = st.st_dev;
  file->inode = st.st_ino;
  file->readPosition = fromTop ? 0 : static_cast<std::uint64_t>(st.st_size);
  file->signature = readSignature(fd, options_.signatureBytes).value_or(Signature{});
  file->lastGrowth = Clock::now();
  if (inotifyFd_ >= 0) {
    file->watch = ::inotify_add_watch(inotifyFd_, options_.path.c_str(), kFileEvents);
  }
  current_ = std::move(file);
  ++stats_.opens;
  stateDirty_ = true;
  return true;
}

void FileFollower::readAvailable(OpenFile& file) {
  for (;;) {
    const std::span<char> space = file.lines.writable();
    const ssize_t got =
        ::pread(file.fd, space.data(), space.size(), static_cast<off_t>(file.readPosition));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      return;
    }
    file.readPosition += static_cast<std::uint64_t>(got);
    file.lastGrowth = Clock::now();
    stats_.bytes += static_cast<std::uint64_t>(got);
    std::size_t text = static_cast<std::size_t>(got);
    if (file.skipNuls) {
      const std::size_t nuls = static_cast<std::size_t>(
          std::find_if(space.data(), space.data() + text, [](char c) { return c != '\0'; }) -
          space.data());
      file.skipNuls = nuls == text;
      text -= nuls;
      std::memmove(space.data(), space.data() + nuls, text);
    }
    file.lines.commit(text, counting_);
    stateDirty_ = true;
    if (static_cast<std::size_t>(got) < space.size()) {
      return;
    }
  }
}

void FileFollower::checkTruncation(OpenFile& file) {
  struct stat st {};
  if (::fstat(file.fd, &st) != 0) {
    return;
  }
  const auto size = static_cast<std::uint64_t>(st.st_size);
  if (size >= file.readPosition && signatureMatches(file.fd, file.signature)) {
    if (file.signature.length < options_.signatureBytes && size > file.signature.length) {
      file.signature = readSignature(file.fd, options_.signatureBytes).value_or(file.signature);
    }
    return;
  }
  // Truncated (copytruncate or in place): what was held belongs to the old contents.
  file.lines.flushPartial(counting_);
  file.readPosition = options_.restartAtEnd ? size : 0;
  file.skipNuls = !options_.restartAtEnd;
  file.signature = readSignature(file.fd, options_.signatureBytes).value_or(Signature{});
  ++stats_.truncations;
  stateDirty_ = true;
}

void FileFollower::retireCurrent() {
  // Whatever reached the old file up to now comes before the new file's first line.
  readAvailable(*current_);
  current_->lastGrowth = Clock::now();
  retired_.push_back(std::move(current_));
  ++stats_.rotations;
  if (retired_.size() > kMaxRetired) {
    finishRetired(0);
  }
}

void FileFollower::finishRetired(std::size_t index) {
  OpenFile& file = *retired_[index];
  readAvailable(file);
  file.lines.flushPartial(counting_);
  closeFile(file);
  retired_.erase(retired_.begin() + static_cast<std::ptrdiff_t>(index));
}

void FileFollower::closeFile(OpenFile& file) {
  if (file.watch >= 0 && inotifyFd_ >= 0) {
    ::inotify_rm_watch(inotifyFd_, file.watch);
  }
  file.watch = -1;
  if (file.fd >= 0) {
    ::close(file.fd);
  }
  file.fd = -1;
}

void FileFollower::watchDirectory() {
  if (inotifyFd_ >= 0 && directoryWatch_ < 0) {
    directoryWatch_ =
        ::inotify_add_watch(inotifyFd_, directoryOf(options_.path).c_str(), kDirectoryEvents);
  }
}

void FileFollower::drainInotify() {
  if (inotifyFd_ < 0) {
    return;
  }
  alignas(inotify_event) char buffer[4096];
  for (;;) {
    const ssize_t got = ::read(inotifyFd_, buffer, sizeof buffer);
    if (got <= 0) {
      break;
    }
    // The events only wake us: every pass checks the file and its name in full. The
    // directory watch is lost when the directory goes; look for it again.
    for (ssize_t at = 0; at < got;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      if (event->wd == directoryWatch_ && (event->mask & IN_IGNORED) != 0) {
        directoryWatch_ = -1;
      }
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
  watchDirectory();
}

void FileFollower::poll() {
  drainInotify();
  const auto now = Clock::now();
  for (std::size_t i = 0; i < retired_.size();) {
    readAvailable(*retired_[i]);
    if (now - retired_[i]->lastGrowth >= options_.rotatedFileGrace) {
      finishRetired(i);
    } else {
      ++i;
    }
  }
  if (current_) {
    checkTruncation(*current_);
    readAvailable(*current_);
    struct stat st {};
    struct stat own {};
    const bool named = ::stat(options_.path.c_str(), &st) == 0;
    const bool linked = ::fstat(current_->fd, &own) == 0 && own.st_nlink > 0;
    if (!named || !linked || st.st_dev != current_->device || st.st_ino != current_->inode) {
      retireCurrent();
    }
  }
  if (!current_ && openCurrent(!(options_.restartAtEnd && stats_.opens > 0))) {
    readAvailable(*current_);
  }
  file_.open = current_ != nullptr;
  if (current_) {
    struct stat st {};
    if (::fstat(current_->fd, &st) == 0) {
      file_.size = static_cast<std::uint64_t>(st.st_size);
      file_.modified = st.st_mtim.tv_sec;
    }
    file_.position = current_->readPosition - current_->lines.held();
  }
  if (stateDirty_ && !options_.statePath.empty() && now - lastSave_ >= options_.stateSaveInterval) {
    saveState();
  }
}

std::chrono::milliseconds FileFollower::nextTimeout() const {
  auto timeout = current_
                     ? options_.fileMonitorFrequency
                     : (directoryWatch_ >= 0
                            ? std::max(options_.fileMonitorFrequency, options_.fileExistTimeToWait)
                            : options_.fileExistTimeToWait);
  if (!retired_.empty()) {
    timeout = std::min(timeout, options_.rotatedFileGrace);
  }
  if (!options_.statePath.empty() && stateDirty_) {
    timeout = std::min(timeout, options_.stateSaveInterval);
  }
  return std::max(timeout, std::chrono::milliseconds(1));
}

bool FileFollower::wait(std::chrono::milliseconds maxWait) {
  if (stopped_.load()) {
    return false;
  }
  pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {inotifyFd_, POLLIN, 0}};
  const nfds_t count = inotifyFd_ >= 0 ? 2 : 1;
  const auto timeout = std::min(nextTimeout(), std::max(maxWait, std::chrono::milliseconds(0)));
  const int rc =
      ::poll(fds, count, static_cast<int>(std::min<std::int64_t>(timeout.count(), 1 << 30)));
  ++stats_.wakeups;
  if (rc > 0 && (fds[0].revents & POLLIN) != 0) {
    std::uint64_t drained = 0;
    [[maybe_unused]] const ssize_t r = ::read(wakeFd_, &drained, sizeof drained);
  }
  if (rc > 0 && inotifyFd_ >= 0 && (fds[1].revents & POLLIN) != 0) {
    // A burst of writes makes a burst of events; gather it into one pass.
    ::usleep(1000);
  }
  return !stopped_.load();
}

void FileFollower::run() {
  while (!stopped_.load()) {
    poll();
    if (!wait()) {
      break;
    }
  }
  poll();
  saveState();
}

void FileFollower::stop() {
  stopped_.store(true);
  wakeUp();
}

void FileFollower::wakeUp() {
  const std::uint64_t one = 1;
  if (wakeFd_ >= 0) {
    [[maybe_unused]] const ssize_t w = ::write(wakeFd_, &one, sizeof one);
  }
}

bool FileFollower::saveState() {
  lastSave_ = Clock::now();
  if (options_.statePath.empty() || !current_) {
    return true;
  }
  FollowState state;
  state.path = options_.path;
  state.device = current_->device;
  state.inode = current_->inode;
  state.position = current_->readPosition - current_->lines.held();
  state.signature = current_->signature;
  if (!writeFollowState(options_.statePath, state)) {
    ++stats_.stateWriteErrors;
    return false;
  }
  stateDirty_ = false;
  return true;
}

}  // namespace xrvlog
