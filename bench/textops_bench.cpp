// Everyday text operations against the peers a program would use instead:
// splitting at a separator, trimming, case mapping and comparing without
// case, each giving what the caller keeps (a new vector of strings, a new
// string), as a program of the family does with a settings line or a key.
// Peers: GLib (g_strsplit, g_strstrip, g_ascii_strdown,
// g_ascii_strcasecmp), Poco (StringTokenizer, trim, toLower, icompare), the
// C library (strcasecmp) and a plain std::string loop.
#include <benchmark/benchmark.h>
#include <strings.h>

#include <cstring>
#include <string>
#include <vector>

#include "foundation/collection/vector.h"
#include "foundation/text/safestring.h"
#include "foundation/text/stringutils.h"

#ifdef ZORV_BENCH_GLIB
#include <glib.h>
#endif
#ifdef ZORV_BENCH_POCO
#include <Poco/String.h>
#include <Poco/StringTokenizer.h>
#endif

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::text::StringUtils;

// A settings line of 8 fields, and a text of 2,000 such lines joined by
// commas (about 120 KiB, fields of 2 to 15 bytes).
const char* const kLine = "eth0,192.168.10.20,255.255.255.0,192.168.10.1,1500,auto,on,dhcp";

const std::string& LongText() {
  static const std::string text = [] {
    std::string t;
    for (int i = 0; i < 2000; ++i) {
      if (i > 0) t += ',';
      t += kLine;
    }
    return t;
  }();
  return text;
}

const char* SplitInput(const benchmark::State& state) {
  return state.range(0) == 0 ? kLine : LongText().c_str();
}

void SplitZorv(benchmark::State& state) {
  const char* text = SplitInput(state);
  for (auto _ : state) {
    Vector<SafeString> pieces;
    (void)StringUtils::Split(text, ',', pieces);
    benchmark::DoNotOptimize(pieces.data());
  }
}
BENCHMARK(SplitZorv)->Arg(0)->Arg(1)->ArgName("long");

void SplitStdFind(benchmark::State& state) {
  const std::string text = SplitInput(state);
  for (auto _ : state) {
    std::vector<std::string> pieces;
    size_t start = 0;
    for (;;) {
      const size_t comma = text.find(',', start);
      pieces.emplace_back(text, start, comma == std::string::npos ? std::string::npos
                                                                  : comma - start);
      if (comma == std::string::npos) break;
      start = comma + 1;
    }
    benchmark::DoNotOptimize(pieces.data());
  }
}
BENCHMARK(SplitStdFind)->Arg(0)->Arg(1)->ArgName("long");

#ifdef ZORV_BENCH_GLIB
void SplitGlib(benchmark::State& state) {
  const char* text = SplitInput(state);
  for (auto _ : state) {
    gchar** pieces = g_strsplit(text, ",", -1);
    benchmark::DoNotOptimize(pieces);
    g_strfreev(pieces);
  }
}
BENCHMARK(SplitGlib)->Arg(0)->Arg(1)->ArgName("long");
#endif

#ifdef ZORV_BENCH_POCO
void SplitPoco(benchmark::State& state) {
  const std::string text = SplitInput(state);
  for (auto _ : state) {
    Poco::StringTokenizer pieces(text, ",");
    benchmark::DoNotOptimize(pieces.count());
  }
}
BENCHMARK(SplitPoco)->Arg(0)->Arg(1)->ArgName("long");
#endif

// A value as read from a settings file, blanks on both sides.
const char* const kPadded = "  \t /var/lib/zorv/network/state  \t\r";

void TrimZorv(benchmark::State& state) {
  const SafeString text(kPadded);
  for (auto _ : state) benchmark::DoNotOptimize(StringUtils::Trim(text));
}
BENCHMARK(TrimZorv);

