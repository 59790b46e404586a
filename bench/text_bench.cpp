// Text, codecs and buffers against their usual peers: OpenSSL's Base64
// blocks, the C library's strtol/strtoll/snprintf, std::from_chars and
// std::to_chars, and plain memcpy. Object tracing is off.
#include <benchmark/benchmark.h>

#include <charconv>
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

// Mixed lengths: 1 to `maxDigits` digits, a quarter of them negative, all
// within range.
std::vector<SafeString> MixedTexts(int maxDigits, unsigned int seed) {
  std::mt19937_64 random(seed);
  std::vector<SafeString> texts;
  for (int i = 0; i < kNumbers; ++i) {
    const int digits = 1 + static_cast<int>(random() % static_cast<unsigned int>(maxDigits));
    SafeString t;
    if (random() % 4 == 0) t += '-';
    // The longest texts start low enough to stay within the type's range.
    const unsigned int lead = digits == maxDigits ? (maxDigits == 10 ? 1 : 8) : 9;
    t += static_cast<char>('1' + random() % lead);
    for (int d = 1; d < digits; ++d) t += static_cast<char>('0' + random() % 10);
    texts.push_back(t);
  }
  return texts;
}

const std::vector<SafeString>& IntTexts() {
  static const std::vector<SafeString> texts = MixedTexts(10, 2);
  return texts;
}

const std::vector<SafeString>& LongTexts() {
  static const std::vector<SafeString> texts = MixedTexts(19, 3);
  return texts;
}

void ParseIntZorv(benchmark::State& state) {
  const std::vector<SafeString>& texts = IntTexts();
  for (auto _ : state) {
    int sum = 0;
    for (const SafeString& t : texts) sum += StringUtils::StringToInt(t);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}
BENCHMARK(ParseIntZorv);

void ParseIntStrtol(benchmark::State& state) {
  const std::vector<SafeString>& texts = IntTexts();
  for (auto _ : state) {
    long sum = 0;
    for (const SafeString& t : texts) sum += std::strtol(t.c_str(), nullptr, 10);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}
BENCHMARK(ParseIntStrtol);

void ParseIntFromChars(benchmark::State& state) {
  const std::vector<SafeString>& texts = IntTexts();
  for (auto _ : state) {
    int sum = 0;
    for (const SafeString& t : texts) {
      int v = 0;
      std::from_chars(t.data(), t.data() + t.size(), v);
      sum += v;
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}
BENCHMARK(ParseIntFromChars);

void ParseLongZorv(benchmark::State& state) {
  const std::vector<SafeString>& texts = LongTexts();
  for (auto _ : state) {
    long long sum = 0;
    for (const SafeString& t : texts) sum += StringUtils::StringToLong(t);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}
BENCHMARK(ParseLongZorv);

void ParseLongStrtoll(benchmark::State& state) {
  const std::vector<SafeString>& texts = LongTexts();
  for (auto _ : state) {
    long long sum = 0;
    for (const SafeString& t : texts) sum += std::strtoll(t.c_str(), nullptr, 10);
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}
BENCHMARK(ParseLongStrtoll);

void ParseLongFromChars(benchmark::State& state) {
  const std::vector<SafeString>& texts = LongTexts();
  for (auto _ : state) {
    long long sum = 0;
    for (const SafeString& t : texts) {
      long long v = 0;
      std::from_chars(t.data(), t.data() + t.size(), v);
      sum += v;
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}
BENCHMARK(ParseLongFromChars);

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

void IntToTextZorv(benchmark::State& state) {
  const std::vector<unsigned long long>& values = Values();
  for (auto _ : state) {
    for (unsigned long long v : values) {
      SafeString s = StringUtils::IntToString(static_cast<int>(v));
      benchmark::DoNotOptimize(s.data());
    }
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}
BENCHMARK(IntToTextZorv);

void IntToTextSnprintf(benchmark::State& state) {
  const std::vector<unsigned long long>& values = Values();
  for (auto _ : state) {
    for (unsigned long long v : values) {
      char buffer[24];
      const int n = std::snprintf(buffer, sizeof(buffer), "%d", static_cast<int>(v));
      std::string s(buffer, static_cast<size_t>(n));
      benchmark::DoNotOptimize(s.data());
    }
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}
BENCHMARK(IntToTextSnprintf);

void IntToTextToChars(benchmark::State& state) {
  const std::vector<unsigned long long>& values = Values();
  for (auto _ : state) {
    for (unsigned long long v : values) {
      char buffer[24];
      const std::to_chars_result r =
          std::to_chars(buffer, buffer + sizeof(buffer), static_cast<int>(v));
      std::string s(buffer, r.ptr);
      benchmark::DoNotOptimize(s.data());
    }
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}
BENCHMARK(IntToTextToChars);

void ULongToTextZorv(benchmark::State& state) {
  const std::vector<unsigned long long>& values = Values();
  for (auto _ : state) {
    for (unsigned long long v : values) {
      SafeString s = StringUtils::ULongToString(v);
      benchmark::DoNotOptimize(s.data());
    }
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}
BENCHMARK(ULongToTextZorv);

void ULongToTextSnprintf(benchmark::State& state) {
  const std::vector<unsigned long long>& values = Values();
  for (auto _ : state) {
    for (unsigned long long v : values) {
      char buffer[24];
      const int n = std::snprintf(buffer, sizeof(buffer), "%llu", v);
      std::string s(buffer, static_cast<size_t>(n));
      benchmark::DoNotOptimize(s.data());
    }
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}
BENCHMARK(ULongToTextSnprintf);

void ULongToTextToChars(benchmark::State& state) {
  const std::vector<unsigned long long>& values = Values();
  for (auto _ : state) {
    for (unsigned long long v : values) {
      char buffer[24];
      const std::to_chars_result r = std::to_chars(buffer, buffer + sizeof(buffer), v);
      std::string s(buffer, r.ptr);
      benchmark::DoNotOptimize(s.data());
    }
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()) * kNumbers);
}
BENCHMARK(ULongToTextToChars);

// ---- Formatting a log line ----------------------------------------------------

void FormatLogLineZorv(benchmark::State& state) {
  unsigned int task = 0;
  for (auto _ : state) {
    SafeString line = StringUtils::Format(
        "%04d-%02d-%02d %02d:%02d:%02d.%03d [%s] %s %s: task %u done in %llu ms", 2026, 11, 22, 4,
        5, 6, 123, "worker-3", "INFO", "threadpool", ++task, 17ull);
    benchmark::DoNotOptimize(line.data());
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()));
}
BENCHMARK(FormatLogLineZorv);

void FormatLogLineSnprintf(benchmark::State& state) {
  unsigned int task = 0;
  for (auto _ : state) {
    char buffer[256];
    const int n =
        std::snprintf(buffer, sizeof(buffer),
                      "%04d-%02d-%02d %02d:%02d:%02d.%03d [%s] %s %s: task %u done in %llu ms",
                      2026, 11, 22, 4, 5, 6, 123, "worker-3", "INFO", "threadpool", ++task, 17ull);
    std::string line(buffer, static_cast<size_t>(n));
    benchmark::DoNotOptimize(line.data());
  }
  state.SetItemsProcessed(static_cast<long long>(state.iterations()));
}
BENCHMARK(FormatLogLineSnprintf);

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
