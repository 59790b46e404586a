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

TEST(ScopeClockTest, CalibrationStepsJudgeTheirReadings) {
  const struct {
    const char* text;
    long n;
    bool counter;
  } sources[] = {{"tsc\n", 4, true}, {"tsc", 3, true},     {"tsc2\n", 5, false},
                 {"ts", 2, false},   {"hpet\n", 5, false}, {"tsc", -1, false}};
  for (const auto& row : sources) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(internal::ClockSourceIsCounter(row.text, row.n), row.counter);
  }

  const struct {
    unsigned long long before, after;
    bool taken;
    unsigned long long ticks;
  } brackets[] = {{1000, 1002, true, 1001},
                  {1000, 5096, true, 3048},
                  {1000, 5097, false, 0},
                  {1000, 1000, false, 0},
                  {1000, 999, false, 0},
                  {(1ull << 63) - 2, (1ull << 63) - 1, true, (1ull << 63) - 2},
                  {(1ull << 63) - 1, 1ull << 63, false, 0}};
  for (const auto& row : brackets) {
    SCOPED_TRACE(row.after);
    internal::ScopeClockPair pair{0, 0};
    EXPECT_EQ(internal::PairFromBracket(row.before, 77, row.after, &pair), row.taken);
    EXPECT_EQ(pair.ticks, row.ticks);
    EXPECT_EQ(pair.nanos, row.taken ? 77u : 0u);
  }

  const internal::ScopeClockPair first{1000000, 1000000000};
  const struct {
    unsigned long long nanos;
    bool elapsed;
  } windows[] = {{1049999999, false}, {1050000000, true}, {999999999, false}};
  for (const auto& row : windows) {
    SCOPED_TRACE(row.nanos);
    EXPECT_EQ(internal::WindowElapsed(first, row.nanos), row.elapsed);
  }

  // The second pair 50 ms later, after `ticks` more ticks.
  const struct {
    unsigned long long ticks;
    unsigned long long factor;
  } rates[] = {
      {150000000, (1ull << 32) / 3},     // 3 GHz
      {5000000, 10ull << 32},            // 100 MHz, the slowest taken
      {4999999, 0},                      // slower
      {5000000000, (1ull << 32) / 100},  // 100 GHz, the fastest taken
      {5000001000, 0},                   // faster
      {0, 0},                            // the counter stood still
  };
  for (const auto& row : rates) {
    SCOPED_TRACE(row.ticks);
    EXPECT_EQ(internal::FactorFromPairs(first, {first.ticks + row.ticks, first.nanos + 50000000}),
              row.factor);
  }
  // A second pair less than 50 ms later.
  EXPECT_EQ(internal::FactorFromPairs(first, {first.ticks + 150000000, first.nanos + 49999999}),
            0u);
}
#endif

}  // namespace
