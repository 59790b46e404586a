// Load and race tests of the executors and the timer scheduler. Sizes shrink
// under sanitizers and on slow targets (ZORV_SLOW_TARGET).
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
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
using zf::threading::ThreadPool;
using zorv::test::PollUntil;
using zorv::test::Scaled;

// Per-item counts, so that an item run or disposed twice, or never, is seen.
struct Slots {
  explicit Slots(size_t n) : offered(n), runs(n), disposals(n), refused(n) {}
  // Items offered but not disposed once, or neither run nor refused once,
  // and items never offered but touched.
  size_t wrong() const {
    size_t bad = 0;
    for (size_t i = 0; i < offered.size(); ++i) {
      const int done = runs[i].load() + refused[i].load();
      if (offered[i].load() != 0 ? disposals[i].load() != 1 || done != 1
                                 : disposals[i].load() + done != 0) {
        ++bad;
      }
    }
    return bad;
  }
  std::vector<std::atomic<int>> offered, runs, disposals, refused;
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

struct Counts {
  std::atomic<int> started{0};
  std::atomic<int> refusals{0};
  std::atomic<int> badTexts{0};
};

// Starts `producers` threads that each add `perProducer` tasks of their own
// affinity, every 8th with tryAddTask, until one is refused.
template <class Pool>
std::vector<std::thread> StartProducers(Pool& pool, Slots& slots, unsigned int producers,
                                        unsigned int perProducer, Counts& counts) {
  const std::string source = std::is_same<Pool, ThreadPool>::value
                                 ? "zorv.foundation.threading.ThreadPool.addTask"
                                 : "zorv.foundation.threading.AffinityThreadPool.addTask";
  std::vector<std::thread> threads;
  for (unsigned int p = 0; p < producers; ++p) {
    threads.emplace_back([&pool, &slots, &counts, source, p, perProducer] {
      counts.started.fetch_add(1);
      for (unsigned int i = 0; i < perProducer; ++i) {
        const size_t index = static_cast<size_t>(p) * perProducer + i;
        // Plain new: the disposal of unrecorded objects is part of the
        // contract, and it keeps the object monitor out of the hot path.
        ITask* task = new SlotTask(&slots, index, p);
        slots.offered[index].store(1);
        try {
          if (i % 8 == 0) {
            while (!pool.tryAddTask(task, 1)) {
            }
          } else {
            pool.addTask(task);
          }
        } catch (const zf::lang::Exception& e) {
          slots.refused[index].fetch_add(1);
          counts.refusals.fetch_add(1);
          if (std::string(e.func().c_str()) != source ||
              std::string(e.info().c_str()) != "executor has stopped") {
            counts.badTexts.fetch_add(1);
          }
          return;
        }
      }
    });
  }
  return threads;
}

template <class Pool>
class PoolStressTest : public zorv::test::LeakCheckedTest {};

using Executors = ::testing::Types<ThreadPool, AffinityThreadPool>;
struct ExecutorNames {
  template <class T>
  static std::string GetName(int) {
    return std::is_same<T, ThreadPool>::value ? "ThreadPool" : "AffinityThreadPool";
  }
};
TYPED_TEST_SUITE(PoolStressTest, Executors, ExecutorNames);

// Many producers against a small bound block on full queues; many workers
// against few producers find the queue empty and are handed their tasks as
// they wait. Every task runs and is disposed exactly once.
TYPED_TEST(PoolStressTest, ProducersLoseNoTask) {
  const struct {
    unsigned int workers, producers, perProducer, bound;
  } cases[] = {{4, 8, Scaled(100000, 20), 100}, {8, 3, Scaled(50000, 20), 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.workers);
    Slots slots(static_cast<size_t>(c.producers) * c.perProducer);
    Counts counts;
    {
      TypeParam pool(c.workers);
      if (c.bound != 0) pool.setMaxTaskNum(c.bound);
      for (std::thread& t : StartProducers(pool, slots, c.producers, c.perProducer, counts)) {
        t.join();
      }
    }
    EXPECT_EQ(counts.refusals.load(), 0);
    EXPECT_EQ(slots.wrong(), 0u) << "tasks not run or not disposed exactly once";
  }
}

// Producers keep adding to a pool with a small bound while two threads stop
// it at once. Every task handed over is disposed exactly once, run or
// refused with "executor has stopped"; both stop() calls return.
TYPED_TEST(PoolStressTest, StopRacingProducersLosesNoTask) {
  const unsigned int producers = 4;
  const unsigned int perProducer = Scaled(3000, 10);
  const unsigned int rounds = zorv::test::SlowTarget() ? 3 : 10;
  for (unsigned int round = 0; round < rounds; ++round) {
    SCOPED_TRACE(round);
    Slots slots(static_cast<size_t>(producers) * perProducer);
    Counts counts;
    {
      TypeParam pool(2);
      pool.setMaxTaskNum(200);
      std::vector<std::thread> threads = StartProducers(pool, slots, producers, perProducer, counts);
      ASSERT_TRUE(PollUntil([&] { return counts.started.load() == static_cast<int>(producers); }));
      std::atomic<int> stopped{0};
      for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
          pool.stop();
          stopped.fetch_add(1);
        });
      }
      EXPECT_TRUE(PollUntil([&] { return stopped.load() == 2; })) << "a stop() did not return";
      for (std::thread& t : threads) t.join();
    }
    EXPECT_EQ(counts.badTexts.load(), 0);
    EXPECT_EQ(slots.wrong(), 0u) << "tasks lost, or run or disposed more than once";
  }
}

