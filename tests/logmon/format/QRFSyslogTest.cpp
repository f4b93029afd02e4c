// The syslog pipe, set up in a temporary tree that stands in for the machine: its
// configuration files, pid files and pipe directory. A child process of the test
// plays the daemon that is told to reread its configuration.

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "FormatTestSupport.h"
#include "support/Files.h"
#include "support/TempDirectory.h"
#include "support/TraceCapture.h"

namespace {

using XRV::testing::FormatTest;
using XRV::testing::generate;
using XRV::testing::Generated;
using XRV::testing::oneFormat;
using XRV::testing::readFile;
using XRV::testing::TempDirectory;
using XRV::testing::TraceCapture;

const std::string kFormat = oneFormat("%s", "  v = $1\n");
const std::string kStart = "# Zelto/Quorv syslog pipe START.";
const std::string kEnd = "# Zelto/Quorv syslog pipe END.";

// A child process in the place of the syslog daemon: it waits for SIGHUP and tells
// the test through a pipe when one came.
class FakeDaemon {
 public:
  FakeDaemon() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
      return;
    }
    // Blocked before the fork, so that a signal sent at once waits for sigwait.
    sigset_t hangup;
    sigemptyset(&hangup);
    sigaddset(&hangup, SIGHUP);
    sigset_t old;
    pthread_sigmask(SIG_BLOCK, &hangup, &old);
    pid_ = fork();
    if (pid_ == 0) {
      int signal = 0;
      sigwait(&hangup, &signal);
      const char got = 'H';
      (void)!write(fds[1], &got, 1);
      _exit(0);
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    close(fds[1]);
    fd_ = fds[0];
  }
  ~FakeDaemon() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;

  pid_t pid() const { return pid_; }
  bool gotHangup(int milliseconds) const {
    pollfd ready{fd_, POLLIN, 0};
    char got = 0;
    return poll(&ready, 1, milliseconds) == 1 && read(fd_, &got, 1) == 1 && got == 'H';
  }

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
};

class QRFSyslogTest : public FormatTest {
 protected:
  void write(const std::string& relative, const std::string& text) {
    const std::filesystem::path path = root_.path() + relative;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << text;
  }
  Generated setUp(const std::string& conf, const std::string& instance = "inst1",
                  bool dryRun = false) {
    QRFOptions options;
    options.instanceName = instance;
    options.syslogRoot = root_.path();
    options.syslogDryRun = dryRun;
    return generate("LogSources=/l\n" + conf, kFormat, options);
  }
  std::string pipe(const std::string& instance = "inst1") const {
    return root_.path() + "/tmp/.zelto/XRV_" + instance + ".pipe";
  }
  static int count(const std::string& text, const std::string& line) {
    int found = 0;
    for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) {
      ++found;
    }
    return found;
  }

  TempDirectory root_;
};

TEST_F(QRFSyslogTest, RsyslogGetsOneBlockPerInstanceAndIsToldToRereadIt) {
  const std::string original = "*.* /var/log/all";
  write("/etc/rsyslog.conf", original);
  FakeDaemon daemon;
  write("/run/rsyslogd.pid", std::to_string(daemon.pid()) + "\n");
  {
    TraceCapture trace;
    Generated generated = setUp("AutoInitSyslog=yes");
    ASSERT_NE(generated.config->getSyslogPipeName(), nullptr);
    EXPECT_EQ(generated.config->getSyslogPipeName(), pipe());
    struct stat status {};
    ASSERT_EQ(stat(pipe().c_str(), &status), 0);
    EXPECT_TRUE(S_ISFIFO(status.st_mode));
    EXPECT_EQ(readFile(root_.path() + "/etc/rsyslog.conf"),
              original + "\n" + kStart + "\n*.emerg;*.alert;*.crit;*.err;*.warning;*.notice;*.info\t|" +
                  pipe() + "\n" + kEnd + "\n");
    EXPECT_EQ(readFile(root_.path() + "/etc/rsyslog.conf.zelto_backup"), original);
    EXPECT_TRUE(daemon.gotHangup(5000));
    EXPECT_TRUE(trace.hasText("Successfully sent SIGHUP to pid " + std::to_string(daemon.pid())));
    EXPECT_EQ(generated.lines("//SOURCE FILE '" + pipe()),
              std::vector<std::string>{"//SOURCE FILE '" + pipe() + "' UNMATCHLOG='' codepage=" +
                                       generated.config->getCodePageName() +
                                       " CompareByAllMatches FileMonitorFrequency=5"});
  }
  {
    TraceCapture trace;
    Generated again = setUp("AutoInitSyslog=yes");
    EXPECT_EQ(again.config->getSyslogPipeName(), pipe());
    EXPECT_TRUE(trace.hasText("Syslog already configured for this agent instance"));
    EXPECT_FALSE(trace.containsText("SIGHUP"));
    EXPECT_EQ(count(readFile(root_.path() + "/etc/rsyslog.conf"), kStart), 1);
  }
  Generated other = setUp("AutoInitSyslog=yes", "inst2");
  EXPECT_EQ(other.config->getSyslogPipeName(), pipe("inst2"));
  const std::string conf = readFile(root_.path() + "/etc/rsyslog.conf");
  EXPECT_EQ(count(conf, kStart), 2);
  EXPECT_EQ(count(conf, pipe("inst2")), 1);
}

