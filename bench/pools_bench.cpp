// Thread pools and timers against peers: task throughput and submit-to-start
// latency, timer lateness, and adding/removing many timers.
//
// A small harness with its own main (percentiles do not fit Google
// Benchmark's model). Usage: pools_bench [tasks [pool-filter [reps]]]; tasks
// defaults to 1000000; a filter runs only the task figures of the pools whose
// names contain one of its '|'-separated words; reps (default 3) is how many
// times each figure is measured.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "foundation/lang/accounted.h"
#include "foundation/threading/threadpool/affinitythreadpool.h"
#include "foundation/threading/threadpool/threadpool.h"
#include "foundation/threading/timer/timerscheduler.h"

#ifdef ZORV_BENCH_POCO
#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>
#include <Poco/Runnable.h>
#include <Poco/ThreadPool.h>
#include <Poco/Util/Timer.h>
#include <Poco/Util/TimerTask.h>
#endif

#ifdef ZORV_BENCH_GLIB
#include <glib.h>
#endif

namespace {

namespace zf = zorv::foundation;
using Clock = std::chrono::steady_clock;

long long NowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

// ---- What every pool runs: a tiny heap-allocated task ----

std::atomic<long long> g_done{0};
// Submit-to-start latency samples, when a run measures them.
std::vector<long long>* g_latency = nullptr;

inline void TinyWork(long long submitted, size_t index) {
  if (g_latency != nullptr) (*g_latency)[index] = NowNs() - submitted;
  g_done.fetch_add(1, std::memory_order_relaxed);
}

struct Percentiles {
  double p50;
  double p99;
  double max;
};

Percentiles Compute(std::vector<long long> v, double scale) {
  std::sort(v.begin(), v.end());
  if (v.empty()) return {0, 0, 0};
  return {v[v.size() / 2] / scale, v[(v.size() * 99) / 100] / scale, v.back() / scale};
}

// A pool under test: submit(index, submittedNs) queues one task; drain()
// waits until every task ran and stops the pool.
struct Harness {
  const char* name;
  std::function<void*(unsigned int)> create;
  std::function<void(void*, size_t, long long)> submit;
  std::function<void(void*)> drain;
};

// ---- zorv ----

class ZorvTask : public zf::threading::ITask {
 public:
  ZorvTask(long long submitted, size_t index) : submitted_(submitted), index_(index) {}
  void run() override { TinyWork(submitted_, index_); }

 private:
  long long submitted_;
  size_t index_;
};

template <class Pool>
Harness ZorvHarness(const char* name) {
  return Harness{name, [](unsigned int workers) -> void* { return new Pool(workers); },
                 [](void* p, size_t i, long long t) {
                   static_cast<Pool*>(p)->addTask(new ZorvTask(t, i));
                 },
                 [](void* p) { delete static_cast<Pool*>(p); }};
}

// ---- The plain pool: std::mutex, std::condition_variable, std::deque ----

class PlainPool {
 public:
  struct Task {
    virtual ~Task() = default;
    virtual void run() = 0;
  };

  explicit PlainPool(unsigned int workers) {
    for (unsigned int i = 0; i < workers; ++i) threads_.emplace_back([this] { loop(); });
  }
  ~PlainPool() {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      stopping_ = true;
    }
    notEmpty_.notify_all();
    for (std::thread& t : threads_) t.join();
  }
  void add(Task* task) {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      queue_.push_back(task);
    }
    notEmpty_.notify_one();
  }

 private:
  void loop() {
    for (;;) {
      Task* task;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        notEmpty_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (queue_.empty()) return;
        task = queue_.front();
        queue_.pop_front();
      }
      task->run();
      delete task;
    }
  }

  std::mutex mutex_;
  std::condition_variable notEmpty_;
  std::deque<Task*> queue_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

struct PlainTask : PlainPool::Task {
  PlainTask(long long s, size_t i) : submitted(s), index(i) {}
  void run() override { TinyWork(submitted, index); }
  long long submitted;
  size_t index;
};

Harness PlainHarness() {
  return Harness{"std mutex+condvar+deque",
                 [](unsigned int workers) -> void* { return new PlainPool(workers); },
                 [](void* p, size_t i, long long t) {
                   static_cast<PlainPool*>(p)->add(new PlainTask(t, i));
                 },
                 [](void* p) { delete static_cast<PlainPool*>(p); }};
}

