// FileUtils: folder creation, removal, copying and searching, and the
// folder walker beneath them.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "file/fileinternal.h"
#include "foundation/file/fileutils.h"
#include "foundation/text/stringutils.h"

namespace zorv {
namespace foundation {
namespace file {

namespace {

constexpr mode_t kDirectoryBit = 040000;
constexpr mode_t kFolderMode = 0755;

// Closes a folder stream when it leaves its scope.
class FolderStream {
 public:
  explicit FolderStream(const SafeString& path) : dir_(::opendir(path.c_str())) {}
  ~FolderStream() {
    if (dir_ != nullptr) ::closedir(dir_);
  }
  FolderStream(const FolderStream&) = delete;
  FolderStream& operator=(const FolderStream&) = delete;
  bool valid() const { return dir_ != nullptr; }
  // The next entry other than "." and ".."; null at the end.
  struct dirent* next() {
    for (;;) {
      struct dirent* entry = ::readdir(dir_);
      if (entry == nullptr) return nullptr;
      const char* name = entry->d_name;
      if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
      return entry;
    }
  }

 private:
  DIR* dir_;
};

// Whether an entry counts as a folder by the directory-bit test of
// IsFolder (which follows links). The entry type saves the stat call where
// it already answers: block devices and sockets carry the directory bit in
// their type code and so count as folders, like a stat would say.
bool EntryIsFolder(const struct dirent* entry, const SafeString& full) {
#ifdef _DIRENT_HAVE_D_TYPE
  switch (entry->d_type) {
    case DT_DIR:
    case DT_BLK:
    case DT_SOCK:
      return true;
    case DT_REG:
    case DT_CHR:
    case DT_FIFO:
      return false;
    default:
      break;
  }
#else
  (void)entry;
#endif
  struct stat info;
  return ::stat(full.c_str(), &info) == 0 && (info.st_mode & kDirectoryBit) != 0;
}

// Joins a walked folder and an entry name; a root of "/" gives "/name".
SafeString Child(const SafeString& root, const char* name) {
  SafeString full;
  size_t nameLength = std::strlen(name);
  full.reserve(root.size() + 1 + nameLength);
  full += root;
  if (full != "/") full += '/';
  full.append(name, nameLength);
  return full;
}

void Walk(const SafeString& root, const SafeString& prefix, unsigned int flags,
          collection::Vector<SafeString>& out) {
  FolderStream dir(root);
  if (!dir.valid()) return;
  while (struct dirent* entry = dir.next()) {
    SafeString full = Child(root, entry->d_name);
    const bool folder = EntryIsFolder(entry, full);
    const bool collect = folder ? (flags & detail::kWalkFolders) != 0
                                : (flags & detail::kWalkFiles) != 0;
    const bool descend = folder && (flags & detail::kWalkRecursive) != 0;
    SafeString relative;
    if ((flags & detail::kWalkRelative) != 0 || descend) {
      relative.reserve(prefix.size() + 1 + std::strlen(entry->d_name));
      relative += prefix;
      relative += '/';
      relative += entry->d_name;
    }
    if (collect) {
      if ((flags & detail::kWalkRelative) != 0) {
        out.push_back(relative);
      } else if ((flags & detail::kWalkName) != 0) {
        out.emplace_back(entry->d_name);
      } else if (descend) {
        out.push_back(full);
      } else {
        out.push_back(std::move(full));
      }
    }
    if (descend) Walk(full, relative, flags, out);
  }
}

// Empties the folder `path`: links are removed as links (never followed),
// folders are emptied and removed, every other entry (sockets included) is
// unlinked. Stops at the
// first failure.
bool RemoveContents(const SafeString& path) {
  collection::Vector<SafeString> entries;
  {
    FolderStream dir(path);
    if (!dir.valid()) return false;
    while (struct dirent* entry = dir.next()) entries.push_back(Child(path, entry->d_name));
  }
  for (const SafeString& entry : entries) {
    struct stat info;
    if (::lstat(entry.c_str(), &info) != 0) return false;
    if (S_ISLNK(info.st_mode)) {
      if (::unlink(entry.c_str()) != 0) return false;
    } else if (S_ISDIR(info.st_mode)) {
      if (!RemoveContents(entry) || ::rmdir(entry.c_str()) != 0) return false;
    } else if (::remove(entry.c_str()) != 0) {
      // Files, devices, FIFOs and sockets alike.
      return false;
    }
  }
  return true;
}

}  // namespace

namespace detail {

void WalkFolder(const SafeString& root, const SafeString& prefix, unsigned int flags,
                collection::Vector<SafeString>& out) {
  if (!FileUtils::IsFolder(root)) return;
  Walk(root, prefix, flags, out);
}

bool CreateParents(const SafeString& path, SafeString& firstCreated) {
  firstCreated.clear();
  collection::Vector<SafeString> parts = SplitPath(path);
  if (parts.size() < 2) return true;
  try {
    collection::Vector<SafeString> prefix;
    prefix.reserve(parts.size());
    for (size_t i = 0; i + 1 < parts.size(); ++i) {
      prefix.push_back(parts[i]);
      SafeString folder = JoinPath(prefix);
      struct stat info;
      bool ok;
      if (::stat(folder.c_str(), &info) == 0) {
        ok = (info.st_mode & kDirectoryBit) != 0;
      } else {
        ok = ::mkdir(folder.c_str(), kFolderMode) == 0;
        if (ok && firstCreated.empty()) firstCreated.swap(folder);
      }
      if (!ok) {
        if (!firstCreated.empty()) (void)FileUtils::RemoveFolder(firstCreated);
        firstCreated.clear();
        return false;
      }
    }
  } catch (...) {
    // Out of memory midway: the made folders go too.
    if (!firstCreated.empty()) (void)FileUtils::RemoveFolder(firstCreated);
    firstCreated.clear();
    throw;
  }
  return true;
}

}  // namespace detail

bool FileUtils::CreateFolder(const SafeString& path) {
  if (path.empty() || IsExist(path)) return false;
  SafeString firstCreated;
  if (!detail::CreateParents(path, firstCreated)) return false;
  if (::mkdir(path.c_str(), kFolderMode) == 0) return true;
  if (!firstCreated.empty()) (void)RemoveFolder(firstCreated);
  return false;
}

bool FileUtils::RemoveFolder(const SafeString& path) {
  if (path.empty() || path == "/" || !IsFolder(path)) return false;
  if (!RemoveContents(path)) return false;
  return ::rmdir(path.c_str()) == 0;
}

bool FileUtils::CopyFolder(const SafeString& from, const SafeString& to) {
  if (from.empty() || to.empty() || from == to || !IsFolder(from)) return false;
  SafeString parent = GetFolderPath(to);
  if (!parent.empty() && !IsFolder(parent)) return false;
  bool created = false;
  if (!IsExist(to)) {
    if (!CreateFolder(to)) return false;
    created = true;
  }
  try {
    // The direct entries of `from`, each with whether it counts as a folder.
    collection::Vector<std::pair<SafeString, bool> > entries;
    {
      FolderStream dir(from);
      if (dir.valid()) {
        while (struct dirent* entry = dir.next()) {
          SafeString full = Child(from, entry->d_name);
          const bool folder = EntryIsFolder(entry, full);
          entries.emplace_back(std::move(full), folder);
        }
      }
    }
    for (const auto& entry : entries) {
      SafeString target = LinkPath(to, GetFileName(entry.first));
      bool ok = entry.second ? CopyFolder(entry.first, target) : CopyFile(entry.first, target);
      if (!ok) {
        if (created) (void)RemoveFolder(to);
        return false;
      }
    }
  } catch (...) {
    // Out of memory midway: a target made here goes, as on failure.
    if (created) (void)RemoveFolder(to);
    throw;
  }
  return true;
}

collection::Vector<SafeString> FileUtils::SearchFolders(const SafeString& path,
                                                        unsigned int flags) {
  collection::Vector<SafeString> result;
  if (path.empty()) return result;
  detail::WalkFolder(detail::NormalisePath(path), SafeString(),
                     (flags & detail::kWalkCallerBits) | detail::kWalkFolders, result);
  return result;
}

collection::Vector<SafeString> FileUtils::SearchFiles(
    const SafeString& path, unsigned int flags, const collection::Vector<SafeString>& suffixes) {
  collection::Vector<SafeString> found;
  if (path.empty()) return found;
  detail::WalkFolder(detail::NormalisePath(path), SafeString(),
                     (flags & detail::kWalkCallerBits) | detail::kWalkFiles, found);
  if (suffixes.empty()) return found;
  collection::Vector<SafeString> result;
  for (SafeString& s : found) {
    for (const SafeString& suffix : suffixes) {
      if (suffix.size() <= s.size() &&
          text::StringUtils::CompareNoCase(s.c_str() + (s.size() - suffix.size()),
                                           suffix.c_str()) == 0) {
        result.push_back(std::move(s));
        break;
      }
    }
  }
  return result;
}

}  // namespace file
}  // namespace foundation
}  // namespace zorv
