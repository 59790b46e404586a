#include "foundation/threading/lockcondition.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "foundation/debug/systemmonitor.h"
#include "foundation/lang/exception.h"
#include "foundation/threading/lock.h"
#include "support/boundedwait.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::debug::SystemMonitor;
using zorv::foundation::threading::Lock;
using zorv::foundation::threading::LockCondition;
using zorv::foundation::threading::LockConditionHelper;
using zorv::foundation::threading::Locker;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

using LockConditionTest = zorv::test::LeakCheckedTest;

// A condition needs a lock and counts a handle; its operations need the
// Locker of that lock, held.
TEST_F(LockConditionTest, MisuseThrowsWithTheOperationsSources) {
  EXPECT_ZORV_THROW(LockCondition(static_cast<Lock*>(nullptr)),
                    "zorv.foundation.threading.LockCondition", "lock is nullptr");
  Lock lock;
  Lock other;
  const long long handles = SystemMonitor::LiveHandles();
  LockCondition cond(lock);
  LockCondition byPointer(&other);
  EXPECT_EQ(SystemMonitor::LiveHandles(), handles + 2);
  // The unlocked check names tryWait "trywait".
  struct Case {
    const char* name;
    std::function<void(Locker&)> call;
    const char* unlockedName;
  };
  // clang-format off
  const Case cases[] = {{"wait", [&](Locker& l) { cond.wait(l); }, "wait"},
                        {"tryWait", [&](Locker& l) { (void)cond.tryWait(l, 10000); }, "trywait"},
                        {"notify", [&](Locker& l) { cond.notify(l); }, "notify"},
                        {"notifyAll", [&](Locker& l) { cond.notifyAll(l); }, "notifyAll"}};
  // clang-format on
  const std::string source = "zorv.foundation.threading.LockCondition.";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    // A Locker on this lock or another, released or not; the unlocked check
    // comes first, and the Locker is left alone.
    for (Lock* on : {&lock, &other}) {
      for (const bool release : {true, false}) {
        if (on == &lock && !release) continue;  // the proper use
        Locker locker(*on, false);
        if (release) locker.unlock();
        EXPECT_ZORV_THROW(c.call(locker), release ? source + c.unlockedName : source + c.name,
                          release ? "locker is unlocked" : "lock is incorrect");
        EXPECT_EQ(locker.isLocked(), !release);
      }
    }
  }
}

TEST_F(LockConditionTest, DeadlineAddsMillisecondsWithOneCarry) {
  // Rows of the time now, the milliseconds added and the deadline.
  // clang-format off
  const std::tuple<long, long, unsigned int, long, long> cases[] = {
      {100, 600000000, 1500, 102, 100000000},  // carries into the next second
      {100, 500000000, 500, 101, 0},           // exactly one second: carried
      {100, 499999999, 500, 100, 999999999},   // just below: no carry
      {0, 999000000, 4294967295U, 4294968, 294000000}};
  // clang-format on
  for (const auto& [nowSec, nowNsec, ms, sec, nsec] : cases) {
    SCOPED_TRACE(::testing::Message() << nowSec << "s " << nowNsec << "ns + " << ms << "ms");
    const struct timespec deadline =
        LockCondition::_Deadline({static_cast<time_t>(nowSec), nowNsec}, ms);
    EXPECT_EQ(static_cast<long>(deadline.tv_sec), sec);
    EXPECT_EQ(static_cast<long>(deadline.tv_nsec), nsec);
  }
}

