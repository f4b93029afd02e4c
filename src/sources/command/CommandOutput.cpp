// A command's output: the two readers that take a stream each into memory, the limit
// on how much a command may write, and the line iterator over standard output.
//
// Contract: each stream is read to its end by a reader of its own, so that a full
// pipe never blocks the child. The data is kept whole (NUL bytes read as '?'),
// NUL-terminated, in a buffer owned by the command; standard error is cut to
// stdErrSizeLimit when that is positive. A stream beyond outputSizeLimit gets the
// command killed and its output dropped (isOutputTooBig). A reader ends with
// signal(stream), except after a read error or a failed buffer growth (status 3).

#include "sources/command/CommandWithTimeout.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "framework/Trace.h"

namespace {

// First size of a stream's buffer; it doubles whenever a read fills it.
constexpr size_t kReadBufferSize = 16384;

// A read shorter than this was most likely a line or two of a script still writing.
constexpr size_t kSmallRead = 4096;

// A reader waiting in read() is woken by every write into the pipe, and the script
// pays for each wake-up: a shell loop echoing 1,000 lines costs a third more than
// the same loop writing to /dev/null. After a short read the reader steps aside for
// up to 0.2 ms, so the lines gather in the pipe (64 KB) and are taken in one read.
// Waiting for no event at all still ends at once when the last writer closes the
// pipe (hang-up), so the script's end is seen without delay.
void pauseBeforeNextRead(int fd) {
  struct pollfd watch = {fd, 0, 0};
  const struct timespec pause = {0, 200 * 1000};
  ppoll(&watch, 1, &pause, nullptr);
}

// Replaces each NUL byte of the `length` bytes at `data` by '?'; how many there were.
size_t replaceNulBytes(char* data, size_t length) {
  size_t count = 0;
  char* end = data + length;
  for (char* nul = static_cast<char*>(memchr(data, '\0', length)); nul != nullptr;
       nul = static_cast<char*>(memchr(nul, '\0', static_cast<size_t>(end - nul)))) {
    *nul++ = '?';
    ++count;
  }
  return count;
}

}  // namespace

void CommandWithTimeout::readStream(_StreamType stream) {
  XRV_TRACE_FN();
  if (stream != STREAM_STDOUT && stream != STREAM_STDERR) {
    return;
  }
  FILE* file = stream == STREAM_STDOUT ? stdoutFile_ : stderrFile_;
  char*& data = stream == STREAM_STDOUT ? stdoutData_ : stderrData_;
  size_t capacity = kReadBufferSize;
  size_t used = 0;
  char* buffer = static_cast<char*>(malloc(capacity));
  if (buffer == nullptr) {
    XRV_TRACE_ERROR("Error allocating buffer to read output");
    data = nullptr;
    signal(stream);
    return;
  }
  buffer[0] = '\0';

  const int fd = fileno(file);
  size_t nulBytes = 0;
  for (;;) {
    const size_t request = capacity - used - 1;
    const ssize_t n = read(fd, buffer + used, request);
    if (n > 0) {
      nulBytes += replaceNulBytes(buffer + used, static_cast<size_t>(n));
      used += static_cast<size_t>(n);
      buffer[used] = '\0';
      if (outputSizeLimit > 0 && used > static_cast<size_t>(outputSizeLimit)) {
        refuseOversizedOutput(stream, fd);
        free(buffer);
        signal(stream);
        return;
      }
      if (static_cast<size_t>(n) == request) {
        capacity *= 2;
        char* grown = static_cast<char*>(realloc(buffer, capacity));
        if (grown == nullptr) {
          XRV_TRACE_ERROR("realloc failed");
          free(buffer);
          setStatus(CWT_ERROR);
          return;
        }
        buffer = grown;
      } else if (static_cast<size_t>(n) < kSmallRead) {
        pauseBeforeNextRead(fd);
      }
      continue;
    }
    if (n == 0) {
      XRV_TRACE_DETAIL("nothing to read from stream -  stream %d", static_cast<int>(stream));
      break;
    }
    const int error = errno;
    if (error == EINTR) {
      XRV_TRACE_DETAIL("Received EINTR signal during fread, trying again");
      continue;
    }
    XRV_TRACE_ERROR("Error on pipe read");
    XRV_TRACE_ERROR("errno = %d, \"%s\"", error, strerror(error));
    free(buffer);
    setStatus(CWT_ERROR);
    return;
  }

  buffer[used] = '\0';
  if (nulBytes > 0) {
    XRV_TRACE_ERROR("Output of command %s held %zu NUL bytes on %s, each read as '?'", command_,
                    nulBytes, stream == STREAM_STDOUT ? "stdout" : "stderr");
  }
  if (stream == STREAM_STDERR && stdErrSizeLimit > 0 &&
      used > static_cast<size_t>(stdErrSizeLimit)) {
    XRV_TRACE_DETAIL("truncated stdErr length %d to %d", static_cast<int>(used), stdErrSizeLimit);
    buffer[stdErrSizeLimit] = '\0';
  }
  data = buffer;
  signal(stream);
}

void CommandWithTimeout::refuseOversizedOutput(_StreamType stream, int fd) {
  XRV_TRACE_FN();
  XRV_TRACE_ERROR(
      "Command %s wrote more than %lld bytes to %s, killing it and dropping its output "
      "cwtObject=%p",
      command_, outputSizeLimit, stream == STREAM_STDOUT ? "stdout" : "stderr",
      static_cast<void*>(this));
  outputTooBig_ = true;
  const pid_t pid = pid_;
  if (pid > 1) {
    kill(pid, SIGKILL);
  }
  // The pipe's read end is replaced by /dev/null (the stream still closes it), so
  // that what the command left behind gets a broken pipe instead of writing on.
  const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (null >= 0) {
    dup2(null, fd);
    close(null);
  }
}

char* CommandWithTimeout::getNextLineFromStdout(char* buf, int max) {
  XRV_TRACE_FN();
  if (stdoutData_ == nullptr) {
    return nullptr;
  }
  char* position = lineCursor_ == nullptr ? stdoutData_ : lineCursor_;
  bool emptyLine = false;
  if (*position == '\r') {
    ++position;
    emptyLine = true;
  }
  if (*position == '\n') {
    ++position;
    emptyLine = true;
  }
  int copied = 0;
  if (!emptyLine) {
    while (copied < max && *position != '\n' && *position != '\0') {
      buf[copied++] = *position++;
    }
  }
  if (copied < max) {
    buf[copied] = '\0';
  }
  // Past the line's LF; after a cut line, past the first character not copied.
  if (!emptyLine && *position != '\0') {
    ++position;
  }
  lineCursor_ = position;
  if (!emptyLine && copied == 0) {
    return nullptr;
  }
  return buf;
}
