// Private: the bounded FIFO task queue shared by both thread pools, and the
// accounted creation that refuses a null object.
#ifndef ZORV_FOUNDATION_SRC_THREADING_THREADPOOL_TASKQUEUE_H_
#define ZORV_FOUNDATION_SRC_THREADING_THREADPOOL_TASKQUEUE_H_

#include <atomic>
#include <list>
#include <new>
#include <utility>

#include "foundation/debug/allocator.h"
#include "foundation/debug/objectmonitor.h"
#include "foundation/lang/accounted.h"
#include "foundation/lang/exception.h"
#include "foundation/system/systemutils.h"
#include "foundation/threading/lock.h"
#include "foundation/threading/lockcondition.h"
#include "foundation/threading/thread.h"

namespace zorv {
namespace foundation {
namespace threading {
namespace detail {

// A FIFO of task pointers with a bound on its length; a null entry is a stop
// marker for a worker. One lock guards the list and the count; producers wait
// on notFull, consumers on notEmpty. A taken entry's list node is kept (up
// to kSpareEntries of them) for the next task to be added, so that a busy
// queue relinks nodes instead of allocating and freeing one per task; only
// when none is kept does adding allocate, under the lock. Stop markers have
// nodes of their own, allocated up front.
struct TaskQueue {
  using List = std::list<ITask*, debug::Allocator<ITask*>>;

  static constexpr int kSpins = 200;
  // Entries kept for reuse after their task was taken.
  static constexpr std::size_t kSpareEntries = 256;

  static inline void CpuRelax() {
#if defined(__i386__) || defined(__x86_64__)
    __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
    __asm__ __volatile__("yield");
#endif
  }

  TaskQueue() : notEmpty(lock), notFull(lock) {}
  TaskQueue(const TaskQueue&) = delete;
  TaskQueue& operator=(const TaskQueue&) = delete;

  enum Result { kAdded, kTimedOut, kClosed };

  // Moves the single entry of `node` (a preallocated stop marker) to the
  // back, waiting while the queue is full. kClosed (and `node` untouched)
  // once the queue was closed.
  Result put(List& node) {
    Locker locker(&lock, false);
    if (!waitForRoom(locker)) return kClosed;
    append(locker, node);
    return kAdded;
  }

  // Appends `task`, waiting while the queue is full. kClosed once the queue
  // was closed. Throws std::bad_alloc, leaving the queue as it was, when no
  // entry can be had.
  Result put(ITask* task) {
    Locker locker(&lock, false);
    if (!waitForRoom(locker)) return kClosed;
    appendTask(locker, task);
    return kAdded;
  }

  // Appends `task`, waiting for room at most until `ms` milliseconds after
  // `startTick`, charged from the start tick on every pass. kTimedOut or
  // kClosed leave the queue as it was; std::bad_alloc as for put.
  Result tryPut(ITask* task, unsigned int ms, unsigned long long startTick) {
    Locker locker(&lock, false);
    unsigned int remaining = ms;
    for (;;) {
      if (closed) return kClosed;
      if (queued.load(std::memory_order_relaxed) < maxTaskNum.load(std::memory_order_relaxed)) break;
      ++full;
      (void)notFull.tryWait(locker, remaining);
      --full;
      const unsigned long long elapsed = system::SystemUtils::GetTick() - startTick;
      if (elapsed > 0xFFFFFFFFull || elapsed >= remaining) return kTimedOut;
      remaining -= static_cast<unsigned int>(elapsed);
    }
    appendTask(locker, task);
    return kAdded;
  }

  // Refuses every later entry and wakes producers still waiting for room:
  // called once the consumers have ended, so that a producer that raced with
  // stopping is turned away instead of waiting for ever.
  void close() {
    Locker locker(&lock, false);
    closed = true;
    notFull.notifyAll(locker);
  }

