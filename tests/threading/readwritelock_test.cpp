#include "foundation/threading/readwritelock.h"

#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "foundation/debug/systemmonitor.h"
#include "foundation/threading/lock.h"
#include "support/boundedwait.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::debug::SystemMonitor;
using zorv::foundation::threading::Locker;
using zorv::test::Gate;
using zorv::test::PollUntil;

using ReadWriteLockTest = zorv::test::LeakCheckedTest;

long ThreadId() { return static_cast<long>(syscall(SYS_gettid)); }

// True when the kernel reports thread `tid` of this process as sleeping
// (blocked), as a thread parked inside the reader-writer lock is.
bool IsBlocked(long tid) {
  char path[64];
  snprintf(path, sizeof path, "/proc/self/task/%ld/stat", tid);
  FILE* file = fopen(path, "r");
  if (file == nullptr) return false;
  char buffer[512] = {};
  const size_t got = fread(buffer, 1, sizeof buffer - 1, file);
  fclose(file);
  buffer[got] = '\0';
  // The state follows the parenthesised command name.
  const char* close = strrchr(buffer, ')');
  return close != nullptr && close[1] == ' ' && close[2] == 'S';
}

// One handle. Readers share the lock, but a
// waiting writer goes before new readers.
TEST_F(ReadWriteLockTest, ReadersShareButAWaitingWriterGoesFirst) {
  const long long handles = SystemMonitor::LiveHandles();
  zorv::foundation::threading::ReadWriteLock rw;
  EXPECT_EQ(SystemMonitor::LiveHandles(), handles + 1);
  std::atomic<int> order{0};  // counts the threads below as they pass the lock
  int firstOut = 0, writerIn = 0, secondIn = 0;
  Gate readerIn;
  Gate releaseReader;
  zorv::test::GateOpener opener(releaseReader);
  std::thread firstReader([&] {
    Locker locker(rw.readLock(), false);
    readerIn.open();
    releaseReader.wait();
    firstOut = ++order;
  });
  ASSERT_TRUE(readerIn.wait());
  Gate sharedIn;
  std::thread sharing([&] {
    Locker locker(rw.readLock(), false);
    sharedIn.open();
  });
  EXPECT_TRUE(sharedIn.wait()) << "a second reader enters while the first holds the lock";
  sharing.join();

  std::atomic<long> writerTid{0};
  std::thread writer([&] {
    writerTid = ThreadId();
    Locker locker(rw.writeLock(), false);
    writerIn = ++order;
  });
  ASSERT_TRUE(PollUntil([&] { return writerTid.load() != 0 && IsBlocked(writerTid.load()); }))
      << "the writer waits behind the reader";

  // Asleep in the lock, not overtaking the writer: an overtaking reader would
  // have passed the lock and ended, and the order below would be wrong too.
  std::atomic<long> readerTid{0};
  std::thread secondReader([&] {
    readerTid = ThreadId();
    Locker locker(rw.readLock(), false);
    secondIn = ++order;
  });
  ASSERT_TRUE(PollUntil([&] { return readerTid.load() != 0 && IsBlocked(readerTid.load()); }))
      << "a new reader blocks while a writer waits";

  releaseReader.open();
  firstReader.join();
  writer.join();
  secondReader.join();
  EXPECT_EQ(std::vector<int>({firstOut, writerIn, secondIn}), std::vector<int>({1, 2, 3}));
}

}  // namespace
