#include "foundation/threading/timer/timerscheduler.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <new>
#include <stdexcept>
#include <thread>
#include <vector>

#include "foundation/debug/chronomonitor.h"
#include "foundation/threading/threadpool/affinitythreadpool.h"
#include "foundation/threading/threadpool/threadpool.h"
#include "support/leakcheck.h"
#include "support/taskprobe.h"

namespace {

namespace zf = zorv::foundation;
using zf::debug::ChronoMonitor;
using zf::threading::AffinityThreadPool;
using zf::threading::IExecutor;
using zf::threading::ITask;
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

// A probe timer whose isRepeat() or, after the first call, interval() may
// throw, and whose getAffinity() reports that a hand-over is being made.
class FaultyTimer : public ProbeTimer {
 public:
  using ProbeTimer::ProbeTimer;
  bool isRepeat() override {
    if (repeatThrows) throw std::runtime_error("isRepeat");
    return ProbeTimer::isRepeat();
  }
  unsigned long long interval() override {
    if (asked++ > 0 && intervalThrows) throw std::runtime_error("interval");
    return delay;
  }
  unsigned int getAffinity() const override {
    if (handedOver != nullptr) handedOver->store(true);
    return 0;
  }

  bool repeatThrows = false;
  bool intervalThrows = false;
  int asked = 0;
  std::atomic<bool>* handedOver = nullptr;
};

FaultyTimer* NewFaultyTimer(Tally* tally, int id, unsigned long long ms, int repeats) {
  return zf::lang::MakeDisposable<FaultyTimer>("FaultyTimer", tally, id, ms, repeats);
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

  std::unique_ptr<ThreadPool> pool_;
  std::unique_ptr<TimerScheduler> scheduler_;
};

INSTANTIATE_TEST_SUITE_P(Modes, TimerSchedulerTest, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& row) {
                           return row.param ? std::string("OnExecutor") : std::string("OnOwnThread");
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

TEST_P(TimerSchedulerTest, ATimerWhoseIsRepeatOrIntervalThrowsEndsAndIsDisposed) {
  struct Case {
    const char* name;
    bool repeatThrows;
    bool intervalThrows;
  };
  const Case cases[] = {{"isRepeat", true, false}, {"interval", false, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Tally tally;
    FaultyTimer* timer = NewFaultyTimer(&tally, 1, 1, -1);
    timer->repeatThrows = c.repeatThrows;
    timer->intervalThrows = c.intervalThrows;
    scheduler().addTimer(timer);
    ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == 1; }));
    EXPECT_EQ(tally.runs.load(), 1);
    EXPECT_EQ(tally.interrupts.load(), 1);
    EXPECT_EQ(scheduler().timerNum(), 0u);
  }
}

TEST_P(TimerSchedulerTest, ARepeatingTimerRunsOnWhenMemoryRunsOut) {
  Tally tally;
  ProbeTimer* timer = NewTimer(&tally, 1, 5, -1);
  scheduler().addTimer(timer);
  EXPECT_TRUE(PollUntil([&] { return tally.runs.load() >= 1; }));
  // The n-th allocation anywhere fails, for each n over a few runs and
  // re-armings.
  for (unsigned int n = 1; n <= 4; ++n) {
    SCOPED_TRACE(n);
    const int before = tally.runs.load();
    zorv::test::FailAfterGuard fail(n);
    if (!PollUntil([&] { return tally.runs.load() >= before + 3; })) {
      ADD_FAILURE() << "the timer stopped running";
      break;
    }
  }
  EXPECT_EQ(tally.disposals.load(), 0);
  EXPECT_EQ(tally.interrupts.load(), 0);
  EXPECT_EQ(scheduler().timerNum(), 1u);
  scheduler().removeTimer(timer, true);  // before the tally goes
  EXPECT_EQ(tally.disposals.load(), 1);
}

