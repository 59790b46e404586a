// The demo: the typical timed job of a program of the family. The host
// builds the process-wide task scheduler (a thread pool and an affinity
// pool) and a timer scheduler that runs its timers on that thread pool, adds
// repeating and one-shot timers that do real work, finalizes both services,
// and prints the debug-support report: no live objects or handles are left,
// and the pools' timing scopes show where the time went.
//
// Its settings come from a configuration file (examples/demo.ini, or the
// file named as the first argument), and it reports the SHA-256 digest of
// that file. Its checksum report is saved crash-safe to the file named as
// the second argument, or to zorv-demo-report.txt in $TMPDIR (else /tmp).
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "foundation/foundation.h"

namespace zf = zorv::foundation;
using zf::threading::GlobalTaskScheduler;
using zf::threading::GlobalTimerScheduler;
using zf::threading::ITask;
using zf::threading::ITimer;
using zf::threading::Thread;

namespace {

// What the configuration file can change.
struct Settings {
  unsigned int samplerRuns = 15;
  unsigned long long samplerMs = 10;
  unsigned long long heartbeatMs = 50;
  unsigned long long reportMs = 250;
};
Settings g_settings;

// Reads [sampler] runs and interval_ms, [heartbeat] interval_ms and
// [report] delay_ms; anything missing keeps its default.
void LoadSettings(const char* path) {
  zf::config::Archiver ini;
  try {
    if (!ini.parseFile(path)) {
      std::printf("settings: %s cannot be read, using defaults\n", path);
      return;
    }
  } catch (const zf::lang::Exception& e) {
    std::printf("settings: %s, using defaults\n", e.what().c_str());
    return;
  }
  zf::SafeString v;
  using zf::text::StringUtils;
  if (ini.value("sampler", "runs", v)) g_settings.samplerRuns = StringUtils::StringToUInt(v);
  if (ini.value("sampler", "interval_ms", v)) g_settings.samplerMs = StringUtils::StringToUInt(v);
  if (ini.value("heartbeat", "interval_ms", v)) {
    g_settings.heartbeatMs = StringUtils::StringToUInt(v);
  }
  if (ini.value("report", "delay_ms", v)) g_settings.reportMs = StringUtils::StringToUInt(v);
  std::printf("settings from %s: %u sampler runs every %llu ms, heartbeat every %llu ms, "
              "report after %llu ms\n",
              path, g_settings.samplerRuns, g_settings.samplerMs, g_settings.heartbeatMs,
              g_settings.reportMs);

  zf::SafeString sha256;
  if (zf::crypto::SHA256::EncodeFile(path, sha256)) {
    std::printf("settings file SHA-256 %s\n", sha256.c_str());
  }
}

std::atomic<unsigned long long> g_primes{0};
std::atomic<unsigned int> g_nextBlock{0};
std::atomic<unsigned int> g_samples{0};
std::atomic<unsigned long long> g_checksums[4];
std::atomic<bool> g_reported{false};

// Counts the primes of one block of 20000 numbers by trial division.
unsigned long long PrimesInBlock(unsigned int block) {
  const unsigned int begin = block * 20000u + 2u;
  unsigned long long count = 0;
  for (unsigned int n = begin; n < begin + 20000u; ++n) {
    bool prime = true;
    for (unsigned int d = 2; d * d <= n; ++d) {
      if (n % d == 0) {
        prime = false;
        break;
      }
    }
    if (prime) ++count;
  }
  return count;
}

// Repeating: sieve the next block of numbers (by default every 10 ms, 15
// runs).
class PrimeSampler : public ITimer {
 public:
  void run() override {
    g_primes += PrimesInBlock(g_nextBlock++);
    ++g_samples;
  }
  bool isRepeat() override { return g_samples.load() < g_settings.samplerRuns; }
  unsigned long long interval() override { return g_settings.samplerMs; }
};

// Work for the affinity pool: checksums of one stream of records, kept in
// order because every record of a stream has the stream's affinity.
class ChecksumTask : public ITask {
 public:
  ChecksumTask(unsigned int stream, unsigned int record) : stream_(stream), record_(record) {}
  void run() override {
    unsigned long long sum = g_checksums[stream_].load();
    sum = sum * 31u + record_;  // order matters: a stream is serialised
    g_checksums[stream_].store(sum);
  }
  unsigned int getAffinity() const override { return stream_; }

