// The debug-support library's report of live objects, blocks, handles and
// timing statistics.
#ifndef ZORV_FOUNDATION_DEBUG_REPORT_H_
#define ZORV_FOUNDATION_DEBUG_REPORT_H_

#include "foundation/export.h"

namespace zorv {
namespace foundation {
namespace debug {

// Writes to standard error: the live objects grouped by name and
// source:line, the live blocks and bytes, the live handles, and for each
// category/operation the count, total and longest time of its scopes.
// With ZORV_DEBUG_REPORT=1 in the environment the report is also written at
// process exit.
ZORV_DEBUG_EXPORT void PrintReport();

// The forms of the report that WriteReport writes.
enum class ReportFormat {
  // The text that PrintReport prints, byte for byte.
  kText,
  // One JSON object (UTF-8, ending with a newline), version 1:
  //
  //   {
  //     "version": 1,
  //     "pid": 1234,
  //     "objects": {
  //       "live": 3,
  //       "groups": [{"name": "Thing", "source": "../lang/x.cpp", "line": 12,
  //                   "count": 3, "bytes": 96}]
  //     },
  //     "blocks": {
  //       "live": 40, "bytes": 5120,
  //       "by_size": [{"min": 0, "max": 16, "live": 10}, ...]
  //     },
  //     "handles": 7,
  //     "timing": [{"category": "zorv.foundation.threading.ThreadPool",
  //                 "operation": "Exec", "count": 5, "total_ns": 5000,
  //                 "mean_ns": 1000, "max_ns": 1900, "p50_ns": 1024,
  //                 "p99_ns": 1900}]
  //   }
  //
  // Every number is an integer; "handles" and the "live" counts of
  // "by_size" may be negative when a count was given back more often than
  // taken. "groups" is sorted by name, source and line, like the text, and
  // each group counts the live objects recorded with that name, source and
  // line. "by_size" always has 14 classes: 0-16 bytes, then 17-32, 33-64
  // and so on up to 32769-65536, and last 65537-4294967295. "timing" has one
  // entry per category/operation pair ever timed; "mean_ns" is total_ns /
  // count rounded down (0 when count is 0). "p50_ns" and "p99_ns" come from
  // a fixed log-scale histogram (below 32 ns one bucket, above that two
  // buckets per power of two): each is the end of the bucket that holds
  // that percentile, never more than "max_ns", so it is at most 1.5 times
  // the true value (or 32 ns). Names are written as given: quotes,
  // backslashes and control characters are escaped, valid UTF-8 is kept,
  // and each byte that is not part of valid UTF-8 is written as \u00XX (the
  // byte's value). Readers should ignore members they do not know: later
  // versions only add members.
  kJson,
};

// Writes the report in `format` to the open descriptor `fd`. Interrupted
// and partial writes are continued; SIGPIPE is not raised (the calling
// thread blocks it for the duration of the call, and a SIGPIPE caused by
// the write is discarded). Returns false when writing fails (a bad
// descriptor, EPIPE, a full disk): part of the report may have been written.
// Thread safety: callable from any thread, concurrently with every other
// operation of the library; the figures are a snapshot taken while other
// threads may keep changing them.
[[nodiscard]] ZORV_DEBUG_EXPORT bool WriteReport(int fd, ReportFormat format);

// Reports on request from outside the process: when ZORV_DEBUG_SIGNAL is
// USR1 or USR2 (SIGUSR1 and SIGUSR2 are accepted too) in the environment
// when the library is loaded, the library blocks that signal in the loading
// thread and starts one detached thread that waits for it with sigwait.
// Each time the signal arrives, that thread writes the JSON report to
// ZORV_DEBUG_REPORT_PATH, or by default to zorv-debug-<pid>.json in $TMPDIR
// (/tmp when unset), through a temporary file in the same folder renamed
// over the old report, so a reader sees a complete report or none. Nothing
// runs in a signal handler and no signal disposition changes.
//
// Threads inherit the blocked signal from the thread that creates them, so
// the library must be loaded before the process creates threads (linked to
// the program, not opened later with dlopen); otherwise a thread that does
// not block the signal may take it with its default action (the process
// ends). A child created with fork has no reporting thread and keeps the
// signal blocked: signals sent to it stay pending and do not end it.
// The thread never keeps the process from ending. Without the variable
// (or with another value) there is no thread and no signal is blocked.

}  // namespace debug
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_DEBUG_REPORT_H_
