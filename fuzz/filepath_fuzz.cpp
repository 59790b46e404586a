// Fuzz target: the pure path functions of FileUtils over arbitrary bytes,
// checking the invariants that hold for every input.
#include <cstddef>
#include <cstdint>

#include "foundation/file/fileutils.h"

using zorv::foundation::SafeString;
using zorv::foundation::file::FileUtils;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* bytes = reinterpret_cast<const char*>(data);
  const size_t half = size / 2;
  const SafeString first(bytes, half);
  const SafeString second(bytes + half, size - half);

  const SafeString name = FileUtils::GetFileName(first);
  const SafeString folder = FileUtils::GetFolderPath(first);
  const SafeString ext = FileUtils::GetFileExt(first);
  const SafeString stem = FileUtils::GetNoExtFileName(first);
  const SafeString noExt = FileUtils::GetNoExtPath(first);
  const SafeString linked = FileUtils::LinkPath(first, second);
  const SafeString normal = FileUtils::LinkPath(first, SafeString());

  // Output paths use '/' only; an empty input gives empty results.
  if (folder.find('\\') != SafeString::npos) __builtin_trap();
  if (normal.find('\\') != SafeString::npos) __builtin_trap();
  if (first.empty() && !(name.empty() && folder.empty() && noExt.empty())) __builtin_trap();
  // Normalising is idempotent (a zero byte cuts its component short, which
  // can leave an empty component behind, so only for paths without one).
  if (first.find('\0') == SafeString::npos &&
      FileUtils::LinkPath(normal, SafeString()) != normal) {
    __builtin_trap();
  }
  // The name is the last part of the normalised path ("/" for the root), for
  // paths without a zero byte (which can leave an empty part behind).
  if (first.find('\0') == SafeString::npos) {
    const size_t slash = normal.rfind('/');
    SafeString last = normal;
    if (normal != "/" && slash != SafeString::npos) last.erase(0, slash + 1);
    if (name != last) __builtin_trap();
  }
  // The extension holds no dot and the name holds the stem.
  if (ext.find('.') != SafeString::npos) __builtin_trap();
  if (name.compare(0, stem.size(), stem) != 0) __builtin_trap();
  (void)linked;
  return 0;
}
