#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "foundation/debug/debug.h"
#include "support/leakcheck.h"
#include "support/tempdir.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::debug::ChronoMonitor;
using zorv::foundation::debug::MemoryMonitor;
using zorv::foundation::debug::ObjectMonitor;
using zorv::foundation::debug::SystemMonitor;

using MonitorsTest = zorv::test::LeakCheckedTest;

TEST_F(MonitorsTest, AllocCountsBlocksAndBytes) {
  const unsigned long long blocks = MemoryMonitor::LiveBlocks();
  const unsigned long long bytes = MemoryMonitor::LiveBytes();
  unsigned char* a = MemoryMonitor::Alloc(100);
  unsigned char* b = MemoryMonitor::Alloc(28);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  a[99] = 1;
  EXPECT_EQ(MemoryMonitor::LiveBlocks(), blocks + 2);
  EXPECT_EQ(MemoryMonitor::LiveBytes(), bytes + 128);
  MemoryMonitor::Dealloc(a, 100);
  MemoryMonitor::Dealloc(b, 28);
  MemoryMonitor::Dealloc(nullptr, 5);  // ignored
  EXPECT_EQ(MemoryMonitor::LiveBlocks(), blocks);
  EXPECT_EQ(MemoryMonitor::LiveBytes(), bytes);
}

TEST_F(MonitorsTest, FailAfterFailsTheNthAllocationOnce) {
  zorv::test::FailAfterGuard guard(3);
  unsigned char* first = MemoryMonitor::Alloc(8);
  unsigned char* second = MemoryMonitor::Alloc(8);
  unsigned char* third = MemoryMonitor::Alloc(8);
  unsigned char* fourth = MemoryMonitor::Alloc(8);
  EXPECT_NE(first, nullptr);
  EXPECT_NE(second, nullptr);
  EXPECT_EQ(third, nullptr);
  EXPECT_NE(fourth, nullptr);
  MemoryMonitor::Dealloc(first, 8);
  MemoryMonitor::Dealloc(second, 8);
  MemoryMonitor::Dealloc(fourth, 8);

  MemoryMonitor::FailAfter(1);
  MemoryMonitor::FailAfter(0);  // switched off before it fired
  unsigned char* kept = MemoryMonitor::Alloc(8);
  EXPECT_NE(kept, nullptr);
  MemoryMonitor::Dealloc(kept, 8);
}

TEST_F(MonitorsTest, CountsStayExactAcrossManyShortLivedThreads) {
  // More threads than the monitor has per-thread slots, each leaving a block
  // for the main thread to free: slots are handed on with their counts.
  const unsigned long long blocks = MemoryMonitor::LiveBlocks();
  const unsigned long long bytes = MemoryMonitor::LiveBytes();
  std::vector<unsigned char*> left(300, nullptr);
  for (size_t round = 0; round < left.size(); round += 30) {
    std::vector<std::thread> threads;
    for (size_t i = round; i < round + 30; ++i) {
      threads.emplace_back([&left, i] {
        for (int k = 0; k < 100; ++k) MemoryMonitor::Dealloc(MemoryMonitor::Alloc(16), 16);
        left[i] = MemoryMonitor::Alloc(10);
      });
    }
    for (std::thread& t : threads) t.join();
  }
  EXPECT_EQ(MemoryMonitor::LiveBlocks(), blocks + left.size());
  EXPECT_EQ(MemoryMonitor::LiveBytes(), bytes + 10 * left.size());
  for (unsigned char* block : left) MemoryMonitor::Dealloc(block, 10);
  EXPECT_EQ(MemoryMonitor::LiveBlocks(), blocks);
}

TEST_F(MonitorsTest, ConcurrentAllocationsBalance) {
  const unsigned long long blocks = MemoryMonitor::LiveBlocks();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      std::vector<unsigned char*> held;
      for (int i = 0; i < 20000; ++i) {
        held.push_back(MemoryMonitor::Alloc(static_cast<unsigned int>(i % 64)));
        if (held.size() > 16) {
          MemoryMonitor::Dealloc(held.front(), static_cast<unsigned int>((i - 16) % 64));
          held.erase(held.begin());
        }
      }
      const int first = 20000 - static_cast<int>(held.size());
      for (size_t k = 0; k < held.size(); ++k) {
        MemoryMonitor::Dealloc(held[k], static_cast<unsigned int>((first + static_cast<int>(k)) % 64));
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(MemoryMonitor::LiveBlocks(), blocks);
}

TEST_F(MonitorsTest, ObjectRecordsCarryBlockAndSize) {
  const unsigned long long objects = ObjectMonitor::LiveObjects();
  unsigned char* block = ObjectMonitor::_Alloc(48);
  ASSERT_NE(block, nullptr);
  ObjectMonitor::_IncLeak(block, "../test/here", 12, "Thing", 48);
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects + 1);
  // Recording the same address again replaces the record.
  ObjectMonitor::_IncLeak(block, "../test/here", 13, "Thing", 48);
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects + 1);
  ObjectMonitor::LeakInfo info = ObjectMonitor::_DecLeakInfoEx(block, "../test/here", 20, "~Thing");
  EXPECT_EQ(info.block, block);
  EXPECT_EQ(info.size, 48u);
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects);
  ObjectMonitor::_Dealloc(info.block, info.size);

  // Forgetting what was never recorded is harmless.
  int unknown = 0;
  ObjectMonitor::_DecLeakEx(&unknown, "x", 1, "~X");
  info = ObjectMonitor::_DecLeakInfoEx(&unknown, "x", 1, "~X");
  EXPECT_EQ(info.block, nullptr);
  EXPECT_EQ(info.size, 0u);
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects);
}

