// The lock interfaces, the recursive Lock and the scoped Locker.
#include "foundation/threading/lock.h"

#include <pthread.h>

#include "foundation/debug/systemmonitor.h"
#include "foundation/lang/exception.h"

#include "lang/accounting.h"

namespace zorv {
namespace foundation {
namespace threading {
namespace {

constexpr char kSource[] = "../threading/lock.cpp";
constexpr char kLockerSource[] = "zorv.foundation.threading.Locker";

}  // namespace

// The recursive POSIX mutex of a Lock; it counts as one system handle.
struct Lock::LockPrivate {
  pthread_mutex_t mutex;

  LockPrivate() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    debug::SystemMonitor::IncreaseHandle();
  }

  ~LockPrivate() {
    pthread_mutex_destroy(&mutex);
    debug::SystemMonitor::DecreaseHandle();
  }

  LockPrivate(const LockPrivate&) = delete;
  LockPrivate& operator=(const LockPrivate&) = delete;
};

ILock::~ILock() = default;

ITryLock::~ITryLock() = default;

Lock::Lock() : d_(lang::AccountedNew<LockPrivate>(ZORV_ACCOUNTING_SITE(kSource, "Lock"))) {}

Lock::~Lock() { lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~Lock")); }

void Lock::lock() {
  if (d_ != nullptr) pthread_mutex_lock(&d_->mutex);
}

void Lock::unlock() {
  if (d_ != nullptr) pthread_mutex_unlock(&d_->mutex);
}

bool Lock::tryLock() { return d_ != nullptr && pthread_mutex_trylock(&d_->mutex) == 0; }

void* Lock::handle() { return d_ == nullptr ? nullptr : static_cast<void*>(&d_->mutex); }

void Locker::ThrowNullLock() { throw lang::Exception(kLockerSource, "lock is nullptr"); }

Locker::Locker(ILock* lock, bool locked) : lock_(lock), locked_(locked) {
  if (lock_ == nullptr) ThrowNullLock();
  if (!locked_) {
    lock_->lock();
    locked_ = true;
  }
}

Locker::Locker(ILock& lock, bool locked) : Locker(&lock, locked) {}

Locker::~Locker() {
  if (locked_) lock_->unlock();
}

void Locker::lock() {
  if (!locked_) {
    lock_->lock();
    locked_ = true;
  }
}

void Locker::unlock() {
  if (locked_) {
    lock_->unlock();
    locked_ = false;
  }
}

bool Locker::isLocked() const { return locked_; }

ILock* Locker::getLock() { return lock_; }

}  // namespace threading
}  // namespace foundation
}  // namespace zorv
