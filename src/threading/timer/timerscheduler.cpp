// TimerScheduler: one thread that keeps timers in due-time order and runs
// them, or hands them to an executor, when they are due.
#include "foundation/threading/timer/timerscheduler.h"

#include <errno.h>
#include <time.h>

#include <atomic>
#include <functional>
#include <map>
#include <new>
#include <unordered_map>
#include <utility>

#include "foundation/debug/allocator.h"
#include "foundation/lang/exception.h"
#include "foundation/system/systemutils.h"
#include "foundation/threading/lock.h"
#include "foundation/threading/lockcondition.h"
#include "lang/accounting.h"
#include "threading/threadpool/taskqueue.h"
#include "threading/timer/timerslot.h"

namespace zorv {
namespace foundation {
namespace threading {
namespace {

constexpr char kSource[] = "../threading/timer/timerscheduler.cpp";
constexpr char kThreadName[] = "zorv.foundation.threading.TimerScheduler";
constexpr char kAddTimer[] = "zorv.foundation.threading.TimerScheduler.addTimer";
constexpr char kAddFixedRateTimer[] =
    "zorv.foundation.threading.TimerScheduler.addFixedRateTimer";
constexpr char kStopped[] = "scheduler has been stopped";
// The longest single sleep of the scheduler thread: a far due time is
// approached in steps that fit the condition's 32-bit time-out.
constexpr unsigned long long kMaxSleepMs = 3600000;

// Sleeps until SystemUtils::GetTick() reaches `tick`.
void SleepUntilTick(unsigned long long tick) {
  struct timespec at;
  at.tv_sec = static_cast<time_t>(tick / 1000ULL);
  at.tv_nsec = static_cast<long>(tick % 1000ULL) * 1000000L;
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) == EINTR) {
  }
}

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

  // GetTick() + ms, held at the largest tick when the sum would wrap: such
  // a timer is never due.
  static unsigned long long DueIn(unsigned long long ms) {
    const unsigned long long now = system::SystemUtils::GetTick();
    return ms > ~0ULL - now ? ~0ULL : now + ms;
  }

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

// The scheduler's wrapper around one user timer. Its reference count keeps
// the wrapper alive for the registration and for each hand-over to a run or
// an executor; the user's timer has an owner of its own: whoever ends the
// timer while no run of it is in progress takes it (under the lock) and
// disposes it, or else the run in progress does when it ends.
//
// The wrapper keeps its queue entry for its whole life: taken out of the
// queue it is parked in the wrapper, and queueing it again reuses it, so a
// timer once added is re-armed without allocating.
//
// A fixed-rate timer keeps its grid in the parked entry: the key is the slot
// of the run just made, and `period_` the interval that leads to the next
// slot, asked one re-arming earlier.
class _TimerScheduler::TimerTask : public ITimer {
 public:
  TimerTask(ITimer* timer, detail::TimerSchedulerPrivate* d, bool fixedRate,
            unsigned long long period)
      : timer_(timer), d_(d), fixedRate_(fixedRate), period_(period) {
    d_->liveTasks.fetch_add(1, std::memory_order_relaxed);
  }

  // Counts the task gone: the last touch of the scheduler's state, which
  // stop() waits for. The user's timer has normally been taken by then; one
  // still held is disposed here.
  ~TimerTask() override {
    if (timer_ != nullptr) timer_->dispose();
    d_->liveTasks.fetch_sub(1, std::memory_order_release);
  }

  // Drops one reference; the last destroys the task.
  void dispose() override { release(); }

  // One hand-over: runs the user's timer unless the timer ended while the
  // hand-over waited, then re-arms or ends it. Never throws: a failing run is
  // reported to the user's interrupted() here.
  void run() override {
    ITimer* timer;
    {
      Locker locker(&d_->lock, false);
      pending_ = false;
      if (!registered()) return;  // removed or stopped before the run began
      timer = timer_;
      busy_.store(true, std::memory_order_relaxed);
    }
    bool failed = false;
    try {
      timer->run();
    } catch (...) {
      failed = true;
    }
    if (failed) timer->notifyInterrupted();
    finish();
  }

  // The executor discarded the hand-over without running it: the timer ends.
  void interrupted() override { refused(true); }

  // The affinity asked when the task was handed over (the user's timer may
  // be disposed while the executor still holds the task).
  unsigned int getAffinity() const override { return affinity_; }
  // Not asked of the wrapper: the scheduler asks the user's timer, under
  // its lock, while the timer is registered.
  bool isRepeat() override { return false; }
  unsigned long long interval() override { return 0; }

