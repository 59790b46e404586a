// The clock of timing scopes, driven through a copy of its own: it moves to
// the processor's counter where the kernel reports a counter that runs at
// one rate and keeps time by it, and stays on the monotonic clock elsewhere.
#include "scopeclock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

namespace {

namespace internal = zorv::foundation::debug::internal;

#if defined(ZORV_DEBUG_SCOPE_TICKS)
// What the kernel says, read from its own files: the "nonstop_tsc" flag
// (the counter's rate does not change) and the current clock source, where
// the kernel names it.
bool CounterExpected() {
  std::ifstream cpuinfo("/proc/cpuinfo");
  std::string line;
  bool invariant = false;
  while (std::getline(cpuinfo, line)) {
    if (line.rfind("flags", 0) != 0) continue;
    invariant = (line + " ").find(" nonstop_tsc ") != std::string::npos;
    break;
  }
  std::ifstream source("/sys/devices/system/clocksource/clocksource0/current_clocksource");
  std::string name;
  return invariant && (!source.is_open() || (source >> name && name == "tsc"));
}

TEST(ScopeClockTest, MovesToTheCounterOnlyWhereTheKernelKeepsTimeByIt) {
  const bool expected = CounterExpected();
  // The rate is measured over 50 ms; a second gives a loaded machine room.
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  bool ticks = false;
  while (!ticks && std::chrono::steady_clock::now() < end) {
    const unsigned long long start = internal::ScopeClockStart();
    ticks = (start & internal::kTicksMark) != 0;
    EXPECT_LT(internal::ScopeClockElapsed(start), 1000000000ull);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_EQ(ticks, expected);
}
#endif

}  // namespace
