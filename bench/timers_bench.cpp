// Fixed-rate against fixed-delay timers: a 10 ms repeating timer whose run
// takes 3 ms (a sleep), for 1,000 runs. t0 is the scheduler's clock
// (SystemUtils::GetTick, the same monotonic clock as steady_clock) read just
// before the add call. Reported per contender:
//   drift: the start of the last run against t0 + 1000 * 10 ms, the ideal
//     grid with one run per period;
//   p99 lateness: the 99th percentile over all runs of the start against
//     the k-th slot t0 + k * 10 ms of the k-th run;
//   slot lateness (fixed rate only): the start against the latest slot at or
//     before it, so a skipped slot does not count as 10 ms late: of the last
//     run, and p50, p99 and max over all runs; and the number of slots
//     skipped (runs that started after their slot + 7 ms, so that the 3 ms
//     run overran the next slot).
// Contenders alternate; each figure is the median of the rounds, with the
// spread (min..max).
//
//   timers_bench [rounds (5)] [periods (1000)]
#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "foundation/lang/accounted.h"
#include "foundation/system/systemutils.h"
#include "foundation/threading/threadpool/threadpool.h"
#include "foundation/threading/timer/timerscheduler.h"

namespace {

using Clock = std::chrono::steady_clock;
using zorv::foundation::system::SystemUtils;
using zorv::foundation::threading::ITimer;
using zorv::foundation::threading::ThreadPool;
using zorv::foundation::threading::TimerScheduler;

constexpr unsigned long long kPeriodMs = 10;
constexpr auto kRunLength = std::chrono::milliseconds(3);

// Records the start of each run; the last run signals the end.
class GridTimer : public ITimer {
 public:
  GridTimer(std::vector<Clock::time_point>* starts, size_t periods, std::mutex* mutex,
            std::condition_variable* done, bool* finished)
      : starts_(starts), periods_(periods), mutex_(mutex), done_(done), finished_(finished) {}
  void run() override {
    starts_->push_back(Clock::now());
    std::this_thread::sleep_for(kRunLength);
    if (starts_->size() == periods_) {
      std::lock_guard<std::mutex> hold(*mutex_);
      *finished_ = true;
      done_->notify_all();
    }
  }
  bool isRepeat() override { return starts_->size() < periods_; }
  unsigned long long interval() override { return kPeriodMs; }

 private:
  std::vector<Clock::time_point>* starts_;
  size_t periods_;
  std::mutex* mutex_;
  std::condition_variable* done_;
  bool* finished_;
};

struct Figures {
  double driftMs;
  double lastSlotMs;
  double p99Ms;
  double slotP50Ms;
  double slotP99Ms;
  double slotMaxMs;
  double skipped;
};

double Percentile(std::vector<double> values, size_t percent) {
  std::sort(values.begin(), values.end());
  return values[values.size() * percent / 100];
}

enum class Mode { kFixedRate, kFixedDelay, kFixedRateOnPool };

const char* Name(Mode mode) {
  switch (mode) {
    case Mode::kFixedRate:
      return "addFixedRateTimer, own thread";
    case Mode::kFixedDelay:
      return "addTimer (fixed delay), own thread";
    case Mode::kFixedRateOnPool:
      return "addFixedRateTimer, 2-worker pool";
  }
  return "";
}

Figures Measure(Mode mode, size_t periods) {
  std::vector<Clock::time_point> starts;
  starts.reserve(periods);
  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;
  ThreadPool pool(2);
  TimerScheduler scheduler(mode == Mode::kFixedRateOnPool ? &pool : nullptr);
  ITimer* timer = zorv::foundation::lang::MakeDisposable<GridTimer>("GridTimer", &starts, periods,
                                                                    &mutex, &done, &finished);
  const Clock::time_point t0{std::chrono::milliseconds(SystemUtils::GetTick())};
  if (mode == Mode::kFixedDelay) {
    scheduler.addTimer(timer);
  } else {
    scheduler.addFixedRateTimer(timer);
  }
  {
    std::unique_lock<std::mutex> hold(mutex);
    done.wait(hold, [&] { return finished; });
  }
  scheduler.stop();
  std::vector<double> late, slotLate;
  const double period = static_cast<double>(kPeriodMs);
  for (size_t k = 0; k < starts.size(); ++k) {
    const double sinceT0 = std::chrono::duration<double, std::milli>(starts[k] - t0).count();
    late.push_back(sinceT0 - period * static_cast<double>(k + 1));
    slotLate.push_back(sinceT0 - period * std::floor(sinceT0 / period));
  }
  const double lastSlot = std::floor(
      std::chrono::duration<double, std::milli>(starts.back() - t0).count() / period);
  return Figures{late.back(), slotLate.back(), Percentile(late, 99), Percentile(slotLate, 50),
                 Percentile(slotLate, 99),
                 *std::max_element(slotLate.begin(), slotLate.end()),
                 lastSlot - static_cast<double>(periods)};
}

std::string LoadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string one, five, fifteen;
  in >> one >> five >> fifteen;
  return one + " " + five + " " + fifteen;
}

void Report(const char* what, std::vector<double> values, const char* unit) {
  std::sort(values.begin(), values.end());
  std::printf("  %-26s median %9.2f %-2s (%.2f .. %.2f)\n", what, values[values.size() / 2], unit,
              values.front(), values.back());
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
  const size_t periods = argc > 2 ? static_cast<size_t>(std::atoi(argv[2])) : 1000;
  const Mode modes[] = {Mode::kFixedRate, Mode::kFixedDelay, Mode::kFixedRateOnPool};
  std::vector<Figures> results[3];
  std::printf("period %llu ms, run %lld ms, %zu periods, %d rounds; load before: %s\n", kPeriodMs,
              static_cast<long long>(kRunLength.count()), periods, rounds, LoadAverage().c_str());
  for (int round = 0; round < rounds; ++round) {
    for (int m = 0; m < 3; ++m) results[m].push_back(Measure(modes[m], periods));
  }
  for (int m = 0; m < 3; ++m) {
    std::printf("%s\n", Name(modes[m]));
    std::vector<double> drift, lastSlot, p99, slotP50, slotP99, slotMax, skipped;
    for (const Figures& f : results[m]) {
      drift.push_back(f.driftMs);
      lastSlot.push_back(f.lastSlotMs);
      p99.push_back(f.p99Ms);
      slotP50.push_back(f.slotP50Ms);
      slotP99.push_back(f.slotP99Ms);
      slotMax.push_back(f.slotMaxMs);
      skipped.push_back(f.skipped);
    }
    Report("drift of the last run", drift, "ms");
    Report("p99 lateness", p99, "ms");
    if (modes[m] == Mode::kFixedDelay) continue;
    Report("last run against its slot", lastSlot, "ms");
    Report("slot lateness p50", slotP50, "ms");
    Report("slot lateness p99", slotP99, "ms");
    Report("slot lateness max", slotMax, "ms");
    Report("slots skipped", skipped, "");
  }
  std::printf("load after: %s\n", LoadAverage().c_str());
  return 0;
}
