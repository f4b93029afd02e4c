// SshSession: the connection (name, TCP, handshake, host key, authentication) and the
// run of one command on a channel. Uploading and removing command files are in
// SshUpload.cpp, the host key check in SshHostKeys.cpp.

#include "sources/ssh/SshSession.h"

#include <libssh/callbacks.h>
#include <libssh/libssh.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "framework/Trace.h"
#include "provider/PerfObject.h"
#include "sources/ssh/SshHostKeys.h"

namespace {

// Slices of every wait, so that a cancelled run ends soon.
constexpr int kSliceMillis = 100;
// How long a command that got SIGKILL may take to report its end, and how long the
// signal request alone is given before the process group is killed by a command.
constexpr long long kKillGraceMillis = 2000;
constexpr long long kSignalMillis = 300;
// The first line of every command's standard output: the remote shell's process id,
// which is its process group (the server starts each command in a session of its own).
constexpr const char kPidLine[] = "xrv-pid ";

// What the channel callbacks gather while a command runs.
struct ChannelState {
  SshCommandOutput* output = nullptr;
  long long limit = 0;
  bool eof = false;
  bool closed = false;
  bool ended = false;  // an exit status or exit signal came
  bool tooBig = false;
  bool pidRead = false;  // the first line (kPidLine) is taken off standard output
  std::string firstLine;
  long remotePid = 0;
};

// Takes the process id line off the front of standard output; what follows it is
// output. Whatever does not look like that line is output as it is.
void takePidLine(ChannelState* state, const char* data, uint32_t length) {
  state->firstLine.append(data, length);
  const size_t end = state->firstLine.find('\n');
  if (end == std::string::npos && state->firstLine.size() < 64) {
    return;
  }
  state->pidRead = true;
  std::string rest = std::move(state->firstLine);
  if (end != std::string::npos && rest.compare(0, strlen(kPidLine), kPidLine) == 0) {
    state->remotePid = atol(rest.c_str() + strlen(kPidLine));
    rest.erase(0, end + 1);
  }
  state->output->out.append(rest);
}

int onData(ssh_session, ssh_channel, void* data, uint32_t length, int isStderr, void* user) {
  auto* state = static_cast<ChannelState*>(user);
  if (isStderr == 0 && !state->pidRead) {
    takePidLine(state, static_cast<const char*>(data), length);
    return static_cast<int>(length);
  }
  std::string& stream = isStderr ? state->output->err : state->output->out;
  if (static_cast<long long>(stream.size()) + length > state->limit) {
    state->tooBig = true;  // the rest is dropped: the command is ended
  } else {
    stream.append(static_cast<const char*>(data), length);
  }
  return static_cast<int>(length);
}

void onEof(ssh_session, ssh_channel, void* user) { static_cast<ChannelState*>(user)->eof = true; }

void onClose(ssh_session, ssh_channel, void* user) {
  static_cast<ChannelState*>(user)->closed = true;
}

void onExitStatus(ssh_session, ssh_channel, int status, void* user) {
  auto* state = static_cast<ChannelState*>(user);
  state->output->exitStatus = status;
  state->ended = true;
}

void onExitSignal(ssh_session, ssh_channel, const char* signal, int, const char*, const char*,
                  void* user) {
  auto* state = static_cast<ChannelState*>(user);
  state->output->exitSignal = signal == nullptr ? "?" : signal;
  state->ended = true;
}

// Waits until `fd` is connected, the time is up or the run is cancelled: 0 or an
// errno (ETIMEDOUT, ECANCELED).
int awaitConnection(int fd, std::chrono::steady_clock::time_point until,
                    const std::atomic<bool>& cancel) {
  for (;;) {
    if (cancel.load()) {
      return ECANCELED;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          until - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0) {
      return ETIMEDOUT;
    }
    pollfd entry{fd, POLLOUT, 0};
    const int ready = poll(&entry, 1, static_cast<int>(std::min<long long>(left, kSliceMillis)));
    if (ready < 0 && errno != EINTR) {
      return errno;
    }
    if (ready > 0) {
      int error = 0;
      socklen_t length = sizeof error;
      if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
        return errno;
      }
      return error;
    }
  }
}

}  // namespace

