// Fuzz target: the pure path functions of FileUtils over arbitrary bytes,
// checking the invariants that hold for every input.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "foundation/file/fileutils.h"

using zorv::foundation::SafeString;
using zorv::foundation::file::FileUtils;

namespace {

// The path rules written out plainly: split into components (runs of '/'
// or '\\' collapse, a leading run gives the root "/", a zero byte ends its
// component), then join with one '/' where the text does not end in one.
void Split(const SafeString& path, std::vector<SafeString>& parts) {
  const size_t before = parts.size();
  size_t start = 0;
  for (size_t i = 0; i <= path.size(); ++i) {
    if (i < path.size() && path[i] != '/' && path[i] != '\\') continue;
    if (i > start) {
      SafeString part = path.substr(start, i - start);
      part.resize(std::strlen(part.c_str()));
      parts.push_back(part);
    } else if (i < path.size() && parts.size() == before) {
      parts.push_back("/");
    }
    start = i + 1;
  }
}

SafeString Join(const std::vector<SafeString>& parts) {
  SafeString text;
  for (size_t n = 0; n < parts.size(); ++n) {
    if (n > 0 && !text.empty() && text.back() != '/') text += '/';
    text += parts[n];
  }
  return text;
}

}  // namespace

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

  // Normalising is idempotent (a zero byte cuts its component short, which
  // can leave an empty component behind, so only for paths without one).
  if (first.find('\0') == SafeString::npos &&
      FileUtils::LinkPath(normal, SafeString()) != normal) {
    __builtin_trap();
  }
  // The extension holds no dot and the name holds the stem.
  if (ext.find('.') != SafeString::npos) __builtin_trap();
  if (name.compare(0, stem.size(), stem) != 0) __builtin_trap();

  // Every function agrees with the plain split and join.
  std::vector<SafeString> parts;
  Split(first, parts);
  const SafeString lastPart = parts.empty() ? SafeString() : parts.back();
  if (name != lastPart) __builtin_trap();
  if (normal != Join(parts)) __builtin_trap();
  if (!parts.empty()) {
    std::vector<SafeString> stemmed = parts;
    const size_t dot = lastPart.rfind('.');
    if (dot != SafeString::npos) stemmed.back().resize(dot);
    if (noExt != Join(stemmed)) __builtin_trap();
    parts.pop_back();
  }
  if (folder != Join(parts)) __builtin_trap();
  parts.clear();
  Split(first, parts);
  Split(second, parts);
  if (linked != Join(parts)) __builtin_trap();
  return 0;
}
