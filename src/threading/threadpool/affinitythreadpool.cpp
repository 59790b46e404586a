// AffinityThreadPool: one bounded FIFO queue per worker, chosen by affinity.
#include "foundation/threading/threadpool/affinitythreadpool.h"

#include <atomic>
#include <functional>
#include <unordered_set>
#include <vector>

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

constexpr char kSource[] = "../threading/threadpool/affinitythreadpool.cpp";
constexpr char kDefaultName[] = "zorv.foundation.threading.AffinityThreadPool";
constexpr char kCategory[] = "zorv.foundation.threading.AffinityThreadPool";
constexpr char kAddTask[] = "zorv.foundation.threading.AffinityThreadPool.addTask";
constexpr char kStop[] = "zorv.foundation.threading.AffinityThreadPool.stop";
constexpr char kFromWorker[] = "called from a worker";
constexpr unsigned int kMinBound = 100;

}  // namespace

namespace sealed {
namespace _AffinityThreadPool {
class MyThread;
}  // namespace _AffinityThreadPool
}  // namespace sealed

namespace detail {

struct AffinityThreadPoolPrivate {
  AffinityThreadPoolPrivate(const SafeString& poolName, unsigned int count)
      : name(poolName), users(count) {}

  SafeString name;
  // The workers in index order; stop() deletes each one once it has ended
  // and no producer uses it any more.
  collection::Vector<sealed::_AffinityThreadPool::MyThread*> workers;
  std::unordered_set<unsigned long long, std::hash<unsigned long long>,
                     std::equal_to<unsigned long long>, debug::Allocator<unsigned long long>>
      ids;
  // The producers inside each worker's queue, by index; they outlive the
  // workers, so that a producer that raced with stop() is turned away at the
  // door of a deleted worker.
  std::vector<WorkerUsers, debug::Allocator<WorkerUsers>> users;
  // The number of started workers, readable without a lock: 0 means stopped.
  // It stays put while stop() runs, so that a task's worker does not change.
  std::atomic<unsigned int> workerCount{0};
  // Workers watching for a task before they sleep, over all queues; the
  // watcher makes the wake-up calls of the others.
  detail::WatchShare watchers{true};
  // Held through stop(): a second caller waits for the first to finish.
  Lock stopLock;
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

  void run() override { detail::RunWorker(pool_, queue, waiter_, pool_->name, kCategory); }

  detail::TaskQueue queue;

 private:
  detail::AffinityThreadPoolPrivate* pool_;
  detail::TaskWaiter waiter_;
};

}  // namespace _AffinityThreadPool
}  // namespace sealed

using sealed::_AffinityThreadPool::MyThread;

namespace {

// Puts `task` on the queue of its worker. The affinity is asked before the
// wait budget starts.
bool AddToWorker(detail::AffinityThreadPoolPrivate* d, ITask* task, bool timed, unsigned int ms) {
  const unsigned int count = d->workerCount.load(std::memory_order_acquire);
  if (count == 0) detail::Refuse(task, kAddTask);
  unsigned int index;
  try {
    index = task->getAffinity() % count;
  } catch (...) {
    task->dispose();
    throw;
  }
  {
    detail::WorkerUse use(d->users[index]);
    if (use.entered()) return detail::PutTask(d->workers[index]->queue, task, timed, ms, kAddTask);
  }
  detail::Refuse(task, kAddTask);  // that worker was stopped
}

}  // namespace

AffinityThreadPool::AffinityThreadPool(unsigned int threadNum)
    : AffinityThreadPool(threadNum, SafeString(kDefaultName)) {}

AffinityThreadPool::AffinityThreadPool(unsigned int threadNum, const SafeString& name)
    : d_(nullptr) {
  const unsigned int count = detail::WorkerCount(threadNum);
  d_ = lang::AccountedNewOrThrow<detail::AffinityThreadPoolPrivate>(
      ZORV_ACCOUNTING_SITE(kSource, "AffinityThreadPool"), name, count);
  try {
    detail::StartWorkers<MyThread>(d_, count, kSource);
  } catch (...) {
    stop();
    lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~AffinityThreadPool"));
    throw;
  }
}

AffinityThreadPool::~AffinityThreadPool() {
  stop();
  lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~AffinityThreadPool"));
}

void AffinityThreadPool::addTask(ITask* task) { (void)AddToWorker(d_, task, false, 0); }

bool AffinityThreadPool::tryAddTask(ITask* task, unsigned int ms) {
  return AddToWorker(d_, task, true, ms);
}

void AffinityThreadPool::setMaxTaskNum(unsigned int n) {
  const unsigned int count = d_->workerCount.load(std::memory_order_acquire);
  if (count == 0) return;
  const unsigned int share = n / count;
  const unsigned int bound = share < kMinBound ? kMinBound : share;
  for (unsigned int i = 0; i < count; ++i) {
    detail::WorkerUse use(d_->users[i]);
    if (use.entered()) d_->workers[i]->queue.setBound(bound);
  }
}

void AffinityThreadPool::stop() {
  if (d_ == nullptr) return;
  if (detail::IsWorkerOf(d_)) throw lang::Exception(kStop, kFromWorker);
  Locker hold(&d_->stopLock, false);
  const unsigned int count = d_->workerCount.load(std::memory_order_acquire);
  if (count == 0) return;
  // One worker after another: its marker closes its queue, so a task that
  // would land behind the marker is refused; the worker drains its queue up
  // to the marker and is joined, then deleted once no producer is inside.
  // The later workers keep running and accepting tasks meanwhile.
  for (unsigned int i = 0; i < count; ++i) {
    MyThread*& worker = d_->workers[i];
    (void)worker->queue.putMarker(true);
    worker->wait();
    d_->users[i].retire();
    lang::AccountedDelete(worker, ZORV_ACCOUNTING_SITE(kSource, "~MyThread"));
  }
  d_->workers.clear();
  d_->workerCount.store(0, std::memory_order_release);
}

bool AffinityThreadPool::isMyThread() const { return d_->ids.count(Thread::CurrentID()) != 0; }

unsigned int AffinityThreadPool::threadNum() const {
  return d_->workerCount.load(std::memory_order_acquire);
}

unsigned int AffinityThreadPool::maxTaskNum(unsigned int index) const {
  if (index >= d_->workerCount.load(std::memory_order_acquire)) return 0;
  detail::WorkerUse use(d_->users[index]);
  return use.entered() ? d_->workers[index]->queue.maxTaskNum.load(std::memory_order_relaxed) : 0;
}

unsigned long long AffinityThreadPool::workerThreadID(unsigned int index) const {
  if (index >= d_->workerCount.load(std::memory_order_acquire)) return 0;
  detail::WorkerUse use(d_->users[index]);
  return use.entered() ? d_->workers[index]->threadID() : 0;
}

SafeString AffinityThreadPool::name() const { return d_->name; }

}  // namespace threading
}  // namespace foundation
}  // namespace zorv
