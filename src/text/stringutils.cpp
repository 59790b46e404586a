// StringUtils: comparison, trimming, case, splitting and formatting.
#include "foundation/text/stringutils.h"

#include <langinfo.h>
#include <locale.h>
#include <strings.h>

#include <algorithm>
#include <cfenv>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <type_traits>
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "numberdigits.h"

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

// The general formatter: vsnprintf into a work string that doubles until
// the text fits.
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

// ---- The quick formatter ------------------------------------------------------
// Formats the conversions of everyday text (d i u x X o c s f and %%, with the
// flags '-', '0', '+' and ' ', a width, a precision for s and f, and the
// length modifiers hh h l ll z j t) exactly as the C library does, into a
// fixed buffer. Anything else (other conversions and flags, '*', positions,
// a precision on integers, a null string, a value that is not finite, a
// locale whose decimal point is not '.', a rounding mode other than to
// nearest, a text longer than the buffer) makes it give up, and the caller
// formats the whole text with vsnprintf instead.

constexpr size_t kQuickFormatSize = 512;

class QuickOutput {
 public:
  explicit QuickOutput(char* buffer) : begin_(buffer), next_(buffer) {}

  bool Put(const char* text, size_t n) {
    if (n > Room()) return false;
    std::memcpy(next_, text, n);
    next_ += n;
    return true;
  }
  bool Fill(char c, size_t n) {
    if (n > Room()) return false;
    std::memset(next_, c, n);
    next_ += n;
    return true;
  }
  // `prefix` (a sign or nothing), then `body`, padded to `width`: with
  // zeros between them, or with spaces on the left or on the right.
  bool Field(const char* prefix, size_t prefixSize, const char* body, size_t bodySize, size_t width,
             bool left, bool zeros) {
    const size_t size = prefixSize + bodySize;
    const size_t pad = width > size ? width - size : 0;
    if (pad > Room()) return false;
    if (!left && !zeros && !Fill(' ', pad)) return false;
    if (!Put(prefix, prefixSize)) return false;
    if (!left && zeros && !Fill('0', pad)) return false;
    if (!Put(body, bodySize)) return false;
    return !left || Fill(' ', pad);
  }
  size_t Size() const { return static_cast<size_t>(next_ - begin_); }

 private:
  size_t Room() const { return kQuickFormatSize - Size(); }

  char* begin_;
  char* next_;
};

enum Length { kNoLength, kChar, kShort, kLong, kLongLong, kSize, kMax, kDiff };

// A signed argument of the given length, as its magnitude and sign.
unsigned long long SignedArgument(va_list& args, Length length, bool& negative) {
  long long v;
  switch (length) {
    case kChar:
      v = static_cast<signed char>(va_arg(args, int));
      break;
    case kShort:
      v = static_cast<short>(va_arg(args, int));
      break;
    case kLong:
      v = va_arg(args, long);
      break;
    case kLongLong:
      v = va_arg(args, long long);
      break;
    case kSize:
      v = va_arg(args, std::make_signed<size_t>::type);
      break;
    case kMax:
      v = va_arg(args, intmax_t);
      break;
    case kDiff:
      v = va_arg(args, ptrdiff_t);
      break;
    default:
      v = va_arg(args, int);
      break;
  }
  negative = v < 0;
  return negative ? 0ull - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
}

unsigned long long UnsignedArgument(va_list& args, Length length) {
  switch (length) {
    case kChar:
      return static_cast<unsigned char>(va_arg(args, unsigned int));
    case kShort:
      return static_cast<unsigned short>(va_arg(args, unsigned int));
    case kLong:
      return va_arg(args, unsigned long);
    case kLongLong:
      return va_arg(args, unsigned long long);
    case kSize:
      return va_arg(args, size_t);
    case kMax:
      return va_arg(args, uintmax_t);
    case kDiff:
      return static_cast<std::make_unsigned<ptrdiff_t>::type>(va_arg(args, ptrdiff_t));
    default:
      return va_arg(args, unsigned int);
  }
}

