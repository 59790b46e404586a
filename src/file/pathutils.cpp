// FileUtils: the pure path functions and the splitter and joiner behind them.
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "file/fileinternal.h"
#include "foundation/file/fileutils.h"

namespace zorv {
namespace foundation {
namespace file {

namespace detail {

namespace {

inline bool IsSeparator(char c) { return c == '/' || c == '\\'; }

// A machine word of bytes, and the bytes of `word` equal to `byte`, each
// marked by its high bit: exact (no carry from one byte into the next), so
// that marks can be shifted onto neighbouring bytes.
using Word = uintptr_t;
constexpr Word kEveryByte = ~Word(0) / 0xFF;
inline Word ByteMatches(Word word, unsigned char byte) {
  const Word x = word ^ (kEveryByte * byte);
  const Word low7 = kEveryByte * 0x7F;
  return ~(((x & low7) + low7) | x) & (kEveryByte * 0x80);
}

// The bytes [begin, begin + count) up to an embedded zero byte.
SafeString Component(const char* begin, size_t count) {
  const void* zero = std::memchr(begin, '\0', count);
  if (zero != nullptr) count = static_cast<size_t>(static_cast<const char*>(zero) - begin);
  return SafeString(begin, count);
}

// Calls part(begin, count) for each component of bytes[0, length), in
// order: the bytes between separators (runs of them collapse, one at the end
// disappears), and "/" for a leading run.
template <class Part>
void ForEachPart(const char* bytes, size_t length, Part part) {
  bool none = true;
  size_t start = 0;
  for (size_t i = 0; i < length; ++i) {
    if (!IsSeparator(bytes[i])) continue;
    if (i > start) {
      part(bytes + start, i - start);
      none = false;
    } else if (none) {
      part("/", 1);
      none = false;
    }
    start = i + 1;
  }
  if (start < length) part(bytes + start, length - start);
}

// Builds JoinPath(SplitPath(a) + SplitPath(b) + ...) in one pass, without
// the vector of parts: each component is appended as it is found, with a
// '/' ahead of it unless it is the first or the text so far is empty or
// already ends in '/'.
class PathBuilder {
 public:
  explicit PathBuilder(size_t room) { text_.reserve(room); }

  // Appends the components of bytes[0, length) as SplitPath finds them.
  void addParts(const char* bytes, size_t length) {
    // A first path that is normal already (the usual case) is its own
    // result.
    if (count_ == 0 && IsNormal(bytes, length)) {
      text_.append(bytes, length);
      if (length > 0) count_ = 1;
      return;
    }
    ForEachPart(bytes, length, [this](const char* part, size_t count) { add(part, count); });
  }

  // Appends one component, cut at a zero byte.
  void add(const char* bytes, size_t count) {
    const void* zero = std::memchr(bytes, '\0', count);
    if (zero != nullptr) count = static_cast<size_t>(static_cast<const char*>(zero) - bytes);
    if (count_ > 0 && !text_.empty() && text_.back() != '/') text_ += '/';
    text_.append(bytes, count);
    ++count_;
  }

  SafeString take() { return std::move(text_); }

  // True when splitting and joining give the bytes back: only '/' as
  // separator, never two in a row nor one at the end (but for "/" alone),
  // and no zero byte.
  static bool IsNormal(const char* bytes, size_t length) {
    if (length > 1 && bytes[length - 1] == '/') return false;
    size_t i = 0;
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    // A block at a time: a byte's mark shifted up by one byte lands on the
    // byte after it, and the block's last mark is carried into the next.
    Word slashBefore = 0;
#if defined(__SSE2__)
    unsigned slashAtEnd = 0;
    for (; i + 16 <= length; i += 16) {
      const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i));
      const unsigned slashes = static_cast<unsigned>(
          _mm_movemask_epi8(_mm_cmpeq_epi8(block, _mm_set1_epi8('/'))));
      const unsigned others = static_cast<unsigned>(_mm_movemask_epi8(
          _mm_or_si128(_mm_cmpeq_epi8(block, _mm_set1_epi8('\\')),
                       _mm_cmpeq_epi8(block, _mm_setzero_si128()))));
      if ((others | (slashes & ((slashes << 1) | slashAtEnd))) != 0) return false;
      slashAtEnd = slashes >> 15;
    }
    slashBefore = slashAtEnd != 0 ? Word(0x80) : Word(0);
#endif
    for (; i + sizeof(Word) <= length; i += sizeof(Word)) {
      Word word;
      std::memcpy(&word, bytes + i, sizeof word);
      const Word slashes = ByteMatches(word, '/');
      if ((ByteMatches(word, '\\') | ByteMatches(word, 0) |
           (slashes & ((slashes << 8) | slashBefore))) != 0) {
        return false;
      }
      slashBefore = slashes >> (8 * sizeof(Word) - 8);
    }
#endif
    for (; i < length; ++i) {
      const char c = bytes[i];
      if (c == '\\' || c == '\0' || (c == '/' && i > 0 && bytes[i - 1] == '/')) return false;
    }
    return true;
  }

