// Race tests of the timer scheduler over a pool that another thread stops
// while timers are due, added and removed. Sizes shrink on slow targets.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
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

class StressTimer : public ITimer {
 public:
  StressTimer(Record* record, size_t index, unsigned long long ms, bool repeat)
      : record_(record), index_(index), ms_(ms), repeat_(repeat) {}
  ~StressTimer() override { record_->disposals[index_].fetch_add(1); }
  void run() override {
    if (busy_.exchange(true)) record_->overlaps.fetch_add(1);
    record_->runs.fetch_add(1);
    busy_.store(false);
  }
  bool isRepeat() override { return repeat_; }
  unsigned long long interval() override { return ms_; }

 private:
  Record* record_;
  size_t index_;
  unsigned long long ms_;
  bool repeat_;
  std::atomic<bool> busy_{false};
};

// Ends the process when a round outlives its bound: a stop() that never
// returns fails the test instead of blocking the suite.
class Watchdog {
 public:
  explicit Watchdog(const char* what)
      : thread_([this, what] {
          std::unique_lock<std::mutex> hold(mutex_);
          if (!done_.wait_for(hold, 3 * zorv::test::kLongWait, [this] { return finished_; })) {
            std::fprintf(stderr, "%s did not end in time\n", what);
            std::abort();
          }
        }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> hold(mutex_);
      finished_ = true;
    }
    done_.notify_all();
    thread_.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  bool finished_ = false;
  std::thread thread_;
};

// Each round: timers run through a two-worker pool that a second thread
// stops after a few runs, while this thread adds and removes more timers and,
// in every other round, stops the scheduler at the same time.
template <class Pool>
void TimersOverAStoppingPool() {
  const unsigned int rounds = Scaled(200, 20);
  const size_t perRound = Scaled(60, 4);
  for (unsigned int round = 0; round < rounds; ++round) {
    SCOPED_TRACE(round);
    Watchdog watchdog("a round of timers over a stopping pool");
    Record record(2 * perRound);
    std::vector<ITimer*> timers;
    auto newTimer = [&](size_t i) {
      timers.push_back(
          zf::lang::MakeDisposable<StressTimer>("StressTimer", &record, i, i % 3, i % 2 == 0));
      return timers.back();
    };
    {
      Pool pool(2);
      TimerScheduler scheduler(&pool);
      for (size_t i = 0; i < perRound; ++i) scheduler.addTimer(newTimer(i));
      std::atomic<bool> stopping{false};
      std::thread stopper([&] {
        (void)PollUntil(
            [&] { return stopping.load() || record.runs.load() >= static_cast<int>(round % 8); });
        pool.stop();
      });
      for (size_t i = perRound; i < 2 * perRound; ++i) {
        scheduler.addTimer(newTimer(i));
        // A removed timer may have ended and been disposed already: its
        // pointer is only a key, and an unknown key is ignored.
        if (i % 3 == 0) scheduler.removeTimer(timers[i - perRound], i % 2 == 0);
      }
      stopping = true;
      if (round % 2 == 0) scheduler.stop();
      stopper.join();
      scheduler.stop();
      EXPECT_EQ(scheduler.timerNum(), 0u);
    }
    size_t wrong = 0;
    for (const std::atomic<int>& disposals : record.disposals) {
      if (disposals.load() != 1) ++wrong;
    }
    EXPECT_EQ(wrong, 0u) << "timers not disposed exactly once";
    EXPECT_EQ(record.overlaps.load(), 0) << "a timer ran twice at once";
    if (::testing::Test::HasFailure()) return;
  }
}

using TimerStressTest = zorv::test::LeakCheckedTest;

TEST_F(TimerStressTest, TimersOverAThreadPoolStoppedByAnotherThread) {
  TimersOverAStoppingPool<ThreadPool>();
}

TEST_F(TimerStressTest, TimersOverAnAffinityPoolStoppedByAnotherThread) {
  TimersOverAStoppingPool<AffinityThreadPool>();
}

}  // namespace
