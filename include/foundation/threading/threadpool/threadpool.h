// ThreadPool: a fixed set of workers fed from one bounded FIFO queue.
#ifndef ZORV_FOUNDATION_THREADING_THREADPOOL_THREADPOOL_H_
#define ZORV_FOUNDATION_THREADING_THREADPOOL_THREADPOOL_H_

#include "foundation/export.h"
#include "foundation/text/safestring.h"
#include "foundation/threading/threadpool/executor.h"

namespace zorv {
namespace foundation {
namespace threading {

namespace detail {
struct ThreadPoolPrivate;
}  // namespace detail

// The general executor: a fixed number of worker threads, started by the
// constructor, that take tasks from one shared, bounded FIFO queue. With one
// worker, tasks run strictly in the order they were queued. Every worker
// names its thread with the pool's name and runs each task inside a
// debug-support timing scope ("zorv.foundation.threading.ThreadPool",
// "Exec").
//
// Wake-ups: idle workers sleep. A task added to an idle pool goes to the
// worker that slept last, unless that one went to sleep on another
// processor than the caller's and one of the next few sleepers went to
// sleep on the caller's: that one is woken instead, since it starts as soon
// as the caller pauses, where the other processor would first have to come
// out of idle. A burst wakes one worker, which hands the tasks
// queued meanwhile to the other sleeping workers and wakes them as soon as
// it runs, so the producer makes one wake-up call for the burst.
//
// Ownership: the pool owns every task it accepts. A worker disposes the task
// after its run() returned or threw (a run() that throws gets the task's
// interrupted() hook called; the worker goes on with the next task). The
// pool owns its workers.
//
// Thread safety: addTask, tryAddTask, setMaxTaskNum and isMyThread may be
// called from any thread, also while stop() runs; stop() from any thread but
// a worker of this pool (see stop()). A task added while stop() runs is
// either queued before the last stop marker, and then runs, or refused with
// "executor has stopped" (the task disposed): none is ever left in the queue
// unrun. The destructor must not race with other calls.
class ZORV_FOUNDATION_EXPORT ThreadPool : public IExecutor {
 public:
  // Starts min(threadNum, 300) workers; threadNum 0 means one per processor
  // (SystemUtils::GetProcessorNum(), capped at 300, at least 1). The pool is
  // named "zorv.foundation.threading.ThreadPool". The queue bound starts at
  // 1000000 entries.
  // Throws the Exception of Thread::start() when a thread cannot be created;
  // the workers started so far are stopped again.
  explicit ThreadPool(unsigned int threadNum);

  // The same with `name` for the worker threads.
  ThreadPool(unsigned int threadNum, const SafeString& name);

  // Performs stop(): blocks until every queued task has run.
  // REQUIRES: not called from one of this pool's workers.
  ~ThreadPool() override;

  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  // Queues `task` behind the tasks already queued, blocking while the queue
  // holds the bound number of entries. The pool owns the task in every case.
  // Throws Exception ("zorv.foundation.threading.ThreadPool.addTask",
  // "executor has stopped") once stop() has closed the queue (see stop()),
  // std::bad_alloc when the queue must grow and cannot; either way the task
  // has been disposed.
  // REQUIRES: task is not null.
  void addTask(ITask* task) override;

  // Like addTask, but waits for room at most about `ms` milliseconds. Returns
  // false on time-out: the task is not disposed and still belongs to the
  // caller. The budget is measured from the call: each time the wait ends
  // without room, the whole time since the call is charged again, so a
  // caller woken several times gives up sooner than `ms`.
  // Throws as addTask (the task disposed).
  // REQUIRES: task is not null.
  [[nodiscard]] bool tryAddTask(ITask* task, unsigned int ms) override;

  // Sets the queue bound to `n` entries, but never below 100 (0 to 99 set
  // 100). It takes effect at the next check of a producer; producers that
  // wait for room are woken when the bound grows.
  void setMaxTaskNum(unsigned int n);

  // Lets the workers run every task queued so far, then ends, joins and
  // deletes them. The queue is closed in the step that queues the last stop
  // marker: from then on addTask and tryAddTask (also those still waiting
  // for room) dispose the task and throw "executor has stopped". Stopping a
  // stopped pool returns at once; a stop() that races with another waits
  // until that one has finished. Blocks until the queue is drained.
  // Throws Exception ("zorv.foundation.threading.ThreadPool.stop",
  // "called from a worker") when called from one of this pool's workers,
  // which cannot join themselves; the pool is left running. The destructor
  // therefore must not run on a worker either.
  void stop();

  // True when the calling thread is one of this pool's workers (also after
  // stop(), for the former workers' thread ids).
  bool isMyThread() const;

  // The number of workers: as started, 0 after stop().
  unsigned int threadNum() const;

  // The current queue bound.
  unsigned int maxTaskNum() const;

  // The number of queue entries waiting for a worker (a snapshot).
  unsigned int queuedNum() const;

  // The pool's name.
  SafeString name() const;

 private:
  detail::ThreadPoolPrivate* d_;
};

}  // namespace threading
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_THREADING_THREADPOOL_THREADPOOL_H_
