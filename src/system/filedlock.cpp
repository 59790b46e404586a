// The named lock over a POSIX named semaphore.
#include "foundation/system/filedlock.h"

#include <errno.h>
#include <fcntl.h>
#include <semaphore.h>
#include <string.h>
#include <sys/stat.h>

#include <new>

#include "foundation/debug/systemmonitor.h"
#include "foundation/lang/exception.h"
#include "foundation/text/safestring.h"

#include "lang/accounting.h"

namespace zorv {
namespace foundation {
namespace system {
namespace detail {

// The one field: the semaphore handle from sem_open.
struct FiledLockPrivate {
  explicit FiledLockPrivate(sem_t* semaphore) : handle(semaphore) {}
  sem_t* handle;
};

}  // namespace detail

namespace {

constexpr char kSource[] = "../system/filedlock.cpp";
constexpr char kFunc[] = "zorv.foundation.system.FiledLock";

using detail::FiledLockPrivate;

// Opens (or creates, free) the semaphore of `name` and counts its handle.
FiledLockPrivate* Open(const char* name) {
  if (name == nullptr) throw lang::Exception(kFunc, "initialize failed");
  SafeString built("/");
  built += name;
  if (built.size() > 1 && built.find('/', 1) != SafeString::npos) {
    throw lang::Exception(kFunc, "illegal name(contains '/')");
  }
  sem_t* semaphore = sem_open(built.c_str(), O_CREAT, 0600, 1);
  if (semaphore == SEM_FAILED) throw lang::Exception(kFunc, "initialize failed");
  FiledLockPrivate* d = nullptr;
  try {
    d = lang::AccountedNewOrThrow<FiledLockPrivate>(ZORV_ACCOUNTING_SITE(kSource, "FiledLock"),
                                                    semaphore);
  } catch (...) {
    sem_close(semaphore);
    throw;
  }
  debug::SystemMonitor::IncreaseHandle();
  return d;
}

}  // namespace

FiledLock::FiledLock(const char* name) : d_(Open(name)) {}

FiledLock::~FiledLock() {
  // Never sem_unlink: the named lock outlives its users and keeps its count.
  sem_close(d_->handle);
  debug::SystemMonitor::DecreaseHandle();
  lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~FiledLock"));
}

void FiledLock::lock() {
  const int saved = errno;
  while (sem_wait(d_->handle) != 0 && errno == EINTR) {
  }
  errno = saved;
}

void FiledLock::unlock() {
  const int saved = errno;
  sem_post(d_->handle);
  errno = saved;
}

bool FiledLock::tryLock() {
  const int saved = errno;
  const bool taken = sem_trywait(d_->handle) == 0;
  errno = saved;
  return taken;
}

}  // namespace system
}  // namespace foundation
}  // namespace zorv
