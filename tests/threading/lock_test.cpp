#include "foundation/threading/lock.h"

#include <string>
#include <thread>
#include <utility>

#include "foundation/debug/systemmonitor.h"
#include "foundation/lang/exception.h"
#include "support/boundedwait.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::debug::SystemMonitor;
using zorv::foundation::threading::ILock;
using zorv::foundation::threading::Lock;
using zorv::foundation::threading::Locker;

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
  const std::pair<std::string, bool> steps[] = {
      {"lock", false},   {"lock", false},  {"try", false},  {"unlock", false},
      {"unlock", false}, {"unlock", true}, {"try", false},  {"locker", false},
      {"unlock", true},  {"locker", true}, {"lock", false}, {"adopt", true},
  };
  const long long handles = SystemMonitor::LiveHandles();
  Lock lock;
  EXPECT_EQ(SystemMonitor::LiveHandles(), handles + 1);
  EXPECT_NE(lock.handle(), nullptr);
  zorv::foundation::threading::ITryLock& tryable = lock;
  for (const auto& [op, freeAfter] : steps) {
    SCOPED_TRACE(op);
    if (op == "lock") {
      tryable.lock();
    } else if (op == "unlock") {
      tryable.unlock();
    } else if (op == "try") {
      EXPECT_TRUE(tryable.tryLock()) << "the holder or a free lock";
    } else if (op == "locker") {
      Locker outer(lock, false);
      (void)Locker(&lock, false);  // a nested hold, released at once
      EXPECT_FALSE(FreeForOthers(lock)) << "the outer hold remains";
    } else {
      Locker adopting(lock, true);
    }
    EXPECT_EQ(FreeForOthers(lock), freeAfter);
  }
}

// Takes the lock or adopts a held one (a null lock is refused either way);
// lock() and unlock() act only on a change of state, and the end of the
// scope releases the lock once, only when the Locker still holds it.
TEST_F(LockerTest, TakesOrAdoptsAndActsOnlyOnAChangeOfState) {
  // Each step: lock() or unlock(), and the calls made on the lock since the
  // construction.
  struct Step {
    bool lock;
    int locks, unlocks;
  };
  const Step steps[] = {{true, 0, 0}, {false, 0, 1}, {false, 0, 1}, {true, 1, 1}, {false, 1, 2}};
  for (const bool adopt : {false, true}) {
    SCOPED_TRACE(adopt ? "adopt" : "take");
    EXPECT_ZORV_THROW(Locker(static_cast<ILock*>(nullptr), adopt),
                      "zorv.foundation.threading.Locker", "lock is nullptr");
    CountingLock counting;
    const int taken = adopt ? 0 : 1;
    {
      Locker locker(counting, adopt);
      EXPECT_EQ(locker.getLock(), &counting);
      for (int i = 0; i < (adopt ? 4 : 5); ++i) {  // adopting ends held, taking released
        steps[i].lock ? locker.lock() : locker.unlock();
        EXPECT_EQ(locker.isLocked(), steps[i].lock);
        EXPECT_EQ(counting.locks, taken + steps[i].locks);
        EXPECT_EQ(counting.unlocks, steps[i].unlocks);
      }
    }
    EXPECT_EQ(counting.unlocks, 2) << "released at the end of the scope only when held";
  }
}

}  // namespace