  // Takes the front entry, waiting while the queue is empty. The entry's
  // node is moved into `node` (freed by the caller outside the lock).
  // A consumer that finds the queue empty first watches the count for a few
  // microseconds: a producer that keeps up then hands over without the
  // sleep and wake-up of a condition wait.
  ITask* take(List& node) {
    if (queued.load(std::memory_order_relaxed) == 0) {
      // Only one consumer watches at a time: more would take processor time
      // from the producers.
      if (spinners.fetch_add(1, std::memory_order_relaxed) == 0) {
        for (int spin = 0; spin < kSpins && queued.load(std::memory_order_relaxed) == 0; ++spin) {
          CpuRelax();
        }
      }
      spinners.fetch_sub(1, std::memory_order_relaxed);
    }
    Locker locker(&lock, false);
    while (list.empty()) {
      ++idle;
      notEmpty.wait(locker);
      --idle;
    }
    ITask* task = list.front();
    // Entries are kept for the next producers rather than freed: a pool
    // that hands over millions of tasks then allocates almost nothing.
    if (spare.size() < kSpareEntries) {
      spare.splice(spare.end(), list, list.begin());
    } else {
      node.splice(node.begin(), list, list.begin());
    }
    queued.store(queued.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
    if (full != 0) notFull.notify(locker);  // nobody to wake otherwise
    return task;
  }

  // Waits while the queue is full; false once it was closed.
  bool waitForRoom(Locker& locker) {
    for (;;) {
      if (closed) return false;
      if (queued.load(std::memory_order_relaxed) < maxTaskNum.load(std::memory_order_relaxed)) {
        return true;
      }
      ++full;
      notFull.wait(locker);
      --full;
    }
  }

  // Appends `task` in a kept entry, or in a new one.
  void appendTask(Locker& locker, ITask* task) {
    if (spare.empty()) {
      list.push_back(task);
    } else {
      list.splice(list.end(), spare, spare.begin());
      list.back() = task;
    }
    queued.store(queued.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (idle != 0) notEmpty.notify(locker);  // nobody to wake otherwise
  }

  void append(Locker& locker, List& node) {
    list.splice(list.end(), node);
    queued.store(queued.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (idle != 0) notEmpty.notify(locker);  // nobody to wake otherwise
  }

  // Entries in the list (tasks and stop markers). Changed only under the
  // lock; atomic so that snapshots may be read without it.
  std::atomic<unsigned int> queued{0};
  // The bound; written without the lock by setMaxTaskNum.
  std::atomic<unsigned int> maxTaskNum{1000000};
  List list;
  // Entries whose tasks were taken, kept for reuse; under the lock.
  List spare;
  // Set by close(); read and written under the lock.
  bool closed = false;
  // Consumers waiting on notEmpty and producers waiting on notFull; under
  // the lock.
  unsigned int idle = 0;
  unsigned int full = 0;
  // Consumers watching the count before they wait.
  std::atomic<int> spinners{0};
  Lock lock;
  LockCondition notEmpty;
  LockCondition notFull;
};

// Runs one task inside the timing scope of `category` and disposes it. A
// run() that throws gets the task's interruption hook called; the exception
// goes no further.
void RunAndDispose(ITask* task, const char* category);

// The worker count for a requested number: min(n, 300), or for 0 the
// processor count capped at 300 and at least 1.
unsigned int WorkerCount(unsigned int requested);

// The adding protocol of both pools. With no worker running, the task is
// disposed and Exception(source, "executor has stopped") thrown. Otherwise
// `pick()` chooses the queue (it may throw) and the task is put there:
// waiting for room, or with `timed` for at most about `ms` milliseconds.
// Returns false on a time-out, leaving the task with the caller; every other
// failure disposes the task before the exception passes on (a queue closed
// meanwhile counts as stopped).
template <class Pick>
bool AddTaskTo(unsigned int workerCount, ITask* task, Pick pick, bool timed, unsigned int ms,
               const char* source) {
  static const char kStopped[] = "executor has stopped";
  if (workerCount == 0) {
    task->dispose();
    throw lang::Exception(source, kStopped);
  }
  const unsigned long long start = timed ? system::SystemUtils::GetTick() : 0;
  TaskQueue::Result added = TaskQueue::kAdded;
  try {
    TaskQueue& queue = pick();
    added = timed ? queue.tryPut(task, ms, start) : queue.put(task);
  } catch (...) {
    task->dispose();
    throw;
  }
  if (added == TaskQueue::kTimedOut) return false;
  if (added == TaskQueue::kClosed) {
    task->dispose();
    throw lang::Exception(source, kStopped);
  }
  return true;
}

// Creates and starts `count` workers of type W, each constructed from
// `pool`, and appends them to pool->workers and their thread ids to
// pool->ids, publishing the running count after each one. A worker that
// fails to start is destroyed again before the exception passes on; the
// workers already started stay in the pool for its stop() to end.
template <class W, class P>
void StartWorkers(P* pool, unsigned int count, const char* source) {
  pool->workers.reserve(count);
  pool->ids.reserve(count);
  for (unsigned int i = 0; i < count; ++i) {
    W* worker = lang::AccountedNewOrThrow<W>(ZORV_ACCOUNTING_SITE(source, "MyThread"), pool);
    try {
      worker->start();
    } catch (...) {
      lang::AccountedDelete(worker, ZORV_ACCOUNTING_SITE(source, "~MyThread"));
      throw;
    }
    pool->workers.push_back(worker);  // reserved: does not throw
    pool->workerCount.store(static_cast<unsigned int>(pool->workers.size()),
                            std::memory_order_release);
    pool->ids.insert(worker->threadID());
  }
}

}  // namespace detail
}  // namespace threading
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_SRC_THREADING_THREADPOOL_TASKQUEUE_H_
