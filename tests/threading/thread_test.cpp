#include "foundation/threading/thread.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/debug/chronomonitor.h"
#include "foundation/debug/systemmonitor.h"
#include "foundation/lang/accounted.h"
#include "foundation/lang/exception.h"
#include "foundation/system/consoleutils.h"
#include "support/boundedwait.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::debug::ChronoMonitor;
using zorv::foundation::debug::SystemMonitor;
using zorv::foundation::system::ConsoleUtils;
using zorv::foundation::threading::ITask;
using zorv::foundation::threading::Thread;
using zorv::test::Gate;
using zorv::test::GateOpener;
using zorv::test::PollUntil;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

using ThreadTest = zorv::test::LeakCheckedTest;
using TaskTest = zorv::test::LeakCheckedTest;

long long MillisSince(Clock::time_point start) {
  return std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
}

// A thread whose body is a function; records what happened on the thread.
class FunctionThread : public Thread {
 public:
  explicit FunctionThread(std::function<void()> body, const SafeString& name = SafeString())
      : Thread(name), body_(std::move(body)) {}
  ~FunctionThread() override { wait(); }

  void run() override {
    runThread = Thread::CurrentID();
    body_();
  }

  void interrupted() override {
    interruptedThread = Thread::CurrentID();
    ++interruptions;
    if (throwFromInterrupted) throw 42;
  }

  std::atomic<unsigned long long> runThread{0};
  std::atomic<unsigned long long> interruptedThread{0};
  std::atomic<int> interruptions{0};
  bool throwFromInterrupted = false;

 private:
  std::function<void()> body_;
};

struct Flags {
  bool started;
  bool running;
  bool stopped;
};

void ExpectFlags(const Thread& thread, Flags expected) {
  EXPECT_EQ(thread.isStarted(), expected.started);
  EXPECT_EQ(thread.isRunning(), expected.running);
  EXPECT_EQ(thread.isStopped(), expected.stopped);
}

TEST_F(ThreadTest, FollowsTheStateTable) {
  Gate release;
  GateOpener opener(release);
  const long long handles = SystemMonitor::LiveHandles();
  FunctionThread thread([&] { release.wait(); });
  {
    SCOPED_TRACE("constructed");
    thread.wait();  // before start: returns at once
    ExpectFlags(thread, {false, false, false});
    EXPECT_EQ(thread.threadID(), 0ULL);
    EXPECT_EQ(SystemMonitor::LiveHandles(), handles);
  }
  thread.start();
  {
    SCOPED_TRACE("started");
    EXPECT_TRUE(thread.isStarted());
    EXPECT_NE(thread.threadID(), 0ULL);
    EXPECT_NE(thread.threadID(), Thread::CurrentID());
    EXPECT_EQ(Thread::CurrentID(), static_cast<unsigned long long>(pthread_self()));
    EXPECT_EQ(SystemMonitor::LiveHandles(), handles + 1) << "a started thread is a handle";
    EXPECT_ZORV_THROW(thread.start(), "zorv.foundation.threading.Thread.start", "has been started");
  }
  {
    SCOPED_TRACE("body executing");
    ASSERT_TRUE(PollUntil([&] { return thread.isRunning(); }));
    ExpectFlags(thread, {true, true, false});
  }
  release.open();
  {
    SCOPED_TRACE("body returned");
    ASSERT_TRUE(PollUntil([&] { return thread.isStopped(); }));
    ExpectFlags(thread, {true, false, true});
    EXPECT_EQ(SystemMonitor::LiveHandles(), handles + 1) << "counted until joined";
  }
  thread.wait();
  {
    SCOPED_TRACE("joined");
    ExpectFlags(thread, {true, false, true});
    EXPECT_EQ(SystemMonitor::LiveHandles(), handles);
    EXPECT_EQ(thread.runThread.load(), thread.threadID()) << "run() ran on the new thread";
  }
  thread.wait();  // a second wait returns at once
  EXPECT_EQ(SystemMonitor::LiveHandles(), handles);
  EXPECT_ZORV_THROW(thread.start(), "zorv.foundation.threading.Thread.start", "has been started");
  ExpectFlags(thread, {true, false, true});
}

