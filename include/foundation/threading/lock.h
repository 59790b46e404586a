// Lock interfaces, the recursive mutex Lock and the scoped holder Locker.
#ifndef ZORV_FOUNDATION_THREADING_LOCK_H_
#define ZORV_FOUNDATION_THREADING_LOCK_H_

#include "foundation/export.h"
#include "foundation/lang/interface.h"

namespace zorv {
namespace foundation {
namespace threading {

// Something that can be locked and unlocked. Implementations say whether
// they are recursive and which thread may unlock them.
class ZORV_FOUNDATION_EXPORT ILock : public lang::Interface {
 public:
  ~ILock() override;

  // Blocks until the calling thread holds the lock.
  virtual void lock() = 0;

  // Releases one hold of the lock. REQUIRES: the calling thread holds it.
  virtual void unlock() = 0;
};

// A lock that can also be tried without blocking.
class ZORV_FOUNDATION_EXPORT ITryLock : public ILock {
 public:
  ~ITryLock() override;

  void lock() override = 0;
  void unlock() override = 0;

  // Takes the lock when that is possible without blocking. Returns false
  // when another thread holds it.
  [[nodiscard]] virtual bool tryLock() = 0;
};

// A recursive mutual-exclusion lock over a POSIX mutex: the thread that holds
// it may lock it again and must then unlock it as many times. This is the
// library's one mutex kind.
//
// Thread safety: safe to share among threads. A Lock must be unlocked on the
// thread that locked it. The mutex is owned by the Lock and counts as one
// live system handle while the Lock lives. Not copyable.
class ZORV_FOUNDATION_EXPORT Lock : public ITryLock {
 public:
  // Creates the recursive mutex.
  // Throws std::bad_alloc when memory is exhausted.
  Lock();
  // REQUIRES: no thread holds the lock.
  ~Lock() override;
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  // Blocks until the calling thread holds the lock (again, when it already
  // holds it). POSIX results are ignored.
  void lock() override;

  // Releases one hold. POSIX results are ignored.
  void unlock() override;

  // Takes the lock without blocking; true also when the calling thread
  // already holds it (recursive). False when another thread holds it.
  [[nodiscard]] bool tryLock() override;

  // The mutex (a pthread_mutex_t*), for the lock conditions. It belongs to
  // the Lock. Null only when memory ran out under object tracing.
  void* handle();

 private:
  struct LockPrivate;
  LockPrivate* d_;
};

// A scoped holder of any ILock: releases the lock it holds when it goes out
// of scope.
//
// The flag passed at construction states whether the lock is ALREADY held:
// `Locker(lock, false)` takes the lock now, `Locker(lock, true)` adopts a
// lock that the caller has already taken. Either way the Locker releases it.
//
// Thread safety: a per-thread stack object, never shared; it must be
// unlocked on the thread that locked it. It does not own the lock.
//
// Its operations are exported functions of the library, so that programs
// built against any release of this header load every later release.
class ZORV_FOUNDATION_EXPORT Locker {
 public:
  // Stores the lock; takes it unless `locked` says it is already held.
  // Throws Exception("zorv.foundation.threading.Locker", "lock is nullptr")
  // when `lock` is null. REQUIRES: the lock outlives the Locker.
  Locker(ILock* lock, bool locked);
  Locker(ILock& lock, bool locked);
  // Releases the lock when this Locker holds it. Never throws.
  ~Locker();
  Locker(const Locker&) = delete;
  Locker& operator=(const Locker&) = delete;

  // Takes the lock unless this Locker already holds it (it never locks the
  // lock twice through the same Locker).
  void lock();

  // Releases the lock when this Locker holds it; otherwise does nothing.
  void unlock();

  // True while this Locker holds the lock.
  bool isLocked() const;

  // The lock this Locker works on (not owned).
  ILock* getLock();

 private:
  // Throws the null-lock Exception (kept out of line).
  [[noreturn]] static void ThrowNullLock();

  ILock* lock_;
  bool locked_;
};

}  // namespace threading
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_THREADING_LOCK_H_
