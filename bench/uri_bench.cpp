// URI percent-encoding against GLib in the same run: EncodeUri against
// g_uri_escape_string on 1 MiB of text, and DecodeUri against
// g_uri_unescape_string on that text encoded. A plain byte-by-byte loop of
// each direction runs alongside as a yardstick. Before timing, every
// contender's output is compared with the library's.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "foundation/text/codecutils.h"

#if defined(ZORV_BENCH_GLIB)
#include <glib.h>
#endif

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::text::CodecUtils;

constexpr size_t kMiB = 1 << 20;

// 1 MiB of prose-like text: words, blanks and punctuation, a few UTF-8
// letters and query-like pieces, so that about one byte in five is escaped.
const std::string& Text() {
  static const std::string text = [] {
    const char* const words[] = {"the",  "configuration", "value",   "of",   "a",
                                 "path", "/usr/share",    "d\xc3\xa9j\xc3\xa0",    "size", "key=value&x=1",
                                 "Z\xc3\xbcrich", "100%",        "file.txt", "and", "query?q=a+b"};
    std::mt19937 random(7u);
    std::string t;
    while (t.size() < kMiB) {
      t += words[random() % (sizeof(words) / sizeof(words[0]))];
      t += random() % 9 == 0 ? ", " : " ";
    }
    t.resize(kMiB);
    return t;
  }();
  return text;
}

const std::string& Encoded() {
  static const std::string encoded = [] {
    const SafeString e = CodecUtils::EncodeUri(Text().c_str());
    return std::string(e.data(), e.size());
  }();
  return encoded;
}

// The plain loops: one byte at a time, a branch per byte.
std::string PlainEncode(const char* text) {
  static const char hex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(std::strlen(text) * 3);
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != 0; ++p) {
    const unsigned char c = *p;
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '.' || c == '_' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

int HexDigit(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string PlainDecode(const char* text) {
  std::string out;
  out.reserve(std::strlen(text));
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != 0; ++p) {
    if (*p == '%') {
      const int high = HexDigit(p[1]);
      const int low = high < 0 ? -1 : HexDigit(p[2]);
      if (low >= 0) {
        out += static_cast<char>(high * 16 + low);
        p += 2;
        continue;
      }
    }
    out += static_cast<char>(*p);
  }
  return out;
}

void Check(const char* what, const std::string& got, const std::string& expected) {
  if (got != expected) {
    std::fprintf(stderr, "%s: output differs from the library's\n", what);
    std::exit(1);
  }
}

void BM_EncodeUri_Zorv(benchmark::State& state) {
  const char* text = Text().c_str();
  for (auto _ : state) {
    SafeString out = CodecUtils::EncodeUri(text);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kMiB);
}

void BM_EncodeUri_Plain(benchmark::State& state) {
  const char* text = Text().c_str();
  for (auto _ : state) {
    std::string out = PlainEncode(text);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kMiB);
}

void BM_DecodeUri_Zorv(benchmark::State& state) {
  const char* text = Encoded().c_str();
  for (auto _ : state) {
    SafeString out = CodecUtils::DecodeUri(text);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * Encoded().size());
}

void BM_DecodeUri_Plain(benchmark::State& state) {
  const char* text = Encoded().c_str();
  for (auto _ : state) {
    std::string out = PlainDecode(text);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * Encoded().size());
}

BENCHMARK(BM_EncodeUri_Zorv);
BENCHMARK(BM_EncodeUri_Plain);
BENCHMARK(BM_DecodeUri_Zorv);
BENCHMARK(BM_DecodeUri_Plain);

#if defined(ZORV_BENCH_GLIB)
void BM_EncodeUri_GLib(benchmark::State& state) {
  const char* text = Text().c_str();
  for (auto _ : state) {
    char* out = g_uri_escape_string(text, nullptr, FALSE);
    benchmark::DoNotOptimize(out);
    g_free(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kMiB);
}

void BM_DecodeUri_GLib(benchmark::State& state) {
  const char* text = Encoded().c_str();
  for (auto _ : state) {
    char* out = g_uri_unescape_string(text, nullptr);
    benchmark::DoNotOptimize(out);
    g_free(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * Encoded().size());
}

BENCHMARK(BM_EncodeUri_GLib);
BENCHMARK(BM_DecodeUri_GLib);
#endif

// Every contender gives the library's output on the benchmark texts.
void CheckOutputs() {
  const std::string& text = Text();
  const std::string& encoded = Encoded();
  const SafeString decoded = CodecUtils::DecodeUri(encoded.c_str());
  Check("DecodeUri", std::string(decoded.data(), decoded.size()), text);
  Check("plain encode", PlainEncode(text.c_str()), encoded);
  Check("plain decode", PlainDecode(encoded.c_str()), text);
#if defined(ZORV_BENCH_GLIB)
  char* escaped = g_uri_escape_string(text.c_str(), nullptr, FALSE);
  char* unescaped = g_uri_unescape_string(encoded.c_str(), nullptr);
  Check("g_uri_escape_string", escaped != nullptr ? escaped : "", encoded);
  Check("g_uri_unescape_string", unescaped != nullptr ? unescaped : "", text);
  g_free(escaped);
  g_free(unescaped);
#endif
  std::fprintf(stderr, "text %zu bytes, encoded %zu bytes: outputs agree\n", text.size(),
               encoded.size());
}

}  // namespace

int main(int argc, char** argv) {
  CheckOutputs();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
