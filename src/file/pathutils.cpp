// FileUtils: the pure path functions and the splitter and joiner behind them.
#include <cstring>

#include "file/fileinternal.h"
#include "foundation/file/fileutils.h"

namespace zorv {
namespace foundation {
namespace file {

namespace detail {

namespace {

inline bool IsSeparator(char c) { return c == '/' || c == '\\'; }

// The bytes [begin, begin + count) up to an embedded zero byte.
SafeString Component(const char* begin, size_t count) {
  const void* zero = std::memchr(begin, '\0', count);
  if (zero != nullptr) count = static_cast<size_t>(static_cast<const char*>(zero) - begin);
  return SafeString(begin, count);
}

}  // namespace

collection::Vector<SafeString> SplitPath(const SafeString& path) {
  collection::Vector<SafeString> parts;
  const char* bytes = path.data();
  const size_t length = path.size();
  size_t start = 0;
  for (size_t i = 0; i < length; ++i) {
    if (!IsSeparator(bytes[i])) continue;
    if (i > start) {
      parts.push_back(Component(bytes + start, i - start));
    } else if (parts.empty()) {
      parts.push_back(SafeString("/"));
    }
    start = i + 1;
  }
  if (start < length) parts.push_back(Component(bytes + start, length - start));
  return parts;
}

SafeString JoinPath(const collection::Vector<SafeString>& parts) {
  SafeString result;
  const size_t count = parts.size();
  for (size_t n = 0; n < count; ++n) {
    result += parts[n];
    if (n + 1 < count && !result.empty() && result.back() != '/') result += '/';
  }
  return result;
}

SafeString NormalisePath(const SafeString& path) { return JoinPath(SplitPath(path)); }

}  // namespace detail

// The last part that SplitPath would give, found from the end without
// splitting the rest: the bytes after the last separator that has any
// behind it, cut at a zero byte; "/" for a path of separators only.
SafeString FileUtils::GetFileName(const SafeString& path) {
  const char* const bytes = path.data();
  size_t end = path.size();
  while (end > 0 && detail::IsSeparator(bytes[end - 1])) --end;
  if (end == 0) return path.empty() ? SafeString() : SafeString("/");
  size_t start = end;
  while (start > 0 && !detail::IsSeparator(bytes[start - 1])) --start;
  return detail::Component(bytes + start, end - start);
}

SafeString FileUtils::GetFileExt(const SafeString& path) {
  SafeString name = GetFileName(path);
  size_t dot = name.rfind('.');
  if (dot == SafeString::npos) return SafeString();
  return name.substr(dot + 1);
}

SafeString FileUtils::GetNoExtFileName(const SafeString& path) {
  SafeString name = GetFileName(path);
  if (name.empty()) return name;
  size_t dot = name.rfind('.');
  if (dot == SafeString::npos) return name;
  name.resize(dot);
  return name;
}

SafeString FileUtils::GetFolderPath(const SafeString& path) {
  if (path.empty()) return SafeString();
  collection::Vector<SafeString> parts = detail::SplitPath(path);
  if (!parts.empty()) parts.pop_back();
  return detail::JoinPath(parts);
}

SafeString FileUtils::GetNoExtPath(const SafeString& path) {
  if (path.empty()) return SafeString();
  collection::Vector<SafeString> parts = detail::SplitPath(path);
  if (parts.empty()) return SafeString();
  SafeString last = GetNoExtFileName(parts.back());
  parts.back() = last;
  return detail::JoinPath(parts);
}

SafeString FileUtils::LinkPath(const SafeString& first, const SafeString& second) {
  collection::Vector<SafeString> parts;
  if (!first.empty()) parts = detail::SplitPath(first);
  if (!second.empty()) {
    collection::Vector<SafeString> more = detail::SplitPath(second);
    for (SafeString& part : more) parts.push_back(std::move(part));
  }
  return detail::JoinPath(parts);
}

}  // namespace file
}  // namespace foundation
}  // namespace zorv