#ifdef ZORV_BENCH_POCO
// Poco::ThreadPool hands a Runnable to an idle thread and has no queue of
// its own; the idiomatic work queue is a NotificationQueue served by
// Runnables running on the pool.
struct PocoWork : Poco::Notification {
  PocoWork(long long s, size_t i) : submitted(s), index(i) {}
  long long submitted;
  size_t index;
};

struct PocoPool {
  struct Worker : Poco::Runnable {
    explicit Worker(Poco::NotificationQueue& q) : queue(q) {}
    void run() override {
      for (;;) {
        Poco::AutoPtr<Poco::Notification> n(queue.waitDequeueNotification());
        PocoWork* work = dynamic_cast<PocoWork*>(n.get());  // null: stop
        if (work == nullptr) return;
        TinyWork(work->submitted, work->index);
      }
    }
    Poco::NotificationQueue& queue;
  };

  explicit PocoPool(unsigned int workers) : pool(static_cast<int>(workers), static_cast<int>(workers)) {
    for (unsigned int i = 0; i < workers; ++i) {
      runners.emplace_back(new Worker(queue));
      pool.start(*runners.back());
    }
  }
  // One stop notification per worker, queued behind the work.
  ~PocoPool() {
    for (size_t i = 0; i < runners.size(); ++i) queue.enqueueNotification(new Poco::Notification());
    pool.joinAll();
  }

  Poco::NotificationQueue queue;
  Poco::ThreadPool pool;
  std::vector<std::unique_ptr<Worker>> runners;
};

Harness PocoHarness() {
  return Harness{"Poco::ThreadPool+NotificationQueue",
                 [](unsigned int workers) -> void* { return new PocoPool(workers); },
                 [](void* p, size_t i, long long t) {
                   static_cast<PocoPool*>(p)->queue.enqueueNotification(new PocoWork(t, i));
                 },
                 [](void* p) { delete static_cast<PocoPool*>(p); }};
}
#endif

#ifdef ZORV_BENCH_GLIB
struct GlibWork {
  long long submitted;
  size_t index;
};

void GlibRun(gpointer data, gpointer) {
  GlibWork* work = static_cast<GlibWork*>(data);
  TinyWork(work->submitted, work->index);
  delete work;
}

Harness GlibHarness() {
  return Harness{"GLib GThreadPool",
                 [](unsigned int workers) -> void* {
                   return g_thread_pool_new(&GlibRun, nullptr, static_cast<gint>(workers), TRUE,
                                            nullptr);
                 },
                 [](void* p, size_t i, long long t) {
                   g_thread_pool_push(static_cast<GThreadPool*>(p), new GlibWork{t, i}, nullptr);
                 },
                 [](void* p) { g_thread_pool_free(static_cast<GThreadPool*>(p), FALSE, TRUE); }};
}
#endif

std::vector<Harness> Harnesses() {
  std::vector<Harness> all;
  all.push_back(ZorvHarness<zf::threading::ThreadPool>("zorv ThreadPool"));
  all.push_back(ZorvHarness<zf::threading::AffinityThreadPool>("zorv AffinityThreadPool"));
  all.push_back(PlainHarness());
#ifdef ZORV_BENCH_POCO
  all.push_back(PocoHarness());
#endif
#ifdef ZORV_BENCH_GLIB
  all.push_back(GlibHarness());
#endif
  return all;
}

// Throughput: `tasks` tasks from one producer, timed until the last has run
// and the pool has stopped.
double Throughput(const Harness& h, unsigned int workers, size_t tasks) {
  g_done = 0;
  g_latency = nullptr;
  void* pool = h.create(workers);
  const long long start = NowNs();
  for (size_t i = 0; i < tasks; ++i) h.submit(pool, i, 0);
  h.drain(pool);
  const long long elapsed = NowNs() - start;
  std::fflush(stdout);
  if (g_done.load() != static_cast<long long>(tasks)) std::printf("  (lost tasks!)\n");
  return static_cast<double>(tasks) / (static_cast<double>(elapsed) / 1e9);
}

// Latency: one task at a time, the next submitted once the previous started,
// so that each sample is the hand-over to an idle worker.
Percentiles Latency(const Harness& h, unsigned int workers, size_t samples) {
  std::vector<long long> latency(samples, 0);
  g_done = 0;
  g_latency = &latency;
  void* pool = h.create(workers);
  for (size_t i = 0; i < samples; ++i) {
    h.submit(pool, i, NowNs());
    while (g_done.load(std::memory_order_relaxed) <= static_cast<long long>(i)) {
    }
  }
  h.drain(pool);
  g_latency = nullptr;
  return Compute(latency, 1000.0);
}

