#include "foundation/threading/lock.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "foundation/debug/systemmonitor.h"
#include "foundation/lang/exception.h"
#include "support/boundedwait.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::debug::SystemMonitor;
using zorv::foundation::threading::ILock;
using zorv::foundation::threading::ITryLock;
using zorv::foundation::threading::Lock;
using zorv::foundation::threading::Locker;
using zorv::test::Gate;
using zorv::test::GateOpener;

using LockTest = zorv::test::LeakCheckedTest;
using LockerTest = zorv::test::LeakCheckedTest;

// An ILock that counts the calls made on it.
class CountingLock : public ILock {
 public:
  void lock() override { ++locks; }
  void unlock() override { ++unlocks; }
  int locks = 0;
  int unlocks = 0;
};

// True when another thread can take `lock` now (it lets go at once).
bool FreeForOthers(Lock& lock) {
  bool taken = false;
  std::thread other([&] {
    taken = lock.tryLock();
    if (taken) lock.unlock();
  });
  other.join();
  return taken;
}

// A lock is one counted handle. Recursive for its holder through lock(),
// tryLock() and Lockers, free for other threads only after as many unlocks
// as holds. Each step acts on the lock from this thread, then checks whether
// another thread could take it.
TEST_F(LockTest, IsRecursiveAndFreeAfterMatchingUnlocks) {
  // op: lock, unlock, try, locker (scope of a nested Locker), adopt
  struct Step { const char* op; bool freeAfter; };
  const Step steps[] = {
      {"lock", false},   {"lock", false},  {"try", false},  {"unlock", false},
      {"unlock", false}, {"unlock", true}, {"try", false},  {"locker", false},
      {"unlock", true},  {"locker", true}, {"lock", false}, {"adopt", true},
  };
  const long long handles = SystemMonitor::LiveHandles();
  std::unique_ptr<Lock> other(new Lock);
  Lock lock;
  EXPECT_EQ(SystemMonitor::LiveHandles(), handles + 2);
  EXPECT_NE(lock.handle(), nullptr);
  EXPECT_NE(other->handle(), lock.handle());
  other.reset();
  EXPECT_EQ(SystemMonitor::LiveHandles(), handles + 1);
  ITryLock& tryable = lock;
  for (const Step& s : steps) {
    SCOPED_TRACE(s.op);
    const std::string op = s.op;
    if (op == "lock") {
      tryable.lock();
    } else if (op == "unlock") {
      tryable.unlock();
    } else if (op == "try") {
      EXPECT_TRUE(tryable.tryLock()) << "the holder or a free lock";
    } else if (op == "locker") {
      Locker outer(lock, false);
      {
        Locker inner(&lock, false);
        EXPECT_TRUE(inner.isLocked());
      }
      EXPECT_FALSE(FreeForOthers(lock)) << "the outer hold remains";
    } else {
      Locker adopting(lock, true);
    }
    EXPECT_EQ(FreeForOthers(lock), s.freeAfter);
  }
  // Held by another thread: tryLock here fails until it lets go.
  Gate held, release;
  GateOpener opener(release);
  std::thread holder([&] {
    Locker locker(lock, false);
    held.open();
    release.wait();
  });
  ASSERT_TRUE(held.wait());
  EXPECT_FALSE(lock.tryLock());
  release.open();
  holder.join();
  EXPECT_TRUE(lock.tryLock());
  lock.unlock();
}

TEST_F(LockTest, ExcludesOtherThreads) {
  Lock lock;
  const int threads = 4;
  const int rounds = zorv::test::SlowTarget() ? 2000 : 20000;
  long long counter = 0;  // deliberately not atomic: the lock guards it
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&] {
      for (int i = 0; i < rounds; ++i) {
        Locker locker(lock, false);
        if (inside.fetch_add(1) != 0) overlapped = true;
        ++counter;
        inside.fetch_sub(1);
      }
    });
  }
  for (std::thread& worker : workers) worker.join();
  EXPECT_FALSE(overlapped.load());
  EXPECT_EQ(counter, static_cast<long long>(threads) * rounds);
}

// Takes the lock or adopts a held one, and releases it at the end of its
// scope; a null lock is refused either way.
TEST_F(LockerTest, TakesOrAdoptsAndAlwaysReleases) {
  for (const bool alreadyLocked : {false, true}) {
    SCOPED_TRACE(alreadyLocked ? "adopt" : "take");
    EXPECT_ZORV_THROW(Locker(static_cast<ILock*>(nullptr), alreadyLocked),
                      "zorv.foundation.threading.Locker", "lock is nullptr");
    CountingLock counting;
    {
      Locker locker(counting, alreadyLocked);
      EXPECT_TRUE(locker.isLocked());
      EXPECT_EQ(counting.locks, alreadyLocked ? 0 : 1);
      EXPECT_EQ(counting.unlocks, 0);
      EXPECT_EQ(locker.getLock(), &counting);
    }
    EXPECT_EQ(counting.locks, alreadyLocked ? 0 : 1);
    EXPECT_EQ(counting.unlocks, 1) << "released at the end of the scope";
  }
}

// Through one Locker, lock() and unlock() act only on a change of state; a
// Locker released last does not unlock again at the end of its scope.
TEST_F(LockerTest, LockAndUnlockAreIdempotentPerLocker) {
  struct Step { bool lock; int locks, unlocks; };
  const Step steps[] = {{true, 1, 0}, {false, 1, 1}, {false, 1, 1}, {true, 2, 1}, {false, 2, 2}};
  CountingLock counting;
  {
    Locker locker(&counting, false);
    for (const Step& step : steps) {
      step.lock ? locker.lock() : locker.unlock();
      EXPECT_EQ(locker.isLocked(), step.lock);
      EXPECT_EQ(counting.locks, step.locks);
      EXPECT_EQ(counting.unlocks, step.unlocks);
    }
  }
  EXPECT_EQ(counting.unlocks, 2) << "a released Locker does not unlock again";
}

}  // namespace
