// IExecutor: what accepts tasks to run on other threads.
#ifndef ZORV_FOUNDATION_THREADING_THREADPOOL_EXECUTOR_H_
#define ZORV_FOUNDATION_THREADING_THREADPOOL_EXECUTOR_H_

#include "foundation/export.h"
#include "foundation/lang/interface.h"
#include "foundation/threading/thread.h"

namespace zorv {
namespace foundation {
namespace threading {

// Something that runs tasks on threads of its own: ThreadPool and
// AffinityThreadPool implement it; TimerScheduler hands due timers to one.
//
// Ownership: a task that an executor accepts belongs to the executor from
// then on; the executor runs it and then calls its dispose() exactly once.
// An addTask that throws has disposed the task too. Only a tryAddTask that
// returns false leaves the task with the caller.
//
// Thread safety: implementations accept tasks from any thread.
class ZORV_FOUNDATION_EXPORT IExecutor : public lang::Interface {
 public:
  ~IExecutor() override;

  // Queues `task`, blocking while the queue is full. The executor owns the
  // task afterwards in every case: it runs and then disposes it, or disposes
  // it at once when the task cannot be queued (and then throws).
  // REQUIRES: task is not null and was not handed to an executor before.
  virtual void addTask(ITask* task) = 0;

  // Queues `task`, waiting at most about `ms` milliseconds for room. Returns
  // true when the task was queued (the executor owns it) and false on
  // time-out (the caller still owns it and may retry or dispose it).
  // REQUIRES: task is not null and was not handed to an executor before.
  [[nodiscard]] virtual bool tryAddTask(ITask* task, unsigned int ms) = 0;
};

}  // namespace threading
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_THREADING_THREADPOOL_EXECUTOR_H_