// True when `name` contains one of the '|'-separated words of `filter`.
bool Matches(const char* name, const char* filter) {
  if (filter == nullptr) return true;
  const std::string all(filter);
  size_t from = 0;
  for (;;) {
    const size_t bar = all.find('|', from);
    const std::string word = all.substr(from, bar == std::string::npos ? bar : bar - from);
    if (!word.empty() && std::strstr(name, word.c_str()) != nullptr) return true;
    if (bar == std::string::npos) return false;
    from = bar + 1;
  }
}

// The machine may be shared: every figure is measured kReps times, the
// pools taking turns; throughput is the best run, latency the run with the
// median p50.
int kReps = 3;

void TaskBenchmarks(size_t tasks, const char* only) {
  std::printf("Task throughput (%zu tiny heap tasks, one producer; best of %d) and\n"
              "submit-to-start latency (one task at a time, 20000 samples; median of %d)\n",
              tasks, kReps, kReps);
  std::printf("%-36s %8s %14s %10s %10s\n", "pool", "workers", "tasks/s", "p50 us", "p99 us");
  const std::vector<Harness> all = Harnesses();
  for (unsigned int workers : {2u, 4u}) {
    std::vector<double> best(all.size(), 0.0);
    std::vector<std::vector<Percentiles>> lat(all.size());
    for (int rep = 0; rep < kReps; ++rep) {
      for (size_t h = 0; h < all.size(); ++h) {
        if (!Matches(all[h].name, only)) continue;
        best[h] = std::max(best[h], Throughput(all[h], workers, tasks));
        lat[h].push_back(Latency(all[h], workers, 20000));
      }
    }
    for (size_t h = 0; h < all.size(); ++h) {
      if (lat[h].empty()) continue;
      std::sort(lat[h].begin(), lat[h].end(),
                [](const Percentiles& a, const Percentiles& b) { return a.p50 < b.p50; });
      const Percentiles& mid = lat[h][lat[h].size() / 2];
      std::printf("%-36s %8u %14.0f %10.1f %10.1f\n", all[h].name, workers, best[h], mid.p50,
                  mid.p99);
    }
    std::fflush(stdout);
  }
}

// ---- Timers ----

constexpr int kTimers = 2000;

struct TimerPlan {
  std::vector<long long> due;    // ns
  std::vector<long long> fired;  // ns
  std::atomic<int> count{0};
};

class LatenessTimer : public zf::threading::ITimer {
 public:
  LatenessTimer(TimerPlan* plan, int index, unsigned long long ms)
      : plan_(plan), index_(index), ms_(ms) {}
  void run() override {
    plan_->fired[index_] = NowNs();
    plan_->count.fetch_add(1);
  }
  bool isRepeat() override { return false; }
  unsigned long long interval() override { return ms_; }

 private:
  TimerPlan* plan_;
  int index_;
  unsigned long long ms_;
};

// A plain timer thread: a multimap of due times and a condition variable.
class PlainTimerThread {
 public:
  PlainTimerThread() : thread_([this] { loop(); }) {}
  ~PlainTimerThread() {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      stopping_ = true;
    }
    cv_.notify_one();
    thread_.join();
  }
  void add(Clock::time_point due, std::function<void()> fn) {
    std::lock_guard<std::mutex> guard(mutex_);
    const bool first = timers_.empty() || due < timers_.begin()->first;
    timers_.emplace(due, std::move(fn));
    if (first) cv_.notify_one();
  }

 private:
  void loop() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
      if (timers_.empty()) {
        cv_.wait(lock);
        continue;
      }
      auto first = timers_.begin();
      if (Clock::now() < first->first) {
        cv_.wait_until(lock, first->first);
        continue;
      }
      std::function<void()> fn = std::move(first->second);
      timers_.erase(first);
      lock.unlock();
      fn();
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable cv_;
  std::multimap<Clock::time_point, std::function<void()>> timers_;
  bool stopping_ = false;
  std::thread thread_;
};

#ifdef ZORV_BENCH_POCO
class PocoLatenessTask : public Poco::Util::TimerTask {
 public:
  PocoLatenessTask(TimerPlan* plan, int index) : plan_(plan), index_(index) {}
  void run() override {
    plan_->fired[index_] = NowNs();
    plan_->count.fetch_add(1);
  }

 private:
  TimerPlan* plan_;
  int index_;
};
#endif

