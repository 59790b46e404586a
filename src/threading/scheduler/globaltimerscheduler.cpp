// GlobalTimerScheduler: the process-wide timer scheduler.
#include "foundation/threading/scheduler/globaltimerscheduler.h"

#include "lang/accounting.h"
#include "threading/threadpool/taskqueue.h"

namespace zorv {
namespace foundation {
namespace threading {
namespace {

constexpr char kSource[] = "../threading/scheduler/globaltimerscheduler.cpp";
constexpr char kTypeName[] = "zorv.foundation.threading.GlobalTimerScheduler";

}  // namespace

GlobalTimerScheduler::GlobalTimerScheduler() : d_(nullptr) {
  d_ = lang::AccountedNewOrThrow<TimerScheduler>(
      ZORV_ACCOUNTING_SITE(kSource, "GlobalTimerScheduler"));
}

GlobalTimerScheduler::GlobalTimerScheduler(IExecutor* executor) : d_(nullptr) {
  d_ = lang::AccountedNewOrThrow<TimerScheduler>(
      ZORV_ACCOUNTING_SITE(kSource, "GlobalTimerScheduler"), executor);
}

GlobalTimerScheduler::~GlobalTimerScheduler() {
  lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~GlobalTimerScheduler"));
}

SafeString GlobalTimerScheduler::typeName() const { return SafeString(kTypeName); }

void GlobalTimerScheduler::finalize() { d_->stop(); }

TimerScheduler& GlobalTimerScheduler::getTimerScheduler() { return *d_; }

}  // namespace threading
}  // namespace foundation
}  // namespace zorv
