// StringUtils: comparison, trimming, case, splitting and formatting.
#include "foundation/text/stringutils.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

namespace zorv {
namespace foundation {
namespace text {

namespace {

// A 256-entry byte map, indexed by the unsigned byte.
struct ByteTable {
  unsigned char bytes[256];
};

constexpr ByteTable MakeCaseTable(char from, char to) {
  ByteTable table{};
  for (int i = 0; i < 256; ++i) {
    const bool letter = i >= from && i < from + 26;
    table.bytes[i] = static_cast<unsigned char>(letter ? i - from + to : i);
  }
  return table;
}

// 'a'..'z' to 'A'..'Z', every other byte to itself.
constexpr ByteTable kUpper = MakeCaseTable('a', 'A');
// 'A'..'Z' to 'a'..'z', every other byte to itself.
constexpr ByteTable kLower = MakeCaseTable('A', 'a');
constexpr const unsigned char* kUpperTable = kUpper.bytes;
constexpr const unsigned char* kLowerTable = kLower.bytes;

static_assert(kUpper.bytes[0x71] == 0x51 && kUpper.bytes[0x51] == 0x51 &&
                  kUpper.bytes[0xE9] == 0xE9,
              "upper-case table: q, Q, e-acute");
static_assert(kLower.bytes[0x51] == 0x71 && kLower.bytes[0x5B] == 0x5B, "lower-case table: Q, [");

}  // namespace

namespace {

inline bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// The first attempt's work-string size, doubled on every further attempt.
constexpr size_t kFirstFormatSize = 100;

__attribute__((format(printf, 1, 0))) foundation::SafeString FormatV(const char* format,
                                                                    va_list args) {
  if (format == nullptr) return foundation::SafeString();
  try {
    foundation::SafeString work;
    size_t size = kFirstFormatSize;
    for (;;) {
      work.resize(size);
      va_list attempt;
      va_copy(attempt, args);
      const int count = std::vsnprintf(&work[0], size, format, attempt);
      va_end(attempt);
      // A negative count is an encoding error that no larger size cures.
      if (count < 0) return foundation::SafeString();
      if (static_cast<size_t>(count) < size) {
        work.resize(static_cast<size_t>(count));
        return work;
      }
      if (size > work.max_size() / 2) return foundation::SafeString();
      size *= 2;
    }
  } catch (...) {
    return foundation::SafeString();
  }
}

foundation::SafeString MapCase(const char* s, const unsigned char* table) {
  if (s == nullptr) return foundation::SafeString();
  const size_t n = std::strlen(s);
  foundation::SafeString result(n, '\0');
  const unsigned char* in = reinterpret_cast<const unsigned char*>(s);
  char* out = &result[0];
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<char>(table[in[i]]);
  return result;
}

}  // namespace

int StringUtils::Compare(const char* a, const char* b) {
  if (a == nullptr) return 0;
  if (b == nullptr) return 1;
  const unsigned char* x = reinterpret_cast<const unsigned char*>(a);
  const unsigned char* y = reinterpret_cast<const unsigned char*>(b);
  while (*x != 0 && *x == *y) {
    ++x;
    ++y;
  }
  return static_cast<int>(*x) - static_cast<int>(*y);
}

int StringUtils::CompareNoCase(const char* a, const char* b) {
  if (a == nullptr) return 0;
  if (b == nullptr) return 1;
  const unsigned char* x = reinterpret_cast<const unsigned char*>(a);
  const unsigned char* y = reinterpret_cast<const unsigned char*>(b);
  for (;; ++x, ++y) {
    const int cx = kUpperTable[*x];
    const int cy = kUpperTable[*y];
    if (cx != cy || *x == 0) return cx - cy;
  }
}

bool StringUtils::StartWith(const char* text, const char* prefix) {
  if (text == nullptr || prefix == nullptr || *prefix == '\0') return false;
  while (*prefix != '\0') {
    if (*text != *prefix) return false;
    ++text;
    ++prefix;
  }
  return true;
}

bool StringUtils::EndWith(const char* text, const char* suffix) {
  if (text == nullptr || suffix == nullptr || *suffix == '\0') return false;
  const size_t n = std::strlen(text);
  const size_t m = std::strlen(suffix);
  if (m > n) return false;
  return std::memcmp(text + (n - m), suffix, m) == 0;
}

unsigned int StringUtils::HashNoCase(const char* begin, const char* end) {
  unsigned int h = 2166136261u;
  if (begin == nullptr || end == nullptr || end < begin) return h;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(begin);
       p != reinterpret_cast<const unsigned char*>(end); ++p) {
    h = (h ^ kUpperTable[*p]) * 16777619u;
  }
  return h;
}

int StringUtils::GetPublicPrefix(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) return 0;
  int n = 0;
  while (a[n] != '\0' && a[n] == b[n]) ++n;
  return n;
}

foundation::SafeString StringUtils::TrimLeft(const foundation::SafeString& s) {
  const size_t n = s.size();
  size_t begin = 0;
  while (begin < n && IsBlank(s[begin])) ++begin;
  if (begin == 0) return s;
  // Once blanks were skipped, the result ends at the first zero byte.
  return foundation::SafeString(s.c_str() + begin);
}

foundation::SafeString StringUtils::TrimRight(const foundation::SafeString& s) {
  size_t end = s.size();
  while (end > 0 && IsBlank(s[end - 1])) --end;
  return foundation::SafeString(s.data(), end);
}

foundation::SafeString StringUtils::Trim(const foundation::SafeString& s) {
  const size_t n = s.size();
  size_t begin = 0;
  while (begin < n && IsBlank(s[begin])) ++begin;
  size_t end = n;
  if (begin > 0) end = begin + std::strlen(s.c_str() + begin);
  while (end > begin && IsBlank(s[end - 1])) --end;
  return foundation::SafeString(s.data() + begin, end - begin);
}

foundation::SafeString StringUtils::ToUpper(const char* s) { return MapCase(s, kUpperTable); }

foundation::SafeString StringUtils::ToLower(const char* s) { return MapCase(s, kLowerTable); }

bool StringUtils::Split(const char* text, char separator,
                        collection::Vector<foundation::SafeString>& pieces) {
  if (text == nullptr) {
    pieces.emplace_back();
    return false;
  }
  bool found = false;
  const char* start = text;
  const char* p = text;
  for (; *p != '\0'; ++p) {
    if (*p == separator) {
      pieces.emplace_back(start, static_cast<size_t>(p - start));
      start = p + 1;
      found = true;
    }
  }
  pieces.emplace_back(start, static_cast<size_t>(p - start));
  return found;
}

foundation::SafeString StringUtils::Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  foundation::SafeString result = FormatV(format, args);
  va_end(args);
  return result;
}

foundation::SafeString StringUtils::_InternalFormat(const char* format, ...) {
  va_list args;
  va_start(args, format);
  foundation::SafeString result = FormatV(format, args);
  va_end(args);
  return result;
}

}  // namespace text
}  // namespace foundation
}  // namespace zorv
