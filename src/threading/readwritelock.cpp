// The writer-preferring ReadWriteLock and its two views.
#include "foundation/threading/readwritelock.h"

#include <pthread.h>

#include "foundation/debug/systemmonitor.h"

#include "lang/accounting.h"

namespace zorv {
namespace foundation {
namespace threading {
namespace {

constexpr char kSource[] = "../threading/readwritelock.cpp";

}  // namespace

namespace detail {

// The shared view: pthread_rwlock_rdlock / pthread_rwlock_unlock.
class ReadLockPrivate : public ILock {
 public:
  explicit ReadLockPrivate(pthread_rwlock_t* rwlock) : rwlock_(rwlock) {}
  void lock() override { pthread_rwlock_rdlock(rwlock_); }
  void unlock() override { pthread_rwlock_unlock(rwlock_); }

 private:
  pthread_rwlock_t* rwlock_;
};

// The exclusive view: pthread_rwlock_wrlock / pthread_rwlock_unlock.
class WriteLockPrivate : public ILock {
 public:
  explicit WriteLockPrivate(pthread_rwlock_t* rwlock) : rwlock_(rwlock) {}
  void lock() override { pthread_rwlock_wrlock(rwlock_); }
  void unlock() override { pthread_rwlock_unlock(rwlock_); }

 private:
  pthread_rwlock_t* rwlock_;
};

}  // namespace detail

// The reader-writer lock (one system handle) and its two views, which live
// inside this block.
struct ReadWriteLock::ReadWriteLockPrivate {
  detail::ReadLockPrivate read;
  detail::WriteLockPrivate write;
  pthread_rwlock_t rwlock;

  ReadWriteLockPrivate() : read(&rwlock), write(&rwlock) {
    pthread_rwlockattr_t attr;
    pthread_rwlockattr_init(&attr);
    pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&rwlock, &attr);
    pthread_rwlockattr_destroy(&attr);
    debug::SystemMonitor::IncreaseHandle();
  }

  ~ReadWriteLockPrivate() {
    pthread_rwlock_destroy(&rwlock);
    debug::SystemMonitor::DecreaseHandle();
  }

  ReadWriteLockPrivate(const ReadWriteLockPrivate&) = delete;
  ReadWriteLockPrivate& operator=(const ReadWriteLockPrivate&) = delete;
};

ReadWriteLock::ReadWriteLock()
    : d_(lang::AccountedNew<ReadWriteLockPrivate>(ZORV_ACCOUNTING_SITE(kSource, "ReadWriteLock"))) {
}

ReadWriteLock::~ReadWriteLock() {
  lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~ReadWriteLock"));
}

ILock& ReadWriteLock::readLock() { return d_->read; }

ILock& ReadWriteLock::writeLock() { return d_->write; }

}  // namespace threading
}  // namespace foundation
}  // namespace zorv
