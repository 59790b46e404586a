// FiledLock: exclusion by name within a process and between processes, the
// name rule and its exceptions, handle counting, owner-only access, and a
// semaphore that keeps its state after every object of its name is gone.
#include "foundation/system/filedlock.h"

#include <errno.h>
#include <poll.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "foundation/debug/objectmonitor.h"
#include "foundation/debug/systemmonitor.h"
#include "foundation/lang/exception.h"
#include "foundation/threading/lock.h"
#include "support/boundedwait.h"
#include "support/forked.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::debug::ObjectMonitor;
using zorv::foundation::debug::SystemMonitor;
using zorv::foundation::system::FiledLock;
using zorv::foundation::threading::ITryLock;

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

// The semaphore's count, seen through every object of its name: not
// recursive, no owner, kept after every object is gone. Each row runs one step
// on one of three objects of a name or on a fourth of another name; "d"
// destroys every object and opens them again.
TEST_F(FiledLockTest, ObjectsOfOneNameShareOneCount) {
  // Rows of what a step shows, the object, the call (l lock, u unlock, t
  // tryLock, d destroy all and reopen) and what tryLock returns.
  // clang-format off
  const std::tuple<const char*, int, char, bool> steps[] = {
      {"the holder excludes another object", 0, 'l', true}, {"", 1, 't', false},
      {"not recursive", 0, 't', false}, {"another name is another lock", 3, 't', true},
      {"any object may unlock", 1, 'u', true}, {"", 1, 't', true}, {"", 0, 't', false},
      {"taken after every object is gone", 0, 'd', true}, {"", 2, 't', false}, {"", 2, 'u', true},
      {"unlock without lock lets two holders in", 2, 'u', true}, {"", 0, 't', true},
      {"", 1, 't', true}, {"", 2, 't', false}};
  // clang-format on
  const std::string name = freshName(), names[] = {name, name, name, freshName()};
  std::unique_ptr<FiledLock> locks[4];
  for (int i = 0; i < 4; ++i) locks[i].reset(new FiledLock(names[i].c_str()));
  for (const auto& [what, object, op, result] : steps) {
    SCOPED_TRACE(std::string(what) + " " + op + std::to_string(object));
    ITryLock& lock = *locks[object];
    if (op == 't') {
      EXPECT_EQ(lock.tryLock(), result);
    } else if (op == 'l') {
      lock.lock();
    } else if (op == 'u') {
      lock.unlock();
    } else {
      for (auto& each : locks) each.reset();
      for (int i = 0; i < 4; ++i) locks[i].reset(new FiledLock(names[i].c_str()));
    }
  }
}

// lock() blocks while another process holds the lock, and signals do not
// end its wait (another object of the same process is excluded in the step
// table); a process that ends holding it leaves it taken.
TEST_F(FiledLockTest, ExcludesProcesses) {
  const std::string name = freshName();
  FiledLock holder(name.c_str());
  holder.lock();
  // A child waits in lock() as well, reports when it got through and ends
  // holding the lock. (With errno left at EINTR by an earlier call, lock()
  // still takes the lock once and returns.)
  int fromChild = -1;
  const pid_t child = zorv::test::Fork(
      [&name](int toParent) {
        struct sigaction action = {};
        action.sa_handler = +[](int) {};
        if (sigaction(SIGUSR1, &action, nullptr) != 0) return 12;
        FiledLock lock(name.c_str());
        if (lock.tryLock() || write(toParent, "w", 1) != 1) return 10;
        errno = EINTR;
        lock.lock();
        return write(toParent, "t", 1) == 1 ? 0 : 11;
      },
      &fromChild);
  ASSERT_GT(child, 0);
  EXPECT_EQ(zorv::test::ReadFrom(fromChild, 'w'), "w");
  // Gives the waiting child time to prove that it does not get through,
  // while signals keep interrupting its wait.
  const auto until = std::chrono::steady_clock::now() + zorv::test::Margin(100);
  bool through = false;
  while (!through && std::chrono::steady_clock::now() < until) {
    kill(child, SIGUSR1);
    pollfd ready = {fromChild, POLLIN, 0};
    through = poll(&ready, 1, 10) != 0;
  }
  EXPECT_FALSE(through) << "the child took a held lock";
  holder.unlock();
  EXPECT_EQ(zorv::test::ReadFrom(fromChild, 't'), "t") << "the child never got the lock";
  EXPECT_EQ(zorv::test::WaitChild(child), 0);
  close(fromChild);
  EXPECT_FALSE(holder.tryLock()) << "the lock of an ended holder is free";
}

TEST_F(FiledLockTest, NameRule) {
  const std::string tooLong(300, 'x');
  // A name and the refusal it meets (null: none).
  // clang-format off
  const std::pair<std::string, const char*> cases[] = {
      {"ab", nullptr}, {"a/b", "illegal name(contains '/')"}, {"/ab", "illegal name(contains '/')"},
      {"", "initialize failed"}, {tooLong, "initialize failed"}};
  // clang-format on
  for (const auto& [given, error] : cases) {
    SCOPED_TRACE("name '" + given.substr(0, 20) + "'");
    const long long handles = SystemMonitor::LiveHandles();
    const unsigned long long objects = ObjectMonitor::LiveObjects();
    if (error == nullptr) {
      const std::string name = freshName(given);
      FiledLock lock(name.c_str());
      EXPECT_EQ(SystemMonitor::LiveHandles(), handles + 1);
      EXPECT_EQ(ObjectMonitor::LiveObjects(), objects + 1);
      struct stat info;  // made for the owner only
      ASSERT_EQ(stat(("/dev/shm/sem." + name).c_str(), &info), 0) << "semaphore file not found";
      EXPECT_EQ(info.st_mode & 0677, 0600u) << "not read-write for the owner alone";
    } else {
      EXPECT_ZORV_THROW(FiledLock lock(given.c_str()), kFunc, error);
    }
  }
  EXPECT_ZORV_THROW(FiledLock lock(nullptr), kFunc, "initialize failed");
}

}  // namespace
