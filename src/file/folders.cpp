// FileUtils: folder creation, removal, copying and searching, and the
// folder walker beneath them.
//
// Everything below the folder a caller names is reached through descriptors:
// a folder is opened relative to the open folder that lists it, entries are
// made, removed and opened relative to it, and only the names that readdir
// returns are used. A folder swapped for a link during a walk is therefore
// never entered, and names holding '\' stay single names.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "file/fileinternal.h"
#include "foundation/file/fileutils.h"
#include "foundation/text/stringutils.h"

namespace zorv {
namespace foundation {
namespace file {

namespace {

using detail::Descriptor;

constexpr mode_t kDirectoryBit = 040000;
constexpr mode_t kFolderMode = 0755;
constexpr size_t kCopyChunk = 4096;
// Listings of a folder being removed: a folder that is not empty when it
// is to go is listed again, so that entries made meanwhile, or skipped by
// readdir while the folder changed, are found; a folder that keeps filling
// up fails after these many.
constexpr int kEmptyPasses = 8;

using system::posixio::OpenAt;

// Opens a folder for listing. `follow` false refuses a link in the last
// component.
int OpenFolderAt(int folder, const char* name, bool follow) {
  return OpenAt(folder, name, O_RDONLY | O_DIRECTORY | O_NONBLOCK | (follow ? 0 : O_NOFOLLOW));
}

// A folder stream over an open folder descriptor, which it takes over and
// closes when it leaves its scope.
class FolderStream {
 public:
  explicit FolderStream(int fd) : dir_(fd >= 0 ? ::fdopendir(fd) : nullptr) {
    if (dir_ == nullptr && fd >= 0) ::close(fd);
  }
  ~FolderStream() {
    if (dir_ != nullptr) ::closedir(dir_);
  }
  FolderStream(const FolderStream&) = delete;
  FolderStream& operator=(const FolderStream&) = delete;
  bool valid() const { return dir_ != nullptr; }
  int fd() const { return ::dirfd(dir_); }
  void rewind() { ::rewinddir(dir_); }
  // The next entry other than "." and ".."; null at the end.
  struct dirent* next() {
    for (;;) {
      struct dirent* entry = ::readdir(dir_);
      if (entry == nullptr) return nullptr;
      if (detail::IsEntryName(entry->d_name)) return entry;
    }
  }

