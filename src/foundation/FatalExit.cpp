#include "foundation/FatalExit.h"

#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "framework/Trace.h"

void exit_with_notification(int code) {
  XRV_TRACE_FN();
  char message[64];
  int length = snprintf(message, sizeof message, "Fatal Error (%d) Detected. Exiting\n", code);
  if (length > 0) {
    ssize_t ignored = write(STDERR_FILENO, message, static_cast<size_t>(length));
    (void)ignored;
  }
  // POSIX calls: a signal to this very thread and the end of only this thread have no
  // std::thread form.
  pthread_kill(pthread_self(), SIGTERM);
  pthread_exit(nullptr);
}
