#include "foundation/threading/threadpool/threadpool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <set>
#include <thread>
#include <vector>

#include "foundation/debug/chronomonitor.h"
#include "foundation/debug/memorymonitor.h"
#include "foundation/system/systemutils.h"
#include "foundation/threading/threadpool/affinitythreadpool.h"
#include "support/leakcheck.h"
#include "support/taskprobe.h"

namespace {

namespace zf = zorv::foundation;
using zf::SafeString;
using zf::debug::ChronoMonitor;
using zf::threading::AffinityThreadPool;
using zf::threading::ITask;
using zf::threading::Thread;
using zf::threading::ThreadPool;
using zorv::test::Gate;
using zorv::test::GateOpener;
using zorv::test::NewTask;
using zorv::test::ProbeTask;
using zorv::test::Tally;
using zorv::test::WaitUntil;

// What differs between the two executors, for the typed tests.
template <class Pool>
struct PoolTraits;

template <>
struct PoolTraits<ThreadPool> {
  static constexpr const char* kName = "zorv.foundation.threading.ThreadPool";
  static constexpr const char* kAddTask = "zorv.foundation.threading.ThreadPool.addTask";
};

template <>
struct PoolTraits<AffinityThreadPool> {
  static constexpr const char* kName = "zorv.foundation.threading.AffinityThreadPool";
  static constexpr const char* kAddTask = "zorv.foundation.threading.AffinityThreadPool.addTask";
};

unsigned int ProcessorWorkers() {
  const int n = static_cast<int>(zf::system::SystemUtils::GetProcessorNum());
  if (n <= 0) return 1;
  return n > 300 ? 300 : static_cast<unsigned int>(n);
}

template <class Pool>
class ExecutorTest : public zorv::test::LeakCheckedTest {};

using Executors = ::testing::Types<ThreadPool, AffinityThreadPool>;
TYPED_TEST_SUITE(ExecutorTest, Executors);

TYPED_TEST(ExecutorTest, WorkerCountsAreCappedAndDefaultToProcessors) {
  struct Case {
    unsigned int requested;
    unsigned int expected;
  };
  const Case cases[] = {{1, 1}, {3, 3}, {0, ProcessorWorkers()}, {1000, 300}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.requested);
    TypeParam pool(c.requested);
    EXPECT_EQ(pool.threadNum(), c.expected);
    EXPECT_EQ(std::string(pool.name().c_str()), PoolTraits<TypeParam>::kName);
  }
}

TYPED_TEST(ExecutorTest, WorkersCarryThePoolNameAndAreItsOwnThreads) {
  Tally tally;
  std::atomic<bool> mine{false};
  SafeString seenName;
  std::mutex nameMutex;
  {
    TypeParam pool(2, SafeString("probe.pool"));
    EXPECT_FALSE(pool.isMyThread());
    ProbeTask* task = NewTask(&tally);
    task->body = [&] {
      mine = pool.isMyThread();
      std::lock_guard<std::mutex> guard(nameMutex);
      seenName = ChronoMonitor::GetThreadName(Thread::CurrentID());
    };
    pool.addTask(task);
    pool.stop();
    EXPECT_EQ(pool.threadNum(), 0u);
    EXPECT_FALSE(pool.isMyThread());
  }
  EXPECT_TRUE(mine.load());
  EXPECT_EQ(std::string(seenName.c_str()), "probe.pool");
  EXPECT_EQ(tally.runs.load(), 1);
  EXPECT_EQ(tally.disposals.load(), 1);
}

TYPED_TEST(ExecutorTest, OneWorkerRunsTasksInSubmissionOrder) {
  Tally tally;
  const int n = 200;
  {
    TypeParam pool(1);
    for (int i = 0; i < n; ++i) pool.addTask(NewTask(&tally, i));
  }
  const std::vector<Tally::Run> log = tally.log();
  ASSERT_EQ(log.size(), static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) EXPECT_EQ(log[i].id, i);
  EXPECT_EQ(tally.disposals.load(), n);
}