long long SshDeadline::remainingMillis() const {
  return std::chrono::duration_cast<std::chrono::milliseconds>(at_ -
                                                               std::chrono::steady_clock::now())
      .count();
}

SshSession::SshSession(std::shared_ptr<const SshTarget> target) : target_(std::move(target)) {}

SshSession::~SshSession() {
  if (session_ == nullptr) {
    return;
  }
  if (!broken_ && ssh_is_connected(session_) != 0) {
    ssh_disconnect(session_);
  }
  ssh_free(session_);  // closes the socket too
}

bool SshSession::usable() const {
  return session_ != nullptr && authenticated_ && !broken_ && ssh_is_connected(session_) != 0;
}

void SshSession::limitBlockingCalls(const SshDeadline& deadline) {
  const long long millis = std::max<long long>(1, deadline.remainingMillis());
  long seconds = static_cast<long>(millis / 1000);
  long micros = static_cast<long>(millis % 1000) * 1000;
  ssh_options_set(session_, SSH_OPTIONS_TIMEOUT, &seconds);
  ssh_options_set(session_, SSH_OPTIONS_TIMEOUT_USEC, &micros);
}

SshOutcome SshSession::libsshFailure(int code, const std::string& what,
                                     const SshDeadline& deadline) {
  if (deadline.passed()) {
    return SshOutcome::failure(TIMEOUT, what + ": no answer before the time-out");
  }
  const char* reason = session_ == nullptr ? "" : ssh_get_error(session_);
  return SshOutcome::failure(
      code,
      what + (reason == nullptr || *reason == '\0' ? std::string() : std::string(": ") + reason));
}

// --- Connecting ---