void WaitFired(TimerPlan& plan) {
  const long long limit = NowNs() + 5000000000LL;
  while (plan.count.load() < kTimers && NowNs() < limit) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

void PrintLateness(const char* name, TimerPlan& plan) {
  std::vector<long long> late;
  for (int i = 0; i < kTimers; ++i) late.push_back(std::max(0LL, plan.fired[i] - plan.due[i]));
  const Percentiles p = Compute(late, 1e6);
  std::printf("%-36s %10.3f %10.3f %10.3f %8d\n", name, p.p50, p.p99, p.max, plan.count.load());
}

void TimerBenchmarks() {
  std::mt19937 random(42);
  std::vector<unsigned int> delays;
  for (int i = 0; i < kTimers; ++i) delays.push_back(1 + random() % 50);
  std::printf("\nTimer lateness, %d timers with random 1-50 ms delays (ms)\n", kTimers);
  std::printf("%-36s %10s %10s %10s %8s\n", "timer", "p50", "p99", "max", "fired");

  auto zorvRun = [&](const char* name, zf::threading::IExecutor* executor) {
    TimerPlan plan;
    plan.due.resize(kTimers);
    plan.fired.resize(kTimers);
    zf::threading::TimerScheduler scheduler(executor);
    for (int i = 0; i < kTimers; ++i) {
      plan.due[i] = NowNs() + delays[i] * 1000000LL;
      scheduler.addTimer(new LatenessTimer(&plan, i, delays[i]));
    }
    WaitFired(plan);
    PrintLateness(name, plan);
  };
  zorvRun("zorv TimerScheduler (own thread)", nullptr);
  {
    zf::threading::ThreadPool pool(2);
    zorvRun("zorv TimerScheduler over ThreadPool(2)", &pool);
  }
  {
    TimerPlan plan;
    plan.due.resize(kTimers);
    plan.fired.resize(kTimers);
    PlainTimerThread timers;
    for (int i = 0; i < kTimers; ++i) {
      const Clock::time_point now = Clock::now();
      plan.due[i] = std::chrono::duration_cast<std::chrono::nanoseconds>(now.time_since_epoch()).count() +
                    delays[i] * 1000000LL;
      timers.add(now + std::chrono::milliseconds(delays[i]), [&plan, i] {
        plan.fired[i] = NowNs();
        plan.count.fetch_add(1);
      });
    }
    WaitFired(plan);
    PrintLateness("std multimap+condvar thread", plan);
  }
#ifdef ZORV_BENCH_POCO
  {
    TimerPlan plan;
    plan.due.resize(kTimers);
    plan.fired.resize(kTimers);
    Poco::Util::Timer timer;
    for (int i = 0; i < kTimers; ++i) {
      plan.due[i] = NowNs() + delays[i] * 1000000LL;
      Poco::Clock due;
      due += static_cast<Poco::Clock::ClockDiff>(delays[i]) * 1000;
      timer.schedule(new PocoLatenessTask(&plan, i), due);
    }
    WaitFired(plan);
    PrintLateness("Poco::Util::Timer", plan);
    timer.cancel(true);
  }
#endif
}

class IdleTimer : public zf::threading::ITimer {
 public:
  explicit IdleTimer(unsigned long long ms) : ms_(ms) {}
  void run() override {}
  bool isRepeat() override { return true; }
  unsigned long long interval() override { return ms_; }

 private:
  unsigned long long ms_;
};

void AddRemoveBenchmark() {
  const int n = 100000;
  std::vector<IdleTimer*> timers;
  timers.reserve(n);
  for (int i = 0; i < n; ++i) timers.push_back(new IdleTimer(60000 + static_cast<unsigned>(i % 1000)));
  zf::threading::TimerScheduler scheduler;
  const long long start = NowNs();
  for (IdleTimer* t : timers) scheduler.addTimer(t);
  const long long added = NowNs();
  for (IdleTimer* t : timers) scheduler.removeTimer(t, false);
  const long long removed = NowNs();
  std::printf("\nAdd %d timers: %.1f ms; remove them: %.1f ms; total %.1f ms\n", n,
              (added - start) / 1e6, (removed - added) / 1e6, (removed - start) / 1e6);
}

}  // namespace

int main(int argc, char** argv) {
  const size_t tasks = argc > 1 ? static_cast<size_t>(std::strtoul(argv[1], nullptr, 10)) : 1000000;
  const char* only = argc > 2 ? argv[2] : nullptr;
  if (argc > 3) kReps = std::max(1, std::atoi(argv[3]));
  TaskBenchmarks(tasks, only);
  if (only != nullptr) return 0;
  TimerBenchmarks();
  AddRemoveBenchmark();
  return 0;
}
