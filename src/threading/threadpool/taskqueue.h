// Private: the bounded FIFO task queue shared by both thread pools, and the
// steps both pools take alike (running a task, counting and starting workers,
// adding a task, refusing one).
#ifndef ZORV_FOUNDATION_SRC_THREADING_THREADPOOL_TASKQUEUE_H_
#define ZORV_FOUNDATION_SRC_THREADING_THREADPOOL_TASKQUEUE_H_

#include <atomic>
#include <cstddef>

#include "foundation/lang/exception.h"
#include "foundation/system/systemutils.h"
#include "foundation/text/safestring.h"
#include "foundation/threading/thread.h"
#include "lang/accounting.h"

namespace zorv {
namespace foundation {
namespace threading {
namespace detail {

// A consumer's place in the line of those that found the queue empty and
// wait for an entry of their own; each consumer has one for its lifetime.
// It lives in the worker object, not on the worker's stack: producers touch
// it from other threads, and a stack is handed to the next thread as soon as
// its own ends, while the worker object is deleted only after the join.
// The producer that serves it stores the entry and then the state; the
// consumer sleeps on the state word only when it is still kWaiting after a
// short watch, and the producer makes the wake-up call only for a consumer
// that went to sleep.
struct TaskWaiter {
  enum State : int { kWaiting = 0, kSleeping = 1, kServed = 2 };

  std::atomic<int> state{kWaiting};
  ITask* task = nullptr;
  TaskWaiter* next = nullptr;
  // The processor the consumer last went to sleep on (-1 before it first
  // slept, or where the queue does not look): a hint for producers, which
  // prefer to wake a sleeper of their own processor (see TaskQueue).
  std::atomic<int> cpu{-1};
  // Whether this consumer watches for an entry before it sleeps: only while
  // its recent waits ended soon (see TaskQueue::await).
  bool watch = true;
};

// What the consumers of one pool share about watching before they sleep:
// how many are about to watch (only the first one does), whether that one is
// spinning just now, and a sleeping waiter whose wake-up call a producer left
// to it (see TaskQueue). Wake-up calls are left only where `takesWakeUps`
// is set: in a pool of one queue per worker, whose producers mostly serve
// waiters asleep on other queues than the watcher's.
struct WatchShare {
  explicit WatchShare(bool takes = false) : takesWakeUps(takes) {}

  const bool takesWakeUps;
  std::atomic<int> watchers{0};
  std::atomic<int> spinning{0};
  std::atomic<TaskWaiter*> wakeSlot{nullptr};
};

// One of the two locks of a task queue: a word that is free, taken, or taken with a
// thread perhaps asleep on it. It is never taken twice by one thread; a
// thread that finds it taken sleeps on the word (TaskQueue spins first), and
// only an unlock that may have a sleeper makes a wake-up call.
class QueueLock {
 public:
  bool tryLock() {
    int expected = kFree;
    return word_.load(std::memory_order_relaxed) == kFree &&
           word_.compare_exchange_strong(expected, kTaken, std::memory_order_acquire,
                                         std::memory_order_relaxed);
  }
  void lock();
  void unlock();

 private:
  enum : int { kFree = 0, kTaken = 1, kSleepers = 2 };
  std::atomic<int> word_{kFree};
};

// Holds a QueueLock, already taken, until the end of the scope.
class QueueHold {
 public:
  explicit QueueHold(QueueLock& lock) : lock_(lock) {}
  ~QueueHold() { lock_.unlock(); }
  QueueHold(const QueueHold&) = delete;
  QueueHold& operator=(const QueueHold&) = delete;

  QueueLock& lock() { return lock_; }

 private:
  QueueLock& lock_;
};

// Where producers wait for room: a count that every notification moves on.
// A producer reads it (sequence()) before it checks for room the last time,
// and sleeps only while it is unchanged, so that a notification made after
// that check is never missed. Waits may end early; callers check again.
class RoomSignal {
 public:
  int sequence() const { return sequence_.load(std::memory_order_seq_cst); }
  // Leaves the held lock, sleeps while the count is still `seen` (with
  // `timed`, at most `ms` milliseconds) and takes the lock again.
  void wait(QueueHold& hold, int seen, bool timed, unsigned int ms);
  // Wakes up to `count` waiters.
  void notify(int count);

