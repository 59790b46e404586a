#include "foundation/threading/timer/timerscheduler.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "foundation/debug/chronomonitor.h"
#include "foundation/threading/threadpool/affinitythreadpool.h"
#include "foundation/threading/threadpool/threadpool.h"
#include "support/leakcheck.h"
#include "support/taskprobe.h"
#include "threading/timer/timerslot.h"

namespace {

namespace zf = zorv::foundation;
using zf::threading::Thread;
using zf::threading::ThreadPool;
using zf::threading::TimerScheduler;
using zorv::test::Gate;
using zorv::test::NewTimer;
using zorv::test::PollUntil;
using zorv::test::ProbeTimer;
using zorv::test::Tally;
using zorv::test::Tick;

constexpr char kAddTimer[] = "zorv.foundation.threading.TimerScheduler.addTimer";
constexpr char kAddFixedRateTimer[] = "zorv.foundation.threading.TimerScheduler.addFixedRateTimer";

// Opens a gate after `ms`, or at the end of the scope if that comes first.
struct LateOpener {
  LateOpener(Gate& g, int ms)
      : gate(g), thread([this, ms] { gate.wait(std::chrono::milliseconds(ms)), gate.open(); }) {}
  ~LateOpener() { gate.open(), thread.join(); }
  Gate& gate;
  std::thread thread;
};

TEST(TimerSlotTest, NextSlotIsTheFirstSlotNotYetPassed) {
  constexpr unsigned long long kEnd = ~0ULL;
  // Rows of last, period, now and the slot expected.
  // clang-format off
  const std::array<unsigned long long, 4> cases[] = {
      {100, 10, 100, 110}, {100, 10, 111, 120}, {0, 7, 1000, 1001}, {100, 0, 250, 250},
      {100, 10, 140, 140}, {100, 0, 50, 100},  // a slot reached exactly is not missed; period 0
      {kEnd - 5, 10, 0, kEnd}, {kEnd, 1, kEnd, kEnd}, {0, kEnd, 5, kEnd},  // held at the end
      {0, kEnd - 1, kEnd - 1, kEnd - 1}, {10, kEnd - 20, kEnd - 5, kEnd}};
  // clang-format on
  for (const auto& [last, period, now, expected] : cases) {
    SCOPED_TRACE(::testing::Message() << last << " + " << period << " at " << now);
    EXPECT_EQ(zf::threading::detail::NextSlot(last, period, now), expected);
  }
}

// Every timer behaviour runs twice: on the scheduler thread, and through a
// thread pool.
class TimerSchedulerTest : public zorv::test::LeakCheckedTest,
                           public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    if (GetParam()) pool_.reset(new ThreadPool(3));
    scheduler_.reset(new TimerScheduler(pool_.get()));
  }
  void TearDown() override {
    scheduler_.reset();
    pool_.reset();
    LeakCheckedTest::TearDown();
  }
  TimerScheduler& scheduler() { return *scheduler_; }
  void add(zf::threading::ITimer* timer, bool fixedRate) {
    fixedRate ? scheduler().addFixedRateTimer(timer) : scheduler().addTimer(timer);
  }

  std::unique_ptr<ThreadPool> pool_;
  std::unique_ptr<TimerScheduler> scheduler_;
};

INSTANTIATE_TEST_SUITE_P(Modes, TimerSchedulerTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& row) {
                           return std::string(row.param ? "OnExecutor" : "OnOwnThread");
                         });

enum Fault { kNone, kRun, kRepeat, kInterval };  // what throws

