// Two paths that every message and log line of a program takes, against
// their peers in the same run:
// - length-prefixed strings: Serialize/Deserialize on a MemoryBuffer against
//   Poco's BinaryWriter/BinaryReader on memory streams, and a plain
//   std::vector loop of the same wire format as a yardstick;
// - the local time as text: DateTime().toString() against Poco's
//   LocalDateTime with DateTimeFormatter, GLib's GDateTime, and
//   gettimeofday + localtime_r + strftime; and one conversion of a time in
//   seconds to its local fields.
// Every contender's output is checked against the library's before timing.
// The time zone is Europe/Berlin (TZ is set before the first conversion), so
// that local time has a zone with summer time to look up.
#include <benchmark/benchmark.h>
#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "foundation/io/serialization.h"
#include "foundation/memory/memorybuffer.h"
#include "foundation/time/datetime.h"

#if defined(ZORV_BENCH_POCO)
#include <Poco/BinaryReader.h>
#include <Poco/BinaryWriter.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/LocalDateTime.h>
#include <Poco/MemoryStream.h>
#endif
#if defined(ZORV_BENCH_GLIB)
#include <glib.h>
#endif

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::io::Deserialize;
using zorv::foundation::io::Serialize;
using zorv::foundation::memory::MemoryBuffer;
using zorv::foundation::time::DateTime;

// ---- length-prefixed strings ------------------------------------------------

// 1,000 strings of 4 to 64 bytes, as the fields of a message are.
constexpr int kStrings = 1000;

const std::vector<std::string>& Strings() {
  static const std::vector<std::string> strings = [] {
    std::mt19937 random(11u);
    std::vector<std::string> s;
    for (int i = 0; i < kStrings; ++i) {
      std::string t(4 + random() % 61, ' ');
      for (char& c : t) c = static_cast<char>('a' + random() % 26);
      s.push_back(t);
    }
    return s;
  }();
  return strings;
}

const std::vector<SafeString>& SafeStrings() {
  static const std::vector<SafeString> strings = [] {
    std::vector<SafeString> s;
    for (const std::string& t : Strings()) s.emplace_back(t.data(), t.size());
    return s;
  }();
  return strings;
}

size_t WireSize() {
  size_t total = 0;
  for (const std::string& s : Strings()) total += 8 + s.size();
  return total;
}

// The library: a fresh buffer per message, as a program makes one.
void ZorvWrite(MemoryBuffer& buffer) {
  for (const SafeString& s : SafeStrings()) Serialize(&buffer, s);
}

bool ZorvRead(MemoryBuffer& buffer, std::vector<SafeString>& out) {
  for (SafeString& s : out) {
    if (!Deserialize(&buffer, s)) return false;
  }
  return true;
}

// The yardstick: the same wire format appended to a std::vector.
void PlainWrite(std::vector<char>& out) {
  for (const std::string& s : Strings()) {
    const unsigned long long size = s.size();
    out.insert(out.end(), reinterpret_cast<const char*>(&size),
               reinterpret_cast<const char*>(&size) + 8);
    out.insert(out.end(), s.begin(), s.end());
  }
}

bool PlainRead(const std::vector<char>& in, std::vector<std::string>& out) {
  size_t at = 0;
  for (std::string& s : out) {
    unsigned long long size;
    if (in.size() - at < 8) return false;
    std::memcpy(&size, in.data() + at, 8);
    at += 8;
    if (in.size() - at < size) return false;
    s.assign(in.data() + at, size);
    at += size;
  }
  return true;
}

void BM_Serialize_Zorv(benchmark::State& state) {
  for (auto _ : state) {
    MemoryBuffer buffer;
    ZorvWrite(buffer);
    benchmark::DoNotOptimize(buffer.data());
  }
  state.SetBytesProcessed(static_cast<long long>(state.iterations() * WireSize()));
}
BENCHMARK(BM_Serialize_Zorv);

void BM_Serialize_PlainVector(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<char> out;
    PlainWrite(out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<long long>(state.iterations() * WireSize()));
}
BENCHMARK(BM_Serialize_PlainVector);

void BM_Deserialize_Zorv(benchmark::State& state) {
  MemoryBuffer buffer;
  ZorvWrite(buffer);
  std::vector<SafeString> out(kStrings);
  for (auto _ : state) {
    buffer.seekRead(0);
    if (!ZorvRead(buffer, out)) state.SkipWithError("short read");
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<long long>(state.iterations() * WireSize()));
}
BENCHMARK(BM_Deserialize_Zorv);

