#include "foundation/threading/timer/timerscheduler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "foundation/debug/chronomonitor.h"
#include "foundation/threading/threadpool/threadpool.h"
#include "support/leakcheck.h"
#include "support/taskprobe.h"

namespace {

namespace zf = zorv::foundation;
using zf::debug::ChronoMonitor;
using zf::threading::Thread;
using zf::threading::ThreadPool;
using zf::threading::TimerScheduler;
using zorv::test::Gate;
using zorv::test::GateOpener;
using zorv::test::NewTimer;
using zorv::test::ProbeTimer;
using zorv::test::Tally;
using zorv::test::Tick;
using zorv::test::PollUntil;

constexpr char kAddTimer[] = "zorv.foundation.threading.TimerScheduler.addTimer";

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

  std::unique_ptr<ThreadPool> pool_;
  std::unique_ptr<TimerScheduler> scheduler_;
};

INSTANTIATE_TEST_SUITE_P(Modes, TimerSchedulerTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? std::string("OnExecutor") : std::string("OnOwnThread");
                         });

TEST_P(TimerSchedulerTest, OneShotTimerRunsOnceAfterItsIntervalAndIsDisposed) {
  Tally tally;
  const unsigned long long added = Tick();
  scheduler().addTimer(NewTimer(&tally, 1, 40));
  EXPECT_EQ(scheduler().timerNum(), 1u);
  ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == 1; }));
  EXPECT_EQ(tally.runs.load(), 1);
  EXPECT_GE(tally.log()[0].start, added + 40);
  EXPECT_EQ(scheduler().timerNum(), 0u);
}

TEST_P(TimerSchedulerTest, RepeatingTimerIsReArmedFromTheEndOfEachRun) {
  Tally tally;
  ProbeTimer* timer = NewTimer(&tally, 1, 10, 3);  // four runs
  timer->body = [] { Thread::Sleep(15); };         // slower than its interval
  scheduler().addTimer(timer);
  ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == 1; }));
  const std::vector<Tally::Run> log = tally.log();
  ASSERT_EQ(log.size(), 4u);
  for (size_t i = 1; i < log.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_GE(log[i].start, log[i - 1].end + 10) << "next run planned from the end of the last";
  }
  EXPECT_EQ(tally.maxRunning.load(), 1);
}

TEST_P(TimerSchedulerTest, ZeroIntervalRepeatsBackToBackNeverTwiceAtOnce) {
  Tally tally;
  scheduler().addTimer(NewTimer(&tally, 1, 0, 49));
  ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == 1; }));
  EXPECT_EQ(tally.runs.load(), 50);
  EXPECT_EQ(tally.maxRunning.load(), 1);
  const std::vector<Tally::Run> log = tally.log();
  for (size_t i = 1; i < log.size(); ++i) EXPECT_GE(log[i].start, log[i - 1].end);
}

TEST_P(TimerSchedulerTest, EqualIntervalsRunInTheOrderAdded) {
  Tally tally;
  const int n = 60;
  std::vector<ProbeTimer*> timers;
  for (int i = 0; i < n; ++i) timers.push_back(NewTimer(&tally, i, 30));
  for (ProbeTimer* timer : timers) scheduler().addTimer(timer);
  ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == n; }));
  if (GetParam()) return;  // completion order on a pool is not defined
  const std::vector<Tally::Run> log = tally.log();
  ASSERT_EQ(log.size(), static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) EXPECT_EQ(log[i].id, i);
}

TEST_P(TimerSchedulerTest, EarlierTimerAddedLaterRunsFirst) {
  Tally tally;
  scheduler().addTimer(NewTimer(&tally, 2, 300));
  scheduler().addTimer(NewTimer(&tally, 1, 20));
  ASSERT_TRUE(PollUntil([&] { return tally.runs.load() == 2; }));
  const std::vector<Tally::Run> log = tally.log();
  EXPECT_EQ(log[0].id, 1);
  EXPECT_EQ(log[1].id, 2);
  EXPECT_TRUE(PollUntil([&] { return tally.disposals.load() == 2; }));
}

