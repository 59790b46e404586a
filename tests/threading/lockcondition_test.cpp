#include "foundation/threading/lockcondition.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "foundation/debug/systemmonitor.h"
#include "foundation/lang/exception.h"
#include "foundation/threading/lock.h"
#include "support/boundedwait.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::debug::SystemMonitor;
using zorv::foundation::threading::ILockCondition;
using zorv::foundation::threading::Lock;
using zorv::foundation::threading::LockCondition;
using zorv::foundation::threading::LockConditionHelper;
using zorv::foundation::threading::Locker;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

using LockConditionTest = zorv::test::LeakCheckedTest;
using WaitForTest = zorv::test::LeakCheckedTest;

long long MillisSince(Clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
}

TEST_F(LockConditionTest, ConstructionChecksTheLockAndCountsAHandle) {
  EXPECT_ZORV_THROW(LockCondition(static_cast<Lock*>(nullptr)),
                    "zorv.foundation.threading.LockCondition", "lock is nullptr");
  Lock lock;
  const long long before = SystemMonitor::LiveHandles();
  {
    LockCondition byPointer(&lock);
    LockCondition byReference(lock);
    EXPECT_EQ(SystemMonitor::LiveHandles(), before + 2);
  }
  EXPECT_EQ(SystemMonitor::LiveHandles(), before);
}

TEST_F(LockConditionTest, MisuseThrowsWithTheOperationsSources) {
  Lock lock;
  Lock other;
  LockCondition cond(lock);
  struct Case {
    const char* name;
    std::function<void(Locker&)> call;
    const char* unlockedSource;
    const char* incorrectSource;
  };
  const Case cases[] = {
      {"wait", [&](Locker& l) { cond.wait(l); }, "zorv.foundation.threading.LockCondition.wait",
       "zorv.foundation.threading.LockCondition.wait"},
      {"tryWait", [&](Locker& l) { (void)cond.tryWait(l, 10000); },
       "zorv.foundation.threading.LockCondition.trywait",
       "zorv.foundation.threading.LockCondition.tryWait"},
      {"notify", [&](Locker& l) { cond.notify(l); },
       "zorv.foundation.threading.LockCondition.notify",
       "zorv.foundation.threading.LockCondition.notify"},
      {"notifyAll", [&](Locker& l) { cond.notifyAll(l); },
       "zorv.foundation.threading.LockCondition.notifyAll",
       "zorv.foundation.threading.LockCondition.notifyAll"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    {
      Locker unlocked(lock, false);
      unlocked.unlock();
      EXPECT_ZORV_THROW(c.call(unlocked), c.unlockedSource, "locker is unlocked");
      EXPECT_FALSE(unlocked.isLocked()) << "the locker is left alone";
    }
    {
      Locker wrong(other, false);
      EXPECT_ZORV_THROW(c.call(wrong), c.incorrectSource, "lock is incorrect");
      EXPECT_TRUE(wrong.isLocked());
    }
    {
      // The unlocked check comes first, even for a Locker on another lock.
      Locker wrongAndUnlocked(other, false);
      wrongAndUnlocked.unlock();
      EXPECT_ZORV_THROW(c.call(wrongAndUnlocked), c.unlockedSource, "locker is unlocked");
    }
  }
}

TEST_F(LockConditionTest, DeadlineAddsMillisecondsWithOneCarry) {
  struct Case {
    long nowSec;
    long nowNsec;
    unsigned int ms;
    long sec;
    long nsec;
  };
  const Case cases[] = {
      {100, 0, 0, 100, 0},
      {100, 0, 1500, 101, 500000000},
      {100, 600000000, 1500, 102, 100000000},  // carries into the next second
      {100, 500000000, 500, 101, 0},           // exactly one second: carried
      {100, 499999999, 500, 100, 999999999},   // just below: no carry
      {7, 999999999, 1, 8, 999999},
      {0, 0, 999, 0, 999000000},
      {0, 999000000, 4294967295U, 4294968, 294000000},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.nowSec) + "s " + std::to_string(c.nowNsec) + "ns + " +
                 std::to_string(c.ms) + "ms");
    struct timespec now;
    now.tv_sec = static_cast<time_t>(c.nowSec);
    now.tv_nsec = c.nowNsec;
    const struct timespec deadline = LockCondition::_Deadline(now, c.ms);
    EXPECT_EQ(static_cast<long>(deadline.tv_sec), c.sec);
    EXPECT_EQ(static_cast<long>(deadline.tv_nsec), c.nsec);
  }
}

