// FiledLock: a lock shared between processes by name, over a POSIX named
// semaphore.
#ifndef ZORV_FOUNDATION_SYSTEM_FILEDLOCK_H_
#define ZORV_FOUNDATION_SYSTEM_FILEDLOCK_H_

#include "foundation/export.h"
#include "foundation/threading/lock.h"

namespace zorv {
namespace foundation {
namespace system {

namespace detail {
struct FiledLockPrivate;
}  // namespace detail

// A lock shared by name between processes: every FiledLock constructed with
// the same name, in this process or any other of the same user, contends for
// one lock, the POSIX named semaphore "/" + name used as a binary semaphore.
// It is an ITryLock, so it works under a Locker.
//
// Semantics are those of the plain semaphore, kept on purpose:
// - not recursive: a second lock() by the holder blocks forever;
// - no owner: any object of the name may unlock(), and unlock() without a
//   matching lock() raises the count above 1, after which several holders
//   can take the lock at once;
// - a holder that ends (or crashes) without unlock() leaves the lock taken
//   for every other user; there is no recovery;
// - the semaphore is never unlinked: it outlives every object and process
//   using it and keeps its count, so a later FiledLock of the name finds it
//   as it was left. Remove it with sem_unlink("/" + name) outside the
//   library when it is no longer wanted.
//
// Thread safety: all operations may be called from any thread; the
// semaphore does all exclusion. Ownership: the object owns its semaphore
// handle (counted as one live system handle) and closes it on destruction.
// Not copyable.
class ZORV_FOUNDATION_EXPORT FiledLock : public threading::ITryLock {
 public:
  // Opens the lock called `name`, creating it free (count 1, mode 0600, for
  // the owning user only) when it does not exist yet; an existing one is
  // opened as it is. `name` is a single path component: it must not contain
  // '/'.
  // Throws Exception("zorv.foundation.system.FiledLock",
  //   "illegal name(contains '/')") when `name` contains '/';
  // Exception("zorv.foundation.system.FiledLock", "initialize failed") when
  //   the semaphore cannot be opened (for instance the empty name, a name too
  //   long for the system, no permission on another user's semaphore, or a
  //   null name).
  // No handle is counted when it throws. Throws std::bad_alloc when memory is
  // exhausted.
  explicit FiledLock(const char* name);

  // Closes this object's handle (sem_close). The semaphore itself and its
  // count stay: a lock held through this object stays taken.
  ~FiledLock() override;

  FiledLock(const FiledLock&) = delete;
  FiledLock& operator=(const FiledLock&) = delete;

  // Blocks until the lock is free and takes it (sem_wait; interrupted waits
  // are resumed). Never throws.
  void lock() override;

  // Releases the lock (sem_post). Never throws.
  void unlock() override;

  // Takes the lock when it is free (sem_trywait). Returns false when it is
  // busy or the call failed. Never blocks, never throws.
  [[nodiscard]] bool tryLock() override;

 private:
  detail::FiledLockPrivate* d_;
};

}  // namespace system
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_SYSTEM_FILEDLOCK_H_
