// Locks, conditions and clocks against the standard library's: uncontended
// lock/unlock, a scoped holder, a two-thread condition ping-pong, and the
// cost of reading the monotonic clocks.
#include <benchmark/benchmark.h>
#include <time.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "foundation/system/systemutils.h"
#include "foundation/threading/lock.h"
#include "foundation/threading/lockcondition.h"

namespace {

using zorv::foundation::system::SystemUtils;
using zorv::foundation::threading::ILock;
using zorv::foundation::threading::Lock;
using zorv::foundation::threading::LockCondition;
using zorv::foundation::threading::Locker;

void ZorvLockUnlock(benchmark::State& state) {
  Lock lock;
  ILock& through = lock;  // as the library's users hold it
  for (auto _ : state) {
    through.lock();
    through.unlock();
  }
}
BENCHMARK(ZorvLockUnlock);

void StdRecursiveMutexLockUnlock(benchmark::State& state) {
  std::recursive_mutex mutex;
  for (auto _ : state) {
    mutex.lock();
    mutex.unlock();
  }
}
BENCHMARK(StdRecursiveMutexLockUnlock);

void ZorvLockerScope(benchmark::State& state) {
  Lock lock;
  int value = 0;
  for (auto _ : state) {
    Locker locker(lock, false);
    benchmark::DoNotOptimize(++value);
  }
}
BENCHMARK(ZorvLockerScope);

void StdLockGuardScope(benchmark::State& state) {
  std::recursive_mutex mutex;
  int value = 0;
  for (auto _ : state) {
    std::lock_guard<std::recursive_mutex> guard(mutex);
    benchmark::DoNotOptimize(++value);
  }
}
BENCHMARK(StdLockGuardScope);

// One iteration is a round trip: this thread hands the turn over, the
// partner hands it back.
void ZorvConditionPingPong(benchmark::State& state) {
  Lock lock;
  LockCondition cond(lock);
  int turn = 0;  // 1: the partner's turn, 0: ours, -1: stop
  std::thread partner([&] {
    Locker locker(lock, false);
    for (;;) {
      while (turn == 0) cond.wait(locker);
      if (turn < 0) return;
      turn = 0;
      cond.notify(locker);
    }
  });
  {
    Locker locker(lock, false);
    for (auto _ : state) {
      turn = 1;
      cond.notify(locker);
      while (turn != 0) cond.wait(locker);
    }
    turn = -1;
    cond.notify(locker);
  }
  partner.join();
}
BENCHMARK(ZorvConditionPingPong)->UseRealTime();

void StdConditionPingPong(benchmark::State& state) {
  std::mutex mutex;
  std::condition_variable cond;
  int turn = 0;
  std::thread partner([&] {
    std::unique_lock<std::mutex> hold(mutex);
    for (;;) {
      while (turn == 0) cond.wait(hold);
      if (turn < 0) return;
      turn = 0;
      cond.notify_one();
    }
  });
  {
    std::unique_lock<std::mutex> hold(mutex);
    for (auto _ : state) {
      turn = 1;
      cond.notify_one();
      while (turn != 0) cond.wait(hold);
    }
    turn = -1;
    cond.notify_one();
  }
  partner.join();
}
BENCHMARK(StdConditionPingPong)->UseRealTime();

void ZorvGetTick(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(SystemUtils::GetTick());
}
BENCHMARK(ZorvGetTick);

void ZorvGetClock(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(SystemUtils::GetClock());
}
BENCHMARK(ZorvGetClock);

void ClockGettimeMonotonic(benchmark::State& state) {
  for (auto _ : state) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    benchmark::DoNotOptimize(now);
  }
}
BENCHMARK(ClockGettimeMonotonic);

}  // namespace

BENCHMARK_MAIN();
