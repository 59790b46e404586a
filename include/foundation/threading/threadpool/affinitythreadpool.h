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
// Ownership: as ThreadPool. The pool owns every task it accepts and disposes
// it after its run() returned or threw; a failed addTask disposes it; a
// tryAddTask that returns false leaves it with the caller.
//
// Thread safety: addTask, tryAddTask and isMyThread from any thread; stop()
// and the destructor from one controlling thread that is not a worker.
// Producers contend only with producers that target the same worker. As with
// ThreadPool, a task added by another thread while stop() runs may land
// behind a worker's stop marker and is then neither run nor disposed; once a
// worker has ended, producers that target it are refused with "executor has
// stopped" (the task disposed).
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
  ~AffinityThreadPool() override;

  AffinityThreadPool(const AffinityThreadPool&) = delete;
  AffinityThreadPool& operator=(const AffinityThreadPool&) = delete;

  // Asks task->getAffinity() once, then queues the task on that worker,
  // blocking while that worker's queue is full (even when other workers are
  // idle). The pool owns the task in every case.
  // Throws Exception ("zorv.foundation.threading.AffinityThreadPool.addTask",
  // "executor has stopped") after stop(), std::bad_alloc when the queue
  // must grow and cannot; either way the task has been disposed.
  // REQUIRES: task is not null.
  void addTask(ITask* task) override;

  // Like addTask, but waits for room at most about `ms` milliseconds, charged
  // as in ThreadPool::tryAddTask. Returns false on time-out: the task is not
  // disposed and still belongs to the caller. Throws as addTask.
  // REQUIRES: task is not null.
  [[nodiscard]] bool tryAddTask(ITask* task, unsigned int ms) override;

  // Gives every worker the bound max(n / threadNum(), 100). Does nothing
  // after stop().
  void setMaxTaskNum(unsigned int n);

  // Stops the workers one after another in index order: each runs every task
  // in its queue, then ends and is joined before the next is told to stop.
  // Afterwards addTask and tryAddTask throw "executor has stopped". Stopping
  // a stopped pool returns at once.
  // REQUIRES: not called from one of this pool's workers.
  void stop();

  // True when the calling thread is one of this pool's workers (also after
  // stop(), for the former workers' thread ids).
  bool isMyThread() const;

  // The number of workers: as started, 0 after stop().
  unsigned int threadNum() const;

  // The queue bound of worker `index`; 0 for an index out of range or after
  // stop().
  unsigned int maxTaskNum(unsigned int index) const;

  // The thread id (Thread::threadID()) of worker `index`; 0 for an index
  // out of range or after stop().
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