TEST_F(LockConditionTest, TryWaitTimesOutOnTheMonotonicClock) {
  Lock lock;
  LockCondition cond(lock);
  Locker locker(lock, false);
  Clock::time_point start = Clock::now();
  EXPECT_FALSE(cond.tryWait(locker, 0)) << "deadline is now";
  EXPECT_LT(MillisSince(start), 5000);
  EXPECT_TRUE(locker.isLocked());

  start = Clock::now();
  EXPECT_FALSE(cond.tryWait(locker, 120));
  const long long waited = MillisSince(start);
  EXPECT_GE(waited, 119);
  EXPECT_LT(waited, 10000);
  // Holding the lock again: another thread cannot take it.
  bool taken = true;
  std::thread other([&] {
    taken = lock.tryLock();
    if (taken) lock.unlock();
  });
  other.join();
  EXPECT_FALSE(taken);
}

TEST_F(LockConditionTest, TryWaitReturnsTrueWhenNotified) {
  Lock lock;
  LockCondition cond(lock);
  bool waiting = false;  // guarded by lock
  bool notified = false;
  bool woken = false;
  std::thread waiter([&] {
    Locker locker(lock, false);
    waiting = true;
    // Loops only over spurious wake-ups; each try is far longer than needed.
    while (!notified) {
      if (!cond.tryWait(locker, 20000)) break;
    }
    woken = notified;
  });
  ASSERT_TRUE(zorv::test::PollUntil([&] {
    Locker locker(lock, false);
    return waiting;
  }));
  {
    Locker locker(lock, false);
    notified = true;
    cond.notify(locker);
  }
  waiter.join();
  EXPECT_TRUE(woken);
}

TEST_F(LockConditionTest, WaitAndNotifyPingPong) {
  Lock lock;
  LockCondition cond(lock);
  const int rounds = zorv::test::SlowTarget() ? 200 : 2000;
  int turn = 0;  // even: main's turn, odd: the other's; guarded by lock
  std::thread other([&] {
    Locker locker(lock, false);
    for (int i = 0; i < rounds; ++i) {
      while (turn % 2 == 0) cond.wait(locker);
      ++turn;
      cond.notify(locker);
    }
  });
  {
    Locker locker(lock, false);
    for (int i = 0; i < rounds; ++i) {
      ++turn;
      cond.notify(locker);
      while (turn % 2 == 1) {
        ASSERT_TRUE(cond.tryWait(locker, 20000) || turn % 2 == 0) << "the other side stalled";
      }
    }
  }
  other.join();
  EXPECT_EQ(turn, 2 * rounds);
}

TEST_F(LockConditionTest, NotifyAllWakesEveryWaiter) {
  Lock lock;
  LockCondition cond(lock);
  const int count = 4;
  int parked = 0;  // guarded by lock
  bool go = false;
  std::atomic<int> woken{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < count; ++i) {
    waiters.emplace_back([&] {
      Locker locker(lock, false);
      ++parked;
      while (!go) {
        if (!cond.tryWait(locker, 20000)) return;
      }
      ++woken;
    });
  }
  ASSERT_TRUE(zorv::test::PollUntil([&] {
    Locker locker(lock, false);
    return parked == count;
  }));
  {
    Locker locker(lock, false);
    go = true;
    cond.notifyAll(locker);
  }
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(woken.load(), count);
}

