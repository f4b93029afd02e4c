#include "sources/ssh/SshHostKeys.h"

#include <libssh/libssh.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <mutex>

#include "framework/Trace.h"
#include "provider/PerfObject.h"

namespace {

std::mutex knownHostsLock;

std::string keyType(ssh_key key) { return ssh_key_type_to_char(ssh_key_type(key)); }

// "SHA256:... (ssh-ed25519)" for each key the file has for `target`'s host.
std::string filedKeys(const SshTarget& target) {
  std::ifstream file(target.knownHostsFile);
  std::string line;
  std::string keys;
  const std::string name = target.knownHostsName();
  while (std::getline(file, line)) {
    ssh_knownhosts_entry* entry = nullptr;
    if (ssh_known_hosts_parse_line(name.c_str(), line.c_str(), &entry) == SSH_OK &&
        entry != nullptr && entry->publickey != nullptr) {
      keys += (keys.empty() ? "" : ", ") + sshKeyFingerprint(entry->publickey) + " (" +
              keyType(entry->publickey) + ")";
    }
    ssh_knownhosts_entry_free(entry);
  }
  return keys.empty() ? "another key" : keys;
}

// Makes the directories of `path` that are missing (mode 0700).
void makeParentDirectories(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    mkdir(path.substr(0, slash).c_str(), 0700);  // EEXIST is fine
  }
}

}  // namespace

std::string sshKeyFingerprint(ssh_key key) {
  unsigned char* hash = nullptr;
  size_t length = 0;
  if (ssh_get_publickey_hash(key, SSH_PUBLICKEY_HASH_SHA256, &hash, &length) != SSH_OK) {
    return "";
  }
  char* text = ssh_get_fingerprint_hash(SSH_PUBLICKEY_HASH_SHA256, hash, length);
  ssh_clean_pubkey_hash(&hash);
  std::string fingerprint = text == nullptr ? "" : text;
  ssh_string_free_char(text);
  return fingerprint;
}

SshOutcome verifySshHostKey(ssh_session session, const SshTarget& target) {
  XRV_TRACE_FN();
  ssh_key offered = nullptr;
  if (ssh_get_server_publickey(session, &offered) != SSH_OK) {
    return SshOutcome::failure(CONNECTION_FAILURE, target.describe() + " did not show a host key");
  }
  const std::string offeredKey = sshKeyFingerprint(offered) + " (" + keyType(offered) + ")";
  ssh_key_free(offered);
  const std::string host = target.knownHostsName();

  std::lock_guard<std::mutex> guard(knownHostsLock);
  switch (ssh_session_is_known_server(session)) {
    case SSH_KNOWN_HOSTS_OK:
      return {};
    case SSH_KNOWN_HOSTS_CHANGED:
    case SSH_KNOWN_HOSTS_OTHER: {
      SshOutcome refused = SshOutcome::failure(
          CONNECTION_FAILURE, "the host key of " + host + " has changed: " + target.knownHostsFile +
                                  " has " + filedKeys(target) + ", the host offers " + offeredKey +
                                  "; refusing to connect (remove the old key from the file if "
                                  "the change is expected)");
      XRV_TRACE_ERROR("%s", refused.message.c_str());
      return refused;
    }
    case SSH_KNOWN_HOSTS_UNKNOWN:
    case SSH_KNOWN_HOSTS_NOT_FOUND:
      if (!target.acceptNewHostKey) {
        SshOutcome refused = SshOutcome::failure(
            CONNECTION_FAILURE, "the host key of " + host + ", " + offeredKey + ", is not in " +
                                    target.knownHostsFile +
                                    "; refusing to connect (add it, e.g. with ssh-keyscan -p " +
                                    std::to_string(target.port) + " " + target.host +
                                    ", or set SSH_ACCEPT_NEW_HOST_KEY=Y for this host)");
        XRV_TRACE_ERROR("%s", refused.message.c_str());
        return refused;
      }
      makeParentDirectories(target.knownHostsFile);
      if (ssh_session_update_known_hosts(session) != SSH_OK) {
        return SshOutcome::failure(CONNECTION_FAILURE, "cannot add the host key of " + host +
                                                           " to " + target.knownHostsFile + ": " +
                                                           ssh_get_error(session));
      }
      XRV_TRACE_ERROR("Trusted the new host key of %s, %s, and added it to %s", host.c_str(),
                      offeredKey.c_str(), target.knownHostsFile.c_str());
      return {};
    case SSH_KNOWN_HOSTS_ERROR:
    default:
      return SshOutcome::failure(CONNECTION_FAILURE, "cannot check the host key of " + host +
                                                         " against " + target.knownHostsFile +
                                                         ": " + ssh_get_error(session));
  }
}
