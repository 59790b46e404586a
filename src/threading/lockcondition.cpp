// LockCondition and the predicate waits of LockConditionHelper.
#include "foundation/threading/lockcondition.h"

#include <pthread.h>

#include "foundation/debug/systemmonitor.h"
#include "foundation/lang/exception.h"
#include "foundation/time/stopwatch.h"

#include "lang/accounting.h"

namespace zorv {
namespace foundation {
namespace threading {
namespace {

constexpr char kSource[] = "../threading/lockcondition.cpp";
constexpr char kCtorSource[] = "zorv.foundation.threading.LockCondition";
constexpr char kWaitSource[] = "zorv.foundation.threading.LockCondition.wait";
// The unlocked-locker check of tryWait has always reported this spelling.
constexpr char kTryWaitUnlockedSource[] = "zorv.foundation.threading.LockCondition.trywait";
constexpr char kTryWaitSource[] = "zorv.foundation.threading.LockCondition.tryWait";
constexpr char kNotifySource[] = "zorv.foundation.threading.LockCondition.notify";
constexpr char kNotifyAllSource[] = "zorv.foundation.threading.LockCondition.notifyAll";

constexpr char kUnlocked[] = "locker is unlocked";
constexpr char kIncorrect[] = "lock is incorrect";

}  // namespace

// The condition variable (one system handle) and the lock it is bound to.
struct LockCondition::LockConditionPrivate {
  Lock* lock;
  pthread_cond_t cond;
  pthread_mutex_t* mutex;

  LockConditionPrivate(Lock* boundLock, void* handle)
      : lock(boundLock), mutex(static_cast<pthread_mutex_t*>(handle)) {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&cond, &attr);
    pthread_condattr_destroy(&attr);
    debug::SystemMonitor::IncreaseHandle();
  }

  ~LockConditionPrivate() {
    pthread_cond_destroy(&cond);
    debug::SystemMonitor::DecreaseHandle();
  }

  LockConditionPrivate(const LockConditionPrivate&) = delete;
  LockConditionPrivate& operator=(const LockConditionPrivate&) = delete;

  void check(Locker& locker, const char* unlockedSource, const char* incorrectSource) const {
    if (!locker.isLocked()) throw lang::Exception(unlockedSource, kUnlocked);
    if (locker.getLock() != static_cast<ILock*>(lock)) {
      throw lang::Exception(incorrectSource, kIncorrect);
    }
  }
};

namespace {

Lock* CheckedLock(Lock* lock) {
  if (lock == nullptr) throw lang::Exception(kCtorSource, "lock is nullptr");
  if (lock->handle() == nullptr) throw lang::Exception(kCtorSource, "lock.handle is nullptr");
  return lock;
}

}  // namespace

ILockCondition::~ILockCondition() = default;

LockCondition::LockCondition(Lock* lock) : d_(nullptr) {
  CheckedLock(lock);
  d_ = lang::AccountedNew<LockConditionPrivate>(ZORV_ACCOUNTING_SITE(kSource, "LockCondition"),
                                                lock, lock->handle());
}

LockCondition::LockCondition(Lock& lock) : LockCondition(&lock) {}

LockCondition::~LockCondition() {
  lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~LockCondition"));
}

void LockCondition::wait(Locker& locker) {
  d_->check(locker, kWaitSource, kWaitSource);
  pthread_cond_wait(&d_->cond, d_->mutex);
}

bool LockCondition::tryWait(Locker& locker, unsigned int ms) {
  d_->check(locker, kTryWaitUnlockedSource, kTryWaitSource);
  struct timespec now = {0, 0};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const struct timespec deadline = _Deadline(now, ms);
  return pthread_cond_timedwait(&d_->cond, d_->mutex, &deadline) == 0;
}

void LockCondition::notify(Locker& locker) {
  d_->check(locker, kNotifySource, kNotifySource);
  pthread_cond_signal(&d_->cond);
}

void LockCondition::notifyAll(Locker& locker) {
  d_->check(locker, kNotifyAllSource, kNotifyAllSource);
  pthread_cond_broadcast(&d_->cond);
}

struct timespec LockCondition::_Deadline(const struct timespec& now, unsigned int ms) {
  struct timespec deadline = now;
  deadline.tv_sec += static_cast<time_t>(ms / 1000U);
  deadline.tv_nsec += static_cast<long>(ms % 1000U) * 1000000L;
  if (deadline.tv_nsec > 999999999L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  return deadline;
}

bool LockConditionHelper::WaitFor(ILockCondition& cond, Locker& locker,
                                  const std::function<bool()>& pred) {
  if (!pred) throw std::bad_function_call();
  while (!pred()) cond.wait(locker);
  return true;
}

bool LockConditionHelper::WaitFor(ILockCondition& cond, Locker& locker, unsigned int ms,
                                  const std::function<bool()>& pred) {
  time::Stopwatch stopwatch;
  if (!pred) throw std::bad_function_call();
  unsigned int remaining = ms;
  // The time spent inside tryWait, summed finer than the millisecond: waits
  // that end within a millisecond (a condition notified many times a
  // millisecond) use the budget up as well, where whole milliseconds a wait
  // would charge nothing and the budget would never run out.
  double waitedMs = 0.0;
  for (;;) {
    if (pred()) return true;
    stopwatch.start();
    if (!cond.tryWait(locker, remaining)) return pred();
    waitedMs += stopwatch.toSeconds() * 1000.0;
    if (waitedMs >= ms) return pred();
    remaining = ms - static_cast<unsigned int>(waitedMs);
  }
}

}  // namespace threading
}  // namespace foundation
}  // namespace zorv
