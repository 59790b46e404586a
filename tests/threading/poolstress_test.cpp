// Load and race tests of the executors and the timer scheduler. Sizes shrink
// under sanitizers and on slow targets (ZORV_SLOW_TARGET).
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "foundation/lang/accounted.h"
#include "foundation/lang/exception.h"
#include "foundation/threading/threadpool/affinitythreadpool.h"
#include "foundation/threading/threadpool/threadpool.h"
#include "foundation/threading/timer/timerscheduler.h"
#include "support/leakcheck.h"
#include "support/taskprobe.h"

namespace {

namespace zf = zorv::foundation;
using zf::threading::AffinityThreadPool;
using zf::threading::IExecutor;
using zf::threading::ITask;
using zf::threading::ITimer;
using zf::threading::Thread;
using zf::threading::ThreadPool;
using zf::threading::TimerScheduler;
using zorv::test::PollUntil;
using zorv::test::Scaled;
using zorv::test::SlowTarget;

// A tiny task that counts its run and its disposal in per-task slots, so
// that a task run or disposed twice is seen.
struct Slots {
  explicit Slots(size_t n) : runs(n), disposals(n) {}
  std::vector<std::atomic<unsigned char>> runs;
  std::vector<std::atomic<unsigned char>> disposals;
};

class SlotTask : public ITask {
 public:
  SlotTask(Slots* slots, size_t index, unsigned int affinity)
      : slots_(slots), index_(index), affinity_(affinity) {}
  ~SlotTask() override { slots_->disposals[index_].fetch_add(1); }
  void run() override { slots_->runs[index_].fetch_add(1); }
  unsigned int getAffinity() const override { return affinity_; }

 private:
  Slots* slots_;
  size_t index_;
  unsigned int affinity_;
};

// `producers` threads add `perProducer` tasks each to a pool of `workers`;
// a bound of 0 keeps the default. Many producers against a small bound block
// on a full queue; many workers against few producers often find the queue
// empty and are handed their tasks as they wait.
template <class Pool>
void RunProducers(unsigned int workers, unsigned int producers, unsigned int perProducer,
                  unsigned int bound) {
  Slots slots(static_cast<size_t>(producers) * perProducer);
  {
    Pool pool(workers);
    if (bound != 0) pool.setMaxTaskNum(bound);
    std::vector<std::thread> threads;
    for (unsigned int p = 0; p < producers; ++p) {
      threads.emplace_back([&, p] {
        for (unsigned int i = 0; i < perProducer; ++i) {
          const size_t index = static_cast<size_t>(p) * perProducer + i;
          // Plain new: the disposal of unrecorded objects is part of the
          // contract, and it keeps the object monitor out of the hot path.
          ITask* task = new SlotTask(&slots, index, p);
          if (i % 64 == 0) {
            while (!pool.tryAddTask(task, 1)) {
            }
          } else {
            pool.addTask(task);
          }
        }
      });
    }
    for (std::thread& t : threads) t.join();
  }
  size_t bad = 0;
  for (size_t i = 0; i < slots.runs.size(); ++i) {
    if (slots.runs[i].load() != 1 || slots.disposals[i].load() != 1) ++bad;
  }
  EXPECT_EQ(bad, 0u) << "tasks not run or not disposed exactly once";
}

using PoolStressTest = zorv::test::LeakCheckedTest;

TEST_F(PoolStressTest, ThreadPoolProducersBlockOnASmallQueueAndNothingIsLost) {
  RunProducers<ThreadPool>(4, 8, Scaled(100000, 20), 100);
}

TEST_F(PoolStressTest, AffinityPoolProducersBlockOnSmallQueuesAndNothingIsLost) {
  RunProducers<AffinityThreadPool>(4, 8, Scaled(100000, 20), 100);
}

TEST_F(PoolStressTest, ThreadPoolHandsTasksToWaitingWorkersExactlyOnce) {
  RunProducers<ThreadPool>(8, 3, Scaled(50000, 20), 0);
}

TEST_F(PoolStressTest, AffinityPoolHandsTasksToWaitingWorkersExactlyOnce) {
  RunProducers<AffinityThreadPool>(8, 3, Scaled(50000, 20), 0);
}

// Tasks that belong to the test, so that one accepted and then neither run
// nor disposed is seen rather than leaked.
class OwnedTask : public ITask {
 public:
  void run() override { runs.fetch_add(1); }
  void dispose() override { disposals.fetch_add(1); }
  std::atomic<int> runs{0};
  std::atomic<int> disposals{0};
  std::atomic<int> refused{0};
  std::atomic<int> offered{0};
};

// Producers keep adding (blocking, and now and then timed) to a pool with a
// small bound while one thread stops it and another stops it at the same
// time. Every task handed over is disposed exactly once: run, or refused
// with "executor has stopped"; both stop() calls return.
template <class Pool>
void StopRacingProducers(const char* addSource) {
  const unsigned int producers = 4;
  const unsigned int perProducer = Scaled(3000, 10);
  const unsigned int rounds = SlowTarget() ? 3 : 10;
  for (unsigned int round = 0; round < rounds; ++round) {
    SCOPED_TRACE(round);
    std::vector<std::unique_ptr<OwnedTask>> tasks(producers * perProducer);
    for (auto& t : tasks) t.reset(new OwnedTask());
    std::atomic<int> badRefusals{0};
    {
      Pool pool(2);
      pool.setMaxTaskNum(200);
      std::atomic<int> ready{0};
      std::vector<std::thread> threads;
      for (unsigned int p = 0; p < producers; ++p) {
        threads.emplace_back([&, p] {
          ready.fetch_add(1);
          for (unsigned int i = 0; i < perProducer; ++i) {
            OwnedTask* task = tasks[p * perProducer + i].get();
            task->offered.store(1);
            try {
              if (i % 8 == 0) {
                while (!pool.tryAddTask(task, 1)) {
                }
              } else {
                pool.addTask(task);
              }
            } catch (const zf::lang::Exception& e) {
              task->refused.fetch_add(1);
              if (std::string(e.func().c_str()) != addSource ||
                  std::string(e.info().c_str()) != "executor has stopped") {
                badRefusals.fetch_add(1);
              }
              return;
            }
          }
        });
      }
      ASSERT_TRUE(PollUntil([&] { return ready.load() == static_cast<int>(producers); }));
      std::atomic<int> stopped{0};
      std::thread stopper([&] {
        pool.stop();
        stopped.fetch_add(1);
      });
      std::thread racer([&] {
        pool.stop();
        stopped.fetch_add(1);
      });
      EXPECT_TRUE(PollUntil([&] { return stopped.load() == 2; })) << "a stop() did not return";
      stopper.join();
      racer.join();
      for (std::thread& t : threads) t.join();
    }
    EXPECT_EQ(badRefusals.load(), 0);
    size_t lost = 0;
    size_t twice = 0;
    for (auto& t : tasks) {
      const int runs = t->runs.load();
      const int disposals = t->disposals.load();
      const int refused = t->refused.load();
      if (runs > 1 || disposals > 1) ++twice;
      if (t->offered.load() == 0) {
        if (runs + disposals != 0) ++twice;
      } else if (disposals != 1 || runs + refused != 1) {
        ++lost;  // neither run nor refused, or not disposed
      }
    }
    EXPECT_EQ(lost, 0u) << "tasks handed over were neither run nor refused and disposed";
    EXPECT_EQ(twice, 0u) << "tasks run or disposed more than once";
  }
}

TEST_F(PoolStressTest, ThreadPoolStopRacingProducersLosesNoTask) {
  StopRacingProducers<ThreadPool>("zorv.foundation.threading.ThreadPool.addTask");
}

TEST_F(PoolStressTest, AffinityPoolStopRacingProducersLosesNoTask) {
  StopRacingProducers<AffinityThreadPool>("zorv.foundation.threading.AffinityThreadPool.addTask");
}

// A timer that counts its disposal in a slot, and checks that it never runs
// twice at once.
class SlotTimer : public ITimer {
 public:
  SlotTimer(Slots* slots, size_t index, unsigned long long ms, bool repeat)
      : slots_(slots), index_(index), ms_(ms), repeat_(repeat) {}
  ~SlotTimer() override { slots_->disposals[index_].fetch_add(1); }
  void run() override {
    if (busy_.exchange(true)) overlap.fetch_add(1);
    slots_->runs[index_].store(1);
    busy_.store(false);
  }
  bool isRepeat() override { return repeat_; }
  unsigned long long interval() override { return ms_; }

