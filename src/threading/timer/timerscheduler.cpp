// TimerScheduler: one thread that keeps timers in due-time order and runs
// them, or hands them to an executor, when they are due.
#include "foundation/threading/timer/timerscheduler.h"

#include <atomic>
#include <functional>
#include <map>
#include <unordered_map>
#include <utility>

#include "foundation/debug/allocator.h"
#include "foundation/lang/accounted.h"
#include "foundation/lang/exception.h"
#include "foundation/system/systemutils.h"
#include "foundation/threading/lock.h"
#include "foundation/threading/lockcondition.h"
#include "threading/threadpool/taskqueue.h"

namespace zorv {
namespace foundation {
namespace threading {
namespace {

constexpr char kSource[] = "../threading/timer/timerscheduler.cpp";
constexpr char kThreadName[] = "zorv.foundation.threading.TimerScheduler";
constexpr char kAddTimer[] = "zorv.foundation.threading.TimerScheduler.addTimer";
constexpr char kStopped[] = "scheduler has been stopped";

}  // namespace

namespace sealed {

// The scheduler thread; its run() is the scheduler loop.
class _TimerScheduler : public Thread {
 public:
  class TimerTask;

  explicit _TimerScheduler(detail::TimerSchedulerPrivate* d)
      : Thread(SafeString(kThreadName)), d_(d) {}

  void run() override;

 private:
  detail::TimerSchedulerPrivate* d_;
};

}  // namespace sealed

using TimerTask = sealed::_TimerScheduler::TimerTask;

namespace detail {

struct TimerSchedulerPrivate {
  using Queue = std::multimap<unsigned long long, TimerTask*, std::less<unsigned long long>,
                              debug::Allocator<std::pair<const unsigned long long, TimerTask*>>>;
  using Registry =
      std::unordered_map<ITimer*, TimerTask*, std::hash<ITimer*>, std::equal_to<ITimer*>,
                         debug::Allocator<std::pair<ITimer* const, TimerTask*>>>;

  explicit TimerSchedulerPrivate(IExecutor* exec) : executor(exec), condition(lock) {}

  // Set from construction until stop(); read and written under the lock.
  bool running = true;
  IExecutor* executor;
  // Due time (GetTick milliseconds) to timer task; equal due times keep the
  // order in which they were queued.
  Queue queue;
  // The user's timer to its timer task, for every timer scheduled or in
  // flight.
  Registry registry;
  Lock lock;
  LockCondition condition;
  sealed::_TimerScheduler* thread = nullptr;
  // Timer tasks not yet destroyed. A task leaves the registration map before
  // its last reference goes (an executor may drop it a little later), so
  // stop() waits for this count too.
  std::atomic<unsigned int> liveTasks{0};
};

}  // namespace detail

namespace sealed {

// The scheduler's wrapper around one user timer, shared by reference count
// between the registration, the queue hand-over to a run and an executor.
// Destroying it disposes the user's timer.
class _TimerScheduler::TimerTask : public ITimer {
 public:
  TimerTask(ITimer* timer, detail::TimerSchedulerPrivate* d) : timer_(timer), d_(d) {
    d_->liveTasks.fetch_add(1, std::memory_order_relaxed);
  }

  // Disposes the user's timer, then counts the task gone: the last touch of
  // the scheduler's state, which stop() waits for.
  ~TimerTask() override {
    if (timer_ != nullptr) timer_->dispose();
    d_->liveTasks.fetch_sub(1, std::memory_order_release);
  }

  // Drops one reference; the last destroys the task.
  void dispose() override { release(); }

  void run() override {
    timer_->run();
    finish();
  }

  void interrupted() override {
    timer_->notifyInterrupted();
    finish();
  }

  unsigned int getAffinity() const override { return timer_->getAffinity(); }
  bool isRepeat() override { return timer_->isRepeat(); }
  unsigned long long interval() override { return timer_->interval(); }

  void retain() { refs_.fetch_add(1, std::memory_order_relaxed); }

  void release() {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) lang::IDisposable::dispose();
  }

  int references() const { return refs_.load(std::memory_order_acquire); }

  // Queues the task at GetTick() + interval() behind equal due times and
  // wakes the scheduler thread when it became the first entry.
  // REQUIRES: the scheduler's lock is held through `locker`.
  void schedule(Locker& locker) {
    const unsigned long long due = system::SystemUtils::GetTick() + timer_->interval();
    position_ = d_->queue.emplace(due, this);
    queued_ = true;
    if (position_ == d_->queue.begin()) d_->condition.notify(locker);
  }

  // Removes the task from the queue if it is there. REQUIRES: the lock.
  void unqueue() {
    if (!queued_) return;
    d_->queue.erase(position_);
    queued_ = false;
  }

  // Marks the task as not queued after its queue entry went elsewhere.
  void forgetPosition() { queued_ = false; }

  // Gives the user's timer back to the caller instead of disposing it.
  void detach() { timer_ = nullptr; }

  ITimer* timer() const { return timer_; }

 private:
  // After a run (or a failed one): re-arm a repeating timer that is still
  // registered while the scheduler runs; otherwise unregister and drop the
  // registration's reference.
  void finish() {
    bool drop = false;
    {
      Locker locker(&d_->lock, false);
      auto found = d_->registry.find(timer_);
      if (found == d_->registry.end() || found->second != this) return;
      bool again = false;
      if (d_->running && timer_->isRepeat()) {
        try {
          schedule(locker);
          again = true;
        } catch (...) {
          // No room to queue it again: it ends as a one-shot timer.
        }
      }
      if (!again) {
        d_->registry.erase(found);
        drop = true;
      }
    }
    if (drop) release();
  }