  void retain() { refs_.fetch_add(1, std::memory_order_relaxed); }

  void release() {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) lang::IDisposable::dispose();
  }

  // True while a run of the user's timer is in progress, up to the disposal
  // of the timer by that run.
  bool busy() const { return busy_.load(std::memory_order_acquire); }

  // Queues the task for the first time, at `due`. Throws std::bad_alloc.
  // REQUIRES: the lock, held through `locker`.
  void add(unsigned long long due, Locker& locker) {
    position_ = d_->queue.emplace(due, this);
    queued_ = true;
    if (position_ == d_->queue.begin()) d_->condition.notify(locker);
  }

  // Removes the task from the queue, if it is there, keeping its entry.
  // REQUIRES: the lock.
  void unqueue() {
    if (!queued_) return;
    entry_ = d_->queue.extract(position_);
    queued_ = false;
  }

  // Marks the task as not queued after its queue entry went elsewhere.
  void forgetPosition() { queued_ = false; }

  // Prepares a hand-over of the task that the scheduler thread just took
  // from the queue; an executor may ask for the affinity.
  // REQUIRES: the lock.
  void handOver(bool toExecutor) {
    pending_ = true;
    if (toExecutor) affinity_ = timer_->getAffinity();
  }

  // The executor's addTask threw for this hand-over. Running out of memory
  // counts as a failed run (a repeating timer stays scheduled); any other
  // refusal (the executor was stopped) ends the timer. Either way the user's
  // interrupted() is called, once per hand-over.
  void refused(bool end) {
    ITimer* timer = nullptr;
    {
      Locker locker(&d_->lock, false);
      if (!pending_) return;  // run, or reported, already
      pending_ = false;
      if (!registered()) return;
      if (end) {
        ITimer* doomed = endLocked();
        locker.unlock();
        doomed->notifyInterrupted();
        doomed->dispose();
        release();
        return;
      }
      timer = timer_;
      busy_.store(true, std::memory_order_relaxed);
    }
    timer->notifyInterrupted();
    finish();
  }

  // Unregisters the task and takes its user's timer when no run holds it
  // (null otherwise: the run disposes it when it ends). The caller disposes
  // the timer and drops the registration's reference outside the lock.
  // REQUIRES: the lock; the task is registered.
  ITimer* endLocked() {
    d_->registry.erase(timer_);
    unqueue();
    if (busy()) return nullptr;
    ITimer* timer = timer_;
    timer_ = nullptr;
    return timer;
  }

  // Gives the user's timer back to the caller instead of disposing it.
  void detach() { timer_ = nullptr; }

  ITimer* timer() const { return timer_; }

 private:
  // True when the registration map holds this very task for its timer.
  // REQUIRES: the lock.
  bool registered() const {
    if (timer_ == nullptr) return false;
    auto found = d_->registry.find(timer_);
    return found != d_->registry.end() && found->second == this;
  }

  // After a run (or a failed one): re-arm a repeating timer that is still
  // registered while the scheduler runs; otherwise, or when isRepeat() or
  // interval() throws, end it. A timer removed meanwhile is disposed here.
  // Allocates nothing.
  void finish() {
    ITimer* doomed = nullptr;
    bool drop = false;
    bool failed = false;
    {
      Locker locker(&d_->lock, false);
      bool again = false;
      if (registered()) {
        if (d_->running) {
          try {
            if (timer_->isRepeat()) {
              const unsigned long long interval = timer_->interval();
              if (fixedRate_) {
                entry_.key() =
                    detail::NextSlot(entry_.key(), period_, system::SystemUtils::GetTick());
                period_ = interval;  // from the slot after the next
              } else {
                entry_.key() = detail::TimerSchedulerPrivate::DueIn(interval);
              }
              again = true;
            }
          } catch (...) {
            failed = true;
          }
        }
        if (again) {
          position_ = d_->queue.insert(std::move(entry_));
          queued_ = true;
          if (position_ == d_->queue.begin()) d_->condition.notify(locker);
        } else {
          d_->registry.erase(timer_);
          drop = true;
        }
      }
      if (!again) {
        doomed = timer_;
        timer_ = nullptr;
      } else {
        busy_.store(false, std::memory_order_release);
      }
    }
    if (doomed != nullptr) {
      if (failed) doomed->notifyInterrupted();
      doomed->dispose();
      busy_.store(false, std::memory_order_release);
    }
    if (drop) release();
  }

