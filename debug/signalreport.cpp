// Reports on request: with ZORV_DEBUG_SIGNAL set, a thread of this library
// waits for the signal with sigwait and writes the JSON report to a file.
//
// The signal is blocked from this library's static initialisation, in the
// thread that loads it (the process's first thread, before main), so every
// thread the process creates later inherits the blocked signal and the
// kernel leaves it pending for the one thread that waits for it. Nothing
// runs in a signal handler and the disposition stays as it was.
//
// A child created with fork has only the thread that called fork, never
// this one; it keeps the signal blocked, so a signal sent to it stays
// pending instead of ending it. The thread takes no lock of its own, and the
// locks the report takes are handed over whole across fork by this library's
// fork handlers, so a fork while a report is being written leaves the child
// nothing to wait for. The thread is detached and never joined: exit ends it
// wherever it is.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "foundation/debug/report.h"

namespace zorv {
namespace foundation {
namespace debug {
namespace {

char g_reportPath[PATH_MAX];
sigset_t g_waitSet;

int SignalNamed(const char* name) {
  if (name == nullptr) return 0;
  if (strncmp(name, "SIG", 3) == 0) name += 3;
  if (strcmp(name, "USR1") == 0) return SIGUSR1;
  if (strcmp(name, "USR2") == 0) return SIGUSR2;
  return 0;
}

// Writes the report to a temporary file beside the report path and renames
// it over the path.
void WriteReportFile() {
  char temporary[PATH_MAX + 8];
  if (snprintf(temporary, sizeof temporary, "%s.XXXXXX", g_reportPath) >=
      static_cast<int>(sizeof temporary)) {
    return;
  }
  const int fd = mkostemp(temporary, O_CLOEXEC);
  if (fd < 0) return;
  bool written = WriteReport(fd, ReportFormat::kJson);
  if (close(fd) != 0 && errno != EINTR) written = false;
  if (!written || rename(temporary, g_reportPath) != 0) unlink(temporary);
}

void* WaitForRequests(void*) {
  for (;;) {
    int received = 0;
    if (sigwait(&g_waitSet, &received) == 0) WriteReportFile();
  }
  return nullptr;
}

bool ReportPathFromEnvironment() {
  const char* path = getenv("ZORV_DEBUG_REPORT_PATH");
  int n;
  if (path != nullptr && path[0] != '\0') {
    n = snprintf(g_reportPath, sizeof g_reportPath, "%s", path);
  } else {
    const char* folder = getenv("TMPDIR");
    if (folder == nullptr || folder[0] == '\0') folder = "/tmp";
    n = snprintf(g_reportPath, sizeof g_reportPath, "%s/zorv-debug-%ld.json", folder,
                 static_cast<long>(getpid()));
  }
  return n > 0 && n < static_cast<int>(sizeof g_reportPath);
}

struct SignalReporter {
  SignalReporter() {
    const int number = SignalNamed(getenv("ZORV_DEBUG_SIGNAL"));
    if (number == 0 || !ReportPathFromEnvironment()) return;
    sigemptyset(&g_waitSet);
    sigaddset(&g_waitSet, number);
    sigset_t before;
    if (pthread_sigmask(SIG_BLOCK, &g_waitSet, &before) != 0) return;
    pthread_attr_t attributes;
    pthread_t thread;
    bool started = false;
    if (pthread_attr_init(&attributes) == 0) {
      pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
      pthread_attr_setstacksize(&attributes, 256 * 1024);
      started = pthread_create(&thread, &attributes, &WaitForRequests, nullptr) == 0;
      pthread_attr_destroy(&attributes);
    }
    // Without the thread, the signal keeps the mask it had before.
    if (!started) pthread_sigmask(SIG_SETMASK, &before, nullptr);
  }
};
SignalReporter g_signalReporter;

}  // namespace
}  // namespace debug
}  // namespace foundation
}  // namespace zorv
