// The syslog pipe: a FIFO that the syslog daemon (rsyslog, syslog-ng or a classic
// syslogd) writes every message to and the log engine reads as one more log source.
// Setting it up adds a marked block to the daemon's configuration file (after a
// backup) and tells the daemon to read its configuration again.

#include <fcntl.h>
#include <signal.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "framework/ReadFile.h"
#include "framework/Settings.h"
#include "logmon/format/OBVEmitter.h"
#include "logmon/format/QRFConfig.h"
#include "logmon/format/QRFReport.h"

namespace {

constexpr const char kPipeDirectory[] = "/tmp/.zelto/";
constexpr const char kBackupSuffix[] = ".zelto_backup";
constexpr const char kBlockStart[] = "# Zelto/Quorv syslog pipe START.";
constexpr const char kBlockEnd[] = "# Zelto/Quorv syslog pipe END.";

enum class SyslogKind { Rsyslog, SyslogNg, Syslogd };

struct SyslogConf {
  std::string path;  // with the root prefix
  SyslogKind kind;
};

// The configuration files looked for, in this order, and the pid files of their daemons.
struct KnownDaemon {
  const char* conf;
  SyslogKind kind;
  const char* pidFiles[3];
};
constexpr KnownDaemon kDaemons[] = {
    {"/etc/rsyslog.conf", SyslogKind::Rsyslog, {"/run/rsyslogd.pid", "/var/run/rsyslogd.pid", nullptr}},
    {"/etc/syslog-ng/syslog-ng.conf",
     SyslogKind::SyslogNg,
     {"/run/syslog-ng.pid", "/var/run/syslog-ng.pid", nullptr}},
    {"/etc/syslog.conf", SyslogKind::Syslogd, {"/run/syslogd.pid", "/var/run/syslogd.pid", "/etc/syslog.pid"}},
};

// The first configuration file of the list that exists under `root`.
bool findSyslogConf(const std::string& root, SyslogConf* found) {
  XRV_TRACE_FN();
  for (const KnownDaemon& daemon : kDaemons) {
    struct stat status {};
    const std::string path = root + daemon.conf;
    if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
      *found = {path, daemon.kind};
      XRV_TRACE_DETAIL("Found syslog configuration file %s", path.c_str());
      return true;
    }
  }
  return false;
}

// True when `text` holds a marked block that names `pipe`.
bool holdsBlockFor(const std::string& text, const std::string& pipe) {
  std::istringstream lines(text);
  std::string line;
  bool inBlock = false;
  while (std::getline(lines, line)) {
    if (line == kBlockStart) {
      inBlock = true;
    } else if (line == kBlockEnd) {
      inBlock = false;
    } else if (inBlock && line.find(pipe) != std::string::npos) {
      return true;
    }
  }
  return false;
}

std::string blockFor(SyslogKind kind, const std::string& pipe) {
  std::string block = std::string(kBlockStart) + "\n";
  if (kind == SyslogKind::SyslogNg) {
    block += qrf::format("destination zelall { pipe(\"%s\" owner(-1) group(-1) perm(-1)); };",
                         pipe.c_str()) +
             "\n" + "log { source(src); destination(zelall); };\n";
  } else {
    block += qrf::format("*.emerg;*.alert;*.crit;*.err;*.warning;*.notice;*.info\t|%s",
                         pipe.c_str()) +
             "\n";
  }
  return block + kBlockEnd + "\n";
}

// Writes all of `text` to `path` (replacing it); the bytes written.
size_t writeFile(const std::string& path, const std::string& text, int flags) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644);
  if (fd < 0) {
    return 0;
  }
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t n = write(fd, text.data() + written, text.size() - written);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      break;
    }
    written += static_cast<size_t>(n);
  }
  return close(fd) == 0 ? written : 0;
}