TYPED_TEST(ExecutorTest, StopRunsEveryTaskQueuedBefore) {
  Tally tally;
  Gate gate;
  TypeParam pool(2);
  GateOpener opener(gate);
  ProbeTask* blocker = NewTask(&tally, -1);
  blocker->gate = &gate;
  pool.addTask(blocker);
  const int n = 300;
  for (int i = 0; i < n; ++i) pool.addTask(NewTask(&tally, i));
  std::thread release([&] {
    zf::threading::Thread::Sleep(20);
    gate.open();
  });
  pool.stop();
  release.join();
  EXPECT_EQ(tally.runs.load(), n + 1);
  EXPECT_EQ(tally.disposals.load(), n + 1);
  pool.stop();  // harmless
  EXPECT_EQ(pool.threadNum(), 0u);
}

TYPED_TEST(ExecutorTest, AddingAfterStopDisposesTheTaskAndThrows) {
  Tally tally;
  TypeParam pool(2);
  pool.stop();
  EXPECT_ZORV_THROW(pool.addTask(NewTask(&tally)), PoolTraits<TypeParam>::kAddTask,
                    "executor has stopped");
  EXPECT_ZORV_THROW((void)pool.tryAddTask(NewTask(&tally), 10), PoolTraits<TypeParam>::kAddTask,
                    "executor has stopped");
  EXPECT_EQ(tally.disposals.load(), 2);
  EXPECT_EQ(tally.runs.load(), 0);
}

TYPED_TEST(ExecutorTest, ThrowingTaskIsInterruptedDisposedAndTheWorkerGoesOn) {
  Tally tally;
  {
    TypeParam pool(1);
    for (int i = 0; i < 10; ++i) {
      ProbeTask* task = NewTask(&tally, i);
      task->fail = (i % 2 == 0);
      pool.addTask(task);
    }
  }
  EXPECT_EQ(tally.runs.load(), 10);
  EXPECT_EQ(tally.interrupts.load(), 5);
  EXPECT_EQ(tally.disposals.load(), 10);
}

TYPED_TEST(ExecutorTest, EachRunIsTimedUnderThePoolCategory) {
  const char* category = PoolTraits<TypeParam>::kName;
  const unsigned long long before = ChronoMonitor::Count(category, "Exec");
  Tally tally;
  {
    TypeParam pool(2);
    for (int i = 0; i < 25; ++i) pool.addTask(NewTask(&tally, i));
  }
  EXPECT_EQ(ChronoMonitor::Count(category, "Exec") - before, 25u);
}

TYPED_TEST(ExecutorTest, DestroyingWithoutStopDrainsTheQueue) {
  Tally tally;
  {
    TypeParam pool(3);
    for (int i = 0; i < 500; ++i) pool.addTask(NewTask(&tally, i));
  }
  EXPECT_EQ(tally.runs.load(), 500);
  EXPECT_EQ(tally.disposals.load(), 500);
}

TYPED_TEST(ExecutorTest, FailedQueueEntryDisposesTheTask) {
  Tally tally;
  TypeParam pool(1);
  ProbeTask* task = NewTask(&tally);
  task->affinity = 0;
  {
    zorv::test::FailAfterGuard fail(1);
    EXPECT_THROW(pool.addTask(task), std::bad_alloc);
  }
  EXPECT_EQ(tally.disposals.load(), 1);
  ProbeTask* second = NewTask(&tally);
  second->affinity = 0;
  {
    zorv::test::FailAfterGuard fail(1);
    EXPECT_THROW((void)pool.tryAddTask(second, 10), std::bad_alloc);
  }
  EXPECT_EQ(tally.disposals.load(), 2);
  EXPECT_EQ(tally.runs.load(), 0);
}

// ---- ThreadPool ----

using ThreadPoolTest = zorv::test::LeakCheckedTest;

TEST_F(ThreadPoolTest, QueueBoundIsAtLeast100) {
  struct Case {
    unsigned int n;
    unsigned int bound;
  };
  const Case cases[] = {{0, 100}, {5, 100}, {99, 100}, {100, 100}, {250, 250}, {1000000, 1000000}};
  ThreadPool pool(1);
  EXPECT_EQ(pool.maxTaskNum(), 1000000u);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.n);
    pool.setMaxTaskNum(c.n);
    EXPECT_EQ(pool.maxTaskNum(), c.bound);
  }
}

