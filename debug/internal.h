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

// Durations of timing scopes are counted in a fixed log-scale histogram:
// bucket 0 holds [0, 32) ns; above that each power of two [2^e, 2^(e+1)) is
// split into two buckets at 1.5 * 2^e, so a bucket is at most 1.5 times as
// wide at its end as at its start. The last bucket also holds every longer
// duration (from 2^36 ns, about 69 s).
constexpr unsigned int kTimingBuckets = 64;

inline unsigned int TimingBucket(unsigned long long nanos) {
  if (nanos < 32) return 0;
  const unsigned int e = 63u - static_cast<unsigned int>(__builtin_clzll(nanos));
  const unsigned int b = 1u + 2u * (e - 5u) + static_cast<unsigned int>((nanos >> (e - 1u)) & 1u);
  return b < kTimingBuckets ? b : kTimingBuckets - 1;
}

// The first duration beyond bucket b (b < kTimingBuckets - 1).
inline unsigned long long TimingBucketEnd(unsigned int b) {
  if (b == 0) return 32;
  const unsigned int e = (b - 1u) / 2u + 5u;
  return (1ull << e) + (((b - 1u) & 1u) + 1ull) * (1ull << (e - 1u));
}

// A snapshot of the statistics of one category/operation pair; count is the
// sum of the buckets.
struct TimingStats {
  const char* category;
  const char* operation;
  unsigned long long count;
  unsigned long long totalNanos;
  unsigned long long maxNanos;
  unsigned long long buckets[kTimingBuckets];
};

// Walks the timing statistics for the report.
using ChronoVisitor = void (*)(void* context, const TimingStats& stats);
void VisitChrono(ChronoVisitor visit, void* context);

// Live blocks by size class: class 0 holds blocks of up to 16 bytes, class c
// (1 <= c < kSizeClasses - 1) those of 2^(c+3)+1 to 2^(c+4) bytes, and the
// last class every block above 64 KiB.
constexpr unsigned int kSizeClasses = 14;

inline unsigned int SizeClass(unsigned int size) {
  if (size <= 16) return 0;
  const unsigned int c = 28u - static_cast<unsigned int>(__builtin_clz(size - 1u));
  return c < kSizeClasses ? c : kSizeClasses - 1;
}

// Fills counts[c] with the live blocks of class c.
void LiveBlocksBySize(long long counts[kSizeClasses]);

}  // namespace internal
}  // namespace debug
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_DEBUG_INTERNAL_H_
