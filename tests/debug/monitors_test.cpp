#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "foundation/debug/debug.h"
#include "reportdiff.h"
#include "support/boundedwait.h"
#include "support/forked.h"
#include "support/leakcheck.h"
#include "support/tempdir.h"

namespace {

using zorv::debugtools::ReportFigures;
using zorv::foundation::SafeString;
using zorv::foundation::debug::ChronoMonitor;
using zorv::foundation::debug::MemoryMonitor;
using zorv::foundation::debug::ObjectMonitor;
using zorv::foundation::debug::ReportFormat;
using zorv::foundation::debug::SystemMonitor;
using zorv::foundation::debug::WriteReport;
using zorv::test::FailSyscall;

// Run as the child of SignalWritesReportsThatTheDiffCompares (ZORV_TEST_LEAKER
// names a file to create once running): leaks one object every 10 ms until
// killed, before any test is even registered. With ZORV_TEST_CLOSE_FAILS,
// close() fails with EIO from then on.
const bool g_leaker = [] {
  const char* ready = getenv("ZORV_TEST_LEAKER");
  if (ready == nullptr) return false;
  const int devNull = open("/dev/null", O_WRONLY);
  const pid_t grandchild = fork();  // a child of a reporting process works
  if (grandchild == 0) _exit(WriteReport(devNull, ReportFormat::kJson) ? 0 : 1);
  int status = -1;
  if (waitpid(grandchild, &status, 0) != grandchild || status != 0) _exit(3);
  close(devNull);
  if (getenv("ZORV_TEST_CLOSE_FAILS") != nullptr) FailSyscall(SYS_close, EIO);
  close(open(ready, O_WRONLY | O_CREAT, 0600));
  static int leaked[6000];
  for (int& object : leaked) {
    ObjectMonitor::_IncLeak(&object, "../leaker", 1, "LeakedEveryTenMs", 4);
    usleep(10000);
  }
  _exit(0);
}();

class MonitorsTest : public zorv::test::LeakCheckedTest {
 protected:
  std::string report(ReportFormat format) {
    const int fd = open((dir_ / "report").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    EXPECT_TRUE(WriteReport(fd, format));
    close(fd);
    return zorv::test::ReadRawFile(dir_ / "report");
  }

  ReportFigures figures(const std::string& json) {
    ReportFigures parsed;
    std::string error;
    EXPECT_TRUE(zorv::debugtools::ParseReport(json, &parsed, &error)) << error << json;
    return parsed;
  }

  // Starts this test program as the leaking child (see g_leaker) with the
  // environment settings `env`; its id (-1 when it cannot be started), and in
  // *up whether it came up in time.
  pid_t startLeaker(const std::string& env, bool* up) {
    const std::string ready = dir_ / "ready";
    const std::string command = "ZORV_TEST_LEAKER=" + ready + " ZORV_DEBUG_SIGNAL=USR1 " + env +
                                " exec " ZORV_TEST_EMULATOR " " ZORV_TEST_SELF;
    const pid_t child = zorv::test::Fork([&](int) {
      return execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr)), 127;
    });
    *up = child > 0 && zorv::test::PollUntil([&] { return access(ready.c_str(), F_OK) == 0; });
    return child;
  }

  int diff(const std::string& older, const std::string& newer, std::string* out) {
    const char* argv[] = {"zorv-debug-diff", older.c_str(), newer.c_str()};
    std::string err;
    const int status = zorv::debugtools::RunDiff(3, argv, out, &err);
    EXPECT_EQ(err.empty(), status != 2) << err;
    return status;
  }

  zorv::test::TempDir dir_;
};

TEST_F(MonitorsTest, BlocksAndHandlesAreCountedBySizeClass) {
  // Rows of a block's size and the ceiling of its class.
  const std::pair<unsigned int, unsigned long long> rows[] = {
      {0, 16}, {16, 16}, {17, 32}, {65536, 65536}, {65537, 4294967295ull}};
  for (const auto& [size, ceiling] : rows) {
    SCOPED_TRACE(size);
    const long long inClass = figures(report(ReportFormat::kJson)).bySize[ceiling];
    unsigned char* block = MemoryMonitor::Alloc(size);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(figures(report(ReportFormat::kJson)).bySize[ceiling], inClass + 1);
    MemoryMonitor::Dealloc(block, size);
    MemoryMonitor::Dealloc(nullptr, 5);  // ignored
    EXPECT_EQ(figures(report(ReportFormat::kJson)).bySize[ceiling], inClass);
  }
  // Each class names its bounds.
  const std::string json = report(ReportFormat::kJson);
  for (const char* bounds : {R"({"min": 0, "max": 16, )", R"({"min": 17, "max": 32, )",
                             R"({"min": 65537, "max": 4294967295, )"}) {
    EXPECT_NE(json.find(bounds), std::string::npos) << bounds;
  }
  const long long handles = SystemMonitor::LiveHandles();
  SystemMonitor::IncreaseHandle();
  EXPECT_EQ(SystemMonitor::LiveHandles(), handles + 1);
  SystemMonitor::DecreaseHandle();  // back, as the fixture checks
}