 private:
  DIR* dir_;
};

// One folder open on the current path of a walk. The chain lives on the
// stack of the recursion, so walks need no memory to tell a folder they
// are already inside.
struct FolderId {
  dev_t device;
  ino_t inode;
  const FolderId* up;
};

bool SameFolder(const FolderId& id, const struct stat& info) {
  return id.device == info.st_dev && id.inode == info.st_ino;
}

bool OnPath(const FolderId* chain, const struct stat& info) {
  for (; chain != nullptr; chain = chain->up) {
    if (SameFolder(*chain, info)) return true;
  }
  return false;
}

// The identity of "/"; false when it cannot be read, and then nothing may be
// removed.
bool RootId(FolderId* root) {
  struct stat info;
  if (::stat("/", &info) != 0) return false;
  *root = FolderId{info.st_dev, info.st_ino, nullptr};
  return true;
}

// What a removal never enters: the root, the folder it starts in and the
// folders above that one (the nearest kKeptAbove of them), and, passed down
// its recursion, the folders on its own path. Such a folder met inside the
// tree (reached by a name that leads back up, or mounted there once more)
// fails the removal before anything in it is touched. A folder above can
// only be met again as the root of a mount, so the folders above are read
// when the first such root turns up: never, for most trees.
constexpr int kKeptAbove = 64;

struct Kept {
  int start;  // the folder the removal starts in (AT_FDCWD: the current one)
  FolderId root;
  FolderId here;  // the start's own identity
  int count;      // folders above read into `above`; -1 before they are read
  FolderId above[kKeptAbove];
};

// Begins what a removal starting in the folder `start` keeps; false when the
// root or the start cannot be read (a failed open's -1 among them).
bool StartKept(int start, Kept* kept) {
  struct stat info;
  if (!RootId(&kept->root) || ::fstatat(start, ".", &info, 0) != 0) return false;
  kept->start = start;
  kept->here = FolderId{info.st_dev, info.st_ino, nullptr};
  kept->count = -1;
  return true;
}

// The identity of the folder open as `fd` (the device and inode of `info`;
// nothing else of it is read), and whether it may be the root of a mount:
// always where the kernel cannot tell (before Linux 5.8).
bool IdentityOf(int fd, struct stat* info, bool* mountRoot) {
#ifdef STATX_ATTR_MOUNT_ROOT
  struct statx x;
  if (::statx(fd, "", AT_EMPTY_PATH, STATX_INO, &x) == 0 && (x.stx_mask & STATX_INO) != 0) {
    info->st_dev = makedev(x.stx_dev_major, x.stx_dev_minor);
    info->st_ino = x.stx_ino;
    *mountRoot = (x.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) == 0 ||
                 (x.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    return true;
  }
#endif
  *mountRoot = true;
  return ::fstat(fd, info) == 0;
}

bool IsKept(Kept& kept, const struct stat& info, bool mountRoot, const FolderId* path) {
  if (SameFolder(kept.root, info) || SameFolder(kept.here, info) || OnPath(path, info)) return true;
  if (!mountRoot) return false;
  if (kept.count < 0) {
    // As far as the walk up goes: a folder that may not be searched ends it.
    kept.count = 0;
    (void)detail::WalkUpFrom(kept.start, "..", [&kept](const struct stat& above) {
      kept.above[kept.count++] = FolderId{above.st_dev, above.st_ino, nullptr};
      return kept.count < kKeptAbove;
    });
  }
  for (int i = 0; i < kept.count; ++i) {
    if (SameFolder(kept.above[i], info)) return true;
  }
  return false;
}

// Whether an entry counts as a folder by the directory-bit test of IsFolder
// (which follows links). The entry type saves the stat call where it
// already answers: block devices and sockets carry the directory bit in
// their type code and so count as folders, like a stat would say.
bool EntryIsFolder(int folder, const struct dirent* entry) {
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
#endif
  struct stat info;
  return ::fstatat(folder, entry->d_name, &info, 0) == 0 && (info.st_mode & kDirectoryBit) != 0;
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

void Walk(int fd, const SafeString& root, const SafeString& prefix, unsigned int flags,
          collection::Vector<SafeString>& out, const FolderId* up) {
  FolderStream dir(fd);
  if (!dir.valid()) return;
  struct stat info;
  if (::fstat(dir.fd(), &info) != 0 || OnPath(up, info)) return;
  const FolderId self{info.st_dev, info.st_ino, up};
  while (struct dirent* entry = dir.next()) {
    const bool folder = EntryIsFolder(dir.fd(), entry);
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
    const bool wantFull = descend || (collect && (flags & (detail::kWalkRelative |
                                                           detail::kWalkName)) == 0);
    SafeString full = wantFull ? Child(root, entry->d_name) : SafeString();
    if (collect) {
      if ((flags & detail::kWalkRelative) != 0) {
        out.push_back(relative);
      } else if ((flags & detail::kWalkName) != 0) {
        out.emplace_back(entry->d_name);
      } else {
        out.push_back(full);
      }
    }
    if (descend) {
      // Links are listed by what they point to but never entered.
      Walk(OpenFolderAt(dir.fd(), entry->d_name, false), full, relative, flags, out, &self);
    }
  }
}

// Removes the entry `name` of the folder open as `parent`, below the
// folders `path`: a real folder is emptied and removed, anything else
// (links, files, devices, FIFOs, sockets) is unlinked. The folder is opened
// without following a link, so an entry that turns into a link is unlinked
// instead of entered. A folder that is not empty when its turn to go comes
// (entries made meanwhile, or missed by a listing of a changing folder) is
// listed again, up to kEmptyPasses times. Stops at the first failure.
bool RemoveEntryAt(int parent, const char* name, Kept& kept, const FolderId* path) {
  int fd = OpenFolderAt(parent, name, false);
  if (fd < 0) {
    if (errno != ENOTDIR && errno != ELOOP) return false;
    return ::unlinkat(parent, name, 0) == 0;
  }
  FolderStream dir(fd);
  if (!dir.valid()) return false;
  struct stat info;
  bool mountRoot;
  if (!IdentityOf(dir.fd(), &info, &mountRoot) || IsKept(kept, info, mountRoot, path)) return false;
  const FolderId self{info.st_dev, info.st_ino, path};
  for (int pass = 0; pass < kEmptyPasses; ++pass) {
    if (pass > 0) dir.rewind();
    while (struct dirent* entry = dir.next()) {
      if (!RemoveEntryAt(dir.fd(), entry->d_name, kept, &self)) return false;
    }
    if (::unlinkat(parent, name, AT_REMOVEDIR) == 0) return true;
    if (errno != ENOTEMPTY && errno != EEXIST) return false;
  }
  return false;
}

// Copies the file `name` of the folder `from` (following a link) to the
// entry `name` of the folder `to`, which must not be a link or folder. The
// rules of CopyFile hold: the source must be seekable and is copied up to
// the size it had when opened; a partial copy is removed.
bool CopyFileAt(int from, int to, const char* name) {
  Descriptor in(OpenAt(from, name, O_RDONLY | O_NONBLOCK));
  if (!in.valid()) return false;
  struct stat source;
  if (::fstat(in.get(), &source) != 0 || (source.st_mode & kDirectoryBit) != 0) return false;
  const off_t end = ::lseek(in.get(), 0, SEEK_END);
  if (end < 0 || ::lseek(in.get(), 0, SEEK_SET) != 0) return false;
  // Another name of the source (a hard link) would be truncated.
  struct stat target;
  if (::fstatat(to, name, &target, AT_SYMLINK_NOFOLLOW) == 0 && target.st_dev == source.st_dev &&
      target.st_ino == source.st_ino) {
    return false;
  }
  // Never through a link, never blocking on a FIFO, and only into a regular
  // file: a device or FIFO of that name in the target fails the copy.
  Descriptor out(OpenAt(to, name, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK, 0666));
  if (!out.valid()) return false;
  if (::fstat(out.get(), &target) != 0 || !S_ISREG(target.st_mode)) return false;
  unsigned long long remaining = static_cast<unsigned long long>(end);
  bool ok = true;
  char chunk[kCopyChunk];
  while (ok && remaining > 0) {
    size_t want = remaining < kCopyChunk ? static_cast<size_t>(remaining) : kCopyChunk;
    const ssize_t got = system::posixio::ReadSome(in.get(), chunk, want);
    ok = got > 0 && system::posixio::WriteFully(out.get(), chunk, static_cast<size_t>(got));
    if (ok) remaining -= static_cast<unsigned long long>(got);
  }
  if (!out.close()) ok = false;
  if (!ok) (void)::unlinkat(to, name, 0);
  return ok;
}

// Copies the contents of the folder open as `from` into the folder open as
// `to` (both taken over). `up` holds the source and target folders of the
// levels above; a source folder among them (a link back up, or the target
// inside the source) fails the copy. A subfolder made here is removed again
// when its copy fails. Needs no accounted memory.
bool CopyContents(int from, int to, const FolderId* up, Kept& kept) {
  FolderStream source(from);
  Descriptor target(to);
  if (!source.valid() || !target.valid()) return false;
  struct stat info;
  if (::fstat(source.fd(), &info) != 0) return false;
  const FolderId sourceId{info.st_dev, info.st_ino, up};
  if (::fstat(target.get(), &info) != 0 || OnPath(&sourceId, info)) return false;
  const FolderId path{info.st_dev, info.st_ino, &sourceId};
  while (struct dirent* entry = source.next()) {
    const char* name = entry->d_name;
    if (!EntryIsFolder(source.fd(), entry)) {
      if (!CopyFileAt(source.fd(), target.get(), name)) return false;
      continue;
    }
    // Sockets and block devices count as folders and fail here.
    int sub = OpenFolderAt(source.fd(), name, true);
    if (sub < 0) return false;
    if (::fstat(sub, &info) != 0 || OnPath(&path, info)) {
      ::close(sub);
      return false;
    }
    const bool made = ::mkdirat(target.get(), name, kFolderMode) == 0;
    if (!made && errno != EEXIST) {
      ::close(sub);
      return false;
    }
    int copy = OpenFolderAt(target.get(), name, false);
    if (copy < 0 || !CopyContents(sub, copy, &path, kept)) {
      if (copy < 0) ::close(sub);
      if (made) (void)RemoveEntryAt(target.get(), name, kept, &path);
      return false;
    }
  }
  return true;
}

// Splits a normalised path into its folder and last component: "a/b" ->
// "a", "b"; "b" -> "", "b"; "/b" -> "/", "b"; "/" -> "/", "".
void SplitLast(const SafeString& path, SafeString& folder, SafeString& name) {
  const size_t slash = path.rfind('/');
  if (slash == SafeString::npos) {
    folder.clear();
    name = path;
  } else {
    folder = path.substr(0, slash == 0 ? 1 : slash);
    name = path.substr(slash + 1);
  }
}

// Opens the folder of a SplitLast result ("" is the current folder).
int OpenParent(const SafeString& folder) {
  return OpenFolderAt(AT_FDCWD, folder.empty() ? "." : folder.c_str(), true);
}

}  // namespace

namespace detail {

void WalkFolder(const SafeString& root, const SafeString& prefix, unsigned int flags,
                collection::Vector<SafeString>& out) {
  Walk(OpenFolderAt(AT_FDCWD, root.c_str(), true), root, prefix, flags, out, nullptr);
}

bool IsEntryName(const char* name) noexcept {
  return name[0] != '\0' &&
         !(name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')));
}

void RemoveEntry(const char* parent, const char* name) noexcept {
  if (!IsEntryName(name)) return;
  Descriptor folder(parent == nullptr ? -1 : OpenFolderAt(AT_FDCWD, parent, true));
  if (parent != nullptr && !folder.valid()) return;
  const int at = folder.valid() ? folder.get() : AT_FDCWD;
  Kept kept;
  if (StartKept(at, &kept)) (void)RemoveEntryAt(at, name, kept, nullptr);
}

void ParentFolders::plan(const SafeString& path) {
  collection::Vector<SafeString> parts = SplitPath(path);
  path_ = JoinPath(parts);
  const char last = path.empty() ? '\0' : path[path.size() - 1];
  if ((last == '/' || last == '\\') && !path_.empty() && path_[path_.size() - 1] != '/') {
    path_ += '/';
  }
  folders_.clear();
  made_.clear();
  if (parts.size() < 2) return;
  folders_.reserve(parts.size() - 1);
  made_.assign(parts.size() - 1, 0);
  collection::Vector<SafeString> prefix;
  prefix.reserve(parts.size() - 1);
  for (size_t i = 0; i + 1 < parts.size(); ++i) {
    prefix.push_back(parts[i]);
    folders_.push_back(JoinPath(prefix));
  }
}

bool ParentFolders::make() noexcept {
  for (size_t i = 0; i < folders_.size(); ++i) {
    const char* folder = folders_[i].c_str();
    struct stat info;
    bool ok;
    if (::stat(folder, &info) == 0) {
      ok = (info.st_mode & kDirectoryBit) != 0;
    } else {
      ok = ::mkdir(folder, kFolderMode) == 0;
      if (ok) made_[i] = 1;
    }
    if (!ok) {
      rollBack();
      return false;
    }
  }
  return true;
}

void ParentFolders::rollBack() noexcept {
  for (size_t i = made_.size(); i-- > 0;) {
    if (made_[i] == 0) continue;
    made_[i] = 0;
    // A folder that was made is a component below the folder before it.
    const char* folder = folders_[i].c_str();
    const char* slash = std::strrchr(folder, '/');
    RemoveEntry(i == 0 ? nullptr : folders_[i - 1].c_str(), slash == nullptr ? folder : slash + 1);
  }
}

}  // namespace detail

bool FileUtils::CreateFolder(const SafeString& path) {
  if (path.empty()) return false;
  detail::ParentFolders parents;
  parents.plan(path);
  if (IsExist(parents.path()) || !parents.make()) return false;
  if (::mkdir(parents.path().c_str(), kFolderMode) == 0) return true;
  parents.rollBack();
  return false;
}

bool FileUtils::RemoveFolder(const SafeString& path) {
  if (path.empty()) return false;
  SafeString folder;
  SafeString name;
  SplitLast(detail::NormalisePath(path), folder, name);
  // The root ("/", "//") and names that lead back up ("/.", "a/..") are
  // refused before anything else is looked at.
  if (!detail::IsEntryName(name.c_str())) return false;
  Descriptor parent(OpenParent(folder));
  Kept kept;
  if (!StartKept(parent.get(), &kept)) return false;
  struct stat entry;
  if (::fstatat(parent.get(), name.c_str(), &entry, AT_SYMLINK_NOFOLLOW) != 0) return false;
  const bool link = S_ISLNK(entry.st_mode);
  // Whatever the path leads to must not be the root, nor the root mounted
  // elsewhere (same device and inode).
  struct stat info = entry;
  if ((link && ::fstatat(parent.get(), name.c_str(), &info, 0) != 0) ||
      SameFolder(kept.root, info) || (info.st_mode & kDirectoryBit) == 0) {
    return false;
  }
  // A link to a folder goes as a link; sockets and block devices fail.
  if (link) return ::unlinkat(parent.get(), name.c_str(), 0) == 0;
  if (!S_ISDIR(entry.st_mode)) return false;
  return RemoveEntryAt(parent.get(), name.c_str(), kept, nullptr);
}

bool FileUtils::CopyFolder(const SafeString& from, const SafeString& to) {
  if (from.empty() || to.empty() || from == to) return false;
  const SafeString target = detail::NormalisePath(to);
  SafeString folder;
  SafeString name;
  SplitLast(target, folder, name);
  int source = OpenFolderAt(AT_FDCWD, detail::NormalisePath(from).c_str(), true);
  if (source < 0) return false;
  Descriptor parent(OpenParent(folder));
  Kept kept;
  if (!StartKept(parent.get(), &kept)) {
    ::close(source);
    return false;
  }
  // No memory is needed from here on.
  bool made = false;
  int copy;
  if (!detail::IsEntryName(name.c_str())) {
    // "/", "a/." and "a/..": folders that exist whenever their parent does.
    copy = OpenFolderAt(AT_FDCWD, target.c_str(), true);
  } else {
    made = ::mkdirat(parent.get(), name.c_str(), kFolderMode) == 0;
    // An existing target is used as named, a link to a folder included; one
    // made here must still be that folder.
    copy = made || errno == EEXIST ? OpenFolderAt(parent.get(), name.c_str(), !made) : -1;
  }
  if (copy < 0) {
    ::close(source);
    if (made) (void)RemoveEntryAt(parent.get(), name.c_str(), kept, nullptr);
    return false;
  }
  if (CopyContents(source, copy, nullptr, kept)) return true;
  if (made) (void)RemoveEntryAt(parent.get(), name.c_str(), kept, nullptr);
  return false;
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