// Fills a one-worker pool: the worker waits at `gate`, 100 tasks wait in the
// queue.
void FillPool(ThreadPool& pool, Tally& tally, Gate& gate, std::atomic<bool>& started) {
  pool.setMaxTaskNum(100);
  ProbeTask* blocker = NewTask(&tally, -1);
  blocker->gate = &gate;
  blocker->started = &started;
  pool.addTask(blocker);
  ASSERT_TRUE(WaitUntil([&] { return started.load(); }));
  for (int i = 0; i < 100; ++i) pool.addTask(NewTask(&tally, i));
  ASSERT_EQ(pool.queuedNum(), 100u);
}

TEST_F(ThreadPoolTest, TryAddTaskOnAFullQueueTimesOutAndLeavesTheTaskToTheCaller) {
  Tally tally;
  Gate gate;
  std::atomic<bool> started{false};
  ThreadPool pool(1);
  GateOpener opener(gate);
  FillPool(pool, tally, gate, started);
  ProbeTask* task = NewTask(&tally, 1000);
  EXPECT_FALSE(pool.tryAddTask(task, 0));
  const unsigned long long begin = zorv::test::Tick();
  EXPECT_FALSE(pool.tryAddTask(task, 60));
  EXPECT_GE(zorv::test::Tick() - begin, 55u);
  EXPECT_EQ(tally.disposals.load(), 0) << "the caller still owns the task";
  gate.open();
  EXPECT_TRUE(pool.tryAddTask(task, 10000));
  pool.stop();
  EXPECT_EQ(tally.runs.load(), 102);
  EXPECT_EQ(tally.disposals.load(), 102);
}

TEST_F(ThreadPoolTest, AddTaskBlocksWhileTheQueueIsFullAndResumesWhenDrained) {
  Tally tally;
  Gate gate;
  std::atomic<bool> started{false};
  ThreadPool pool(1);
  GateOpener opener(gate);
  FillPool(pool, tally, gate, started);
  std::atomic<bool> added{false};
  std::thread producer([&] {
    pool.addTask(NewTask(&tally, 1000));
    added = true;
  });
  zf::threading::Thread::Sleep(50);
  EXPECT_FALSE(added.load()) << "addTask returned although the queue was full";
  gate.open();
  EXPECT_TRUE(WaitUntil([&] { return added.load(); }));
  producer.join();
  pool.stop();
  EXPECT_EQ(tally.runs.load(), 102);
  const std::vector<Tally::Run> log = tally.log();
  EXPECT_EQ(log.back().id, 1000) << "FIFO: the blocked task runs last";
}

TEST_F(ThreadPoolTest, RaisingTheBoundLetsABlockedProducerIn) {
  Tally tally;
  Gate gate;
  std::atomic<bool> started{false};
  ThreadPool pool(1);
  GateOpener opener(gate);
  FillPool(pool, tally, gate, started);
  ProbeTask* task = NewTask(&tally, 1000);
  EXPECT_FALSE(pool.tryAddTask(task, 0));
  pool.setMaxTaskNum(200);
  EXPECT_TRUE(pool.tryAddTask(task, 0));
}

// ---- AffinityThreadPool ----

using AffinityThreadPoolTest = zorv::test::LeakCheckedTest;

