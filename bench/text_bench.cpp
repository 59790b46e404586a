// Text, codecs and buffers against their usual peers: OpenSSL's Base64
// blocks, the C library's strtol/strtoll/snprintf/vsnprintf, std::from_chars
// and std::to_chars, fmt::format_int, and plain memcpy. Object tracing is off.
#include <benchmark/benchmark.h>

#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "foundation/memory/memorybuffer.h"
#include "foundation/text/codecutils.h"
#include "foundation/text/stringutils.h"

#ifdef ZORV_BENCH_OPENSSL
#include <openssl/evp.h>
#endif
#ifdef ZORV_BENCH_FMT
#include <fmt/format.h>
#endif

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::memory::MemoryBuffer;
using zorv::foundation::text::CodecUtils;
using zorv::foundation::text::StringUtils;

// ---- Base64 on 1 MiB ----------------------------------------------------------

constexpr unsigned int kCodecBytes = 1u << 20;

const std::vector<unsigned char>& RandomBytes() {
  static const std::vector<unsigned char> bytes = [] {
    std::vector<unsigned char> b(kCodecBytes);
    std::mt19937 random(1);
    for (unsigned char& c : b) c = static_cast<unsigned char>(random());
    return b;
  }();
  return bytes;
}

const SafeString& RandomText() {
  static const SafeString text = CodecUtils::EncodeBase64(RandomBytes().data(), kCodecBytes);
  return text;
}

void Base64EncodeZorv(benchmark::State& state) {
  const std::vector<unsigned char>& bytes = RandomBytes();
  for (auto _ : state) {
    SafeString text = CodecUtils::EncodeBase64(bytes.data(), kCodecBytes);
    benchmark::DoNotOptimize(text.data());
  }
  state.SetBytesProcessed(static_cast<long long>(state.iterations()) * kCodecBytes);
}
BENCHMARK(Base64EncodeZorv);

void Base64DecodeZorv(benchmark::State& state) {
  const SafeString& text = RandomText();
  for (auto _ : state) {
    Vector<unsigned char> out;
    const bool ok =
        CodecUtils::DecodeBase64(text.data(), static_cast<unsigned int>(text.size()), out);
    benchmark::DoNotOptimize(ok);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<long long>(state.iterations()) * kCodecBytes);
}
BENCHMARK(Base64DecodeZorv);

#ifdef ZORV_BENCH_OPENSSL
// The peer writes into a buffer allocated once, outside the timing.
void Base64EncodeOpenSsl(benchmark::State& state) {
  const std::vector<unsigned char>& bytes = RandomBytes();
  std::vector<unsigned char> out(kCodecBytes / 3 * 4 + 8);
  for (auto _ : state) {
    const int n = EVP_EncodeBlock(out.data(), bytes.data(), static_cast<int>(kCodecBytes));
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<long long>(state.iterations()) * kCodecBytes);
}
BENCHMARK(Base64EncodeOpenSsl);

void Base64DecodeOpenSsl(benchmark::State& state) {
  const SafeString& text = RandomText();
  std::vector<unsigned char> out(text.size() / 4 * 3 + 8);
  for (auto _ : state) {
    const int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                  static_cast<int>(text.size()));
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<long long>(state.iterations()) * kCodecBytes);
}
BENCHMARK(Base64DecodeOpenSsl);
#endif

// ---- Decimal text to integers -------------------------------------------------

constexpr int kNumbers = 4096;

// Mixed lengths: 1 to `maxDigits` digits, a quarter of them negative when
// `negatives`, all within the type's range (`lastLead` is the highest first
// digit of the longest texts).
std::vector<SafeString> MixedTexts(int maxDigits, char lastLead, bool negatives,
                                   unsigned int seed) {
  std::mt19937_64 random(seed);
  std::vector<SafeString> texts;
  for (int i = 0; i < kNumbers; ++i) {
    const int digits = 1 + static_cast<int>(random() % static_cast<unsigned int>(maxDigits));
    SafeString t;
    if (random() % 4 == 0 && negatives) t += '-';
    const unsigned int lead = digits == maxDigits ? static_cast<unsigned int>(lastLead - '0') : 9;
    t += static_cast<char>('1' + random() % lead);
    for (int d = 1; d < digits; ++d) t += static_cast<char>('0' + random() % 10);
    texts.push_back(t);
  }
  return texts;
}