TEST_F(MonitorsTest, ManyObjectsFromManyThreads) {
  const unsigned long long objects = ObjectMonitor::LiveObjects();
  std::vector<std::thread> threads;
  std::vector<std::vector<int> > storage(4, std::vector<int>(5000));
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&storage, t] {
      for (int& slot : storage[t]) ObjectMonitor::_IncLeak(&slot, "../t", 1, "Slot", 4);
      for (int& slot : storage[t]) ObjectMonitor::_DecLeakEx(&slot, "../t", 2, "~Slot");
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects);
}

TEST_F(MonitorsTest, TraceSwitchFollowsEnvironmentAndNeverChanges) {
  const char* env = getenv("ZORV_DEBUG_TRACE");
  const int expected = (env != nullptr && std::string(env) == "1") ? 1 : 0;
  EXPECT_EQ(ObjectMonitor::_IsTrace() != 0, expected != 0);
  setenv("ZORV_DEBUG_TRACE", expected ? "0" : "1", 1);
  EXPECT_EQ(ObjectMonitor::_IsTrace() != 0, expected != 0) << "read once, at load";
  if (env != nullptr) {
    setenv("ZORV_DEBUG_TRACE", env, 1);
  } else {
    unsetenv("ZORV_DEBUG_TRACE");
  }
}

TEST_F(MonitorsTest, HandlesCountUpAndDown) {
  const long long handles = SystemMonitor::LiveHandles();
  SystemMonitor::IncreaseHandle();
  SystemMonitor::IncreaseHandle();
  EXPECT_EQ(SystemMonitor::LiveHandles(), handles + 2);
  SystemMonitor::DecreaseHandle();
  SystemMonitor::DecreaseHandle();
  EXPECT_EQ(SystemMonitor::LiveHandles(), handles);
}

TEST_F(MonitorsTest, ChronometerCountsScopesPerCategoryAndOperation) {
  EXPECT_EQ(ChronoMonitor::Count("test.Category", "Never"), 0u);
  for (int i = 0; i < 5; ++i) {
    ChronoMonitor::Chronometer scope("test.Category", "Op");
  }
  {
    // Equal texts at other addresses are the same pair.
    std::string category = "test.Category";
    std::string operation = "Op";
    ChronoMonitor::Chronometer scope(category.c_str(), operation.c_str());
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  EXPECT_EQ(ChronoMonitor::Count("test.Category", "Op"), 6u);
  EXPECT_GE(ChronoMonitor::MaxNanos("test.Category", "Op"), 2000000u);
  EXPECT_GE(ChronoMonitor::TotalNanos("test.Category", "Op"),
            ChronoMonitor::MaxNanos("test.Category", "Op"));

  // Other text at the same address is another pair.
  char category[32] = "test.Reused.A";
  { ChronoMonitor::Chronometer scope(category, "Op"); }
  memcpy(category, "test.Reused.B", 14);
  { ChronoMonitor::Chronometer scope(category, "Op"); }
  { ChronoMonitor::Chronometer scope(category, "Op"); }
  EXPECT_EQ(ChronoMonitor::Count("test.Reused.A", "Op"), 1u);
  EXPECT_EQ(ChronoMonitor::Count("test.Reused.B", "Op"), 2u);

  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 1000; ++i) ChronoMonitor::Chronometer scope("test.Parallel", "Exec");
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(ChronoMonitor::Count("test.Parallel", "Exec"), 4000u);
}

