// The conf keys of format-file mode and the MDL text around the filters: header,
// sources, limits, code pages, DEFAULT slots, and the errors of the two files.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "FormatTestSupport.h"
#include "framework/FwLocale.h"
#include "support/TempDirectory.h"
#include "support/TraceCapture.h"

namespace {

using XRV::testing::FormatTest;
using XRV::testing::generate;
using XRV::testing::Generated;
using XRV::testing::oneFormat;
using XRV::testing::TempDirectory;
using XRV::testing::TraceCapture;

const std::string kFormat = oneFormat("%s", "  v = $1\n");

class QRFConfigTest : public FormatTest {};

TEST_F(QRFConfigTest, TheWholeText) {
  QRFOptions options;
  options.applicationName = "Shop";
  Generated generated = generate(
      "LogSources=/var/log/a.log\nNO_UTF8_CONVERSION=YES\nProcessMaxCpuPct=30\nEventMaxSize=4000",
      "format A\n  pattern %s\n  x = $1\nend\nformat B\n  pattern id %s%n%s*\n  y = $2\nend\n",
      options, 0, "LZ", "Shop_Events");
  ASSERT_EQ(generated.config->getError(), 0);
  EXPECT_EQ(generated.mdl(),
            "//APPL Shop_LZ ProcessMax=30\n"
            "//NAME Shop_Events E MaximumAttributeSize=4000\n"
            "//SOURCE FILE '/var/log/a.log' TAIL UNMATCHLOG='' CompareByAllMatches "
            "codepage=UTF-8 FileMonitorFrequency=5 FileExistTimeToWait=30\n"
            "//RECORDSET  END(0,regex,(?m)^()[ \t]*id +(\\S+)\\r?\\n)\n"
            "//ATTRIBUTES NEWLINE\n"
            "OBVEvent Z 4000 +FILTER={ScanRegEx(0,^()[ \t]*id +(\\S+)\\r?\\n(.*)[ \t]*()$,"
            "REPLACEFIRST(1#\x01y\x04\x02$3\x03)) OR ScanRegEx(0,^()[ \t]*(\\S+)[ \t]*()$,"
            "REPLACEFIRST(0#\x01x\x04\x02$2\x03))} @Generated WSK Event\n"
            "RemoteHost H 64 @Name of host where event originated, if not local\n");
  EXPECT_TRUE(generated.config->diagnostics().empty());
}

TEST_F(QRFConfigTest, LimitsAreClamped) {
  struct Case {
    const char* conf;
    const char* expected;  // a piece of the MDL text
    const char* trace;     // "" for none
  } cases[] = {
      {"EventMaxSize=10", "MaximumAttributeSize=1024\n",
       "EventMaxSize of 10 is too small, resetting to minimum value of 1024"},
      {"EventMaxSize=1024", "OBVEvent Z 1024 ", ""},
      {"EventMaxSize=100001", "OBVEvent Z 100000 ",
       "EventMaxSize of 100001 exceeds maximum, resetting to 100000"},
      {"", "OBVEvent Z 2048 ", ""},
      {"NewFilePollInterval=1", " FileExistTimeToWait=30\n", ""},
      {"NewFilePollInterval=45", " FileExistTimeToWait=45\n", ""},
      {"NewFilePollInterval=99999", " FileExistTimeToWait=32767\n", ""},
      {"ProcessMaxCpuPct=1", "//APPL XRV_none ProcessMax=5\n",
       "CPU throttling percent below the minimum value, using 5"},
      {"ProcessMaxCpuPct=4", "//APPL XRV_none ProcessMax=5\n", ""},
      {"ProcessMaxCpuPct=5", "//APPL XRV_none ProcessMax=5\n", ""},
      {"ProcessMaxCpuPct=150", "//APPL XRV_none ProcessMax=100\n", ""},
      {"ProcessMaxCpuPct=0", "//APPL XRV_none\n", ""},
      {"PollInterval=7", " FileMonitorFrequency=7 ", "Using poll interval of 7"},
      {"", " FileMonitorFrequency=5 ", "Using poll interval of 5"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.conf);
    TraceCapture trace;
    Generated generated = generate(std::string("LogSources=/l\n") + c.conf, kFormat);
    EXPECT_NE(generated.mdl().find(c.expected), std::string::npos) << generated.mdl();
    if (*c.trace != '\0') {
      EXPECT_TRUE(trace.hasText(c.trace));
    }
  }
  // The configuration property wins over the conf key.
  setConfigurationProperty("PROCESS_MAX_CPU_PCT", "2");
  Generated generated = generate("LogSources=/l\nProcessMaxCpuPct=50", kFormat);
  EXPECT_EQ(generated.config->getCpuLimit(), 5);
}

TEST_F(QRFConfigTest, LogSources) {
  struct Case {
    const char* conf;
    int catchUp;
    std::vector<std::string> sources;  // the //SOURCE FILE lines, up to UNMATCHLOG
  } cases[] = {
      {"LogSources=/var/log/a.log, /var/log/app*.log,,/var/log/it's.log",
       0,
       {"//SOURCE FILE '/var/log/a.log' TAIL", "//SOURCE FILE REGEX='/var/log/^app.*\\.log$' TAIL",
        "//SOURCE FILE '/var/log/it''s.log' TAIL"}},
      {"RegexLogSources=/var/log/^x{1,3}$,/var/log/(a|b)/^c\\.log$", -1,
       {"//SOURCE FILE REGEX='/var/log/^x{1,3}$'", "//SOURCE FILE REGEX='/var/log/(a|b)/^c\\.log$'"}},
      {"StrictRegexLogSources=/var/log/app[0-9]*\\.log", 5,
       {"//SOURCE FILE REGEXSTRICT='/var/log/app[0-9]*\\.log' TAIL"}},
      {"LogSources=/l\nRestartFrom=end\nEraseRestart=yes", 0,
       {"//SOURCE FILE '/l' TAIL RESTARTFROMEND EraseRestart=Y"}},
      {"LogSources=/l\nRestartFrom=Top", 0, {"//SOURCE FILE '/l' TAIL RESTARTFROMTOP"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.conf);
    TraceCapture trace;
    Generated generated = generate(c.conf, kFormat, {}, c.catchUp);
    std::vector<std::string> found;
    for (const std::string& line : generated.lines("//SOURCE FILE ")) {
      found.push_back(line.substr(0, line.find(" UNMATCHLOG=")));
    }
    EXPECT_EQ(found, c.sources);
    if (std::string(c.conf).find("app*.log") != std::string::npos) {
      EXPECT_TRUE(trace.hasText("Filename '/var/log/app*.log' contains wildcard, converting to REGEX"));
    }
  }
}

TEST_F(QRFConfigTest, SourceOptions) {
  Generated generated = generate(
      "LogSources=/l\nUnmatchLog=/var/log/un'matched\nFileComparisonMode=comparebysize\n"
      "PollInterval=9\ncodepage=819\nNewFilePollInterval=60",
      kFormat);
  char name[64];
  ASSERT_TRUE(fwCodePageName(819, name, sizeof name));
  EXPECT_EQ(generated.lines("//SOURCE FILE "),
            std::vector<std::string>{"//SOURCE FILE '/l' TAIL UNMATCHLOG='/var/log/un''matched' "
                                     "CompareBySize codepage=" +
                                     std::string(name) +
                                     " FileMonitorFrequency=9 FileExistTimeToWait=60"});
  TraceCapture trace;
  generated = generate("LogSources=/l\nFileComparisonMode=CompareByName", kFormat);
  EXPECT_NE(generated.mdl().find(" CompareByAllMatches "), std::string::npos);
  EXPECT_TRUE(generated.hasDiagnostic(
      "WARNING: unknown FileComparisonMode 'CompareByName', using CompareByAllMatches"));
  generated = generate("", kFormat);
  EXPECT_TRUE(trace.hasText(
      "No LogSources found in conf file test.conf, and syslog not configured, nothing to monitor"));
  EXPECT_TRUE(generated.lines("//SOURCE FILE").empty());
}

TEST_F(QRFConfigTest, RemoteSourcesOverSsh) {
  setConfigurationProperty("SSH_USERID", "alice");
  Generated generated = generate(
      "LogSources=/l\nSshHostList=localhost, web2 ,db'1\nSshPort=2222\nSshUserid=bob\n"
      "SshPrivKeyfile=/k/id",
      kFormat);
  const std::vector<std::string> lines = generated.lines("//SOURCE FILE ");
  ASSERT_EQ(lines.size(), 3u);
  const std::string remote = " RemoteLog=Y SSH_HOSTNAME='web2' SSH_PORT='2222' "
                             "SSH_USERID='alice' SSH_PRIV_KEYFILE='/k/id'";
  EXPECT_EQ(lines[0].find("RemoteLog"), std::string::npos);
  EXPECT_EQ(lines[1].substr(lines[1].size() - remote.size()), remote);
  EXPECT_NE(lines[2].find(" SSH_HOSTNAME='db''1' "), std::string::npos);
}

TEST_F(QRFConfigTest, CodePages) {
  struct Case {
    const char* conf;
    int id;  // 0: the native one
    const char* trace;
  } cases[] = {
      {"NO_UTF8_CONVERSION=YES", 1208, ""},
      {"NO_UTF8_CONVERSION=no", 0, ""},
      {"codepage=1252\nNO_UTF8_CONVERSION=YES", 1252, ""},
      {"codepage=99999", 0,
       "Error: invalid codepage id: 99999 from: 99999.  Defaulting to native encoding."},
      {"codepage=no-such-page", 0,
       "Error: invalid codepage id: 0 from: no-such-page.  Defaulting to native encoding."},
  };
  int problem = 0;
  const FwLocale* native = fwGetProcessLocale(&problem);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.conf);
    TraceCapture trace;
    Generated generated = generate(std::string("LogSources=/l\n") + c.conf, kFormat);
    const QRFConfig& config = *generated.config;
    if (c.id != 0) {
      EXPECT_EQ(config.getCodePageId(), c.id);
    } else if (problem == 0) {
      EXPECT_EQ(config.getCodePageId(), native->codePageId);
      EXPECT_STREQ(config.getCodePageName(), native->codePage);
    }
    EXPECT_NE(generated.mdl().find(std::string(" codepage=") + config.getCodePageName() + " "),
              std::string::npos);
    if (*c.trace != '\0') {
      EXPECT_TRUE(trace.hasText(c.trace));
    }
  }
}