TEST_F(MonitorsTest, CountsStayExactAcrossManyConcurrentShortLivedThreads) {
  // Rounds of threads, each counting blocks and objects and leaving a block
  // for the main thread to free. Ten rounds of 30: slots are handed on with
  // their counts. Then 300 at once, held until all have counted a block:
  // more than the monitor has per-thread slots, so the last ones count in
  // the shared one together. (The objects come back to the start, as the
  // fixture checks.)
  const unsigned long long blocks = MemoryMonitor::LiveBlocks(), bytes = MemoryMonitor::LiveBytes();
  std::vector<unsigned char*> left(600, nullptr);
  size_t next = 0;
  for (const size_t count : {30, 30, 30, 30, 30, 30, 30, 30, 30, 30, 300}) {
    zorv::test::Gate go;
    zorv::test::GateOpener opener(go);
    std::atomic<size_t> ready{0};
    std::vector<std::thread> threads;
    for (size_t i = next; i < next + count; ++i) {
      threads.emplace_back([&, i] {
        left[i] = MemoryMonitor::Alloc(10);
        ready.fetch_add(1);
        (void)go.wait();
        unsigned char* held[16] = {};
        const unsigned int pairs = count > 30 ? 20000 : 2000;
        for (unsigned int k = 0; k < pairs + 16; ++k) {  // mixed sizes, 16 held at a time
          if (k >= 16) MemoryMonitor::Dealloc(held[k % 16], (k - 16) % 64);
          if (k < pairs) held[k % 16] = MemoryMonitor::Alloc(k % 64);
        }
        int slots[200];
        for (int& slot : slots) ObjectMonitor::_IncLeak(&slot, "../t", 1, "Slot", 4);
        for (int& slot : slots) ObjectMonitor::_DecLeakEx(&slot, "../t", 2, "~Slot");
      });
    }
    EXPECT_TRUE(zorv::test::PollUntil([&] { return ready.load() == count; }));
    go.open();
    for (std::thread& t : threads) t.join();
    next += count;
  }
  EXPECT_EQ(MemoryMonitor::LiveBlocks(), blocks + left.size());
  EXPECT_EQ(MemoryMonitor::LiveBytes(), bytes + 10 * left.size());
  for (unsigned char* block : left) MemoryMonitor::Dealloc(block, 10);
}

TEST_F(MonitorsTest, ObjectRecordsCarryBlockAndSize) {
  const unsigned long long objects = ObjectMonitor::LiveObjects();
  unsigned char* block = ObjectMonitor::_Alloc(48);
  ASSERT_NE(block, nullptr);
  ObjectMonitor::_IncLeak(block, "../test/here", 12, "Thing", 48);
  // Recording the same address again replaces the record.
  ObjectMonitor::_IncLeak(block, "../test/here", 13, "Thing", 48);
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects + 1);
  ObjectMonitor::LeakInfo info = ObjectMonitor::_DecLeakInfoEx(block, "../test/here", 20, "~Thing");
  EXPECT_TRUE(info.block == block && info.size == 48u);
  ObjectMonitor::_Dealloc(info.block, info.size);
  // Forgetting what was never recorded is harmless (the fixture checks the
  // count).
  int unknown = 0;
  ObjectMonitor::_DecLeakEx(&unknown, "x", 1, "~X");
  info = ObjectMonitor::_DecLeakInfoEx(&unknown, "x", 1, "~X");
  EXPECT_TRUE(info.block == nullptr && info.size == 0u);
  // A failed allocation is recorded under a null pointer, once.
  ObjectMonitor::_IncLeak(nullptr, "../test/here", 30, "Failed", 8);
  ObjectMonitor::_IncLeak(nullptr, "../test/here", 31, "Failed", 16);
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects + 1);
  info = ObjectMonitor::_DecLeakInfoEx(nullptr, "../test/here", 32, "~Failed");
  EXPECT_TRUE(info.block == nullptr && info.size == 16u);
}

