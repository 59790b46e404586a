// Test helpers for executors and timers: a shared tally of runs and
// disposals, and tasks and timers that report to it (gates and bounded waits
// come from boundedwait.h).
#ifndef ZORV_TESTS_SUPPORT_TASKPROBE_H_
#define ZORV_TESTS_SUPPORT_TASKPROBE_H_

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/lang/accounted.h"
#include "foundation/lang/exception.h"
#include "foundation/system/systemutils.h"
#include "foundation/threading/thread.h"
#include "foundation/threading/threadpool/affinitythreadpool.h"
#include "foundation/threading/threadpool/threadpool.h"
#include "foundation/threading/timer/timer.h"
#include "support/boundedwait.h"

namespace zorv {
namespace test {

// Scales a stress size down on slow targets.
inline unsigned int Scaled(unsigned int n, unsigned int divisor = 10) {
  return SlowTarget() ? (n / divisor > 0 ? n / divisor : 1) : n;
}

// Typed tests over both pools, named after them; PoolName<Pool>(suffix) is
// the pool's name, and with a suffix an exception source.
template <class Pool>
std::string PoolName(const char* suffix = "") {
  return std::string(std::is_same<Pool, foundation::threading::ThreadPool>::value
                         ? "zorv.foundation.threading.ThreadPool"
                         : "zorv.foundation.threading.AffinityThreadPool") +
         suffix;
}
using Executors =
    ::testing::Types<foundation::threading::ThreadPool, foundation::threading::AffinityThreadPool>;
struct ExecutorNames {
  template <class T>
  static std::string GetName(int) {
    return PoolName<T>().substr(26);
  }
};

inline unsigned long long Tick() { return foundation::system::SystemUtils::GetTick(); }

// What the probes report: counts, and for each run its id, thread and ticks.
struct Tally {
  std::atomic<int> runs{0};
  std::atomic<int> disposals{0};
  std::atomic<int> interrupts{0};
  std::atomic<int> running{0};
  std::atomic<int> maxRunning{0};

  struct Run {
    int id;
    unsigned long long thread;
    unsigned long long start;
    unsigned long long end;
  };

  std::vector<Run> log() {
    std::lock_guard<std::mutex> guard(mutex);
    return runLog;
  }

  void begin() {
    const int now = running.fetch_add(1) + 1;
    int seen = maxRunning.load();
    while (now > seen && !maxRunning.compare_exchange_weak(seen, now)) {
    }
  }

  void end(int id, unsigned long long start) {
    {
      std::lock_guard<std::mutex> guard(mutex);
      runLog.push_back(Run{id, foundation::threading::Thread::CurrentID(), start, Tick()});
    }
    running.fetch_sub(1);
    runs.fetch_add(1);
  }

  std::mutex mutex;
  std::vector<Run> runLog;
};

// Common behaviour of the probe task and timer.
struct ProbeBehaviour {
  Tally* tally = nullptr;
  int id = 0;
  bool fail = false;                 // run() throws
  Gate* gate = nullptr;              // run() waits at it first
  std::atomic<bool>* started = nullptr;  // set when run() begins
  std::function<void()> body;        // extra work inside run()

  void perform() {
    const unsigned long long start = Tick();
    tally->begin();
    if (started != nullptr) started->store(true);
    if (gate != nullptr) gate->wait();
    if (body) body();
    tally->end(id, start);
    if (fail) throw std::runtime_error("probe failure");
  }
};

// A task that reports its run, interruption and disposal.
class ProbeTask : public foundation::threading::ITask, public ProbeBehaviour {
 public:
  ProbeTask(Tally* t, int taskId) {
    tally = t;
    id = taskId;
  }
  ~ProbeTask() override { tally->disposals.fetch_add(1); }

  void run() override { perform(); }
  void interrupted() override { tally->interrupts.fetch_add(1); }
  unsigned int getAffinity() const override {
    return affinity < 0 ? ITask::getAffinity() : static_cast<unsigned int>(affinity);
  }

  int affinity = -1;  // -1: the default counter
};

// A timer that reports like ProbeTask; it repeats `repeats` more times
// (forever when negative). isRepeat() may throw, and so may interval() after
// its first call; getAffinity() reports that a hand-over is being made.
class ProbeTimer : public foundation::threading::ITimer, public ProbeBehaviour {
 public:
  ProbeTimer(Tally* t, int timerId, unsigned long long ms, int repeatCount) : delay(ms), repeats(repeatCount) {
    tally = t;
    id = timerId;
  }
  ~ProbeTimer() override {
    if (disposeDelayMs != 0) std::this_thread::sleep_for(std::chrono::milliseconds(disposeDelayMs));
    tally->disposals.fetch_add(1);
  }

  void run() override {
    ++ran;
    perform();
  }
  void interrupted() override { tally->interrupts.fetch_add(1); }
  bool isRepeat() override { return repeatThrows ? throw 1 : repeats < 0 || ran <= repeats; }
  unsigned long long interval() override { return asked++ > 0 && intervalThrows ? throw 1 : delay; }
  unsigned int getAffinity() const override {
    if (handedOver != nullptr) handedOver->store(true);
    return ITimer::getAffinity();
  }

  unsigned long long delay;
  int repeats;
  std::atomic<int> ran{0};
  unsigned int disposeDelayMs = 0;  // a slow disposal
  bool repeatThrows = false, intervalThrows = false;
  std::atomic<int> asked{0};  // calls of interval()
  std::atomic<bool>* handedOver = nullptr;
};

inline ProbeTask* NewTask(Tally* tally, int id = 0) {
  return foundation::lang::MakeDisposable<ProbeTask>("ProbeTask", tally, id);
}

inline ProbeTimer* NewTimer(Tally* tally, int id, unsigned long long ms, int repeats = 0) {
  return foundation::lang::MakeDisposable<ProbeTimer>("ProbeTimer", tally, id, ms, repeats);
}

}  // namespace test
}  // namespace zorv

#endif  // ZORV_TESTS_SUPPORT_TASKPROBE_H_
