#include "foundation/threading/threadpool/threadpool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "foundation/debug/chronomonitor.h"
#include "foundation/debug/memorymonitor.h"
#include "foundation/debug/objectmonitor.h"
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
using zorv::test::PollUntil;
using zorv::test::ProbeTask;
using zorv::test::Tally;

// What differs between the two executors, for the typed tests.
template <class Pool>
struct PoolTraits;

template <>
struct PoolTraits<ThreadPool> {
  static constexpr const char* kName = "zorv.foundation.threading.ThreadPool";
  static constexpr const char* kAddTask = "zorv.foundation.threading.ThreadPool.addTask";
  static constexpr const char* kStop = "zorv.foundation.threading.ThreadPool.stop";
  static constexpr bool kQueuePerWorker = false;
};

template <>
struct PoolTraits<AffinityThreadPool> {
  static constexpr const char* kName = "zorv.foundation.threading.AffinityThreadPool";
  static constexpr const char* kAddTask = "zorv.foundation.threading.AffinityThreadPool.addTask";
  static constexpr const char* kStop = "zorv.foundation.threading.AffinityThreadPool.stop";
  static constexpr bool kQueuePerWorker = true;
};

unsigned int ProcessorWorkers() {
  const int n = static_cast<int>(zf::system::SystemUtils::GetProcessorNum());
  if (n <= 0) return 1;
  return n > 300 ? 300 : static_cast<unsigned int>(n);
}

template <class Pool>
class ExecutorTest : public zorv::test::LeakCheckedTest {};

// Holds the worker of affinity 0 at `gate` with a task that reports through
// `started`; true once that task has begun.
template <class Pool>
bool HoldWorker(Pool& pool, Tally& tally, Gate& gate, std::atomic<bool>& started) {
  ProbeTask* blocker = NewTask(&tally, -1);
  blocker->affinity = 0;
  blocker->gate = &gate;
  blocker->started = &started;
  pool.addTask(blocker);
  return PollUntil([&] { return started.load(); });
}

using Executors = ::testing::Types<ThreadPool, AffinityThreadPool>;
struct ExecutorNames {
  template <class T>
  static std::string GetName(int) {
    return std::is_same<T, ThreadPool>::value ? "ThreadPool" : "AffinityThreadPool";
  }
};
TYPED_TEST_SUITE(ExecutorTest, Executors, ExecutorNames);

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

// While stop() waits for a held worker, its queue is closed: a task added
// then is refused and disposed instead of landing behind the stop marker,
// where nothing would ever run or dispose it. In the affinity pool the
// workers not yet stopped still take tasks.
TYPED_TEST(ExecutorTest, AddingWhileStopWaitsIsRefusedNotStranded) {
  Tally tally;
  Gate gate;
  std::atomic<bool> started{false};
  TypeParam pool(2);
  GateOpener opener(gate);
  ASSERT_TRUE(HoldWorker(pool, tally, gate, started));
  std::atomic<bool> stopped{false};
  std::thread stopper([&] {
    pool.stop();
    stopped = true;
  });
  int accepted = 0;
  bool refused = false;
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(5000);
  while (!refused && accepted < 100000 && std::chrono::steady_clock::now() < end) {
    ProbeTask* task = NewTask(&tally, accepted);
    task->affinity = 0;
    try {
      if (pool.tryAddTask(task, 10)) {
        ++accepted;
      } else {
        task->dispose();
      }
    } catch (const zf::lang::Exception& e) {
      refused = true;
      EXPECT_EQ(std::string(e.func().c_str()), PoolTraits<TypeParam>::kAddTask);
      EXPECT_EQ(std::string(e.info().c_str()), "executor has stopped");
    }
    Thread::Yield();
  }
  EXPECT_TRUE(refused) << "tasks were still accepted behind the stop marker";
  ProbeTask* late = NewTask(&tally);
  late->affinity = 0;
  EXPECT_ZORV_THROW(pool.addTask(late), PoolTraits<TypeParam>::kAddTask, "executor has stopped");
  int laterWorker = 0;
  if (PoolTraits<TypeParam>::kQueuePerWorker) {
    ProbeTask* other = NewTask(&tally, -2);
    other->affinity = 1;
    pool.addTask(other);
    laterWorker = 1;
    EXPECT_TRUE(PollUntil([&] { return tally.runs.load() == 1; }));
  }
  EXPECT_FALSE(stopped.load());
  gate.open();
  stopper.join();
  EXPECT_EQ(tally.runs.load(), accepted + 1 + laterWorker);
  EXPECT_EQ(tally.disposals.load(), tally.runs.load() + 2);
}

