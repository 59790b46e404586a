// Shared internals of the debug-support library: raw memory, locks that are
// safe across fork, and the clock.
#ifndef ZORV_DEBUG_INTERNAL_H_
#define ZORV_DEBUG_INTERNAL_H_

#include <pthread.h>
#include <time.h>

namespace zorv {
namespace foundation {
namespace debug {
namespace internal {

// A mutex that the fork handlers of this library take before fork and give
// back in parent and child, so that a child never inherits it locked.
// Constant-initialised: usable before any constructor runs.
struct ForkSafeMutex {
  pthread_mutex_t mutex;
  ForkSafeMutex* next;
};

#define ZORV_DEBUG_FORK_SAFE_MUTEX_INIT {PTHREAD_MUTEX_INITIALIZER, nullptr}

// Adds a mutex to the set the fork handlers take; idempotent per mutex only
// when called once: call it from the owner's one-time set-up.
void RegisterForkSafe(ForkSafeMutex* m);

class ScopedLock {
 public:
  explicit ScopedLock(ForkSafeMutex& m) : m_(m) { pthread_mutex_lock(&m_.mutex); }
  ~ScopedLock() { pthread_mutex_unlock(&m_.mutex); }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  ForkSafeMutex& m_;
};

inline unsigned long long MonotonicNanos() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<unsigned long long>(ts.tv_sec) * 1000000000ull +
         static_cast<unsigned long long>(ts.tv_nsec);
}

// True when the environment variable is set to a value other than "" or "0".
bool EnvFlag(const char* name);

// Walks the live objects for the report: calls visit once per record.
using ObjectVisitor = void (*)(void* context, const char* name,
                               const char* source, int line, unsigned int size);
void VisitObjects(ObjectVisitor visit, void* context);

// Walks the timing statistics for the report.
using ChronoVisitor = void (*)(void* context, const char* category,
                               const char* operation, unsigned long long count,
                               unsigned long long totalNanos,
                               unsigned long long maxNanos);
void VisitChrono(ChronoVisitor visit, void* context);

}  // namespace internal
}  // namespace debug
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_DEBUG_INTERNAL_H_
