// Load and race tests of the executors and the timer scheduler. Sizes shrink
// under sanitizers and on slow targets (ZORV_SLOW_TARGET); a stop() that
// never returns ends in the test's time limit.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>

#include <atomic>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "foundation/lang/accounted.h"
#include "foundation/lang/exception.h"
#include "foundation/threading/timer/timerscheduler.h"
#include "support/leakcheck.h"
#include "support/taskprobe.h"

namespace {

namespace zf = zorv::foundation;
using zf::threading::ITask;
using zf::threading::ITimer;
using zorv::test::PollUntil;
using zorv::test::Scaled;

// Per-item counts, so that an item run or disposed twice, or never, is seen.
struct Slots {
  explicit Slots(size_t n) : offered(n), runs(n), disposals(n), refused(n) {}
  // Items offered but not disposed once, or (tasks only) neither run nor
  // refused once, and items never offered but touched.
  size_t wrong(bool tasks) const {
    size_t bad = 0;
    for (size_t i = 0; i < offered.size(); ++i) {
      const int done = tasks ? runs[i].load() + refused[i].load() : 1;
      if (offered[i].load() != 0 ? disposals[i].load() != 1 || done != 1
                                 : disposals[i].load() + runs[i].load() + refused[i].load() != 0) {
        ++bad;
      }
    }
    return bad;
  }
  std::vector<std::atomic<int>> offered, runs, disposals, refused;
  std::atomic<int> overlaps{0};  // a timer seen running twice at once
};

// A task or timer that counts its runs and its disposal in its slot, and
// sees overlapping runs. A task keeps the affinity it is given; a timer
// repeats when its index is even, every index % 3 ms.
class SlotItem : public ITimer {
 public:
  SlotItem(Slots* slots, size_t index, int affinity = -1)
      : slots_(slots), index_(index), affinity_(affinity) {}
  ~SlotItem() override { slots_->disposals[index_].fetch_add(1); }
  void run() override {
    slots_->overlaps += busy_.exchange(true);
    slots_->runs[index_].fetch_add(1);
    busy_ = false;
  }
  unsigned int getAffinity() const override {
    return affinity_ < 0 ? ITimer::getAffinity() : static_cast<unsigned int>(affinity_);
  }
  bool isRepeat() override { return index_ % 2 == 0; }
  unsigned long long interval() override { return index_ % 3; }

 private:
  Slots* slots_;
  size_t index_;
  int affinity_;
  std::atomic<bool> busy_{false};
};

template <class Pool>
class PoolStressTest : public zorv::test::LeakCheckedTest {};
TYPED_TEST_SUITE(PoolStressTest, zorv::test::Executors, zorv::test::ExecutorNames);

// Producers each add tasks of their own affinity, every 8th with tryAddTask,
// until one is refused. Many producers against a small bound block on full
// queues; many workers against few producers find the queue empty and are
// handed their tasks as they wait; in the last row two threads stop the pool
// meanwhile. Every task handed over is disposed exactly once, run or refused
// with "executor has stopped"; every stop() returns.
TYPED_TEST(PoolStressTest, ProducersLoseNoTaskAlsoWhenStopRaces) {
  const std::string source = zorv::test::PoolName<TypeParam>(".addTask");
  const unsigned int stopRounds = zorv::test::SlowTarget() ? 3 : 10;
  struct Case {
    unsigned int workers, producers, perProducer, bound, stoppers, rounds;
  };
  // clang-format off
  const Case cases[] = {{4, 8, Scaled(100000, 20), 100, 0, 1},
                        {8, 3, Scaled(50000, 20), 0, 0, 1},
                        {2, 4, Scaled(3000, 10), 200, 2, stopRounds}};
  // clang-format on
  for (const Case& c : cases) {
    for (unsigned int round = 0; round < c.rounds; ++round) {
      SCOPED_TRACE(::testing::Message() << c.workers << " workers, round " << round);
      Slots slots(static_cast<size_t>(c.producers) * c.perProducer);
      std::atomic<int> started{0}, refusals{0}, badTexts{0}, stopped{0};
      {
        TypeParam pool(c.workers);
        if (c.bound != 0) pool.setMaxTaskNum(c.bound);
        std::vector<std::thread> threads;
        for (unsigned int p = 0; p < c.producers; ++p) {
          threads.emplace_back([&, p] {
            started.fetch_add(1);
            for (unsigned int i = 0; i < c.perProducer; ++i) {
              const size_t index = static_cast<size_t>(p) * c.perProducer + i;
              // Plain new: the disposal of unrecorded objects is part of the
              // contract, and it keeps the object monitor out of the hot path.
              ITask* task = new SlotItem(&slots, index, static_cast<int>(p));
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
                refusals.fetch_add(1);
                badTexts += std::string(e.func().c_str()) != source ||
                            std::string(e.info().c_str()) != "executor has stopped";
                return;
              }
            }
          });
        }
        ASSERT_TRUE(PollUntil([&] { return started.load() == static_cast<int>(c.producers); }));
        for (unsigned int i = 0; i < c.stoppers; ++i) {
          threads.emplace_back([&] {
            pool.stop();
            stopped.fetch_add(1);
          });
        }
        EXPECT_TRUE(PollUntil([&] { return stopped.load() == static_cast<int>(c.stoppers); }))
            << "a stop() did not return";
        for (std::thread& t : threads) t.join();
      }
      EXPECT_TRUE(c.stoppers != 0 || refusals.load() == 0);
      EXPECT_EQ(badTexts.load(), 0);
      EXPECT_EQ(slots.wrong(true), 0u) << "tasks lost, or run or disposed more than once";
    }
  }
}