TEST_P(TimerSchedulerTest, RemovingAnIdleTimerDisposesItAtOnce) {
  Tally tally;
  ProbeTimer* timer = NewTimer(&tally, 1, 10000, -1);
  scheduler().addTimer(timer);
  for (bool wait : {false, true}) {
    SCOPED_TRACE(wait);
    ProbeTimer* other = NewTimer(&tally, 2, 10000, -1);
    scheduler().addTimer(other);
    scheduler().removeTimer(other, wait);
  }
  EXPECT_EQ(tally.disposals.load(), 2);
  scheduler().removeTimer(timer, false);
  EXPECT_EQ(tally.disposals.load(), 3);
  scheduler().removeTimer(timer, true);  // removed before: ignored
  ProbeTimer stranger(&tally, 9, 1, 0);
  scheduler().removeTimer(&stranger, false);  // never added: ignored
  EXPECT_EQ(tally.runs.load(), 0);
  EXPECT_EQ(scheduler().timerNum(), 0u);
}

TEST_P(TimerSchedulerTest, RemoveWithWaitReturnsAfterTheRunInProgress) {
  Tally tally;
  Gate gate;
  GateOpener opener(gate);
  std::atomic<bool> started{false};
  ProbeTimer* timer = NewTimer(&tally, 1, 0, -1);
  timer->gate = &gate;
  timer->started = &started;
  scheduler().addTimer(timer);
  ASSERT_TRUE(PollUntil([&] { return started.load(); }));
  std::thread opener2([&] {
    Thread::Sleep(40);
    gate.open();
  });
  scheduler().removeTimer(timer, true);
  EXPECT_EQ(tally.runs.load(), 1) << "the run ended before removeTimer returned";
  EXPECT_EQ(tally.disposals.load(), 1);
  opener2.join();
  Thread::Sleep(20);
  EXPECT_EQ(tally.runs.load(), 1) << "not re-armed";
}

TEST_P(TimerSchedulerTest, RemoveWithoutWaitLetsTheRunFinishThenDisposes) {
  Tally tally;
  Gate gate;
  GateOpener opener(gate);
  std::atomic<bool> started{false};
  ProbeTimer* timer = NewTimer(&tally, 1, 0, -1);
  timer->gate = &gate;
  timer->started = &started;
  scheduler().addTimer(timer);
  ASSERT_TRUE(PollUntil([&] { return started.load(); }));
  scheduler().removeTimer(timer, false);
  EXPECT_EQ(tally.disposals.load(), 0) << "the run still holds the timer";
  gate.open();
  ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == 1; }));
  Thread::Sleep(20);
  EXPECT_EQ(tally.runs.load(), 1);
}

TEST_P(TimerSchedulerTest, StopDisposesEveryTimerAndRefusesNewOnes) {
  Tally tally;
  for (int i = 0; i < 20; ++i) scheduler().addTimer(NewTimer(&tally, i, 10000 + i, -1));
  scheduler().addTimer(NewTimer(&tally, 100, 1, -1));  // busy repeating timer
  ASSERT_TRUE(PollUntil([&] { return tally.runs.load() >= 3; }));
  scheduler().stop();
  EXPECT_EQ(tally.disposals.load(), 21);
  EXPECT_EQ(scheduler().timerNum(), 0u);
  ProbeTimer* late = NewTimer(&tally, 200, 1);
  EXPECT_ZORV_THROW(scheduler().addTimer(late), kAddTimer, "scheduler has been stopped");
  EXPECT_EQ(tally.disposals.load(), 21) << "a refused timer stays with the caller";
  late->dispose();
  scheduler().stop();  // harmless
}

TEST_P(TimerSchedulerTest, StopReturnsOnlyAfterTheLastRunDisposedItsTimer) {
  Tally tally;
  Gate gate;
  GateOpener opener(gate);
  std::atomic<bool> started{false};
  ProbeTimer* timer = NewTimer(&tally, 1, 1, -1);
  timer->gate = &gate;
  timer->started = &started;
  timer->disposeDelayMs = 30;
  scheduler().addTimer(timer);
  ASSERT_TRUE(PollUntil([&] { return started.load(); }));
  std::thread release([&] {
    Thread::Sleep(20);
    gate.open();
  });
  scheduler().stop();
  EXPECT_EQ(tally.disposals.load(), 1) << "stop() returned before the timer was disposed";
  EXPECT_EQ(tally.runs.load(), 1);
  release.join();
}

