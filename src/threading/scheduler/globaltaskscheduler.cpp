// GlobalTaskScheduler: the process-wide pool pair.
#include "foundation/threading/scheduler/globaltaskscheduler.h"

#include "lang/accounting.h"
#include "threading/threadpool/taskqueue.h"

namespace zorv {
namespace foundation {
namespace threading {
namespace {

constexpr char kSource[] = "../threading/scheduler/globaltaskscheduler.cpp";
constexpr char kTypeName[] = "zorv.foundation.threading.GlobalTaskScheduler";

}  // namespace

namespace detail {

// Members are destroyed in reverse order: the affinity pool first.
struct GlobalTaskSchedulerPrivate {
  GlobalTaskSchedulerPrivate(unsigned int threadNum, unsigned int affinityThreadNum)
      : threadPool(threadNum), affinityPool(affinityThreadNum) {}

  ThreadPool threadPool;
  AffinityThreadPool affinityPool;
};

}  // namespace detail

GlobalTaskScheduler::GlobalTaskScheduler() : GlobalTaskScheduler(0, 0) {}

GlobalTaskScheduler::GlobalTaskScheduler(unsigned int threadNum, unsigned int affinityThreadNum)
    : d_(nullptr) {
  d_ = lang::AccountedNewOrThrow<detail::GlobalTaskSchedulerPrivate>(
      ZORV_ACCOUNTING_SITE(kSource, "GlobalTaskScheduler"), threadNum, affinityThreadNum);
}

GlobalTaskScheduler::~GlobalTaskScheduler() {
  lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~GlobalTaskScheduler"));
}

SafeString GlobalTaskScheduler::typeName() const { return SafeString(kTypeName); }

void GlobalTaskScheduler::finalize() {
  d_->threadPool.stop();
  d_->affinityPool.stop();
}

ThreadPool& GlobalTaskScheduler::getThreadPool() { return d_->threadPool; }

AffinityThreadPool& GlobalTaskScheduler::getAffinityPool() { return d_->affinityPool; }

}  // namespace threading
}  // namespace foundation
}  // namespace zorv