TEST_P(TimerSchedulerTest, AnIntervalPastTheEndOfTheClockNeverFires) {
  Tally tally;
  const unsigned long long intervals[] = {~0ULL, ~0ULL - 1000};
  std::vector<ProbeTimer*> never;
  for (unsigned long long interval : intervals) {
    never.push_back(NewTimer(&tally, 1, interval, -1));
    scheduler().addTimer(never.back());
  }
  // A later timer still wakes the scheduler, and runs after anything that
  // was wrongly due at once.
  scheduler().addTimer(NewTimer(&tally, 2, 30));
  EXPECT_TRUE(PollUntil([&] { return tally.disposals.load() == 1; }));
  EXPECT_EQ(tally.runs.load(), 1);
  EXPECT_EQ(scheduler().timerNum(), 2u);
  for (ProbeTimer* timer : never) scheduler().removeTimer(timer, true);
  EXPECT_EQ(tally.disposals.load(), 3);
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

TEST_F(TimerSchedulerFaultTest, AStoppedPoolEndsTheTimersItRefuses) {
  Tally tally;
  ThreadPool pool(1);
  TimerScheduler scheduler(&pool);
  pool.stop();
  scheduler.addTimer(NewTimer(&tally, 1, 1));
  scheduler.addTimer(NewTimer(&tally, 2, 2, -1));  // would repeat for ever
  ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == 2; }));
  EXPECT_EQ(tally.interrupts.load(), 2);
  EXPECT_EQ(tally.runs.load(), 0);
  EXPECT_EQ(scheduler.timerNum(), 0u);
}

// An executor that refuses every task: it may first discard the task with
// its interruption hook, then disposes it and throws.
class RefusingExecutor : public IExecutor {
 public:
  RefusingExecutor(bool discardFirst, bool outOfMemory)
      : discardFirst_(discardFirst), outOfMemory_(outOfMemory) {}
  void addTask(ITask* task) override {
    if (discardFirst_) task->notifyInterrupted();
    task->dispose();
    if (outOfMemory_) throw std::bad_alloc();
    throw zf::lang::Exception("test.RefusingExecutor.addTask", "executor has stopped");
  }
  bool tryAddTask(ITask* task, unsigned int) override {
    addTask(task);
    return true;
  }

 private:
  bool discardFirst_;
  bool outOfMemory_;
};

TEST_F(TimerSchedulerFaultTest, ARefusedHandOverEndsTheTimerUnlessMemoryRanOut) {
  struct Case {
    const char* name;
    bool discardFirst;
    bool outOfMemory;
    bool ends;
  };
  const Case cases[] = {{"stopped", false, false, true},
                        {"discarded, then stopped", true, false, true},
                        {"out of memory", false, true, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Tally tally;
    RefusingExecutor executor(c.discardFirst, c.outOfMemory);
    TimerScheduler scheduler(&executor);
    scheduler.addTimer(NewTimer(&tally, 1, 1, -1));
    if (c.ends) {
      ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == 1; }));
      EXPECT_EQ(tally.interrupts.load(), 1) << "interrupted once per refusal";
      EXPECT_EQ(scheduler.timerNum(), 0u);
    } else {
      ASSERT_TRUE(PollUntil([&] { return tally.interrupts.load() >= 3; }));
      EXPECT_EQ(tally.disposals.load(), 0) << "still scheduled";
      EXPECT_EQ(scheduler.timerNum(), 1u);
    }
    scheduler.stop();
    EXPECT_EQ(tally.disposals.load(), 1);
    EXPECT_EQ(tally.runs.load(), 0);
  }
}

// A run that removes another timer whose next run was already handed to the
// same single worker: the waiting run is cancelled instead of waited for.
// The removal is made for the run by a helper thread, so that a wait for the
// queued run fails the test instead of blocking the only worker for ever.
template <class Pool>
void RemoveATimerQueuedBehindTheCaller() {
  Tally tally;
  Pool pool(1);
  TimerScheduler scheduler(&pool);
  std::atomic<bool> handedOver{false};
  std::atomic<bool> removed{false};
  std::atomic<int> disposalsAtReturn{-1};
  FaultyTimer* victim = NewFaultyTimer(&tally, 2, 20, -1);
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
  scheduler.addTimer(victim);
  scheduler.addTimer(caller);
  EXPECT_TRUE(PollUntil([&] { return tally.disposals.load() == 2; }));
  scheduler.stop();  // the caller's run has ended, and with it the helper's start
  if (remover.joinable()) remover.join();
  EXPECT_EQ(disposalsAtReturn.load(), 1) << "the removed timer was disposed before the return";
  EXPECT_EQ(tally.runs.load(), 1) << "the cancelled run did not run";
}

TEST_F(TimerSchedulerFaultTest, RemovingATimerQueuedBehindTheCallerOnOneWorkerReturns) {
  {
    SCOPED_TRACE("ThreadPool");
    RemoveATimerQueuedBehindTheCaller<ThreadPool>();
  }
  {
    SCOPED_TRACE("AffinityThreadPool");
    RemoveATimerQueuedBehindTheCaller<AffinityThreadPool>();
  }
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