void BM_Deserialize_PlainVector(benchmark::State& state) {
  std::vector<char> in;
  PlainWrite(in);
  std::vector<std::string> out(kStrings);
  for (auto _ : state) {
    if (!PlainRead(in, out)) state.SkipWithError("short read");
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<long long>(state.iterations() * WireSize()));
}
BENCHMARK(BM_Deserialize_PlainVector);

#if defined(ZORV_BENCH_POCO)
// Poco writes a string's length as a 7-bit varint, so its wire is smaller;
// throughput counts the library's wire size for every contender.
size_t PocoWrite(std::vector<char>& storage) {
  Poco::MemoryOutputStream stream(storage.data(), storage.size());
  Poco::BinaryWriter writer(stream, Poco::BinaryWriter::NATIVE_BYTE_ORDER);
  for (const std::string& s : Strings()) writer << s;
  writer.flush();
  return static_cast<size_t>(stream.charsWritten());
}

void BM_Serialize_PocoBinaryWriter(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<char> storage(WireSize());
    benchmark::DoNotOptimize(PocoWrite(storage));
  }
  state.SetBytesProcessed(static_cast<long long>(state.iterations() * WireSize()));
}
BENCHMARK(BM_Serialize_PocoBinaryWriter);

void BM_Deserialize_PocoBinaryReader(benchmark::State& state) {
  std::vector<char> storage(WireSize());
  const size_t used = PocoWrite(storage);
  std::vector<std::string> out(kStrings);
  for (auto _ : state) {
    Poco::MemoryInputStream stream(storage.data(), used);
    Poco::BinaryReader reader(stream, Poco::BinaryReader::NATIVE_BYTE_ORDER);
    for (std::string& s : out) reader >> s;
    if (!reader.good()) state.SkipWithError("short read");
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<long long>(state.iterations() * WireSize()));
}
BENCHMARK(BM_Deserialize_PocoBinaryReader);
#endif

// ---- local time as text -----------------------------------------------------

std::string ZorvNow() {
  const SafeString s = DateTime().toString();
  return std::string(s.data(), s.size());
}

std::string LibcNow() {
  struct timeval now;
  gettimeofday(&now, nullptr);
  const time_t seconds = now.tv_sec;
  struct tm fields;
  localtime_r(&seconds, &fields);
  char text[32];
  const size_t n = strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &fields);
  return std::string(text, n);
}

void BM_NowAsText_Zorv(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(DateTime().toString());
}
BENCHMARK(BM_NowAsText_Zorv);

void BM_NowAsText_LibcStrftime(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(LibcNow());
}
BENCHMARK(BM_NowAsText_LibcStrftime);

// Seconds to local fields, over a spread of times in both halves of the year.
constexpr int kTimes = 4096;

const std::vector<unsigned long long>& Times() {
  static const std::vector<unsigned long long> times = [] {
    std::mt19937 random(5u);
    std::vector<unsigned long long> t;
    for (int i = 0; i < kTimes; ++i) t.push_back(1600000000ull + random() % 400000000ull);
    return t;
  }();
  return times;
}

void BM_SecondsToLocal_Zorv(benchmark::State& state) {
  size_t i = 0;
  for (auto _ : state) {
    const DateTime d(Times()[i++ % kTimes], 0, 0);
    benchmark::DoNotOptimize(d.hour());
  }
}
BENCHMARK(BM_SecondsToLocal_Zorv);

void BM_SecondsToLocal_LibcLocaltime(benchmark::State& state) {
  size_t i = 0;
  for (auto _ : state) {
    const time_t t = static_cast<time_t>(Times()[i++ % kTimes]);
    struct tm fields;
    localtime_r(&t, &fields);
    benchmark::DoNotOptimize(fields.tm_hour);
  }
}
BENCHMARK(BM_SecondsToLocal_LibcLocaltime);

#if defined(ZORV_BENCH_POCO)
std::string PocoNow() {
  return Poco::DateTimeFormatter::format(Poco::LocalDateTime(), "%Y-%m-%d %H:%M:%S");
}

void BM_NowAsText_PocoLocalDateTime(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(PocoNow());
}
BENCHMARK(BM_NowAsText_PocoLocalDateTime);

