#include "foundation/threading/thread.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "foundation/debug/chronomonitor.h"
#include "foundation/debug/systemmonitor.h"
#include "foundation/lang/exception.h"
#include "foundation/system/consoleutils.h"
#include "support/boundedwait.h"
#include "support/leakcheck.h"
#include "support/taskprobe.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::debug::ChronoMonitor;
using zorv::foundation::debug::SystemMonitor;
using zorv::foundation::system::ConsoleUtils;
using zorv::foundation::threading::Thread;
using zorv::test::PollUntil;
using zorv::test::ProbeTask;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

using ThreadTest = zorv::test::LeakCheckedTest;
using TaskTest = zorv::test::LeakCheckedTest;

// A thread whose body is a function; records what happened on the thread.
// Its interrupted() throws, which the library must drop. Its destructor joins
// unless joinOnDestroy is cleared.
class FunctionThread : public Thread {
 public:
  explicit FunctionThread(std::function<void()> body, const SafeString& name = SafeString())
      : Thread(name), body_(std::move(body)) {}
  ~FunctionThread() override {
    if (joinOnDestroy) wait();
  }

  void run() override {
    runThread = Thread::CurrentID();
    body_();
  }

  void interrupted() override {
    interruptedThread = Thread::CurrentID();
    ++interruptions;
    throw 42;
  }

  std::atomic<unsigned long long> runThread{0};
  std::atomic<unsigned long long> interruptedThread{0};
  std::atomic<int> interruptions{0};
  bool joinOnDestroy = true;

 private:
  std::function<void()> body_;
};

// Each stage: the flags, and the handles counted beyond `handles` (a started
// thread is a handle until joined). The body ends by throwing something that
// is not an Exception: interrupted() is called once, on the thread, and what
// it throws in turn is dropped (else the process would end).
TEST_F(ThreadTest, FollowsTheStateTableAndReportsAThrowOnTheThread) {
  zorv::test::Gate release;
  zorv::test::GateOpener opener(release);
  const long long handles = SystemMonitor::LiveHandles();
  FunctionThread thread([&] {
    release.wait();
    throw 7;
  });
  const auto expect = [&](const char* stage, bool started, bool running, bool stopped,
                          long long extraHandles) {
    SCOPED_TRACE(stage);
    EXPECT_EQ(thread.isStarted(), started);
    EXPECT_EQ(thread.isRunning(), running);
    EXPECT_EQ(thread.isStopped(), stopped);
    EXPECT_EQ(SystemMonitor::LiveHandles(), handles + extraHandles);
  };
  thread.wait();  // before start: returns at once
  expect("constructed", false, false, false, 0);
  EXPECT_EQ(thread.threadID(), 0ULL);
  thread.start();
  EXPECT_NE(thread.threadID(), 0ULL);
  EXPECT_ZORV_THROW(thread.start(), "zorv.foundation.threading.Thread.start", "has been started");
  ASSERT_TRUE(PollUntil([&] { return thread.isRunning(); }));
  expect("body executing", true, true, false, 1);
  release.open();
  ASSERT_TRUE(PollUntil([&] { return thread.isStopped(); }));
  expect("body ended", true, false, true, 1);
  thread.wait();
  expect("joined", true, false, true, 0);
  EXPECT_EQ(thread.runThread.load(), thread.threadID()) << "run() ran on the new thread";
  EXPECT_EQ(thread.interruptions.load(), 1);
  EXPECT_EQ(thread.interruptedThread.load(), thread.threadID());
  thread.wait();  // a second wait returns at once
  expect("joined twice", true, false, true, 0);
}

// The body may ask for its own id and name from its first instruction on,
// while start() may not have returned yet: many short threads, so that some
// bodies begin before pthread_create returns to start(). A name given at
// construction is the thread's name in the debug-support library; an
// unnamed thread reports what that library knows of it.
TEST_F(ThreadTest, RunKnowsItsOwnIdAndNameFromItsFirstInstruction) {
  const int rounds = zorv::test::SlowTarget() ? 20 : 100;
  for (int round = 0; round < rounds; ++round) {
    SCOPED_TRACE(round);
    const bool given = round % 2 == 0;
    const std::string name = given ? "zorv-worker-1" : "own-name";
    Thread* self = nullptr;
    unsigned long long seenId = 0;
    std::string seenName, recorded;
    FunctionThread thread(
        [&] {
          seenId = self->threadID();
          if (!given) ChronoMonitor::SetThreadName(SafeString("own-name"));
          seenName = self->threadName().c_str();
          recorded = ChronoMonitor::GetThreadName(Thread::CurrentID()).c_str();
        },
        SafeString(given ? name.c_str() : ""));
    self = &thread;
    EXPECT_EQ(std::string(thread.threadName().c_str()), given ? name : "") << "before start";
    thread.start();
    thread.wait();
    // Read after wait(), which orders the body's writes before these reads.
    ASSERT_EQ(seenId, thread.runThread.load());
    ASSERT_EQ(seenName, name);
    ASSERT_EQ(recorded, name);
    ASSERT_EQ(std::string(thread.threadName().c_str()), name);
    ASSERT_EQ(thread.interruptions.load(), 0) << "run() returned";
  }
}