// Neighbouring addresses crowd the record tables: every record must stay
// findable, with its own size, whatever was forgotten around it and however
// often the tables grew; and forgetting objects never recorded (plain `new`
// tasks) must end whatever the tables' fill.
TEST_F(MonitorsTest, ObjectRecordsSurviveTheirNeighboursComingAndGoing) {
  constexpr unsigned int kObjects = 6000;
  const unsigned long long base = ObjectMonitor::LiveObjects();
  std::vector<char> memory(kObjects * 8), strangers(512);
  std::vector<unsigned int> order(kObjects);
  for (unsigned int i = 0; i < kObjects; ++i) {
    order[i] = i;
    ObjectMonitor::_IncLeak(&memory[i * 8], "../t", 1, "Dense", i);
    for (unsigned int k = 0; k < 8; ++k) {
      ObjectMonitor::_DecLeakEx(&strangers[(i * 8 + k) % strangers.size()], "../t", 4, "~X");
    }
  }
  ASSERT_EQ(ObjectMonitor::LiveObjects(), base + kObjects);
  std::shuffle(order.begin(), order.end(), std::mt19937(7));
  for (unsigned int k = 0; k < kObjects; k += 2) {
    ObjectMonitor::_DecLeakEx(&memory[order[k] * 8], "../t", 2, "~Dense");
  }
  EXPECT_EQ(ObjectMonitor::LiveObjects(), base + kObjects / 2);
  unsigned int lost = 0;
  for (unsigned int k = 1; k < kObjects; k += 2) {
    const ObjectMonitor::LeakInfo info =
        ObjectMonitor::_DecLeakInfoEx(&memory[order[k] * 8], "../t", 3, "~Dense");
    if (info.block != reinterpret_cast<unsigned char*>(&memory[order[k] * 8]) ||
        info.size != order[k]) {
      ++lost;
    }
  }
  EXPECT_EQ(lost, 0u);
  EXPECT_EQ(ObjectMonitor::LiveObjects(), base);
}

TEST_F(MonitorsTest, TraceSwitchFollowsEnvironmentAndNeverChanges) {
  const char* env = getenv("ZORV_DEBUG_TRACE");
  const bool expected = env != nullptr && std::string(env) == "1";
  EXPECT_EQ(ObjectMonitor::_IsTrace() != 0, expected);
  setenv("ZORV_DEBUG_TRACE", expected ? "0" : "1", 1);
  EXPECT_EQ(ObjectMonitor::_IsTrace() != 0, expected) << "read once, at load";
  env != nullptr ? setenv("ZORV_DEBUG_TRACE", env, 1) : unsetenv("ZORV_DEBUG_TRACE");
}

TEST_F(MonitorsTest, ChronometerCountsScopesPerCategoryAndOperation) {
  EXPECT_EQ(ChronoMonitor::Count("test.Category", "Never"), 0u);
  for (int i = 0; i < 5; ++i) ChronoMonitor::Chronometer scope("test.Category", "Op");
  {
    // Equal texts at other addresses are the same pair.
    const std::string category = "test.Category", operation = "Op";
    ChronoMonitor::Chronometer scope(category.c_str(), operation.c_str());
  }
  EXPECT_EQ(ChronoMonitor::Count("test.Category", "Op"), 6u);
  // Other text at the same address is another pair.
  char category[32] = "test.Reused.A";
  { ChronoMonitor::Chronometer scope(category, "Op"); }
  memcpy(category, "test.Reused.B", 14);
  { ChronoMonitor::Chronometer scope(category, "Op"); }
  { ChronoMonitor::Chronometer scope(category, "Op"); }
  EXPECT_EQ(ChronoMonitor::Count("test.Reused.A", "Op"), 1u);
  EXPECT_EQ(ChronoMonitor::Count("test.Reused.B", "Op"), 2u);
  // A null text is an empty one.
  for (int i = 0; i < 2; ++i) {
    ChronoMonitor::Chronometer scope("test.Null", nullptr);
    ChronoMonitor::Chronometer unnamed(nullptr, "test.Null");
  }
  EXPECT_EQ(ChronoMonitor::Count("test.Null", ""), 2u);
  EXPECT_EQ(ChronoMonitor::Count("", "test.Null"), 2u);
  // Many pairs of one category, and of one operation, some of whose places
  // in the table meet, are each their own.
  for (int i = 0; i < 200; ++i) {
    const std::string text = "op" + std::to_string(i);
    ChronoMonitor::Chronometer scope("test.Many", text.c_str());
    ChronoMonitor::Chronometer other(text.c_str(), "test.Many");
  }
  for (int i = 0; i < 200; ++i) {
    const std::string text = "op" + std::to_string(i);
    ASSERT_EQ(ChronoMonitor::Count("test.Many", text.c_str()), 1u) << i;
    ASSERT_EQ(ChronoMonitor::Count(text.c_str(), "test.Many"), 1u) << i;
  }
}