TEST_F(QRFConfigTest, DefaultSlots) {
  struct Case {
    const char* why;
    const char* conf;
    const char* hostName;  // CTAFW_HOSTNAME
    const char* address;   // CDP_IP_ADDR
    const char* slot;
    const char* value;
  } cases[] = {
      {"configured host name", "", "web01", "", "hostname", "web01"},
      {"no domain", "", "web01", "", "fqhostname", ""},
      {"domain no", "FQDomain=no", "web01", "", "fqhostname", ""},
      {"a domain of its own", "FQDomain=example.com", "web01", "", "fqhostname",
       "web01.example.com"},
      {"already qualified", "FQDomain=example.com", "web01.corp", "", "fqhostname", "web01.corp"},
      {"resolved", "FQDomain=yes", "localhost", "", "fqhostname", "localhost"},
      {"configured address", "", "web01", "192.0.2.10", "origin", "192.0.2.10"},
      {"resolved address", "", "localhost", "", "origin", "127.0.0.1"},
      {"remote host", "", "web01", "", "RemoteHost", "%XRV_REMHOST%"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    resetConfigurationForTesting();
    setConfigurationProperty("CTAFW_HOSTNAME", c.hostName);
    if (*c.address != '\0') {
      setConfigurationProperty("CDP_IP_ADDR", c.address);
    }
    Generated generated = generate(c.conf, oneFormat("%s", std::string("  ") + c.slot + " = default\n"));
    const QRFSlot* slot = generated.config->getFormat(0)->getSlot(c.slot);
    ASSERT_NE(slot, nullptr);
    EXPECT_EQ(slot->getType(), QRF_SLOT_DEFAULT);
    if (std::string(c.why) == "resolved address") {
      EXPECT_TRUE(slot->getValue() == "127.0.0.1" || slot->getValue() == "::1") << slot->getValue();
    } else {
      EXPECT_EQ(slot->getValue(), c.value);
    }
  }
  TraceCapture trace;
  Generated generated = generate("", oneFormat("%s", "  x = $1\n  weather = default\n"));
  EXPECT_EQ(generated.config->getError(), 0);
  EXPECT_EQ(generated.config->getFormat(0)->getSlot("weather"), nullptr);
  EXPECT_TRUE(trace.hasText("ERROR: unrecognized DEFAULT slot: weather"));
  ASSERT_FALSE(generated.config->diagnostics().empty());
  EXPECT_EQ(generated.config->diagnostics().front().line, 4);
  EXPECT_TRUE(generated.config->diagnostics().front().error);
}

TEST_F(QRFConfigTest, FormatsByIndexAndClassAndTheDiscardClass) {
  TraceCapture trace;
  Generated generated = generate(
      "LogSources=/l", "format A\n pattern a %s\nend\nformat *DISCARD*\n pattern noise %s*\nend\n"
                       "format A\n pattern b %s\nend\n");
  const QRFConfig& config = *generated.config;
  ASSERT_EQ(config.getFormatCount(), 3);
  EXPECT_EQ(config.getFormat(1)->getWskClass(), "*DISCARD*");
  EXPECT_EQ(config.getFormat("A"), config.getFormat(0));
  EXPECT_EQ(config.getFormat("*DISCARD*")->getIndex(), 1);
  EXPECT_EQ(config.getFormat("B"), nullptr);
  EXPECT_EQ(config.getFormat(3), nullptr);
  EXPECT_TRUE(trace.hasText("Searching for format for class B"));
  EXPECT_TRUE(trace.hasText("Could not find format for class B"));
  // The last format is tried first; a discarded record carries the format's index.
  EXPECT_EQ(generated.filter(),
            "ScanRegEx(0,^()[ \t]*b +(\\S+)[ \t]*()$,REPLACEFIRST(2#)) OR "
            "ScanRegEx(0,^()[ \t]*noise +(.*)[ \t]*()$,REPLACEFIRST(1#)) OR "
            "ScanRegEx(0,^()[ \t]*a +(\\S+)[ \t]*()$,REPLACEFIRST(0#))");
}

TEST_F(QRFConfigTest, FormatFileErrors) {
  TempDirectory directory;
  OBVEmitter emitter("x.conf", "LogSources=/l");
  {
    TraceCapture trace;
    const std::string missing = directory.file("missing.fmt");
    QRFConfig config(&emitter, "x.conf", missing.c_str(), "G", nullptr, 0);
    EXPECT_EQ(config.getError(), QRFConfig::QRF_CANNOT_OPEN_FORMAT_FILE);
    EXPECT_EQ(config.getErrorFile(), missing);
    EXPECT_TRUE(trace.hasText("Could not open format file " + missing));
    EXPECT_STREQ(config.mdlStream(), "");
  }
  {
    TraceCapture trace;
    const std::string broken = directory.file("broken.fmt");
    std::ofstream(broken) << "# a comment\nformat A\n  pattern %s\n  v = \nend\n";
    QRFConfig config(&emitter, "x.conf", broken.c_str(), "G", nullptr, 0);
    EXPECT_EQ(config.getError(), QRFConfig::QRF_FORMAT_FILE_SYNTAX_ERROR);
    EXPECT_EQ(config.getErrorFile(), broken);
    EXPECT_TRUE(trace.hasText("Format file parse error in file " + broken +
                              " at line 4: \"end of line\" error is: \"expected a value: $N, "
                              "\"text\", default, printf(...) or list(...)\""));
    EXPECT_TRUE(trace.hasText("Parsing of format file " + broken + " failed"));
    EXPECT_TRUE(trace.containsText("setting to 10MB for yacc parser"));
    ASSERT_EQ(config.diagnostics().size(), 1u);
    EXPECT_EQ(config.diagnostics()[0].line, 4);
    EXPECT_EQ(config.diagnostics()[0].file, broken);
    EXPECT_EQ(config.getFormatCount(), 0);
  }
}

TEST_F(QRFConfigTest, ConfFileReading) {
  OBVEmitter emitter("x.conf",
                     "# comment\n  LogSources = \"/a b\" \r\n\nlogsources=/c\nEmpty=\nNum= 12 \n"
                     "Bad=12x\nFlag=yes\n");
  EXPECT_EQ(emitter.getError(), OBVEmitter::OBV_OK);
  EXPECT_STREQ(emitter.getConfValue("LOGSOURCES"), "/c");
  EXPECT_STREQ(emitter.getConfValue("Empty"), "");
  EXPECT_EQ(emitter.getConfValue("Missing"), nullptr);
  EXPECT_EQ(emitter.getConfInt("Num", 3), 12);
  EXPECT_EQ(emitter.getConfInt("Bad", 3), 3);
  EXPECT_EQ(emitter.getConfInt("Missing", 3), 3);
  EXPECT_TRUE(emitter.getConfFlag("flag"));
  EXPECT_FALSE(emitter.getConfFlag("Num"));
  EXPECT_STREQ(OBVEmitter("x.conf", "A=\"q\"").getConfValue("A"), "q");

  OBVEmitter invalid("x.conf", "A=1\n\njust words\n");
  EXPECT_EQ(invalid.getError(), OBVEmitter::OBV_CONF_FILE_INVALID);
  EXPECT_EQ(invalid.getErrorText(), "x.conf:3: expected NAME=value, found 'just words'");
  EXPECT_EQ(invalid.getConfValue("A"), nullptr);

  TempDirectory directory;
  struct Case {
    std::string path;
    int error;
    PERF_OBJECT_ERROR_CODE code;
  } cases[] = {
      {directory.file("missing.conf"), OBVEmitter::OBV_CONF_FILE_MISSING, CONF_FILE_DOES_NOT_EXIST},
      {directory.path(), OBVEmitter::OBV_CONF_FILE_UNREADABLE, OBV_INITIALIZATION_FAILED},
      {directory.file("bad.conf"), OBVEmitter::OBV_CONF_FILE_INVALID, INVALID_CONF_FILE},
      {directory.file("good.conf"), OBVEmitter::OBV_OK, OBJECT_ACTIVE},
      {directory.file("secret.conf"), OBVEmitter::OBV_CONF_FILE_ACCESS_DENIED,
       CONF_FILE_ACCESS_DENIED},
  };
  std::ofstream(directory.file("bad.conf")) << "=1\n";
  std::ofstream(directory.file("good.conf")) << "A=1\n";
  std::ofstream(directory.file("secret.conf")) << "A=1\n";
  chmod(directory.file("secret.conf").c_str(), 0);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    if (c.error == OBVEmitter::OBV_CONF_FILE_ACCESS_DENIED && geteuid() == 0) {
      continue;  // root reads every file
    }
    OBVEmitter fromFile(c.path.c_str());
    EXPECT_EQ(fromFile.getError(), c.error) << fromFile.getErrorText();
    EXPECT_EQ(OBVEmitter::perfErrorCode(fromFile.getError()), c.code);
  }
  // A reset reads the file again.
  OBVEmitter changing(directory.file("good.conf").c_str());
  std::ofstream(directory.file("good.conf")) << "A=2\n";
  EXPECT_TRUE(changing.reset());
  EXPECT_STREQ(changing.getConfValue("A"), "2");
}