void BM_SecondsToLocal_PocoLocalDateTime(benchmark::State& state) {
  size_t i = 0;
  for (auto _ : state) {
    const Poco::LocalDateTime d(Poco::Timestamp::fromEpochTime(
        static_cast<std::time_t>(Times()[i++ % kTimes])));
    benchmark::DoNotOptimize(d.hour());
  }
}
BENCHMARK(BM_SecondsToLocal_PocoLocalDateTime);
#endif

#if defined(ZORV_BENCH_GLIB)
std::string GlibNow() {
  GDateTime* now = g_date_time_new_now_local();
  gchar* text = g_date_time_format(now, "%Y-%m-%d %H:%M:%S");
  std::string s(text);
  g_free(text);
  g_date_time_unref(now);
  return s;
}

void BM_NowAsText_GlibDateTime(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(GlibNow());
}
BENCHMARK(BM_NowAsText_GlibDateTime);

void BM_SecondsToLocal_GlibDateTime(benchmark::State& state) {
  size_t i = 0;
  for (auto _ : state) {
    GDateTime* d = g_date_time_new_from_unix_local(static_cast<gint64>(Times()[i++ % kTimes]));
    benchmark::DoNotOptimize(g_date_time_get_hour(d));
    g_date_time_unref(d);
  }
}
BENCHMARK(BM_SecondsToLocal_GlibDateTime);
#endif

// Every contender must give the library's result before anything is timed.
bool Agree() {
  bool ok = true;
  auto expect = [&ok](bool same, const char* what) {
    if (!same) {
      std::fprintf(stderr, "records_bench: %s differs from the library\n", what);
      ok = false;
    }
  };
  {
    MemoryBuffer buffer;
    ZorvWrite(buffer);
    std::vector<char> plain;
    PlainWrite(plain);
    expect(buffer.length() == plain.size() &&
               std::memcmp(buffer.data(), plain.data(), plain.size()) == 0,
           "the plain vector's wire");
    std::vector<SafeString> zorv(kStrings);
    std::vector<std::string> other(kStrings);
    buffer.seekRead(0);
    bool same = ZorvRead(buffer, zorv) && PlainRead(plain, other);
    for (int i = 0; same && i < kStrings; ++i) {
      same = zorv[i] == SafeStrings()[i] && other[i] == Strings()[i];
    }
    expect(same, "the strings read back");
#if defined(ZORV_BENCH_POCO)
    std::vector<char> storage(WireSize());
    const size_t used = PocoWrite(storage);
    Poco::MemoryInputStream stream(storage.data(), used);
    Poco::BinaryReader reader(stream, Poco::BinaryReader::NATIVE_BYTE_ORDER);
    same = true;
    for (int i = 0; i < kStrings; ++i) {
      std::string s;
      reader >> s;
      same = same && s == Strings()[i];
    }
    expect(same, "Poco's strings read back");
#endif
  }
  // The texts of now may straddle a second: a few tries until they agree.
  auto sameNow = [](std::string (*other)()) {
    for (int attempt = 0; attempt < 5; ++attempt) {
      if (ZorvNow() == other()) return true;
    }
    return false;
  };
  expect(sameNow(LibcNow), "strftime's text of now");
#if defined(ZORV_BENCH_POCO)
  expect(sameNow(PocoNow), "Poco's text of now");
#endif
#if defined(ZORV_BENCH_GLIB)
  expect(sameNow(GlibNow), "GLib's text of now");
#endif
  for (unsigned long long t : Times()) {
    const DateTime d(t, 0, 0);
    const time_t seconds = static_cast<time_t>(t);
    struct tm fields;
    localtime_r(&seconds, &fields);
    if (d.hour() != fields.tm_hour || d.day() != fields.tm_mday) {
      expect(false, "localtime_r's fields");
      break;
    }
#if defined(ZORV_BENCH_POCO)
    const Poco::LocalDateTime p(Poco::Timestamp::fromEpochTime(seconds));
    if (p.hour() != d.hour() || p.day() != d.day()) {
      expect(false, "Poco's local fields");
      break;
    }
#endif
#if defined(ZORV_BENCH_GLIB)
    GDateTime* g = g_date_time_new_from_unix_local(static_cast<gint64>(t));
    const bool same = g_date_time_get_hour(g) == d.hour() && g_date_time_get_day_of_month(g) == d.day();
    g_date_time_unref(g);
    if (!same) {
      expect(false, "GLib's local fields");
      break;
    }
#endif
  }
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  setenv("TZ", "Europe/Berlin", 1);
  tzset();
  if (!Agree()) return 1;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