 private:
  SafeString text_;
  size_t count_ = 0;
};

// The length of bytes[0, length) without the separators at its end, but
// for the first byte: the same components, and a text that IsNormal can
// take whole.
size_t WithoutTrailingSeparators(const char* bytes, size_t length) {
  while (length > 1 && IsSeparator(bytes[length - 1])) --length;
  return length;
}

// The length of bytes[0, length) up to and with its last separator: 0 when
// there is none.
size_t AfterLastSeparator(const char* bytes, size_t length) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  // A block at a time from the end: the highest mark is the last separator.
#if defined(__SSE2__)
  for (; length >= 16; length -= 16) {
    const __m128i block = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + length - 16));
    const unsigned marks = static_cast<unsigned>(_mm_movemask_epi8(
        _mm_or_si128(_mm_cmpeq_epi8(block, _mm_set1_epi8('/')),
                     _mm_cmpeq_epi8(block, _mm_set1_epi8('\\')))));
    if (marks != 0) return length - 16 + 32 - static_cast<size_t>(__builtin_clz(marks));
  }
#endif
  for (; length >= sizeof(Word); length -= sizeof(Word)) {
    Word word;
    std::memcpy(&word, bytes + length - sizeof(Word), sizeof word);
    const Word marks = ByteMatches(word, '/') | ByteMatches(word, '\\');
    if (marks != 0) {
      const int highBit = 8 * static_cast<int>(sizeof(Word)) - 1 -
                          (sizeof(Word) == sizeof(long long)
                               ? __builtin_clzll(static_cast<unsigned long long>(marks))
                               : __builtin_clz(static_cast<unsigned>(marks)));
      return length - sizeof(Word) + static_cast<size_t>(highBit / 8) + 1;
    }
  }
#endif
  while (length > 0 && !IsSeparator(bytes[length - 1])) --length;
  return length;
}

// Where the last component of a path starts and ends: [*start, *end). Both
// are 0 for a path of separators only (or an empty one).
void FindLast(const SafeString& path, size_t* start, size_t* end) {
  const char* const bytes = path.data();
  size_t last = path.size();
  while (last > 0 && IsSeparator(bytes[last - 1])) --last;
  *start = AfterLastSeparator(bytes, last);
  *end = last;
}

}  // namespace

collection::Vector<SafeString> SplitPath(const SafeString& path) {
  collection::Vector<SafeString> parts;
  ForEachPart(path.data(), path.size(), [&parts](const char* part, size_t count) {
    parts.push_back(Component(part, count));
  });
  return parts;
}

SafeString JoinPath(const collection::Vector<SafeString>& parts) {
  PathBuilder builder(0);
  for (const SafeString& part : parts) builder.add(part.data(), part.size());
  return builder.take();
}

SafeString NormalisePath(const SafeString& path) {
  PathBuilder builder(path.size());
  builder.addParts(path.data(), path.size());
  return builder.take();
}

}  // namespace detail

// The last part that SplitPath would give, found from the end without
// splitting the rest: the bytes after the last separator that has any
// behind it, cut at a zero byte; "/" for a path of separators only.
SafeString FileUtils::GetFileName(const SafeString& path) {
  size_t start;
  size_t end;
  detail::FindLast(path, &start, &end);
  if (end == 0) return path.empty() ? SafeString() : SafeString("/");
  return detail::Component(path.data() + start, end - start);
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

// The functions below give what splitting the whole path into components
// and joining them again would give; they append the components one by one.

SafeString FileUtils::GetFolderPath(const SafeString& path) {
  size_t start;
  size_t end;
  detail::FindLast(path, &start, &end);
  // A path of separators only is the root alone, which has no folder.
  if (end == 0) return SafeString();
  const size_t length = detail::WithoutTrailingSeparators(path.data(), start);
  // A folder that is normal already (the usual case) is the result as it stands.
  if (detail::PathBuilder::IsNormal(path.data(), length)) return SafeString(path.data(), length);
  detail::PathBuilder builder(start);
  builder.addParts(path.data(), length);
  return builder.take();
}

SafeString FileUtils::GetNoExtPath(const SafeString& path) {
  if (path.empty()) return SafeString();
  size_t start;
  size_t end;
  detail::FindLast(path, &start, &end);
  if (end == 0) return SafeString("/");
  detail::PathBuilder builder(end);
  builder.addParts(path.data(), detail::WithoutTrailingSeparators(path.data(), start));
  const SafeString name = detail::Component(path.data() + start, end - start);
  const size_t dot = name.rfind('.');
  builder.add(name.data(), dot == SafeString::npos ? name.size() : dot);
  return builder.take();
}

SafeString FileUtils::LinkPath(const SafeString& first, const SafeString& second) {
  detail::PathBuilder builder(first.size() + second.size() + 1);
  builder.addParts(first.data(), first.size());
  builder.addParts(second.data(), second.size());
  return builder.take();
}

}  // namespace file
}  // namespace foundation
}  // namespace zorv