// Makes `directory` and the directories above it that are missing.
bool makeDirectories(const std::string& directory) {
  for (size_t slash = directory.find('/', 1); slash != std::string::npos;
       slash = directory.find('/', slash + 1)) {
    if (mkdir(directory.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) {
      return false;
    }
  }
  return mkdir(directory.c_str(), 0755) == 0 || errno == EEXIST;
}

// Sends SIGHUP to the daemon whose pid file is the first of `kind`'s that exists.
void restartSyslogd(const std::string& root, SyslogKind kind) {
  XRV_TRACE_FN();
  for (const KnownDaemon& daemon : kDaemons) {
    if (daemon.kind != kind) {
      continue;
    }
    std::string pidFile;
    FILE* file = nullptr;
    for (const char* candidate : daemon.pidFiles) {
      if (candidate != nullptr && file == nullptr) {
        pidFile = root + candidate;
        file = fopen(pidFile.c_str(), "re");
      }
    }
    if (file == nullptr) {
      pidFile = root + daemon.pidFiles[0];
      XRV_TRACE_ERROR("Can't open %s to find syslog pid; it must be restarted manually to monitor",
                      pidFile.c_str());
      return;
    }
    long pid = 0;
    if (fscanf(file, "%ld", &pid) != 1) {
      pid = 0;
    }
    fclose(file);
    if (pid < 2 || pid > INT32_MAX) {
      XRV_TRACE_ERROR("Read pid %d from %s, this is invalid, not restarting",
                      static_cast<int>(pid < 2 ? pid : -1), pidFile.c_str());
      return;
    }
    if (kill(static_cast<pid_t>(pid), SIGHUP) != 0) {
      XRV_TRACE_ERROR("Couldn't send SIGHUP to pid %d: %s", static_cast<int>(pid), strerror(errno));
      return;
    }
    XRV_TRACE_DETAIL("Successfully sent SIGHUP to pid %d", static_cast<int>(pid));
    return;
  }
}

}  // namespace

bool QRFConfig::setupSyslogPipe() {
  XRV_TRACE_FN();
  const XRV::SettingRead property = XRV::readSetting(
      XRV::Setting::ApplicationAutoInitSyslog,
      XRV_SETTING_HERE().forApplication(options_.applicationName.c_str()));
  const bool fromProperty = property.set && property.text != "USE_CONF_FILE_VALUE";
  const bool wanted = fromProperty ? (property.text[0] == 'y' || property.text[0] == 'Y')
                                   : emitter_ != nullptr && emitter_->getConfFlag("AutoInitSyslog");
  if (!wanted) {
    return false;
  }
  const std::string& root = options_.syslogRoot;
  const std::string directory = root + kPipeDirectory;
  syslogPipe_ = directory + options_.applicationName + "_" + options_.instanceName + ".pipe";
  if (options_.syslogDryRun) {
    QRF_WARN(confPath_, 0,
             "The syslog pipe %s is shown as the agent would set it up; the syslog configuration "
             "was not looked at",
             syslogPipe_.c_str());
    return true;
  }
  SyslogConf conf;
  if (!findSyslogConf(root, &conf)) {
    QRF_WARN(confPath_, 0, "No syslog configuration file found, not configuring syslog");
    return false;
  }
  std::string text;
  std::string problem;
  if (!readWholeFile(conf.path.c_str(), maxReadFileBytes(), &text, &problem)) {
    QRF_WARN(confPath_, 0, "Couldn't read %s (%s), not configuring syslog", conf.path.c_str(),
             problem.c_str());
    return false;
  }
  struct stat status {};
  // The directory is under /tmp: it must be ours, not a link someone else put there.
  if (!makeDirectories(directory) || lstat(directory.c_str(), &status) != 0 ||
      !S_ISDIR(status.st_mode) || status.st_uid != geteuid()) {
    QRF_WARN(confPath_, 0, "Couldn't create %s as a directory of this user, not configuring syslog",
             directory.c_str());
    return false;
  }
  if (mkfifo(syslogPipe_.c_str(), 0600) != 0 &&
      (errno != EEXIST || stat(syslogPipe_.c_str(), &status) != 0 || !S_ISFIFO(status.st_mode))) {
    QRF_WARN(confPath_, 0, "Couldn't create the FIFO %s: %s, not configuring syslog",
             syslogPipe_.c_str(), errno == EEXIST ? "something else has that name" : strerror(errno));
    return false;
  }
  if (holdsBlockFor(text, syslogPipe_)) {
    XRV_TRACE_DETAIL("Syslog already configured for this agent instance");
    return true;
  }
  const std::string backup = conf.path + kBackupSuffix;
  const size_t copied = writeFile(backup, text, O_TRUNC);
  if (copied != text.size()) {
    QRF_WARN(confPath_, 0,
             "Couldn't backup %s to %s (wrote %d bytes, expected %d), not configuring syslog",
             conf.path.c_str(), backup.c_str(), static_cast<int>(copied),
             static_cast<int>(text.size()));
    return false;
  }
  const std::string block =
      (text.empty() || text.back() == '\n' ? "" : "\n") + blockFor(conf.kind, syslogPipe_);
  if (writeFile(conf.path, block, O_APPEND) != block.size()) {
    QRF_WARN(confPath_, 0, "Couldn't append the syslog pipe block to %s, not configuring syslog",
             conf.path.c_str());
    return false;
  }
  XRV_TRACE_DETAIL("Added the syslog pipe %s to %s", syslogPipe_.c_str(), conf.path.c_str());
  restartSyslogd(root, conf.kind);
  return true;
}