 private:
  std::atomic<int> sequence_{0};
};

// A FIFO of task pointers with a bound on its length; a null entry is a stop
// marker for a worker.
//
// Producers and consumers take different locks: producers the tail lock,
// consumers the head lock, so that a producer never waits for a consumer's
// turn (nor a consumer for a producer's). The entries live in a ring of
// slots: a producer writes the slot behind the last entry and then counts
// it in `queued`; a consumer takes the front entry while `queued` says there
// is one, and counts it out. The ring is replaced only under both locks:
// doubled by a producer when full, and made small again by the consumer
// that empties a ring of more than 4096 slots, if no producer holds the
// tail lock just then (the next consumer to empty it tries again). Room for
// the stop markers still to come is kept free at every addition of a task,
// so that queueing a marker never allocates and stopping cannot fail.
//
// A consumer that finds the queue empty does not wait on a condition of the
// queue: it joins the waiters and leaves the lock, and the next entry is
// handed straight to it by the producer that adds it (or by the consumer
// woken last, see below). The consumer so never has to collect its entry,
// and whoever hands it over wakes it after leaving the locks. A consumer
// joins the waiters and then looks at
// `queued` once more; a producer counts its entry in and then looks for
// waiters: one of the two sees the other. Waiters are served last-come
// first: the latest is the one most likely still watching, and so served
// without a system call. Where the latest one sleeps and went to sleep on
// another processor than the producer's, a sleeper that went to sleep on
// the producer's own processor is served instead, if one of the next few
// did: the kernel wakes a thread on its last processor when that one is
// idle, so the other one would have to come out of idle (tens of
// microseconds), where this one starts as soon as the producer pauses, and
// a pool once split from its producer would stay split. A producer wakes
// one sleeping consumer at a time:
// while a woken one has not yet run, producers leave their entries queued,
// and the woken one, as soon as it runs, hands the entries queued meanwhile
// to the waiters (up to kFanOut of them asleep) and makes those wake-up
// calls itself. So a burst into a pool of sleeping workers costs the
// producer one wake-up call, the other workers are woken all at once and
// not one after the other, and an entry never waits while consumers sleep
// and no wake-up is under way. In a pool whose queues share one watcher (see
// shareWatchers), a producer that serves a sleeping waiter while the watcher
// spins leaves the wake-up call to the watcher instead of making it: the
// producer, usually the slower side, goes on at once.
//
// Producers wait for room the same way: one that finds the queue full counts
// itself in `full`, reads the room signal's sequence and checks once more; a
// consumer counts an entry out and then notifies if a producer is counted.
// A stop marker waiting for room is served before any producer.
//
// Both locks are taken after a short run of attempts: each is held for a few
// instructions only, so with more threads than processors a short wait
// usually finds it free, where blocking on it would cost the waiter a sleep
// and the holder a wake-up call. Attempts and watches are bounded in time (a
// few microseconds of the monotonic clock), not in counts, and on a machine
// with one processor there are none: the thread that would end the wait
// could not run meanwhile. A thread that holds the tail lock may take the
// head lock; one that holds the head lock only tries the tail lock. Neither
// lock is ever taken twice by one thread.
struct TaskQueue {
  enum Result { kAdded, kTimedOut, kClosed };

  TaskQueue();
  ~TaskQueue();
  TaskQueue(const TaskQueue&) = delete;
  TaskQueue& operator=(const TaskQueue&) = delete;

  // Keeps room for `markers` more stop markers from now on. Called before
  // any consumer starts. Throws std::bad_alloc.
  void reserveMarkers(unsigned int markers);

