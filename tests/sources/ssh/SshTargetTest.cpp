// Reading an SSH target from a subnode's configuration: defaults, the agent's
// configuration behind the section, the authentication types, and what is exported to
// the remote command.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>

#include "foundation/HashMap.h"
#include "framework/Configuration.h"
#include "provider/PerfObject.h"
#include "sources/ssh/SshTarget.h"
#include "support/TestConfiguration.h"

namespace {

using Settings = std::map<std::string, std::string>;

SshTargetRead readFrom(const Settings& settings, SshTarget* target) {
  HashMap section;
  for (const auto& [name, value] : settings) {
    section.put(strdup(name.c_str()), strdup(value.c_str()));
  }
  SshTargetRead read = readSshTarget("SSH", &section, target);
  section.foreach (hashMapFreeKeyData, nullptr);
  return read;
}

TEST(SshTarget, DefaultsAndTheAgentsConfiguration) {
  XRV::testing::ConfigurationFile file;
  ASSERT_TRUE(
      file.load("[agent]\nSSH_USERID = monitor\nXRV_STATE_DIR = /srv/xrv\n"
                "CDP_SSH_DEL_COMMAND = /bin/rm -f\n"));
  SshTarget target;
  const SshTargetRead read = readFrom({{"SSH_HOSTNAME", "db1"}}, &target);
  EXPECT_EQ(read.errorCode, OBJECT_ACTIVE) << read.message;
  EXPECT_EQ(target.host, "db1");
  EXPECT_EQ(target.port, 22);
  EXPECT_EQ(target.user, "monitor");  // from the agent's section
  EXPECT_EQ(target.authType, SshAuthType::PublicKey);
  EXPECT_EQ(target.knownHostsFile, "/srv/xrv/ssh_known_hosts");
  EXPECT_EQ(target.tempDirectory, ".xrvagent");
  EXPECT_EQ(target.deleteCommand, "/bin/rm -f");
  EXPECT_FALSE(target.disconnectAfterCommand);
  EXPECT_FALSE(target.deleteFiles);
  EXPECT_FALSE(target.acceptNewHostKey);
  EXPECT_EQ(target.describe(), "monitor@db1:22");
  EXPECT_EQ(target.knownHostsName(), "db1");

  // The section wins over the agent's configuration.
  SshTarget own;
  readFrom({{"SSH_HOSTNAME", "db2"},
            {"SSH_USERID", "oracle"},
            {"SSH_PORT", "2222"},
            {"CDP_SSH_KNOWN_HOSTS", "/etc/xrv/hosts"},
            {"SSH_DISCONNECT_SESSION", "yes"},
            {"SSH_DELETE_FILE", "Y"},
            {"SSH_ACCEPT_NEW_HOST_KEY", "y"}},
           &own);
  EXPECT_EQ(own.describe(), "oracle@db2:2222");
  EXPECT_EQ(own.knownHostsName(), "[db2]:2222");
  EXPECT_EQ(own.knownHostsFile, "/etc/xrv/hosts");
  EXPECT_TRUE(own.disconnectAfterCommand);
  EXPECT_TRUE(own.deleteFiles);
  EXPECT_TRUE(own.acceptNewHostKey);
}

TEST(SshTarget, AuthenticationTypes) {
  struct Case {
    const char* written;
    const char* password;
    int code;
    SshAuthType type;
  };
  const Case cases[] = {
      {"", "", OBJECT_ACTIVE, SshAuthType::PublicKey},
      {"", "secret", OBJECT_ACTIVE, SshAuthType::Password},
      {"password", "", OBJECT_ACTIVE, SshAuthType::Password},
      {"PUBLICKEY", "secret", OBJECT_ACTIVE, SshAuthType::PublicKey},
      {"public_key", "", OBJECT_ACTIVE, SshAuthType::PublicKey},
      {"keyboard-interactive", "", OBJECT_ACTIVE, SshAuthType::KeyboardInteractive},
      {"KEYBOARD_INTERACTIVE", "", OBJECT_ACTIVE, SshAuthType::KeyboardInteractive},
      {"kerberos", "", AUTHENTICATION_FAILED, SshAuthType::PublicKey},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.written) + "/" + c.password);
    SshTarget target;
    const SshTargetRead read = readFrom(
        {{"SSH_HOSTNAME", "h"}, {"SSH_AUTH_TYPE", c.written}, {"SSH_PASSWORD", c.password}},
        &target);
    EXPECT_EQ(read.errorCode, c.code);
    if (c.code == OBJECT_ACTIVE) {
      EXPECT_EQ(target.authType, c.type);
    } else {
      EXPECT_NE(read.message.find(c.written), std::string::npos);
    }
  }
}

TEST(SshTarget, ExportsTheSectionLessTheConnectionSettings) {
  SshTarget target;
  readFrom({{"SSH_HOSTNAME", "h"},
            {"SSH_PASSWORD", "hush"},
            {"SSH_USERID", "u"},
            {"DB_NAME", "sales"},
            {"CDP_SSH_TEMP_DIRECTORY", "/var/tmp/xrv"}},
           &target);
  const std::string& prefix = target.environmentPrefix;
  EXPECT_NE(prefix.find("DB_NAME=\"sales\" export DB_NAME;"), std::string::npos) << prefix;
  EXPECT_NE(prefix.find("CDP_SSH_TEMP_DIRECTORY=\"/var/tmp/xrv\" export CDP_SSH_TEMP_DIRECTORY;"),
            std::string::npos)
      << prefix;
  EXPECT_EQ(prefix.find("hush"), std::string::npos) << prefix;
  EXPECT_EQ(prefix.find("SSH_HOSTNAME"), std::string::npos) << prefix;
  EXPECT_EQ(prefix.find("SSH_USERID"), std::string::npos) << prefix;
  EXPECT_EQ(prefix.find("SSH_PASSWORD"), std::string::npos) << prefix;
  EXPECT_EQ(target.describe().find("hush"), std::string::npos);
}

TEST(SshTarget, IdentityTellsConnectionsApart) {
  SshTarget a;
  readFrom({{"SSH_HOSTNAME", "h"}, {"SSH_PASSWORD", "one"}, {"OTHER", "x"}}, &a);
  SshTarget sameConnection;
  readFrom({{"SSH_HOSTNAME", "h"}, {"SSH_PASSWORD", "one"}, {"OTHER", "y"}}, &sameConnection);
  SshTarget otherPassword;
  readFrom({{"SSH_HOSTNAME", "h"}, {"SSH_PASSWORD", "two"}}, &otherPassword);
  SshTarget otherPort;
  readFrom({{"SSH_HOSTNAME", "h"}, {"SSH_PASSWORD", "one"}, {"SSH_PORT", "23"}}, &otherPort);
  EXPECT_EQ(a.identity(), sameConnection.identity());  // exported values are no part of it
  EXPECT_NE(a.identity(), otherPassword.identity());
  EXPECT_NE(a.identity(), otherPort.identity());
}

TEST(SshTarget, ShellQuoting) {
  EXPECT_EQ(shellQuoted("plain"), "'plain'");
  EXPECT_EQ(shellQuoted("it's $HOME"), "'it'\\''s $HOME'");
  EXPECT_EQ(shellQuoted(""), "''");
}

}  // namespace