  std::atomic<int> refs_{1};
  ITimer* timer_;
  detail::TimerSchedulerPrivate* d_;
  detail::TimerSchedulerPrivate::Queue::iterator position_;
  bool queued_ = false;
};

void _TimerScheduler::run() {
  detail::TimerSchedulerPrivate* d = d_;
  Locker locker(&d->lock, false);
  while (d->running) {
    if (d->queue.empty()) {
      d->condition.wait(locker);
      continue;  // the loop condition sees a stop
    }
    auto first = d->queue.begin();
    const unsigned long long now = system::SystemUtils::GetTick();
    if (now < first->first) {
      (void)d->condition.tryWait(locker, static_cast<unsigned int>(first->first - now));
      continue;
    }
    TimerTask* task = first->second;
    task->unqueue();
    task->retain();  // the run's (or the executor's) reference
    locker.unlock();
    if (d->executor != nullptr) {
      task->retain();  // keeps the task alive if the executor refuses it
      try {
        d->executor->addTask(task);
      } catch (...) {
        // The executor disposed its reference; the timer is treated as
        // interrupted (re-armed if it repeats, unregistered otherwise).
        task->notifyInterrupted();
      }
      task->release();
    } else {
      try {
        task->run();
      } catch (...) {
        task->notifyInterrupted();
      }
      task->dispose();
    }
    locker.lock();
  }
  // Stopped: every timer still queued is unregistered, and the queue's
  // references are dropped outside the lock.
  detail::TimerSchedulerPrivate::Queue doomed(d->queue.get_allocator());
  doomed.swap(d->queue);
  for (auto& entry : doomed) {
    TimerTask* task = entry.second;
    task->forgetPosition();
    auto found = d->registry.find(task->timer());
    if (found != d->registry.end() && found->second == task) d->registry.erase(found);
  }
  locker.unlock();
  for (auto& entry : doomed) entry.second->release();
}

}  // namespace sealed

ITimer::~ITimer() = default;

ITimerScheduler::~ITimerScheduler() = default;

TimerScheduler::TimerScheduler() : TimerScheduler(nullptr) {}

TimerScheduler::TimerScheduler(IExecutor* executor) : d_(nullptr) {
  d_ = lang::AccountedNewOrThrow<detail::TimerSchedulerPrivate>(
      ZORV_ACCOUNTING_SITE(kSource, "TimerScheduler"), executor);
  try {
    d_->thread = lang::AccountedNewOrThrow<sealed::_TimerScheduler>(
        ZORV_ACCOUNTING_SITE(kSource, "_TimerScheduler"), d_);
    d_->thread->start();
  } catch (...) {
    lang::AccountedDelete(d_->thread, ZORV_ACCOUNTING_SITE(kSource, "~_TimerScheduler"));
    lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~TimerScheduler"));
    throw;
  }
}

TimerScheduler::~TimerScheduler() {
  stop();
  lang::AccountedDelete(d_->thread, ZORV_ACCOUNTING_SITE(kSource, "~_TimerScheduler"));
  lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~TimerScheduler"));
}

void TimerScheduler::addTimer(ITimer* timer) {
  Locker locker(&d_->lock, false);
  if (!d_->running) throw lang::Exception(kAddTimer, kStopped);
  if (d_->registry.count(timer) != 0) return;  // one schedule and one owner per timer
  TimerTask* task = lang::AccountedNewOrThrow<TimerTask>(
      ZORV_ACCOUNTING_SITE(kSource, "addTimer"), timer, d_);
  auto entry = d_->registry.end();
  try {
    entry = d_->registry.emplace(timer, task).first;
    task->schedule(locker);
  } catch (...) {
    if (entry != d_->registry.end()) d_->registry.erase(entry);
    task->detach();
    task->release();
    throw;
  }
}

void TimerScheduler::removeTimer(ITimer* timer, bool wait) {
  TimerTask* task;
  {
    Locker locker(&d_->lock, false);
    auto found = d_->registry.find(timer);
    if (found == d_->registry.end()) return;
    task = found->second;
    task->unqueue();
    d_->registry.erase(found);
  }
  if (wait) {
    // Every other reference belongs to a run in progress or to an executor
    // that still holds the timer.
    while (task->references() != 1) Thread::Yield();
  }
  task->release();
}

void TimerScheduler::stop() {
  {
    Locker locker(&d_->lock, false);
    d_->running = false;
    d_->condition.notify(locker);
  }
  d_->thread->wait();
  // Runs in progress, or waiting in the executor, end without re-arming and
  // unregister their timers; the last references go soon after.
  for (;;) {
    {
      Locker locker(&d_->lock, false);
      if (d_->registry.empty() && d_->liveTasks.load(std::memory_order_acquire) == 0) return;
    }
    Thread::Yield();
  }
}

unsigned int TimerScheduler::timerNum() const {
  Locker locker(&d_->lock, false);
  return static_cast<unsigned int>(d_->registry.size());
}

}  // namespace threading
}  // namespace foundation
}  // namespace zorv