const std::vector<SafeString>& IntTexts() {
  static const std::vector<SafeString> texts = MixedTexts(10, '1', true, 2);
  return texts;
}

const std::vector<SafeString>& LongTexts() {
  static const std::vector<SafeString> texts = MixedTexts(19, '8', true, 3);
  return texts;
}

const std::vector<SafeString>& UIntTexts() {
  static const std::vector<SafeString> texts = MixedTexts(10, '3', false, 5);
  return texts;
}

const std::vector<SafeString>& ULongTexts() {
  static const std::vector<SafeString> texts = MixedTexts(19, '9', false, 6);
  return texts;
}

// One benchmark per parser and contender: the sum of the values of all texts.
template <class T, T (*Parse)(const SafeString&)>
void ParseZorv(benchmark::State& state, const std::vector<SafeString>& texts) {
  for (auto _ : state) {
    T sum = 0;
    for (const SafeString& t : texts) sum += Parse(t);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}

template <class T>
void ParseFromChars(benchmark::State& state, const std::vector<SafeString>& texts) {
  for (auto _ : state) {
    T sum = 0;
    for (const SafeString& t : texts) {
      T v = 0;
      std::from_chars(t.data(), t.data() + t.size(), v);
      sum += v;
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}

void ParseIntZorv(benchmark::State& state) {
  ParseZorv<int, StringUtils::StringToInt>(state, IntTexts());
}
void ParseIntFromChars(benchmark::State& state) { ParseFromChars<int>(state, IntTexts()); }
void ParseIntStrtol(benchmark::State& state) {
  for (auto _ : state) {
    long sum = 0;
    for (const SafeString& t : IntTexts()) sum += std::strtol(t.c_str(), nullptr, 10);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}
void ParseLongZorv(benchmark::State& state) {
  ParseZorv<long long, StringUtils::StringToLong>(state, LongTexts());
}
void ParseLongFromChars(benchmark::State& state) { ParseFromChars<long long>(state, LongTexts()); }
void ParseLongStrtoll(benchmark::State& state) {
  for (auto _ : state) {
    long long sum = 0;
    for (const SafeString& t : LongTexts()) sum += std::strtoll(t.c_str(), nullptr, 10);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}
void ParseUIntZorv(benchmark::State& state) {
  ParseZorv<unsigned int, StringUtils::StringToUInt>(state, UIntTexts());
}
void ParseUIntFromChars(benchmark::State& state) {
  ParseFromChars<unsigned int>(state, UIntTexts());
}
void ParseULongZorv(benchmark::State& state) {
  ParseZorv<unsigned long long, StringUtils::StringToULong>(state, ULongTexts());
}
void ParseULongFromChars(benchmark::State& state) {
  ParseFromChars<unsigned long long>(state, ULongTexts());
}
BENCHMARK(ParseIntZorv);
BENCHMARK(ParseIntFromChars);
BENCHMARK(ParseIntStrtol);
BENCHMARK(ParseLongZorv);
BENCHMARK(ParseLongFromChars);
BENCHMARK(ParseLongStrtoll);
BENCHMARK(ParseUIntZorv);
BENCHMARK(ParseUIntFromChars);
BENCHMARK(ParseULongZorv);
BENCHMARK(ParseULongFromChars);

// ---- Floating-point texts and their classification ------------------------------

// Shortest texts of random doubles of mixed magnitudes ("0.1", "-2.5e-07",
// "123456.789"), a quarter negative.
const std::vector<SafeString>& FloatTexts() {
  static const std::vector<SafeString> texts = [] {
    std::mt19937_64 random(8);
    std::uniform_real_distribution<double> mantissa(1.0, 10.0);
    std::vector<SafeString> t;
    for (int i = 0; i < kNumbers; ++i) {
      double v = mantissa(random) * std::pow(10.0, static_cast<int>(random() % 24) - 12);
      if (random() % 4 == 0) v = -v;
      char buffer[32];
      const std::to_chars_result r = std::to_chars(buffer, buffer + sizeof(buffer), v);
      t.emplace_back(buffer, static_cast<size_t>(r.ptr - buffer));
    }
    return t;
  }();
  return texts;
}

void ParseFloatZorv(benchmark::State& state) {
  for (auto _ : state) {
    double sum = 0;
    for (const SafeString& t : FloatTexts()) sum += StringUtils::StringToFloat(t);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}
BENCHMARK(ParseFloatZorv);

void ParseFloatFromChars(benchmark::State& state) { ParseFromChars<double>(state, FloatTexts()); }
BENCHMARK(ParseFloatFromChars);

void NumberFormatZorv(benchmark::State& state) {
  for (auto _ : state) {
    int sum = 0;
    for (const SafeString& t : FloatTexts()) sum += StringUtils::GetNumberFormat(t);
    for (const SafeString& t : LongTexts()) sum += StringUtils::GetNumberFormat(t);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * 2 * kNumbers);
}
BENCHMARK(NumberFormatZorv);

// ---- Integers to decimal text -------------------------------------------------
// Every variant produces an owning string of the digits: the library's
// SafeString, or a std::string built from the peer's buffer.

std::vector<unsigned long long> MixedValues(unsigned int seed) {
  std::mt19937_64 random(seed);
  std::vector<unsigned long long> values(kNumbers);
  for (unsigned long long& v : values) v = random() >> (random() % 64);
  return values;
}

const std::vector<unsigned long long>& Values() {
  static const std::vector<unsigned long long> values = MixedValues(4);
  return values;
}

template <class T, SafeString (*Print)(T)>
void ToTextZorv(benchmark::State& state) {
  for (auto _ : state) {
    for (unsigned long long v : Values()) {
      SafeString s = Print(static_cast<T>(v));
      benchmark::DoNotOptimize(s.data());
    }
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}

template <class T>
void ToTextToChars(benchmark::State& state) {
  for (auto _ : state) {
    for (unsigned long long v : Values()) {
      char buffer[24];
      const std::to_chars_result r =
          std::to_chars(buffer, buffer + sizeof(buffer), static_cast<T>(v));
      std::string s(buffer, r.ptr);
      benchmark::DoNotOptimize(s.data());
    }
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}

#ifdef ZORV_BENCH_FMT
template <class T>
void ToTextFormatInt(benchmark::State& state) {
  for (auto _ : state) {
    for (unsigned long long v : Values()) {
      const fmt::format_int f(static_cast<T>(v));
      std::string s(f.data(), f.size());
      benchmark::DoNotOptimize(s.data());
    }
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}
#define ZORV_FORMAT_INT_BENCHMARK(name, type) BENCHMARK_TEMPLATE(ToTextFormatInt, type)->Name(name)
#else
#define ZORV_FORMAT_INT_BENCHMARK(name, type) static_assert(true, "")
#endif

void IntToTextSnprintf(benchmark::State& state) {
  for (auto _ : state) {
    for (unsigned long long v : Values()) {
      char buffer[24];
      const int n = std::snprintf(buffer, sizeof(buffer), "%d", static_cast<int>(v));
      std::string s(buffer, static_cast<size_t>(n));
      benchmark::DoNotOptimize(s.data());
    }
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}

BENCHMARK_TEMPLATE(ToTextZorv, int, StringUtils::IntToString)->Name("IntToTextZorv");
ZORV_FORMAT_INT_BENCHMARK("IntToTextFormatInt", int);
BENCHMARK_TEMPLATE(ToTextToChars, int)->Name("IntToTextToChars");
BENCHMARK(IntToTextSnprintf);
BENCHMARK_TEMPLATE(ToTextZorv, unsigned int, StringUtils::UIntToString)->Name("UIntToTextZorv");
ZORV_FORMAT_INT_BENCHMARK("UIntToTextFormatInt", unsigned int);
BENCHMARK_TEMPLATE(ToTextZorv, long long, StringUtils::LongToString)->Name("LongToTextZorv");
ZORV_FORMAT_INT_BENCHMARK("LongToTextFormatInt", long long);
BENCHMARK_TEMPLATE(ToTextZorv, unsigned long long, StringUtils::ULongToString)
    ->Name("ULongToTextZorv");
ZORV_FORMAT_INT_BENCHMARK("ULongToTextFormatInt", unsigned long long);
BENCHMARK_TEMPLATE(ToTextToChars, unsigned long long)->Name("ULongToTextToChars");

// ---- Formatting a log line ----------------------------------------------------
// Four kinds of line in turn, 96 characters on average, with the conversions
// of a typical log: zero-padded fields, strings, signed and unsigned
// integers of both sizes, hexadecimal and fixed-point values. The peer is
// vsnprintf into a stack buffer, copied into a std::string.

__attribute__((format(printf, 1, 2))) std::string VsnprintfString(const char* format, ...) {
  char buffer[256];
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  return n < 0 ? std::string() : std::string(buffer, static_cast<size_t>(n));
}

template <class S, class F>
S LogLine(F format, unsigned int i) {
  const double seconds = 0.001 * (i % 100000);
  switch (i % 4) {
    case 0:
      return format("%04d-%02d-%02d %02d:%02d:%02d.%03d [%s] %s %s: task %u done in %llu ms", 2026,
                    11, 22, 4, 5, 6, static_cast<int>(i % 1000), "worker-3", "INFO", "threadpool",
                    i, 17ull + i % 5000);
    case 1:
      return format(
          "%04d-%02d-%02d %02d:%02d:%02d.%03d [%-8s] %5s %s: sent %u bytes to %s:%d in %.3f s",
          2026, 11, 22, 4, 5, 6, static_cast<int>(i % 1000), "io", "DEBUG", "socket", i * 7u,
          "10.0.12.7", 8080, seconds);
    case 2:
      return format(
          "%04d-%02d-%02d %02d:%02d:%02d.%03d [%s] %s %s: handle 0x%08x state %d load %.3f queue "
          "%u/%u",
          2026, 11, 22, 4, 5, 6, static_cast<int>(i % 1000), "timer", "WARN", "scheduler",
          i * 2654435761u, -3, seconds, i % 64, 64u);
    default:
      return format(
          "%04d-%02d-%02d %02d:%02d:%02d.%03d [%s] %s %s: request id=%llu user=%s status=%d "
          "latency=%.3f ms",
          2026, 11, 22, 4, 5, 6, static_cast<int>(i % 1000), "http-1", "INFO", "server",
          1000000000000ull + i, "alice", 200, seconds * 7);
  }
}

void FormatLogLineZorv(benchmark::State& state) {
  unsigned int i = 0;
  size_t bytes = 0;
  for (auto _ : state) {
    SafeString line = LogLine<SafeString>(StringUtils::Format, ++i);
    bytes += line.size();
    benchmark::DoNotOptimize(line.data());
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()));
  state.counters["chars"] = static_cast<double>(bytes) / static_cast<double>(state.iterations());
}
BENCHMARK(FormatLogLineZorv);

void FormatLogLineVsnprintf(benchmark::State& state) {
  unsigned int i = 0;
  size_t bytes = 0;
  for (auto _ : state) {
    std::string line = LogLine<std::string>(VsnprintfString, ++i);
    bytes += line.size();
    benchmark::DoNotOptimize(line.data());
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()));
  state.counters["chars"] = static_cast<double>(bytes) / static_cast<double>(state.iterations());
}
BENCHMARK(FormatLogLineVsnprintf);

// ---- MemoryBuffer: 1 GiB in 4 KiB pieces, written then read back ---------------

constexpr unsigned long long kStreamBytes = 1ull << 30;
constexpr unsigned int kPiece = 4096;

void MemoryBufferStream(benchmark::State& state) {
  std::vector<unsigned char> piece(kPiece, 0x5A);
  std::vector<unsigned char> sink(kPiece);
  for (auto _ : state) {
    MemoryBuffer buffer;
    for (unsigned long long done = 0; done < kStreamBytes; done += kPiece) {
      buffer.write(piece.data(), kPiece);
    }
    for (unsigned long long done = 0; done < kStreamBytes; done += kPiece) {
      if (!buffer.read(sink.data(), kPiece)) state.SkipWithError("short read");
    }
    benchmark::DoNotOptimize(sink.data());
  }
  state.SetBytesProcessed(static_cast<long long>(state.iterations() * 2 * kStreamBytes));
}
BENCHMARK(MemoryBufferStream)->Unit(benchmark::kMillisecond)->Iterations(3);

// The peer: one block of the final size, filled and drained with memcpy.
void MemcpyStream(benchmark::State& state) {
  std::vector<unsigned char> piece(kPiece, 0x5A);
  std::vector<unsigned char> sink(kPiece);
  for (auto _ : state) {
    unsigned char* block = static_cast<unsigned char*>(std::malloc(kStreamBytes));
    if (block == nullptr) {
      state.SkipWithError("out of memory");
      break;
    }
    for (unsigned long long done = 0; done < kStreamBytes; done += kPiece) {
      std::memcpy(block + done, piece.data(), kPiece);
    }
    for (unsigned long long done = 0; done < kStreamBytes; done += kPiece) {
      std::memcpy(sink.data(), block + done, kPiece);
      benchmark::DoNotOptimize(sink.data());
    }
    std::free(block);
  }
  state.SetBytesProcessed(static_cast<long long>(state.iterations() * 2 * kStreamBytes));
}
BENCHMARK(MemcpyStream)->Unit(benchmark::kMillisecond)->Iterations(3);

// The same with the storage already grown and touched: only the copying
// through write/read against memcpy into the same kind of block.
void MemoryBufferStreamWarm(benchmark::State& state) {
  std::vector<unsigned char> piece(kPiece, 0x5A);
  std::vector<unsigned char> sink(kPiece);
  MemoryBuffer buffer;
  for (unsigned long long done = 0; done < kStreamBytes; done += kPiece) {
    buffer.write(piece.data(), kPiece);
  }
  // One untimed pass more: the first pass over storage that realloc has
  // moved runs several times slower than later ones.
  buffer.seekWrite(0);
  for (unsigned long long done = 0; done < kStreamBytes; done += kPiece) {
    buffer.write(piece.data(), kPiece);
  }
  for (unsigned long long done = 0; done < kStreamBytes; done += kPiece) {
    if (!buffer.read(sink.data(), kPiece)) state.SkipWithError("short read");
  }
  for (auto _ : state) {
    buffer.seekWrite(0);
    buffer.seekRead(0);
    for (unsigned long long done = 0; done < kStreamBytes; done += kPiece) {
      buffer.write(piece.data(), kPiece);
    }
    for (unsigned long long done = 0; done < kStreamBytes; done += kPiece) {
      if (!buffer.read(sink.data(), kPiece)) state.SkipWithError("short read");
    }
    benchmark::DoNotOptimize(sink.data());
  }
  state.SetBytesProcessed(static_cast<long long>(state.iterations() * 2 * kStreamBytes));
}
BENCHMARK(MemoryBufferStreamWarm)->Unit(benchmark::kMillisecond)->Iterations(3);

void MemcpyStreamWarm(benchmark::State& state) {
  std::vector<unsigned char> piece(kPiece, 0x5A);
  std::vector<unsigned char> sink(kPiece);
  std::vector<unsigned char> block(kStreamBytes);
  for (unsigned long long done = 0; done < kStreamBytes; done += kPiece) {
    std::memcpy(block.data() + done, piece.data(), kPiece);
  }
  for (auto _ : state) {
    for (unsigned long long done = 0; done < kStreamBytes; done += kPiece) {
      std::memcpy(block.data() + done, piece.data(), kPiece);
    }
    for (unsigned long long done = 0; done < kStreamBytes; done += kPiece) {
      std::memcpy(sink.data(), block.data() + done, kPiece);
      benchmark::DoNotOptimize(sink.data());
    }
  }
  state.SetBytesProcessed(static_cast<long long>(state.iterations() * 2 * kStreamBytes));
}
BENCHMARK(MemcpyStreamWarm)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
