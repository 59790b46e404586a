// ITimerScheduler and TimerScheduler: running timers at their due times.
#ifndef ZORV_FOUNDATION_THREADING_TIMER_TIMERSCHEDULER_H_
#define ZORV_FOUNDATION_THREADING_TIMER_TIMERSCHEDULER_H_

#include "foundation/export.h"
#include "foundation/lang/interface.h"
#include "foundation/threading/threadpool/executor.h"
#include "foundation/threading/timer/timer.h"

namespace zorv {
namespace foundation {
namespace threading {

// What accepts timers and lets them be removed again.
class ZORV_FOUNDATION_EXPORT ITimerScheduler : public lang::Interface {
 public:
  ~ITimerScheduler() override;

  // Takes ownership of `timer` and schedules its first run.
  virtual void addTimer(ITimer* timer) = 0;

  // Unschedules `timer`; with `wait`, also waits until no run of it is in
  // progress. The scheduler disposes the timer.
  virtual void removeTimer(ITimer* timer, bool wait) = 0;
};

namespace detail {
struct TimerSchedulerPrivate;
}  // namespace detail

// Runs timers at their due times. One scheduler thread, named
// "zorv.foundation.threading.TimerScheduler" and started by the constructor,
// keeps the timers ordered by due time (SystemUtils::GetTick() milliseconds;
// changes of the wall clock do not move them) and sleeps until the earliest
// is due. Then it either runs the timer itself or, when built over an
// executor, hands it to the executor's addTask and goes back to keeping time.
// Timers with equal due times run in the order they were queued. A repeating
// timer added with addTimer is queued again interval() milliseconds after its
// run ended: a late or slow run shifts later runs, missed periods are not
// caught up. One added with addFixedRateTimer keeps to a fixed grid of start
// times instead. Either way one timer never runs twice at once.
//
// Ownership: the scheduler owns every timer it accepts and disposes it
// exactly once: after a run after which isRepeat() is false (or after which
// isRepeat() or interval() threw, with interrupted() called first), after
// removeTimer (at once, or when a run still in progress ends), when the
// executor refuses it, or by stop(). A timer whose run() throws gets its
// interrupted() hook called and stays scheduled if it repeats. Re-arming a
// timer allocates nothing: a repeating timer runs on for as long as
// isRepeat() says so, whatever the allocator does. The scheduler does not
// own the executor, which must outlive it.
//
// Thread safety: addTimer and removeTimer may be called from any thread,
// also from inside a timer's run(), with one exception:
// removeTimer(self, true) from a timer's own run() never returns, and
// neither do two runs that remove each other with `wait`. stop() and the
// destructor belong to one controlling thread that is not the scheduler's
// thread.
class ZORV_FOUNDATION_EXPORT TimerScheduler : public ITimerScheduler {
 public:
  // Timers run on the scheduler thread itself.
  // Throws the Exception of Thread::start() when the thread cannot be
  // created.
  TimerScheduler();

  // Due timers are passed to executor->addTask and run on its threads; the
  // scheduler thread only keeps time. When addTask throws std::bad_alloc,
  // the timer's interrupted() hook is called as for a failed run and a
  // repeating timer stays scheduled. Any other refusal (addTask throws
  // because the executor was stopped, or the executor discards the task
  // through its interrupted() hook) ends the timer: its interrupted() hook
  // is called once, and it is unregistered and disposed.
  // REQUIRES: executor is not null and outlives the scheduler.
  explicit TimerScheduler(IExecutor* executor);

  // Performs stop(), then frees the scheduler's state.
  ~TimerScheduler() override;

  TimerScheduler(const TimerScheduler&) = delete;
  TimerScheduler& operator=(const TimerScheduler&) = delete;

  // Takes ownership of `timer` and schedules its first run at
  // GetTick() + timer->interval() (held at the end of the clock: see
  // ITimer::interval). Adding a timer that is already scheduled does nothing
  // (it keeps its schedule and its single owner).
  // Throws Exception ("zorv.foundation.threading.TimerScheduler.addTimer",
  // "scheduler has been stopped") after stop(), std::bad_alloc when memory
  // runs out, and passes on what interval() throws; the timer is then not
  // accepted and still belongs to the caller.
  // REQUIRES: timer is not null.
  void addTimer(ITimer* timer) override;

  // Unschedules `timer`. A run in progress finishes normally and is not
  // repeated; a run handed to the executor that has not begun is cancelled
  // (it never starts, and is not waited for). Without `wait` the timer is
  // disposed at once unless a run is in progress, and then by that run when
  // it ends. With `wait` the call returns only after the run in progress, if
  // any, has ended, and the timer has then been disposed: a timer's run may
  // so remove another timer whose next run waits behind it in the queue of
  // the same worker. An unknown timer, or one removed before, is ignored.
  void removeTimer(ITimer* timer, bool wait) override;

  // As addTimer, but the timer repeats at a fixed rate, start to start: with
  // t0 the GetTick() of this call, its k-th run is due at
  // t0 + k * interval(). A run that ends after one or more later slots have
  // passed skips them: the next run takes the first slot not yet passed,
  // without a burst of runs to catch up and never while a run of it is in
  // progress. isRepeat() is asked after each run, and interval() with it: a
  // changed interval applies from the slot after the next (the next slot was
  // planned with the interval in force). An interval() of 0 runs a
  // repeating timer back to back. A run late in starting (a busy executor)
  // does not move the grid. Ownership, removal, stop() and failures of
  // run(), isRepeat() and interval() are as for addTimer.
  // Throws Exception
  // ("zorv.foundation.threading.TimerScheduler.addFixedRateTimer",
  // "scheduler has been stopped") after stop(), std::bad_alloc when memory
  // runs out, and passes on what interval() throws; the timer is then not
  // accepted and still belongs to the caller. Adding a timer that is already
  // scheduled (by either call) does nothing.
  // REQUIRES: timer is not null.
  void addFixedRateTimer(ITimer* timer);

  // Stops the scheduler thread, waits until every run in progress or queued
  // in the executor has ended, and disposes every timer. Afterwards addTimer
  // throws. Stopping a stopped scheduler returns at once.
  // REQUIRES: not called from the scheduler thread or from a timer's run().
  void stop();

  // The number of timers currently scheduled or running (a snapshot).
  unsigned int timerNum() const;

 private:
  detail::TimerSchedulerPrivate* d_;
};

}  // namespace threading
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_THREADING_TIMER_TIMERSCHEDULER_H_
