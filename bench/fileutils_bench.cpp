// CopyFile of a 100 MB file and of a small one against
// std::filesystem::copy_file;
// SearchFiles over a tree of 100,000 files against
// std::filesystem::recursive_directory_iterator; RemoveFolder of a small
// tree against std::filesystem::remove_all; and ReadText of a small
// file and of a sysfs attribute (what a program polls) against std::ifstream,
// GLib's g_file_get_contents and a plain open/read/close. The files and the
// tree are made under $TMPDIR (or /tmp) at start and removed at the end.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "foundation/file/fileutils.h"

#ifdef ZORV_BENCH_GLIB
#include <glib.h>
#endif

namespace {

namespace fs = std::filesystem;
using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::file::FileUtils;

constexpr size_t kCopyBytes = 100u * 1024u * 1024u;
constexpr int kFolders = 100;
constexpr int kFilesPerFolder = 1000;

const std::string& WorkFolder() {
  static const std::string folder = [] {
    const char* base = getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/zorv-bench-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) return std::string();
    return std::string(buffer.data());
  }();
  return folder;
}

// The 100 MB source file, made once.
const std::string& SourceFile() {
  static const std::string path = [] {
    std::string p = WorkFolder() + "/source.bin";
    FILE* file = std::fopen(p.c_str(), "wb");
    if (file == nullptr) return std::string();
    std::vector<char> block(1 << 20);
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 131 + 7);
    for (size_t done = 0; done < kCopyBytes; done += block.size()) {
      std::fwrite(block.data(), 1, block.size(), file);
    }
    std::fclose(file);
    return p;
  }();
  return path;
}

