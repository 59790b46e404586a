#include "foundation/threading/threadpool/threadpool.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <sched.h>
#include <unistd.h>

#include "foundation/debug/chronomonitor.h"
#include "foundation/debug/memorymonitor.h"
#include "foundation/debug/objectmonitor.h"
#include "foundation/system/systemutils.h"
#include "foundation/threading/threadpool/affinitythreadpool.h"
#include "support/leakcheck.h"
#include "support/taskprobe.h"

namespace {

namespace zf = zorv::foundation;
using zf::debug::ChronoMonitor;
using zf::threading::AffinityThreadPool;
using zf::threading::ITask;
using zf::threading::Thread;
using zf::threading::ThreadPool;
using zorv::test::Asleep;
using zorv::test::Gate;
using zorv::test::GateOpener;
using zorv::test::NewTask;
using zorv::test::PollUntil;
using zorv::test::PoolName;
using zorv::test::ProbeTask;
using zorv::test::Tally;
using zorv::test::Tick;

// The queue bound: of the pool, or of worker `index`.
unsigned int Bound(const ThreadPool& pool, unsigned int) { return pool.maxTaskNum(); }
unsigned int Bound(const AffinityThreadPool& pool, unsigned int index) {
  return pool.maxTaskNum(index);
}

// A pool with a tally, and a gate at which a first task can hold the worker
// of affinity 0; the gate opens before the pool is destroyed.
template <class Pool>
struct Held {
  explicit Held(unsigned int workers) : pool(workers) {}

  ProbeTask* make(int id, int affinity = 0) {
    ProbeTask* task = NewTask(&tally, id);
    task->affinity = affinity;
    return task;
  }
  // True once the worker of affinity 0 waits at the gate.
  bool hold() {
    ProbeTask* blocker = make(-1);
    blocker->gate = &gate;
    blocker->started = &started;
    pool.addTask(blocker);
    return PollUntil([&] { return started.load(); });
  }