// A timer that counts its disposal in a slot and sees overlapping runs.
class SlotTimer : public ITimer {
 public:
  SlotTimer(Slots* slots, size_t index, unsigned long long ms, bool repeat)
      : slots_(slots), index_(index), ms_(ms), repeat_(repeat) {}
  ~SlotTimer() override { slots_->disposals[index_].fetch_add(1); }
  void run() override {
    if (busy_.exchange(true)) overlaps.fetch_add(1);
    busy_.store(false);
  }
  bool isRepeat() override { return repeat_; }
  unsigned long long interval() override { return ms_; }

  static std::atomic<int> overlaps;

 private:
  Slots* slots_;
  size_t index_;
  unsigned long long ms_;
  bool repeat_;
  std::atomic<bool> busy_{false};
};

std::atomic<int> SlotTimer::overlaps{0};

using TimerTrafficTest = zorv::test::LeakCheckedTest;

// Four threads add timers and remove random ones at once, on the
// scheduler's own thread and through a pool: every timer is disposed
// exactly once and none runs twice at once.
TEST_F(TimerTrafficTest, RandomAddRemoveFromManyThreads) {
  for (const bool throughPool : {false, true}) {
    SCOPED_TRACE(throughPool);
    const unsigned int threads = 4;
    const unsigned int perThread = Scaled(3000, 10);
    Slots slots(static_cast<size_t>(threads) * perThread);
    SlotTimer::overlaps = 0;
    {
      ThreadPool pool(3);
      zf::threading::TimerScheduler scheduler(throughPool ? &pool : nullptr);
      std::vector<std::thread> adders;
      for (unsigned int w = 0; w < threads; ++w) {
        adders.emplace_back([&, w] {
          std::mt19937 random(1234 + w);
          std::vector<ITimer*> mine;
          for (unsigned int i = 0; i < perThread; ++i) {
            const size_t index = static_cast<size_t>(w) * perThread + i;
            mine.push_back(zf::lang::MakeDisposable<SlotTimer>("SlotTimer", &slots, index,
                                                               random() % 4, random() % 2 == 0));
            scheduler.addTimer(mine.back());
            // A removed timer may be disposed already: its pointer is only a
            // key, and removing it twice is ignored.
            if (random() % 3 != 0) scheduler.removeTimer(mine[random() % mine.size()], random() % 2 == 0);
          }
        });
      }
      for (std::thread& t : adders) t.join();
      scheduler.stop();
    }
    size_t bad = 0;
    for (const std::atomic<int>& disposals : slots.disposals) bad += disposals.load() != 1;
    EXPECT_EQ(bad, 0u) << "timers not disposed exactly once";
    EXPECT_EQ(SlotTimer::overlaps.load(), 0) << "a timer ran twice at once";
  }
}

}  // namespace