TEST_P(TimerSchedulerTest, FailingRunIsInterruptedAndARepeatingTimerStaysScheduled) {
  Tally tally;
  ProbeTimer* repeating = NewTimer(&tally, 1, 1, 2);  // three runs
  repeating->fail = true;
  ProbeTimer* once = NewTimer(&tally, 2, 1);
  once->fail = true;
  scheduler().addTimer(repeating);
  scheduler().addTimer(once);
  ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == 2; }));
  EXPECT_EQ(tally.runs.load(), 4);
  EXPECT_EQ(tally.interrupts.load(), 4);
}

TEST_P(TimerSchedulerTest, TimersRunWhereTheSchedulerSendsThem) {
  Tally tally;
  std::atomic<bool> onPool{false};
  zf::SafeString name;
  std::mutex nameMutex;
  ProbeTimer* timer = NewTimer(&tally, 1, 1);
  timer->body = [&] {
    onPool = pool_ && pool_->isMyThread();
    std::lock_guard<std::mutex> guard(nameMutex);
    name = ChronoMonitor::GetThreadName(Thread::CurrentID());
  };
  scheduler().addTimer(timer);
  ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == 1; }));
  std::lock_guard<std::mutex> guard(nameMutex);
  if (GetParam()) {
    EXPECT_TRUE(onPool.load());
    EXPECT_EQ(std::string(name.c_str()), "zorv.foundation.threading.ThreadPool");
  } else {
    EXPECT_EQ(std::string(name.c_str()), "zorv.foundation.threading.TimerScheduler");
  }
}

TEST_P(TimerSchedulerTest, AddingTheSameTimerTwiceKeepsOneSchedule) {
  Tally tally;
  ProbeTimer* timer = NewTimer(&tally, 1, 20);
  scheduler().addTimer(timer);
  scheduler().addTimer(timer);
  EXPECT_EQ(scheduler().timerNum(), 1u);
  ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == 1; }));
  Thread::Sleep(30);
  EXPECT_EQ(tally.runs.load(), 1);
}

TEST_P(TimerSchedulerTest, TimersMayAddAndRemoveTimersFromTheirRun) {
  Tally tally;
  ProbeTimer* victim = NewTimer(&tally, 2, 10000, -1);
  scheduler().addTimer(victim);
  ProbeTimer* timer = NewTimer(&tally, 1, 1);
  timer->body = [&] {
    scheduler().removeTimer(victim, true);
    scheduler().addTimer(NewTimer(&tally, 3, 1));
  };
  scheduler().addTimer(timer);
  ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == 3; }));
  EXPECT_EQ(tally.runs.load(), 2);
}

using TimerSchedulerFaultTest = zorv::test::LeakCheckedTest;

TEST_F(TimerSchedulerFaultTest, AStoppedExecutorInterruptsTheTimersItRefuses) {
  Tally tally;
  ThreadPool pool(1);
  TimerScheduler scheduler(&pool);
  pool.stop();
  scheduler.addTimer(NewTimer(&tally, 1, 1));
  scheduler.addTimer(NewTimer(&tally, 2, 2, 3));  // repeats while refused
  ASSERT_TRUE(PollUntil([&] { return tally.interrupts.load() >= 5; }));
  scheduler.stop();
  EXPECT_EQ(tally.runs.load(), 0);
  EXPECT_EQ(tally.disposals.load(), 2);
}

TEST_F(TimerSchedulerFaultTest, DestroyingARunningSchedulerDisposesItsTimers) {
  Tally tally;
  {
    ThreadPool pool(2);
    TimerScheduler scheduler(&pool);
    for (int i = 0; i < 50; ++i) scheduler.addTimer(NewTimer(&tally, i, i % 5, -1));
    ASSERT_TRUE(PollUntil([&] { return tally.runs.load() >= 100; }));
  }
  EXPECT_EQ(tally.disposals.load(), 50);
}

}  // namespace