// root/dNN/fNNNN.txt (and every tenth file .dat): 100,000 files.
const std::string& Tree() {
  static const std::string root = [] {
    std::string r = WorkFolder() + "/tree";
    ::mkdir(r.c_str(), 0755);
    char name[64];
    for (int d = 0; d < kFolders; ++d) {
      std::snprintf(name, sizeof(name), "/d%02d", d);
      std::string folder = r + name;
      ::mkdir(folder.c_str(), 0755);
      for (int f = 0; f < kFilesPerFolder; ++f) {
        std::snprintf(name, sizeof(name), "/f%04d.%s", f, f % 10 == 0 ? "dat" : "txt");
        int fd = ::open((folder + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) ::close(fd);
      }
    }
    return r;
  }();
  return root;
}

void CopyFile100MB(benchmark::State& state) {
  const std::string& source = SourceFile();
  const SafeString from(source.c_str());
  const SafeString to((WorkFolder() + "/copy.bin").c_str());
  (void)FileUtils::CopyFile(from, to);  // warm the cache
  for (auto _ : state) {
    if (!FileUtils::CopyFile(from, to)) state.SkipWithError("CopyFile failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kCopyBytes));
}
BENCHMARK(CopyFile100MB)->Unit(benchmark::kMillisecond)->UseRealTime();

void StdCopyFile100MB(benchmark::State& state) {
  const fs::path from(SourceFile());
  const fs::path to(WorkFolder() + "/stdcopy.bin");
  std::error_code error;
  fs::copy_file(from, to, fs::copy_options::overwrite_existing, error);
  for (auto _ : state) {
    if (!fs::copy_file(from, to, fs::copy_options::overwrite_existing, error)) {
      state.SkipWithError("copy_file failed");
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kCopyBytes));
}
BENCHMARK(StdCopyFile100MB)->Unit(benchmark::kMillisecond)->UseRealTime();

// A 248-byte settings file, read whole and copied by the small-file
// benchmarks.
const std::string& SmallFile() {
  static const std::string path = [] {
    std::string p = WorkFolder() + "/small.ini";
    FILE* file = std::fopen(p.c_str(), "wb");
    if (file == nullptr) return std::string();
    for (int i = 0; i < 8; ++i) std::fprintf(file, "setting_%02d = value %05d, text\n", i, i * 37);
    std::fclose(file);
    return p;
  }();
  return path;
}

// The small file copied.
void CopyFileSmall(benchmark::State& state) {
  const SafeString from(SmallFile().c_str());
  const SafeString to((WorkFolder() + "/small.copy").c_str());
  for (auto _ : state) {
    if (!FileUtils::CopyFile(from, to)) state.SkipWithError("CopyFile failed");
  }
}
BENCHMARK(CopyFileSmall);

void StdCopyFileSmall(benchmark::State& state) {
  const fs::path from(SmallFile());
  const fs::path to(WorkFolder() + "/small.stdcopy");
  std::error_code error;
  for (auto _ : state) {
    if (!fs::copy_file(from, to, fs::copy_options::overwrite_existing, error)) {
      state.SkipWithError("copy_file failed");
    }
  }
}
BENCHMARK(StdCopyFileSmall);

// The file name of a path, as a program takes it for a log line.
const char* const kNamedPath = "/usr/share/zorv/settings/network.ini";
const char* const kLinkFolder = "/usr/share/zorv/settings";
const char* const kLinkName = "network.ini";

// A path function of the library, and one of GLib's, over kNamedPath.
void ZorvOfPath(benchmark::State& state, SafeString (*function)(const SafeString&)) {
  const SafeString path(kNamedPath);
  for (auto _ : state) benchmark::DoNotOptimize(function(path));
}

#ifdef ZORV_BENCH_GLIB
void GlibOfPath(benchmark::State& state, gchar* (*function)(const gchar*)) {
  for (auto _ : state) {
    gchar* result = function(kNamedPath);
    benchmark::DoNotOptimize(result);
    g_free(result);
  }
}
#endif

BENCHMARK_CAPTURE(ZorvOfPath, GetFileName, &FileUtils::GetFileName);

void StdPathFilename(benchmark::State& state) {
  const fs::path path(kNamedPath);
  for (auto _ : state) benchmark::DoNotOptimize(path.filename());
}
BENCHMARK(StdPathFilename);

#ifdef ZORV_BENCH_GLIB
BENCHMARK_CAPTURE(GlibOfPath, g_path_get_basename, &g_path_get_basename);
#endif

// The size of the small file: what a program asks before it reads one.
void GetFileSizeSmall(benchmark::State& state) {
  const SafeString path(SmallFile().c_str());
  for (auto _ : state) benchmark::DoNotOptimize(FileUtils::GetFileSize(path));
}
BENCHMARK(GetFileSizeSmall);

void StdFileSizeSmall(benchmark::State& state) {
  const fs::path path(SmallFile());
  std::error_code error;
  for (auto _ : state) benchmark::DoNotOptimize(fs::file_size(path, error));
}
BENCHMARK(StdFileSizeSmall);

// The folder of a path and a path joined from two: what a program does to
// find its settings. std::filesystem works on a path object made beforehand;
// GLib's g_build_filename, like LinkPath, puts one separator at the seam.
BENCHMARK_CAPTURE(ZorvOfPath, GetFolderPath, &FileUtils::GetFolderPath);

void StdPathParentPath(benchmark::State& state) {
  const fs::path path(kNamedPath);
  for (auto _ : state) benchmark::DoNotOptimize(path.parent_path());
}
BENCHMARK(StdPathParentPath);

void LinkPathOfTwo(benchmark::State& state) {
  const SafeString folder(kLinkFolder);
  const SafeString name(kLinkName);
  for (auto _ : state) benchmark::DoNotOptimize(FileUtils::LinkPath(folder, name));
}
BENCHMARK(LinkPathOfTwo);

void StdPathAppend(benchmark::State& state) {
  const fs::path folder(kLinkFolder);
  const fs::path name(kLinkName);
  for (auto _ : state) benchmark::DoNotOptimize(folder / name);
}
BENCHMARK(StdPathAppend);

#ifdef ZORV_BENCH_GLIB
BENCHMARK_CAPTURE(GlibOfPath, g_path_get_dirname, &g_path_get_dirname);

void GlibBuildFilename(benchmark::State& state) {
  for (auto _ : state) {
    gchar* path = g_build_filename(kLinkFolder, kLinkName, nullptr);
    benchmark::DoNotOptimize(path);
    g_free(path);
  }
}
BENCHMARK(GlibBuildFilename);
#endif

// A folder holding a file and a subfolder with a file, its parent six
// levels below the root, removed; it is made again, untimed, before each
// removal.
const std::string& SmallTree() {
  static const std::string top = WorkFolder() + "/l3/l4/l5/l6/tree";
  return top;
}

bool MakeSmallTree() {
  std::error_code error;
  fs::create_directories(SmallTree() + "/sub", error);
  std::ofstream(SmallTree() + "/f1") << "a";
  std::ofstream(SmallTree() + "/sub/f2") << "b";
  return !error;
}

void RemoveFolderSmallTree(benchmark::State& state) {
  const SafeString top(SmallTree().c_str());
  for (auto _ : state) {
    state.PauseTiming();
    const bool made = MakeSmallTree();
    state.ResumeTiming();
    if (!made || !FileUtils::RemoveFolder(top)) state.SkipWithError("RemoveFolder failed");
  }
}
BENCHMARK(RemoveFolderSmallTree)->UseRealTime();

void StdRemoveAllSmallTree(benchmark::State& state) {
  const fs::path top(SmallTree());
  std::error_code error;
  for (auto _ : state) {
    state.PauseTiming();
    const bool made = MakeSmallTree();
    state.ResumeTiming();
    if (!made || fs::remove_all(top, error) != 4) state.SkipWithError("remove_all failed");
  }
}
BENCHMARK(StdRemoveAllSmallTree)->UseRealTime();

void SearchFiles100k(benchmark::State& state) {
  const SafeString root(Tree().c_str());
  const Vector<SafeString> none;
  size_t found = 0;
  for (auto _ : state) {
    Vector<SafeString> files = FileUtils::SearchFiles(root, FileUtils::kSearchRecursive, none);
    found = files.size();
    benchmark::DoNotOptimize(files.data());
  }
  state.counters["files"] = static_cast<double>(found);
}
BENCHMARK(SearchFiles100k)->Unit(benchmark::kMillisecond)->UseRealTime();

void SearchFiles100kSuffix(benchmark::State& state) {
  const SafeString root(Tree().c_str());
  Vector<SafeString> suffixes;
  suffixes.emplace_back(".TXT");
  size_t found = 0;
  for (auto _ : state) {
    Vector<SafeString> files = FileUtils::SearchFiles(root, FileUtils::kSearchRecursive, suffixes);
    found = files.size();
    benchmark::DoNotOptimize(files.data());
  }
  state.counters["files"] = static_cast<double>(found);
}
BENCHMARK(SearchFiles100kSuffix)->Unit(benchmark::kMillisecond)->UseRealTime();

void StdRecursiveDirectoryIterator100k(benchmark::State& state) {
  const fs::path root(Tree());
  size_t found = 0;
  for (auto _ : state) {
    std::vector<std::string> files;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
      if (!entry.is_directory()) files.push_back(entry.path().string());
    }
    found = files.size();
    benchmark::DoNotOptimize(files.data());
  }
  state.counters["files"] = static_cast<double>(found);
}
BENCHMARK(StdRecursiveDirectoryIterator100k)->Unit(benchmark::kMillisecond)->UseRealTime();

// Small files read whole: that file, and a sysfs attribute (the loopback's
// MTU), which says 4,096 bytes and holds a few.
const char* const kSysfsFile = "/sys/class/net/lo/mtu";

const std::string& SmallPath(const benchmark::State& state) {
  static const std::string sysfs = kSysfsFile;
  return state.range(0) == 0 ? SmallFile() : sysfs;
}

void ReadTextSmall(benchmark::State& state) {
  const SafeString path(SmallPath(state).c_str());
  SafeString text;
  for (auto _ : state) {
    if (!FileUtils::ReadText(path, text)) state.SkipWithError("ReadText failed");
  }
}
BENCHMARK(ReadTextSmall)->Arg(0)->Arg(1)->ArgName("sysfs");

void StdIfstreamSmall(benchmark::State& state) {
  const std::string& path = SmallPath(state);
  for (auto _ : state) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in) state.SkipWithError("ifstream failed");
    benchmark::DoNotOptimize(text.str());
  }
}
BENCHMARK(StdIfstreamSmall)->Arg(0)->Arg(1)->ArgName("sysfs");

