// Fuzzes the number parsers and GetNumberFormat, and checks that texts
// classified as decimal or hexadecimal integers parse back consistently;
// checks Format against the C library's snprintf on formats and arguments
// made from the input.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/text/stringutils.h"

using zorv::foundation::SafeString;
using zorv::foundation::text::StringUtils;

namespace {

// The digits that the decimal parsers count: after one sign and the leading
// zeros (a run of zeros keeps its last one), to the full length.
size_t CountedDigits(const SafeString& s) {
  size_t i = 0;
  if (!s.empty() && (s[0] == '-' || s[0] == '+')) i = 1;
  while (i + 1 < s.size() && s[i] == '0') ++i;
  return s.size() - i;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
template <class T>
void ExpectLikeSnprintf(const std::string& format, T value, const char* text) {
  char expected[2048];
  const int n = std::snprintf(expected, sizeof(expected), format.c_str(), value, text);
  if (n >= static_cast<int>(sizeof(expected))) return;
  const SafeString got = StringUtils::Format(format.c_str(), value, text);
  if (got != SafeString(expected, n < 0 ? 0 : static_cast<size_t>(n))) std::abort();
}
#pragma GCC diagnostic pop

// A format of the input's bytes around one conversion (flags, width,
// precision and length from the input) and a "%s" of the input's tail.
void CheckFormat(const uint8_t* data, size_t size) {
  if (size < 12) return;
  static const char* const kConversions[] = {"d",   "i",  "u",   "x",   "X",   "o",  "c",  "s",
                                             "f",   "F",  "lld", "llu", "llx", "ld", "lu", "hd",
                                             "hhu", "zu", "jd",  "td",  "%",   "e",  "g",  "lf"};
  const size_t kinds = sizeof(kConversions) / sizeof(kConversions[0]);
  const char* const conversion = kConversions[data[0] % kinds];
  std::string format;
  for (size_t i = 0; i < (data[1] & 7u); ++i) {
    const char c = static_cast<char>(data[2 + i]);
    if (c != '\0' && c != '%') format += c;
  }
  format += '%';
  static const char kFlags[] = "-0+ #'";
  for (unsigned int bit = 0; bit < 6; ++bit) {
    if ((data[10] >> bit) & 1u) format += kFlags[bit];
  }
  if ((data[11] & 3u) != 0) format += std::to_string(data[11] >> 2);
  if ((data[10] & 0x40u) != 0) format += "." + std::to_string(data[9] % 40);
  format += conversion;
  format += " %s";
  const std::string tail(reinterpret_cast<const char*>(data) + 12, size - 12);
  const char* text = tail.c_str();
  unsigned long long bits = 0;
  std::memcpy(&bits, data + 2, 8);
  double real;
  std::memcpy(&real, &bits, sizeof(real));
  switch (conversion[0] == 'l' && conversion[1] == 'l' ? 'L' : conversion[0]) {
    case 'd':
    case 'i':
      ExpectLikeSnprintf(format, static_cast<int>(bits), text);
      break;
    case 'u':
    case 'x':
    case 'X':
    case 'o':
      ExpectLikeSnprintf(format, static_cast<unsigned int>(bits), text);
      break;
    case 'c':
      ExpectLikeSnprintf(format, static_cast<int>(bits & 0xFF), text);
      break;
    case 's':
      ExpectLikeSnprintf(format, text, text);
      break;
    case 'L':
      ExpectLikeSnprintf(format, bits, text);
      break;
    case 'l':
      if (conversion[1] == 'f') {
        ExpectLikeSnprintf(format, real, text);
      } else {
        ExpectLikeSnprintf(format, static_cast<unsigned long>(bits), text);
      }
      break;
    case 'h':
      ExpectLikeSnprintf(format, static_cast<int>(bits), text);
      break;
    case 'z':
      ExpectLikeSnprintf(format, static_cast<size_t>(bits), text);
      break;
    case 'j':
      ExpectLikeSnprintf(format, static_cast<intmax_t>(bits), text);
      break;
    case 't':
      ExpectLikeSnprintf(format, static_cast<ptrdiff_t>(bits), text);
      break;
    case '%':
      ExpectLikeSnprintf(format, text, text);
      break;
    default:
      // f, F, e, g; also small values, where the fixed texts are short.
      ExpectLikeSnprintf(format, real, text);
      ExpectLikeSnprintf(format, static_cast<double>(static_cast<int>(bits)) / 1024.0, text);
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const SafeString text(reinterpret_cast<const char*>(data), size);
  const int code = StringUtils::GetNumberFormat(text);
  const int i32 = StringUtils::StringToInt(text);
  const unsigned int u32 = StringUtils::StringToUInt(text);
  const long long i64 = StringUtils::StringToLong(text);
  const unsigned long long u64 = StringUtils::StringToULong(text);
  const unsigned long long hex = StringUtils::HexStringToULong(text);
  const double real = StringUtils::StringToFloat(text);
  if (code < 0 || code > 3) std::abort();

  if (code == 1) {
    const size_t digits = CountedDigits(text);
    // The parsers agree with one another within their digit limits.
    if (digits <= 10 &&
        (static_cast<unsigned int>(i32) != u32 || u32 != static_cast<unsigned int>(u64))) {
      std::abort();
    }
    if (digits <= 19 && static_cast<unsigned long long>(i64) != u64) std::abort();
    // Without wrap-around, the value prints back as the digits it came from.
    if (digits <= 18) {
      const SafeString back = StringUtils::LongToString(i64);
      if (StringUtils::StringToLong(back) != i64) std::abort();
      if (text.find('\0') == SafeString::npos && std::fabs(real - static_cast<double>(i64)) >
                                                     std::fabs(static_cast<double>(i64)) * 1e-15) {
        std::abort();
      }
    }
    if (digits > 20 && (i32 != 0 || u32 != 0 || i64 != 0 || u64 != 0)) std::abort();
  } else if (code == 3) {
    if (size >= 3 && size <= 18 && text.find('\0') == SafeString::npos) {
      if (hex != std::strtoull(text.c_str() + 2, nullptr, 16)) std::abort();
      const SafeString back = StringUtils::ULongToHexString(hex, true);
      if (StringUtils::HexStringToULong(back) != hex) std::abort();
    }
  } else if (code == 0) {
    if (i64 != 0 || u64 != 0 || i32 != 0 || u32 != 0) {
      // Only the embedded-zero case reads digits from a text that does not
      // classify: the classifier and the parsers stop at the same zero byte,
      // so this cannot happen.
      std::abort();
    }
  }
  if (code != 3 && hex != 0) std::abort();
  if (code != 2 && code != 1 && real != 0.0 && !std::isnan(real)) std::abort();

  // Every double's text classifies and reads back.
  const SafeString printed = StringUtils::FloatToString(real);
  const int printedCode = StringUtils::GetNumberFormat(printed);
  if (printedCode != 1 && printedCode != 2) std::abort();
  const double again = StringUtils::StringToFloat(printed);
  if (!(again == real || (std::isnan(again) && std::isnan(real)))) std::abort();

  CheckFormat(data, size);
  return 0;
}
