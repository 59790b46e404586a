// Test helpers for executors and timers: a shared tally of runs and
// disposals, and tasks and timers that report to it (gates and bounded waits
// come from boundedwait.h).
#ifndef ZORV_TESTS_SUPPORT_TASKPROBE_H_
#define ZORV_TESTS_SUPPORT_TASKPROBE_H_

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

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
  std::atomic<int> runs{0}, disposals{0}, interrupts{0};
  std::atomic<int> running{0}, overlaps{0};  // overlaps: runs begun while another ran

  struct Run {
    int id;
    unsigned long long thread, start, end;
  };

  std::vector<Run> log() {
    std::lock_guard<std::mutex> guard(mutex);
    return runLog;
  }

  void begin() { overlaps.fetch_add(running.fetch_add(1) != 0 ? 1 : 0); }

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

// A task or timer that reports its runs, interruptions and disposal to a
// tally. Its run() may wait at a gate, do extra work and throw.
template <class Interface>
class Probe : public Interface {
 public:
  Probe(Tally* t, int probeId) : tally(t), id(probeId) {}
  ~Probe() override {
    if (disposeDelayMs != 0) std::this_thread::sleep_for(std::chrono::milliseconds(disposeDelayMs));
    tally->disposals.fetch_add(1);
  }

  void run() override {
    ++ran;
    const unsigned long long start = Tick();
    tally->begin();
    if (started != nullptr) started->store(true);
    if (gate != nullptr) gate->wait();
    if (body) body();
    tally->end(id, start);
    if (fail) throw std::runtime_error("probe failure");
  }
  void interrupted() override { tally->interrupts.fetch_add(1); }
  // Reports that a hand-over is being made.
  unsigned int getAffinity() const override {
    if (handedOver != nullptr) handedOver->store(true);
    return affinity < 0 ? Interface::getAffinity() : static_cast<unsigned int>(affinity);
  }

  Tally* tally;
  int id;
  bool fail = false;                     // run() throws
  Gate* gate = nullptr;                  // run() waits at it first
  std::atomic<bool>* started = nullptr;  // set when run() begins
  std::function<void()> body;            // extra work inside run()
  int affinity = -1;                     // -1: the default counter
  std::atomic<int> ran{0};
  unsigned int disposeDelayMs = 0;  // a slow disposal
  std::atomic<bool>* handedOver = nullptr;
};

using ProbeTask = Probe<foundation::threading::ITask>;

// A probe timer repeats `repeats` more times (forever when negative).
// isRepeat() may throw, and so may interval() after its first call.
class ProbeTimer : public Probe<foundation::threading::ITimer> {
 public:
  ProbeTimer(Tally* t, int timerId, unsigned long long ms, int repeatCount)
      : Probe(t, timerId), delay(ms), repeats(repeatCount) {}

  bool isRepeat() override { return repeatThrows ? throw 1 : repeats < 0 || ran <= repeats; }
  unsigned long long interval() override { return asked++ > 0 && intervalThrows ? throw 1 : delay; }

  unsigned long long delay;
  int repeats;
  bool repeatThrows = false, intervalThrows = false;
  std::atomic<int> asked{0};  // calls of interval()
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