TEST_F(MonitorsTest, ThreadNamesLastAsLongAsTheirThreadsAndAreGivenToTheSystem) {
  unsigned long long id = 0;
  SafeString whileRunning;
  char osName[32] = {};
  std::thread named([&] {
    ChronoMonitor::SetThreadName(SafeString("zorv.foundation.threading.ThreadPool"));
    id = static_cast<unsigned long long>(pthread_self());
    whileRunning = ChronoMonitor::GetThreadName(id);
    pthread_getname_np(pthread_self(), osName, sizeof osName);
  });
  named.join();
  EXPECT_EQ(whileRunning, "zorv.foundation.threading.ThreadPool");
  // pthread_t values are reused: a later thread must not inherit the name.
  EXPECT_EQ(ChronoMonitor::GetThreadName(id), "") << "the name outlived its thread";
  EXPECT_STREQ(osName, "ding.ThreadPool");
  EXPECT_EQ(std::string(osName).size(), 15u);

  ChronoMonitor::SetThreadName(SafeString("main"));
  ChronoMonitor::SetThreadName(SafeString("renamed"));
  EXPECT_EQ(ChronoMonitor::GetThreadName(static_cast<unsigned long long>(pthread_self())),
            "renamed");
  EXPECT_EQ(ChronoMonitor::GetThreadName(0x12345u), "");
}

// Waits up to `seconds` for the child; kills it and reports false if it
// does not end in time.
bool ChildExitedCleanly(pid_t child, int seconds) {
  for (int i = 0; i < seconds * 100; ++i) {
    int status = 0;
    const pid_t done = waitpid(child, &status, WNOHANG);
    if (done == child) return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    usleep(10000);
  }
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  return false;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZORV_SANITIZED_RUNTIME 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ZORV_SANITIZED_RUNTIME 1
#endif
#endif

TEST_F(MonitorsTest, ForkedChildNeverBlocksOnTheMonitors) {
#ifdef ZORV_SANITIZED_RUNTIME
  // The sanitizers' own allocators may be locked by another thread at fork
  // time; what this test proves is about the monitors, not about them.
  GTEST_SKIP() << "not meaningful under a sanitizer runtime";
#endif
  std::atomic<bool> stop{false};
  std::vector<std::thread> churners;
  for (int t = 0; t < 2; ++t) {
    churners.emplace_back([&stop, t] {
      int objects[8];
      std::string name = "churn" + std::to_string(t);
      while (!stop.load()) {
        for (int& o : objects) ObjectMonitor::_IncLeak(&o, "../t", 1, "Churn", 4);
        MemoryMonitor::Dealloc(MemoryMonitor::Alloc(32), 32);
        { ChronoMonitor::Chronometer scope("test.Fork", name.c_str()); }
        ChronoMonitor::SetThreadName(SafeString(name.c_str()));
        for (int& o : objects) ObjectMonitor::_DecLeakEx(&o, "../t", 2, "~Churn");
      }
    });
  }
  int failures = 0;
  for (int i = 0; i < 20; ++i) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      int object = 0;
      for (int k = 0; k < 100; ++k) {
        MemoryMonitor::Dealloc(MemoryMonitor::Alloc(64), 64);
        ObjectMonitor::_IncLeak(&object, "../child", 1, "Child", 4);
        ObjectMonitor::_DecLeakEx(&object, "../child", 2, "~Child");
        ChronoMonitor::Chronometer scope("test.Fork", "child");
      }
      ChronoMonitor::SetThreadName(SafeString("child"));
      (void)ChronoMonitor::GetThreadName(0);
      _exit(0);
    }
    if (!ChildExitedCleanly(child, 20)) ++failures;
  }
  stop = true;
  for (std::thread& t : churners) t.join();
  EXPECT_EQ(failures, 0);
}

TEST_F(MonitorsTest, ReportListsObjectsBlocksHandlesAndTimings) {
  zorv::test::TempDir dir;
  const std::string path = dir / "report.txt";
  int marker = 0;
  ObjectMonitor::_IncLeak(&marker, "../lang/report", 77, "ReportedThing", 4);
  { ChronoMonitor::Chronometer scope("test.Report", "Print"); }
  fflush(stderr);
  const int saved = dup(2);
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  dup2(fd, 2);
  zorv::foundation::debug::PrintReport();
  fflush(stderr);
  dup2(saved, 2);
  close(saved);
  close(fd);
  ObjectMonitor::_DecLeakEx(&marker, "../lang/report", 78, "~ReportedThing");
  const std::string report = zorv::test::ReadRawFile(path);
  EXPECT_NE(report.find("ReportedThing at ../lang/report:77: 1 object(s)"), std::string::npos)
      << report;
  EXPECT_NE(report.find("live blocks: "), std::string::npos);
  EXPECT_NE(report.find("live handles: "), std::string::npos);
  EXPECT_NE(report.find("test.Report/Print: count 1"), std::string::npos) << report;
}

}  // namespace
