#pragma once

// SshTarget: where and how a script over SSH runs, read from the configuration of
// the provider's subnode (its [subnode TYPE KEY] section first, then the agent's
// configuration and environment):
//
//   SSH_HOSTNAME            the remote host (required: NO_HOSTNAME without it)
//   SSH_PORT                22
//   SSH_USERID              the user the agent runs as
//   SSH_AUTH_TYPE           PASSWORD, PUBLICKEY or KEYBOARD_INTERACTIVE (any case, "_"
//                           and "-" optional); default PASSWORD when SSH_PASSWORD is set,
//                           else PUBLICKEY
//   SSH_PASSWORD            the password; with PUBLICKEY the private key's passphrase
//   SSH_PUB_KEYFILE         a public key offered before the private key is used
//   SSH_PRIV_KEYFILE        the private key; without it, PUBLICKEY uses the SSH agent
//                           of the agent's environment (SSH_AUTH_SOCK)
//   SSH_DISCONNECT_SESSION  Y: a session per command; else the session is kept
//   SSH_DELETE_FILE         Y: uploaded command files are removed when the session ends
//   SSH_ACCEPT_NEW_HOST_KEY Y: trust a host key seen for the first time (it is added to
//                           the known hosts file); a changed key is refused all the same
//   CDP_SSH_KNOWN_HOSTS, CDP_SSH_TEMP_DIRECTORY, CDP_SSH_DEL_COMMAND (docs/settings.md)
//
// A target is made once per configuration and then only read: sessions and runs
// share it. It holds the password: nothing of it is ever traced but describe().

#include <string>

class HashMap;

enum class SshAuthType { Password, PublicKey, KeyboardInteractive };

struct SshTarget {
  std::string host;
  int port = 22;
  std::string user;
  SshAuthType authType = SshAuthType::PublicKey;
  std::string password;
  std::string publicKeyFile;
  std::string privateKeyFile;
  std::string agentSocket;  // SSH_AUTH_SOCK of the agent's environment, when set
  std::string knownHostsFile;
  bool acceptNewHostKey = false;
  bool disconnectAfterCommand = false;
  bool deleteFiles = false;
  std::string tempDirectory;
  std::string deleteCommand;
  // Shell text placed in front of every command: the subnode's configuration (less
  // the connection settings) and CDP_SSH_TEMP_DIRECTORY, exported.
  std::string environmentPrefix;

  SshTarget() = default;
  SshTarget(const SshTarget&) = default;
  SshTarget& operator=(const SshTarget&) = default;
  // Overwrites the password before the memory goes back.
  ~SshTarget();

  // "user@host:port", for messages.
  std::string describe() const;
  // What sessions are shared by: two targets with the same identity may use each
  // other's sessions. Holds the password: never print it.
  std::string identity() const;
  // The name the known hosts file files the host under: "host", or "[host]:port".
  std::string knownHostsName() const;
};

// The outcome of reading a target: OBJECT_ACTIVE, or the error state the connector
// stays in (NO_HOSTNAME, SUBNODE_NOT_FOUND_IN_CONFIG, AUTHENTICATION_FAILED for an
// unknown SSH_AUTH_TYPE) with a message for the operator.
struct SshTargetRead {
  int errorCode = 0;
  std::string message;
};

// Reads the target of a provider from `configuration` (the subnode's section; null
// for a provider without subnodes, which reads the agent's configuration alone).
// `subnodeType` set and `configuration` null: the subnode has no section.
SshTargetRead readSshTarget(const char* subnodeType, HashMap* configuration, SshTarget* target);

// Whether `name` is one of the connection settings, which are never exported to the
// remote command.
bool isSshConnectionSetting(const char* name);

// `text` quoted for a POSIX shell: in single quotes, a ' inside as '\''.
std::string shellQuoted(const std::string& text);
