// Lock conditions: condition variables bound to one Lock, timed on the
// monotonic clock, and predicate waits on top of them.
#ifndef ZORV_FOUNDATION_THREADING_LOCKCONDITION_H_
#define ZORV_FOUNDATION_THREADING_LOCKCONDITION_H_

#include <time.h>

#include <functional>

#include "foundation/export.h"
#include "foundation/lang/interface.h"
#include "foundation/threading/lock.h"

namespace zorv {
namespace foundation {
namespace threading {

// A condition that threads wait on and notify through a Locker holding the
// condition's lock.
class ZORV_FOUNDATION_EXPORT ILockCondition : public lang::Interface {
 public:
  ~ILockCondition() override;

  // Releases the lock, blocks until notified (or woken spuriously) and takes
  // the lock again.
  virtual void wait(Locker& locker) = 0;

  // As wait(), for at most `ms` milliseconds. True when woken, false on
  // time-out.
  [[nodiscard]] virtual bool tryWait(Locker& locker, unsigned int ms) = 0;

  // Wakes one waiter.
  virtual void notify(Locker& locker) = 0;

  // Wakes all waiters.
  virtual void notifyAll(Locker& locker) = 0;
};

// A POSIX condition variable bound at construction to one Lock, timed on
// CLOCK_MONOTONIC so that changes of the wall clock never shorten or stretch
// a time-out.
//
// Every operation takes a Locker that must hold this very lock, and checks
// it: an unlocked Locker throws "locker is unlocked", a Locker on another
// lock throws "lock is incorrect" (sources below); the condition is then not
// touched. Because the Lock is recursive, a waiting thread must hold it
// exactly once (a recursive hold is not fully released by the wait).
//
// Thread safety: any number of threads may wait and notify. The condition
// counts as one live system handle; it does not own the lock, which must
// outlive it. Not copyable.
class ZORV_FOUNDATION_EXPORT LockCondition : public ILockCondition {
 public:
  // Binds the condition to `lock`.
  // Throws Exception("zorv.foundation.threading.LockCondition",
  // "lock is nullptr") for a null lock and
  // Exception("zorv.foundation.threading.LockCondition",
  // "lock.handle is nullptr") for a lock without a mutex; nothing is
  // allocated then. Throws std::bad_alloc when memory is exhausted.
  explicit LockCondition(Lock* lock);
  explicit LockCondition(Lock& lock);
  // REQUIRES: no thread waits on it.
  ~LockCondition() override;
  LockCondition(const LockCondition&) = delete;
  LockCondition& operator=(const LockCondition&) = delete;

  // Throws Exception("zorv.foundation.threading.LockCondition.wait",
  // "locker is unlocked" or "lock is incorrect").
  void wait(Locker& locker) override;

  // Waits until notified or until `ms` milliseconds of the monotonic clock
  // have passed. True when woken (a spurious wake-up counts), false on
  // time-out; 0 ms returns false at once unless a wake-up is pending.
  // Throws Exception("zorv.foundation.threading.LockCondition.trywait",
  // "locker is unlocked") and
  // Exception("zorv.foundation.threading.LockCondition.tryWait",
  // "lock is incorrect") (note the two spellings).
  [[nodiscard]] bool tryWait(Locker& locker, unsigned int ms) override;

  // Throws Exception("zorv.foundation.threading.LockCondition.notify",
  // "locker is unlocked" or "lock is incorrect").
  void notify(Locker& locker) override;

  // Throws Exception("zorv.foundation.threading.LockCondition.notifyAll",
  // "locker is unlocked" or "lock is incorrect").
  void notifyAll(Locker& locker) override;

  // ---- End of public API: helpers for the library's own use ----

  // The absolute deadline `ms` milliseconds after `now`: seconds += ms / 1000,
  // nanoseconds += (ms % 1000) * 1000000, with one carry into the seconds.
  static struct timespec _Deadline(const struct timespec& now, unsigned int ms);

 private:
  struct LockConditionPrivate;
  LockConditionPrivate* d_;
};

// Predicate waits over any ILockCondition.
class ZORV_FOUNDATION_EXPORT LockConditionHelper {
 public:
  LockConditionHelper() = delete;

  // Waits on `cond` until pred() is true, checking it before every wait.
  // Always returns true. Throws std::bad_function_call when pred is empty,
  // and what cond.wait throws. REQUIRES: locker holds the condition's lock.
  static bool WaitFor(ILockCondition& cond, Locker& locker, const std::function<bool()>& pred);

  // As above for at most about `ms` milliseconds: the budget shrinks by the
  // time spent waiting (not by the time pred() takes), counted finer than
  // the millisecond, so that a condition notified many times a millisecond
  // uses it up too. Returns true as soon
  // as pred() is true; when the budget is spent, the result of one last
  // pred(). Throws std::bad_function_call when pred is empty, and what
  // cond.tryWait throws.
  static bool WaitFor(ILockCondition& cond, Locker& locker, unsigned int ms,
                      const std::function<bool()>& pred);
};

}  // namespace threading
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_THREADING_LOCKCONDITION_H_