// A scope's time lies between the steady clock's spans just inside and just
// outside it, whichever clock it reads: the process's first scopes read the
// monotonic clock, later ones may read a counter whose rate was measured
// against it (known to some ppm, and read out of order by a few ns).
TEST_F(MonitorsTest, ChronometerAgreesWithTheSteadyClock) {
  using Clock = std::chrono::steady_clock;
  const auto nanos = [](Clock::duration d) {
    return static_cast<unsigned long long>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(d).count());
  };
  const Clock::time_point end = Clock::now() + std::chrono::milliseconds(200);
  for (int round = 0; Clock::now() < end; ++round) {
    const unsigned long long before = ChronoMonitor::TotalNanos("test.Clock", "Spin");
    const Clock::time_point outerStart = Clock::now();
    Clock::time_point innerStart, innerEnd;
    {
      ChronoMonitor::Chronometer scope("test.Clock", "Spin");
      innerStart = Clock::now();
      do innerEnd = Clock::now(); while (innerEnd - innerStart < std::chrono::milliseconds(1));
    }
    const unsigned long long outer = nanos(Clock::now() - outerStart);
    const unsigned long long inner = nanos(innerEnd - innerStart);
    const unsigned long long timed = ChronoMonitor::TotalNanos("test.Clock", "Spin") - before;
    ASSERT_GE(timed + inner / 1000 + 1000, inner) << round;
    ASSERT_LE(timed, outer + outer / 1000 + 1000) << round;
    ASSERT_GE(ChronoMonitor::MaxNanos("test.Clock", "Spin"), timed) << round;
  }
}

// Threads add to counters of their own for their first pairs, from a pool
// that 40 threads of 10 pairs each outrun; the rest go to the shared ones.
// Every scope counts while its thread lives, after it ends, and again when
// later threads take over the counters it gave up.
TEST_F(MonitorsTest, ChronometerCountsEveryThreadsScopesWhileItLivesAndAfter) {
  constexpr int kThreads = 40, kPairs = 10, kScopes = 5;
  const auto op = [](int pair) { return "op" + std::to_string(pair); };
  for (int round = 1; round <= 2; ++round) {
    SCOPED_TRACE(round);
    zorv::test::Gate gate;
    std::atomic<int> timed{0};
    std::vector<std::thread> threads;
    {
      zorv::test::GateOpener opener(gate);
      for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
          for (int i = 0; i < kPairs * kScopes; ++i) {
            const std::string operation = op((t + i) % kPairs);
            ChronoMonitor::Chronometer scope("test.Lanes", operation.c_str());
          }
          timed.fetch_add(1);
          gate.wait();
        });
      }
      ASSERT_TRUE(zorv::test::PollUntil([&] { return timed.load() == kThreads; }));
      for (int pair = 0; pair < kPairs; ++pair) {
        EXPECT_EQ(ChronoMonitor::Count("test.Lanes", op(pair).c_str()),
                  static_cast<unsigned long long>(round * kThreads * kScopes))
            << "while the threads live, " << op(pair);
      }
    }
    for (std::thread& t : threads) t.join();
    for (int pair = 0; pair < kPairs; ++pair) {
      const std::string operation = op(pair);
      EXPECT_EQ(ChronoMonitor::Count("test.Lanes", operation.c_str()),
                static_cast<unsigned long long>(round * kThreads * kScopes))
          << "after they ended, " << operation;
      EXPECT_GT(ChronoMonitor::MaxNanos("test.Lanes", operation.c_str()), 0u);
      EXPECT_GE(ChronoMonitor::TotalNanos("test.Lanes", operation.c_str()),
                ChronoMonitor::MaxNanos("test.Lanes", operation.c_str()));
    }
  }
}

