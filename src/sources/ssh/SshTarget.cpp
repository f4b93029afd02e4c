#include "sources/ssh/SshTarget.h"

#include <pwd.h>
#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "foundation/HashMap.h"
#include "framework/Configuration.h"
#include "framework/Settings.h"
#include "framework/Trace.h"
#include "provider/PerfObject.h"
#include "sources/command/CommandWithTimeout.h"

namespace {

constexpr const char* kConnectionSettings[] = {"SSH_USERID",          "SSH_PASSWORD",
                                               "SSH_HOSTNAME",        "SSH_PORT",
                                               "SSH_AUTH_TYPE",       "SSH_PUB_KEYFILE",
                                               "SSH_PRIV_KEYFILE",    "SSH_DISCONNECT_SESSION",
                                               "SSH_DELETE_FILE",     "SSH_ACCEPT_NEW_HOST_KEY",
                                               "CDP_SSH_KNOWN_HOSTS", "CDP_SSH_TEMP_DIRECTORY",
                                               "CDP_SSH_DEL_COMMAND"};

// Looks names up in the subnode's section first, then in the agent's configuration.
class Lookup {
 public:
  explicit Lookup(HashMap* section) : section_(section) {}

  // The value of `name`; `fallback` when it is unset or empty.
  std::string text(const char* name, const std::string& fallback = "") const {
    if (section_ != nullptr) {
      const char* value = static_cast<const char*>(section_->get(name));
      if (value != nullptr && *value != '\0') {
        return value;
      }
    }
    std::unique_ptr<char, decltype(&free)> value(getConfigurationProperty(name), &free);
    return value != nullptr && *value != '\0' ? std::string(value.get()) : fallback;
  }
  // A setting of the settings table, which knows its agent-wide value.
  std::string setting(const char* name, XRV::Setting id, const std::string& fallback) const {
    std::string value = text(name);
    if (value.empty()) {
      value = XRV::settingText(id);
    }
    return value.empty() ? fallback : value;
  }
  bool flag(const char* name) const {
    const std::string value = text(name);
    return !value.empty() && (value[0] == 'Y' || value[0] == 'y');
  }

 private:
  HashMap* section_;
};

std::string currentUser() {
  if (const passwd* entry = getpwuid(geteuid()); entry != nullptr && entry->pw_name != nullptr) {
    return entry->pw_name;
  }
  const char* user = getenv("USER");
  return user == nullptr ? "root" : user;
}

// "KEYBOARD_INTERACTIVE", "keyboard-interactive", "KeyboardInteractive": the letters.
std::string letters(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (isalnum(static_cast<unsigned char>(c))) {
      out += static_cast<char>(toupper(static_cast<unsigned char>(c)));
    }
  }
  return out;
}

bool readAuthType(const std::string& text, bool hasPassword, SshAuthType* type) {
  const std::string word = letters(text);
  if (word.empty()) {
    *type = hasPassword ? SshAuthType::Password : SshAuthType::PublicKey;
  } else if (word == "PASSWORD") {
    *type = SshAuthType::Password;
  } else if (word == "PUBLICKEY" || word == "KEY") {
    *type = SshAuthType::PublicKey;
  } else if (word == "KEYBOARDINTERACTIVE") {
    *type = SshAuthType::KeyboardInteractive;
  } else {
    return false;
  }
  return true;
}

// The section's entries other than the connection settings, with the temp directory,
// as the shell prefix of every command.
std::string environmentPrefix(HashMap* section, const std::string& tempDirectory) {
  HashMap exported;
  if (section != nullptr) {
    HashMapIterator entries = section->iterator();
    while (entries.hasNext()) {
      entries.next();
      if (!isSshConnectionSetting(entries.getKey())) {
        exported.put(entries.getKey(), entries.getData());
      }
    }
  }
  exported.put("CDP_SSH_TEMP_DIRECTORY", tempDirectory.c_str());
  char* prefix = CommandWithTimeout::buildEnvString(&exported);
  std::string result = prefix == nullptr ? "" : prefix;
  free(prefix);
  return result;
}

}  // namespace

SshTarget::~SshTarget() {
  // The compiler may not drop a write through a volatile pointer.
  volatile char* secret = password.data();
  for (size_t i = 0; i < password.size(); ++i) {
    secret[i] = '\0';
  }
}

std::string SshTarget::describe() const { return user + "@" + host + ":" + std::to_string(port); }