// Timed waits that nobody ends: each returns its result after at least its
// time-out (none when the predicate holds), having asked the predicate
// `calls` times.
TEST_F(LockConditionTest, TimedWaitsReturnAfterTheirTimeOut) {
  Lock lock;
  LockCondition cond(lock);
  int calls = 0;
  const std::function<bool()> never = [&] { return ++calls < 0; };
  const std::function<bool()> always = [&] { return ++calls > 0; };
  // nagged: another thread keeps waking the waiter (1: every 10 ms, 2: many
  // times a millisecond) without ever making the predicate true; the budget
  // is the time spent waiting, and wake-ups do not restart it (calls is then
  // a least number). The nagging ends after the longest wait allowed.
  using H = LockConditionHelper;
  const std::tuple<const char*, std::function<bool(Locker&)>, bool, int, int, int> cases[] = {
      {"tryWait 120", [&](Locker& l) { return cond.tryWait(l, 120); }, false, 0, 119, 0},
      {"WaitFor, holds", [&](Locker& l) { return H::WaitFor(cond, l, always); }, true, 0, 0, 1},
      {"WaitFor 10000, holds", [&](Locker& l) { return H::WaitFor(cond, l, 10000, always); }, true,
       0, 0, 1},
      // once before the wait, once after the time-out
      {"WaitFor 150, never holds", [&](Locker& l) { return H::WaitFor(cond, l, 150, never); },
       false, 0, 149, 2},
      {"WaitFor 300, woken often", [&](Locker& l) { return H::WaitFor(cond, l, 300, never); },
       false, 1, 250, 3},
      {"WaitFor 300, woken all the time", [&](Locker& l) { return H::WaitFor(cond, l, 300, never); },
       false, 2, 250, 3}};
  for (const auto& [name, wait, result, nagged, atLeast, expectedCalls] : cases) {
    SCOPED_TRACE(name);
    std::atomic<bool> stop{nagged == 0};
    const Clock::time_point giveUp = Clock::now() + milliseconds(atLeast) + zorv::test::Margin(2000);
    const std::chrono::microseconds period(nagged == 1 ? 10000 : 50);
    std::thread nagger([&] {
      while (!stop && Clock::now() < giveUp) {
        std::this_thread::sleep_for(period);
        Locker locker(lock, false);
        cond.notifyAll(locker);
      }
    });
    Locker locker(lock, false);
    calls = 0;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(wait(locker), result);
    const long long waited = std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
    EXPECT_GE(waited, atLeast);
    EXPECT_LT(waited, atLeast + zorv::test::Margin(2000).count());
    EXPECT_TRUE(nagged != 0 ? calls >= expectedCalls : calls == expectedCalls) << calls;
    stop = true;
    locker.unlock();
    nagger.join();
  }
}

// Waiters parked on the condition wake when notified: tryWait returns true,
// notifyAll wakes every waiter, WaitFor returns once its predicate holds
// (with or without a time-out), asking it again after every wake-up.
TEST_F(LockConditionTest, NotifiedWaitersWake) {
  // how: 0 tryWait loop, 1 wait loop, 2 WaitFor, 3 WaitFor with time-out
  struct Case {
    const char* name;
    int waiters;
    bool all;
    int how;
  };
  // clang-format off
  const Case cases[] = {{"tryWait, notify", 1, false, 0}, {"tryWait, notifyAll", 4, true, 0},
                        {"wait, notify", 1, false, 1},    {"wait, notifyAll", 3, true, 1},
                        {"WaitFor, notifyAll", 2, true, 2},
                        {"WaitFor with time-out, notify", 1, false, 3}};
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Lock lock;
    LockCondition cond(lock);
    int parked = 0, checks = 0;  // guarded by lock
    bool go = false;
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < c.waiters; ++i) {
      waiters.emplace_back([&] {
        Locker locker(lock, false);
        ++parked;
        const auto ready = [&] { return ++checks > 0 && go; };
        bool result = false;
        if (c.how == 0) {
          // Loops only over spurious wake-ups; each try is far longer than needed.
          while (!go && cond.tryWait(locker, 20000)) {
          }
          result = go;
        } else if (c.how == 1) {
          while (!go) cond.wait(locker);
          result = go;
        } else if (c.how == 2) {
          result = LockConditionHelper::WaitFor(cond, locker, ready);
        } else {
          result = LockConditionHelper::WaitFor(cond, locker, 20000, ready);
        }
        if (result) ++woken;
      });
    }
    const auto allParked = [&] {
      Locker locker(lock, false);
      return parked == c.waiters && checks >= (c.how < 2 ? 0 : c.waiters);
    };
    ASSERT_TRUE(zorv::test::PollUntil(allParked));
    {  // a wake-up that leaves the predicate false
      Locker locker(lock, false);
      checks = 0;
      cond.notifyAll(locker);
    }
    ASSERT_TRUE(zorv::test::PollUntil(allParked));
    {
      Locker locker(lock, false);
      go = true;
      c.all ? cond.notifyAll(locker) : cond.notify(locker);
    }
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_EQ(woken.load(), c.waiters);
  }
}

}  // namespace