TEST_F(MonitorsTest, ThreadNamesLastAsLongAsTheirThreadsAndAreGivenToTheSystem) {
  unsigned long long id = 0;
  SafeString whileRunning;
  char osName[32] = {};
  std::thread named([&] {
    ChronoMonitor::SetThreadName(SafeString("first"));
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
  ChronoMonitor::SetThreadName(SafeString("main"));
  ChronoMonitor::SetThreadName(SafeString("renamed"));
  EXPECT_EQ(ChronoMonitor::GetThreadName(static_cast<unsigned long long>(pthread_self())),
            "renamed");
}

TEST_F(MonitorsTest, ForkedChildNeverBlocksOnTheMonitors) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // The sanitizers' own allocators may be locked by another thread at fork
  // time; what this test proves is about the monitors, not about them.
  GTEST_SKIP() << "not meaningful under a sanitizer runtime";
#endif
  std::atomic<bool> stop{false};
  std::vector<std::thread> churners;
  for (int t = 0; t < 2; ++t) {
    churners.emplace_back([&stop, t] {
      int objects[64];  // records in every shard, or nearly
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
  for (int i = 0; i < 20; ++i) {
    const pid_t child = zorv::test::Fork([](int) {
      int objects[64];
      for (int k = 0; k < 100; ++k) {
        MemoryMonitor::Dealloc(MemoryMonitor::Alloc(64), 64);
        int& object = objects[k % 64];
        ObjectMonitor::_IncLeak(&object, "../child", 1, "Child", 4);
        ObjectMonitor::_DecLeakEx(&object, "../child", 2, "~Child");
        ChronoMonitor::Chronometer scope("test.Fork", "child");
      }
      ChronoMonitor::SetThreadName(SafeString("child"));
      (void)ChronoMonitor::GetThreadName(0);
      return 0;
    });
    ASSERT_GE(child, 0);
    EXPECT_EQ(zorv::test::WaitChild(child), 0) << "a child stuck or failed";
  }
  stop = true;
  for (std::thread& t : churners) t.join();
}

TEST_F(MonitorsTest, ReportListsObjectsBlocksHandlesAndTimingsInBothFormats) {
  const char* const oddName =
      "Odd \"name\" \\ \x01\n\xff caf\xc3\xa9 \xc2\xa9\xe0\xa4\xb9 \xed\xa0\x80 "
      "\xf4\x8f\xbf\xbf\xf4\x90 \xe2\x82 \xf5\x80\x80\x80 \xef\xbf\xbd\xf0\x9f\x98\x80 "
      // the lowest of 2, 3 and 4 bytes; the highest of 2; the lowest after E1
      "\xc2\x80\xe0\xa0\x80\xf0\x90\x80\x80 \xdf\xbf\xe1\x80\x80";
  int marker[4] = {};
  ObjectMonitor::_IncLeak(&marker[0], "../lang/report", 77, "ReportedThing", 4);
  ObjectMonitor::_IncLeak(&marker[1], "../lang/report", 77, "ReportedThing", 4);
  ObjectMonitor::_IncLeak(&marker[2], "../lang/report", 77, oddName, 4);  // own group
  // Last by name, first by line.
  ObjectMonitor::_IncLeak(&marker[3], "../lang/report", 5, "Zed", 4);
  ObjectMonitor::_IncLeak(nullptr, "../lang/report", 9, "Yak", 12);  // a failed allocation
  for (int i = 0; i < 100; ++i) {  // 98 short scopes and 2 of at least 2 ms
    ChronoMonitor::Chronometer scope("test.Report", "Print");
    if (i % 50 == 49) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  testing::internal::CaptureStderr();
  zorv::foundation::debug::PrintReport();
  const std::string printed = testing::internal::GetCapturedStderr();
  const std::string text = report(ReportFormat::kText);
  const std::string json = report(ReportFormat::kJson);
  for (int& m : marker) ObjectMonitor::_DecLeakEx(&m, "../lang/report", 78, "~ReportedThing");
  ObjectMonitor::_DecLeakEx(nullptr, "../lang/report", 10, "~Yak");
  EXPECT_EQ(text, printed);
  EXPECT_EQ((text + json).find('\0'), std::string::npos) << "bytes past a formatted piece";
  const char* const inOrder[] = {"==== zorv debug report ====\nlive objects: ",
                                 "\n  Odd \"name\"",
                                 "\n  ReportedThing at ../lang/report:77: 2 object(s), 8 bytes\n",
                                 "\n  Yak at ../lang/report:9: 1 object(s), 12 bytes\n",
                                 "\n  Zed at ../lang/report:5: 1 object(s), 4 bytes\n",
                                 "\nlive blocks: ",
                                 "\nlive handles: ",
                                 "\ntiming:\n",
                                 "\n  test.Report/Print: count 100, total ",
                                 "\n==== end of report ====\n"};
  size_t at = 0;
  for (const char* line : inOrder) {
    at = text.find(line, at);
    ASSERT_NE(at, std::string::npos) << line << " not in order in:\n" << text;
  }
  double totalMs = 0, meanUs = 0;
  ASSERT_EQ(sscanf(strstr(text.c_str(), "\n  test.Report/Print:"),
                   "\n  test.Report/Print: count 100, total %lf ms, mean %lf", &totalMs, &meanUs),
            2);
  EXPECT_NEAR(meanUs * 100, totalMs * 1000, 1.0);
  ReportFigures parsed = figures(json);
  EXPECT_NE(json.find(R"("Odd \"name\" \\ \u0001\n\u00ff caf)"), std::string::npos) << json;
  EXPECT_EQ(parsed.version, 1);
  EXPECT_EQ(parsed.objects["ReportedThing"], 2);
  // Bytes that are not UTF-8 come back as the code points of their values.
  EXPECT_EQ(parsed.objects["Odd \"name\" \\ \x01\n\xc3\xbf caf\xc3\xa9 \xc2\xa9\xe0\xa4\xb9 "
                           "\xc3\xad\xc2\xa0\xc2\x80 "
                           "\xf4\x8f\xbf\xbf\xc3\xb4\xc2\x90 \xc3\xa2\xc2\x82 "
                           "\xc3\xb5\xc2\x80\xc2\x80\xc2\x80 \xef\xbf\xbd\xf0\x9f\x98\x80 "
                           "\xc2\x80\xe0\xa0\x80\xf0\x90\x80\x80 \xdf\xbf\xe1\x80\x80"],
            1);
  EXPECT_EQ(parsed.blocks, static_cast<long long>(MemoryMonitor::LiveBlocks()));
  EXPECT_EQ(parsed.bytes, static_cast<long long>(MemoryMonitor::LiveBytes()));
  EXPECT_EQ(parsed.handles, SystemMonitor::LiveHandles());
  const zorv::debugtools::TimingFigures timing = parsed.timings["test.Report/Print"];
  EXPECT_EQ(timing.count, 100);
  EXPECT_LT(timing.p50Ns, 2000000);
  EXPECT_TRUE(timing.p99Ns >= 2000000 && timing.p99Ns <= timing.maxNs);
  // p99 lies in the bucket of the shorter long scope, at most 1.5 times it.
  EXPECT_GE(timing.totalNs, 2 * timing.p99Ns / 3 + timing.maxNs);
  EXPECT_NE(json.find("\"total_ns\": " + std::to_string(timing.totalNs) +
                      ", \"mean_ns\": " + std::to_string(timing.totalNs / 100) + ","),
            std::string::npos);
  // Without ZORV_DEBUG_SIGNAL, no signal is blocked or handled.
  sigset_t mask;
  struct sigaction action;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  sigaction(SIGUSR1, nullptr, &action);
  EXPECT_TRUE(!sigismember(&mask, SIGUSR1) && action.sa_handler == SIG_DFL);
}

TEST_F(MonitorsTest, WriteReportFailsWhenTheDescriptorCannotBeWritten) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);  // no reader: EPIPE, and the process goes on
  const int readOnly = open("/dev/null", O_RDONLY);
  const int closed = dup(readOnly);
  close(closed);
  const int full = open("/dev/full", O_WRONLY);
  for (const int fd : {-1, closed, readOnly, ends[1], full}) {
    SCOPED_TRACE(fd);
    EXPECT_FALSE(WriteReport(fd, ReportFormat::kJson));
  }
  // In a child, with SIGPIPE blocked: one that a timer raises while a write
  // to a full socket times out, and so was not pending at the start, is left
  // pending; so is one pending before a write that fails with EPIPE. Then
  // descriptor 0 is written like any other, and a write that returns 0 (made
  // so by a seccomp filter where one can be installed) fails the report, also
  // with a stale EINTR in errno.
  int readEnd = -1;
  const pid_t child = zorv::test::Fork(
      [readOnly](int pipeEnd) {
        int pair[2];
        char filler[4096] = {};
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) return 1;
        while (send(pair[0], filler, sizeof filler, MSG_DONTWAIT) > 0) {
        }
        const timeval limit = {0, 200000};
        sigset_t pipeOnly, held;
        sigemptyset(&pipeOnly);
        sigaddset(&pipeOnly, SIGPIPE);
        sigevent event = {};
        event.sigev_notify = SIGEV_SIGNAL;
        event.sigev_signo = SIGPIPE;
        timer_t timer;
        const itimerspec soon = {{0, 0}, {0, 20000000}};
        if (setsockopt(pair[0], SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0 ||
            pthread_sigmask(SIG_BLOCK, &pipeOnly, nullptr) != 0 ||
            timer_create(CLOCK_MONOTONIC, &event, &timer) != 0 ||
            timer_settime(timer, 0, &soon, nullptr) != 0 ||
            WriteReport(pair[0], ReportFormat::kText)) {
          return 1;
        }
        close(pair[1]);
        if (WriteReport(pair[0], ReportFormat::kText) || sigpending(&held) != 0 ||
            sigismember(&held, SIGPIPE) != 1) {
          return 2;
        }
        if (dup2(pipeEnd, 0) != 0 || !WriteReport(0, ReportFormat::kText)) return 3;
        FailSyscall(SYS_write, 0);
        errno = EINTR;
        return WriteReport(readOnly, ReportFormat::kText) ? 4 : 0;
      },
      &readEnd);
  EXPECT_EQ(zorv::test::ReadFrom(readEnd).rfind("==== zorv debug report ====\n", 0), 0u);
  EXPECT_EQ(zorv::test::WaitChild(child), 0);
  close(readEnd);
  for (const int fd : {readOnly, ends[1], full}) close(fd);
}

TEST_F(MonitorsTest, DiffListsGrowthLargestFirstAndRejectsBadReports) {
  auto json = [](const char* groups, int blocks, int handles, int scopes) {
    return R"({"version": 1, "objects": {"groups": [)" + std::string(groups) +
           R"(]}, "blocks": {"live": )" + std::to_string(blocks) +
           R"(, "bytes": 64, "by_size": []}, "handles": )" + std::to_string(handles) +
           R"(, "timing": [{"category": "c", "operation": "o", "count": )" +
           std::to_string(scopes) + R"(, "total_ns": 9, "max_ns": 9, "p50_ns": 9, "p99_ns": 9}]})";
  };
  // The same name spelled raw and escaped.
  const std::string base =
      json(R"({"name": "A", "count": 2}, {"name": "B\u00e9\ud83d\ude00", "count": 1})", 5, 3, 7);
  const std::string grown = json(R"({"name": "A", "count": 3}, {"name": "B)"
                                 "\xc3\xa9\xf0\x9f\x98\x80"
                                 R"(", "count": 4}, {"name": "A", "count": 1})",
                                 4, 5, 7);
  // Rows of the older and newer reports, the exit status and what is printed.
  const std::tuple<std::string, std::string, int, std::string> rows[] = {
      {base, base, 0, "no change\n"},
      {base, grown, 1,
       "grew:\n  +3 objects B\xc3\xa9\xf0\x9f\x98\x80 (1 -> 4)\n  +2 objects A (2 -> 4)\n"
       "  +2 handles (3 -> 5)\nshrank:\n  -1 blocks (5 -> 4)\n"},
      {base, json("", 5, 3, 9), 1,
       "grew:\n  +2 timing count c/o (7 -> 9)\n"
       "shrank:\n  -2 objects A (2 -> 0)\n  -1 objects B\xc3\xa9\xf0\x9f\x98\x80 (1 -> 0)\n"},
      {base, "", 2, ""},
      {base, "{\"a", 2, ""},
      {base, std::string(100000, '['), 2, ""},
      {base, R"({"version": 1})", 2, ""},
      {base, R"(["\u12"])", 2, ""},
      {base, base + "x", 2, ""},
      {std::string("\xff\0{}", 4), base, 2, ""}};
  for (const auto& [older, newer, status, expected] : rows) {
    SCOPED_TRACE(newer.substr(0, 80));
    ASSERT_TRUE(zorv::test::WriteRawFile(dir_ / "old", older) &&
                zorv::test::WriteRawFile(dir_ / "new", newer));
    std::string out;
    EXPECT_EQ(diff(dir_ / "old", dir_ / "new", &out), status);
    EXPECT_EQ(out, expected);
  }
  std::string out;
  EXPECT_EQ(diff("/nonexistent/old", dir_ / "new", &out), 2);
  EXPECT_EQ(zorv::debugtools::RunDiff(1, nullptr, &out, &out), 2);
}

