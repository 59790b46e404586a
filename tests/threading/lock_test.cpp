#include "foundation/threading/lock.h"

#include <atomic>
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

TEST_F(LockTest, CountsOneHandleWhileItLives) {
  const long long before = SystemMonitor::LiveHandles();
  {
    Lock lock;
    Lock other;
    EXPECT_EQ(SystemMonitor::LiveHandles(), before + 2);
    EXPECT_NE(lock.handle(), nullptr);
    EXPECT_NE(other.handle(), lock.handle());
  }
  EXPECT_EQ(SystemMonitor::LiveHandles(), before);
}

// Recursive for its holder through lock(), tryLock() and Lockers, free for
// other threads only after as many unlocks as holds. Each step acts on the
// lock from this thread, then checks whether another thread could take it.
TEST_F(LockTest, IsRecursiveAndFreeAfterMatchingUnlocks) {
  struct Step {
    const char* op;  // lock, unlock, try, locker (scope of a nested Locker), adopt
    bool freeAfter;
  };
  const Step steps[] = {
      {"lock", false},   {"lock", false},  {"try", false},  {"unlock", false},
      {"unlock", false}, {"unlock", true}, {"try", false},  {"locker", false},
      {"unlock", true},  {"locker", true}, {"lock", false}, {"adopt", true},
  };
  Lock lock;
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

TEST_F(LockerTest, NullLockThrows) {
  EXPECT_ZORV_THROW(Locker(static_cast<ILock*>(nullptr), false), "zorv.foundation.threading.Locker",
                    "lock is nullptr");
  EXPECT_ZORV_THROW(Locker(static_cast<ILock*>(nullptr), true), "zorv.foundation.threading.Locker",
                    "lock is nullptr");
}

TEST_F(LockerTest, TakesOrAdoptsAndAlwaysReleases) {
  struct Case {
    bool alreadyLocked;
    int locksAfterConstruction;
  };
  const Case cases[] = {{false, 1}, {true, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.alreadyLocked ? "adopt" : "take");
    CountingLock counting;
    {
      Locker locker(counting, c.alreadyLocked);
      EXPECT_TRUE(locker.isLocked());
      EXPECT_EQ(counting.locks, c.locksAfterConstruction);
      EXPECT_EQ(counting.unlocks, 0);
      EXPECT_EQ(locker.getLock(), &counting);
    }
    EXPECT_EQ(counting.locks, c.locksAfterConstruction);
    EXPECT_EQ(counting.unlocks, 1) << "released at the end of the scope";
  }
}

TEST_F(LockerTest, LockAndUnlockAreIdempotentPerLocker) {
  CountingLock counting;
  {
    Locker locker(&counting, false);
    locker.lock();
    locker.lock();
    EXPECT_EQ(counting.locks, 1) << "never locks twice through one Locker";
    locker.unlock();
    EXPECT_FALSE(locker.isLocked());
    locker.unlock();
    EXPECT_EQ(counting.unlocks, 1) << "unlock of an unlocked Locker is a no-op";
    locker.lock();
    EXPECT_TRUE(locker.isLocked());
    EXPECT_EQ(counting.locks, 2);
  }
  EXPECT_EQ(counting.unlocks, 2);

  CountingLock released;
  {
    Locker locker(released, false);
    locker.unlock();
  }
  EXPECT_EQ(released.unlocks, 1) << "a released Locker does not unlock again";
}

}  // namespace
