// The cost of the debug-support library's hot paths as a caller sees them:
// one timing scope entered and left, and one accounted block taken and
// given back.
#include <benchmark/benchmark.h>
#include <time.h>

#include "foundation/debug/chronomonitor.h"
#include "foundation/debug/memorymonitor.h"

namespace {

using zorv::foundation::debug::ChronoMonitor;
using zorv::foundation::debug::MemoryMonitor;

// The same literal texts every time, as the thread pools time their tasks.
void TimingScope(benchmark::State& state) {
  for (auto _ : state) {
    ChronoMonitor::Chronometer scope("bench.Debug", "Scope");
    benchmark::ClobberMemory();
  }
}
BENCHMARK(TimingScope)->Threads(1)->Threads(2);

// The bare clock reads a scope makes, for reference.
void TwoClockReads(benchmark::State& state) {
  for (auto _ : state) {
    timespec a;
    timespec b;
    clock_gettime(CLOCK_MONOTONIC, &a);
    benchmark::ClobberMemory();
    clock_gettime(CLOCK_MONOTONIC, &b);
    benchmark::DoNotOptimize(b.tv_nsec - a.tv_nsec);
  }
}
BENCHMARK(TwoClockReads);

void AllocDealloc(benchmark::State& state) {
  const unsigned int size = static_cast<unsigned int>(state.range(0));
  for (auto _ : state) {
    unsigned char* block = MemoryMonitor::Alloc(size);
    benchmark::DoNotOptimize(block);
    MemoryMonitor::Dealloc(block, size);
  }
}
BENCHMARK(AllocDealloc)->Arg(24)->Arg(4096);

}  // namespace

BENCHMARK_MAIN();
