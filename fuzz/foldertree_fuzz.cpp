// Fuzz target: CopyFolder and RemoveFolder over generated trees of folders,
// files and links (loops, links leading out, names holding '\' and "..")
// in a scratch folder, checking that nothing outside the tree they were
// given changes.
//
// Layout, made once: <scratch>/outside (a folder with a file and a
// subfolder, the target of the links leading out) and <scratch>/work, which
// holds the generated tree "work/tree" and the copy "work/copy" and is
// emptied after every input. Link targets never leave <scratch>.
#include <dirent.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <string>

#include "foundation/file/fileutils.h"

using zorv::foundation::SafeString;
using zorv::foundation::file::FileUtils;

namespace {

std::string g_scratch;
std::string g_outside;
std::string g_work;

// Everything below `root` by path (links not followed): kind, size, inode
// and link target.
void SnapshotInto(const std::string& root, std::map<std::string, std::string>& out) {
  DIR* dir = ::opendir(root.c_str());
  if (dir == nullptr) return;
  while (struct dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = root + "/" + name;
    struct stat info;
    if (::lstat(path.c_str(), &info) != 0) continue;
    std::string value = std::to_string(info.st_mode) + ":" + std::to_string(info.st_size) + ":" +
                        std::to_string(info.st_ino);
    if (S_ISLNK(info.st_mode)) {
      char target[4096];
      ssize_t length = ::readlink(path.c_str(), target, sizeof(target));
      if (length > 0) value.append(target, static_cast<size_t>(length));
    }
    out[path] = value;
    if (S_ISDIR(info.st_mode)) SnapshotInto(path, out);
  }
  ::closedir(dir);
}

std::map<std::string, std::string> Snapshot() {
  std::map<std::string, std::string> result;
  SnapshotInto(g_scratch, result);
  // The work folder is what the calls may change.
  const std::string below = g_work + "/";
  for (auto it = result.begin(); it != result.end();) {
    const bool work = it->first == g_work || it->first.compare(0, below.size(), below) == 0;
    it = work ? result.erase(it) : std::next(it);
  }
  return result;
}

int RemoveOne(const char* path, const struct stat*, int, struct FTW*) {
  (void)::remove(path);
  return 0;
}

void EmptyWork() {
  ::nftw(g_work.c_str(), RemoveOne, 64, FTW_DEPTH | FTW_PHYS);
  ::mkdir(g_work.c_str(), 0755);
}

void RemoveScratch() { ::nftw(g_scratch.c_str(), RemoveOne, 64, FTW_DEPTH | FTW_PHYS); }

void SetUpOnce() {
  if (!g_scratch.empty()) return;
  char pattern[] = "/tmp/foldertree-fuzz-XXXXXX";
  if (::mkdtemp(pattern) == nullptr) __builtin_trap();
  g_scratch = pattern;
  g_outside = g_scratch + "/outside";
  g_work = g_scratch + "/work";
  std::atexit(RemoveScratch);
  ::mkdir(g_outside.c_str(), 0755);
  ::mkdir((g_outside + "/inner").c_str(), 0755);
  FILE* file = ::fopen((g_outside + "/keep").c_str(), "w");
  if (file == nullptr) __builtin_trap();
  ::fputs("keep", file);
  ::fclose(file);
  ::mkdir(g_work.c_str(), 0755);
}

// Reads the input a byte at a time; zero once it is used up.
struct Input {
  const uint8_t* data;
  size_t size;
  uint8_t next() {
    if (size == 0) return 0;
    --size;
    return *data++;
  }
};

const char* const kNames[] = {"a", "b", "sub", "x\\..", "..\\..", "f\\..\\..\\out", "\\",
                              "c\\d", "...", "a b", ".hidden", "link"};
constexpr size_t kNameCount = sizeof(kNames) / sizeof(kNames[0]);

// Builds a tree below `folder` from the input, at most `depth` levels deep.
void Build(Input& in, const std::string& folder, int depth, int& budget) {
  while (budget-- > 0) {
    const uint8_t op = in.next();
    const std::string path = folder + "/" + kNames[in.next() % kNameCount];
    switch (op % 8) {
      case 0:
        return;
      case 1:
      case 2:
        if (depth > 0 && ::mkdir(path.c_str(), 0755) == 0) Build(in, path, depth - 1, budget);
        break;
      case 3: {
        FILE* file = ::fopen(path.c_str(), "w");
        if (file != nullptr) {
          ::fputs("data", file);
          ::fclose(file);
        }
        break;
      }
      case 4:
        (void)::symlink(g_outside.c_str(), path.c_str());
        break;
      case 5:
        (void)::symlink((g_outside + "/keep").c_str(), path.c_str());
        break;
      case 6:
        (void)::symlink(in.next() % 2 == 0 ? ".." : ".", path.c_str());
        break;
      default:
        (void)::symlink((g_work + "/tree").c_str(), path.c_str());
        break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SetUpOnce();
  EmptyWork();
  const std::map<std::string, std::string> before = Snapshot();
  Input in{data, size};
  const std::string tree = g_work + "/tree";
  if (::mkdir(tree.c_str(), 0755) != 0) __builtin_trap();
  int budget = 64;
  Build(in, tree, 4, budget);

  // A copy into the tree itself, when "sub" is a real folder there (a path
  // through a link is the caller's choice and may lead anywhere).
  struct stat info;
  const bool inside = (in.next() & 1) != 0 && ::lstat((tree + "/sub").c_str(), &info) == 0 &&
                      S_ISDIR(info.st_mode);
  const std::string copy = inside ? tree + "/sub/copy" : g_work + "/copy";
  (void)FileUtils::CopyFolder(tree.c_str(), copy.c_str());
  if (Snapshot() != before) __builtin_trap();
  (void)FileUtils::RemoveFolder(copy.c_str());
  (void)FileUtils::RemoveFolder((tree + "/" + kNames[in.next() % kNameCount]).c_str());
  if (Snapshot() != before) __builtin_trap();
  // The whole tree goes, whatever it holds (unless the call before took it).
  (void)FileUtils::RemoveFolder(tree.c_str());
  if (::lstat(tree.c_str(), &info) == 0) __builtin_trap();
  if (Snapshot() != before) __builtin_trap();
  return 0;
}