TEST_F(MonitorsTest, SignalWritesReportsThatTheDiffCompares) {
  const std::string path = dir_ / "report.json";
  bool ok = false;
  // Without a standard input, as a daemon: the report may get descriptor 0.
  const pid_t child = startLeaker("ZORV_DEBUG_REPORT_PATH=" + path + " 0<&-", &ok);
  ASSERT_GE(child, 0);
  std::string reports[2] = {dir_ / "first.json", dir_ / "second.json"};
  for (int i = 0; i < 2 && ok; ++i) {
    // The leak grows for 200 ms between the first report and the second.
    std::this_thread::sleep_for(std::chrono::milliseconds(i * 200));
    kill(child, SIGUSR1);
    ok = zorv::test::PollUntil([&] { return rename(path.c_str(), reports[i].c_str()) == 0; });
  }
  // A report that cannot be put in place (a folder holds its path) leaves no
  // temporary: they are written one at a time, so two at once are one left.
  const bool blocked = ok && mkdir(path.c_str(), 0700) == 0;
  size_t most = 0;
  for (int i = 0; i < 50 && blocked && most < 2; ++i) {
    kill(child, SIGUSR1);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    size_t now = 0;
    DIR* folder = opendir(dir_.path().c_str());
    while (const dirent* entry = folder != nullptr ? readdir(folder) : nullptr) {
      now += std::string(entry->d_name).rfind("report.json.", 0) == 0;
    }
    if (folder != nullptr) closedir(folder);
    most = std::max(most, now);
  }
  EXPECT_TRUE(blocked || !ok);
  EXPECT_LT(most, 2u) << "temporaries of failed reports left";
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  ASSERT_TRUE(ok) << "no report from the child";
  const long long before = figures(zorv::test::ReadRawFile(reports[0])).objects["LeakedEveryTenMs"];
  const long long after = figures(zorv::test::ReadRawFile(reports[1])).objects["LeakedEveryTenMs"];
  std::string out;
  EXPECT_EQ(diff(reports[0], reports[1], &out), 1);
  EXPECT_NE(out.find("  +" + std::to_string(after - before) + " objects LeakedEveryTenMs (" +
                     std::to_string(before) + " -> " + std::to_string(after) + ")\n"),
            std::string::npos)
      << out;
}