// A failure reaches interrupted() and ends only a timer that cannot repeat.
TEST_P(TimerSchedulerTest, TimersRunOnceOrAgainWhereSentNeverTwiceAtOnce) {
  // Rows of the name, the fixed rate, the interval, the gap (the least time
  // from the end of a run to the next start), the repeats, the length of a
  // run, the runs and what throws.
  // A one-shot timer added at a fixed rate ends like any other, and a
  // failure ends or repeats a timer alike in both modes.
  const std::tuple<const char*, bool, unsigned long long, unsigned long long, int, int, int, Fault>
      cases[] = {{"one-shot", false, 100, 0, 0, 0, 1, kNone},
                 {"re-armed from the end of each run", false, 10, 10, 3, 15, 4, kNone},
                 {"interval 0: back to back", false, 0, 0, 49, 0, 50, kNone},
                 {"interval 0 at a fixed rate", true, 0, 0, 49, 0, 50, kNone},
                 {"run throws, repeating", false, 1, 0, 2, 0, 3, kRun},
                 {"isRepeat throws", false, 1, 0, -1, 0, 1, kRepeat},
                 {"interval throws", true, 1, 0, -1, 0, 1, kInterval}};
  for (const auto& [name, fixedRate, ms, gap, repeats, runMs, runs, fault] : cases) {
    SCOPED_TRACE(name);
    Tally tally;
    ProbeTimer* timer = NewTimer(&tally, 1, ms, repeats);
    timer->fail = fault == kRun;
    timer->repeatThrows = fault == kRepeat;
    timer->intervalThrows = fault == kInterval;
    if (runMs != 0) timer->body = [runFor = runMs] { Thread::Sleep(runFor); };
    const unsigned long long added = Tick();
    add(timer, fixedRate);
    EXPECT_TRUE(ms < 100 || scheduler().timerNum() == 1u) << "not scheduled";
    ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == 1; }));
    const std::vector<Tally::Run> log = tally.log();
    ASSERT_EQ(log.size(), static_cast<size_t>(runs));
    EXPECT_EQ(tally.interrupts.load(), fault == kNone ? 0 : runs);
    EXPECT_GE(log[0].start, added + ms);
    for (size_t i = 1; i < log.size(); ++i) EXPECT_GE(log[i].start, log[i - 1].end + gap) << i;
    EXPECT_EQ(tally.overlaps.load(), 0);
    EXPECT_EQ(scheduler().timerNum(), 0u);
    // The thread of the last run (alive until TearDown): a worker of the pool
    // when one is given.
    EXPECT_STREQ(zf::debug::ChronoMonitor::GetThreadName(log.back().thread).c_str(),
                 GetParam() ? "zorv.foundation.threading.ThreadPool"
                            : "zorv.foundation.threading.TimerScheduler");
  }
}

// The runs of a fixed-rate timer start at their slots t0 + k * period, never
// before and, unless the machine starves the scheduler for half a period,
// well before the next: a run planned from the end of the last (half a
// period off the grid here) or a burst that catches up missed slots fails.
TEST_P(TimerSchedulerTest, FixedRateRunsStartOnTheirGridAndSkipMissedSlots) {
  const unsigned long long period = zorv::test::SlowTarget() ? 300 : 150;
  // The first run lasts until t0 + overrunHalves * period / 2, and may double
  // interval().
  struct Case {
    const char* name;
    unsigned long long overrunHalves;
    bool doubleInterval;
    std::vector<unsigned long long> slots;
  };
  const Case cases[] = {{"on time", 0, false, {1, 2, 3}},
                        {"a first run until slot 3.5 skips slots 2 and 3", 7, false, {1, 4, 5}},
                        {"a new interval applies after the next slot", 0, true, {1, 2, 4}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Tally tally;
    ProbeTimer* timer = NewTimer(&tally, 1, period, static_cast<int>(c.slots.size()) - 1);
    const unsigned long long t0 = Tick();
    timer->body = [&, timer] {
      if (timer->ran.load() != 1) return;
      if (c.doubleInterval) timer->delay = 2 * period;
      while (Tick() < t0 + c.overrunHalves * period / 2) Thread::Sleep(1);
    };
    add(timer, true);
    const unsigned long long added = Tick();
    ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == 1; }));
    const std::vector<Tally::Run> log = tally.log();
    ASSERT_EQ(log.size(), c.slots.size());
    for (size_t i = 0; i < log.size(); ++i) {
      const unsigned long long slot = t0 + c.slots[i] * period;
      EXPECT_GE(log[i].start, slot) << "run " << i << " began early";
      EXPECT_LT(log[i].start, slot + (added - t0) + period / 2) << "run " << i << " off the grid";
    }
  }
}

// Runs may add and remove timers; a timer added twice keeps one schedule.
TEST_P(TimerSchedulerTest, TimersRunInDueOrderThenInTheOrderAddedAndMayAddAndRemove) {
  Tally tally;
  const int n = 60;
  ProbeTimer* victim = NewTimer(&tally, -1, 10000, -1);
  scheduler().addFixedRateTimer(victim);
  ProbeTimer* last = NewTimer(&tally, n, 300);  // added first, due last
  last->body = [&] {
    scheduler().removeTimer(victim, true);
    scheduler().addFixedRateTimer(NewTimer(&tally, n + 1, 1));
  };
  scheduler().addTimer(last);
  scheduler().addFixedRateTimer(last);
  for (int i = 0; i < n; ++i) add(NewTimer(&tally, i, 30), i % 2 == 1);
  EXPECT_EQ(scheduler().timerNum(), n + 2u);
  ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == n + 3; }));
  Thread::Sleep(30);
  const std::vector<Tally::Run> log = tally.log();
  ASSERT_EQ(log.size(), n + 2u);
  // A pool keeps the due order, but not the order of runs due together.
  for (int i = 0; i < n; ++i) EXPECT_TRUE(GetParam() ? log[i].id < n : log[i].id == i) << i;
  EXPECT_EQ(log[n].id + log[n + 1].id, 2 * n + 1) << "the 300 ms timer and the one it added";
}

