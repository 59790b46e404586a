// Decimal digits of unsigned integers, written back to front; shared by the number-to-text
// functions and the formatter. Private to the library.
#ifndef ZORV_SRC_TEXT_NUMBERDIGITS_H_
#define ZORV_SRC_TEXT_NUMBERDIGITS_H_

#include <cstring>

namespace zorv {
namespace foundation {
namespace text {
namespace numberdigits {

constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// Writes the two digits of `pair` (below 100) at `at`.
inline void WritePair(unsigned int pair, char* at) { std::memcpy(at, kDigitPairs + pair * 2, 2); }

// Writes the four digits of `value` (below 10000, with leading zeros) at
// `at`.
inline void WriteFour(unsigned int value, char* at) {
  WritePair(value / 100, at);
  WritePair(value % 100, at + 2);
}

// Writes the decimal digits of `value` so that they end just before `end`;
// returns the first digit's address. Groups of four digits are split off
// first, so that the divisions of a long value do not wait on each other.
inline char* WriteDigits(unsigned int value, char* end) {
  if (value >= 10000) {
    unsigned int high = value / 10000;
    end -= 4;
    WriteFour(value % 10000, end);
    if (high >= 10000) {
      end -= 4;
      WriteFour(high % 10000, end);
      high /= 10000;
    }
    value = high;
  }
  if (value >= 100) {
    end -= 2;
    WritePair(value % 100, end);
    value /= 100;
  }
  if (value >= 10) {
    end -= 2;
    WritePair(value, end);
  } else {
    *--end = static_cast<char>('0' + value);
  }
  return end;
}

// The same for a 64-bit value: eight digits at a time are split off while
// the value needs more than 32 bits.
inline char* WriteDigits64(unsigned long long value, char* end) {
  while (value > 0xFFFFFFFFull) {
    const unsigned int low = static_cast<unsigned int>(value % 100000000u);
    value /= 100000000u;
    end -= 8;
    WriteFour(low / 10000, end);
    WriteFour(low % 10000, end + 4);
  }
  return WriteDigits(static_cast<unsigned int>(value), end);
}

}  // namespace numberdigits
}  // namespace text
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_SRC_TEXT_NUMBERDIGITS_H_
