// Starting a program without waiting for it, from a caller of a given size:
// SystemUtils::Execute against the ways a program would do it otherwise
// (Poco::Process::launch, GLib's g_spawn_async, posix_spawn, and a plain
// fork and execv). Own harness: for each caller size (an extra heap of 0 and
// 256 MiB, every page written), the contenders take turns within each
// repetition, each starting /bin/true 100 times. Two figures per start:
//   start: the call alone, as the caller sees it;
//   start + rewrite: the call, then one write to every page of the heap,
//     which is what the caller's next work costs after a fork (each page
//     that the child shared is write-protected and faults once).
// Each figure is the median over the repetitions, with the lowest and the
// highest beside it.
//
//   build/release/bench/process_bench [repetitions]
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "foundation/system/systemutils.h"

#ifdef ZORV_BENCH_POCO
#include <Poco/Process.h>
#endif
#ifdef ZORV_BENCH_GLIB
#include <glib.h>
#endif

extern char** environ;

namespace {

using zorv::foundation::system::SystemUtils;

constexpr const char* kProgram = "/bin/true";
constexpr int kStarts = 100;
constexpr size_t kPage = 4096;

struct Contender {
  const char* name;
  std::function<bool()> start;
};

bool ForkExec() {
  const pid_t child = fork();
  if (child == 0) {
    char* const argv[] = {const_cast<char*>(kProgram), nullptr};
    execv(kProgram, argv);
    _exit(127);
  }
  return child > 0;
}

bool PosixSpawn() {
  char* const argv[] = {const_cast<char*>(kProgram), nullptr};
  pid_t child;
  return posix_spawn(&child, kProgram, nullptr, nullptr, argv, environ) == 0;
}

std::vector<Contender> Contenders() {
  std::vector<Contender> list = {
      {"zorv Execute", [] { return SystemUtils::Execute(kProgram, nullptr); }},
      {"fork + execv", ForkExec},
      {"posix_spawn", PosixSpawn},
  };
#ifdef ZORV_BENCH_POCO
  list.push_back({"Poco::Process::launch", [] {
                    Poco::Process::Args none;
                    Poco::ProcessHandle handle = Poco::Process::launch(kProgram, none);
                    return handle.id() > 0;
                  }});
#endif
#ifdef ZORV_BENCH_GLIB
  list.push_back({"g_spawn_async", [] {
                    gchar* argv[] = {const_cast<gchar*>(kProgram), nullptr};
                    return g_spawn_async(nullptr, argv, nullptr, G_SPAWN_DEFAULT, nullptr,
                                         nullptr, nullptr, nullptr) != FALSE;
                  }});
#endif
  return list;
}

double Now() {
  return std::chrono::duration<double, std::micro>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void Rewrite(std::vector<char>& heap) {
  for (size_t at = 0; at < heap.size(); at += kPage) heap[at] = static_cast<char>(heap[at] + 1);
}

// Microseconds per start: the call alone, and the call with the rewrite.
void Measure(const Contender& c, std::vector<char>& heap, double* start, double* withRewrite) {
  double calls = 0;
  double rewrites = 0;
  for (int i = 0; i < kStarts; ++i) {
    const double t0 = Now();
    if (!c.start()) {
      std::fprintf(stderr, "%s failed\n", c.name);
      std::exit(1);
    }
    const double t1 = Now();
    Rewrite(heap);
    calls += t1 - t0;
    rewrites += Now() - t1;
  }
  // The rewrite of a heap that no child shared, timed alike, is the same
  // for everyone; only what the start added to it counts.
  const double t0 = Now();
  for (int i = 0; i < kStarts; ++i) Rewrite(heap);
  const double plain = Now() - t0;
  *start = calls / kStarts;
  *withRewrite = (calls + rewrites - plain) / kStarts;
}

struct Figure {
  std::vector<double> runs;
  void print() {
    std::sort(runs.begin(), runs.end());
    std::printf("%9.1f (%.1f-%.1f)", runs[runs.size() / 2], runs.front(), runs.back());
  }
};

}  // namespace

int main(int argc, char** argv) {
  const int repetitions = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  // Every contender's children are reaped by the system, as Execute's are.
  signal(SIGCHLD, SIG_IGN);
  const std::vector<Contender> contenders = Contenders();
  for (const size_t mib : {size_t{0}, size_t{256}}) {
    std::vector<char> heap(mib << 20, 1);
    std::vector<Figure> starts(contenders.size()), totals(contenders.size());
    for (int r = 0; r < repetitions; ++r) {
      for (size_t k = 0; k < contenders.size(); ++k) {
        const size_t i = (k + static_cast<size_t>(r)) % contenders.size();
        double start = 0;
        double total = 0;
        Measure(contenders[i], heap, &start, &total);
        starts[i].runs.push_back(start);
        totals[i].runs.push_back(total);
      }
    }
    std::printf("caller with %zu MiB more heap, microseconds per start, median (lowest-highest) "
                "of %d repetitions of %d starts\n",
                mib, repetitions, kStarts);
    for (size_t i = 0; i < contenders.size(); ++i) {
      std::printf("  %-24s start", contenders[i].name);
      starts[i].print();
      std::printf("   start + rewrite");
      totals[i].print();
      std::printf("\n");
    }
  }
  return 0;
}
