// AffinityThreadPool: workers with a bounded FIFO queue each, chosen by the
// task's affinity number.
#ifndef ZORV_FOUNDATION_THREADING_THREADPOOL_AFFINITYTHREADPOOL_H_
#define ZORV_FOUNDATION_THREADING_THREADPOOL_AFFINITYTHREADPOOL_H_

#include "foundation/export.h"
#include "foundation/text/safestring.h"
#include "foundation/threading/threadpool/executor.h"

namespace zorv {
namespace foundation {
namespace threading {

namespace detail {
struct AffinityThreadPoolPrivate;
}  // namespace detail

// An executor whose workers each own a bounded FIFO queue. A task goes to
// worker `task->getAffinity() % threadNum()`: tasks with the same affinity
// number run one after another on the same thread, in the order they were
// queued, which serialises related work without further locks. Tasks that
// keep the default getAffinity() (a process-wide counter) are spread
// round-robin. Each worker names its thread with the pool's name and runs
// each task inside a debug-support timing scope
// ("zorv.foundation.threading.AffinityThreadPool", "Exec").
//
// Latency: a task goes to the worker its affinity names even when another
// one is awake, so tasks spread round-robin over an idle pool wake a
// different sleeping thread each time, and the slowest wake-ups come later
// than on a ThreadPool, which wakes the worker that slept last. Tasks that
// need no order among themselves start sooner on a ThreadPool.
//
// Ownership: as ThreadPool. The pool owns every task it accepts and disposes
// it after its run() returned or threw; a failed addTask disposes it; a
// tryAddTask that returns false leaves it with the caller. The pool owns its
// workers and deletes each one in stop().
//
// Thread safety: addTask, tryAddTask, setMaxTaskNum, the accessors and
// isMyThread from any thread, also while stop() runs; stop() from any thread
// but a worker of this pool (see stop()). Producers contend only with
// producers that target the same worker. A task added while stop() runs is
// either queued before its worker's stop marker, and then runs, or refused
// with "executor has stopped" (the task disposed): none is ever left in a
// queue unrun. The destructor must not race with other calls.
class ZORV_FOUNDATION_EXPORT AffinityThreadPool : public IExecutor {
 public:
  // Starts min(threadNum, 300) workers; threadNum 0 means one per processor
  // (capped at 300, at least 1). Worker i keeps index i. The pool is named
  // "zorv.foundation.threading.AffinityThreadPool"; each worker's queue bound
  // starts at 1000000 entries.
  // Throws the Exception of Thread::start() when a thread cannot be created.
  explicit AffinityThreadPool(unsigned int threadNum);

  // The same with `name` for the worker threads.
  AffinityThreadPool(unsigned int threadNum, const SafeString& name);

  // Performs stop(): blocks until every queued task has run.
  // REQUIRES: not called from one of this pool's workers.
  ~AffinityThreadPool() override;

  AffinityThreadPool(const AffinityThreadPool&) = delete;
  AffinityThreadPool& operator=(const AffinityThreadPool&) = delete;

  // Asks task->getAffinity() once, then queues the task on that worker,
  // blocking while that worker's queue is full (even when other workers are
  // idle). The pool owns the task in every case.
  // Throws Exception ("zorv.foundation.threading.AffinityThreadPool.addTask",
  // "executor has stopped") once stop() has closed that worker's queue
  // (see stop()), std::bad_alloc when the queue must grow and cannot; either
  // way the task has been disposed.
  // REQUIRES: task is not null.
  void addTask(ITask* task) override;

  // Like addTask, but waits for room at most about `ms` milliseconds, charged
  // as in ThreadPool::tryAddTask from the moment getAffinity() has returned.
  // Returns false on time-out: the task is not disposed and still belongs to
  // the caller. Throws as addTask (the task disposed).
  // REQUIRES: task is not null.
  [[nodiscard]] bool tryAddTask(ITask* task, unsigned int ms) override;

  // Gives every worker the bound max(n / threadNum(), 100); producers that
  // wait for room are woken when it grows. Does nothing after stop().
  void setMaxTaskNum(unsigned int n);

  // Stops the workers one after another in index order: a worker's queue is
  // closed in the step that queues its stop marker, the worker runs every
  // task before the marker, then ends and is joined and deleted before the
  // next is told to stop. The later workers keep running and accepting tasks
  // meanwhile. A task for a worker whose queue was closed (also one that was
  // waiting for room), and every task after stop(), is disposed and refused
  // with "executor has stopped". Stopping a stopped pool returns at once; a
  // stop() that races with another waits until that one has finished.
  // Throws Exception ("zorv.foundation.threading.AffinityThreadPool.stop",
  // "called from a worker") when called from one of this pool's workers,
  // which cannot join themselves; the pool is left running. The destructor
  // therefore must not run on a worker either.
  void stop();

  // True when the calling thread is one of this pool's workers (also after
  // stop(), for the former workers' thread ids).
  bool isMyThread() const;

  // The number of workers: as started, 0 after stop().
  unsigned int threadNum() const;

  // The queue bound of worker `index`; 0 for an index out of range, for a
  // worker already stopped, or after stop().
  unsigned int maxTaskNum(unsigned int index) const;

  // The thread id (Thread::threadID()) of worker `index`; 0 for an index
  // out of range, for a worker already stopped, or after stop().
  unsigned long long workerThreadID(unsigned int index) const;

  // The pool's name.
  SafeString name() const;

 private:
  detail::AffinityThreadPoolPrivate* d_;
};

}  // namespace threading
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_THREADING_THREADPOOL_AFFINITYTHREADPOOL_H_