// Digits of `value` in base 8 or 16 ending before `end`.
char* WritePowerOfTwoDigits(unsigned long long value, char* end, unsigned int shift,
                            const char* digits) {
  const unsigned int mask = (1u << shift) - 1;
  do {
    *--end = digits[static_cast<unsigned int>(value) & mask];
    value >>= shift;
  } while (value != 0);
  return end;
}

// The largest width or precision the quick formatter takes.
constexpr unsigned int kQuickNumberLimit = 1000;

// Formats into `buffer` (kQuickFormatSize bytes); the length of the text, or
// -1 when the format needs the C library.
long QuickFormat(const char* format, va_list& args, char* buffer) {
  QuickOutput out(buffer);
  const char* f = format;
  bool decimalPointChecked = false;
  for (;;) {
    const char* run = f;
    while (*f != '\0' && *f != '%') ++f;
    if (!out.Put(run, static_cast<size_t>(f - run))) return -1;
    if (*f == '\0') return static_cast<long>(out.Size());
    ++f;
    if (*f == '%') {
      if (!out.Put("%", 1)) return -1;
      ++f;
      continue;
    }
    bool left = false;
    bool zeros = false;
    char sign = '\0';
    for (;; ++f) {
      if (*f == '-') {
        left = true;
      } else if (*f == '0') {
        zeros = true;
      } else if (*f == '+') {
        sign = '+';
      } else if (*f == ' ') {
        if (sign == '\0') sign = ' ';
      } else {
        break;
      }
    }
    unsigned int width = 0;
    for (; *f >= '0' && *f <= '9'; ++f) {
      width = width * 10 + static_cast<unsigned int>(*f - '0');
      if (width > kQuickNumberLimit) return -1;
    }
    int precision = -1;
    if (*f == '.') {
      precision = 0;
      for (++f; *f >= '0' && *f <= '9'; ++f) {
        precision = precision * 10 + (*f - '0');
        if (precision > static_cast<int>(kQuickNumberLimit)) return -1;
      }
    }
    Length length = kNoLength;
    switch (*f) {
      case 'h':
        length = f[1] == 'h' ? kChar : kShort;
        f += length == kChar ? 2 : 1;
        break;
      case 'l':
        length = f[1] == 'l' ? kLongLong : kLong;
        f += length == kLongLong ? 2 : 1;
        break;
      case 'z':
        length = kSize;
        ++f;
        break;
      case 'j':
        length = kMax;
        ++f;
        break;
      case 't':
        length = kDiff;
        ++f;
        break;
      default:
        break;
    }
    const char conversion = *f++;
    char digits[32];
    char* end = digits + sizeof(digits);
    switch (conversion) {
      case 'd':
      case 'i': {
        if (precision >= 0) return -1;
        bool negative = false;
        const unsigned long long magnitude = SignedArgument(args, length, negative);
        const char* begin = numberdigits::WriteDigits64(magnitude, end);
        const char prefix = negative ? '-' : sign;
        if (!out.Field(&prefix, prefix != '\0' ? 1 : 0, begin, static_cast<size_t>(end - begin),
                       width, left, zeros)) {
          return -1;
        }
        break;
      }
      case 'u':
      case 'x':
      case 'X':
      case 'o': {
        if (precision >= 0 || sign != '\0') return -1;
        const unsigned long long value = UnsignedArgument(args, length);
        const char* begin = conversion == 'u'   ? numberdigits::WriteDigits64(value, end)
                            : conversion == 'o' ? WritePowerOfTwoDigits(value, end, 3, "01234567")
                            : conversion == 'x'
                                ? WritePowerOfTwoDigits(value, end, 4, "0123456789abcdef")
                                : WritePowerOfTwoDigits(value, end, 4, "0123456789ABCDEF");
        if (!out.Field("", 0, begin, static_cast<size_t>(end - begin), width, left, zeros)) {
          return -1;
        }
        break;
      }
      case 'c': {
        if (length != kNoLength || precision >= 0 || sign != '\0' || zeros) return -1;
        const char c = static_cast<char>(static_cast<unsigned char>(va_arg(args, int)));
        if (!out.Field("", 0, &c, 1, width, left, false)) return -1;
        break;
      }
      case 's': {
        if (length != kNoLength || sign != '\0' || zeros) return -1;
        const char* text = va_arg(args, const char*);
        if (text == nullptr) return -1;
        const size_t n =
            precision >= 0 ? ::strnlen(text, static_cast<size_t>(precision)) : std::strlen(text);
        if (!out.Field("", 0, text, n, width, left, false)) return -1;
        break;
      }
      case 'f':
      case 'F': {
        if (length != kNoLength && length != kLong) return -1;
        const double value = va_arg(args, double);
        if (!std::isfinite(value)) return -1;
        if (!decimalPointChecked) {
          // The C library writes the locale's decimal point and rounds in
          // the current rounding mode; the quick path knows only '.' and
          // rounding to nearest.
          const char* point = ::nl_langinfo(RADIXCHAR);
          if (point == nullptr || point[0] != '.' || point[1] != '\0') return -1;
          if (std::fegetround() != FE_TONEAREST) return -1;
          decimalPointChecked = true;
        }
        char text[kQuickFormatSize];
        const std::to_chars_result r =
            std::to_chars(text, text + sizeof(text), value, std::chars_format::fixed,
                          precision < 0 ? 6 : precision);
        if (r.ec != std::errc()) return -1;
        const bool negative = text[0] == '-';
        const char prefix = negative ? '-' : sign;
        const char* body = negative ? text + 1 : text;
        if (!out.Field(&prefix, prefix != '\0' ? 1 : 0, body, static_cast<size_t>(r.ptr - body),
                       width, left, zeros)) {
          return -1;
        }
        break;
      }
      default:
        return -1;
    }
  }
}