TEST_F(AffinityThreadPoolTest, TasksOfOneAffinityRunOnOneWorkerInOrder) {
  Tally tally;
  AffinityThreadPool pool(4);
  const unsigned long long worker0 = pool.workerThreadID(0);
  const unsigned long long worker1 = pool.workerThreadID(1);
  ASSERT_NE(worker0, 0u);
  const struct {
    int affinity;
    unsigned long long thread;
  } cases[] = {{0, worker0}, {4, worker0}, {8, worker0}, {5, worker1}, {1, worker1}};
  for (int round = 0; round < 20; ++round) {
    for (int i = 0; i < 5; ++i) {
      ProbeTask* task = NewTask(&tally, round * 5 + i);
      task->affinity = cases[i].affinity;
      pool.addTask(task);
    }
  }
  pool.stop();
  const std::vector<Tally::Run> log = tally.log();
  ASSERT_EQ(log.size(), 100u);
  int last0 = -1;
  int last1 = -1;
  for (const Tally::Run& run : log) {
    const int i = run.id % 5;
    SCOPED_TRACE(run.id);
    EXPECT_EQ(run.thread, cases[i].thread);
    int& last = cases[i].thread == worker0 ? last0 : last1;
    EXPECT_GT(run.id, last) << "submission order within one worker";
    last = run.id;
  }
}

TEST_F(AffinityThreadPoolTest, DefaultAffinitySpreadsTasksRoundRobin) {
  Tally tally;
  {
    AffinityThreadPool pool(2);
    for (int i = 0; i < 2; ++i) pool.addTask(NewTask(&tally, i));
  }
  const std::vector<Tally::Run> log = tally.log();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_NE(log[0].thread, log[1].thread);
}

TEST_F(AffinityThreadPoolTest, BoundIsSharedAmongWorkers) {
  struct Case {
    unsigned int n;
    unsigned int bound;
  };
  const Case cases[] = {{1000, 250}, {300, 100}, {0, 100}, {4000000, 1000000}};
  AffinityThreadPool pool(4);
  EXPECT_EQ(pool.maxTaskNum(0), 1000000u);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.n);
    pool.setMaxTaskNum(c.n);
    for (unsigned int i = 0; i < 4; ++i) EXPECT_EQ(pool.maxTaskNum(i), c.bound);
  }
  EXPECT_EQ(pool.maxTaskNum(4), 0u);
  pool.stop();
  pool.setMaxTaskNum(1000);  // does nothing
  EXPECT_EQ(pool.maxTaskNum(0), 0u);
}

TEST_F(AffinityThreadPoolTest, AFullWorkerQueueBlocksItsAffinityOnly) {
  Tally tally;
  Gate gate;
  std::atomic<bool> started{false};
  AffinityThreadPool pool(2);
  GateOpener opener(gate);
  pool.setMaxTaskNum(200);  // 100 per worker
  ProbeTask* blocker = NewTask(&tally, -1);
  blocker->affinity = 0;
  blocker->gate = &gate;
  blocker->started = &started;
  pool.addTask(blocker);
  ASSERT_TRUE(WaitUntil([&] { return started.load(); }));
  for (int i = 0; i < 100; ++i) {
    ProbeTask* task = NewTask(&tally, i);
    task->affinity = 2;
    pool.addTask(task);
  }
  ProbeTask* refused = NewTask(&tally, 500);
  refused->affinity = 4;
  EXPECT_FALSE(pool.tryAddTask(refused, 20));
  ProbeTask* other = NewTask(&tally, 501);
  other->affinity = 1;
  EXPECT_TRUE(pool.tryAddTask(other, 0));
  EXPECT_TRUE(WaitUntil([&] { return tally.runs.load() == 1; }));
  gate.open();
  EXPECT_TRUE(pool.tryAddTask(refused, 10000));
  pool.stop();
  EXPECT_EQ(tally.runs.load(), 103);
  EXPECT_EQ(tally.disposals.load(), 103);
}

TEST_F(AffinityThreadPoolTest, AffinityIsAskedOncePerAdd) {
  struct CountingTask : ITask {
    explicit CountingTask(std::atomic<int>* c) : calls(c) {}
    void run() override {}
    unsigned int getAffinity() const override {
      calls->fetch_add(1);
      return 1;
    }
    std::atomic<int>* calls;
  };
  std::atomic<int> calls{0};
  {
    AffinityThreadPool pool(2);
    pool.addTask(zf::lang::MakeDisposable<CountingTask>("CountingTask", &calls));
    EXPECT_TRUE(pool.tryAddTask(zf::lang::MakeDisposable<CountingTask>("CountingTask", &calls), 100));
  }
  EXPECT_EQ(calls.load(), 2);
}

}  // namespace