  static std::atomic<int> overlap;

 private:
  Slots* slots_;
  size_t index_;
  unsigned long long ms_;
  bool repeat_;
  std::atomic<bool> busy_{false};
};

std::atomic<int> SlotTimer::overlap{0};

void RandomTimerTraffic(IExecutor* executor) {
  const unsigned int threads = 4;
  const unsigned int perThread = Scaled(3000, 10);
  Slots slots(static_cast<size_t>(threads) * perThread);
  SlotTimer::overlap = 0;
  {
    TimerScheduler scheduler(executor);
    std::vector<std::thread> workers;
    for (unsigned int w = 0; w < threads; ++w) {
      workers.emplace_back([&, w] {
        std::mt19937 random(1234 + w);
        std::vector<ITimer*> mine;
        for (unsigned int i = 0; i < perThread; ++i) {
          const size_t index = static_cast<size_t>(w) * perThread + i;
          ITimer* timer = zf::lang::MakeDisposable<SlotTimer>("SlotTimer", &slots, index,
                                                              random() % 4, random() % 2 == 0);
          scheduler.addTimer(timer);
          mine.push_back(timer);
          if (random() % 3 != 0 && !mine.empty()) {
            const size_t pick = random() % mine.size();
            // A removed timer may already be disposed: its pointer is only
            // used as a key, and removing it twice is ignored.
            scheduler.removeTimer(mine[pick], random() % 2 == 0);
          }
          if (i % 500 == 0) Thread::Yield();
        }
      });
    }
    for (std::thread& t : workers) t.join();
    Thread::Sleep(5);
    scheduler.stop();
  }
  size_t bad = 0;
  for (size_t i = 0; i < slots.disposals.size(); ++i) {
    if (slots.disposals[i].load() != 1) ++bad;
  }
  EXPECT_EQ(bad, 0u) << "timers not disposed exactly once";
  EXPECT_EQ(SlotTimer::overlap.load(), 0) << "a timer ran twice at once";
}

TEST_F(PoolStressTest, RandomTimerAddRemoveOnTheSchedulerThread) { RandomTimerTraffic(nullptr); }

TEST_F(PoolStressTest, RandomTimerAddRemoveThroughAPool) {
  ThreadPool pool(3);
  RandomTimerTraffic(&pool);
}

}  // namespace
