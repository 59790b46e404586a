// Measuring the time-stamp counter's rate against the monotonic clock.
//
// The first scope to end takes a pair of readings (counter, monotonic
// clock), after checking that the counter may be used at all; a scope that
// ends at least 50 ms later takes a second pair, and the factor is the
// ratio of the two spans. Each pair is bracketed by two counter readings
// taken close together, so a thread that lost its processor between them
// does not put a wrong pair in. One thread at a time takes a step; the
// others carry on with the monotonic clock meanwhile. No lock, no memory:
// scopes end before main and in children after fork.
#include "scopeclock.h"

#if defined(ZORV_DEBUG_SCOPE_TICKS)

#include <cpuid.h>
#include <fcntl.h>
#include <pthread.h>
#include <string.h>
#include <unistd.h>

namespace zorv {
namespace foundation {
namespace debug {
namespace internal {

std::atomic<unsigned long long> g_nanosPerTick{0};

namespace {

enum State : int { kUntried, kBusy, kAnchored, kUnusable, kDone };
std::atomic<int> g_state{kUntried};

// The first pair; written by the thread that anchors, published with
// kAnchored.
ScopeClockPair g_anchor;

constexpr unsigned long long kWindowNanos = 50000000;
// A pair whose bracket is wider than this is taken again: at 1 GHz or
// faster, 4096 ticks are at most 4 us, 80 ppm of the window.
constexpr unsigned long long kMaxBracketTicks = 4096;

// The counter runs at one rate in every power state (the "invariant" bit),
// and where the kernel names the clock it keeps time by, that is the
// counter: a kernel that found it unreliable switched away from it.
bool CounterKeepsTime() {
  unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(0x80000007u, &eax, &ebx, &ecx, &edx) == 0 || (edx & (1u << 8)) == 0) {
    return false;
  }
  const int fd = open("/sys/devices/system/clocksource/clocksource0/current_clocksource",
                      O_RDONLY | O_CLOEXEC);
  if (fd < 0) return true;
  char name[16] = {};
  const ssize_t n = read(fd, name, sizeof name - 1);
  close(fd);
  return ClockSourceIsCounter(name, static_cast<long>(n));
}

bool ReadPair(ScopeClockPair* pair) {
  for (int attempt = 0; attempt < 4; ++attempt) {
    const unsigned long long before = __rdtsc();
    const unsigned long long now = MonotonicNanos();
    if (PairFromBracket(before, now, __rdtsc(), pair)) return true;
  }
  return false;
}

// Scopes stay on the monotonic clock, and no longer call here.
void GiveUp() {
  g_nanosPerTick.store(kNoCounter, std::memory_order_relaxed);
  g_state.store(kUnusable, std::memory_order_relaxed);
}

// A child forked while another thread took a step starts again.
void ResetInChild() {
  int busy = kBusy;
  g_state.compare_exchange_strong(busy, kUntried, std::memory_order_relaxed);
}

struct Registrar {
  Registrar() { pthread_atfork(nullptr, nullptr, &ResetInChild); }
};
Registrar g_registrar;

}  // namespace

bool ClockSourceIsCounter(const char* text, long n) {
  return n >= 3 && memcmp(text, "tsc", 3) == 0 && (n == 3 || text[3] == '\n');
}

bool PairFromBracket(unsigned long long before, unsigned long long nanos, unsigned long long after,
                     ScopeClockPair* pair) {
  // The mark of a tick reading must stay free.
  if (after <= before || after - before > kMaxBracketTicks || after >= kTicksMark) return false;
  pair->ticks = before + (after - before) / 2;
  pair->nanos = nanos;
  return true;
}

bool WindowElapsed(const ScopeClockPair& first, unsigned long long nanos) {
  return nanos >= first.nanos + kWindowNanos;
}

unsigned long long FactorFromPairs(const ScopeClockPair& first, const ScopeClockPair& second) {
  if (second.ticks <= first.ticks || !WindowElapsed(first, second.nanos)) return 0;
  const unsigned long long factor = static_cast<unsigned long long>(
      (static_cast<ScopeClockWide>(second.nanos - first.nanos) << 32) /
      (second.ticks - first.ticks));
  // Believable rates only: 100 MHz to 100 GHz.
  if (factor < (1ull << 32) / 100 || factor > (10ull << 32)) return 0;
  return factor;
}

void CalibrateScopeClock(unsigned long long monotonicNow) {
  int state = g_state.load(std::memory_order_acquire);
  if (state == kUntried) {
    if (!g_state.compare_exchange_strong(state, kBusy, std::memory_order_acquire)) return;
    if (!CounterKeepsTime()) {
      GiveUp();
      return;
    }
    ScopeClockPair pair;
    if (!ReadPair(&pair)) {
      g_state.store(kUntried, std::memory_order_release);
      return;
    }
    g_anchor = pair;
    g_state.store(kAnchored, std::memory_order_release);
    return;
  }
  if (state != kAnchored || !WindowElapsed(g_anchor, monotonicNow)) return;
  if (!g_state.compare_exchange_strong(state, kBusy, std::memory_order_acquire)) return;
  ScopeClockPair pair;
  if (!ReadPair(&pair)) {
    g_state.store(kAnchored, std::memory_order_release);
    return;
  }
  const unsigned long long factor = FactorFromPairs(g_anchor, pair);
  if (factor == 0) {
    GiveUp();
    return;
  }
  g_nanosPerTick.store(factor, std::memory_order_relaxed);
  g_state.store(kDone, std::memory_order_relaxed);
}

}  // namespace internal
}  // namespace debug
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_DEBUG_SCOPE_TICKS