std::string SshTarget::identity() const {
  // '\n' cannot be part of a configuration value: the fields stay apart.
  return host + "\n" + std::to_string(port) + "\n" + user + "\n" +
         std::to_string(static_cast<int>(authType)) + "\n" + password + "\n" + publicKeyFile +
         "\n" + privateKeyFile + "\n" + agentSocket + "\n" + knownHostsFile + "\n" +
         (acceptNewHostKey ? "Y" : "N") + "\n" + tempDirectory + "\n" + deleteCommand + "\n" +
         (deleteFiles ? "Y" : "N");
}

std::string SshTarget::knownHostsName() const {
  return port == 22 ? host : "[" + host + "]:" + std::to_string(port);
}

bool isSshConnectionSetting(const char* name) {
  if (name == nullptr) {
    return false;
  }
  for (const char* setting : kConnectionSettings) {
    if (strcmp(setting, name) == 0) {
      return true;
    }
  }
  return false;
}

std::string shellQuoted(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

SshTargetRead readSshTarget(const char* subnodeType, HashMap* configuration, SshTarget* target) {
  XRV_TRACE_FN();
  SshTargetRead read;
  if (subnodeType != nullptr && configuration == nullptr) {
    read.errorCode = SUBNODE_NOT_FOUND_IN_CONFIG;
    read.message = std::string("no [subnode ") + subnodeType +
                   " KEY] section configures this subnode's SSH connection";
    return read;
  }
  const Lookup lookup(configuration);
  target->host = lookup.text("SSH_HOSTNAME");
  const std::string port = lookup.text("SSH_PORT", "22");
  char* end = nullptr;
  const long number = strtol(port.c_str(), &end, 10);
  target->port = end != nullptr && *end == '\0' && number > 0 && number < 65536
                     ? static_cast<int>(number)
                     : 22;
  if (target->port == 22 && port != "22") {
    XRV_TRACE_ERROR("SSH_PORT %s is no port number, using 22", port.c_str());
  }
  target->user = lookup.text("SSH_USERID", currentUser());
  target->password = lookup.text("SSH_PASSWORD");
  target->publicKeyFile = lookup.text("SSH_PUB_KEYFILE");
  target->privateKeyFile = lookup.text("SSH_PRIV_KEYFILE");
  const char* agentSocket = getenv("SSH_AUTH_SOCK");
  target->agentSocket = agentSocket == nullptr ? "" : agentSocket;
  target->disconnectAfterCommand = lookup.flag("SSH_DISCONNECT_SESSION");
  target->deleteFiles = lookup.flag("SSH_DELETE_FILE");
  target->acceptNewHostKey = lookup.flag("SSH_ACCEPT_NEW_HOST_KEY");
  std::string stateDirectory = XRV::settingText(XRV::Setting::StateDir);
  if (stateDirectory.empty()) {
    stateDirectory = "/var/lib/xrvagent";
  }
  target->knownHostsFile = lookup.setting("CDP_SSH_KNOWN_HOSTS", XRV::Setting::SshKnownHosts,
                                          stateDirectory + "/ssh_known_hosts");
  target->tempDirectory =
      lookup.setting("CDP_SSH_TEMP_DIRECTORY", XRV::Setting::SshTempDirectory, ".xrvagent");
  target->deleteCommand =
      lookup.setting("CDP_SSH_DEL_COMMAND", XRV::Setting::SshDelCommand, "rm -f");
  target->environmentPrefix = environmentPrefix(configuration, target->tempDirectory);

  const std::string authType = lookup.text("SSH_AUTH_TYPE");
  if (!readAuthType(authType, !target->password.empty(), &target->authType)) {
    read.errorCode = AUTHENTICATION_FAILED;
    read.message =
        "SSH_AUTH_TYPE " + authType + " is none of PASSWORD, PUBLICKEY and KEYBOARD_INTERACTIVE";
  }
  if (target->host.empty()) {
    read.errorCode = NO_HOSTNAME;
    read.message = "SSH_HOSTNAME is not set";
  }
  XRV_TRACE_DETAIL("SSH target %s, known hosts %s, temp directory %s, %s session",
                   target->describe().c_str(), target->knownHostsFile.c_str(),
                   target->tempDirectory.c_str(),
                   target->disconnectAfterCommand ? "one" : "a kept");
  return read;
}