TEST_F(WaitForTest, EmptyPredicateThrowsBadFunctionCall) {
  Lock lock;
  LockCondition cond(lock);
  Locker locker(lock, false);
  const std::function<bool()> empty;
  EXPECT_THROW(LockConditionHelper::WaitFor(cond, locker, empty), std::bad_function_call);
  EXPECT_THROW(LockConditionHelper::WaitFor(cond, locker, 1000, empty), std::bad_function_call);
}

TEST_F(WaitForTest, ChecksThePredicateBeforeWaiting) {
  Lock lock;
  LockCondition cond(lock);
  Locker locker(lock, false);
  int calls = 0;
  const Clock::time_point start = Clock::now();
  EXPECT_TRUE(LockConditionHelper::WaitFor(cond, locker, [&] { return ++calls > 0; }));
  EXPECT_TRUE(LockConditionHelper::WaitFor(cond, locker, 10000, [&] { return ++calls > 0; }));
  EXPECT_EQ(calls, 2);
  EXPECT_LT(MillisSince(start), 5000) << "no wait when the predicate holds";
}

TEST_F(WaitForTest, WithoutTimeOutWaitsUntilThePredicateHolds) {
  Lock lock;
  LockCondition cond(lock);
  bool ready = false;  // guarded by lock
  int checks = 0;
  std::thread setter([&] {
    // Two notifications: the first leaves the predicate false.
    for (int step = 0; step < 2; ++step) {
      zorv::test::PollUntil([&] {
        Locker locker(lock, false);
        return checks > step;
      });
      Locker locker(lock, false);
      if (step == 1) ready = true;
      cond.notifyAll(locker);
    }
  });
  bool result = false;
  {
    Locker locker(lock, false);
    result = LockConditionHelper::WaitFor(cond, locker, [&] {
      ++checks;
      return ready;
    });
  }
  setter.join();
  EXPECT_TRUE(result);
  EXPECT_GE(checks, 2);
}

TEST_F(WaitForTest, WithTimeOutReturnsTrueOnceThePredicateHolds) {
  Lock lock;
  LockCondition cond(lock);
  bool ready = false;  // guarded by lock
  std::thread setter([&] {
    std::this_thread::sleep_for(milliseconds(20));
    Locker locker(lock, false);
    ready = true;
    cond.notify(locker);
  });
  bool result = false;
  {
    Locker locker(lock, false);
    result = LockConditionHelper::WaitFor(cond, locker, 20000, [&] { return ready; });
  }
  setter.join();
  EXPECT_TRUE(result);
}

TEST_F(WaitForTest, WithTimeOutGivesUpAfterTheBudget) {
  Lock lock;
  LockCondition cond(lock);
  Locker locker(lock, false);
  int calls = 0;
  const Clock::time_point start = Clock::now();
  EXPECT_FALSE(LockConditionHelper::WaitFor(cond, locker, 150, [&] {
    ++calls;
    return false;
  }));
  const long long waited = MillisSince(start);
  EXPECT_GE(waited, 149);
  EXPECT_LT(waited, 10000);
  EXPECT_EQ(calls, 2) << "once before the wait, once after the time-out";
}

TEST_F(WaitForTest, WakeUpsShrinkTheBudget) {
  Lock lock;
  LockCondition cond(lock);
  std::atomic<bool> stop{false};
  int calls = 0;  // guarded by lock
  // Keeps waking the waiter without ever making the predicate true.
  std::thread nagger([&] {
    while (!stop) {
      std::this_thread::sleep_for(milliseconds(10));
      Locker locker(lock, false);
      cond.notifyAll(locker);
    }
  });
  bool result = true;
  const Clock::time_point start = Clock::now();
  {
    Locker locker(lock, false);
    result = LockConditionHelper::WaitFor(cond, locker, 300, [&] {
      ++calls;
      return false;
    });
  }
  const long long waited = MillisSince(start);
  stop = true;
  nagger.join();
  EXPECT_FALSE(result);
  EXPECT_GE(waited, 250) << "the budget is the time spent waiting";
  EXPECT_LT(waited, 10000) << "wake-ups do not restart the budget";
  EXPECT_GT(calls, 2) << "the nagger woke it several times";
}

}  // namespace
