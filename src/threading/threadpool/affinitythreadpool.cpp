// AffinityThreadPool: one bounded FIFO queue per worker, chosen by affinity.
#include "foundation/threading/threadpool/affinitythreadpool.h"

#include <atomic>
#include <functional>
#include <unordered_set>

#include "foundation/collection/vector.h"
#include "foundation/lang/accounted.h"
#include "foundation/lang/exception.h"
#include "foundation/system/systemutils.h"
#include "threading/threadpool/taskqueue.h"

namespace zorv {
namespace foundation {
namespace threading {
namespace {

constexpr char kSource[] = "../threading/threadpool/affinitythreadpool.cpp";
constexpr char kDefaultName[] = "zorv.foundation.threading.AffinityThreadPool";
constexpr char kCategory[] = "zorv.foundation.threading.AffinityThreadPool";
constexpr char kAddTask[] = "zorv.foundation.threading.AffinityThreadPool.addTask";
constexpr unsigned int kMinBound = 100;

}  // namespace

namespace sealed {
namespace _AffinityThreadPool {
class MyThread;
}  // namespace _AffinityThreadPool
}  // namespace sealed

namespace detail {

struct AffinityThreadPoolPrivate {
  explicit AffinityThreadPoolPrivate(const SafeString& poolName) : name(poolName) {}

  SafeString name;
  // The workers in index order. A stopped pool keeps its (joined) workers
  // until it is destroyed, so that a producer racing with stop() never
  // touches a freed queue.
  collection::Vector<sealed::_AffinityThreadPool::MyThread*> workers;
  std::unordered_set<unsigned long long, std::hash<unsigned long long>,
                     std::equal_to<unsigned long long>, debug::Allocator<unsigned long long>>
      ids;
  // The number of running workers, readable without a lock: 0 means stopped.
  std::atomic<unsigned int> workerCount{0};
  // Workers watching for a task before they sleep, over all queues.
  std::atomic<int> watchers{0};
};

}  // namespace detail

namespace sealed {
namespace _AffinityThreadPool {

// A worker with its own queue: takes entries until it meets a stop marker.
class MyThread : public Thread {
 public:
  // Keeps room in the queue for this worker's stop marker; one worker of the
  // pool at a time watches for a task before sleeping.
  explicit MyThread(detail::AffinityThreadPoolPrivate* pool) : pool_(pool) {
    queue.reserveMarkers(1);
    queue.shareWatchers(&pool->watchers);
  }

  void run() override { detail::RunWorker(queue, pool_->name, kCategory); }

  detail::TaskQueue queue;

 private:
  detail::AffinityThreadPoolPrivate* pool_;
};

}  // namespace _AffinityThreadPool
}  // namespace sealed

using sealed::_AffinityThreadPool::MyThread;

namespace {

void DeleteWorkers(detail::AffinityThreadPoolPrivate* d) {
  for (MyThread*& worker : d->workers) {
    lang::AccountedDelete(worker, ZORV_ACCOUNTING_SITE(kSource, "~MyThread"));
  }
  d->workers.clear();
}

}  // namespace

AffinityThreadPool::AffinityThreadPool(unsigned int threadNum)
    : AffinityThreadPool(threadNum, SafeString(kDefaultName)) {}

AffinityThreadPool::AffinityThreadPool(unsigned int threadNum, const SafeString& name)
    : d_(nullptr) {
  d_ = lang::AccountedNewOrThrow<detail::AffinityThreadPoolPrivate>(
      ZORV_ACCOUNTING_SITE(kSource, "AffinityThreadPool"), name);
  try {
    const unsigned int count = detail::WorkerCount(threadNum);
    detail::StartWorkers<MyThread>(d_, count, kSource);
  } catch (...) {
    stop();
    DeleteWorkers(d_);
    lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~AffinityThreadPool"));
    throw;
  }
}

AffinityThreadPool::~AffinityThreadPool() {
  stop();
  DeleteWorkers(d_);
  lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~AffinityThreadPool"));
}

void AffinityThreadPool::addTask(ITask* task) {
  const unsigned int count = d_->workerCount.load(std::memory_order_acquire);
  (void)detail::AddTaskTo(
      count, task,
      [this, task, count]() -> detail::TaskQueue& {
        return d_->workers[task->getAffinity() % count]->queue;
      },
      false, 0, kAddTask);
}

bool AffinityThreadPool::tryAddTask(ITask* task, unsigned int ms) {
  const unsigned int count = d_->workerCount.load(std::memory_order_acquire);
  return detail::AddTaskTo(
      count, task,
      [this, task, count]() -> detail::TaskQueue& {
        return d_->workers[task->getAffinity() % count]->queue;
      },
      true, ms, kAddTask);
}

void AffinityThreadPool::setMaxTaskNum(unsigned int n) {
  const unsigned int count = d_->workerCount.load(std::memory_order_acquire);
  if (count == 0) return;
  const unsigned int share = n / count;
  const unsigned int bound = share < kMinBound ? kMinBound : share;
  for (unsigned int i = 0; i < count; ++i) {
    d_->workers[i]->queue.maxTaskNum.store(bound, std::memory_order_relaxed);
  }
}

void AffinityThreadPool::stop() {
  if (d_ == nullptr || d_->workerCount.load(std::memory_order_acquire) == 0) return;
  // One worker after another: each drains its own queue up to its marker and
  // is joined before the next is told to stop.
  for (MyThread* worker : d_->workers) {
    (void)worker->queue.putMarker();
    worker->wait();
    worker->queue.close();
  }
  d_->workerCount.store(0, std::memory_order_release);
}

bool AffinityThreadPool::isMyThread() const {
  return d_->ids.count(Thread::CurrentID()) != 0;
}

unsigned int AffinityThreadPool::threadNum() const {
  return d_->workerCount.load(std::memory_order_acquire);
}

unsigned int AffinityThreadPool::maxTaskNum(unsigned int index) const {
  if (index >= d_->workerCount.load(std::memory_order_acquire)) return 0;
  return d_->workers[index]->queue.maxTaskNum.load(std::memory_order_relaxed);
}

unsigned long long AffinityThreadPool::workerThreadID(unsigned int index) const {
  if (index >= d_->workerCount.load(std::memory_order_acquire)) return 0;
  return d_->workers[index]->threadID();
}

SafeString AffinityThreadPool::name() const { return d_->name; }

}  // namespace threading
}  // namespace foundation
}  // namespace zorv
