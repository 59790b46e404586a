// Timing scopes and thread names of the debug-support library.
#ifndef ZORV_FOUNDATION_DEBUG_CHRONOMONITOR_H_
#define ZORV_FOUNDATION_DEBUG_CHRONOMONITOR_H_

#include "foundation/export.h"
#include "foundation/text/safestring.h"

namespace zorv {
namespace foundation {
namespace debug {

// Collects per category/operation timing statistics (count, total, maximum,
// and a log-scale histogram of durations that the JSON report reads its
// percentiles from) and the names of threads.
//
// Thread safety: every operation may be called from any thread. Completing a
// timing scope takes no lock once its category/operation pair has been seen,
// and never allocates memory. Up to 1024 pairs with 64 KiB of text in all are
// kept; the scopes of pairs beyond that are not counted. Each thread counts
// the scopes of its first 8 pairs in counters of its own (256 such sets in
// the process, handed on when a thread ends), so that threads timing the
// same pair do not contend; the figures read are the sums.
//
// Durations are read from the monotonic clock. On x86-64, where the
// processor's time-stamp counter runs at a constant rate and the kernel
// keeps time by it, scopes read that counter instead once its rate has been
// measured against the monotonic clock, 50 ms after the first scope ended.
class ZORV_DEBUG_EXPORT ChronoMonitor {
 public:
  // A scope that times an operation: the time from construction to
  // destruction is added to the statistics of (category, operation). Both
  // texts must stay valid for the life of the scope.
  class ZORV_DEBUG_EXPORT Chronometer {
   public:
    Chronometer(const char* category, const char* operation);
    ~Chronometer();
    Chronometer(const Chronometer&) = delete;
    Chronometer& operator=(const Chronometer&) = delete;

   private:
    const char* category_;
    const char* operation_;
    unsigned long long start_;
  };

  // Names the calling thread. The operating-system name (limited to 15
  // bytes) is set too, keeping the last 15 bytes of a longer name.
  static void SetThreadName(const SafeString& name);

  // The name registered by the thread whose pthread_t, widened, is threadId;
  // empty for a thread that never named itself. A name is forgotten when its
  // thread ends (pthread_t values are reused: a later thread with the same
  // value has no name until it names itself); the name of the process's
  // first thread lasts until the process ends.
  static SafeString GetThreadName(unsigned long long threadId);

  // Completed scopes of (category, operation); 0 for a pair never timed.
  static unsigned long long Count(const char* category, const char* operation);

  // Total and longest time of the completed scopes of (category, operation),
  // in nanoseconds.
  static unsigned long long TotalNanos(const char* category, const char* operation);
  static unsigned long long MaxNanos(const char* category, const char* operation);
};

}  // namespace debug
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_DEBUG_CHRONOMONITOR_H_
