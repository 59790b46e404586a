// ITimer: a task that runs after a delay, once or again and again.
#ifndef ZORV_FOUNDATION_THREADING_TIMER_TIMER_H_
#define ZORV_FOUNDATION_THREADING_TIMER_TIMER_H_

#include "foundation/export.h"
#include "foundation/threading/thread.h"

namespace zorv {
namespace foundation {
namespace threading {

// A task for a timer scheduler: run() does the work, interval() gives the
// delay before the first run and between the end of one run and the start of
// the next (or, for a timer added with TimerScheduler::addFixedRateTimer,
// between the due times of two runs), and isRepeat() says after each run
// whether to run again. When isRepeat() or interval() throws after a run, the
// timer ends: its interrupted() is called and it is disposed.
//
// Ownership: a scheduler that accepts a timer owns it and calls its dispose()
// exactly once, after its last run, after it was removed, or when the
// scheduler stops. Create timers with lang::MakeDisposable.
//
// Thread safety: the scheduler calls isRepeat(), interval() and
// getAffinity() with its lock held: they must return quickly and must not
// call back into the scheduler. run() is called without the lock, on the
// scheduler's thread or on an executor's thread, never twice at once for one
// timer.
class ZORV_FOUNDATION_EXPORT ITimer : public ITask {
 public:
  ~ITimer() override;

  // True when the timer is to be scheduled again; asked after each run.
  virtual bool isRepeat() = 0;

  // The delay in milliseconds of the monotonic clock (SystemUtils::GetTick):
  // asked when the timer is added (delay to the first run) and after each
  // run that repeats (delay from the end of that run to the next; for a
  // fixed-rate timer, the period from the next due time to the one after).
  // A due time past the end of the clock is held at its end, so a delay near
  // 2^64 (~0ULL as "off") means never. A delay of 0 runs a repeating timer
  // back to back; over an executor every run is one addTask, so such a timer
  // keeps one worker busy for good and the scheduler thread hands it over
  // once per run.
  virtual unsigned long long interval() = 0;
};

}  // namespace threading
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_THREADING_TIMER_TIMER_H_
