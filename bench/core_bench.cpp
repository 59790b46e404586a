// Accounted strings and vectors against the standard ones with
// std::allocator, with object tracing off.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "foundation/collection/vector.h"
#include "foundation/text/safestring.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;

template <class S>
void BuildShortStrings(benchmark::State& state) {
  for (auto _ : state) {
    for (int i = 0; i < 1000000; ++i) {
      S s("short");
      s += "er";
      benchmark::DoNotOptimize(s.data());
    }
  }
  state.SetItemsProcessed(state.iterations() * 1000000);
}

template <class S>
void BuildLongStrings(benchmark::State& state) {
  for (auto _ : state) {
    for (int i = 0; i < 1000000; ++i) {
      S s("a string long enough to need a heap block");
      s += " and a bit";
      benchmark::DoNotOptimize(s.data());
    }
  }
  state.SetItemsProcessed(state.iterations() * 1000000);
}

std::string MakeText() {
  std::string text;
  text.reserve(10 * 1024 * 1024);
  unsigned int seed = 1;
  while (text.size() < 10 * 1024 * 1024) {
    seed = seed * 1103515245u + 12345u;
    text.append(3 + (seed >> 16) % 40, static_cast<char>('a' + (seed >> 8) % 26));
    text.push_back(',');
  }
  return text;
}

template <class S, class V>
void SplitText(benchmark::State& state) {
  static const std::string source = MakeText();
  const S text(source.data(), source.size());
  for (auto _ : state) {
    V pieces;
    size_t start = 0;
    for (;;) {
      const size_t comma = text.find(',', start);
      if (comma == S::npos) break;
      pieces.push_back(text.substr(start, comma - start));
      start = comma + 1;
    }
    benchmark::DoNotOptimize(pieces.data());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<long long>(source.size()));
}

template <class V>
void PushInts(benchmark::State& state) {
  for (auto _ : state) {
    V v;
    for (int i = 0; i < 10000000; ++i) v.push_back(i);
    benchmark::DoNotOptimize(v.data());
  }
  state.SetItemsProcessed(state.iterations() * 10000000);
}

BENCHMARK_TEMPLATE(BuildShortStrings, std::string)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BuildShortStrings, SafeString)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BuildLongStrings, std::string)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(BuildLongStrings, SafeString)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(SplitText, std::string, std::vector<std::string>)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(SplitText, SafeString, Vector<SafeString>)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(PushInts, std::vector<int>)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(PushInts, Vector<int>)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