TEST_F(QRFSyslogTest, SyslogNgGetsADestinationAndALogStatement) {
  write("/etc/syslog-ng/syslog-ng.conf", "@version: 4.3\n");
  write("/etc/syslog.conf", "not this one\n");
  TraceCapture trace;
  Generated generated = setUp("AutoInitSyslog=Y");
  EXPECT_EQ(readFile(root_.path() + "/etc/syslog-ng/syslog-ng.conf"),
            "@version: 4.3\n" + kStart + "\ndestination zelall { pipe(\"" + pipe() +
                "\" owner(-1) group(-1) perm(-1)); };\nlog { source(src); destination(zelall); };\n" +
                kEnd + "\n");
  EXPECT_EQ(readFile(root_.path() + "/etc/syslog.conf"), "not this one\n");
  // Without a pid file the pipe is there all the same; the daemon needs a restart.
  EXPECT_TRUE(trace.hasText("Can't open " + root_.path() +
                            "/run/syslog-ng.pid to find syslog pid; it must be restarted manually "
                            "to monitor"));
  EXPECT_EQ(generated.config->getSyslogPipeName(), pipe());
}

TEST_F(QRFSyslogTest, APidBelowTwoIsNotSignalled) {
  write("/etc/syslog.conf", "");
  write("/etc/syslog.pid", "1\n");
  TraceCapture trace;
  Generated generated = setUp("AutoInitSyslog=yes");
  EXPECT_TRUE(trace.hasText("Read pid 1 from " + root_.path() +
                            "/etc/syslog.pid, this is invalid, not restarting"));
  EXPECT_EQ(readFile(root_.path() + "/etc/syslog.conf"),
            kStart + "\n*.emerg;*.alert;*.crit;*.err;*.warning;*.notice;*.info\t|" + pipe() + "\n" +
                kEnd + "\n");
}

TEST_F(QRFSyslogTest, WhenThePipeIsLeftOut) {
  struct Case {
    const char* why;
    const char* conf;
    const char* property;  // XRV_AUTO_INIT_SYSLOG
    bool configFile;       // an rsyslog.conf exists
    const char* text;      // a diagnostic; "" for none
  } cases[] = {
      {"not asked for", "", nullptr, true, ""},
      {"asked not to", "AutoInitSyslog=no", nullptr, true, ""},
      {"the property says no", "AutoInitSyslog=yes", "N", true, ""},
      {"no configuration file", "AutoInitSyslog=yes", nullptr, false,
       "No syslog configuration file found, not configuring syslog"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    std::filesystem::remove_all(root_.path() + "/etc");
    if (c.configFile) {
      write("/etc/rsyslog.conf", "x\n");
    }
    if (c.property != nullptr) {
      setConfigurationProperty("XRV_AUTO_INIT_SYSLOG", c.property);
    }
    TraceCapture trace;
    Generated generated = setUp(c.conf);
    EXPECT_EQ(generated.config->getSyslogPipeName(), nullptr);
    EXPECT_TRUE(trace.hasText("No syslog pipe configured, not adding to MDL"));
    EXPECT_EQ(generated.lines("//SOURCE FILE").size(), 1u);
    EXPECT_EQ(*c.text == '\0', !generated.hasDiagnostic(c.text));
    if (c.configFile) {
      EXPECT_EQ(readFile(root_.path() + "/etc/rsyslog.conf"), "x\n");
    }
    setConfigurationProperty("XRV_AUTO_INIT_SYSLOG", nullptr);
  }
  EXPECT_FALSE(std::filesystem::exists(root_.path() + "/tmp/.zelto"));
}

TEST_F(QRFSyslogTest, ThePropertyCanAskForThePipe) {
  write("/etc/rsyslog.conf", "");
  setConfigurationProperty("XRV_AUTO_INIT_SYSLOG", "Yes");
  EXPECT_EQ(setUp("AutoInitSyslog=no").config->getSyslogPipeName(), pipe());
  setConfigurationProperty("XRV_AUTO_INIT_SYSLOG", "USE_CONF_FILE_VALUE");
  EXPECT_EQ(setUp("AutoInitSyslog=no").config->getSyslogPipeName(), nullptr);
}

TEST_F(QRFSyslogTest, AFailedBackupLeavesTheConfigurationAlone) {
  write("/etc/rsyslog.conf", "abc\n");
  std::filesystem::create_directories(root_.path() + "/etc/rsyslog.conf.zelto_backup");
  TraceCapture trace;
  Generated generated = setUp("AutoInitSyslog=yes");
  EXPECT_TRUE(trace.hasText("Couldn't backup " + root_.path() + "/etc/rsyslog.conf to " +
                            root_.path() +
                            "/etc/rsyslog.conf.zelto_backup (wrote 0 bytes, expected 4), not "
                            "configuring syslog"));
  EXPECT_EQ(generated.config->getSyslogPipeName(), nullptr);
  EXPECT_EQ(readFile(root_.path() + "/etc/rsyslog.conf"), "abc\n");
}

TEST_F(QRFSyslogTest, ADryRunTouchesNothing) {
  write("/etc/rsyslog.conf", "abc\n");
  Generated generated = setUp("AutoInitSyslog=yes", "inst1", true);
  EXPECT_EQ(generated.config->getSyslogPipeName(), pipe());
  EXPECT_EQ(generated.lines("//SOURCE FILE '" + pipe()).size(), 1u);
  EXPECT_FALSE(std::filesystem::exists(root_.path() + "/tmp"));
  EXPECT_EQ(readFile(root_.path() + "/etc/rsyslog.conf"), "abc\n");
  ASSERT_FALSE(generated.config->diagnostics().empty());
  EXPECT_FALSE(generated.config->diagnostics().front().error);
}

}  // namespace