#ifdef ZORV_BENCH_GLIB
void TrimGlib(benchmark::State& state) {
  for (auto _ : state) {
    gchar* copy = g_strstrip(g_strdup(kPadded));
    benchmark::DoNotOptimize(copy);
    g_free(copy);
  }
}
BENCHMARK(TrimGlib);
#endif

#ifdef ZORV_BENCH_POCO
void TrimPoco(benchmark::State& state) {
  const std::string text(kPadded);
  for (auto _ : state) benchmark::DoNotOptimize(Poco::trim(text));
}
BENCHMARK(TrimPoco);
#endif

// A key in mixed case, mapped to lower case and compared without case: with
// the same key in other case (range 0), and with a key that differs from
// its ninth byte on (range 1), as most comparisons of a sorted lookup do.
const char* const kKey = "Network.Interface.Eth0.DefaultGateway";
const char* const kKeyOther = "network.interface.ETH0.defaultgateway";
const char* const kKeyDifferent = "network.Route.Default";

void ToLowerZorv(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(StringUtils::ToLower(kKey));
}
BENCHMARK(ToLowerZorv);

#ifdef ZORV_BENCH_GLIB
void ToLowerGlib(benchmark::State& state) {
  for (auto _ : state) {
    gchar* lower = g_ascii_strdown(kKey, -1);
    benchmark::DoNotOptimize(lower);
    g_free(lower);
  }
}
BENCHMARK(ToLowerGlib);
#endif

#ifdef ZORV_BENCH_POCO
void ToLowerPoco(benchmark::State& state) {
  const std::string key(kKey);
  for (auto _ : state) benchmark::DoNotOptimize(Poco::toLower(key));
}
BENCHMARK(ToLowerPoco);
#endif

// `compare` on the key and `same` (range 0), or `different` (range 1).
void Compare(benchmark::State& state, int (*compare)(const char*, const char*), const char* same,
             const char* different) {
  const char* a = kKey;
  const char* b = state.range(0) == 0 ? same : different;
  for (auto _ : state) {
    benchmark::DoNotOptimize(a);
    benchmark::DoNotOptimize(compare(a, b));
  }
}
BENCHMARK_CAPTURE(Compare, NoCaseZorv, &StringUtils::CompareNoCase, kKeyOther, kKeyDifferent)
    ->Arg(0)->Arg(1)->ArgName("differ");
BENCHMARK_CAPTURE(Compare, NoCaseStrcasecmp, &strcasecmp, kKeyOther, kKeyDifferent)
    ->Arg(0)->Arg(1)->ArgName("differ");
#ifdef ZORV_BENCH_GLIB
BENCHMARK_CAPTURE(Compare, NoCaseGlib, &g_ascii_strcasecmp, kKeyOther, kKeyDifferent)
    ->Arg(0)->Arg(1)->ArgName("differ");
#endif
// With case: against a copy of the key and a key that differs from its ninth
// byte on.
const char kKeyCopy[] = "Network.Interface.Eth0.DefaultGateway";
const char* const kKeyDifferentWithCase = "Network.Route.Default";
BENCHMARK_CAPTURE(Compare, Zorv, &StringUtils::Compare, kKeyCopy, kKeyDifferentWithCase)
    ->Arg(0)->Arg(1)->ArgName("differ");
BENCHMARK_CAPTURE(Compare, Strcmp, &strcmp, kKeyCopy, kKeyDifferentWithCase)
    ->Arg(0)->Arg(1)->ArgName("differ");

#ifdef ZORV_BENCH_POCO
void CompareNoCasePoco(benchmark::State& state) {
  const std::string a(kKey);
  const std::string b(state.range(0) == 0 ? kKeyOther : kKeyDifferent);
  for (auto _ : state) benchmark::DoNotOptimize(Poco::icompare(a, b));
}
BENCHMARK(CompareNoCasePoco)->Arg(0)->Arg(1)->ArgName("differ");
#endif

}  // namespace

BENCHMARK_MAIN();
