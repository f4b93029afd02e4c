// Command files of a session: uploaded over SFTP into the target's temp directory
// once per session (again when the local file changed), and removed with the
// target's delete command when the session ends and SSH_DELETE_FILE is on.

#include <fcntl.h>
#include <libssh/libssh.h>
#include <libssh/sftp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>

#include "framework/Trace.h"
#include "provider/PerfObject.h"
#include "sources/ssh/SshSession.h"

namespace {

// How long the removal of files may take when a session ends.
constexpr long long kDeleteMillis = 3000;

std::string baseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The remote path of a file uploaded as `name`.
std::string remotePath(const SshTarget& target, const std::string& name) {
  return target.tempDirectory + "/" + name;
}

// Makes `directory` and its missing parents (mode 0700); true when it is there.
bool makeRemoteDirectory(sftp_session sftp, const std::string& directory) {
  for (size_t slash = directory.find('/', 1); slash != std::string::npos;
       slash = directory.find('/', slash + 1)) {
    sftp_mkdir(sftp, directory.substr(0, slash).c_str(), 0700);  // there already: fine
  }
  sftp_mkdir(sftp, directory.c_str(), 0700);
  sftp_attributes attributes = sftp_stat(sftp, directory.c_str());
  const bool isDirectory = attributes != nullptr && attributes->type == SSH_FILEXFER_TYPE_DIRECTORY;
  sftp_attributes_free(attributes);
  return isDirectory;
}

// Writes `content` to `path` through a temporary name, so that a command running the
// old file never reads a half-written one.
bool writeRemoteFile(sftp_session sftp, const std::string& path, const std::string& content) {
  // Two sessions to one host may upload the same file at once: each its own name.
  static std::atomic<unsigned> uploads{0};
  const std::string partial =
      path + ".partial." + std::to_string(getpid()) + "." + std::to_string(++uploads);
  sftp_file file = sftp_open(sftp, partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0700);
  if (file == nullptr) {
    return false;
  }
  size_t written = 0;
  while (written < content.size()) {
    const ssize_t n = sftp_write(file, content.data() + written,
                                 std::min<size_t>(content.size() - written, 32768));
    if (n <= 0) {
      sftp_close(file);
      sftp_unlink(sftp, partial.c_str());
      return false;
    }
    written += static_cast<size_t>(n);
  }
  if (sftp_close(file) != SSH_OK) {
    return false;
  }
  sftp_chmod(sftp, partial.c_str(), 0700);  // sftp_open's mode does not apply to old files
  if (sftp_rename(sftp, partial.c_str(), path.c_str()) == SSH_OK) {
    return true;
  }
  // SFTP version 3 does not rename over an existing file.
  sftp_unlink(sftp, path.c_str());
  return sftp_rename(sftp, partial.c_str(), path.c_str()) == SSH_OK;
}

}  // namespace

SshOutcome SshSession::uploadCommandFiles(const std::vector<std::string>& files,
                                          const SshDeadline& deadline) {
  XRV_TRACE_FN();
  const SshTarget& target = *target_;
  std::vector<std::pair<std::string, Uploaded>> pending;
  for (const std::string& file : files) {
    struct stat status {};
    if (stat(file.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
      return SshOutcome::failure(
          SCRIPT_NOT_FOUND, "the command file " + file + " cannot be read on the agent's host");
    }
    Uploaded local;
    local.size = status.st_size;
    local.modified =
        static_cast<long long>(status.st_mtim.tv_sec) * 1000000000LL + status.st_mtim.tv_nsec;
    auto known = uploaded_.find(baseName(file));
    if (known == uploaded_.end() || known->second.size != local.size ||
        known->second.modified != local.modified) {
      pending.emplace_back(file, local);
    }
  }
  if (pending.empty()) {
    return {};
  }
  limitBlockingCalls(deadline);
  sftp_session sftp = sftp_new(session_);
  if (sftp == nullptr || sftp_init(sftp) != SSH_OK) {
    if (sftp != nullptr) {
      sftp_free(sftp);
    }
    return libsshFailure(CONNECTION_FAILURE,
                         "cannot upload command files to " + target.describe() + " over SFTP",
                         deadline);
  }
  SshOutcome outcome;
  if (!makeRemoteDirectory(sftp, target.tempDirectory)) {
    outcome = libsshFailure(
        CONNECTION_FAILURE,
        "cannot make the directory " + target.tempDirectory + " on " + target.describe(), deadline);
  }
  for (const auto& [file, local] : pending) {
    if (!outcome.ok()) {
      break;
    }
    std::ifstream in(file, std::ios::binary);
    const std::string content{std::istreambuf_iterator<char>(in), {}};
    if (!in.good() && !in.eof()) {
      outcome = SshOutcome::failure(
          SCRIPT_NOT_FOUND, "the command file " + file + " cannot be read on the agent's host");
    } else if (!writeRemoteFile(sftp, remotePath(target, baseName(file)), content)) {
      outcome = libsshFailure(CONNECTION_FAILURE,
                              "cannot upload " + file + " to " +
                                  remotePath(target, baseName(file)) + " on " + target.describe(),
                              deadline);
    } else {
      uploaded_[baseName(file)] = local;
      XRV_TRACE_DETAIL("Uploaded command file %s to %s on %s", file.c_str(),
                       remotePath(target, baseName(file)).c_str(), target.describe().c_str());
    }
  }
  sftp_free(sftp);
  return outcome;
}

void SshSession::close() {
  XRV_TRACE_FN();
  if (!target_->deleteFiles || uploaded_.empty() || !usable()) {
    return;
  }
  std::string command = target_->deleteCommand;
  for (const auto& entry : uploaded_) {
    command += " " + shellQuoted(remotePath(*target_, entry.first));
  }
  const std::atomic<bool> never{false};
  SshCommandOutput output;
  const SshOutcome outcome =
      run(command, SshDeadline(std::chrono::milliseconds(kDeleteMillis)), never, 1 << 20, &output);
  if (!outcome.ok() || output.exitStatus != 0) {
    XRV_TRACE_ERROR("Removing the command files from %s failed (%s): %s %s",
                    target_->describe().c_str(), outcome.message.c_str(), command.c_str(),
                    output.err.c_str());
  }
  uploaded_.clear();
}