// As on a single-core board: this thread, and with it the pool's workers,
// the producers and a ticker, held to one processor, where the queue's locks
// never spin. The producers run in the idle scheduling class and the ticker
// wakes every few microseconds, so the scheduler stops producers (and
// workers) at any point, inside the queue's locks too, and the next thread
// meets the lock taken. Every task is run and disposed exactly once.
TYPED_TEST(PoolStressTest, LocksHoldOnOneProcessorWhenTheHolderIsStopped) {
  cpu_set_t before;
  ASSERT_EQ(sched_getaffinity(0, sizeof before, &before), 0);
  int cpu = 0;
  while (!CPU_ISSET(cpu, &before)) ++cpu;
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(cpu, &one);
  ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
  const unsigned int producers = 3, perProducer = Scaled(8000, 20);
  Slots slots(static_cast<size_t>(producers) * perProducer);
  {
    TypeParam pool(2);
    pool.setMaxTaskNum(64);
    std::atomic<bool> done{false};
    std::thread ticker([&] {
      (void)prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
      while (!done.load()) std::this_thread::sleep_for(std::chrono::microseconds(20));
    });
    std::vector<std::thread> threads;
    for (unsigned int p = 0; p < producers; ++p) {
      threads.emplace_back([&, p] {
        // Not allowed everywhere; the test then only runs with less
        // interleaving.
        const sched_param none{};
        (void)pthread_setschedparam(pthread_self(), SCHED_IDLE, &none);
        for (unsigned int i = 0; i < perProducer; ++i) {
          const size_t index = static_cast<size_t>(p) * perProducer + i;
          slots.offered[index].store(1);
          pool.addTask(new SlotItem(&slots, index, static_cast<int>(p)));
        }
      });
    }
    for (std::thread& t : threads) t.join();
    done.store(true);
    ticker.join();
  }
  ASSERT_EQ(sched_setaffinity(0, sizeof before, &before), 0);
  EXPECT_EQ(slots.wrong(true), 0u) << "tasks lost, or run or disposed more than once";
}

// Each round: two threads add timers (at a fixed rate when i % 4 < 2) and
// remove random ones of theirs, while a third stops the pool after a few
// runs and, in every other round, this thread stops the scheduler at the
// same time; every fourth round destroys the scheduler over the running pool
// instead, and every fifth runs the timers on the scheduler's own thread.
// Every timer is disposed exactly once and none runs twice at once.
TYPED_TEST(PoolStressTest, TimersAddedAndRemovedWhileThePoolStops) {
  const unsigned int rounds = Scaled(200, 20);
  const size_t perThread = Scaled(60, 4);
  for (unsigned int round = 0; round < rounds && !::testing::Test::HasFailure(); ++round) {
    SCOPED_TRACE(round);
    Slots slots(2 * perThread);
    {
      TypeParam pool(2);
      zf::threading::TimerScheduler scheduler(round % 5 == 4 ? nullptr : &pool);
      std::atomic<int> adding{2};
      const auto ran = [&] {
        int n = 0;
        for (const std::atomic<int>& runs : slots.runs) n += runs.load();
        return n;
      };
      std::thread stopper([&] {
        (void)PollUntil([&] { return adding.load() == 0 || ran() >= static_cast<int>(round % 8); });
        if (round % 4 != 3) pool.stop();  // else the scheduler is destroyed over a running pool
      });
      std::vector<std::thread> adders;
      for (size_t w = 0; w < 2; ++w) {
        adders.emplace_back([&, w] {
          std::mt19937 random(static_cast<unsigned int>(1234 + round * 2 + w));
          std::vector<ITimer*> mine;
          for (size_t i = w * perThread; i < (w + 1) * perThread; ++i) {
            mine.push_back(zf::lang::MakeDisposable<SlotItem>("SlotItem", &slots, i));
            slots.offered[i].store(1);
            i % 4 < 2 ? scheduler.addFixedRateTimer(mine.back()) : scheduler.addTimer(mine.back());
            // A removed timer may have ended and been disposed already: its
            // pointer is only a key, and an unknown key is ignored.
            if (random() % 3 == 0)
              scheduler.removeTimer(mine[random() % mine.size()], random() % 2 == 0);
          }
          adding.fetch_sub(1);
        });
      }
      for (std::thread& t : adders) t.join();
      if (round % 2 == 0) scheduler.stop();
      stopper.join();
      if (round % 4 != 3) scheduler.stop();  // else the destructor stops it
      EXPECT_TRUE(round % 4 == 3 || scheduler.timerNum() == 0u);
    }
    EXPECT_EQ(slots.wrong(false), 0u) << "timers not disposed exactly once";
    EXPECT_EQ(slots.overlaps.load(), 0) << "a timer ran twice at once";
  }
}

}  // namespace
