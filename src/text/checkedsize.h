// Size arithmetic that throws instead of wrapping: the sizes of results
// computed from input lengths, for the text codecs. Private to the library;
// never installed.
#ifndef ZORV_SRC_TEXT_CHECKEDSIZE_H_
#define ZORV_SRC_TEXT_CHECKEDSIZE_H_

#include <cstddef>
#include <limits>
#include <stdexcept>
#include <type_traits>

namespace zorv {
namespace foundation {
namespace text {
namespace detail {

// The functions are templates over the unsigned size type, so that the
// 32-bit arithmetic of the ARM targets can be checked on any host. Each
// throws std::length_error(source) when the result does not fit in Size or
// exceeds the given limit.

template <class Size>
Size CheckedAdd(Size a, Size b, const char* source) {
  static_assert(std::is_unsigned<Size>::value, "sizes are unsigned");
  if (a > std::numeric_limits<Size>::max() - b) throw std::length_error(source);
  return static_cast<Size>(a + b);
}

template <class Size>
Size CheckedMultiply(Size a, Size b, const char* source) {
  static_assert(std::is_unsigned<Size>::value, "sizes are unsigned");
  if (b != 0 && a > std::numeric_limits<Size>::max() / b) throw std::length_error(source);
  return static_cast<Size>(a * b);
}

// `n`, when it is at most `max` (a container's max_size()).
template <class Size>
Size CheckedLimit(Size n, Size max, const char* source) {
  if (n > max) throw std::length_error(source);
  return n;
}

// The text length of `n` bytes in Base64, 4 characters per started group of
// 3 bytes, when it is at most `max`.
template <class Size>
Size Base64Size(unsigned int n, Size max, const char* source) {
  const Size groups = static_cast<Size>(n / 3 + (n % 3 != 0 ? 1 : 0));
  return CheckedLimit<Size>(CheckedMultiply<Size>(groups, 4, source), max, source);
}

// The length of the percent-encoded text of `n` bytes, `escaped` of which
// take three characters, when it is at most `max`.
template <class Size>
Size EncodedUriSize(Size n, Size escaped, Size max, const char* source) {
  const Size length = CheckedAdd<Size>(n, CheckedMultiply<Size>(escaped, 2, source), source);
  return CheckedLimit<Size>(length, max, source);
}

}  // namespace detail
}  // namespace text
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_SRC_TEXT_CHECKEDSIZE_H_
