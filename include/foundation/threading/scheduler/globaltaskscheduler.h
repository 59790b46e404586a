// GlobalTaskScheduler: the process-wide pair of thread pools as a service.
#ifndef ZORV_FOUNDATION_THREADING_SCHEDULER_GLOBALTASKSCHEDULER_H_
#define ZORV_FOUNDATION_THREADING_SCHEDULER_GLOBALTASKSCHEDULER_H_

#include "foundation/export.h"
#include "foundation/lang/injection/service.h"
#include "foundation/text/safestring.h"
#include "foundation/threading/threadpool/affinitythreadpool.h"
#include "foundation/threading/threadpool/threadpool.h"

namespace zorv {
namespace foundation {
namespace threading {

namespace detail {
struct GlobalTaskSchedulerPrivate;
}  // namespace detail

// A service owning one ThreadPool and one AffinityThreadPool for the whole
// process. Type name "zorv.foundation.threading.GlobalTaskScheduler",
// instance name "default".
//
// Ownership: the service owns both pools; tasks belong to the pools as
// IExecutor says. The host owns the service, calls finalize() at shutdown and
// then destroys it; destroying it without finalize() stops the pools too.
//
// Thread safety: the pools are safe to use from any thread; finalize() and
// the destructor belong to one controlling thread that is not a worker.
class ZORV_FOUNDATION_EXPORT GlobalTaskScheduler : public lang::injection::IService {
 public:
  // Both pools with one worker per processor (capped at 300, at least 1) and
  // their default names.
  GlobalTaskScheduler();

  // ThreadPool(threadNum) and AffinityThreadPool(affinityThreadNum), in this
  // order. Throws the Exception of Thread::start() when a thread cannot be
  // created; what was built is stopped and freed.
  GlobalTaskScheduler(unsigned int threadNum, unsigned int affinityThreadNum);

  // Destroys the affinity pool, then the thread pool (each stops first).
  ~GlobalTaskScheduler() override;

  GlobalTaskScheduler(const GlobalTaskScheduler&) = delete;
  GlobalTaskScheduler& operator=(const GlobalTaskScheduler&) = delete;

  // "zorv.foundation.threading.GlobalTaskScheduler".
  SafeString typeName() const override;

  // Stops the thread pool, then the affinity pool; both run their queued
  // tasks first. Afterwards adding tasks throws "executor has stopped".
  void finalize() override;

  // The shared-queue pool.
  ThreadPool& getThreadPool();

  // The affinity pool.
  AffinityThreadPool& getAffinityPool();

 private:
  detail::GlobalTaskSchedulerPrivate* d_;
};

}  // namespace threading
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_THREADING_SCHEDULER_GLOBALTASKSCHEDULER_H_