TEST_F(MonitorsTest, SignalReportWithoutPathGoesToTmpdirOnlyWhenClosed) {
  // An empty ZORV_DEBUG_REPORT_PATH counts as none; the signal may be named
  // with its "SIG" prefix. Where the filter can be
  // installed, close() fails with EIO (the descriptor then stays open), so
  // the report may be incomplete and must not be put in place.
  bool ok = false;
  const pid_t child = startLeaker(
      "ZORV_DEBUG_SIGNAL=SIGUSR2 ZORV_TEST_CLOSE_FAILS=1 ZORV_DEBUG_REPORT_PATH= TMPDIR=" +
          dir_.path(),
      &ok);
  ASSERT_GE(child, 0);
  const std::string path = dir_ / ("zorv-debug-" + std::to_string(child) + ".json");
  const std::string status = "/proc/" + std::to_string(child) + "/status";
  const bool closeFails =
      zorv::test::ReadRawFile(status).find("\nSeccomp:\t2") != std::string::npos;
  kill(child, SIGUSR2);
  // Done when the report is in place or its unlinked temporary is still open.
  ok = ok && zorv::test::PollUntil([&] {
         char link[PATH_MAX];
         for (int fd = 0; fd < 64; ++fd) {
           const std::string name = "/proc/" + std::to_string(child) + "/fd/" + std::to_string(fd);
           const ssize_t n = readlink(name.c_str(), link, sizeof link);
           const std::string target(link, n > 0 ? static_cast<size_t>(n) : 0);
           if (target.rfind(path, 0) == 0 && target.find(" (deleted)") != std::string::npos) {
             return true;
           }
         }
         return access(path.c_str(), F_OK) == 0;
       });
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  ASSERT_TRUE(ok) << "no report from the child";
  EXPECT_EQ(access(path.c_str(), F_OK) == 0, !closeFails);
}

