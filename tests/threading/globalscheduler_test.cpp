#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "foundation/lang/accounted.h"
#include "foundation/lang/injection/service.h"
#include "foundation/system/systemutils.h"
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
using zorv::test::PollUntil;

using GlobalSchedulerTest = zorv::test::LeakCheckedTest;

std::string Str(const zf::SafeString& s) { return std::string(s.c_str()); }

TEST_F(GlobalSchedulerTest, ServicesAreNamed) {
  GlobalTaskScheduler tasks(1, 1);
  GlobalTimerScheduler timers;
  const IService& taskService = tasks;
  const IService& timerService = timers;
  EXPECT_EQ(Str(taskService.typeName()), "zorv.foundation.threading.GlobalTaskScheduler");
  EXPECT_EQ(Str(timerService.typeName()), "zorv.foundation.threading.GlobalTimerScheduler");
  EXPECT_EQ(Str(taskService.instanceName()), "default");
  EXPECT_EQ(Str(timerService.instanceName()), "default");
}

TEST_F(GlobalSchedulerTest, TaskSchedulerSizesItsPoolsInOrder) {
  GlobalTaskScheduler tasks(2, 3);
  EXPECT_EQ(tasks.getThreadPool().threadNum(), 2u);
  EXPECT_EQ(tasks.getAffinityPool().threadNum(), 3u);
  GlobalTaskScheduler defaults;
  const int processors = static_cast<int>(zf::system::SystemUtils::GetProcessorNum());
  const unsigned int expected =
      processors <= 0 ? 1u : (processors > 300 ? 300u : static_cast<unsigned int>(processors));
  EXPECT_EQ(defaults.getThreadPool().threadNum(), expected);
  EXPECT_EQ(defaults.getAffinityPool().threadNum(), expected);
}

TEST_F(GlobalSchedulerTest, FinalizeDrainsStopsAndMayBeRepeated) {
  Tally tally;
  GlobalTaskScheduler tasks(2, 2);
  for (int i = 0; i < 100; ++i) {
    tasks.getThreadPool().addTask(NewTask(&tally, i));
    tasks.getAffinityPool().addTask(NewTask(&tally, i));
  }
  tasks.finalize();
  EXPECT_EQ(tally.runs.load(), 200);
  EXPECT_EQ(tally.disposals.load(), 200);
  tasks.finalize();
  EXPECT_ZORV_THROW(tasks.getThreadPool().addTask(NewTask(&tally)),
                    "zorv.foundation.threading.ThreadPool.addTask", "executor has stopped");
  EXPECT_ZORV_THROW(tasks.getAffinityPool().addTask(NewTask(&tally)),
                    "zorv.foundation.threading.AffinityThreadPool.addTask",
                    "executor has stopped");
  EXPECT_EQ(tally.disposals.load(), 202);
}

TEST_F(GlobalSchedulerTest, TimerSchedulerOverThePoolIsTheTypicalTimedJob) {
  Tally tally;
  std::atomic<int> onPool{0};
  GlobalTaskScheduler tasks(2, 1);
  GlobalTimerScheduler timers(&tasks.getThreadPool());
  zorv::test::ProbeTimer* repeating = NewTimer(&tally, 1, 2, 4);
  repeating->body = [&] { onPool += tasks.getThreadPool().isMyThread() ? 1 : 0; };
  timers.getTimerScheduler().addTimer(repeating);
  timers.getTimerScheduler().addTimer(NewTimer(&tally, 2, 5));
  ASSERT_TRUE(PollUntil([&] { return tally.disposals.load() == 2; }));
  EXPECT_EQ(tally.runs.load(), 6);
  EXPECT_EQ(onPool.load(), 5);
  timers.getTimerScheduler().addTimer(NewTimer(&tally, 3, 100000, -1));
  timers.finalize();
  EXPECT_EQ(tally.disposals.load(), 3);
  zorv::test::ProbeTimer* late = NewTimer(&tally, 4, 1);
  EXPECT_ZORV_THROW(timers.getTimerScheduler().addTimer(late),
                    "zorv.foundation.threading.TimerScheduler.addTimer",
                    "scheduler has been stopped");
  late->dispose();
  timers.finalize();
  tasks.finalize();
}

TEST_F(GlobalSchedulerTest, ServicesMadeDisposableAreDisposedWithoutFinalize) {
  Tally tally;
  GlobalTaskScheduler* tasks =
      zf::lang::MakeDisposable<GlobalTaskScheduler>("GlobalTaskScheduler", 1u, 1u);
  IService* timers =
      zf::lang::MakeDisposable<GlobalTimerScheduler>("GlobalTimerScheduler", &tasks->getThreadPool());
  static_cast<GlobalTimerScheduler*>(timers)->getTimerScheduler().addTimer(
      NewTimer(&tally, 1, 100000, -1));
  tasks->getThreadPool().addTask(NewTask(&tally, 2));
  timers->dispose();
  tasks->dispose();
  EXPECT_EQ(tally.disposals.load(), 2);
  EXPECT_EQ(tally.runs.load(), 1);
}

}  // namespace
