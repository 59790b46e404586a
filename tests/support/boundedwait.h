// Bounded meeting points for threading tests: every wait has a time limit,
// so a fault fails the test instead of hanging it.
#ifndef ZORV_TESTS_SUPPORT_BOUNDEDWAIT_H_
#define ZORV_TESTS_SUPPORT_BOUNDEDWAIT_H_

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include <sys/types.h>

namespace zorv {
namespace test {

// The generous limit of a wait that is expected to succeed.
constexpr std::chrono::milliseconds kLongWait{20000};

// True on slow targets (sanitizers, the 32-bit ARM target, real or under
// qemu, or ZORV_SLOW_TARGET set): stress sizes shrink there.
inline bool SlowTarget() {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(__arm__)
  return true;
#else
#if defined(__has_feature)
#if __has_feature(thread_sanitizer) || __has_feature(address_sanitizer)
  return true;
#endif
#endif
  return std::getenv("ZORV_SLOW_TARGET") != nullptr;
#endif
}

// How long a check that something does NOT happen watches for it, and the
// slack of a timing bound: `ms`, five times that on slow targets.
inline std::chrono::milliseconds Margin(long ms) {
  return std::chrono::milliseconds(SlowTarget() ? 5 * ms : ms);
}

// A one-way gate: threads wait until it is opened. Waits are bounded.
class Gate {
 public:
  void open() {
    std::lock_guard<std::mutex> hold(mutex_);
    open_ = true;
    cond_.notify_all();
  }

  // True when the gate opened within `limit`.
  bool wait(std::chrono::milliseconds limit = kLongWait) {
    std::unique_lock<std::mutex> hold(mutex_);
    return cond_.wait_for(hold, limit, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  bool open_ = false;
};

// Opens a gate when the scope ends, also on an early test failure, so that
// threads parked on it can finish and be joined.
class GateOpener {
 public:
  explicit GateOpener(Gate& gate) : gate_(gate) {}
  ~GateOpener() { gate_.open(); }
  GateOpener(const GateOpener&) = delete;
  GateOpener& operator=(const GateOpener&) = delete;

 private:
  Gate& gate_;
};

// Polls `done` every millisecond until it is true or `limit` passes; returns
// its last value. For states that cannot signal (flags read without a lock).
inline bool PollUntil(const std::function<bool()>& done,
                      std::chrono::milliseconds limit = kLongWait) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return done();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// True while the thread `tid` of this process sleeps in the kernel (a
// blocking call), as /proc reports it; false also when it cannot be read.
inline bool Asleep(pid_t tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string line;
  std::getline(stat, line);
  const std::size_t end = line.rfind(')');  // the name may hold spaces
  return end != std::string::npos && line.compare(end, 3, ") S") == 0;
}

}  // namespace test
}  // namespace zorv

#endif  // ZORV_TESTS_SUPPORT_BOUNDEDWAIT_H_
