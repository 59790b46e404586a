#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "foundation/lang/accounted.h"
#include "foundation/lang/injection/service.h"
#include "foundation/threading/scheduler/globaltaskscheduler.h"
#include "foundation/threading/scheduler/globaltimerscheduler.h"
#include "support/leakcheck.h"
#include "support/taskprobe.h"

namespace {

namespace zf = zorv::foundation;
using zf::lang::injection::IService;
using zf::threading::GlobalTaskScheduler;
using zf::threading::GlobalTimerScheduler;
using zorv::test::NewTask;
using zorv::test::NewTimer;
using zorv::test::Tally;

using GlobalSchedulerTest = zorv::test::LeakCheckedTest;

std::string Str(const zf::SafeString& s) { return std::string(s.c_str()); }

// Services made disposable are disposed, with their work, without finalize().
TEST_F(GlobalSchedulerTest, ServicesAreNamedSizeTheirPoolsAndMayBeDisposed) {
  Tally tally;
  GlobalTaskScheduler* tasks =
      zf::lang::MakeDisposable<GlobalTaskScheduler>("GlobalTaskScheduler", 2u, 3u);
  GlobalTimerScheduler* timers = zf::lang::MakeDisposable<GlobalTimerScheduler>(
      "GlobalTimerScheduler", &tasks->getThreadPool());
  GlobalTimerScheduler ownThread;
  const IService* services[] = {tasks, timers, &ownThread};
  const char* names[] = {"zorv.foundation.threading.GlobalTaskScheduler",
                         "zorv.foundation.threading.GlobalTimerScheduler",
                         "zorv.foundation.threading.GlobalTimerScheduler"};
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Str(services[i]->typeName()), names[i]);
    EXPECT_EQ(Str(services[i]->instanceName()), "default");
  }
  EXPECT_EQ(tasks->getThreadPool().threadNum(), 2u);
  EXPECT_EQ(tasks->getAffinityPool().threadNum(), 3u);
  timers->getTimerScheduler().addTimer(NewTimer(&tally, 1, 100000, -1));
  tasks->getThreadPool().addTask(NewTask(&tally, 2));
  static_cast<IService*>(timers)->dispose();
  tasks->dispose();
  EXPECT_EQ(tally.disposals.load(), 2);
  EXPECT_EQ(tally.runs.load(), 1);
}

// Default pool sizes are those of a pool asked for none. Finalizing stops
// the timers first, then drains the pools; both may be finalized again.
TEST_F(GlobalSchedulerTest, TimersOverThePoolThenFinalizeDrainsAndStops) {
  Tally tally;
  GlobalTaskScheduler defaults;
  const unsigned int expected = zf::threading::ThreadPool(0).threadNum();
  EXPECT_EQ(defaults.getThreadPool().threadNum(), expected);
  EXPECT_EQ(defaults.getAffinityPool().threadNum(), expected);
  std::atomic<int> onPool{0};
  GlobalTaskScheduler tasks(2, 1);
  GlobalTimerScheduler timers(&tasks.getThreadPool());
  zorv::test::ProbeTimer* timer = NewTimer(&tally, 1, 2);
  timer->body = [&] { onPool += tasks.getThreadPool().isMyThread() ? 1 : 0; };
  timers.getTimerScheduler().addTimer(timer);
  ASSERT_TRUE(zorv::test::PollUntil([&] { return tally.disposals.load() == 1; }));
  EXPECT_EQ(onPool.load(), 1);
  timers.getTimerScheduler().addTimer(NewTimer(&tally, 3, 100000, -1));
  timers.finalize();
  EXPECT_EQ(tally.disposals.load(), 2) << "finalize() did not stop the scheduler";
  timers.finalize();
  for (int i = 0; i < 100; ++i) {
    tasks.getThreadPool().addTask(NewTask(&tally, i));
    tasks.getAffinityPool().addTask(NewTask(&tally, i));
  }
  tasks.finalize();
  EXPECT_EQ(tally.runs.load(), 201);
  tasks.finalize();
  EXPECT_EQ(tasks.getThreadPool().threadNum(), 0u);
  EXPECT_EQ(tasks.getAffinityPool().threadNum(), 0u);
}

}  // namespace