  // Appends a stop marker in the room kept for it, waiting while the queue
  // is full, ahead of every producer waiting too; a waiting consumer is
  // given the marker directly. With `last` the queue is closed in the same
  // step: every later put and tryPut is refused with kClosed, and producers
  // waiting for room are woken to be refused, so that no task ever lands
  // behind the last marker. kClosed once the queue was closed.
  Result putMarker(bool last);

  // Appends `task`, waiting while the queue is full. kClosed once the queue
  // was closed. Throws std::bad_alloc, leaving the queue as it was, when the
  // ring cannot grow.
  Result put(ITask* task);

  // Appends `task`, waiting for room at most until `ms` milliseconds after
  // `startTick`, charged from the start tick on every pass. kTimedOut or
  // kClosed leave the queue as it was; std::bad_alloc as for put. A
  // producer that gives up while there is room passes the wake-up it may
  // have taken on to the next waiting producer.
  Result tryPut(ITask* task, unsigned int ms, unsigned long long startTick);

  // Sets the bound; producers waiting for room are woken when it grows.
  void setBound(unsigned int bound);

  // Counts this queue's watching consumers in `share` instead of its own,
  // so that the queues of one pool let only one of their consumers watch at
  // a time, and that one makes the wake-up calls that any of the queues'
  // producers leave. Called before any consumer starts.
  void shareWatchers(WatchShare* share) { watchers = share; }

  // Takes the front entry, waiting while the queue is empty; `self` is the
  // calling consumer's own waiter, used for the wait.
  ITask* take(TaskWaiter& self);

  // Entries in the ring (tasks and stop markers): counted in by producers
  // after the slot is written, out by consumers after it is read.
  std::atomic<unsigned int> queued{0};

 private:
  // Keeps fields that different threads write on different cache lines.
  struct Pad {
    char bytes[64];
  };

  Result add(ITask* task, bool timed, unsigned int ms, unsigned long long startTick);
  void append(ITask* entry);
  TaskWaiter* serveWaiter();
  void preferLocalSleeper();
  // How many waiters past the latest a producer looks at for one that
  // slept on its processor.
  static constexpr int kLocalScan = 4;
  TaskWaiter* handOver(bool fanOut = false);
  // How many sleepers a woken consumer wakes at most (see handOn); those
  // woken go on where it stopped.
  static constexpr int kFanOut = 8;
  void handOn();
  ITask* takeFront();
  bool hasRoom() const;
  void notifyRoom(int count);
  Result waitForRoom(QueueHold& producer, bool marker, bool timed, unsigned int ms,
                     unsigned long long startTick);
  void grow(std::size_t extra);
  ITask** shrinkEmptied(std::size_t& count);
  ITask** shrink();
  ITask* await(TaskWaiter& self);

 public:
  // The bound; written by setBound without a lock.
  std::atomic<unsigned int> maxTaskNum{1000000};

 private:
  // Producers waiting for room, and consumers waiting for an entry: written
  // when a thread starts or ends a wait, read at every put and take.
  std::atomic<int> full{0};
  std::atomic<int> waiting{0};
  // Stop markers waiting for room; producers leave the room to them.
  std::atomic<int> markersWaiting{0};
  // Consumers watching their waiter before they sleep: this queue's own
  // share, or one shared by the queues of a pool (see shareWatchers).
  WatchShare ownWatchers;
  WatchShare* watchers = &ownWatchers;
  // Spin budgets in nanoseconds, fixed at construction; 0 where the thread
  // that made the queue may run on one processor only.
  const long long lockSpinNanos;
  const long long watchNanos;
  // The ring: `capacity` slots (a power of two, or 0 before the first
  // growth). Replaced only under both locks.
  ITask** slots = nullptr;
  std::size_t capacity = 0;
  RoomSignal notFull;
  [[maybe_unused]] Pad padHead;

  // Consumer side, under headLock: the front entry's slot, the waiting
  // consumers, latest first, and whether a consumer was woken with an entry
  // and has not yet run (see handOver).
  QueueLock headLock;
  std::size_t head = 0;
  TaskWaiter* waiters = nullptr;
  bool waking = false;
  [[maybe_unused]] Pad padTail;

