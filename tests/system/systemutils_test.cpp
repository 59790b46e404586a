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

// GetTick (milliseconds) and GetClock (in GetClockFreq units per second)
// read the monotonic clock, never go back and advance with it; GetTime is
// the epoch seconds, GetProcessorNum the available processors.
TEST_F(SystemUtilsTest, ClocksTimeAndProcessors) {
  const long long before = static_cast<long long>(::time(nullptr));
  const long long now = SystemUtils::GetTime();
  EXPECT_LE(before, now);
  EXPECT_LE(now, static_cast<long long>(::time(nullptr)));
  EXPECT_EQ(SystemUtils::GetProcessorNum(), get_nprocs());
  const unsigned long long perMillisecond = SystemUtils::GetClockFreq() / 1000;
  ASSERT_EQ(perMillisecond, 1000ULL) << "the clock counts microseconds";
  unsigned long long lastTick = SystemUtils::GetTick(), lastClock = SystemUtils::GetClock();
  for (int i = 0; i < 1000; ++i) {
    const unsigned long long tick = SystemUtils::GetTick();
    const unsigned long long clock = SystemUtils::GetClock();
    const unsigned long long after = SystemUtils::GetTick();
    // steady_clock is CLOCK_MONOTONIC.
    const unsigned long long mono = std::chrono::duration_cast<std::chrono::milliseconds>(
                                        std::chrono::steady_clock::now().time_since_epoch())
                                        .count();
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

}  // namespace