TEST_P(TimerSchedulerTest, RemovedTimersAreDisposedOnceAndNeverRunAgain) {
  const std::array<bool, 3> cases[] = {{false, false, false}, {false, true, true},
                                       {true, false, false},  {true, true, false},
                                       {true, false, true},   {true, true, true}};
  for (const auto& [inRun, wait, fixedRate] : cases) {
    SCOPED_TRACE(::testing::Message()
                 << "in a run " << inRun << ", wait " << wait << ", fixed rate " << fixedRate);
    Tally tally;
    Gate gate;
    std::atomic<bool> started{false};
    ProbeTimer* timer = NewTimer(&tally, 1, inRun ? 0 : 100000, -1);
    timer->gate = &gate;
    timer->started = &started;
    add(timer, fixedRate);
    {
      LateOpener opener(gate, wait ? 40 : 100000);
      ASSERT_TRUE(!inRun || PollUntil([&] { return started.load(); }));
      scheduler().removeTimer(timer, wait);
      EXPECT_EQ(tally.runs.load(), inRun && wait ? 1 : 0) << "a wait ends after the run";
      EXPECT_EQ(tally.disposals.load(), inRun && !wait ? 0 : 1) << "a run holds the timer";
    }
    ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == 1; }));
    EXPECT_EQ(tally.runs.load(), inRun ? 1 : 0);
    scheduler().removeTimer(timer, !wait);  // removed before: ignored
    EXPECT_EQ(scheduler().timerNum(), 0u);
  }
}

// Pending timers include some due past the end of the clock: they never
// fire, while later timers still wake the scheduler.
TEST_P(TimerSchedulerTest, StopWaitsForRunsDisposesEveryTimerAndRefusesNewOnes) {
  Tally tally;
  Gate gate;
  std::atomic<bool> started{false};
  const unsigned long long never[] = {~0ULL, ~0ULL - 1000};
  for (int i = 0; i < 20; ++i) add(NewTimer(&tally, 0, i < 4 ? never[i % 2] : 9000 + i, -1), i % 2);
  add(NewTimer(&tally, 1, 20, -1), false);
  ProbeTimer* slow = NewTimer(&tally, 2, 30, -1);
  slow->gate = &gate;
  slow->started = &started;
  slow->disposeDelayMs = 30;
  add(slow, true);
  {
    LateOpener opener(gate, 100);
    ASSERT_TRUE(PollUntil([&] { return started.load(); }));
    EXPECT_EQ(scheduler().timerNum(), 22u);
    scheduler().stop();
  }
  EXPECT_EQ(tally.disposals.load(), 22) << "stop() returned before every timer was disposed";
  EXPECT_EQ(scheduler().timerNum(), 0u);
  for (const Tally::Run& run : tally.log()) EXPECT_NE(run.id, 0) << "a far timer fired";
  for (bool fixedRate : {false, true}) {
    ProbeTimer* late = NewTimer(&tally, 200, 1);
    EXPECT_ZORV_THROW(add(late, fixedRate), fixedRate ? kAddFixedRateTimer : kAddTimer,
                      "scheduler has been stopped");
    EXPECT_EQ(tally.disposals.load(), 22 + fixedRate) << "a refused timer stays with the caller";
    late->dispose();
  }
  scheduler().stop();  // harmless
}

TEST_P(TimerSchedulerTest, ARepeatingTimerRunsOnWhenMemoryRunsOut) {
  for (bool fixedRate : {false, true}) {
    SCOPED_TRACE(fixedRate);
    Tally tally;
    ProbeTimer* timer = NewTimer(&tally, 1, 5, -1);
    add(timer, fixedRate);
    EXPECT_TRUE(PollUntil([&] { return tally.runs.load() >= 1; }));
    // The n-th allocation anywhere fails, for each n over a few runs.
    for (unsigned int n = 1; n <= 4; ++n) {
      const int before = tally.runs.load();
      zorv::test::FailAfterGuard fail(n);
      if (!PollUntil([&] { return tally.runs.load() >= before + 3; })) {
        ADD_FAILURE() << "the timer stopped running after failure " << n;
        break;
      }
    }
    EXPECT_EQ(tally.disposals.load() + tally.interrupts.load(), 0);
    EXPECT_EQ(scheduler().timerNum(), 1u);
    scheduler().removeTimer(timer, true);  // before the tally goes
  }
}