TEST_F(ThreadTest, SleepAndYieldLetTimePass) {
  for (const unsigned int ms : {0u, 1u, 30u, 1100u}) {  // 1100 exercises the seconds part
    SCOPED_TRACE(ms);
    const Clock::time_point start = Clock::now();
    Thread::Sleep(ms);
    const long long slept = std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
    EXPECT_GE(slept, static_cast<long long>(ms) - 1);
    EXPECT_LT(slept, static_cast<long long>(ms) + zorv::test::Margin(1000).count());
  }

  const auto before = Clock::now();
  Thread::Yield();
  const auto yielded = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - before);
  EXPECT_GE(yielded.count(), 900) << "Yield sleeps a millisecond";
  EXPECT_LT(yielded.count(), zorv::test::Margin(1000).count() * 1000);
}

// What the console writer received.
std::mutex g_linesMutex;
std::vector<std::string> g_lines;

std::vector<std::string> TakeLines() {
  std::lock_guard<std::mutex> hold(g_linesMutex);
  std::vector<std::string> lines;
  lines.swap(g_lines);
  return lines;
}

// The line is "zorv.foundation.threading.Thread: [<low 32 bits of the id>"
// then "/<name>]destroyed while still running", or without a name
// "] destroyed while still running". Each body has ended (and its thread may
// be gone) when the Thread is destroyed; a thread that follows one that
// named itself usually gets the same pthread_t, and must not be given its
// name. A joined or never-started thread prints nothing.
TEST_F(ThreadTest, DestroyedUnjoinedThreadPrintsAWarningLine) {
  ConsoleUtils::SetWriter([](const char* text) {
    std::lock_guard<std::mutex> hold(g_linesMutex);
    g_lines.push_back(text);
  });
  // Rows of the name given at construction, the one the body gives itself and the one shown.
  // clang-format off
  const std::array<std::string, 3> cases[] = {{"", "", ""}, {"", "named-late", "named-late"},
                                              {"", "", ""}, {"given", "", "given"}, {"", "", ""}};
  // clang-format on
  for (const auto& [constructionName, selfName, shown] : cases) {
    SCOPED_TRACE(shown);
    FunctionThread* thread = new FunctionThread(
        [name = selfName] {
          if (!name.empty()) ChronoMonitor::SetThreadName(SafeString(name.c_str()));
        },
        SafeString(constructionName.c_str()));
    thread->joinOnDestroy = false;
    thread->start();
    // Let the body finish, so that nothing uses the block after it is freed.
    ASSERT_TRUE(PollUntil([&] { return thread->isStopped(); }));
    const unsigned long long id = thread->threadID();
    delete thread;
    // The library left the thread unjoined and its handle counted: clean up.
    pthread_join(static_cast<pthread_t>(id), nullptr);
    SystemMonitor::DecreaseHandle();
    const std::vector<std::string> expected = {
        "zorv.foundation.threading.Thread: [" + std::to_string(static_cast<unsigned int>(id)) +
        (shown.empty() ? "] " : "/" + shown + "]") + "destroyed while still running"};
    EXPECT_EQ(TakeLines(), expected);
  }
  {
    FunctionThread joined([] {});  // joined by ~FunctionThread before ~Thread
    joined.start();
    FunctionThread neverStarted([] {});
  }
  ConsoleUtils::SetWriter(nullptr);
  EXPECT_TRUE(TakeLines().empty());
}

TEST_F(ThreadTest, ConstructionFailsCleanlyWhenMemoryRunsOut) {
  const SafeString longName("a thread name longer than fifteen bytes");
  zorv::test::FailAfterGuard fail(1);                             // the copy of the name
  EXPECT_THROW(FunctionThread([] {}, longName), std::bad_alloc);  // the leak check: nothing left
}

// notifyInterrupted() must drop what an override throws.
struct ThrowingTask : ProbeTask {
  using ProbeTask::ProbeTask;
  void interrupted() override {
    ProbeTask::interrupted();
    throw 1;
  }
};

TEST_F(TaskTest, AffinityCountsUpAndInterruptionIsContained) {
  // The default affinity counts up process-wide, on every call.
  zorv::test::Tally tally;
  ProbeTask first(&tally, 1), second(&tally, 2);
  const unsigned int a = first.getAffinity();
  EXPECT_EQ(second.getAffinity(), a + 1);
  EXPECT_EQ(first.getAffinity(), a + 2) << "a new number even for the same task";
  ThrowingTask throwing(&tally, 4);
  throwing.notifyInterrupted();
  EXPECT_EQ(tally.interrupts.load(), 1);
}

}  // namespace
