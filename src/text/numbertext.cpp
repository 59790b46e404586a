// StringUtils: integers and floating-point numbers to text and back.
#include <charconv>
#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <system_error>

#include "foundation/text/stringutils.h"
#include "numberdigits.h"
#include "numberscan.h"

namespace zorv {
namespace foundation {
namespace text {

namespace {

using numberdigits::WriteDigits64;
using numberscan::IsHexDigit;

constexpr char kHexDigits[] = "0123456789ABCDEF";

// A string keeps up to 15 characters inside the object.
constexpr size_t kInlineChars = 15;

// The eight decimal digits of `value` (below 10^8, with leading zeros) as
// digit values 0 to 9 in the bytes of a word, the first digit in the lowest
// byte. The halves, quarters and single digits are split off in all lanes
// of the word at once with multiplications by reciprocals, so that no
// division waits on another: x / 100 is (x * 10486) >> 20 for x below
// 10^4, and x / 10 is (x * 103) >> 10 for x below 100.
inline unsigned long long EightDigitValues(unsigned int value) {
  unsigned long long x = (value / 10000u) | static_cast<unsigned long long>(value % 10000u) << 32;
  const unsigned long long hundreds = ((x * 10486u) >> 20) & 0x0000007F0000007Full;
  x = hundreds | (x - hundreds * 100u) << 16;
  const unsigned long long tens = ((x * 103u) >> 10) & 0x000F000F000F000Full;
  return tens | (x - tens * 10u) << 8;
}

// Stores the eight bytes of `word` at `at`, the lowest byte first.
inline void StoreEight(char* at, unsigned long long word) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  word = __builtin_bswap64(word);
#endif
  std::memcpy(at, &word, sizeof(word));
}

constexpr unsigned long long kZeroDigits = 0x3030303030303030ull;

// Writes the digits of `value` (below 10^8) without leading zeros as one
// word at `at`, and returns the number of digits; the bytes after them, up
// to eight in all, are overwritten too.
inline size_t WriteUpToEight(unsigned int value, char* at) {
  const unsigned long long digits = EightDigitValues(value);
  // Leading zero digits are the lowest zero bytes; "0" keeps its last one.
  const unsigned int zeros =
      digits == 0 ? 7u : static_cast<unsigned int>(__builtin_ctzll(digits)) / 8u;
  StoreEight(at, (digits + kZeroDigits) >> (8u * zeros));
  return 8u - zeros;
}

// The decimal text of `value` (below 10^15), with a minus sign in front
// when `negative`, in at most 15 characters: written straight into the
// string's own room one word of digits at a time, without a copy through a
// buffer or a call.
template <class Unsigned>
[[gnu::flatten]] inline foundation::SafeString ShortText(Unsigned value, bool negative) {
  constexpr Unsigned kTenTo8 = 100000000u;
  foundation::SafeString text(kInlineChars, '-');
  char* const first = &text[0];
  char* at = first + (negative ? 1 : 0);
  if (value >= kTenTo8) {
    // The leading digits, then eight more.
    at += WriteUpToEight(static_cast<unsigned int>(value / kTenTo8), at);
    StoreEight(at, EightDigitValues(static_cast<unsigned int>(value % kTenTo8)) + kZeroDigits);
    at += 8;
  } else {
    at += WriteUpToEight(static_cast<unsigned int>(value), at);
  }
  text.erase(static_cast<size_t>(at - first));
  return text;
}

// The same for a text of more than 15 characters: written back to front
// and copied into the heap block it needs.
foundation::SafeString LongText(unsigned long long value, bool negative) {
  char buffer[24];
  char* const end = buffer + sizeof(buffer);
  char* begin = WriteDigits64(value, end);
  if (negative) *--begin = '-';
  return foundation::SafeString(begin, static_cast<size_t>(end - begin));
}

// 15 characters hold every value of 32 bits, and the 64-bit ones below
// 10^15 (10^14 with a sign).
inline foundation::SafeString UnsignedText(unsigned int value, bool negative) {
  return ShortText(value, negative);
}

inline foundation::SafeString UnsignedText(unsigned long long value, bool negative) {
  return value < (negative ? 100000000000000ull : 1000000000000000ull) ? ShortText(value, negative)
                                                                       : LongText(value, negative);
}

// Eight (four) bytes as a little-endian word, whatever the processor's byte
// order: the first byte in the lowest bits.
inline unsigned long long LoadEight(const char* p) {
  unsigned long long w;
  std::memcpy(&w, p, sizeof(w));
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  w = __builtin_bswap64(w);
#endif
  return w;
}

inline unsigned int LoadFour(const char* p) {
  unsigned int w;
  std::memcpy(&w, p, sizeof(w));
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  w = __builtin_bswap32(w);
#endif
  return w;
}

// True when every byte of the word is '0'..'9': its high half-byte is 3,
// and so is that of the byte plus 6. A carry from one byte into the next
// comes only from a byte that fails already.
inline bool EightDigits(unsigned long long w) {
  return ((w & 0xF0F0F0F0F0F0F0F0ull) |
          (((w + 0x0606060606060606ull) & 0xF0F0F0F0F0F0F0F0ull) >> 4)) == 0x3333333333333333ull;
}

inline bool FourDigits(unsigned int w) {
  return ((w & 0xF0F0F0F0u) | (((w + 0x06060606u) & 0xF0F0F0F0u) >> 4)) == 0x33333333u;
}

// The value of eight (four) digit bytes: pairs of digits first, then pairs
// of pairs, in a few multiplications.
inline unsigned int EightDigitsValue(unsigned long long w) {
  w -= 0x3030303030303030ull;
  w = w * 10 + (w >> 8);
  w = ((w & 0x000000FF000000FFull) * (100 + (1000000ull << 32)) +
       ((w >> 16) & 0x000000FF000000FFull) * (1 + (10000ull << 32))) >>
      32;
  return static_cast<unsigned int>(w);
}

inline unsigned int FourDigitsValue(unsigned int w) {
  w -= 0x30303030u;
  w = w * 10 + (w >> 8);
  return (w & 0xFFu) * 100 + ((w >> 16) & 0xFFu);
}

// The decimal parse shared by the four integer parsers: sign, leading zeros,
// a byte count of 1 to `limit` to the full length, digits up to the first
// zero byte, accumulated with wrap-around, negated for '-'. Runs of eight
// and four digits are converted a word at a time; a run holding any other
// byte goes byte by byte, where a zero byte ends the digits.
template <class U>
__attribute__((always_inline)) inline bool ParseDecimal(const char* p, size_t n, size_t limit,
                                                        U& result) {
  // The sign is taken without a branch: signed texts come with either.
  const bool negative = p[0] == '-';
  size_t i = static_cast<size_t>(negative) + static_cast<size_t>(p[0] == '+');
  // Most texts go on with a digit other than '0'.
  if (static_cast<unsigned char>(p[i]) - static_cast<unsigned int>('1') >= 9u) {
    while (i + 1 < n && p[i] == '0') ++i;
  }
  // An empty text or a lone sign leaves no digit.
  size_t left = n - i;
  if (left < 1 || left > limit) return false;
  const char* q = p + i;
  U value = 0;
  for (; left >= 8; left -= 8, q += 8) {
    const unsigned long long w = LoadEight(q);
    if (!EightDigits(w)) break;
    value = static_cast<U>(value * 100000000u + EightDigitsValue(w));
  }
  if (left >= 4) {
    const unsigned int w = LoadFour(q);
    if (FourDigits(w)) {
      value = static_cast<U>(value * 10000u + FourDigitsValue(w));
      left -= 4;
      q += 4;
    }
  }
  for (; left > 0; --left, ++q) {
    const unsigned int digit = static_cast<unsigned char>(*q) - static_cast<unsigned int>('0');
    if (digit > 9) {
      if (*q == '\0') break;
      return false;
    }
    value = static_cast<U>(value * 10u + digit);
  }
  result = negative ? static_cast<U>(U(0) - value) : value;
  return true;
}

template <class U>
inline U ParseOrZero(const foundation::SafeString& text, size_t limit) {
  U value = 0;
  return ParseDecimal<U>(text.c_str(), text.size(), limit, value) ? value : U(0);
}

// Literal accumulation of a mantissa: value * 10 + digit, scaled by 1/10 per
// digit after the point. Used when the exact conversion is out of range.
double AccumulateMantissa(const char* p, const char* end) {
  double value = 0.0;
  double scale = 1.0;
  bool point = false;
  for (; p != end; ++p) {
    if (*p == '.') {
      point = true;
      continue;
    }
    value = value * 10.0 + (*p - '0');
    if (point) scale /= 10.0;
  }
  return value * scale;
}

// Significant digits kept for the exact conversion: enough to round any
// decimal text to the nearest double, given a mark for the dropped digits.
constexpr size_t kKeptDigits = 768;
// A decimal exponent beyond which every kept mantissa overflows or
// underflows the double's range.
constexpr long long kExponentBound = 100000;

// The mantissa [p, end) (decimal digits with at most one '.') times
// 10^exponent, correctly rounded, into `value`; false when that is out of
// the double's range. Works in a fixed buffer, never allocating: leading
// zeros are dropped, and the digits after the first kKeptDigits significant
// ones leave only one '1' behind the kept digits when any of them is not
// zero, which rounds as the whole text does.
__attribute__((noinline)) bool LongExactValue(const char* p, const char* end, int exponent,
                                              double& value) {
  char work[kKeptDigits + 1 + 24];
  size_t kept = 0;
  bool dropped = false;
  bool point = false;
  // The power of ten of the last kept digit. It cannot overflow: it moves by
  // one per byte of the text.
  long long scale = 0;
  for (; p != end; ++p) {
    if (*p == '.') {
      point = true;
    } else if (kept == 0 && *p == '0') {
      if (point) --scale;
    } else if (kept < kKeptDigits) {
      work[kept++] = *p;
      if (point) --scale;
    } else {
      if (!point) ++scale;
      if (*p != '0') dropped = true;
    }
  }
  if (kept == 0) {
    value = 0.0;
    return true;
  }
  if (dropped) {
    work[kept++] = '1';
    --scale;
  }
  // Past the bound the result is infinite or zero whatever the digits; the
  // clamps keep the sum and its text small.
  if (scale > kExponentBound) scale = kExponentBound;
  if (scale < -kExponentBound) scale = -kExponentBound;
  long long power = scale + exponent;
  if (power > kExponentBound) power = kExponentBound;
  if (power < -kExponentBound) power = -kExponentBound;
  char* e = work + kept;
  *e++ = 'e';
  const std::to_chars_result w = std::to_chars(e, work + sizeof(work), power);
  const std::from_chars_result r = std::from_chars(work, w.ptr, value);
  return r.ec == std::errc() && r.ptr == w.ptr;
}

// The same; a short mantissa goes to the conversion as it is, point
// included.
inline bool ExactValue(const char* p, const char* end, int exponent, double& value) {
  const size_t length = static_cast<size_t>(end - p);
  if (length > 48) return LongExactValue(p, end, exponent, value);
  char text[64];
  std::memcpy(text, p, length);
  text[length] = 'e';
  const std::to_chars_result w = std::to_chars(text + length + 1, text + sizeof(text), exponent);
  const std::from_chars_result r = std::from_chars(text, w.ptr, value);
  return r.ec == std::errc() && r.ptr == w.ptr;
}

}  // namespace

foundation::SafeString StringUtils::IntToString(int value) {
  const bool negative = value < 0;
  const unsigned int magnitude =
      negative ? 0u - static_cast<unsigned int>(value) : static_cast<unsigned int>(value);
  return UnsignedText(magnitude, negative);
}

foundation::SafeString StringUtils::LongToString(long long value) {
  const bool negative = value < 0;
  const unsigned long long magnitude = negative ? 0ull - static_cast<unsigned long long>(value)
                                                : static_cast<unsigned long long>(value);
  return UnsignedText(magnitude, negative);
}

foundation::SafeString StringUtils::UIntToString(unsigned int value) {
  return UnsignedText(value, false);
}

foundation::SafeString StringUtils::ULongToString(unsigned long long value) {
  return UnsignedText(value, false);
}

foundation::SafeString StringUtils::ULongToHexString(unsigned long long value, bool prefix) {
  char buffer[20];
  char* end = buffer + sizeof(buffer);
  char* begin = end;
  do {
    *--begin = kHexDigits[value & 15u];
    value >>= 4;
  } while (value != 0);
  if (prefix) {
    *--begin = 'x';
    *--begin = '0';
  }
  return foundation::SafeString(begin, static_cast<size_t>(end - begin));
}

foundation::SafeString StringUtils::FloatToString(double value) {
  if (std::isnan(value)) return foundation::SafeString("nan");
  if (std::isinf(value)) return foundation::SafeString(value < 0 ? "-inf" : "inf");
  char buffer[32];
  const std::to_chars_result r = std::to_chars(buffer, buffer + sizeof(buffer), value);
  return foundation::SafeString(buffer, static_cast<size_t>(r.ptr - buffer));
}

int StringUtils::StringToInt(const foundation::SafeString& text) {
  return static_cast<int>(ParseOrZero<unsigned int>(text, 10));
}

long long StringUtils::StringToLong(const foundation::SafeString& text) {
  return static_cast<long long>(ParseOrZero<unsigned long long>(text, 19));
}

unsigned int StringUtils::StringToUInt(const foundation::SafeString& text) {
  return ParseOrZero<unsigned int>(text, 10);
}

unsigned long long StringUtils::StringToULong(const foundation::SafeString& text) {
  return ParseOrZero<unsigned long long>(text, 20);
}

unsigned long long StringUtils::HexStringToULong(const foundation::SafeString& text) {
  const size_t n = text.size();
  const char* p = text.c_str();
  if (n < 3 || n > 18 || p[0] != '0' || (p[1] != 'x' && p[1] != 'X')) return 0;
  if (!IsHexDigit(p[2])) return 0;
  unsigned long long value = 0;
  for (const char* q = p + 2; *q != '\0'; ++q) {
    const unsigned char c = static_cast<unsigned char>(*q);
    unsigned int digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10u;
    } else if (c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10u;
    } else {
      return 0;
    }
    value = (value << 4) | digit;
  }
  return value;
}

double StringUtils::StringToFloat(const foundation::SafeString& text) {
  const numberscan::Scan s = numberscan::ScanNumber(text.c_str(), text.size());
  switch (s.kind) {
    case numberscan::kNan:
      return std::numeric_limits<double>::quiet_NaN();
    case numberscan::kInfinity:
      return s.negative ? -std::numeric_limits<double>::infinity()
                        : std::numeric_limits<double>::infinity();
    case numberscan::kInteger:
    case numberscan::kReal:
      break;
    default:
      return s.signOnly && s.negative ? -0.0 : 0.0;
  }
  if (!s.digit) return s.negative ? -0.0 : 0.0;
  int exponent = 0;
  if (s.exponent != nullptr) {
    // The exponent follows the StringToInt rules, wrap-around included.
    unsigned int wrapped = 0;
    if (!ParseDecimal<unsigned int>(s.exponent, s.exponentLength, 10, wrapped)) return 0.0;
    exponent = static_cast<int>(wrapped);
  }
  double value = 0.0;
  if (!ExactValue(s.mantissa, s.mantissaEnd, exponent, value)) {
    value = AccumulateMantissa(s.mantissa, s.mantissaEnd);
    if (exponent != 0) value *= std::pow(10.0, exponent);
  }
  return s.negative ? -value : value;
}

int StringUtils::GetNumberFormat(const foundation::SafeString& text) {
  const numberscan::Kind kind = numberscan::ScanNumber(text.c_str(), text.size()).kind;
  return kind == numberscan::kNan || kind == numberscan::kInfinity ? 2 : static_cast<int>(kind);
}

}  // namespace text
}  // namespace foundation
}  // namespace zorv