// An executor that refuses every task: it may first discard the task with
// its interruption hook, then disposes it and throws.
struct RefusingExecutor : zf::threading::IExecutor {
  RefusingExecutor(bool discard, bool oom) : discardFirst(discard), outOfMemory(oom) {}
  void addTask(zf::threading::ITask* task) override {
    if (discardFirst) task->notifyInterrupted();
    task->dispose();
    if (outOfMemory) throw std::bad_alloc();
    throw zf::lang::Exception("test.RefusingExecutor.addTask", "executor has stopped");
  }
  bool tryAddTask(zf::threading::ITask* task, unsigned int) override { return addTask(task), true; }
  bool discardFirst, outOfMemory;
};

using TimerSchedulerFaultTest = zorv::test::LeakCheckedTest;

TEST_F(TimerSchedulerFaultTest, ARefusedHandOverEndsTheTimerUnlessMemoryRanOut) {
  struct Case {
    const char* name;
    bool discardFirst, outOfMemory, ends;
  };
  const Case cases[] = {{"stopped", false, false, true},
                        {"discarded, then stopped", true, false, true},
                        {"out of memory", false, true, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Tally tally;
    RefusingExecutor refusing(c.discardFirst, c.outOfMemory);
    TimerScheduler scheduler(&refusing);
    scheduler.addTimer(NewTimer(&tally, 1, 1, -1));
    scheduler.addFixedRateTimer(NewTimer(&tally, 2, 2, -1));
    ASSERT_TRUE(PollUntil(
        [&] { return c.ends ? tally.disposals.load() == 2 : tally.interrupts.load() >= 6; }));
    EXPECT_EQ(tally.disposals.load(), c.ends ? 2 : 0);
    EXPECT_EQ(scheduler.timerNum(), c.ends ? 0u : 2u);
    scheduler.stop();
    EXPECT_TRUE(!c.ends || tally.interrupts.load() == 2) << "interrupted once per refusal";
    EXPECT_EQ(tally.disposals.load(), 2);
    EXPECT_EQ(tally.runs.load(), 0);
  }
}

template <class Pool>
class TimerOverPoolTest : public zorv::test::LeakCheckedTest {};
TYPED_TEST_SUITE(TimerOverPoolTest, zorv::test::Executors, zorv::test::ExecutorNames);

// A run that removes another timer whose next run was already handed to the
// same single worker: the waiting run is cancelled instead of waited for.
// The removal is made for the run by a helper thread, so that a wait for the
// queued run fails the test instead of blocking the only worker for ever.
TYPED_TEST(TimerOverPoolTest, RemovingATimerQueuedBehindTheCallerOnOneWorkerReturns) {
  Tally tally;
  TypeParam pool(1);
  TimerScheduler scheduler(&pool);
  std::atomic<bool> handedOver{false}, removed{false};
  std::atomic<int> disposalsAtReturn{-1};
  ProbeTimer* victim = NewTimer(&tally, 2, 20, -1);
  victim->handedOver = &handedOver;
  std::thread remover;
  ProbeTimer* caller = NewTimer(&tally, 1, 1);
  caller->body = [&] {
    EXPECT_TRUE(PollUntil([&] { return handedOver.load(); }));
    remover = std::thread([&] {
      scheduler.removeTimer(victim, true);
      disposalsAtReturn = tally.disposals.load();
      removed = true;
    });
    EXPECT_TRUE(PollUntil([&] { return removed.load(); })) << "removeTimer waited for a queued run";
  };
  scheduler.addFixedRateTimer(victim);
  scheduler.addTimer(caller);
  EXPECT_TRUE(PollUntil([&] { return tally.disposals.load() == 2; }));
  scheduler.stop();  // the caller's run has ended, and with it the helper's start
  if (remover.joinable()) remover.join();
  EXPECT_EQ(disposalsAtReturn.load(), 1) << "the removed timer was disposed before the return";
  EXPECT_EQ(tally.runs.load(), 1) << "the cancelled run did not run";
}

}  // namespace
