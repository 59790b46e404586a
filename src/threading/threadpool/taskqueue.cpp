// The task queue of both thread pools and the steps they share.
#include "threading/threadpool/taskqueue.h"

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <ctime>
#include <new>
#include <thread>

#include "foundation/debug/allocator.h"
#include "foundation/debug/chronomonitor.h"

namespace zorv {
namespace foundation {
namespace threading {
namespace detail {
namespace {

constexpr unsigned int kMaxWorkers = 300;

// How long a thread may spin, in nanoseconds of the monotonic clock, before
// it blocks: on a lock of the queue, which is held for a few instructions only,
// and watching its waiter for an entry before it sleeps. Budgets in time, not
// in attempts, since a processor's pause costs from one cycle (an ARM yield)
// to a hundred and more (a recent x86 pause).
constexpr long long kLockSpinNanos = 2000;
constexpr long long kWatchNanos = 5000;
// A consumer that slept watches again before its next sleep only if it was
// woken within this long: entries come often enough for a watch to pay.
// Otherwise it sleeps at once, since a processor that spun just before its
// thread slept wakes that thread later.
constexpr long long kRewatchNanos = 4 * kWatchNanos;
// Spins between two readings of the clock.
constexpr unsigned int kSpinsPerReading = 16;
// The smallest ring, and the size above which an empty ring is replaced.
constexpr std::size_t kInitialSlots = 64;
constexpr std::size_t kShrinkAbove = 4096;

// Tells the processor that the thread is spinning: it may save power or
// give way to a sibling thread. Where no such hint is known, nothing.
inline void CpuRelax() {
#if defined(__i386__) || defined(__x86_64__)
  __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
  __asm__ __volatile__("yield");
#endif
}

long long MonotonicNanos() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

// The spin budget for `nanos`: none where the calling thread may run on a
// single processor (a single-core machine, or a process held to one core),
// since the thread that would end the wait cannot run while this one spins.
// The pool's workers are made by this thread and may run where it may.
long long SpinBudget(long long nanos) {
  cpu_set_t allowed;
  long processors = 0;
  if (sched_getaffinity(0, sizeof allowed, &allowed) == 0) {
    processors = CPU_COUNT(&allowed);
  } else {
    // More processors than the set holds.
    const unsigned int hinted = std::thread::hardware_concurrency();
    processors = hinted != 0 ? static_cast<long>(hinted) : sysconf(_SC_NPROCESSORS_ONLN);
  }
  return processors > 1 ? nanos : 0;
}

// Spins until `done()` is true or about `budget` nanoseconds have passed;
// returns the last `done()`. The clock is read once every few spins only,
// the first time after the first few, so that a wait that ends at once
// costs no reading.
template <class Done>
bool SpinUntil(long long budget, Done done) {
  if (done()) return true;
  if (budget <= 0) return false;
  long long deadline = 0;
  for (;;) {
    for (unsigned int spin = 0; spin < kSpinsPerReading; ++spin) {
      CpuRelax();
      if (done()) return true;
    }
    const long long now = MonotonicNanos();
    if (deadline == 0) {
      deadline = now + budget;
    } else if (now >= deadline) {
      return done();
    }
  }
}

static_assert(sizeof(std::atomic<int>) == sizeof(int), "a futex word is an int");

// Sleeps while *word holds `value`; it may also return early. The word is
// process-private: only this process's threads sleep on it.
void SleepOnWord(std::atomic<int>* word, int value) {
  (void)syscall(SYS_futex, reinterpret_cast<int*>(word), FUTEX_WAIT_PRIVATE, value, nullptr,
                nullptr, 0);
}

// Wakes one thread sleeping on `word`.
void WakeWord(std::atomic<int>* word) {
  (void)syscall(SYS_futex, reinterpret_cast<int*>(word), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr,
                0);
}

// Makes the wake-up call left in `share`, if one is; whoever takes it out
// makes it.
void WakeLeft(WatchShare& share) {
  TaskWaiter* const sleeper = share.wakeSlot.exchange(nullptr, std::memory_order_seq_cst);
  if (sleeper != nullptr) WakeWord(&sleeper->state);
}

// Wakes `waiter` (if any), whose entry is stored and its state set to
// kServed; outside the locks. Where `share` takes wake-up calls, the call is
// left to the consumer spinning just now, if there is one and the slot is
// free: the system call then costs the producer nothing. The producer stores
// the waiter and then looks at the flag again; the watcher clears the flag
// and then empties the slot: either the producer sees the flag cleared and
// empties the slot itself, or the watcher finds the waiter there.
void Wake(TaskWaiter* waiter, WatchShare& share) {
  if (waiter == nullptr) return;
  if (share.takesWakeUps && share.spinning.load(std::memory_order_seq_cst) != 0) {
    TaskWaiter* none = nullptr;
    if (share.wakeSlot.compare_exchange_strong(none, waiter, std::memory_order_seq_cst)) {
      if (share.spinning.load(std::memory_order_seq_cst) == 0) WakeLeft(share);
      return;
    }
  }
  WakeWord(&waiter->state);
}

// Takes `lock`, spinning for at most `budget` nanoseconds before it blocks.
void Acquire(QueueLock& lock, long long budget) {
  if (!SpinUntil(budget, [&lock] { return lock.tryLock(); })) lock.lock();
}

ITask** NewRing(std::size_t slots) { return debug::Allocator<ITask*>().allocate(slots); }

void FreeRing(ITask** ring, std::size_t slots) {
  if (ring != nullptr) debug::Allocator<ITask*>().deallocate(ring, slots);
}

}  // namespace

void QueueLock::lock() {
  int state = kFree;
  if (word_.compare_exchange_strong(state, kTaken, std::memory_order_acquire,
                                    std::memory_order_relaxed)) {
    return;
  }
  if (state != kSleepers) state = word_.exchange(kSleepers, std::memory_order_acquire);
  while (state != kFree) {
    SleepOnWord(&word_, kSleepers);
    state = word_.exchange(kSleepers, std::memory_order_acquire);
  }
}

void QueueLock::unlock() {
  if (word_.exchange(kFree, std::memory_order_release) == kSleepers) WakeWord(&word_);
}

void RoomSignal::wait(QueueHold& hold, int seen, bool timed, unsigned int ms) {
  hold.lock().unlock();
  timespec limit;
  limit.tv_sec = static_cast<time_t>(ms / 1000);
  limit.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  (void)syscall(SYS_futex, reinterpret_cast<int*>(&sequence_), FUTEX_WAIT_PRIVATE, seen,
                timed ? &limit : nullptr, nullptr, 0);
  hold.lock().lock();
}

void RoomSignal::notify(int count) {
  sequence_.fetch_add(1, std::memory_order_seq_cst);
  (void)syscall(SYS_futex, reinterpret_cast<int*>(&sequence_), FUTEX_WAKE_PRIVATE, count, nullptr,
                nullptr, 0);
}

TaskQueue::TaskQueue()
    : lockSpinNanos(SpinBudget(kLockSpinNanos)), watchNanos(SpinBudget(kWatchNanos)) {}

TaskQueue::~TaskQueue() { FreeRing(slots, capacity); }

void TaskQueue::reserveMarkers(unsigned int markers) {
  Acquire(tailLock, lockSpinNanos);
  QueueHold locker(tailLock);
  grow(markers);
  markerRoom += markers;
}

TaskQueue::Result TaskQueue::putMarker(bool last) {
  TaskWaiter* served;
  {
    Acquire(tailLock, lockSpinNanos);
    QueueHold locker(tailLock);
    // Counted as waiting for the whole wait: producers leave it the room.
    markersWaiting.fetch_add(1, std::memory_order_seq_cst);
    const Result room = waitForRoom(locker, true, false, 0, 0);
    markersWaiting.fetch_sub(1, std::memory_order_seq_cst);
    if (room == kClosed) return kClosed;
    if (markerRoom != 0) {
      --markerRoom;
    } else {
      grow(1);  // more markers than were reserved for
    }
    append(nullptr);
    served = serveWaiter();
    // Under the same hold as the last marker: no producer gets in behind
    // it. Producers that left the room to a waiting marker look again.
    if (last) closed = true;
    if (full.load(std::memory_order_seq_cst) != 0 && (last || hasRoom())) {
      notFull.notify(INT_MAX);
    }
  }
  Wake(served, *watchers);
  return kAdded;
}

TaskQueue::Result TaskQueue::put(ITask* task) { return add(task, false, 0, 0); }

TaskQueue::Result TaskQueue::tryPut(ITask* task, unsigned int ms, unsigned long long startTick) {
  return add(task, true, ms, startTick);
}

// Appends `task` once there is room; see put and tryPut.
TaskQueue::Result TaskQueue::add(ITask* task, bool timed, unsigned int ms,
                                 unsigned long long startTick) {
  TaskWaiter* served;
  {
    Acquire(tailLock, lockSpinNanos);
    QueueHold locker(tailLock);
    const Result room = waitForRoom(locker, false, timed, ms, startTick);
    if (room != kAdded) return room;
    grow(1);
    append(task);
    served = serveWaiter();
  }
  Wake(served, *watchers);
  return kAdded;
}

void TaskQueue::setBound(unsigned int bound) {
  const unsigned int previous = maxTaskNum.exchange(bound, std::memory_order_seq_cst);
  // A producer counts itself in `full` before it reads the bound the last
  // time: either it sees the new bound or it is counted here.
  if (bound > previous && full.load(std::memory_order_seq_cst) != 0) notFull.notify(INT_MAX);
}

ITask* TaskQueue::take(TaskWaiter& self) {
  ITask** retired = nullptr;
  std::size_t retiredSlots = 0;
  ITask* task = nullptr;
  bool asleep = false;
  bool roomMade = false;
  {
    Acquire(headLock, lockSpinNanos);
    QueueHold locker(headLock);
    if (queued.load(std::memory_order_acquire) == 0) {
      self.state.store(TaskWaiter::kWaiting, std::memory_order_relaxed);
      self.task = nullptr;
      self.next = waiters;
      waiters = &self;
      waiting.fetch_add(1, std::memory_order_seq_cst);
      // A producer counts its entry in before it looks for waiters: either
      // it finds this one, or its entry is seen here.
      asleep = queued.load(std::memory_order_seq_cst) == 0;
      if (!asleep) {
        waiters = self.next;  // still the latest: waiters change under this lock only
        waiting.fetch_sub(1, std::memory_order_relaxed);
      }
    }
    if (!asleep) {
      task = takeFront();
      roomMade = full.load(std::memory_order_seq_cst) != 0;
      retired = shrinkEmptied(retiredSlots);
    }
  }
  if (asleep) return await(self);
  if (roomMade) notifyRoom(1);
  FreeRing(retired, retiredSlots);
  return task;
}

// Only one consumer of a pool watches at a time before sleeping: more would
// take processor time from the producers. While it watches, it makes the
// wake-up calls that producers leave to it (see Wake). In a pool of one
// queue per worker, a consumer that finds another one watching gives its
// processor away once before it sleeps: with more workers than processors,
// its queue's producer often adds the next entry meanwhile, which then costs
// neither a sleep nor a wake-up call. A consumer whose last sleep was long
// does neither, so that an idle pool sleeps at once.
ITask* TaskQueue::await(TaskWaiter& self) {
  if (watchNanos > 0 && self.watch) {
    WatchShare& share = *watchers;
    if (share.watchers.fetch_add(1, std::memory_order_relaxed) == 0) {
      const auto served = [&self] {
        return self.state.load(std::memory_order_acquire) == TaskWaiter::kServed;
      };
      if (!share.takesWakeUps) {
        (void)SpinUntil(watchNanos, served);
      } else {
        share.spinning.store(1, std::memory_order_seq_cst);
        (void)SpinUntil(watchNanos, [&share, &served] {
          if (share.wakeSlot.load(std::memory_order_relaxed) != nullptr) WakeLeft(share);
          return served();
        });
        share.spinning.store(0, std::memory_order_seq_cst);
        WakeLeft(share);
      }
    } else if (share.takesWakeUps) {
      sched_yield();
    }
    share.watchers.fetch_sub(1, std::memory_order_relaxed);
  }
  if (watchNanos > 0) self.cpu.store(sched_getcpu(), std::memory_order_relaxed);
  int expected = TaskWaiter::kWaiting;
  if (!self.state.compare_exchange_strong(expected, TaskWaiter::kSleeping,
                                          std::memory_order_acquire)) {
    self.watch = true;  // served before it slept
    return self.task;
  }
  const long long asleepSince = watchNanos > 0 ? MonotonicNanos() : 0;
  while (self.state.load(std::memory_order_acquire) == TaskWaiter::kSleeping) {
    SleepOnWord(&self.state, TaskWaiter::kSleeping);
  }
  if (watchNanos > 0) self.watch = MonotonicNanos() - asleepSince < kRewatchNanos;
  handOn();
  return self.task;
}

bool TaskQueue::hasRoom() const {
  return queued.load(std::memory_order_seq_cst) < maxTaskNum.load(std::memory_order_seq_cst);
}

// Wakes producers waiting for the room of `count` entries just taken out:
// every one of them while a stop marker waits too, since those woken first
// may be producers that leave the room to the marker.
void TaskQueue::notifyRoom(int count) {
  notFull.notify(markersWaiting.load(std::memory_order_seq_cst) != 0 ? INT_MAX : count);
}

// Waits, under the tail lock, until the queue has room (kAdded) or is
// closed (kClosed); with `timed`, kTimedOut once `ms` milliseconds from
// `startTick` have passed, charged from the start tick on every pass. A
// producer that gives up while there is room passes the wake-up it may have
// taken on to the next waiting producer. A stop marker (`marker`) goes in
// before every producer: while one waits, producers leave the room to it,
// so that producers coming and going cannot keep a stop() waiting.
TaskQueue::Result TaskQueue::waitForRoom(QueueHold& producer, bool marker, bool timed,
                                         unsigned int ms, unsigned long long startTick) {
  const auto roomFor = [&] {
    return hasRoom() && (marker || markersWaiting.load(std::memory_order_seq_cst) == 0);
  };
  unsigned int remaining = ms;
  for (;;) {
    if (closed) return kClosed;
    if (roomFor()) return kAdded;
    // Counted before the last look: a consumer that makes room after it
    // sees the count and notifies, which moves the sequence read here on.
    full.fetch_add(1, std::memory_order_seq_cst);
    const int seen = notFull.sequence();
    if (roomFor()) {
      full.fetch_sub(1, std::memory_order_relaxed);
      return kAdded;
    }
    notFull.wait(producer, seen, timed, remaining);
    full.fetch_sub(1, std::memory_order_relaxed);
    if (!timed) continue;
    const unsigned long long elapsed = system::SystemUtils::GetTick() - startTick;
    if (elapsed > 0xFFFFFFFFull || elapsed >= remaining) {
      if (full.load(std::memory_order_seq_cst) != 0 && hasRoom()) notifyRoom(1);
      return kTimedOut;
    }
    remaining -= static_cast<unsigned int>(elapsed);
  }
}

// Writes `entry` behind the last one and counts it in; the room is there.
// Under the tail lock.
void TaskQueue::append(ITask* entry) {
  slots[tail] = entry;
  tail = (tail + 1) & (capacity - 1);
  // Release: a consumer that sees the count reads the slot written above.
  queued.fetch_add(1, std::memory_order_seq_cst);
}

// Under the tail lock, after an entry was counted in: hands the front entry
// to the latest waiter, if one waits; returns the waiter when it sleeps and
// needs waking, after the lock is left, and otherwise nullptr.
TaskWaiter* TaskQueue::serveWaiter() {
  if (waiting.load(std::memory_order_seq_cst) == 0) return nullptr;
  Acquire(headLock, lockSpinNanos);
  QueueHold locker(headLock);
  if (waiters == nullptr || queued.load(std::memory_order_acquire) == 0) return nullptr;
  // With one processor (no spin budget) every sleeper is on the producer's.
  if (!waking && lockSpinNanos > 0) preferLocalSleeper();
  // No producer needs waking for the room a hand-over leaves: the count is
  // back where it was before this producer, holding the tail lock
  // throughout, counted its entry in, and that room was there when it looked.
  return handOver();
}

// Under the head lock, with a consumer waiting: when the latest waiter sleeps
// and went to sleep on another processor than the caller's, moves the first
// of the next kLocalScan waiters that went to sleep on the caller's to the
// front, so that handOver serves it. A waiter writes its processor before it
// goes to sleep, and it is read here without ordering: a stale one costs a
// slower start, never a wrong hand-over.
void TaskQueue::preferLocalSleeper() {
  TaskWaiter* const latest = waiters;
  if (latest->next == nullptr ||
      latest->state.load(std::memory_order_relaxed) != TaskWaiter::kSleeping) {
    return;
  }
  const int here = sched_getcpu();
  if (here < 0 || latest->cpu.load(std::memory_order_relaxed) == here) return;
  TaskWaiter* before = latest;
  for (int looked = 0; looked < kLocalScan && before->next != nullptr; ++looked) {
    TaskWaiter* const candidate = before->next;
    if (candidate->cpu.load(std::memory_order_relaxed) == here) {
      before->next = candidate->next;
      candidate->next = latest;
      waiters = candidate;
      return;
    }
    before = candidate;
  }
}

// Under the head lock, with an entry queued and a consumer waiting: gives the
// front entry to the latest waiter if it is still watching, which needs no
// wake-up call, or else if no other sleeper's wake-up is under way or
// `fanOut` says that the caller is the woken consumer handing entries on.
// Returns the waiter to wake, or nullptr. While one woken consumer is on its
// way, the entries stay queued for it: it hands them on as soon as it runs
// (see handOn), so that a burst costs its producer one wake-up call, not one
// per sleeping consumer.
TaskWaiter* TaskQueue::handOver(bool fanOut) {
  TaskWaiter* const waiter = waiters;
  // Published by the state change below; the waiter reads it only after.
  waiter->task = slots[head];
  int state = TaskWaiter::kWaiting;
  const bool watching = waiter->state.compare_exchange_strong(state, TaskWaiter::kServed,
                                                              std::memory_order_acq_rel);
  if (!watching && waking && !fanOut) return nullptr;
  waiters = waiter->next;
  waiting.fetch_sub(1, std::memory_order_relaxed);
  (void)takeFront();
  if (watching) return nullptr;
  waking = true;
  waiter->state.store(TaskWaiter::kServed, std::memory_order_release);
  return waiter;
}

// Called by a consumer woken with an entry: ends the wake-up under way and,
// while entries are queued, hands them to the consumers still waiting, up to
// kFanOut of them asleep, whose wake-up calls it makes. Each one woken so
// calls this in turn, so entries queued past the last of them are handed on
// by the next.
void TaskQueue::handOn() {
  TaskWaiter* woken[kFanOut];
  int wakeUps = 0;
  ITask** retired = nullptr;
  std::size_t retiredSlots = 0;
  int handed = 0;
  bool roomMade = false;
  {
    Acquire(headLock, lockSpinNanos);
    QueueHold locker(headLock);
    waking = false;
    while (wakeUps < kFanOut && waiters != nullptr &&
           queued.load(std::memory_order_acquire) != 0) {
      TaskWaiter* const sleeper = handOver(true);
      if (sleeper != nullptr) woken[wakeUps++] = sleeper;
      ++handed;
    }
    if (handed != 0) {
      roomMade = full.load(std::memory_order_seq_cst) != 0;
      retired = shrinkEmptied(retiredSlots);
    }
  }
  for (int i = 0; i < wakeUps; ++i) Wake(woken[i], *watchers);
  // Unlike a producer's hand-over, these leave room that producers may be
  // waiting for: one notification per entry, as take() makes.
  if (roomMade) notifyRoom(handed);
  FreeRing(retired, retiredSlots);
}

// Takes the front entry and counts it out; there is one. Under the head lock.
ITask* TaskQueue::takeFront() {
  ITask* entry = slots[head];
  head = (head + 1) & (capacity - 1);
  queued.fetch_sub(1, std::memory_order_seq_cst);
  return entry;
}

// Makes room for `extra` more entries besides the markers' room, moving the
// entries to the front of a ring twice as large (or more) when needed.
// Under the tail lock; takes the head lock to move the entries. Throws
// std::bad_alloc, leaving the ring as it was.
void TaskQueue::grow(std::size_t extra) {
  // Consumers only ever lower the count, so a ring that is large enough now
  // stays large enough until this producer appends.
  if (queued.load(std::memory_order_acquire) + extra + markerRoom <= capacity) return;
  Acquire(headLock, lockSpinNanos);
  QueueHold locker(headLock);
  const std::size_t count = queued.load(std::memory_order_acquire);
  const std::size_t needed = count + extra + markerRoom;
  if (needed <= capacity) return;
  std::size_t size = capacity == 0 ? kInitialSlots : capacity * 2;
  while (size < needed) size *= 2;
  ITask** bigger = NewRing(size);
  for (std::size_t i = 0; i < count; ++i) bigger[i] = slots[(head + i) & (capacity - 1)];
  FreeRing(slots, capacity);
  slots = bigger;
  capacity = size;
  head = 0;
  tail = count;
}

// Under the head lock, after entries were taken: when they emptied a ring of
// more than kShrinkAbove slots and no producer holds the tail lock, replaces
// it by a small one. Returns the old slots (and their count in `count`) for
// the caller to free after leaving the lock, or nullptr.
ITask** TaskQueue::shrinkEmptied(std::size_t& count) {
  if (queued.load(std::memory_order_relaxed) != 0 || capacity <= kShrinkAbove ||
      !tailLock.tryLock()) {
    return nullptr;
  }
  ITask** retired = nullptr;
  // The ring is replaced only under both locks, and only while empty.
  if (queued.load(std::memory_order_relaxed) == 0) {
    count = capacity;
    retired = shrink();
  }
  tailLock.unlock();
  return retired;
}

// Replaces the empty ring by a small one and returns the old slots for the
// caller to free after leaving the locks; nullptr (nothing changed) when no
// small ring can be had. Under both locks.
ITask** TaskQueue::shrink() {
  std::size_t size = kInitialSlots;
  while (size < markerRoom) size *= 2;
  ITask** smaller;
  try {
    smaller = NewRing(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  ITask** old = slots;
  slots = smaller;
  capacity = size;
  head = 0;
  tail = 0;
  return old;
}

namespace {

// The pool whose worker the calling thread is; null on other threads.
thread_local const void* tlsWorkerOwner = nullptr;

}  // namespace

void RunWorker(const void* owner, TaskQueue& queue, TaskWaiter& self, const SafeString& name,
               const char* category) {
  tlsWorkerOwner = owner;
  try {
    debug::ChronoMonitor::SetThreadName(name);
  } catch (...) {
    // The name is for reports only.
  }
  for (;;) {
    ITask* const task = queue.take(self);
    if (task == nullptr) return;
    {
      debug::ChronoMonitor::Chronometer scope(category, "Exec");
      try {
        task->run();
      } catch (...) {
        task->notifyInterrupted();
      }
    }
    task->dispose();
  }
}

bool IsWorkerOf(const void* owner) { return owner != nullptr && tlsWorkerOwner == owner; }

void Refuse(ITask* task, const char* source) {
  static const char kStopped[] = "executor has stopped";
  task->dispose();
  throw lang::Exception(source, kStopped);
}

bool PutTask(TaskQueue& queue, ITask* task, bool timed, unsigned int ms, const char* source) {
  TaskQueue::Result added;
  try {
    added = timed ? queue.tryPut(task, ms, system::SystemUtils::GetTick()) : queue.put(task);
  } catch (...) {
    task->dispose();
    throw;
  }
  if (added == TaskQueue::kClosed) Refuse(task, source);
  return added == TaskQueue::kAdded;
}

bool WorkerUsers::enter() {
  users_.fetch_add(1, std::memory_order_seq_cst);
  if (!retired_.load(std::memory_order_seq_cst)) return true;
  leave();
  return false;
}

void WorkerUsers::leave() {
  if (users_.fetch_sub(1, std::memory_order_seq_cst) == 1 &&
      retired_.load(std::memory_order_seq_cst)) {
    WakeWord(&users_);
  }
}

// Paired with enter(): a producer either sees the flag or is counted here.
void WorkerUsers::retire() {
  retired_.store(true, std::memory_order_seq_cst);
  for (;;) {
    const int inside = users_.load(std::memory_order_seq_cst);
    if (inside == 0) return;
    SleepOnWord(&users_, inside);
  }
}

unsigned int WorkerCount(unsigned int requested) {
  if (requested != 0) return std::min(requested, kMaxWorkers);
  const long processors = static_cast<long>(system::SystemUtils::GetProcessorNum());
  if (processors <= 0) return 1;
  return static_cast<unsigned int>(std::min(processors, static_cast<long>(kMaxWorkers)));
}

}  // namespace detail
}  // namespace threading
}  // namespace foundation
}  // namespace zorv
