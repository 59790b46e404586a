// Test helpers for executors and timers: gates with bounded waits, a shared
// tally of runs and disposals, and tasks and timers that report to it.
#ifndef ZORV_TESTS_SUPPORT_TASKPROBE_H_
#define ZORV_TESTS_SUPPORT_TASKPROBE_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "foundation/lang/accounted.h"
#include "foundation/lang/exception.h"
#include "foundation/system/systemutils.h"
#include "foundation/threading/thread.h"
#include "foundation/threading/timer/timer.h"

namespace zorv {
namespace test {

// True when the tests run under a sanitizer or on a slow target (qemu), so
// that stress sizes are scaled down.
inline bool SlowTarget() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return true;
#else
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  return true;
#endif
#endif
  return std::getenv("ZORV_SLOW_TARGET") != nullptr;
#endif
}

// Scales a stress size down on slow targets.
inline unsigned int Scaled(unsigned int n, unsigned int divisor = 10) {
  return SlowTarget() ? (n / divisor > 0 ? n / divisor : 1) : n;
}

inline unsigned long long Tick() { return foundation::system::SystemUtils::GetTick(); }

// A gate that threads wait at until it is opened. Every wait is bounded.
class Gate {
 public:
  void open() {
    std::lock_guard<std::mutex> guard(mutex_);
    open_ = true;
    cv_.notify_all();
  }
  // True when the gate opened within `ms`.
  bool wait(unsigned int ms = 10000) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cv_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool open_ = false;
};

// Opens a gate when it goes out of scope, so that a failing test still lets
// a pool drain. Declare it after the pool that waits on the gate.
class GateOpener {
 public:
  explicit GateOpener(Gate& gate) : gate_(gate) {}
  ~GateOpener() { gate_.open(); }
  GateOpener(const GateOpener&) = delete;
  GateOpener& operator=(const GateOpener&) = delete;

 private:
  Gate& gate_;
};

// Waits until `pred` holds, polling every millisecond, at most `ms`
// milliseconds; returns the last answer.
inline bool WaitUntil(const std::function<bool()>& pred, unsigned int ms = 10000) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!pred()) {
    if (std::chrono::steady_clock::now() > deadline) return pred();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

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
// (forever when negative).
class ProbeTimer : public foundation::threading::ITimer, public ProbeBehaviour {
 public:
  ProbeTimer(Tally* t, int timerId, unsigned long long ms, int repeatCount) : delay(ms), repeats(repeatCount) {
    tally = t;
    id = timerId;
  }
  ~ProbeTimer() override { tally->disposals.fetch_add(1); }

  void run() override {
    ++ran;
    perform();
  }
  void interrupted() override { tally->interrupts.fetch_add(1); }
  bool isRepeat() override { return repeats < 0 || ran <= repeats; }
  unsigned long long interval() override { return delay; }

  unsigned long long delay;
  int repeats;
  std::atomic<int> ran{0};
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