// stop() on one of the pool's own workers could only join itself: it is
// refused and the pool keeps running. A stop() racing with another one
// waits until the first has finished.
TYPED_TEST(ExecutorTest, StopIsRefusedOnAWorkerAndWaitsForARacingStop) {
  Tally tally;
  Gate gate;
  std::atomic<bool> started{false};
  TypeParam pool(2);
  GateOpener opener(gate);
  std::string func;
  std::string info;
  ProbeTask* stopping = NewTask(&tally, 1);
  stopping->body = [&] {
    try {
      pool.stop();
    } catch (const zf::lang::Exception& e) {
      func = e.func().c_str();
      info = e.info().c_str();
    }
  };
  pool.addTask(stopping);
  ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == 1; }));
  EXPECT_EQ(func, PoolTraits<TypeParam>::kStop);
  EXPECT_EQ(info, "called from a worker");
  EXPECT_EQ(pool.threadNum(), 2u);

  ASSERT_TRUE(HoldWorker(pool, tally, gate, started));
  std::atomic<int> returned{0};
  std::thread first([&] {
    pool.stop();
    returned.fetch_add(1);
  });
  std::thread second([&] {
    pool.stop();
    returned.fetch_add(1);
  });
  Thread::Sleep(30);
  EXPECT_EQ(returned.load(), 0) << "a stop() returned before the held worker ended";
  gate.open();
  first.join();
  second.join();
  EXPECT_EQ(pool.threadNum(), 0u);
  EXPECT_EQ(tally.runs.load(), 2);
  EXPECT_EQ(tally.disposals.load(), 2);
}

// A producer blocked on a full queue gets in as soon as the bound is raised,
// without waiting for a worker to take a task.
TYPED_TEST(ExecutorTest, RaisingTheBoundWakesABlockedProducer) {
  Tally tally;
  Gate gate;
  std::atomic<bool> started{false};
  TypeParam pool(1);
  GateOpener opener(gate);
  pool.setMaxTaskNum(100);
  ASSERT_TRUE(HoldWorker(pool, tally, gate, started));
  for (int i = 0; i < 100; ++i) pool.addTask(NewTask(&tally, i));
  ProbeTask* waiting = NewTask(&tally, 1000);
  EXPECT_FALSE(pool.tryAddTask(waiting, 0));
  std::atomic<bool> added{false};
  std::thread producer([&] {
    pool.addTask(waiting);
    added = true;
  });
  Thread::Sleep(20);  // lets the producer block
  EXPECT_FALSE(added.load());
  pool.setMaxTaskNum(200);
  EXPECT_TRUE(PollUntil([&] { return added.load(); }, std::chrono::milliseconds(5000)));
  EXPECT_TRUE(pool.tryAddTask(NewTask(&tally, 1001), 0));
  gate.open();
  producer.join();
  pool.stop();
  EXPECT_EQ(tally.runs.load(), 103);
  EXPECT_EQ(tally.disposals.load(), 103);
}

