// FiledLock: exclusion by name within a process and between processes, the
// name rule and its exceptions, handle counting, and a semaphore that keeps
// its state after every object of its name is gone.
#include "foundation/system/filedlock.h"

#include <errno.h>
#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "foundation/debug/objectmonitor.h"
#include "foundation/debug/systemmonitor.h"
#include "foundation/lang/exception.h"
#include "foundation/threading/lock.h"
#include "support/boundedwait.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::debug::ObjectMonitor;
using zorv::foundation::debug::SystemMonitor;
using zorv::foundation::system::FiledLock;
using zorv::foundation::threading::ITryLock;
using zorv::foundation::threading::Locker;

constexpr char kFunc[] = "zorv.foundation.system.FiledLock";

// Gives each test fresh lock names and removes their semaphores afterwards:
// the library never unlinks them, so the test must.
class FiledLockTest : public zorv::test::LeakCheckedTest {
 protected:
  std::string freshName(const std::string& suffix = "") {
    static std::atomic<int> counter{0};
    std::string name = "zorv-test-lock-" + std::to_string(getpid()) + "-" +
                       std::to_string(counter.fetch_add(1)) + suffix;
    names_.push_back(name);
    sem_unlink(("/" + name).c_str());  // a leftover of an aborted earlier run
    return name;
  }

  void TearDown() override {
    for (const std::string& name : names_) sem_unlink(("/" + name).c_str());
    LeakCheckedTest::TearDown();
  }

 private:
  std::vector<std::string> names_;
};

TEST_F(FiledLockTest, TwoObjectsOfOneNameExcludeEachOther) {
  const std::string name = freshName();
  FiledLock first(name.c_str());
  FiledLock second(name.c_str());
  first.lock();
  EXPECT_FALSE(second.tryLock());
  EXPECT_FALSE(first.tryLock()) << "not recursive";
  first.unlock();
  EXPECT_TRUE(second.tryLock());
  EXPECT_FALSE(first.tryLock());
  second.unlock();
  // Another name is another lock.
  const std::string other = freshName();
  FiledLock third(other.c_str());
  first.lock();
  EXPECT_TRUE(third.tryLock());
  third.unlock();
  first.unlock();
}

TEST_F(FiledLockTest, LockBlocksUntilTheHolderUnlocks) {
  const std::string name = freshName();
  FiledLock holder(name.c_str());
  FiledLock waiter(name.c_str());
  holder.lock();
  std::atomic<bool> taken{false};
  std::thread thread([&] {
    waiter.lock();
    taken = true;
    waiter.unlock();
  });
  // The waiter must still be blocked after a while.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(taken.load());
  holder.unlock();
  const bool released = zorv::test::PollUntil([&] { return taken.load(); });
  EXPECT_TRUE(released);
  if (!released) holder.unlock();  // let the thread go so that it can be joined
  thread.join();
  EXPECT_TRUE(holder.tryLock());
  holder.unlock();
}

TEST_F(FiledLockTest, WorksUnderALocker) {
  const std::string name = freshName();
  FiledLock lock(name.c_str());
  FiledLock other(name.c_str());
  {
    Locker locker(lock, false);
    EXPECT_FALSE(other.tryLock());
  }
  EXPECT_TRUE(other.tryLock());
  other.unlock();
  ITryLock& asInterface = lock;
  EXPECT_TRUE(asInterface.tryLock());
  asInterface.unlock();
}

// Runs `body` in a fork()ed child and returns its exit status, or -1 when the
// child did not end within the limit (it is then killed).
template <class Body>
int RunChild(Body body, int* pipeOut = nullptr) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  const pid_t child = fork();
  if (child == -1) return -1;
  if (child == 0) {
    close(fds[0]);
    _exit(body(fds[1]));
  }
  close(fds[1]);
  if (pipeOut != nullptr)
    *pipeOut = fds[0];
  else
    close(fds[0]);
  return static_cast<int>(child);
}