  // Producer side, under tailLock: the slot behind the last entry, the
  // slots kept free for the stop markers still to come, and whether the
  // last marker closed the queue.
  QueueLock tailLock;
  std::size_t tail = 0;
  std::size_t markerRoom = 0;
  bool closed = false;
};

// The loop of a worker of the pool `owner`: names the thread `name` for the
// debug-support reports, then takes tasks from `queue` until a stop marker,
// running each inside the timing scope of `category` and disposing it. A
// run() that throws gets the task's interruption hook called; the exception
// goes no further. `self` is the worker's place among the waiting consumers.
void RunWorker(const void* owner, TaskQueue& queue, TaskWaiter& self, const SafeString& name,
               const char* category);

// True when the calling thread runs RunWorker for the pool `owner`.
bool IsWorkerOf(const void* owner);

// The worker count for a requested number: min(n, 300), or for 0 the
// processor count capped at 300 and at least 1.
unsigned int WorkerCount(unsigned int requested);

// Disposes `task` and throws Exception(source, "executor has stopped").
[[noreturn]] void Refuse(ITask* task, const char* source);

// Puts `task` on `queue`: waiting for room, or with `timed` for at most
// about `ms` milliseconds from now. Returns true when the task was queued
// and false on a time-out, leaving the task with the caller; a closed queue
// refuses the task as a stopped pool does (see Refuse), and std::bad_alloc
// passes on after the task was disposed.
bool PutTask(TaskQueue& queue, ITask* task, bool timed, unsigned int ms, const char* source);

// Counts the producers that use one worker of a pool without holding its
// stop lock, so that stop() deletes the worker only after the last of them
// has left. Once the worker is retired, producers are turned away at the
// door instead.
class WorkerUsers {
 public:
  // Enters; false (and not entered) when the worker is retired.
  bool enter();
  // Leaves after a successful enter(); wakes a retiring stop() when last.
  void leave();
  // Turns later producers away and waits until those inside have left.
  // REQUIRES: nothing keeps a producer inside for ever (the worker's queue
  // is closed, so that none waits for room).
  void retire();

 private:
  std::atomic<int> users_{0};
  std::atomic<bool> retired_{false};
};

// A scoped WorkerUsers::enter() and leave().
class WorkerUse {
 public:
  explicit WorkerUse(WorkerUsers& users) : users_(users), entered_(users.enter()) {}
  ~WorkerUse() {
    if (entered_) users_.leave();
  }
  WorkerUse(const WorkerUse&) = delete;
  WorkerUse& operator=(const WorkerUse&) = delete;

  bool entered() const { return entered_; }

 private:
  WorkerUsers& users_;
  const bool entered_;
};

// Creates and starts `count` workers of type W, each constructed from
// `pool`, and appends them to pool->workers and their thread ids to
// pool->ids, publishing the running count after each one. A worker that
// fails to start is destroyed again before the exception passes on; the
// workers already started stay in the pool for its stop() to end.
template <class W, class P>
void StartWorkers(P* pool, unsigned int count, const char* source) {
  pool->workers.reserve(count);
  pool->ids.reserve(count);
  for (unsigned int i = 0; i < count; ++i) {
    W* worker = lang::AccountedNewOrThrow<W>(ZORV_ACCOUNTING_SITE(source, "MyThread"), pool);
    try {
      worker->start();
    } catch (...) {
      lang::AccountedDelete(worker, ZORV_ACCOUNTING_SITE(source, "~MyThread"));
      throw;
    }
    pool->workers.push_back(worker);  // reserved: does not throw
    pool->workerCount.store(static_cast<unsigned int>(pool->workers.size()),
                            std::memory_order_release);
    pool->ids.insert(worker->threadID());
  }
}

}  // namespace detail
}  // namespace threading
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_SRC_THREADING_THREADPOOL_TASKQUEUE_H_