// Adding allocates only when the queue has to grow. With the worker held at
// a gate the queue fills until an addition needs more room; that addition,
// made to fail, disposes its task, and so does a timed one after it, while
// the tasks already queued still run.
TYPED_TEST(ExecutorTest, FailedQueueGrowthDisposesTheTask) {
  Tally tally;
  Gate gate;
  std::atomic<bool> started{false};
  TypeParam pool(1);
  GateOpener opener(gate);
  ASSERT_TRUE(HoldWorker(pool, tally, gate, started));
  int queued = 0;
  bool failed = false;
  while (!failed && queued < 100000) {
    ProbeTask* task = NewTask(&tally, queued);
    task->affinity = 0;
    zorv::test::FailAfterGuard fail(1);
    try {
      pool.addTask(task);
      ++queued;
    } catch (const std::bad_alloc&) {
      failed = true;
    }
  }
  ASSERT_TRUE(failed) << "the queue never had to grow";
  EXPECT_EQ(tally.disposals.load(), 1);
  ProbeTask* second = NewTask(&tally);
  second->affinity = 0;
  {
    zorv::test::FailAfterGuard fail(1);
    EXPECT_THROW((void)pool.tryAddTask(second, 10), std::bad_alloc);
  }
  EXPECT_EQ(tally.disposals.load(), 2);
  EXPECT_EQ(tally.runs.load(), 0);
  gate.open();
  pool.stop();
  EXPECT_EQ(tally.runs.load(), queued + 1);
  EXPECT_EQ(tally.disposals.load(), queued + 3);
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
  ASSERT_TRUE(HoldWorker(pool, tally, gate, started));
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
  EXPECT_TRUE(PollUntil([&] { return added.load(); }));
  producer.join();
  pool.stop();
  EXPECT_EQ(tally.runs.load(), 102);
  const std::vector<Tally::Run> log = tally.log();
  EXPECT_EQ(log.back().id, 1000) << "FIFO: the blocked task runs last";
}

TEST_F(ThreadPoolTest, TryAddTaskChargesTheWholeTimeSinceTheCallAndPassesOnTheRoom) {
  // Two wake-ups, at 100 ms and 400 ms after the call: after the first (no
  // room) the budget of 500 ms is charged 100 ms (400 left); at the second
  // the whole 400 ms since the call are charged again, so the call gives up
  // then, about 100 ms before its nominal budget, although there is room
  // now. The producer that blocked meanwhile must not sleep on: the room is
  // handed on to it.
  Tally tally;
  Gate gate0;
  Gate gate1;
  Gate gate2;
  std::atomic<bool> started{false};
  ThreadPool pool(1);
  GateOpener open0(gate0);
  GateOpener open1(gate1);
  GateOpener open2(gate2);
  pool.setMaxTaskNum(102);
  ASSERT_TRUE(HoldWorker(pool, tally, gate0, started));
  ProbeTask* first = NewTask(&tally, 1);
  first->gate = &gate1;
  pool.addTask(first);
  ProbeTask* second = NewTask(&tally, 2);
  second->gate = &gate2;
  pool.addTask(second);
  for (int i = 0; i < 100; ++i) pool.addTask(NewTask(&tally, 10 + i));
  ASSERT_EQ(pool.queuedNum(), 102u);

  ProbeTask* late = NewTask(&tally, 1000);
  std::atomic<unsigned long long> begin{0};
  std::atomic<bool> done{false};
  bool added = true;
  unsigned long long end = 0;
  std::thread producer([&] {
    begin = zorv::test::Tick();
    added = pool.tryAddTask(late, 500);
    end = zorv::test::Tick();
    done = true;
  });
  ASSERT_TRUE(PollUntil([&] { return begin.load() != 0; }));
  const auto sleepUntil = [&](unsigned long long ms) {
    const unsigned long long now = zorv::test::Tick();
    if (now < begin + ms) Thread::Sleep(static_cast<unsigned int>(begin + ms - now));
  };
  sleepUntil(100);
  pool.setMaxTaskNum(101);
  gate0.open();  // the worker takes `first`: 101 queued, still full
  sleepUntil(250);
  std::atomic<bool> blockedAdded{false};
  std::thread blocked([&] {
    pool.addTask(NewTask(&tally, 2000));
    blockedAdded = true;
  });
  sleepUntil(400);
  const unsigned long long secondWake = zorv::test::Tick();
  gate1.open();  // the worker takes `second`: 100 queued, room for one
  ASSERT_TRUE(PollUntil([&] { return done.load(); }));
  producer.join();
  EXPECT_FALSE(added);
  EXPECT_LT(end - secondWake, 60u) << "gave up at the second wake-up";
  EXPECT_LT(end - begin, 480u);
  EXPECT_TRUE(PollUntil([&] { return blockedAdded.load(); }, std::chrono::milliseconds(5000)))
      << "the room given up was not handed on";
  gate2.open();
  blocked.join();
  if (!added) late->dispose();  // still the caller's
}