 private:
  unsigned int stream_;
  unsigned int record_;
};

// Repeating: print a heartbeat line (by default every 50 ms).
class Heartbeat : public ITimer {
 public:
  void run() override {
    std::printf("[heartbeat %u] %u blocks sieved, %llu primes so far\n", ++beats_,
                g_samples.load(), g_primes.load());
  }
  bool isRepeat() override { return !g_reported.load(); }
  unsigned long long interval() override { return g_settings.heartbeatMs; }

 private:
  unsigned int beats_ = 0;
};

// One-shot: after a delay (by default 250 ms), hand checksum work for four streams to the
// affinity pool and report.
class Report : public ITimer {
 public:
  explicit Report(GlobalTaskScheduler* tasks) : tasks_(tasks) {}
  void run() override {
    for (unsigned int record = 0; record < 1000; ++record) {
      for (unsigned int stream = 0; stream < 4; ++stream) {
        tasks_->getAffinityPool().addTask(
            zf::lang::MakeDisposable<ChecksumTask>("ChecksumTask", stream, record));
      }
    }
    std::printf("[report] %u blocks sieved, %llu primes below %u; 4000 checksum tasks queued\n",
                g_samples.load(), g_primes.load(), g_samples.load() * 20000u + 2u);
    g_reported = true;
  }
  bool isRepeat() override { return false; }
  unsigned long long interval() override { return g_settings.reportMs; }

 private:
  GlobalTaskScheduler* tasks_;
};

}  // namespace

int main(int argc, char** argv) {
  LoadSettings(argc > 1 ? argv[1] : ZORV_DEMO_SETTINGS);
  {
    GlobalTaskScheduler tasks(2, 2);
    GlobalTimerScheduler timers(&tasks.getThreadPool());
    std::printf("services: %s/%s over %s/%s (%u + %u workers)\n", timers.typeName().c_str(),
                timers.instanceName().c_str(), tasks.typeName().c_str(),
                tasks.instanceName().c_str(), tasks.getThreadPool().threadNum(),
                tasks.getAffinityPool().threadNum());

    zf::threading::TimerScheduler& scheduler = timers.getTimerScheduler();
    scheduler.addTimer(zf::lang::MakeDisposable<PrimeSampler>("PrimeSampler"));
    scheduler.addTimer(zf::lang::MakeDisposable<Heartbeat>("Heartbeat"));
    scheduler.addTimer(zf::lang::MakeDisposable<Report>("Report", &tasks));

    for (int i = 0; i < 300 && !g_reported.load(); ++i) Thread::Sleep(10);

    // Timers first (they run on the task scheduler's pool), then the pools,
    // which run every task still queued.
    timers.finalize();
    tasks.finalize();
    char report[128];
    std::snprintf(report, sizeof report, "checksums: %llx %llx %llx %llx\n",
                  g_checksums[0].load(), g_checksums[1].load(), g_checksums[2].load(),
                  g_checksums[3].load());
    std::fputs(report, stdout);
    // A crash or power cut leaves the previous report or this one, never a mix.
    const char* tmp = std::getenv("TMPDIR");
    const zf::SafeString saved = argc > 2 ? zf::SafeString(argv[2])
                                          : zf::SafeString(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                                                "/zorv-demo-report.txt";
    if (zf::file::FileUtils::WriteTextAtomic(saved, report)) {
      std::printf("report saved to %s\n", saved.c_str());
    } else {
      std::printf("report not saved to %s\n", saved.c_str());
    }
  }

  std::printf("live objects: %llu, live handles: %lld\n",
              zf::debug::ObjectMonitor::LiveObjects(), zf::debug::SystemMonitor::LiveHandles());
  std::printf("thread pool runs: %llu (%.3f ms), affinity pool runs: %llu (%.3f ms)\n",
              zf::debug::ChronoMonitor::Count("zorv.foundation.threading.ThreadPool", "Exec"),
              zf::debug::ChronoMonitor::TotalNanos("zorv.foundation.threading.ThreadPool", "Exec") /
                  1e6,
              zf::debug::ChronoMonitor::Count("zorv.foundation.threading.AffinityThreadPool",
                                              "Exec"),
              zf::debug::ChronoMonitor::TotalNanos("zorv.foundation.threading.AffinityThreadPool",
                                                   "Exec") /
                  1e6);
  std::fflush(stdout);
  zf::debug::PrintReport();
  return 0;
}
