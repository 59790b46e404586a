#include "foundation/system/systemutils.h"

#include <sys/sysinfo.h>
#include <time.h>

#include <chrono>
#include <thread>

#include "support/boundedwait.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::system::SystemUtils;

using SystemUtilsTest = zorv::test::LeakCheckedTest;

unsigned long long MonotonicMilliseconds() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<unsigned long long>(now.tv_sec) * 1000ULL +
         static_cast<unsigned long long>(now.tv_nsec) / 1000000ULL;
}

// GetTick (milliseconds) and GetClock (in GetClockFreq units per second)
// read the monotonic clock, never go back and advance with it.
TEST_F(SystemUtilsTest, TickAndClockReadTheMonotonicClock) {
  const unsigned long long perMillisecond = SystemUtils::GetClockFreq() / 1000;
  ASSERT_EQ(perMillisecond, 1000ULL) << "the clock counts microseconds";
  unsigned long long lastTick = SystemUtils::GetTick(), lastClock = SystemUtils::GetClock();
  for (int i = 0; i < 1000; ++i) {
    const unsigned long long tick = SystemUtils::GetTick();
    const unsigned long long clock = SystemUtils::GetClock();
    const unsigned long long after = SystemUtils::GetTick();
    const unsigned long long mono = MonotonicMilliseconds();
    ASSERT_LE(lastTick, tick);
    ASSERT_LE(lastClock, clock);
    ASSERT_LE(tick, clock / perMillisecond);
    ASSERT_LE(clock / perMillisecond, after);
    ASSERT_LE(after, mono);
    ASSERT_LT(mono - after, 1000ULL);
    lastTick = tick;
    lastClock = clock;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // lets time pass
  EXPECT_GE(SystemUtils::GetTick() - lastTick, 19ULL);
  EXPECT_GE(SystemUtils::GetClock() - lastClock, 19000ULL);
}

TEST_F(SystemUtilsTest, TimeIsTheEpochSecondsAndProcessorsTheAvailableCount) {
  const long long before = static_cast<long long>(::time(nullptr));
  const long long now = SystemUtils::GetTime();
  EXPECT_LE(before, now);
  EXPECT_LE(now, static_cast<long long>(::time(nullptr)));
  EXPECT_EQ(SystemUtils::GetProcessorNum(), get_nprocs());
}

}  // namespace