void PlainReadSmall(benchmark::State& state) {
  const std::string& path = SmallPath(state);
  std::string text;
  for (auto _ : state) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) state.SkipWithError("open failed");
    char buffer[4096];
    text.clear();
    for (;;) {
      const ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n <= 0) break;
      text.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    benchmark::DoNotOptimize(text.data());
  }
}
BENCHMARK(PlainReadSmall)->Arg(0)->Arg(1)->ArgName("sysfs");

#ifdef ZORV_BENCH_GLIB
void GlibGetContentsSmall(benchmark::State& state) {
  const std::string& path = SmallPath(state);
  for (auto _ : state) {
    gchar* text = nullptr;
    gsize length = 0;
    if (!g_file_get_contents(path.c_str(), &text, &length, nullptr)) state.SkipWithError("failed");
    benchmark::DoNotOptimize(text);
    g_free(text);
  }
}
BENCHMARK(GlibGetContentsSmall)->Arg(0)->Arg(1)->ArgName("sysfs");
#endif

// A 248-byte settings text written whole into a folder one level below the
// work folder, which exists: replacing a file in place, and the crash-safe
// save (a temporary synced and renamed over the file) against GLib's, which
// does the same but leaves the folder unsynced.
std::string SettingsText() {
  std::string text;
  char line[64];
  for (int i = 0; i < 8; ++i) {
    std::snprintf(line, sizeof line, "setting_%02d = value %05d, text\n", i, i * 37);
    text += line;
  }
  return text;
}