  Tally tally;
  Gate gate;
  std::atomic<bool> started{false};
  Pool pool;
  GateOpener opener{gate};
};

template <class Pool>
class ExecutorTest : public zorv::test::LeakCheckedTest {};

TYPED_TEST_SUITE(ExecutorTest, zorv::test::Executors, zorv::test::ExecutorNames);

// stop() deletes the workers: they leave the object count then, so that
// every stopped pool counts as many objects as one of one worker.
TYPED_TEST(ExecutorTest, WorkerCountsAreCappedAndDefaultToProcessors) {
  const int processors = zf::system::SystemUtils::GetProcessorNum();
  const unsigned int perProcessor =
      processors <= 0 ? 1u : (processors > 300 ? 300u : static_cast<unsigned int>(processors));
  const std::pair<unsigned int, unsigned int> cases[] = {
      {1, 1}, {3, 3}, {0, perProcessor}, {1000, 300}};
  const unsigned long long base = zf::debug::ObjectMonitor::LiveObjects();
  unsigned long long stopped = 0;
  for (const auto& [requested, expected] : cases) {
    SCOPED_TRACE(requested);
    TypeParam pool(requested);
    EXPECT_EQ(pool.threadNum(), expected);
    EXPECT_EQ(pool.name().c_str(), PoolName<TypeParam>());
    pool.stop();
    if (requested == 1) stopped = zf::debug::ObjectMonitor::LiveObjects() - base;
    EXPECT_EQ(zf::debug::ObjectMonitor::LiveObjects() - base, stopped);
  }
}

// The bound is never below 100; the affinity pool shares it among its
// workers, and after stop() it has none.
TYPED_TEST(ExecutorTest, QueueBoundIsAtLeast100AndSharedAmongQueues) {
  const bool shared = !std::is_same<TypeParam, ThreadPool>::value;
  // single: the ThreadPool's bound; each: that of every AffinityThreadPool worker of 4
  // clang-format off
  const std::array<unsigned int, 3> cases[] = {{0, 100, 100}, {5, 100, 100}, {100, 100, 100},
      {300, 300, 100}, {1000, 1000, 250}, {4000000, 4000000, 1000000}};
  // clang-format on
  TypeParam pool(4);
  EXPECT_EQ(Bound(pool, 0), 1000000u);
  for (const auto& [n, single, each] : cases) {
    SCOPED_TRACE(n);
    pool.setMaxTaskNum(n);
    for (unsigned int i = 0; i < 4; ++i) EXPECT_EQ(Bound(pool, i), shared ? each : single);
  }
  if (!shared) return;
  EXPECT_EQ(Bound(pool, 4), 0u);
  pool.stop();
  pool.setMaxTaskNum(1000);  // does nothing
  EXPECT_EQ(Bound(pool, 0), 0u);
}

// One worker, first held at a gate: tasks run in the order queued, each
// timed under the pool's category and disposed once, a throwing one
// interrupted, on a thread named after the pool, which may not stop it. stop() and the destructor
// return only after every task ran; a stopped pool refuses new tasks.
TYPED_TEST(ExecutorTest, RunsInOrderAndDrainsOnStopAndDestruction) {
  const std::string category = PoolName<TypeParam>();
  const std::string source = PoolName<TypeParam>(".addTask");
  for (const bool destroy : {false, true}) {
    SCOPED_TRACE(destroy);
    const unsigned long long timed = ChronoMonitor::Count(category.c_str(), "Exec");
    Tally tally;
    Gate gate;
    bool mine = false;
    std::string name;
    std::unique_ptr<TypeParam> pool(new TypeParam(1, zf::SafeString("probe.pool")));
    TypeParam* const raw = pool.get();
    EXPECT_FALSE(pool->isMyThread());
    const int n = 300;
    for (int i = -1; i < n; ++i) {
      ProbeTask* task = NewTask(&tally, i);
      task->fail = i % 2 == 0;
      if (i < 0) {
        task->gate = &gate;
        task->body = [&, destroy] {
          mine = raw->isMyThread();
          // stop() on a worker could only join itself: refused, the pool runs on.
          if (!destroy) {
            EXPECT_ZORV_THROW(raw->stop(), PoolName<TypeParam>(".stop"), "called from a worker");
          }
          name = ChronoMonitor::GetThreadName(Thread::CurrentID()).c_str();
        };
      }
      pool->addTask(task);
    }
    std::thread release([&] {
      Thread::Sleep(20);
      gate.open();
    });
    if (destroy) {
      pool.reset();
    } else {
      pool->stop();
    }
    release.join();
    EXPECT_EQ(tally.disposals.load(), n + 1);
    EXPECT_EQ(tally.interrupts.load(), n / 2);
    EXPECT_EQ(ChronoMonitor::Count(category.c_str(), "Exec") - timed,
              static_cast<unsigned long long>(n + 1));
    EXPECT_TRUE(mine);
    EXPECT_EQ(name, "probe.pool");
    const std::vector<Tally::Run> log = tally.log();
    ASSERT_EQ(log.size(), static_cast<size_t>(n + 1)) << "returned before the queue was drained";
    for (int i = 0; i <= n; ++i) EXPECT_EQ(log[i].id, i - 1);
    if (destroy) continue;
    pool->stop();  // harmless
    EXPECT_EQ(pool->threadNum(), 0u);
    EXPECT_ZORV_THROW(pool->addTask(NewTask(&tally)), source, "executor has stopped");
    EXPECT_ZORV_THROW((void)pool->tryAddTask(NewTask(&tally), 10), source, "executor has stopped");
    EXPECT_EQ(tally.disposals.load(), n + 3);
  }
}

// While stop() waits for a held worker, its queue is closed: a task added
// then is refused and disposed instead of landing behind the stop marker,
// where nothing would ever run it. In the affinity pool the workers not yet
// stopped still take tasks. A second stop() waits for the first.
TYPED_TEST(ExecutorTest, AddingWhileStopWaitsIsRefusedNotStranded) {
  Held<TypeParam> h(2);
  ASSERT_TRUE(h.hold());
  std::atomic<int> stopped{0};
  std::vector<std::thread> stoppers;
  for (int i = 0; i < 2; ++i) {
    stoppers.emplace_back([&] {
      h.pool.stop();
      stopped.fetch_add(1);
    });
  }
  int accepted = 0;
  bool refused = false;
  const unsigned long long end = Tick() + 5000;
  while (!refused && accepted < 100000 && Tick() < end) {
    ProbeTask* task = h.make(accepted);
    try {
      if (h.pool.tryAddTask(task, 10)) {
        ++accepted;
      } else {
        task->dispose();
      }
    } catch (const zf::lang::Exception&) {
      refused = true;  // the texts: checked below
    }
    Thread::Yield();
  }
  EXPECT_TRUE(refused) << "tasks were still accepted behind the stop marker";
  EXPECT_ZORV_THROW(h.pool.addTask(h.make(-1)), PoolName<TypeParam>(".addTask"),
                    "executor has stopped");
  const bool perWorker = !std::is_same<TypeParam, ThreadPool>::value;
  if (perWorker) {
    h.pool.addTask(h.make(-2, 1));
    EXPECT_TRUE(PollUntil([&] { return h.tally.runs.load() == 1; }));
  }
  EXPECT_EQ(stopped.load(), 0) << "a stop() returned before the held worker ended";
  h.gate.open();
  for (std::thread& t : stoppers) t.join();
  EXPECT_EQ(h.pool.threadNum(), 0u);
  EXPECT_EQ(h.tally.runs.load(), accepted + 1 + (perWorker ? 1 : 0));
  EXPECT_EQ(h.tally.disposals.load(), h.tally.runs.load() + 2);
}

// With the queue full, tryAddTask gives up and leaves the task with the
// caller, addTask blocks until there is room (a raised bound makes room
// without a worker taking anything), and the blocked tasks run last. In the
// affinity pool getAffinity() is asked once per add, before the wait budget
// of tryAddTask starts: a slow getAffinity() does not use the budget up.
TYPED_TEST(ExecutorTest, AFullQueueTimesOutOrBlocksUntilThereIsRoom) {
  const bool perWorker = !std::is_same<TypeParam, ThreadPool>::value;
  const unsigned int budget = zorv::test::SlowTarget() ? 1500 : 300;
  struct SlowTask : ITask {
    SlowTask(std::atomic<int>* c, unsigned int ms) : calls(c), delay(ms) {}
    void run() override {}
    unsigned int getAffinity() const override {
      Thread::Sleep(delay);
      calls->fetch_add(1);
      return 0;
    }
    std::atomic<int>* calls;
    unsigned int delay;
  };
  Held<TypeParam> h(1);
  h.pool.setMaxTaskNum(100);
  ASSERT_TRUE(h.hold());
  for (int i = 0; i < 100; ++i) h.pool.addTask(h.make(i));  // the queue is full
  ProbeTask* late = h.make(1000);
  EXPECT_FALSE(h.pool.tryAddTask(late, 0));
  const unsigned long long begin = Tick();
  EXPECT_FALSE(h.pool.tryAddTask(late, 60));
  EXPECT_GE(Tick() - begin, 55u);
  EXPECT_EQ(h.tally.disposals.load(), 0) << "the caller still owns the task";
  std::atomic<int> added{0};
  std::thread producer([&] {
    h.pool.addTask(late);
    added = 1;
    h.pool.addTask(h.make(1001));
    added = 2;
  });
  Thread::Sleep(20);
  EXPECT_EQ(added.load(), 0) << "addTask returned although the queue was full";
  h.pool.setMaxTaskNum(101);
  EXPECT_TRUE(PollUntil([&] { return added.load() == 1; }));
  std::atomic<int> calls{0};
  bool slowAdded = !perWorker;
  std::thread slow([&] {
    if (!perWorker) return;
    ITask* task = zf::lang::MakeDisposable<SlowTask>("SlowTask", &calls, budget + 100);
    slowAdded = h.pool.tryAddTask(task, budget);
    if (!slowAdded) task->dispose();  // still the caller's
  });
  EXPECT_TRUE(PollUntil([&] { return calls.load() == (perWorker ? 1 : 0); }));
  Thread::Sleep(20);  // lets the producers wait for room
  h.gate.open();      // room well within the budget
  producer.join();
  slow.join();
  EXPECT_TRUE(slowAdded);
  EXPECT_EQ(calls.load(), perWorker ? 1 : 0);
  h.pool.stop();
  const std::vector<Tally::Run> log = h.tally.log();
  ASSERT_EQ(log.size(), 103u);
  EXPECT_EQ(log[log.size() - 2].id, 1000);
  EXPECT_EQ(log.back().id, 1001);
  EXPECT_EQ(h.tally.disposals.load(), static_cast<int>(log.size()));
}

// A burst makes the queue grow, and its room is given back once the queue
// ran empty. Adding allocates only when the queue has to grow: an addition
// made to fail then disposes its task, and so does a timed one, while the
// tasks already queued still run. Stopping never allocates.
TYPED_TEST(ExecutorTest, QueueGrowsForABurstAndFailedGrowthDisposesTheTask) {
  Held<TypeParam> h(1);
  ASSERT_TRUE(h.hold());
  const unsigned long long before = zf::debug::MemoryMonitor::LiveBytes();
  int queued = 0;
  for (; queued < 20000; ++queued) h.pool.addTask(h.make(queued));
  EXPECT_GT(zf::debug::MemoryMonitor::LiveBytes(), before + queued * sizeof(ITask*));
  bool failed = false;
  while (!failed && queued < 100000) {
    ProbeTask* task = h.make(queued);
    zorv::test::FailAfterGuard fail(1);
    try {
      h.pool.addTask(task);
      ++queued;
    } catch (const std::bad_alloc&) {
      failed = true;
    }
  }
  ASSERT_TRUE(failed) << "the queue never had to grow";
  EXPECT_EQ(h.tally.disposals.load(), 1);
  {
    zorv::test::FailAfterGuard fail(1);
    EXPECT_THROW((void)h.pool.tryAddTask(h.make(-3), 10), std::bad_alloc);
  }
  EXPECT_EQ(h.tally.disposals.load(), 2);
  // The queue is full but for the room kept for the stop marker: stop() needs
  // no memory, so it cannot fail. The worker goes on once stop() had the time
  // to queue its marker, and never while allocations fail (it would keep
  // the big ring).
  std::atomic<bool> armed{false};
  std::thread release([&] {
    while (!armed.load()) std::this_thread::yield();
    Thread::Sleep(static_cast<unsigned int>(zorv::test::Margin(20).count()));
    zf::debug::MemoryMonitor::FailAfter(0);
    h.gate.open();
  });
  {
    zorv::test::FailAfterGuard fail(1);
    armed = true;
    EXPECT_NO_THROW(h.pool.stop());
  }
  release.join();
  h.pool.stop();  // after a failed stop()
  EXPECT_EQ(h.tally.runs.load(), queued + 1);
  EXPECT_EQ(h.tally.disposals.load(), queued + 3);
  EXPECT_LT(zf::debug::MemoryMonitor::LiveBytes(), before + 4096) << "room not given back";
}

// ---- ThreadPool ----

using ThreadPoolTest = zorv::test::LeakCheckedTest;

// Two wake-ups, at 200 ms and 400 ms after the call: after the first (no
// room) the budget of 500 ms is charged 200 ms (300 left); at the second the
// whole 400 ms since the call are charged again, so the call gives up then,
// although there is room now (charged once, 100 ms would be left). Both
// margins are 100 ms, so a late start of the call or a late wake-up does not
// flip the outcome. A producer that blocked meanwhile must not sleep on: the
// room is handed on to it.
TEST_F(ThreadPoolTest, TryAddTaskChargesTheWholeTimeSinceTheCallAndPassesOnTheRoom) {
  Held<ThreadPool> h(1);
  Gate gate1;
  Gate gate2;
  GateOpener open1(gate1);
  GateOpener open2(gate2);
  h.pool.setMaxTaskNum(102);
  ASSERT_TRUE(h.hold());
  ProbeTask* first = h.make(1);
  first->gate = &gate1;
  h.pool.addTask(first);
  ProbeTask* second = h.make(2);
  second->gate = &gate2;
  h.pool.addTask(second);
  for (int i = 0; i < 100; ++i) h.pool.addTask(h.make(10 + i));
  ASSERT_EQ(h.pool.queuedNum(), 102u);

  ProbeTask* late = h.make(1000);
  std::atomic<unsigned long long> begin{0};
  std::atomic<bool> done{false};
  bool added = true;
  unsigned long long end = 0;
  std::thread producer([&] {
    begin = Tick();
    added = h.pool.tryAddTask(late, 500);
    end = Tick();
    done = true;
  });
  ASSERT_TRUE(PollUntil([&] { return begin.load() != 0; }));
  const auto sleepUntil = [&](unsigned long long ms) {
    const unsigned long long now = Tick();
    if (now < begin + ms) Thread::Sleep(static_cast<unsigned int>(begin + ms - now));
  };
  sleepUntil(200);
  h.pool.setMaxTaskNum(101);
  h.gate.open();  // the worker takes `first`: 101 queued, still full
  sleepUntil(300);
  std::atomic<bool> blockedAdded{false};
  std::thread blocked([&] {
    h.pool.addTask(h.make(2000));
    blockedAdded = true;
  });
  sleepUntil(400);
  const unsigned long long secondWake = Tick();
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

// A stop() that queues its marker while the queue is full waits for room,
// ahead of the producers that waited before it: the room that the first
// take makes is the marker's. Then every producer still waiting is refused,
// more of them than later takes could wake one by one.
TEST_F(ThreadPoolTest, StopWakesEveryProducerWaitingForRoom) {
  constexpr int kProducers = 150;
  Held<ThreadPool> h(1);
  h.pool.setMaxTaskNum(100);
  ASSERT_TRUE(h.hold());
  for (int i = 0; i < 100; ++i) h.pool.addTask(h.make(i));
  std::atomic<int> added{0};
  std::atomic<int> refused{0};
  std::vector<std::atomic<pid_t>> ids(kProducers + 1);
  std::vector<std::thread> threads;
  const auto asleep = [&](int n) {
    for (int i = 0; i < n; ++i) {
      if (ids[i] == 0 || !Asleep(ids[i])) return false;
    }
    return true;
  };
  for (int i = 0; i < kProducers; ++i) {
    threads.emplace_back([&, i] {
      ids[i] = gettid();
      try {
        h.pool.addTask(h.make(1000 + i));
        added.fetch_add(1);
      } catch (const zf::lang::Exception&) {
        refused.fetch_add(1);
      }
    });
  }
  EXPECT_TRUE(PollUntil([&] { return asleep(kProducers); }));
  threads.emplace_back([&] {
    ids[kProducers] = gettid();
    h.pool.stop();
  });
  EXPECT_TRUE(PollUntil([&] { return asleep(kProducers + 1); }));
  h.gate.open();
  const bool allEnded = PollUntil([&] { return added.load() + refused.load() == kProducers; });
  EXPECT_TRUE(allEnded) << added.load() << " added, " << refused.load() << " refused";
  if (!allEnded) h.pool.setMaxTaskNum(1000000);  // wakes the ones left, to be refused
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(added.load(), 0);
  EXPECT_EQ(h.tally.runs.load(), 101 + added.load());
  EXPECT_EQ(h.tally.disposals.load(), h.tally.runs.load() + refused.load());
}

// An emptied ring that grew past 4096 slots shrinks to the smallest one that
// keeps the room for the stop markers: with 64 workers, 64 slots, all of them
// that room, so the next task held back in the queue makes the ring grow.
TEST_F(ThreadPoolTest, AnEmptiedRingShrinksToTheRoomOfTheMarkers) {
  Held<ThreadPool> h(64);
  Gate last;
  GateOpener openLast(last);
  for (int i = 0; i < 4096 + 128; ++i) {
    ProbeTask* task = h.make(i);
    if (i < 64 || i >= 4096 + 64) task->gate = i < 64 ? &h.gate : &last;
    h.pool.addTask(task);
  }
  h.gate.open();
  // Every worker holds one of the last 64 tasks, the last of them taken from
  // the ring that then ran empty.
  ASSERT_TRUE(
      PollUntil([&] { return h.tally.runs.load() == 4096 + 64 && h.tally.running.load() == 64; }));
  ProbeTask* task = h.make(-2);
  zorv::test::FailAfterGuard fail(1);
  EXPECT_THROW(h.pool.addTask(task), std::bad_alloc) << "the small ring has room to spare";
}

// A ring that never grew past 4096 slots is kept when a take empties it:
// the allocation that fails next is still the next one after the take.
TEST_F(ThreadPoolTest, TakingTheLastTaskOfASmallRingAllocatesNothing) {
  Held<ThreadPool> h(1);
  ASSERT_TRUE(h.hold());
  h.pool.addTask(h.make(1));  // queued behind the held task
  zorv::test::FailAfterGuard fail(1);
  h.gate.open();
  ASSERT_TRUE(PollUntil([&] { return h.tally.runs == 2; }));
  unsigned char* const block = zf::debug::MemoryMonitor::Alloc(8);
  EXPECT_EQ(block, nullptr) << "the queue allocated when it ran empty";
  if (block != nullptr) zf::debug::MemoryMonitor::Dealloc(block, 8);
}

// Sleeping workers are woken one at a time, each handing the next queued
// task on to the next sleeper; those hand-overs make room as takes do, so a
// producer waiting on a full queue is let in although no worker comes back
// for a task (all of them wait at the gate).
TEST_F(ThreadPoolTest, HandOversAmongSleepingWorkersLetAWaitingProducerIn) {
  constexpr int kWorkers = 210, kTasks = 200;
  Held<ThreadPool> h(kWorkers);
  h.pool.setMaxTaskNum(100);
  Thread::Sleep(50);  // lets the workers fall asleep
  std::thread producer([&] {
    for (int i = 0; i < kTasks; ++i) {
      ProbeTask* task = h.make(i);
      task->gate = &h.gate;
      h.pool.addTask(task);
    }
  });
  const bool allRunning = PollUntil([&] { return h.tally.running.load() == kTasks; });
  h.gate.open();
  if (!allRunning) h.pool.setMaxTaskNum(1000);  // lets the producer go
  producer.join();
  EXPECT_TRUE(allRunning) << h.tally.running.load() << " of " << kTasks << " running";
}

// A task for an idle pool goes to a worker that went to sleep on the
// producer's processor, although another one went to sleep after it: that
// one would start only once its own, idle processor came out of idle.
TEST_F(ThreadPoolTest, AnIdlePoolWakesAWorkerThatSleptOnTheProducersProcessor) {
  cpu_set_t allowed;
  std::vector<int> cpus;
  if (sched_getaffinity(0, sizeof allowed, &allowed) == 0) {
    for (int cpu = 0; cpu < CPU_SETSIZE && cpus.size() < 2; ++cpu) {
      if (CPU_ISSET(cpu, &allowed)) cpus.push_back(cpu);
    }
  }
  if (cpus.size() < 2 || sched_getcpu() < 0) GTEST_SKIP() << "needs two processors";
  const auto pin = [](int cpu) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    return sched_setaffinity(0, sizeof one, &one) == 0 && sched_getcpu() == cpu;
  };
  // Made before the producer is held to one processor: a pool made there
  // would count one processor and never look for a sleeper near it.
  Held<ThreadPool> h(2);
  struct Unpin {
    cpu_set_t& all;
    ~Unpin() { (void)sched_setaffinity(0, sizeof all, &all); }
  } unpin{allowed};
  ASSERT_TRUE(pin(cpus[0]));  // the producer
  Gate gates[2];
  GateOpener openers[2] = {GateOpener(gates[0]), GateOpener(gates[1])};
  std::atomic<pid_t> worker[2] = {{0}, {0}};
  for (int i = 0; i < 2; ++i) {  // worker i sleeps on processor i, worker 1 last
    ProbeTask* task = h.make(i);
    task->body = [&, i] {
      worker[i] = pin(cpus[i]) ? gettid() : -1;
      gates[i].wait();
    };
    h.pool.addTask(task);
  }
  ASSERT_TRUE(PollUntil([&] { return worker[0] != 0 && worker[1] != 0; }));
  ASSERT_TRUE(worker[0] > 0 && worker[1] > 0) << "a worker could not be pinned";
  for (int i = 0; i < 2; ++i) {
    gates[i].open();
    ASSERT_TRUE(PollUntil([&] { return h.tally.runs == i + 1 && Asleep(worker[i]); }));
  }
  std::atomic<pid_t> ranOn{0};
  ProbeTask* task = h.make(2);
  task->body = [&] { ranOn = gettid(); };
  h.pool.addTask(task);
  ASSERT_TRUE(PollUntil([&] { return ranOn != 0; }));
  EXPECT_EQ(ranOn.load(), worker[0].load()) << "the latest sleeper, on another processor, ran it";
}

// ---- AffinityThreadPool ----

using AffinityThreadPoolTest = zorv::test::LeakCheckedTest;

// Equal affinity numbers modulo the worker count share a worker and run in
// the order queued; tasks of the default affinity go round-robin.
TEST_F(AffinityThreadPoolTest, TasksOfOneAffinityRunOnOneWorkerInOrder) {
  Tally tally;
  AffinityThreadPool pool(4);
  const unsigned long long worker0 = pool.workerThreadID(0);
  const unsigned long long worker1 = pool.workerThreadID(1);
  ASSERT_NE(worker0, 0u);
  EXPECT_EQ(pool.workerThreadID(4), 0u) << "no worker past the last";
  EXPECT_EQ(pool.maxTaskNum(4), 0u) << "no worker past the last";
  // Rows of an affinity and the worker that runs it.
  const std::pair<int, unsigned long long> cases[] = {
      {0, worker0}, {4, worker0}, {8, worker0}, {5, worker1}, {1, worker1}};
  for (int i = 0; i < 100; ++i) {
    ProbeTask* task = NewTask(&tally, i);
    task->affinity = cases[i % 5].first;
    pool.addTask(task);
  }
  for (int i = 0; i < 4; ++i) pool.addTask(NewTask(&tally, 1000 + i));
  pool.stop();
  EXPECT_EQ(pool.workerThreadID(0), 0u) << "no workers after stop()";
  const std::vector<Tally::Run> log = tally.log();
  ASSERT_EQ(log.size(), 104u);
  int last[2] = {-1, -1};
  std::set<unsigned long long> spread;
  for (const Tally::Run& run : log) {
    SCOPED_TRACE(run.id);
    if (run.id >= 1000) {
      spread.insert(run.thread);
      continue;
    }
    EXPECT_EQ(run.thread, cases[run.id % 5].second);
    int& previous = last[run.thread == worker0 ? 0 : 1];
    EXPECT_GT(run.id, previous) << "submission order within one worker";
    previous = run.id;
  }
  EXPECT_EQ(spread.size(), 4u) << "default affinities not spread round-robin";
}

}  // namespace
