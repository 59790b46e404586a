// ThreadPool: workers fed from one bounded FIFO queue.
#include "foundation/threading/threadpool/threadpool.h"

#include <atomic>
#include <functional>
#include <unordered_set>

#include "foundation/collection/vector.h"
#include "foundation/lang/exception.h"
#include "foundation/system/systemutils.h"
#include "foundation/threading/lock.h"
#include "lang/accounting.h"
#include "threading/threadpool/taskqueue.h"

namespace zorv {
namespace foundation {
namespace threading {
namespace {

constexpr char kSource[] = "../threading/threadpool/threadpool.cpp";
constexpr char kDefaultName[] = "zorv.foundation.threading.ThreadPool";
constexpr char kCategory[] = "zorv.foundation.threading.ThreadPool";
constexpr char kAddTask[] = "zorv.foundation.threading.ThreadPool.addTask";
constexpr char kStop[] = "zorv.foundation.threading.ThreadPool.stop";
constexpr char kFromWorker[] = "called from a worker";
constexpr unsigned int kMinBound = 100;

}  // namespace

namespace sealed {
namespace _ThreadPool {
class MyThread;
}  // namespace _ThreadPool
}  // namespace sealed

namespace detail {

struct ThreadPoolPrivate {
  explicit ThreadPoolPrivate(const SafeString& poolName) : name(poolName) {}

  SafeString name;
  TaskQueue queue;
  collection::Vector<sealed::_ThreadPool::MyThread*> workers;
  std::unordered_set<unsigned long long, std::hash<unsigned long long>,
                     std::equal_to<unsigned long long>, debug::Allocator<unsigned long long>>
      ids;
  // workers.size(), readable without the lock: 0 means stopped.
  std::atomic<unsigned int> workerCount{0};
  // Held through stop(): a second caller waits for the first to finish.
  Lock stopLock;
};

}  // namespace detail

namespace sealed {
namespace _ThreadPool {

// A worker: takes entries from the pool's queue until it meets a stop marker.
class MyThread : public Thread {
 public:
  explicit MyThread(detail::ThreadPoolPrivate* pool) : pool_(pool) {}

  void run() override {
    detail::RunWorker(pool_, pool_->queue, waiter_, pool_->name, kCategory);
  }

 private:
  detail::ThreadPoolPrivate* pool_;
  detail::TaskWaiter waiter_;
};

}  // namespace _ThreadPool
}  // namespace sealed

using sealed::_ThreadPool::MyThread;

IExecutor::~IExecutor() = default;

ThreadPool::ThreadPool(unsigned int threadNum) : ThreadPool(threadNum, SafeString(kDefaultName)) {}

ThreadPool::ThreadPool(unsigned int threadNum, const SafeString& name) : d_(nullptr) {
  d_ = lang::AccountedNewOrThrow<detail::ThreadPoolPrivate>(
      ZORV_ACCOUNTING_SITE(kSource, "ThreadPool"), name);
  try {
    const unsigned int count = detail::WorkerCount(threadNum);
    // Room for one stop marker per worker, so that stop() never allocates.
    d_->queue.reserveMarkers(count);
    detail::StartWorkers<MyThread>(d_, count, kSource);
  } catch (...) {
    stop();
    lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~ThreadPool"));
    throw;
  }
}

ThreadPool::~ThreadPool() {
  stop();
  lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~ThreadPool"));
}

void ThreadPool::addTask(ITask* task) {
  if (d_->workerCount.load(std::memory_order_acquire) == 0) detail::Refuse(task, kAddTask);
  (void)detail::PutTask(d_->queue, task, false, 0, kAddTask);
}

bool ThreadPool::tryAddTask(ITask* task, unsigned int ms) {
  if (d_->workerCount.load(std::memory_order_acquire) == 0) detail::Refuse(task, kAddTask);
  return detail::PutTask(d_->queue, task, true, ms, kAddTask);
}

void ThreadPool::setMaxTaskNum(unsigned int n) {
  d_->queue.setBound(n < kMinBound ? kMinBound : n);
}

void ThreadPool::stop() {
  if (d_ == nullptr) return;
  if (detail::IsWorkerOf(d_)) throw lang::Exception(kStop, kFromWorker);
  Locker hold(&d_->stopLock, false);
  if (d_->workers.empty()) return;
  // The markers queue behind every task already present; each worker ends at
  // the first marker it takes, so every entry before the last marker is
  // taken by a worker still running. The last marker closes the queue: a
  // task that would land behind it is refused instead.
  const std::size_t markers = d_->workers.size();
  for (std::size_t i = 0; i < markers; ++i) (void)d_->queue.putMarker(i + 1 == markers);
  for (MyThread*& worker : d_->workers) {
    worker->wait();
    lang::AccountedDelete(worker, ZORV_ACCOUNTING_SITE(kSource, "~MyThread"));
  }
  d_->workers.clear();
  d_->workerCount.store(0, std::memory_order_release);
}

bool ThreadPool::isMyThread() const { return d_->ids.count(Thread::CurrentID()) != 0; }

unsigned int ThreadPool::threadNum() const {
  return d_->workerCount.load(std::memory_order_acquire);
}

unsigned int ThreadPool::maxTaskNum() const {
  return d_->queue.maxTaskNum.load(std::memory_order_relaxed);
}

unsigned int ThreadPool::queuedNum() const {
  return d_->queue.queued.load(std::memory_order_relaxed);
}

SafeString ThreadPool::name() const { return d_->name; }

}  // namespace threading
}  // namespace foundation
}  // namespace zorv
