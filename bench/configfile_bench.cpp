// Parsing, reading and saving a 10 MB configuration text (10,000 sections x
// 20 keys) with Archiver, against GLib's GKeyFile and inih storing into
// std::unordered_map, when those peers are available. Before the timings,
// each parser's peak memory is taken in a child process of its own.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "foundation/config/configarchiver.h"

#ifdef ZORV_BENCH_GLIB
#include <glib.h>
#endif
#ifdef ZORV_BENCH_INIH
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

// Ends a timed parse: a request the size of a large block makes glibc merge
// the small blocks that the parse freed. Without it, that work falls on
// whichever contender next asks for a large block, so each contender
// would pay for the one timed before it.
void SettleHeap() {
  void* block = std::malloc(4096);
  benchmark::DoNotOptimize(block);
  std::free(block);
}

std::string TempPath(const char* name) {
  const char* base = getenv("TMPDIR");
  return std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/zorv-bench-" +
         std::to_string(::getpid()) + "-" + name;
}

void ArchiverParseText(benchmark::State& state) {
  const std::string& text = ConfigText();
  for (auto _ : state) {
    {
      Archiver archiver;
      archiver.parseText(text.c_str());
      benchmark::DoNotOptimize(archiver.contains("section_00000"));
    }
    SettleHeap();
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
    {
      Archiver archiver;
      archiver.parseFile(path.c_str());
      benchmark::DoNotOptimize(archiver.contains("section_00000"));
    }
    SettleHeap();
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

#ifdef ZORV_BENCH_GLIB
void GKeyFileLoadFromData(benchmark::State& state) {
  const std::string& text = ConfigText();
  for (auto _ : state) {
    GKeyFile* keyFile = g_key_file_new();
    gboolean ok = g_key_file_load_from_data(keyFile, text.data(), text.size(), G_KEY_FILE_NONE,
                                            nullptr);
    benchmark::DoNotOptimize(ok);
    g_key_file_free(keyFile);
    SettleHeap();
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

#ifdef ZORV_BENCH_INIH
using InihTable = std::unordered_map<std::string, std::unordered_map<std::string, std::string> >;

int StoreInih(void* user, const char* section, const char* name, const char* value) {
  (*static_cast<InihTable*>(user))[section][name] = value;
  return 1;
}

void InihParseStringIntoUnorderedMap(benchmark::State& state) {
  const std::string& text = ConfigText();
  for (auto _ : state) {
    {
      InihTable table;
      int result = ini_parse_string(text.c_str(), &StoreInih, &table);
      benchmark::DoNotOptimize(result);
    }
    SettleHeap();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(InihParseStringIntoUnorderedMap)->Unit(benchmark::kMillisecond);
#endif

// Reading values the way a program does, from a table of a program's size
// (50 sections x 20 keys, about 45 KB, in the format above): 4,096
// (section, key) names of it, each looked up in turn and its value copied
// out; one in eight names a key that is not there. (In the 10 MB table the
// figures measure where the heap put the nodes, not the lookup.)
constexpr int kLookupSections = 50;

const std::string& LookupText() {
  static const std::string text = ConfigText().substr(0, ConfigText().find("[section_00050]"));
  return text;
}

const std::vector<std::pair<std::string, std::string> >& LookupNames() {
  static const std::vector<std::pair<std::string, std::string> > names = [] {
    std::mt19937 random(3u);
    std::vector<std::pair<std::string, std::string> > n;
    char section[32];
    char key[32];
    for (int i = 0; i < 4096; ++i) {
      std::snprintf(section, sizeof section, "section_%05d",
                    static_cast<int>(random() % kLookupSections));
      const int k = static_cast<int>(random() % (kKeys + kKeys / 7));
      std::snprintf(key, sizeof key, "setting_%02d", k);
      n.emplace_back(section, key);
    }
    return n;
  }();
  return names;
}

void ArchiverLookup(benchmark::State& state) {
  Archiver archiver;
  archiver.parseText(LookupText().c_str());
  std::vector<std::pair<zorv::foundation::SafeString, zorv::foundation::SafeString> > names;
  for (const auto& n : LookupNames()) names.emplace_back(n.first.c_str(), n.second.c_str());
  zorv::foundation::SafeString out;
  size_t i = 0;
  for (auto _ : state) {
    const auto& n = names[i++ % names.size()];
    benchmark::DoNotOptimize(archiver.value(n.first, n.second, out));
  }
}
BENCHMARK(ArchiverLookup);

#ifdef ZORV_BENCH_GLIB
void GKeyFileLookup(benchmark::State& state) {
  const std::string& text = LookupText();
  GKeyFile* keyFile = g_key_file_new();
  g_key_file_load_from_data(keyFile, text.data(), text.size(), G_KEY_FILE_NONE, nullptr);
  size_t i = 0;
  for (auto _ : state) {
    const auto& n = LookupNames()[i++ % LookupNames().size()];
    gchar* value = g_key_file_get_value(keyFile, n.first.c_str(), n.second.c_str(), nullptr);
    benchmark::DoNotOptimize(value);
    g_free(value);
  }
  g_key_file_free(keyFile);
}
BENCHMARK(GKeyFileLookup);
#endif

#ifdef ZORV_BENCH_INIH
void InihUnorderedMapLookup(benchmark::State& state) {
  InihTable table;
  ini_parse_string(LookupText().c_str(), &StoreInih, &table);
  std::string out;
  size_t i = 0;
  for (auto _ : state) {
    const auto& n = LookupNames()[i++ % LookupNames().size()];
    const auto section = table.find(n.first);
    bool found = false;
    if (section != table.end()) {
      const auto key = section->second.find(n.second);
      if (key != section->second.end()) {
        out = key->second;
        found = true;
      }
    }
    benchmark::DoNotOptimize(found);
  }
}
BENCHMARK(InihUnorderedMapLookup);
#endif

// The peak resident memory that one parse adds (table built and dropped),
// in KiB, measured in a child process of its own so that no contender sees
// another's heap: the child's high-water mark after the parse minus the one
// it started with. -1 when the child could not be run.
template <class Parse>
long PeakKiB(Parse parse) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    struct rusage before;
    struct rusage after;
    getrusage(RUSAGE_SELF, &before);
    parse();
    getrusage(RUSAGE_SELF, &after);
    const long grown = after.ru_maxrss - before.ru_maxrss;
    _exit(write(fds[1], &grown, sizeof(grown)) == sizeof(grown) ? 0 : 1);
  }
  close(fds[1]);
  long grown = -1;
  if (child < 0 || read(fds[0], &grown, sizeof(grown)) != sizeof(grown)) grown = -1;
  close(fds[0]);
  if (child > 0) waitpid(child, nullptr, 0);
  return grown;
}

void ReportPeakMemory() {
  const std::string& text = ConfigText();
  std::fprintf(stderr, "peak memory added by one parse of %zu bytes:\n", text.size());
  std::fprintf(stderr, "  Archiver::parseText   %6.1f MiB\n", PeakKiB([&text] {
                 Archiver archiver;
                 archiver.parseText(text.c_str());
               }) / 1024.0);
#ifdef ZORV_BENCH_GLIB
  std::fprintf(stderr, "  GKeyFile              %6.1f MiB\n", PeakKiB([&text] {
                 GKeyFile* keyFile = g_key_file_new();
                 g_key_file_load_from_data(keyFile, text.data(), text.size(), G_KEY_FILE_NONE,
                                           nullptr);
                 g_key_file_free(keyFile);
               }) / 1024.0);
#endif
#ifdef ZORV_BENCH_INIH
  std::fprintf(stderr, "  inih + unordered_map  %6.1f MiB\n", PeakKiB([&text] {
                 InihTable table;
                 ini_parse_string(text.c_str(), &StoreInih, &table);
               }) / 1024.0);
#endif
}

}  // namespace

int main(int argc, char** argv) {
  ReportPeakMemory();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