// The quick formatter when it knows the format, the C library otherwise.
__attribute__((format(printf, 1, 0))) foundation::SafeString QuickFormatV(const char* format,
                                                                          va_list args) {
  if (format == nullptr) return foundation::SafeString();
  char buffer[kQuickFormatSize];
  va_list attempt;
  va_copy(attempt, args);
  const long count = QuickFormat(format, attempt, buffer);
  va_end(attempt);
  if (count < 0) return FormatV(format, args);
  try {
    return foundation::SafeString(buffer, static_cast<size_t>(count));
  } catch (...) {
    return foundation::SafeString();
  }
}

#if !defined(__SSE2__)
// How many bytes CompareNoCase compares one by one before it hands the rest
// to the C library.
constexpr int kCompareHead = 16;

// The "C" locale (the library's own, not the calling thread's), or 0 when
// the C library cannot give it.
locale_t CLocale() {
  static const locale_t c = ::newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
  return c;
}
#endif

#if defined(__SSE2__)
// How many bytes can be read from `p` on without leaving its page (4096
// bytes, or a part of one where pages are larger).
inline size_t RoomInPage(const unsigned char* p) {
  constexpr uintptr_t kPage = 4096;
  return kPage - (reinterpret_cast<uintptr_t>(p) & (kPage - 1));
}

