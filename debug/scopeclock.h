// The clock of timing scopes.
//
// A scope reads the clock twice, and with the monotonic clock those two
// readings cost more than all its bookkeeping. On x86-64, where the
// time-stamp counter runs at a constant rate in every state and the kernel
// keeps time by it, a scope reads the counter instead (less than half the
// cost) and converts ticks to nanoseconds with a factor measured against the
// monotonic clock. Until that factor is known (the first 50 ms after the
// first scope ends), and everywhere else, scopes read the monotonic clock.
//
// A start reading carries its kind: ticks have the top bit set. A scope
// that started before the factor was known ends on the monotonic clock too.
#ifndef ZORV_DEBUG_SCOPECLOCK_H_
#define ZORV_DEBUG_SCOPECLOCK_H_

#include <atomic>

#include "internal.h"

#if defined(__x86_64__)
#include <x86intrin.h>
#define ZORV_DEBUG_SCOPE_TICKS 1
#endif

namespace zorv {
namespace foundation {
namespace debug {
namespace internal {

#if defined(ZORV_DEBUG_SCOPE_TICKS)
// Nanoseconds per tick in 32.32 fixed point; 0 while unknown, kNoCounter
// once the counter turned out unusable.
extern std::atomic<unsigned long long> g_nanosPerTick;
constexpr unsigned long long kNoCounter = 1;

constexpr unsigned long long kTicksMark = 1ull << 63;

__extension__ typedef unsigned __int128 ScopeClockWide;

// Called while the factor is unknown, with a fresh monotonic reading: takes
// the first pair of readings, and a later one to measure the factor from.
void CalibrateScopeClock(unsigned long long monotonicNow);

// The steps of the calibration, apart from the readings they judge.
// A counter reading and a monotonic reading taken at the same moment.
struct ScopeClockPair {
  unsigned long long ticks;
  unsigned long long nanos;
};
// Whether `n` bytes read from the kernel's current_clocksource file name the
// counter ("tsc", with or without its newline).
bool ClockSourceIsCounter(const char* text, long n);
// The pair of a monotonic reading taken between two counter readings, or
// false when the counter ran backwards or the bracket is wider than 4096
// ticks (the thread lost its processor in between), or the counter has come
// to the mark bit.
bool PairFromBracket(unsigned long long before, unsigned long long nanos, unsigned long long after,
                     ScopeClockPair* pair);
// Whether a monotonic reading is at least 50 ms after the first pair's.
bool WindowElapsed(const ScopeClockPair& first, unsigned long long nanos);
// Nanoseconds per tick in 32.32 fixed point between two pairs; 0 unless
// the second pair is later in ticks and 50 ms later in nanoseconds, and the
// rate is between 100 MHz and 100 GHz.
unsigned long long FactorFromPairs(const ScopeClockPair& first, const ScopeClockPair& second);

inline unsigned long long ScopeClockStart() {
  if (g_nanosPerTick.load(std::memory_order_relaxed) > kNoCounter) return __rdtsc() | kTicksMark;
  return MonotonicNanos();
}

inline unsigned long long ScopeClockElapsed(unsigned long long start) {
  if ((start & kTicksMark) != 0) {
    const unsigned long long from = start & ~kTicksMark;
    const unsigned long long now = __rdtsc();
    // A scope may end on another processor, whose counter may lag a little.
    if (now <= from) return 0;
    const ScopeClockWide product =
        static_cast<ScopeClockWide>(now - from) * g_nanosPerTick.load(std::memory_order_relaxed);
    return static_cast<unsigned long long>(product >> 32);
  }
  const unsigned long long now = MonotonicNanos();
  if (g_nanosPerTick.load(std::memory_order_relaxed) == 0) CalibrateScopeClock(now);
  return now - start;
}
#else
inline unsigned long long ScopeClockStart() { return MonotonicNanos(); }
inline unsigned long long ScopeClockElapsed(unsigned long long start) {
  return MonotonicNanos() - start;
}
#endif

}  // namespace internal
}  // namespace debug
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_DEBUG_SCOPECLOCK_H_
