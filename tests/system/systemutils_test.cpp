#include "foundation/system/systemutils.h"

#include <sys/sysinfo.h>
#include <time.h>

#include <chrono>
#include <thread>

#include "support/leakcheck.h"

namespace {

using zorv::foundation::system::SystemUtils;

using SystemUtilsTest = zorv::test::LeakCheckedTest;

TEST_F(SystemUtilsTest, ClockFrequencyIsMicroseconds) {
  EXPECT_EQ(SystemUtils::GetClockFreq(), 1000000ULL);
}

TEST_F(SystemUtilsTest, TickAndClockReadTheSameMonotonicClock) {
  for (int i = 0; i < 100; ++i) {
    const unsigned long long tickBefore = SystemUtils::GetTick();
    const unsigned long long clock = SystemUtils::GetClock();
    const unsigned long long tickAfter = SystemUtils::GetTick();
    EXPECT_LE(tickBefore, clock / 1000);
    EXPECT_LE(clock / 1000, tickAfter);
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const unsigned long long mono = static_cast<unsigned long long>(now.tv_sec) * 1000ULL +
                                    static_cast<unsigned long long>(now.tv_nsec) / 1000000ULL;
    EXPECT_LE(tickAfter, mono);
    EXPECT_LT(mono - tickAfter, 1000ULL);
  }
}

TEST_F(SystemUtilsTest, ClocksNeverGoBackAndAdvance) {
  unsigned long long lastTick = SystemUtils::GetTick();
  unsigned long long lastClock = SystemUtils::GetClock();
  for (int i = 0; i < 1000; ++i) {
    const unsigned long long tick = SystemUtils::GetTick();
    const unsigned long long clock = SystemUtils::GetClock();
    ASSERT_GE(tick, lastTick);
    ASSERT_GE(clock, lastClock);
    lastTick = tick;
    lastClock = clock;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_GE(SystemUtils::GetTick() - lastTick, 19ULL);
  EXPECT_GE(SystemUtils::GetClock() - lastClock, 19000ULL);
}

TEST_F(SystemUtilsTest, TimeIsTheEpochSeconds) {
  const long long before = static_cast<long long>(::time(nullptr));
  const long long now = SystemUtils::GetTime();
  const long long after = static_cast<long long>(::time(nullptr));
  EXPECT_LE(before, now);
  EXPECT_LE(now, after);
  EXPECT_GT(now, 1600000000LL);
}

TEST_F(SystemUtilsTest, ProcessorNumberIsTheAvailableCount) {
  EXPECT_GE(SystemUtils::GetProcessorNum(), 1);
  EXPECT_EQ(SystemUtils::GetProcessorNum(), get_nprocs());
}

}  // namespace