// Compare and CompareNoCase 16 bytes a step. A step reads past the end of a
// text, but never into a page that holds none of it, and so never a byte
// that cannot be read; the sanitizers are told not to take those bytes for
// the text's. Where a step would reach into the next page of either text,
// it goes a byte at a time for 16 bytes. With `kFold`, bytes are compared
// through the upper-case table.
template <bool kFold>
__attribute__((no_sanitize("address", "thread"))) int CompareBlocks(const unsigned char* x,
                                                                    const unsigned char* y) {
  // A byte plus 31 is below -102 as a signed byte exactly for 'a' to 'z'.
  const __m128i toSigned = _mm_set1_epi8(static_cast<char>(128 - 'a'));
  const __m128i belowLimit = _mm_set1_epi8(static_cast<char>(-128 + 26));
  const __m128i caseBit = _mm_set1_epi8(0x20);
  for (;;) {
    for (size_t steps = std::min(RoomInPage(x), RoomInPage(y)) / 16; steps > 0; --steps) {
      const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(x));
      const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(y));
      __m128i same = _mm_cmpeq_epi8(a, b);
      if (kFold) {
        // Equal but for case: the bytes differ only in the case bit, and
        // that of `a` with the bit set is a lower-case letter.
        const __m128i lowerA = _mm_or_si128(a, caseBit);
        const __m128i letter = _mm_cmplt_epi8(_mm_add_epi8(lowerA, toSigned), belowLimit);
        const __m128i caseOnly =
            _mm_and_si128(_mm_cmpeq_epi8(_mm_xor_si128(a, b), caseBit), letter);
        same = _mm_or_si128(same, caseOnly);
      }
      // Zero where the bytes differ or `a` ends: `same` is 0 or 0xFF.
      const __m128i stop = _mm_min_epu8(same, a);
      const unsigned mask =
          static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(stop, _mm_setzero_si128())));
      if (mask != 0) {
        const int i = __builtin_ctz(mask);
        return kFold ? kUpperTable[x[i]] - kUpperTable[y[i]] : x[i] - y[i];
      }
      x += 16;
      y += 16;
    }
    for (int i = 0; i < 16; ++i, ++x, ++y) {
      const int cx = kFold ? kUpperTable[*x] : *x;
      const int cy = kFold ? kUpperTable[*y] : *y;
      if (cx != cy || *x == 0) return cx - cy;
    }
  }
}
#endif

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
#if defined(__SSE2__)
  return CompareBlocks<false>(x, y);
#else
  while (*x != 0 && *x == *y) {
    ++x;
    ++y;
  }
  return static_cast<int>(*x) - static_cast<int>(*y);
#endif
}

int StringUtils::CompareNoCase(const char* a, const char* b) {
  if (a == nullptr) return 0;
  if (b == nullptr) return 1;
  const unsigned char* x = reinterpret_cast<const unsigned char*>(a);
  const unsigned char* y = reinterpret_cast<const unsigned char*>(b);
#if defined(__SSE2__)
  return CompareBlocks<true>(x, y);
#else
  // Most comparisons of different texts end within the first bytes.
  for (int i = 0; i < kCompareHead; ++i, ++x, ++y) {
    const int cx = kUpperTable[*x];
    const int cy = kUpperTable[*y];
    if (cx != cy || *x == 0) return cx - cy;
  }
  // Longer texts: the C library's comparison without case, in the "C"
  // locale, folds exactly the ASCII letters too and runs many bytes a step
  // where it can. Equal there means equal here; otherwise the first
  // difference is looked for again, for the difference of the upper-case
  // bytes.
  const locale_t c = CLocale();
  if (c != static_cast<locale_t>(0) &&
      strcasecmp_l(reinterpret_cast<const char*>(x), reinterpret_cast<const char*>(y), c) == 0) {
    return 0;
  }
  for (;; ++x, ++y) {
    const int cx = kUpperTable[*x];
    const int cy = kUpperTable[*y];
    if (cx != cy || *x == 0) return cx - cy;
  }
#endif
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
  const size_t length = std::strlen(text);
  const char* const end = text + length;
  // Count the pieces first: the vector grows once, not piece by piece
  // (and at least to twice its room, so that many small splits into one
  // vector still grow it geometrically).
  const size_t count = 1 + static_cast<size_t>(std::count(text, end, separator));
  const size_t needed = pieces.size() + count;
  if (needed > pieces.capacity()) {
    pieces.reserve(std::max(needed, std::min(2 * pieces.capacity(), pieces.max_size())));
  }
  const char* start = text;
  for (const void* hit; (hit = std::memchr(start, separator, static_cast<size_t>(end - start)));) {
    const char* at = static_cast<const char*>(hit);
    pieces.emplace_back(start, static_cast<size_t>(at - start));
    start = at + 1;
  }
  pieces.emplace_back(start, static_cast<size_t>(end - start));
  return count > 1;
}

foundation::SafeString StringUtils::Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  foundation::SafeString result = QuickFormatV(format, args);
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
