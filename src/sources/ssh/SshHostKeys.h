#pragma once

// The host key check of every new SSH session, against the target's known hosts
// file (CDP_SSH_KNOWN_HOSTS, in OpenSSH's format: ssh-keyscan's output fits):
//
//   the key is filed for the host         accepted
//   the host is not in the file (or no    refused, unless SSH_ACCEPT_NEW_HOST_KEY is on
//   file yet)                             for the host: then the key is added, and the
//                                         file and its directory are made when missing
//   another key is filed for the host     always refused; the message names the host,
//                                         the filed fingerprints and the offered one
//
// The file is read and written under one process-wide lock (local file work only,
// never network I/O), so that two sessions that meet a new host at once add it once.

#include <string>

#include "sources/ssh/SshSession.h"

struct ssh_session_struct;
struct ssh_key_struct;

// Checks the key of the connected `session`.
SshOutcome verifySshHostKey(ssh_session_struct* session, const SshTarget& target);

// "SHA256:..." of `key`; "" when it cannot be computed.
std::string sshKeyFingerprint(ssh_key_struct* key);
