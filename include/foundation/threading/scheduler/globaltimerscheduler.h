// GlobalTimerScheduler: the process-wide timer scheduler as a service.
#ifndef ZORV_FOUNDATION_THREADING_SCHEDULER_GLOBALTIMERSCHEDULER_H_
#define ZORV_FOUNDATION_THREADING_SCHEDULER_GLOBALTIMERSCHEDULER_H_

#include "foundation/export.h"
#include "foundation/lang/injection/service.h"
#include "foundation/text/safestring.h"
#include "foundation/threading/threadpool/executor.h"
#include "foundation/threading/timer/timerscheduler.h"

namespace zorv {
namespace foundation {
namespace threading {

// A service owning one TimerScheduler for the whole process. Type name
// "zorv.foundation.threading.GlobalTimerScheduler", instance name "default".
// The usual set-up runs its timers on the thread pool of a
// GlobalTaskScheduler: GlobalTimerScheduler(&tasks.getThreadPool()).
//
// Ownership: the service owns its scheduler, which owns the timers; the
// executor is not owned and must outlive the service (finalize this service
// before the task scheduler).
//
// Thread safety: the scheduler is safe to use from any thread; finalize()
// and the destructor belong to one controlling thread.
class ZORV_FOUNDATION_EXPORT GlobalTimerScheduler : public lang::injection::IService {
 public:
  // Timers run on the scheduler's own thread.
  GlobalTimerScheduler();

  // Timers run through `executor`. REQUIRES: executor is not null and
  // outlives the service.
  explicit GlobalTimerScheduler(IExecutor* executor);

  // Destroys the scheduler (which stops it first).
  ~GlobalTimerScheduler() override;

  GlobalTimerScheduler(const GlobalTimerScheduler&) = delete;
  GlobalTimerScheduler& operator=(const GlobalTimerScheduler&) = delete;

  // "zorv.foundation.threading.GlobalTimerScheduler".
  SafeString typeName() const override;

  // Stops the scheduler: every timer is disposed; afterwards addTimer throws
  // "scheduler has been stopped".
  void finalize() override;

  // The scheduler.
  TimerScheduler& getTimerScheduler();

 private:
  TimerScheduler* d_;
};

}  // namespace threading
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_THREADING_SCHEDULER_GLOBALTIMERSCHEDULER_H_