SshOutcome SshSession::openSocket(const SshDeadline& deadline, const std::atomic<bool>& cancel,
                                  int* fd) {
  XRV_TRACE_FN();
  const SshTarget& target = *target_;
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* addresses = nullptr;
  const int resolved =
      getaddrinfo(target.host.c_str(), std::to_string(target.port).c_str(), &hints, &addresses);
  if (resolved != 0) {
    return SshOutcome::failure(
        HOST_NAME_RESOLUTION_FAILED,
        "cannot resolve the host name " + target.host + ": " + gai_strerror(resolved));
  }
  // Half the time at most for the TCP connection, so that a host that does not answer
  // is reported as unavailable rather than as a time-out of the command.
  const long long budget = std::max<long long>(1000, deadline.remainingMillis() / 2);
  const auto until =
      std::min(deadline.at(), std::chrono::steady_clock::now() + std::chrono::milliseconds(budget));
  int error = ECONNREFUSED;
  for (addrinfo* address = addresses; address != nullptr; address = address->ai_next) {
    const int candidate = socket(address->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (candidate < 0) {
      error = errno;
      continue;
    }
    error = ::connect(candidate, address->ai_addr, address->ai_addrlen) == 0 ? 0 : errno;
    if (error == EINPROGRESS) {
      error = awaitConnection(candidate, until, cancel);
    }
    if (error == 0) {
      const int on = 1;
      setsockopt(candidate, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      freeaddrinfo(addresses);
      *fd = candidate;
      return {};
    }
    ::close(candidate);
    if (error == ETIMEDOUT || error == ECANCELED) {
      break;
    }
  }
  freeaddrinfo(addresses);
  if (error == ECANCELED) {
    return SshOutcome::failure(TIMEOUT, "connecting to " + target.describe() + " was cancelled");
  }
  if (error == ETIMEDOUT) {
    return SshOutcome::failure(REMOTE_HOST_UNAVAILABLE,
                               "no answer from " + target.host + " port " +
                                   std::to_string(target.port) + " within " +
                                   std::to_string((budget + 999) / 1000) + " s");
  }
  return SshOutcome::failure(REMOTE_HOST_UNAVAILABLE, "cannot connect to " + target.host +
                                                          " port " + std::to_string(target.port) +
                                                          ": " + strerror(error));
}

SshOutcome SshSession::connect(const SshDeadline& deadline, const std::atomic<bool>& cancel) {
  XRV_TRACE_FN();
  const SshTarget& target = *target_;
  int fd = -1;
  SshOutcome outcome = openSocket(deadline, cancel, &fd);
  if (!outcome.ok()) {
    return outcome;
  }
  session_ = ssh_new();
  if (session_ == nullptr) {
    ::close(fd);
    return SshOutcome::failure(GENERIC_ERROR, "cannot make an SSH session: out of memory");
  }
  const int port = target.port;
  bool processConfig = false;  // no ~/.ssh/config nor /etc/ssh/ssh_config: ours alone
  socket_t socket = fd;
  ssh_options_set(session_, SSH_OPTIONS_HOST, target.host.c_str());
  ssh_options_set(session_, SSH_OPTIONS_PORT, &port);
  ssh_options_set(session_, SSH_OPTIONS_USER, target.user.c_str());
  ssh_options_set(session_, SSH_OPTIONS_PROCESS_CONFIG, &processConfig);
  ssh_options_set(session_, SSH_OPTIONS_KNOWNHOSTS, target.knownHostsFile.c_str());
  ssh_options_set(session_, SSH_OPTIONS_GLOBAL_KNOWNHOSTS, "/dev/null");
  ssh_options_set(session_, SSH_OPTIONS_FD, &socket);  // libssh closes it from here on
  limitBlockingCalls(deadline);
  if (ssh_connect(session_) != SSH_OK) {
    broken_ = true;
    return libsshFailure(CONNECTION_FAILURE, "SSH handshake with " + target.describe() + " failed",
                         deadline);
  }
  outcome = verifySshHostKey(session_, target);
  if (!outcome.ok()) {
    broken_ = true;
    return outcome;
  }
  outcome = authenticate(deadline);
  if (!outcome.ok()) {
    broken_ = true;
    return outcome;
  }
  authenticated_ = true;
  XRV_TRACE_DETAIL("SSH session to %s is ready", target.describe().c_str());
  return outcome;
}

// --- Authentication ---

namespace {

SshOutcome authResult(int rc, const std::string& method, const SshTarget& target) {
  switch (rc) {
    case SSH_AUTH_SUCCESS:
      return {};
    case SSH_AUTH_PARTIAL:
      return SshOutcome::failure(
          AUTHENTICATION_FAILED,
          target.describe() + " accepted the " + method + " but asks for further authentication");
    case SSH_AUTH_DENIED:
      return SshOutcome::failure(AUTHENTICATION_FAILED,
                                 target.describe() + " refused the " + method);
    default:
      return SshOutcome::failure(CONNECTION_FAILURE, "");  // the caller says more
  }
}

}  // namespace

SshOutcome SshSession::authenticate(const SshDeadline& deadline) {
  XRV_TRACE_FN();
  limitBlockingCalls(deadline);
  SshOutcome outcome;
  switch (target_->authType) {
    case SshAuthType::Password:
      outcome = authResult(ssh_userauth_password(session_, nullptr, target_->password.c_str()),
                           "password", *target_);
      break;
    case SshAuthType::KeyboardInteractive:
      outcome = authenticateInteractively();
      break;
    case SshAuthType::PublicKey:
      outcome = authenticateWithKey();
      break;
  }
  if (outcome.code == CONNECTION_FAILURE && outcome.message.empty()) {
    return libsshFailure(CONNECTION_FAILURE,
                         "authentication with " + target_->describe() + " failed", deadline);
  }
  return outcome;
}

SshOutcome SshSession::authenticateInteractively() {
  XRV_TRACE_FN();
  int rc = ssh_userauth_kbdint(session_, nullptr, nullptr);
  // Each round answers the server's prompts: the password where the answer is not
  // shown, the user name where it is.
  for (int round = 0; rc == SSH_AUTH_INFO && round < 8; ++round) {
    const int prompts = ssh_userauth_kbdint_getnprompts(session_);
    for (int i = 0; i < prompts; ++i) {
      char echo = 0;
      ssh_userauth_kbdint_getprompt(session_, static_cast<unsigned>(i), &echo);
      const std::string& answer = echo != 0 ? target_->user : target_->password;
      ssh_userauth_kbdint_setanswer(session_, static_cast<unsigned>(i), answer.c_str());
    }
    rc = ssh_userauth_kbdint(session_, nullptr, nullptr);
  }
  return authResult(rc == SSH_AUTH_INFO ? SSH_AUTH_DENIED : rc, "keyboard-interactive password",
                    *target_);
}

SshOutcome SshSession::authenticateWithKey() {
  XRV_TRACE_FN();
  const SshTarget& target = *target_;
  if (target.privateKeyFile.empty()) {
    if (target.agentSocket.empty()) {
      return SshOutcome::failure(AUTHENTICATION_FAILED,
                                 "public key authentication for " + target.describe() +
                                     " needs SSH_PRIV_KEYFILE or an SSH agent (SSH_AUTH_SOCK)");
    }
    ssh_options_set(session_, SSH_OPTIONS_IDENTITY_AGENT, target.agentSocket.c_str());
    return authResult(ssh_userauth_agent(session_, nullptr), "keys of the SSH agent", target);
  }
  if (!target.publicKeyFile.empty()) {
    ssh_key publicKey = nullptr;
    if (ssh_pki_import_pubkey_file(target.publicKeyFile.c_str(), &publicKey) != SSH_OK) {
      return SshOutcome::failure(AUTHENTICATION_FAILED,
                                 "cannot read the public key file " + target.publicKeyFile);
    }
    const int offered = ssh_userauth_try_publickey(session_, nullptr, publicKey);
    ssh_key_free(publicKey);
    if (offered != SSH_AUTH_SUCCESS) {
      return authResult(offered, "public key " + target.publicKeyFile, target);
    }
  }
  ssh_key privateKey = nullptr;
  const char* passphrase = target.password.empty() ? nullptr : target.password.c_str();
  if (ssh_pki_import_privkey_file(target.privateKeyFile.c_str(), passphrase, nullptr, nullptr,
                                  &privateKey) != SSH_OK) {
    return SshOutcome::failure(AUTHENTICATION_FAILED,
                               "cannot read the private key file " + target.privateKeyFile +
                                   " (missing, unreadable, or SSH_PASSWORD does not open it)");
  }
  const int rc = ssh_userauth_publickey(session_, nullptr, privateKey);
  ssh_key_free(privateKey);
  return authResult(rc, "key " + target.privateKeyFile, target);
}

// --- Running a command ---

ssh_channel_struct* SshSession::startKill(long pid) {
  XRV_TRACE_FN();
  ssh_channel channel = ssh_channel_new(session_);
  const std::string command =
      "kill -9 -- -" + std::to_string(pid) + " 2>/dev/null || kill -9 " + std::to_string(pid);
  if (channel == nullptr || ssh_channel_open_session(channel) != SSH_OK ||
      ssh_channel_request_exec(channel, command.c_str()) != SSH_OK) {
    XRV_TRACE_ERROR("Cannot kill the command's processes on %s: %s", target_->describe().c_str(),
                    ssh_get_error(session_));
    if (channel != nullptr) {
      ssh_channel_free(channel);
    }
    return nullptr;
  }
  XRV_TRACE_DETAIL("Killing process group %ld on %s", pid, target_->describe().c_str());
  return channel;
}

SshOutcome SshSession::run(const std::string& command, const SshDeadline& deadline,
                           const std::atomic<bool>& cancel, long long limit,
                           SshCommandOutput* output) {
  XRV_TRACE_FN();
  const SshTarget& target = *target_;
  limitBlockingCalls(deadline);
  ssh_channel channel = ssh_channel_new(session_);
  if (channel == nullptr || ssh_channel_open_session(channel) != SSH_OK) {
    if (channel != nullptr) {
      ssh_channel_free(channel);
    }
    broken_ = true;
    return libsshFailure(CONNECTION_FAILURE, "cannot open a channel to " + target.describe(),
                         deadline);
  }
  ChannelState state;
  state.output = output;
  state.limit = limit;
  ssh_channel_callbacks_struct callbacks{};
  callbacks.userdata = &state;
  callbacks.channel_data_function = onData;
  callbacks.channel_eof_function = onEof;
  callbacks.channel_close_function = onClose;
  callbacks.channel_exit_status_function = onExitStatus;
  callbacks.channel_exit_signal_function = onExitSignal;
  ssh_callbacks_init(&callbacks);
  ssh_set_channel_callbacks(channel, &callbacks);

  SshOutcome outcome;
  const std::string text = std::string("printf '") + kPidLine + "%d\\n' \"$$\"; " + command;
  if (ssh_channel_request_exec(channel, text.c_str()) != SSH_OK) {
    outcome = libsshFailure(CONNECTION_FAILURE,
                            "the SSH server of " + target.describe() + " did not run the command",
                            deadline);
    broken_ = broken_ || ssh_is_connected(session_) == 0;
  } else {
    output->started = true;
    ssh_event event = ssh_event_new();
    ssh_event_add_session(event, session_);
    const char* ending = nullptr;  // why the command is ended before its time
    while (!state.closed && !(state.eof && state.ended)) {
      if (state.tooBig) {
        ending = "its output passed the limit";
      } else if (cancel.load()) {
        ending = "the agent stops";
      } else if (deadline.passed()) {
        ending = "it ran past its time-out";
      }
      if (ending != nullptr) {
        break;
      }
      const long long wait = std::min<long long>(deadline.remainingMillis(), kSliceMillis);
      if (ssh_event_dopoll(event, static_cast<int>(std::max<long long>(wait, 1))) == SSH_ERROR) {
        broken_ = true;
        outcome = SshOutcome::failure(CONNECTION_FAILURE, "the connection to " + target.describe() +
                                                              " broke while the command ran");
        break;
      }
    }
    if (ending != nullptr) {
      // OpenSSH's server sends the signal to the command's whole process group, but
      // only in sessions of users other than root: for those the group is killed by a
      // command on a channel of its own.
      ssh_channel_request_send_signal(channel, "KILL");
      const SshDeadline grace{std::chrono::milliseconds(kKillGraceMillis)};
      const SshDeadline signalled{std::chrono::milliseconds(kSignalMillis)};
      ssh_channel killer = nullptr;
      while (!state.ended && !state.closed && !grace.passed() && !broken_) {
        if (killer == nullptr && signalled.passed() && state.remotePid > 1) {
          killer = startKill(state.remotePid);
        }
        if (ssh_event_dopoll(event, kSliceMillis) == SSH_ERROR) {
          broken_ = true;
        }
      }
      if (killer != nullptr) {
        ssh_channel_close(killer);
        ssh_channel_free(killer);
      }
      if (state.ended || state.closed) {
        XRV_TRACE_DETAIL("remote command on %s ended (%s) after SIGKILL: %s",
                         target.describe().c_str(), output->exitSignal.c_str(), ending);
      } else {
        XRV_TRACE_ERROR("the command on %s got SIGKILL (%s) but did not report its end",
                        target.describe().c_str(), ending);
        broken_ = true;  // not trusted any more: the session goes
      }
      if (state.tooBig) {
        outcome = SshOutcome::failure(
            RESPONSE_TOO_BIG, "the command on " + target.describe() + " wrote more than " +
                                  std::to_string(limit) + " bytes to a stream and was ended");
      } else {
        outcome = SshOutcome::failure(
            TIMEOUT, "the command on " + target.describe() + " was ended: " + ending);
      }
    }
    ssh_event_remove_session(event, session_);
    ssh_event_free(event);
  }
  ssh_remove_channel_callbacks(channel, &callbacks);
  if (!broken_ && !state.closed) {
    limitBlockingCalls(SshDeadline(std::chrono::milliseconds(1000)));
    ssh_channel_close(channel);
  }
  ssh_channel_free(channel);
  if (outcome.ok() && !state.ended) {
    outcome = SshOutcome::failure(CONNECTION_FAILURE, "the SSH server of " + target.describe() +
                                                          " closed the command's channel "
                                                          "without its exit status");
  } else if (outcome.ok() && !output->exitSignal.empty()) {
    outcome = SshOutcome::failure(GENERIC_ERROR, "the command on " + target.describe() +
                                                     " ended by signal SIG" + output->exitSignal);
  }
  return outcome;
}