// The event server's keys become the forwarder's settings; without EventServer there
// is nothing to forward.
TEST_F(QRFConfigTest, EventServerKeysBecomeTheForwardersSettings) {
  struct Case {
    const char* path;
    const char* conf;
    bool forwards;
    std::string host;
    int port;
    bool tls;
    std::string caFile;
    std::string spool;
    uint64_t maxBytes;
  } cases[] = {
      {"/etc/xrv/app.conf", "LogSources=/l", false, "", 0, false, "", "", 0},
      {"/etc/xrv/app.conf", "EventServer=", false, "", 0, false, "", "", 0},
      {"/etc/xrv/app.conf", "EventServer=ev.example.com", true, "ev.example.com", 9315, false,
       "", "/etc/xrv/event-spool", 8 * 1024 * 1024},
      {"app.conf",
       "EventServer=10.0.0.5\nEventServerPort=7000\nEventServerTLS=yes\nEventServerCAFile=/ca.pem\n"
       "EventSpoolDirectory=spool/x\nEventSpoolMaxBytes=100000",
       true, "10.0.0.5", 7000, true, "/ca.pem", "./spool/x", 100000},
      {"/etc/xrv/app.conf",
       "EventServer=h\nEventServerPort=70000\nEventSpoolDirectory=/var/spool/xrv\n"
       "EventSpoolMaxBytes=-5\nEventServerTLS=no",
       true, "h", 9315, false, "", "/var/spool/xrv", 8 * 1024 * 1024},
      {"/etc/xrv/app.conf", "EventServer=h\nEventServerPort=x\nEventSpoolMaxBytes=12kb", true,
       "h", 9315, false, "", "/etc/xrv/event-spool", 8 * 1024 * 1024},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.conf);
    OBVEmitter emitter(c.path, c.conf);
    XRV::forward::EventForwarderConfig config;
    ASSERT_EQ(emitter.forwardingConfig("web01:G", &config), c.forwards);
    EXPECT_FALSE(emitter.isForwarding());
    if (!c.forwards) {
      continue;
    }
    EXPECT_EQ(config.host, c.host);
    EXPECT_EQ(config.port, c.port);
    EXPECT_EQ(config.tls, c.tls);
    EXPECT_EQ(config.caFile, c.caFile);
    EXPECT_EQ(config.spoolDirectory, c.spool);
    EXPECT_EQ(config.spoolMaxBytes, c.maxBytes);
    EXPECT_EQ(config.stream, "web01:G");
  }
}

}  // namespace
