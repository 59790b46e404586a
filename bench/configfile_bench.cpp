// Parsing and saving a 10 MB configuration text (10,000 sections x 20 keys)
// with Archiver, against GLib's GKeyFile and inih storing into
// std::unordered_map, when those peers are available.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <unordered_map>

#include "foundation/config/configarchiver.h"

#ifdef ZORV_BENCH_HAVE_GLIB
#include <glib.h>
#endif
#ifdef ZORV_BENCH_HAVE_INIH
#include <ini.h>
#endif

namespace {

using zorv::foundation::config::Archiver;

constexpr int kSections = 10000;
constexpr int kKeys = 20;

// About 10 MB: "[section_NNNNN]" headers and "setting_NN = value text" lines.
const std::string& ConfigText() {
  static const std::string text = [] {
    std::string t;
    t.reserve(11 * 1024 * 1024);
    char line[128];
    for (int s = 0; s < kSections; ++s) {
      std::snprintf(line, sizeof(line), "[section_%05d]\n", s);
      t += line;
      for (int k = 0; k < kKeys; ++k) {
        std::snprintf(line, sizeof(line), "setting_%02d = value %d of section %05d, text\n", k,
                      k * 7919 + s, s);
        t += line;
      }
      t += "\n";
    }
    return t;
  }();
  return text;
}

std::string TempPath(const char* name) {
  const char* base = getenv("TMPDIR");
  return std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/zorv-bench-" +
         std::to_string(::getpid()) + "-" + name;
}

void ArchiverParseText(benchmark::State& state) {
  const std::string& text = ConfigText();
  for (auto _ : state) {
    Archiver archiver;
    archiver.parseText(text.c_str());
    benchmark::DoNotOptimize(archiver.contains("section_00000"));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(ArchiverParseText)->Unit(benchmark::kMillisecond);

void ArchiverParseFile(benchmark::State& state) {
  const std::string& text = ConfigText();
  const std::string path = TempPath("parse.ini");
  FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr || std::fwrite(text.data(), 1, text.size(), file) != text.size()) {
    state.SkipWithError("cannot write the input file");
    if (file != nullptr) std::fclose(file);
    return;
  }
  std::fclose(file);
  for (auto _ : state) {
    Archiver archiver;
    archiver.parseFile(path.c_str());
    benchmark::DoNotOptimize(archiver.contains("section_00000"));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  ::unlink(path.c_str());
}
BENCHMARK(ArchiverParseFile)->Unit(benchmark::kMillisecond);

void ArchiverSaveAs(benchmark::State& state) {
  const std::string& text = ConfigText();
  const std::string path = TempPath("save.ini");
  Archiver archiver;
  archiver.parseText(text.c_str());
  for (auto _ : state) {
    if (!archiver.saveAs(path.c_str())) state.SkipWithError("saveAs failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  ::unlink(path.c_str());
}
BENCHMARK(ArchiverSaveAs)->Unit(benchmark::kMillisecond);

#ifdef ZORV_BENCH_HAVE_GLIB
void GKeyFileLoadFromData(benchmark::State& state) {
  const std::string& text = ConfigText();
  for (auto _ : state) {
    GKeyFile* keyFile = g_key_file_new();
    gboolean ok = g_key_file_load_from_data(keyFile, text.data(), text.size(), G_KEY_FILE_NONE,
                                            nullptr);
    benchmark::DoNotOptimize(ok);
    g_key_file_free(keyFile);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(GKeyFileLoadFromData)->Unit(benchmark::kMillisecond);

void GKeyFileSaveToFile(benchmark::State& state) {
  const std::string& text = ConfigText();
  const std::string path = TempPath("gsave.ini");
  GKeyFile* keyFile = g_key_file_new();
  g_key_file_load_from_data(keyFile, text.data(), text.size(), G_KEY_FILE_NONE, nullptr);
  for (auto _ : state) {
    if (!g_key_file_save_to_file(keyFile, path.c_str(), nullptr)) state.SkipWithError("failed");
  }
  g_key_file_free(keyFile);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
  ::unlink(path.c_str());
}
BENCHMARK(GKeyFileSaveToFile)->Unit(benchmark::kMillisecond);
#endif

#ifdef ZORV_BENCH_HAVE_INIH
using InihTable = std::unordered_map<std::string, std::unordered_map<std::string, std::string> >;

int StoreInih(void* user, const char* section, const char* name, const char* value) {
  (*static_cast<InihTable*>(user))[section][name] = value;
  return 1;
}

void InihParseStringIntoUnorderedMap(benchmark::State& state) {
  const std::string& text = ConfigText();
  for (auto _ : state) {
    InihTable table;
    int result = ini_parse_string(text.c_str(), &StoreInih, &table);
    benchmark::DoNotOptimize(result);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(InihParseStringIntoUnorderedMap)->Unit(benchmark::kMillisecond);
#endif

}  // namespace

BENCHMARK_MAIN();
