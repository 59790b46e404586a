// Race tests of the timer scheduler over a pool that another thread stops
// while timers are due, added and removed. Sizes shrink on slow targets; a
// stop() that never returns ends in the test's time limit.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <typeinfo>
#include <vector>

#include "foundation/lang/accounted.h"
#include "foundation/threading/threadpool/affinitythreadpool.h"
#include "foundation/threading/threadpool/threadpool.h"
#include "foundation/threading/timer/timerscheduler.h"
#include "support/leakcheck.h"
#include "support/taskprobe.h"

namespace {

namespace zf = zorv::foundation;
using zf::threading::AffinityThreadPool;
using zf::threading::ITimer;
using zf::threading::ThreadPool;
using zf::threading::TimerScheduler;
using zorv::test::PollUntil;
using zorv::test::Scaled;

// Per-timer counts, so that a timer disposed twice, or never, is seen.
struct Record {
  explicit Record(size_t n) : disposals(n) {}
  std::vector<std::atomic<int>> disposals;
  std::atomic<int> runs{0};
  std::atomic<int> overlaps{0};
};

// Timer i repeats when i is even, every i % 3 ms.
struct StressTimer : ITimer {
  StressTimer(Record* r, size_t i) : record(r), index(i) {}
  ~StressTimer() override { record->disposals[index].fetch_add(1); }
  void run() override { record->overlaps += busy.exchange(true), record->runs++, busy = false; }
  bool isRepeat() override { return index % 2 == 0; }
  unsigned long long interval() override { return index % 3; }
  Record* record;
  size_t index;
  std::atomic<bool> busy{false};
};

// Adds timer i, at a fixed rate when i % 4 < 2.
ITimer* AddTimer(TimerScheduler& scheduler, Record& record, size_t i) {
  ITimer* timer = zf::lang::MakeDisposable<StressTimer>("StressTimer", &record, i);
  i % 4 < 2 ? scheduler.addFixedRateTimer(timer) : scheduler.addTimer(timer);
  return timer;
}

// Each round: timers run through a two-worker pool that a second thread
// stops after a few runs, while this thread adds and removes more timers and,
// in every other round, stops the scheduler at the same time; every fourth
// round destroys the scheduler over the running pool instead.
template <class Pool>
void TimersOverAStoppingPool() {
  const unsigned int rounds = Scaled(200, 20);
  const size_t perRound = Scaled(60, 4);
  for (unsigned int round = 0; round < rounds && !::testing::Test::HasFailure(); ++round) {
    SCOPED_TRACE(::testing::Message() << typeid(Pool).name() << " round " << round);
    Record record(2 * perRound);
    std::vector<ITimer*> timers;
    {
      Pool pool(2);
      TimerScheduler scheduler(&pool);
      for (size_t i = 0; i < perRound; ++i) timers.push_back(AddTimer(scheduler, record, i));
      std::atomic<bool> stopping{false};
      std::thread stopper([&] {
        (void)PollUntil(
            [&] { return stopping.load() || record.runs.load() >= static_cast<int>(round % 8); });
        if (round % 4 != 3) pool.stop();  // else the scheduler is destroyed over a running pool
      });
      for (size_t i = perRound; i < 2 * perRound; ++i) {
        timers.push_back(AddTimer(scheduler, record, i));
        // A removed timer may have ended and been disposed already: its
        // pointer is only a key, and an unknown key is ignored.
        if (i % 3 == 0) scheduler.removeTimer(timers[i - perRound], i % 2 == 0);
      }
      stopping = true;
      if (round % 2 == 0) scheduler.stop();
      stopper.join();
      if (round % 4 != 3) scheduler.stop();  // else the destructor stops it
      EXPECT_TRUE(round % 4 == 3 || scheduler.timerNum() == 0u);
    }
    size_t wrong = 0;
    for (const std::atomic<int>& disposals : record.disposals) wrong += disposals.load() != 1;
    EXPECT_EQ(wrong, 0u) << "timers not disposed exactly once";
    EXPECT_EQ(record.overlaps.load(), 0) << "a timer ran twice at once";
  }
}

using TimerStressTest = zorv::test::LeakCheckedTest;

TEST_F(TimerStressTest, TimersOverAPoolStoppedByAnotherThread) {
  TimersOverAStoppingPool<ThreadPool>();
  TimersOverAStoppingPool<AffinityThreadPool>();
}

}  // namespace
