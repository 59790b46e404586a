// ReadWriteLock: a writer-preferring reader-writer lock seen through two
// ILock views.
#ifndef ZORV_FOUNDATION_THREADING_READWRITELOCK_H_
#define ZORV_FOUNDATION_THREADING_READWRITELOCK_H_

#include "foundation/export.h"
#include "foundation/threading/lock.h"

namespace zorv {
namespace foundation {
namespace threading {

// One POSIX reader-writer lock that prefers writers, handed out as two
// ILock views: readLock() takes it shared, writeLock() exclusive. Use them
// through a Locker: `Locker locker(rw.readLock(), false);`.
//
// A waiting writer blocks new readers until it has had its turn. Neither view
// is recursive: a thread must not take the read lock again while it holds it
// (a writer may be waiting), nor the write lock at all while it holds either.
//
// Thread safety: safe to share among threads; a view is unlocked on the
// thread that locked it. The views belong to the ReadWriteLock and live as
// long as it does. The lock counts as one live system handle. Not copyable.
class ZORV_FOUNDATION_EXPORT ReadWriteLock {
 public:
  // Throws std::bad_alloc when memory is exhausted.
  ReadWriteLock();
  // REQUIRES: no thread holds either view.
  ~ReadWriteLock();
  ReadWriteLock(const ReadWriteLock&) = delete;
  ReadWriteLock& operator=(const ReadWriteLock&) = delete;

  // The shared view (owned by this object).
  ILock& readLock();

  // The exclusive view (owned by this object).
  ILock& writeLock();

 private:
  struct ReadWriteLockPrivate;
  ReadWriteLockPrivate* d_;
};

}  // namespace threading
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_THREADING_READWRITELOCK_H_