// A burst of queued tasks makes the queue grow; its room is given back once
// the queue has run empty, and the pool keeps working afterwards.
TEST_F(ThreadPoolTest, RoomTakenByABurstIsGivenBackOnceDrained) {
  Tally tally;
  Gate gate;
  std::atomic<bool> started{false};
  ThreadPool pool(1);
  GateOpener opener(gate);
  ASSERT_TRUE(HoldWorker(pool, tally, gate, started));
  const unsigned long long before = zf::debug::MemoryMonitor::LiveBytes();
  const int burst = 20000;
  for (int i = 0; i < burst; ++i) pool.addTask(NewTask(&tally, i));
  ASSERT_EQ(pool.queuedNum(), static_cast<unsigned int>(burst));
  EXPECT_GT(zf::debug::MemoryMonitor::LiveBytes(), before + burst * sizeof(ITask*));
  gate.open();
  ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == burst + 1; }));
  EXPECT_LT(zf::debug::MemoryMonitor::LiveBytes(), before + 4096);
  for (int i = 0; i < 10; ++i) pool.addTask(NewTask(&tally, burst + i));
  pool.stop();
  EXPECT_EQ(tally.runs.load(), burst + 11);
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
  ASSERT_TRUE(HoldWorker(pool, tally, gate, started));
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
  EXPECT_TRUE(PollUntil([&] { return tally.runs.load() == 1; }));
  gate.open();
  EXPECT_TRUE(pool.tryAddTask(refused, 10000));
  pool.stop();
  EXPECT_EQ(tally.runs.load(), 103);
  EXPECT_EQ(tally.disposals.load(), 103);
}

// The wait budget of tryAddTask starts once the worker is chosen: a slow
// getAffinity() does not use it up.
TEST_F(AffinityThreadPoolTest, TryAddTaskBudgetStartsAfterGetAffinity) {
  const unsigned int budget = zorv::test::SlowTarget() ? 1500 : 300;
  struct SlowTask : ITask {
    SlowTask(std::atomic<bool>* a, unsigned int ms) : asked(a), delay(ms) {}
    void run() override {}
    unsigned int getAffinity() const override {
      Thread::Sleep(delay);
      asked->store(true);
      return 0;
    }
    std::atomic<bool>* asked;
    unsigned int delay;
  };
  Tally tally;
  Gate gate;
  std::atomic<bool> started{false};
  AffinityThreadPool pool(1);
  GateOpener opener(gate);
  pool.setMaxTaskNum(100);
  ASSERT_TRUE(HoldWorker(pool, tally, gate, started));
  for (int i = 0; i < 100; ++i) pool.addTask(NewTask(&tally, i));
  std::atomic<bool> asked{false};
  bool added = false;
  std::thread producer([&] {
    ITask* task = zf::lang::MakeDisposable<SlowTask>("SlowTask", &asked, budget + 100);
    added = pool.tryAddTask(task, budget);
    if (!added) task->dispose();  // still the caller's
  });
  ASSERT_TRUE(PollUntil([&] { return asked.load(); }));
  Thread::Sleep(20);  // lets the producer wait for room
  gate.open();        // room well within the budget
  producer.join();
  EXPECT_TRUE(added);
}

// stop() deletes the workers: they leave the object count then, not only
// when the pool is destroyed, so that a stopped pool of three workers counts
// no more objects than a stopped pool of one.
TEST_F(AffinityThreadPoolTest, StopDeletesTheWorkers) {
  const unsigned long long base = zf::debug::ObjectMonitor::LiveObjects();
  unsigned long long oneWorker = 0;
  {
    AffinityThreadPool pool(1);
    pool.stop();
    oneWorker = zf::debug::ObjectMonitor::LiveObjects() - base;
  }
  AffinityThreadPool pool(3);
  pool.stop();
  EXPECT_EQ(zf::debug::ObjectMonitor::LiveObjects() - base, oneWorker);
  EXPECT_EQ(pool.workerThreadID(0), 0u);
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
    EXPECT_TRUE(
        pool.tryAddTask(zf::lang::MakeDisposable<CountingTask>("CountingTask", &calls), 100));
  }
  EXPECT_EQ(calls.load(), 2);
}

}  // namespace
