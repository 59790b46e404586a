// The number grammar of StringUtils' text parsers, in one place: the scan
// that classifies a text (GetNumberFormat) is the scan that StringToFloat
// reads its mantissa and exponent from. Private to the library.
#ifndef ZORV_SRC_TEXT_NUMBERSCAN_H_
#define ZORV_SRC_TEXT_NUMBERSCAN_H_

#include <cstddef>
#include <cstring>

namespace zorv {
namespace foundation {
namespace text {
namespace numberscan {

// Character classes, indexed by the unsigned byte: bit 0 decimal digit,
// bit 1 hexadecimal digit.
struct ClassTable {
  unsigned char bytes[256];
};

constexpr ClassTable MakeClassTable() {
  ClassTable table{};
  for (int i = 0; i < 256; ++i) {
    unsigned char c = 0;
    if (i >= '0' && i <= '9') c = 3;
    if ((i >= 'A' && i <= 'F') || (i >= 'a' && i <= 'f')) c = 2;
    table.bytes[i] = c;
  }
  return table;
}

constexpr ClassTable kClass = MakeClassTable();

inline bool IsDigit(char c) { return (kClass.bytes[static_cast<unsigned char>(c)] & 1u) != 0; }
inline bool IsHexDigit(char c) { return (kClass.bytes[static_cast<unsigned char>(c)] & 2u) != 0; }

// The kinds, numbered as GetNumberFormat reports them; the special words
// report as kReal.
enum Kind { kNone = 0, kInteger = 1, kReal = 2, kHex = 3, kNan = 4, kInfinity = 5 };

struct Scan {
  Kind kind;
  // A leading '-' (also for "-inf").
  bool negative;
  // kNone only: a sign and then the first zero byte (not a lone sign of
  // length 1), which reads as a signed zero.
  bool signOnly;
  // At least one digit in the mantissa.
  bool digit;
  // kInteger and kReal: decimal digits with at most one '.'.
  const char* mantissa;
  const char* mantissaEnd;
  // kReal with an exponent: the text after 'e'/'E' (its sign, then only
  // digits up to the first zero byte), to the text's full length; otherwise
  // null.
  const char* exponent;
  size_t exponentLength;
};

// Scans the `n` bytes at `p` (with a zero byte at p[n]). Every loop stops at
// the first zero byte; lengths 0 to 4 have their own rules: a text of one
// byte is a number only as a digit, the special words are exact texts, and
// the "0x" form needs at least 3 bytes.
inline Scan ScanNumber(const char* p, size_t n) {
  Scan s{kNone, false, false, false, p, p, nullptr, 0};
  if (n == 0) return s;
  if (n == 1) {
    if (IsDigit(p[0])) {
      s.kind = kInteger;
      s.digit = true;
      s.mantissaEnd = p + 1;
    }
    return s;
  }
  if (n == 3 && (std::memcmp(p, "nan", 3) == 0 || std::memcmp(p, "inf", 3) == 0)) {
    s.kind = p[0] == 'n' ? kNan : kInfinity;
    return s;
  }
  if (n == 4 && (p[0] == '-' || p[0] == '+') && std::memcmp(p + 1, "inf", 3) == 0) {
    s.kind = kInfinity;
    s.negative = p[0] == '-';
    return s;
  }
  if (n >= 3 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
    for (const char* q = p + 2; *q != '\0'; ++q) {
      if (!IsHexDigit(*q)) return s;
    }
    s.kind = kHex;
    return s;
  }
  const char* q = p;
  if (*q == '-' || *q == '+') {
    s.negative = *q == '-';
    ++q;
  }
  s.mantissa = q;
  bool point = false;
  for (;; ++q) {
    if (IsDigit(*q)) {
      s.digit = true;
    } else if (*q == '.') {
      if (point) return s;
      point = true;
    } else {
      break;
    }
  }
  s.mantissaEnd = q;
  if (*q == '\0') {
    if (!s.digit && !point) {
      s.signOnly = q != p;
      return s;
    }
    s.kind = point ? kReal : kInteger;
    return s;
  }
  if ((*q != 'e' && *q != 'E') || !s.digit) return s;
  ++q;
  const char* e = q;
  if (*q == '+' || *q == '-') ++q;
  if (*q == '\0') return s;
  for (; *q != '\0'; ++q) {
    if (!IsDigit(*q)) return s;
  }
  s.kind = kReal;
  s.exponent = e;
  s.exponentLength = n - static_cast<size_t>(e - p);
  return s;
}

}  // namespace numberscan
}  // namespace text
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_SRC_TEXT_NUMBERSCAN_H_
