#include "foundation/time/stopwatch.h"

#include <chrono>
#include <thread>

#include "support/boundedwait.h"
#include "support/leakcheck.h"

namespace {

using std::chrono::milliseconds;

using StopwatchTest = zorv::test::LeakCheckedTest;

// Reads 0 until started, the running time while running, and a frozen time
// after stop; start() restarts from now. Sleeps only let time pass.
TEST_F(StopwatchTest, MeasuresFreezesAndRestarts) {
  zorv::foundation::time::Stopwatch watch;
  watch.stop();  // stopping a stopped watch changes nothing
  EXPECT_TRUE(watch.isStopped());
  EXPECT_EQ(watch.toTick(), 0ULL);
  watch.start();
  EXPECT_FALSE(watch.isStopped());
  const milliseconds slept = zorv::test::Margin(40);  // longer where calls are slow
  std::this_thread::sleep_for(slept);
  const unsigned long long running = watch.toTick();
  EXPECT_GE(running, static_cast<unsigned long long>(slept.count()) - 1) << "reads while running";
  watch.stop();
  EXPECT_TRUE(watch.isStopped());
  const unsigned long long frozen = watch.toTick();
  const double seconds = watch.toSeconds();
  EXPECT_GE(frozen, running);
  EXPECT_LT(frozen, 20000ULL);
  EXPECT_NEAR(seconds * 1000.0, static_cast<double>(frozen), 1.0);
  std::this_thread::sleep_for(milliseconds(15));
  watch.stop();
  EXPECT_EQ(watch.toTick(), frozen) << "the reading no longer changes";
  EXPECT_EQ(watch.toSeconds(), seconds);
  watch.start();
  watch.stop();
  EXPECT_LT(watch.toTick(), static_cast<unsigned long long>(slept.count()) - 1)
      << "the restart dropped the earlier time";
}

}  // namespace
