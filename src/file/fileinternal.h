// Internal helpers of FileUtils shared by its source files: the path
// splitter and joiner, the folder walker and the parent-folder maker.
#ifndef ZORV_SRC_FILE_FILEINTERNAL_H_
#define ZORV_SRC_FILE_FILEINTERNAL_H_

#include "foundation/collection/vector.h"
#include "foundation/text/safestring.h"

namespace zorv {
namespace foundation {
namespace file {
namespace detail {

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
// already ends in '/'); a pair of backslashes inside an element becomes '/'.
SafeString JoinPath(const collection::Vector<SafeString>& parts);

// JoinPath(SplitPath(path)).
SafeString NormalisePath(const SafeString& path);

// Appends the entries of the folder `root` to `out` as selected by `flags`
// (the walker bits above); `prefix` is the relative path of `root` below the
// searched folder. Nothing is added when `root` cannot be opened.
void WalkFolder(const SafeString& root, const SafeString& prefix, unsigned int flags,
                collection::Vector<SafeString>& out);

// Creates the missing folders above `path` (all its components but the
// last) with mode 0755. `firstCreated` receives the highest folder made. On
// failure the made folders are removed again and the result is false.
bool CreateParents(const SafeString& path, SafeString& firstCreated);

}  // namespace detail
}  // namespace file
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_SRC_FILE_FILEINTERNAL_H_