std::string WritePath(const char* name) {
  const std::string folder = WorkFolder() + "/settings";
  ::mkdir(folder.c_str(), 0755);
  return folder + "/" + name;
}

void WriteTextSmall(benchmark::State& state) {
  const SafeString path(WritePath("written.ini").c_str());
  const SafeString text(SettingsText().c_str());
  for (auto _ : state) {
    if (!FileUtils::WriteText(path, text)) state.SkipWithError("WriteText failed");
  }
}
BENCHMARK(WriteTextSmall);

void StdOfstreamSmall(benchmark::State& state) {
  const std::string path = WritePath("ofstream.ini");
  const std::string text = SettingsText();
  for (auto _ : state) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    if (!out) state.SkipWithError("ofstream failed");
  }
}
BENCHMARK(StdOfstreamSmall);

void PlainWriteSmall(benchmark::State& state) {
  const std::string path = WritePath("plain.ini");
  const std::string text = SettingsText();
  for (auto _ : state) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      state.SkipWithError("write failed");
    }
    ::close(fd);
  }
}
BENCHMARK(PlainWriteSmall);

void WriteTextAtomicSmall(benchmark::State& state) {
  const SafeString path(WritePath("saved.ini").c_str());
  const SafeString text(SettingsText().c_str());
  for (auto _ : state) {
    if (!FileUtils::WriteTextAtomic(path, text)) state.SkipWithError("WriteTextAtomic failed");
  }
}
BENCHMARK(WriteTextAtomicSmall)->UseRealTime();

#ifdef ZORV_BENCH_GLIB
void GlibSetContentsSmall(benchmark::State& state) {
  const std::string path = WritePath("glib.ini");
  const std::string text = SettingsText();
  for (auto _ : state) {
    if (!g_file_set_contents(path.c_str(), text.data(), static_cast<gssize>(text.size()),
                             nullptr)) {
      state.SkipWithError("g_file_set_contents failed");
    }
  }
}
BENCHMARK(GlibSetContentsSmall)->UseRealTime();
#endif

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  if (WorkFolder().empty()) {
    std::fprintf(stderr, "cannot make a work folder\n");
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code error;
  fs::remove_all(WorkFolder(), error);
  return 0;
}