  std::atomic<int> refs_{1};
  // The user's timer; null once taken for disposal. Under the lock.
  ITimer* timer_;
  detail::TimerSchedulerPrivate* d_;
  // The queue entry while queued_, else the parked entry in entry_. Under
  // the lock.
  detail::TimerSchedulerPrivate::Queue::iterator position_;
  detail::TimerSchedulerPrivate::Queue::node_type entry_;
  bool queued_ = false;
  // Handed to a run or an executor, and that run has not begun. Under the
  // lock.
  bool pending_ = false;
  unsigned int affinity_ = 0;
  // A run of the user's timer is in progress: set under the lock, cleared
  // under it when the run re-arms, or after the run disposed the timer.
  std::atomic<bool> busy_{false};
  // Re-armed on the grid of its first due time rather than from the end of
  // each run. Under the lock.
  const bool fixedRate_;
  unsigned long long period_;
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
      const unsigned long long due = first->first;
      const unsigned long long wait = due - now;
      if (wait > 1) {
        // Up to the last millisecond before the due time: a time-out of
        // whole milliseconds counted from within the current one would
        // overshoot by up to a millisecond.
        (void)d->condition.tryWait(
            locker, static_cast<unsigned int>(wait - 1 < kMaxSleepMs ? wait - 1 : kMaxSleepMs));
      } else {
        // The last fraction of a millisecond, to the due tick itself; an
        // earlier timer, a removal or stop() wait at most that long.
        locker.unlock();
        SleepUntilTick(due);
        locker.lock();
      }
      continue;
    }
    TimerTask* task = first->second;
    task->unqueue();
    task->handOver(d->executor != nullptr);
    task->retain();  // the run's (or the executor's) reference
    locker.unlock();
    if (d->executor != nullptr) {
      task->retain();  // keeps the task alive if the executor refuses it
      try {
        d->executor->addTask(task);
      } catch (const std::bad_alloc&) {
        task->refused(false);
      } catch (...) {
        task->refused(true);
      }
      task->release();
    } else {
      task->run();
      task->dispose();
    }
    locker.lock();
  }
  // Stopped: every timer still queued is unregistered, and its timer and the
  // queue's references are dropped outside the lock.
  detail::TimerSchedulerPrivate::Queue doomed(d->queue.get_allocator());
  doomed.swap(d->queue);
  for (auto& entry : doomed) {
    TimerTask* task = entry.second;
    task->forgetPosition();
    d->registry.erase(task->timer());
  }
  locker.unlock();
  for (auto& entry : doomed) {
    TimerTask* task = entry.second;
    locker.lock();
    ITimer* timer = task->timer();
    task->detach();
    locker.unlock();
    timer->dispose();
    task->release();
  }
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

namespace {

// Registers `timer` and queues its first run, for addTimer and
// addFixedRateTimer; `source` names the operation in its exception.
void Schedule(detail::TimerSchedulerPrivate* d, ITimer* timer, bool fixedRate,
              const char* source, const lang::AccountingSite& site) {
  Locker locker(&d->lock, false);
  if (!d->running) throw lang::Exception(source, kStopped);
  if (d->registry.count(timer) != 0) return;  // one schedule and one owner per timer
  const unsigned long long interval = timer->interval();
  const unsigned long long due = detail::TimerSchedulerPrivate::DueIn(interval);
  TimerTask* task = lang::AccountedNewOrThrow<TimerTask>(site, timer, d, fixedRate, interval);
  auto entry = d->registry.end();
  try {
    entry = d->registry.emplace(timer, task).first;
    task->add(due, locker);
  } catch (...) {
    if (entry != d->registry.end()) d->registry.erase(entry);
    task->detach();
    task->release();
    throw;
  }
}

}  // namespace

void TimerScheduler::addTimer(ITimer* timer) {
  Schedule(d_, timer, false, kAddTimer, ZORV_ACCOUNTING_SITE(kSource, "addTimer"));
}

void TimerScheduler::addFixedRateTimer(ITimer* timer) {
  Schedule(d_, timer, true, kAddFixedRateTimer,
           ZORV_ACCOUNTING_SITE(kSource, "addFixedRateTimer"));
}

void TimerScheduler::removeTimer(ITimer* timer, bool wait) {
  TimerTask* task;
  ITimer* doomed;
  {
    Locker locker(&d_->lock, false);
    auto found = d_->registry.find(timer);
    if (found == d_->registry.end()) return;
    task = found->second;
    // A hand-over whose run has not begun is cancelled here; only a run in
    // progress keeps the timer, and disposes it when it ends.
    doomed = task->endLocked();
  }
  if (doomed != nullptr) {
    doomed->dispose();
  } else if (wait) {
    while (task->busy()) Thread::Yield();
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