TEST_F(MonitorsTest, SignalReportSettingsThatNameNothingFallBack) {
  // An unknown signal name, or a path longer than a path can be (PATH_MAX
  // bytes, one more than its buffer holds with the terminator), sets
  // nothing up: the signal still ends the child.
  const std::string hupReport = dir_ / "hup.json";
  const std::string longPath = dir_ / std::string(PATH_MAX - dir_.path().size() - 1, 'x');
  bool up = false;
  pid_t child;
  for (const auto& [settings, signal] :
       {std::make_pair("ZORV_DEBUG_SIGNAL=HUP ZORV_DEBUG_REPORT_PATH=" + hupReport, SIGHUP),
        std::make_pair("ZORV_DEBUG_SIGNAL=USR2 ZORV_DEBUG_REPORT_PATH=" + longPath, SIGUSR2)}) {
    SCOPED_TRACE(signal);
    unlink((dir_ / "ready").c_str());
    child = startLeaker(settings, &up);
    ASSERT_GE(child, 0);
    const bool ended = up && kill(child, signal) == 0 && zorv::test::PollUntil([&] {
                         return waitpid(child, nullptr, WNOHANG) == child;
                       });
    if (!ended) {
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
    }
    EXPECT_TRUE(up && ended) << "the signal did not end the child";
  }
  EXPECT_NE(access(hupReport.c_str(), F_OK), 0);
  // An empty TMPDIR counts as none: without a path the report goes to /tmp.
  unlink((dir_ / "ready").c_str());
  child = startLeaker("ZORV_DEBUG_REPORT_PATH= TMPDIR=", &up);
  ASSERT_GE(child, 0);
  const std::string name = "zorv-debug-" + std::to_string(child) + ".json";
  const bool written = up && kill(child, SIGUSR1) == 0 && zorv::test::PollUntil([&] {
                         return access(("/tmp/" + name).c_str(), F_OK) == 0;
                       });
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  unlink(("/tmp/" + name).c_str());
  unlink(("/" + name).c_str());
  EXPECT_TRUE(written) << "no /tmp/" << name;
}

}  // namespace
