// Fuzzes the number parsers and GetNumberFormat, and checks that texts
// classified as decimal or hexadecimal integers parse back consistently.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

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
  return 0;
}