TEST_F(ThreadTest, ExceptionFromRunCallsInterruptedOnceOnTheThread) {
  struct Case {
    const char* name;
    std::function<void()> body;
    bool throwFromInterrupted;
    int interruptions;
  };
  const Case cases[] = {
      {"returns", [] {}, false, 0},
      {"throws an Exception",
       [] { throw zorv::foundation::lang::Exception("zorv.test", "failed"); }, false, 1},
      {"throws an int", [] { throw 7; }, false, 1},
      {"throws, and interrupted throws too", [] { throw 7; }, true, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FunctionThread thread(c.body);
    thread.throwFromInterrupted = c.throwFromInterrupted;
    thread.start();
    thread.wait();
    EXPECT_EQ(thread.interruptions.load(), c.interruptions);
    if (c.interruptions > 0) {
      EXPECT_EQ(thread.interruptedThread.load(), thread.threadID());
    }
    ExpectFlags(thread, {true, false, true});
  }
}

TEST_F(ThreadTest, NamesTheThreadWithTheDebugSupportLibrary) {
  std::atomic<unsigned long long> seenId{0};
  SafeString seenName;
  std::mutex seenMutex;
  FunctionThread named(
      [&] {
        std::lock_guard<std::mutex> hold(seenMutex);
        seenName = ChronoMonitor::GetThreadName(Thread::CurrentID());
      },
      SafeString("zorv-worker-1"));
  EXPECT_EQ(std::string(named.threadName().c_str()), "zorv-worker-1") << "before start too";
  named.start();
  named.wait();
  {
    std::lock_guard<std::mutex> hold(seenMutex);
    EXPECT_EQ(std::string(seenName.c_str()), "zorv-worker-1");
  }
  EXPECT_EQ(std::string(named.threadName().c_str()), "zorv-worker-1");

  // An unnamed thread reports what the debug-support library knows of it.
  FunctionThread unnamed([&] {
    seenId = Thread::CurrentID();
    ChronoMonitor::SetThreadName(SafeString("self-named"));
  });
  EXPECT_TRUE(unnamed.threadName().empty()) << "no id before start";
  unnamed.start();
  unnamed.wait();
  EXPECT_EQ(seenId.load(), unnamed.threadID());
  EXPECT_EQ(std::string(unnamed.threadName().c_str()), "self-named");
}

// The body may ask for its own id and name from its first instruction on,
// while start() may not have returned yet. Many short threads, so that some
// bodies begin before pthread_create returns to start().
TEST_F(ThreadTest, RunKnowsItsOwnIdAndNameFromItsFirstInstruction) {
  const int rounds = zorv::test::SlowTarget() ? 20 : 100;
  for (int round = 0; round < rounds; ++round) {
    Thread* self = nullptr;
    unsigned long long seenId = 0;
    std::string seenName;
    FunctionThread thread([&] {
      seenId = self->threadID();
      ChronoMonitor::SetThreadName(SafeString("own-name"));
      seenName = self->threadName().c_str();
    });
    self = &thread;
    thread.start();
    thread.wait();
    // Read after wait(), which orders the body's writes before these reads.
    ASSERT_EQ(seenId, thread.runThread.load()) << "round " << round;
    ASSERT_EQ(seenId, thread.threadID()) << "round " << round;
    ASSERT_EQ(seenName, "own-name") << "round " << round;
  }
}

TEST_F(ThreadTest, SleepAndYieldLetTimePass) {
  for (const unsigned int ms : {0u, 1u, 30u, 1100u}) {  // 1100 exercises the seconds part
    SCOPED_TRACE(ms);
    const Clock::time_point start = Clock::now();
    Thread::Sleep(ms);
    const long long slept = MillisSince(start);
    EXPECT_GE(slept, static_cast<long long>(ms) - 1);
    EXPECT_LT(slept, static_cast<long long>(ms) + zorv::test::Margin(1000).count());
  }

  const auto before = Clock::now();
  Thread::Yield();
  const auto yielded = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - before);
  EXPECT_GE(yielded.count(), 900) << "Yield sleeps a millisecond";
  EXPECT_LT(yielded.count(), zorv::test::Margin(1000).count() * 1000);
}

// Captures what the console writer receives.
std::mutex g_linesMutex;
std::vector<std::string>* g_lines = nullptr;

void CaptureLine(const char* text) {
  std::lock_guard<std::mutex> hold(g_linesMutex);
  if (g_lines != nullptr) g_lines->push_back(text);
}

// A thread without a destructor of its own that joins; it names itself
// with the debug-support library only when selfName is set.
class BareThread : public Thread {
 public:
  explicit BareThread(const SafeString& name = SafeString()) : Thread(name) {}
  void run() override {
    if (!selfName.empty()) ChronoMonitor::SetThreadName(SafeString(selfName.c_str()));
  }
  std::string selfName;
};

