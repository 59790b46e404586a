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
unsigned long long g_anchorTicks;
unsigned long long g_anchorNanos;

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
  return n >= 3 && memcmp(name, "tsc", 3) == 0 && (n == 3 || name[3] == '\n');
}

bool ReadPair(unsigned long long* ticks, unsigned long long* nanos) {
  for (int attempt = 0; attempt < 4; ++attempt) {
    const unsigned long long before = __rdtsc();
    const unsigned long long now = MonotonicNanos();
    const unsigned long long after = __rdtsc();
    if (after > before && after - before <= kMaxBracketTicks) {
      *ticks = before + (after - before) / 2;
      *nanos = now;
      return true;
    }
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

void CalibrateScopeClock(unsigned long long monotonicNow) {
  int state = g_state.load(std::memory_order_acquire);
  if (state == kUntried) {
    if (!g_state.compare_exchange_strong(state, kBusy, std::memory_order_acquire)) return;
    if (!CounterKeepsTime()) {
      GiveUp();
      return;
    }
    unsigned long long ticks = 0, nanos = 0;
    // The mark of a tick reading must stay free.
    if (!ReadPair(&ticks, &nanos) || ticks >= kTicksMark) {
      g_state.store(kUntried, std::memory_order_release);
      return;
    }
    g_anchorTicks = ticks;
    g_anchorNanos = nanos;
    g_state.store(kAnchored, std::memory_order_release);
    return;
  }
  if (state != kAnchored || monotonicNow < g_anchorNanos ||
      monotonicNow - g_anchorNanos < kWindowNanos) {
    return;
  }
  if (!g_state.compare_exchange_strong(state, kBusy, std::memory_order_acquire)) return;
  unsigned long long ticks = 0, nanos = 0;
  if (!ReadPair(&ticks, &nanos) || ticks <= g_anchorTicks || nanos <= g_anchorNanos) {
    g_state.store(kAnchored, std::memory_order_release);
    return;
  }
  const unsigned long long factor = static_cast<unsigned long long>(
      (static_cast<ScopeClockWide>(nanos - g_anchorNanos) << 32) / (ticks - g_anchorTicks));
  // Believable rates only: 100 MHz to 100 GHz.
  if (factor < (1ull << 32) / 100 || factor > (10ull << 32)) {
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
