// Thread, the abstract named POSIX thread, and ITask.
#include "foundation/threading/thread.h"

#include <pthread.h>
#include <sys/select.h>

#include <atomic>

#include "foundation/debug/chronomonitor.h"
#include "foundation/debug/systemmonitor.h"
#include "foundation/lang/exception.h"
#include "foundation/system/consoleutils.h"
#include "foundation/text/stringutils.h"

#include "lang/accounting.h"

namespace zorv {
namespace foundation {
namespace threading {
namespace {

constexpr char kSource[] = "../threading/thread.cpp";
constexpr char kStartSource[] = "zorv.foundation.threading.Thread.start";

// The process-wide affinity counter of ITask. Loaded and stored separately
// (not one atomic increment): concurrent callers may get the same number.
std::atomic<unsigned int> g_affinity{0};

}  // namespace

// The control block of a Thread. The flags are written by the thread's body
// and read from any thread without a lock, hence atomic. The id is stored by
// the new thread itself before anything else and by start() once
// pthread_create returns (the same value), so that it is right on the thread
// from its first instruction and for the caller as soon as start() returns.
struct Thread::ThreadPrivate {
  std::atomic<bool> started{false};
  std::atomic<bool> running{false};
  std::atomic<bool> stopped{false};
  SafeString name;
  std::atomic<pthread_t> id{};
  Thread* owner;
  // Points at id from start() until wait(): set means started and unjoined.
  std::atomic<pthread_t>* joinable = nullptr;
  // The debug-support name the thread had when its body ended, written on
  // the thread before stopped is set: the debug-support library forgets the
  // name when the thread ends.
  SafeString lastName;

  ThreadPrivate(const SafeString& threadName, Thread* ownerThread)
      : name(threadName), owner(ownerThread) {}

  // The thread's name in the debug-support library. While the body runs,
  // the library knows it. Once the body has ended, the library may have
  // forgotten it, or another thread may have the same id by now: the name
  // kept at the end is the one. Looking again after the lookup covers a body
  // that ended during it.
  SafeString debugName() const {
    if (!stopped.load(std::memory_order_acquire)) {
      SafeString known = debug::ChronoMonitor::GetThreadName(
          static_cast<unsigned long long>(id.load(std::memory_order_relaxed)));
      if (!stopped.load(std::memory_order_acquire)) return known;
    }
    return lastName;
  }
};

Thread::Thread() : Thread(SafeString()) {}

Thread::Thread(const SafeString& name)
    : d_(lang::AccountedNew<ThreadPrivate>(ZORV_ACCOUNTING_SITE(kSource, "Thread"), name, this)) {}

Thread::~Thread() {
  if (d_ != nullptr && d_->joinable != nullptr) {
    try {
      const unsigned long long id = threadID();
      const SafeString name = d_->debugName();
      const unsigned int low = static_cast<unsigned int>(id);
      const SafeString line =
          name.empty()
              ? text::StringUtils::_InternalFormat(
                    "zorv.foundation.threading.Thread: [%u] destroyed while still running", low)
              : text::StringUtils::_InternalFormat(
                    "zorv.foundation.threading.Thread: [%u/%s]destroyed while still running", low,
                    name.c_str());
      system::ConsoleUtils::Println(line.c_str());
    } catch (...) {
      // The warning is best effort; a destructor lets nothing out.
    }
  }
  lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~Thread"));
}

void Thread::interrupted() {}

void* Thread::Entry(void* argument) {
  ThreadPrivate* d = static_cast<ThreadPrivate*>(argument);
  d->id.store(pthread_self(), std::memory_order_relaxed);
  d->running.store(true, std::memory_order_release);
  if (!d->name.empty()) {
    try {
      debug::ChronoMonitor::SetThreadName(d->name);
    } catch (...) {
      // Naming is for the debug-support reports only.
    }
  }
  if (d->owner != nullptr) {
    try {
      d->owner->run();
    } catch (...) {
      try {
        d->owner->interrupted();
      } catch (...) {
        // Nothing may leave the thread's entry routine.
      }
    }
  }
  try {
    d->lastName = debug::ChronoMonitor::GetThreadName(
        static_cast<unsigned long long>(d->id.load(std::memory_order_relaxed)));
  } catch (...) {
    // Without memory the name is simply not kept.
  }
  d->running.store(false, std::memory_order_release);
  d->stopped.store(true, std::memory_order_release);
  return nullptr;
}

void Thread::start() {
  if (d_ == nullptr) throw lang::Exception(kStartSource, "create failed");
  if (d_->started.load(std::memory_order_acquire)) {
    throw lang::Exception(kStartSource, "has been started");
  }
  if (d_->joinable != nullptr) return;
  // Marked started before the body can run, so that the body never sees
  // itself not started; undone when the thread cannot be created.
  d_->started.store(true, std::memory_order_release);
  pthread_t id;
  if (pthread_create(&id, nullptr, &Thread::Entry, d_) != 0) {
    d_->started.store(false, std::memory_order_release);
    throw lang::Exception(kStartSource, "create failed");
  }
  d_->id.store(id, std::memory_order_relaxed);
  d_->joinable = &d_->id;
  debug::SystemMonitor::IncreaseHandle();
}

void Thread::wait() {
  if (d_ == nullptr || d_->joinable == nullptr) return;
  pthread_join(d_->joinable->load(std::memory_order_relaxed), nullptr);
  d_->joinable = nullptr;
  debug::SystemMonitor::DecreaseHandle();
}

bool Thread::isStarted() const {
  return d_ != nullptr && d_->started.load(std::memory_order_acquire);
}

bool Thread::isRunning() const {
  return d_ != nullptr && d_->running.load(std::memory_order_acquire);
}

bool Thread::isStopped() const {
  return d_ != nullptr && d_->stopped.load(std::memory_order_acquire);
}

unsigned long long Thread::threadID() const {
  return d_ == nullptr ? 0ULL
                       : static_cast<unsigned long long>(d_->id.load(std::memory_order_relaxed));
}

SafeString Thread::threadName() const {
  if (d_ == nullptr) return debug::ChronoMonitor::GetThreadName(0);
  if (!d_->name.empty()) return d_->name;
  return d_->debugName();
}

unsigned long long Thread::CurrentID() { return static_cast<unsigned long long>(pthread_self()); }

int Thread::Sleep(unsigned int ms) {
  struct timeval timeout;
  timeout.tv_sec = static_cast<time_t>(ms / 1000U);
  // Wrapping 32-bit arithmetic on purpose.
  timeout.tv_usec = static_cast<suseconds_t>(static_cast<unsigned int>(ms * 1000U) % 1000000U);
  return select(0, nullptr, nullptr, nullptr, &timeout);
}

int Thread::Yield() {
  struct timeval timeout;
  timeout.tv_sec = 0;
  timeout.tv_usec = 1000;
  return select(0, nullptr, nullptr, nullptr, &timeout);
}

ITask::~ITask() = default;

void ITask::interrupted() {}

unsigned int ITask::getAffinity() const {
  const unsigned int value = g_affinity.load(std::memory_order_relaxed);
  g_affinity.store(value + 1U, std::memory_order_relaxed);
  return value;
}

void ITask::notifyInterrupted() {
  // The default interrupted() does nothing, so calling it whether or not the
  // task overrides it has the same effect as calling only an override.
  try {
    interrupted();
  } catch (...) {
    // Dropped: the executor is discarding the task anyway.
  }
}

}  // namespace threading
}  // namespace foundation
}  // namespace zorv