TEST_F(ThreadTest, DestroyedUnjoinedThreadPrintsAWarningLine) {
  std::vector<std::string> lines;
  {
    std::lock_guard<std::mutex> hold(g_linesMutex);
    g_lines = &lines;
  }
  ConsoleUtils::SetWriter(&CaptureLine);
  struct Case {
    const char* constructionName;
    const char* selfName;
    const char* expectedFormat;  // %u is the thread id's low 32 bits
  };
  // Each body has ended (and its thread may be gone) when the Thread is
  // destroyed; a thread that follows one that named itself usually gets the
  // same pthread_t, and must not be given its name.
  const Case cases[] = {
      {"", "", "zorv.foundation.threading.Thread: [%u] destroyed while still running"},
      {"", "named-late",
       "zorv.foundation.threading.Thread: [%u/named-late]destroyed while still running"},
      {"", "", "zorv.foundation.threading.Thread: [%u] destroyed while still running"},
      {"given", "", "zorv.foundation.threading.Thread: [%u/given]destroyed while still running"},
      {"", "", "zorv.foundation.threading.Thread: [%u] destroyed while still running"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expectedFormat);
    {
      std::lock_guard<std::mutex> hold(g_linesMutex);
      lines.clear();
    }
    BareThread* thread = new BareThread(SafeString(c.constructionName));
    thread->selfName = c.selfName;
    thread->start();
    // Let the body finish, so that nothing uses the block after it is freed.
    ASSERT_TRUE(PollUntil([&] { return thread->isStopped(); }));
    const unsigned long long id = thread->threadID();
    delete thread;
    // The library left the thread unjoined and its handle counted: clean up.
    pthread_join(static_cast<pthread_t>(id), nullptr);
    SystemMonitor::DecreaseHandle();
    char expected[200];
    // The expected lines come from the table, with the thread id left open.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    snprintf(expected, sizeof expected, c.expectedFormat, static_cast<unsigned int>(id));
#pragma GCC diagnostic pop
    std::lock_guard<std::mutex> hold(g_linesMutex);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], expected);
  }
  // A joined or never-started thread prints nothing.
  {
    std::lock_guard<std::mutex> hold(g_linesMutex);
    lines.clear();
  }
  {
    BareThread joined;
    joined.start();
    joined.wait();
    BareThread neverStarted;
  }
  ConsoleUtils::SetWriter(nullptr);
  std::lock_guard<std::mutex> hold(g_linesMutex);
  g_lines = nullptr;
  EXPECT_TRUE(lines.empty());
}

TEST_F(ThreadTest, ConstructionFailsCleanlyWhenMemoryRunsOut) {
  const SafeString longName("a thread name longer than fifteen bytes");
  {
    zorv::test::FailAfterGuard fail(1);  // the copy of the name
    EXPECT_THROW(BareThread thread(longName), std::bad_alloc);
  }
  BareThread thread(longName);  // the leak check proves nothing was left behind
  thread.start();
  thread.wait();
  EXPECT_EQ(std::string(thread.threadName().c_str()), longName.c_str());
}

// Tasks for the ITask tests.
class PlainTask : public ITask {
 public:
  void run() override {}
};

class InterruptibleTask : public ITask {
 public:
  explicit InterruptibleTask(int* calls, bool throws) : calls_(calls), throws_(throws) {}
  void run() override {}
  void interrupted() override {
    ++*calls_;
    if (throws_) throw zorv::foundation::lang::Exception("zorv.test", "interrupted");
  }

 private:
  int* calls_;
  bool throws_;
};

class FixedAffinityTask : public ITask {
 public:
  void run() override {}
  unsigned int getAffinity() const override { return 7; }
};

TEST_F(TaskTest, AffinityInterruptionAndDisposal) {
  // The default affinity counts up process-wide, on every call.
  PlainTask first, second;
  FixedAffinityTask fixed;
  const unsigned int a = first.getAffinity();
  EXPECT_EQ(second.getAffinity(), a + 1);
  EXPECT_EQ(first.getAffinity(), a + 2) << "a new number even for the same task";
  EXPECT_EQ(fixed.getAffinity(), 7u);
  EXPECT_EQ(second.getAffinity(), a + 3) << "overrides do not advance the counter";
  // notifyInterrupted calls the override and drops its exception.
  int calls = 0;
  InterruptibleTask quiet(&calls, false), throwing(&calls, true);
  quiet.notifyInterrupted();
  throwing.notifyInterrupted();
  EXPECT_EQ(calls, 2);
  first.notifyInterrupted();  // the default does nothing
  // dispose() releases an accounted task (the leak check proves it).
  ITask* task = zorv::foundation::lang::MakeDisposable<InterruptibleTask>("task", &calls, false);
  task->run();
  task->notifyInterrupted();
  task->dispose();
  EXPECT_EQ(calls, 3);
}

}  // namespace
