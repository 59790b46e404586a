// Fuzzes StringUtils::Split and the trimming functions with arbitrary bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/text/stringutils.h"

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::text::StringUtils;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const char separator = static_cast<char>(data[0]);
  const SafeString text(reinterpret_cast<const char*>(data + 1), size - 1);

  // Splitting and joining again gives the zero-terminated text back.
  Vector<SafeString> pieces;
  const bool found = StringUtils::Split(text.c_str(), separator, pieces);
  if (pieces.empty()) std::abort();
  if (!found && pieces.size() != 1) std::abort();
  std::string joined;
  for (size_t i = 0; i < pieces.size(); ++i) {
    if (i != 0) joined += separator;
    joined.append(pieces[i].data(), pieces[i].size());
  }
  if (joined != text.c_str()) std::abort();

  const SafeString both = StringUtils::Trim(text);
  const SafeString left = StringUtils::TrimLeft(text);
  const SafeString right = StringUtils::TrimRight(text);
  if (both.size() > left.size() || left.size() > text.size() || right.size() > text.size()) {
    std::abort();
  }
  auto blank = [](char c) { return c == ' ' || c == '\t'; };
  if (!both.empty() && (blank(both.front()) || blank(both.back()))) std::abort();
  if (!right.empty() && blank(right.back())) std::abort();
  if (!left.empty() && blank(left.front())) std::abort();
  if (std::memcmp(right.data(), text.data(), right.size()) != 0) std::abort();
  if (StringUtils::TrimRight(left) != both) std::abort();

  // Case helpers and comparisons agree.
  const SafeString upper = StringUtils::ToUpper(text.c_str());
  const SafeString lower = StringUtils::ToLower(text.c_str());
  if (StringUtils::CompareNoCase(upper.c_str(), lower.c_str()) != 0) std::abort();
  if (StringUtils::HashNoCase(upper.data(), upper.data() + upper.size()) !=
      StringUtils::HashNoCase(lower.data(), lower.data() + lower.size())) {
    std::abort();
  }
  if (StringUtils::GetPublicPrefix(text.c_str(), upper.c_str()) < 0) std::abort();
  return 0;
}