int WaitChild(pid_t child) {
  int status = 0;
  const bool ended =
      zorv::test::PollUntil([&] { return waitpid(child, &status, WNOHANG) == child; });
  if (!ended) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Reads one byte from `fd`, waiting at most the long limit.
bool ReadSignal(int fd) {
  char byte = 0;
  bool got = false;
  zorv::test::PollUntil([&] {
    const int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    got = read(fd, &byte, 1) == 1;
    return got;
  });
  return got;
}

TEST_F(FiledLockTest, ExcludesAForkedChild) {
  const std::string name = freshName();
  FiledLock parent(name.c_str());
  parent.lock();
  int fromChild = -1;
  const pid_t child = RunChild(
      [&name](int toParent) -> int {
        FiledLock lock(name.c_str());
        if (lock.tryLock()) return 10;  // the parent holds it: must fail
        if (write(toParent, "w", 1) != 1) return 11;
        lock.lock();  // blocks until the parent unlocks
        if (write(toParent, "t", 1) != 1) return 12;
        lock.unlock();
        return 0;
      },
      &fromChild);
  ASSERT_GT(child, 0);
  ASSERT_TRUE(ReadSignal(fromChild)) << "the child did not report";
  // The child waits in lock(); give it time to prove it does not get through.
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  char byte = 0;
  EXPECT_NE(read(fromChild, &byte, 1), 1) << "the child took a held lock";
  parent.unlock();
  EXPECT_TRUE(ReadSignal(fromChild)) << "the child never got the lock";
  EXPECT_EQ(WaitChild(child), 0);
  close(fromChild);
  EXPECT_TRUE(parent.tryLock()) << "the child released it";
  parent.unlock();
}

TEST_F(FiledLockTest, ChildHoldingTheLockExcludesTheParent) {
  const std::string name = freshName();
  FiledLock parent(name.c_str());
  int fromChild = -1;
  const pid_t child = RunChild(
      [&name](int toParent) -> int {
        FiledLock lock(name.c_str());
        if (!lock.tryLock()) return 10;
        if (write(toParent, "h", 1) != 1) return 11;
        return 0;  // ends while holding the lock
      },
      &fromChild);
  ASSERT_GT(child, 0);
  ASSERT_TRUE(ReadSignal(fromChild));
  EXPECT_EQ(WaitChild(child), 0);
  close(fromChild);
  EXPECT_FALSE(parent.tryLock()) << "a holder that ended leaves the lock taken";
  parent.unlock();
  EXPECT_TRUE(parent.tryLock());
  parent.unlock();
}

TEST_F(FiledLockTest, StaysTakenAfterEveryObjectOfItsNameIsDestroyed) {
  const std::string name = freshName();
  {
    FiledLock first(name.c_str());
    FiledLock second(name.c_str());
    first.lock();
  }
  FiledLock later(name.c_str());
  EXPECT_FALSE(later.tryLock());
  later.unlock();
  EXPECT_TRUE(later.tryLock());
  later.unlock();
  // The semaphore itself is still there after this object too.
  { FiledLock gone(name.c_str()); }
  sem_t* raw = sem_open(("/" + name).c_str(), 0);
  ASSERT_NE(raw, SEM_FAILED) << "the library unlinked the semaphore";
  int value = -1;
  EXPECT_EQ(sem_getvalue(raw, &value), 0);
  EXPECT_EQ(value, 1);
  sem_close(raw);
}

TEST_F(FiledLockTest, UnlockWithoutLockLetsTwoHoldersIn) {
  const std::string name = freshName();
  FiledLock a(name.c_str());
  FiledLock b(name.c_str());
  FiledLock c(name.c_str());
  a.unlock();  // count 2
  EXPECT_TRUE(a.tryLock());
  EXPECT_TRUE(b.tryLock());
  EXPECT_FALSE(c.tryLock());
  a.unlock();
  b.unlock();
}

TEST_F(FiledLockTest, NameRule) {
  struct Case {
    std::string name;
    const char* error;  // null: no exception
  };
  const std::string tooLong(300, 'x');
  const Case cases[] = {
      {"ab", nullptr},
      {"a/b", "illegal name(contains '/')"},
      {"/ab", "illegal name(contains '/')"},
      {"ab/", "illegal name(contains '/')"},
      {"/", "illegal name(contains '/')"},
      {"", "initialize failed"},
      {tooLong, "initialize failed"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("name '" + c.name.substr(0, 20) + "'");
    const long long handles = SystemMonitor::LiveHandles();
    const unsigned long long objects = ObjectMonitor::LiveObjects();
    if (c.error == nullptr) {
      const std::string name = freshName(c.name);
      FiledLock lock(name.c_str());
      EXPECT_EQ(SystemMonitor::LiveHandles(), handles + 1);
      EXPECT_EQ(ObjectMonitor::LiveObjects(), objects + 1);
    } else {
      EXPECT_ZORV_THROW(FiledLock lock(c.name.c_str()), kFunc, c.error);
    }
    EXPECT_EQ(SystemMonitor::LiveHandles(), handles);
    EXPECT_EQ(ObjectMonitor::LiveObjects(), objects);
  }
  EXPECT_ZORV_THROW(FiledLock lock(nullptr), kFunc, "initialize failed");
}

TEST_F(FiledLockTest, CreatedForTheOwnerOnly) {
  const std::string name = freshName();
  FiledLock lock(name.c_str());
  struct stat info;
  ASSERT_EQ(stat(("/dev/shm/sem." + name).c_str(), &info), 0) << "semaphore file not found";
  EXPECT_EQ(info.st_mode & 0077, 0u) << "group and others have no access";
  EXPECT_EQ(info.st_mode & 0600, 0600u);
}

}  // namespace
