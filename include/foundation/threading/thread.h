// Thread, the library's abstract named POSIX thread, and ITask, the unit of
// work that executors and the timer scheduler accept.
#ifndef ZORV_FOUNDATION_THREADING_THREAD_H_
#define ZORV_FOUNDATION_THREADING_THREAD_H_

#include "foundation/export.h"
#include "foundation/lang/disposable.h"
#include "foundation/lang/interface.h"
#include "foundation/text/safestring.h"

namespace zorv {
namespace foundation {
namespace threading {

// An abstract POSIX thread: a subclass supplies run(); start() creates the
// thread, which names itself (when a name was given), runs run() and, if
// run() throws, calls interrupted() instead of letting the exception out.
// A Thread runs at most once.
//
// State flags, read without a lock (for status display and polling, not for
// synchronisation; use your own lock or condition for that):
//   constructed            started=false running=false stopped=false
//   after start()          started=true  (running while run() executes)
//   run() returned/threw   stopped=true, running=false
//
// Thread safety: start(), wait() and destruction are called from one
// controlling thread; the flag readers and threadName() from any thread.
//
// Ownership: the caller owns the Thread. A subclass that starts its thread
// must stop it and call wait() in its own destructor: destroying a started,
// unjoined Thread prints a warning line and frees the control block while the
// OS thread may still run (a caller error that is only reported).
class ZORV_FOUNDATION_EXPORT Thread : public lang::Interface {
 public:
  // An unnamed thread; nothing is created until start().
  // Throws std::bad_alloc when memory is exhausted.
  Thread();
  // A thread that registers `name` with the debug-support library when it
  // begins running. Throws std::bad_alloc when memory is exhausted.
  explicit Thread(const SafeString& name);
  // Prints "zorv.foundation.threading.Thread: [id/name]destroyed while still
  // running" (or "...: [id] destroyed while still running" for a thread
  // without a debug-support name) when the thread was started and never
  // joined. The name is the thread's debug-support name: the one it has, or
  // once run() has ended, the one it had then. Does not join, cancel or
  // detach. Never throws.
  ~Thread() override;
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // The thread's body, run once on the new thread.
  virtual void run() = 0;

  // Called on the thread when run() ends by an exception; the default does
  // nothing. Anything it throws is dropped.
  virtual void interrupted();

  // Creates the OS thread, which then runs run().
  // Throws Exception("zorv.foundation.threading.Thread.start",
  // "has been started") on a second call, and
  // Exception("zorv.foundation.threading.Thread.start", "create failed") when
  // the thread cannot be created (the Thread then stays not started).
  void start();

  // Joins the thread; returns at once when it was never started or was
  // already joined. REQUIRES: not called from the thread itself.
  void wait();

  bool isStarted() const;
  bool isRunning() const;
  bool isStopped() const;

  // The thread's pthread_t widened to 64 bits; 0 before start(). Known on
  // the thread itself from the first instruction of run() on (start() may
  // not have returned yet), and to the caller once start() returns.
  unsigned long long threadID() const;

  // The name given at construction, or when that is empty, the name the
  // debug-support library records for threadID() (empty when none). Once
  // run() has ended, that is the name the thread had then: the library
  // forgets the names of ended threads, whose ids may be reused.
  SafeString threadName() const;

  // The calling thread's pthread_t, widened to 64 bits.
  static unsigned long long CurrentID();

  // Sleeps `ms` milliseconds (select with no descriptors). The sub-second
  // part is (ms * 1000) mod 1000000 computed in wrapping 32-bit arithmetic,
  // so from 4294968 ms on it is not (ms mod 1000) * 1000. A signal ends the
  // sleep early. Returns select's result.
  static int Sleep(unsigned int ms);

  // Not a scheduler yield: sleeps 1 millisecond.
  static int Yield();

 private:
  struct ThreadPrivate;
  static void* Entry(void* argument);

  ThreadPrivate* d_;
};

// A unit of work for an executor or a timer scheduler. The executor owns an
// accepted task and calls dispose() once it is done with it (after run(),
// or after notifyInterrupted() when it discards the task unrun). Create tasks
// with lang::MakeDisposable so that disposal is accounted alike.
//
// Thread safety: run() is called on an executor's thread; a task is handed
// to one executor at a time.
class ZORV_FOUNDATION_EXPORT ITask : public lang::IDisposable {
 public:
  ~ITask() override;

  // The work.
  virtual void run() = 0;

  // Called when the task is discarded or interrupted; the default does
  // nothing.
  virtual void interrupted();

  // The affinity number that picks a worker of an affinity pool. The default
  // returns the value of one process-wide counter and then increments it
  // (0, 1, 2, ... in call order, a new number on every call). The counter is
  // not locked: concurrent callers may get the same number, which only
  // affects load spreading.
  virtual unsigned int getAffinity() const;

  // Calls interrupted(), dropping anything it throws.
  void notifyInterrupted();
};

}  // namespace threading
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_THREADING_THREAD_H_
