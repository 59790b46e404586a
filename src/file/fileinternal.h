// Internal helpers of FileUtils shared by its source files: the descriptor
// holder, the path splitter and joiner, the folder walker, the parent-folder
// maker and the tree removal beneath it.
#ifndef ZORV_SRC_FILE_FILEINTERNAL_H_
#define ZORV_SRC_FILE_FILEINTERNAL_H_

#include <fcntl.h>
#include <sys/stat.h>

#include "foundation/collection/vector.h"
#include "foundation/text/safestring.h"
#include "system/posixio.h"

namespace zorv {
namespace foundation {
namespace file {
namespace detail {

// The descriptor holder of the library's POSIX calls.
using system::posixio::Descriptor;

// Walker flag bits.
constexpr unsigned int kWalkFolders = 0x80000000u;
constexpr unsigned int kWalkFiles = 0x40000000u;
constexpr unsigned int kWalkRecursive = 0x4u;
constexpr unsigned int kWalkName = 0x2u;
constexpr unsigned int kWalkRelative = 0x1u;
constexpr unsigned int kWalkCallerBits = 0x3FFFFFFFu;

// Splits a path into components: '/usr//lib/' -> "/", "usr", "lib". Both
// separators count; only a leading run of separators yields the root "/".
collection::Vector<SafeString> SplitPath(const SafeString& path);

// Joins components with one '/' between them (none after an element that
// already ends in '/'). Every caller passes the parts of SplitPath, which
// hold no separator, so the bytes of each part are copied as they stand.
SafeString JoinPath(const collection::Vector<SafeString>& parts);

// JoinPath(SplitPath(path)).
SafeString NormalisePath(const SafeString& path);

// Appends the entries of the folder `root` to `out` as selected by `flags`
// (the walker bits above); `prefix` is the relative path of `root` below the
// searched folder. Nothing is added when `root` cannot be opened. `root`
// itself may be reached through links; below it only real folders are
// entered (links to folders are listed, not descended into), and a folder
// already open on the current path is never entered again.
void WalkFolder(const SafeString& root, const SafeString& prefix, unsigned int flags,
                collection::Vector<SafeString>& out);

// Whether `name` can name an entry of its own in a folder: not empty, and
// neither "." nor "..", which lead to a folder that exists whenever its
// parent does.
bool IsEntryName(const char* name) noexcept;

// Calls visit(status) for the folder `path` of the folder `at` (AT_FDCWD:
// the current folder) and for each folder above it through the real
// parents (".."), whatever the spelling, up to the root (its own parent),
// until visit returns false. True when the walk reached the root; false
// when visit stopped it or a folder could not be opened. Never allocates.
template <class Visit>
bool WalkUpFrom(int at, const char* path, Visit visit) noexcept {
  constexpr int kFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  Descriptor current(system::posixio::OpenAt(at, path, kFlags));
  struct stat here;
  if (!current.valid() || ::fstat(current.get(), &here) != 0) return false;
  // Far deeper than any path that the system accepts.
  for (int depth = 0; depth < 65536; ++depth) {
    if (!visit(static_cast<const struct stat&>(here))) return false;
    Descriptor parent(system::posixio::OpenAt(current.get(), "..", kFlags));
    struct stat above;
    if (!parent.valid() || ::fstat(parent.get(), &above) != 0) return false;
    if (above.st_dev == here.st_dev && above.st_ino == here.st_ino) return true;
    here = above;
    current.swap(parent);
  }
  return false;
}

// Removes the entry `name` of the folder `parent` (the current folder when
// `parent` is null): a real folder with everything in it, anything else,
// links included, as it is. Links are never followed, the root folder is
// never emptied, and no accounted memory is used, so that this serves as
// the roll-back after an allocation failure. Stops at the first failure;
// what could not be removed stays.
void RemoveEntry(const char* parent, const char* name) noexcept;

// The missing parent folders of one path, made for one call and removed
// again when that call fails. plan() allocates everything that make() and
// rollBack() need, so that nothing allocates once a folder exists.
class ParentFolders {
 public:
  ParentFolders() = default;
  ParentFolders(const ParentFolders&) = delete;
  ParentFolders& operator=(const ParentFolders&) = delete;

  // Normalises `path` (SplitPath then JoinPath; a trailing separator stays
  // as '/') and lists its parent folders. std::bad_alloc passes, with
  // nothing made.
  void plan(const SafeString& path);

  // The normalised path: the one whose parents make() creates, and the one
  // the caller opens or makes.
  const SafeString& path() const { return path_; }

  // Creates the missing parent folders with mode 0755, from the top down.
  // False when a parent exists and is not a folder or mkdir fails; the
  // folders made are then removed again. Never allocates.
  bool make() noexcept;

  // Removes every folder that make() created, deepest first, each with
  // whatever lies in it now (see RemoveEntry). Never allocates.
  void rollBack() noexcept;

 private:
  SafeString path_;
  // The parent folders of path_, from the top down.
  collection::Vector<SafeString> folders_;
  // Whether make() created folders_[i].
  collection::Vector<unsigned char> made_;
};

}  // namespace detail
}  // namespace file
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_SRC_FILE_FILEINTERNAL_H_
