// Tests of StringUtils' number text conversions and number classification.
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>
#include <random>
#include <string>
#include <utility>

#include "foundation/text/stringutils.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::text::StringUtils;

using NumberTextTest = zorv::test::LeakCheckedTest;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

// Integers to text against the C library, at the edges and over random
// values of every length; the texts read back and classify as integers.
TEST_F(NumberTextTest, IntegersToTextAndBack) {
  std::mt19937_64 random(42);
  // clang-format off
  const unsigned long long edges[] = {0, 1, 9, 10, 99, 100, 999999999999999999ull, INT_MAX,
                                      0x80000000ull, UINT_MAX, 0xFFFFFFFFFull, LLONG_MAX,
                                      1ull << 63, ULLONG_MAX, 0ull - 10, 0ull - 100, 100000000ull,
                                      100009999ull, 4294967296ull, 10000000000000000ull,
                                      999999999999999ull, 1000000000000000ull,
                                      0ull - 99999999999999ull, 0ull - 100000000000000ull};
  // clang-format on
  char expected[32];
  for (size_t i = 0; i < 20000; ++i) {
    const unsigned long long u = i < std::size(edges) ? edges[i] : random() >> (random() % 64);
    const long long l = static_cast<long long>(u);
    const unsigned int u32 = static_cast<unsigned int>(u);
    const int i32 = static_cast<int>(u32);
    SCOPED_TRACE(u);
    std::snprintf(expected, sizeof(expected), "%llu", u);
    ASSERT_EQ(StringUtils::ULongToString(u), expected);
    ASSERT_EQ(StringUtils::StringToULong(expected), u);
    std::snprintf(expected, sizeof(expected), "%lld", l);
    ASSERT_EQ(StringUtils::LongToString(l), expected);
    ASSERT_EQ(StringUtils::StringToLong(expected), l);
    ASSERT_EQ(StringUtils::GetNumberFormat(expected), 1);
    std::snprintf(expected, sizeof(expected), "%u", u32);
    ASSERT_EQ(StringUtils::UIntToString(u32), expected);
    ASSERT_EQ(StringUtils::StringToUInt(expected), u32);
    std::snprintf(expected, sizeof(expected), "%d", i32);
    ASSERT_EQ(StringUtils::IntToString(i32), expected);
    ASSERT_EQ(StringUtils::StringToInt(expected), i32);
    std::snprintf(expected, sizeof(expected), "%llX", u);
    ASSERT_EQ(StringUtils::ULongToHexString(u, false), expected);
    ASSERT_EQ(StringUtils::ULongToHexString(u, true).str(), std::string("0x") + expected);
    ASSERT_EQ(StringUtils::HexStringToULong(StringUtils::ULongToHexString(u, true)), u);
    ASSERT_EQ(StringUtils::GetNumberFormat(StringUtils::ULongToHexString(u, true)), 3);
  }
}

TEST_F(NumberTextTest, DecimalParseRules) {
  // The unsigned parsers give the signed ones' bits: StringToUInt that of
  // asInt, StringToULong that of asLong, except past 19 digits.
  struct Case {
    SafeString text;
    int asInt;
    long long asLong;
    unsigned long long asULong;
  };
  // Up to 10 digits for the 32-bit parsers, 19 and 20 for the 64-bit ones;
  // leading zeros and the sign do not count.
  // clang-format off
  const Case cases[] = {
      {"-0", 0, 0, 0}, {"000123", 123, 123, 123}, {"00000000000", 0, 0, 0}, {"+42", 42, 42, 42},
      {"-42", -42, -42, 18446744073709551574ull}, {"12345678901", 0, 12345678901ll, 12345678901ull},
      {"4294967297", 1, 4294967297ll, 4294967297ull}, {"-2147483648", INT_MIN, INT_MIN, 18446744071562067968ull},
      {"9999999999", 1410065407, 9999999999ll, 9999999999ull},
      {"9223372036854775808", 0, LLONG_MIN, 9223372036854775808ull},
      {"-9223372036854775808", 0, LLONG_MIN, 9223372036854775808ull},
      {"18446744073709551616", 0, 0, 0}, {"99999999999999999999", 0, 0, 7766279631452241919ull},
      {"-00000000000000000000018446744073709551615", 0, 0, 1}, {"111111111111111111111", 0, 0, 0},
      {"0000000000000000000000000007", 7, 7, 7},
      // An embedded zero byte ends the digits; the count is the full length.
      {SafeString("12\0ab", 5), 12, 12, 12}, {SafeString("12\0abcdefghijk", 14), 0, 12, 12},
      {" 12", 0, 0, 0}, {"12 ", 0, 0, 0}, {"1.5", 0, 0, 0}, {"", 0, 0, 0}, {"-", 0, 0, 0},
      {"+-1", 0, 0, 0}, {"--1", 0, 0, 0}, {"0x10", 0, 0, 0}, {"1e3", 0, 0, 0}, {"\xff", 0, 0, 0},
      {"/", 0, 0, 0}};
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.c_str());
    EXPECT_EQ(StringUtils::StringToInt(c.text), c.asInt);
    EXPECT_EQ(StringUtils::StringToUInt(c.text), static_cast<unsigned int>(c.asInt));
    EXPECT_EQ(StringUtils::StringToLong(c.text), c.asLong);
    EXPECT_EQ(StringUtils::StringToULong(c.text), c.asULong);
  }
  // One byte that is not a digit at every place of the longest texts: the
  // bytes next to the digits and those whose high half is 3, a zero byte
  // (which ends the digits there) and bytes that carry when 6 is added.
  const std::string digits = "1234567890123456789";
  for (size_t at = 0; at < digits.size(); ++at) {
    for (char bad : {'/', ':', '?', '\0', ' ', '\xfa', '\xff', '*'}) {
      std::string text = digits;
      text[at] = bad;
      SCOPED_TRACE(std::to_string(at) + " " + std::to_string(bad));
      const unsigned long long prefix =
          at == 0 || bad != '\0' ? 0 : std::stoull(digits.substr(0, at));
      EXPECT_EQ(StringUtils::StringToULong(SafeString(text)), prefix);
      EXPECT_EQ(StringUtils::StringToLong(SafeString(text)), static_cast<long long>(prefix));
      if (at < 10) {
        EXPECT_EQ(StringUtils::StringToUInt(SafeString(text.substr(0, 10))),
                  static_cast<unsigned int>(prefix));
      }
    }
  }
  // Hexadecimal: "0x" and 1 to 16 digits.
  // clang-format off
  const std::pair<SafeString, unsigned long long> hex[] = {
      {"0x00000000000000001", 0}, {"1F", 0}, {"0x", 0}, {"0x1g", 0}, {"-0x1", 0}, {"0x-1", 0},
      {" 0x1", 0}, {"00x1", 0}, {"0xG", 0}, {"0X1f", 31}, {"0xabcdef", 0xABCDEF},
      {"0x0000000000000001", 1}, {SafeString("0x1\0f", 5), 1}};
  // clang-format on
  for (const auto& h : hex) {
    EXPECT_EQ(StringUtils::HexStringToULong(h.first), h.second) << h.first.c_str();
  }
}

// Classification and the floating-point value of the same texts.
TEST_F(NumberTextTest, ClassificationAndFloatParse) {
  struct Case {
    SafeString text;
    int code;
    double value;
  };
  const std::string zeros(500, '0');
  // clang-format off
  const Case cases[] = {
      {"7", 1, 7.0}, {"12", 1, 12.0}, {"-1", 1, -1.0}, {"+1", 1, 1.0}, {"00123", 1, 123.0},
      {"1e5", 2, 1e5}, {"0xAB", 3, 0.0}, {"0Xab", 3, 0.0}, {"0x0", 3, 0.0}, {"+inf", 2, HUGE_VAL},
      {"-inf", 2, -HUGE_VAL}, {"inf", 2, HUGE_VAL}, {"nan", 2, kNan}, {"1.", 2, 1.0}, {".5", 2, 0.5},
      {"-.", 2, -0.0}, {"1E-3", 2, 0.001}, {"-1.5e+2", 2, -150.0}, {"2.5e2", 2, 250.0},
      {"-.5e-3", 2, -0.0005}, {"1e00005", 2, 1e5}, {"0.000001", 2, 1e-6}, {"1e400", 2, HUGE_VAL},
      {"-1e400", 2, -HUGE_VAL}, {"1e-400", 2, 0.0}, {"4.9406564584124654e-324", 2, 4.9406564584124654e-324},
      {"1.7976931348623157e308", 2, DBL_MAX},
      {"123456789012345678901234567890", 1, 123456789012345678901234567890.0},
      // The exponent follows the integer rules, wrap-around and digit limit
      // included (the classification has no limit).
      {"1e4294967297", 2, 10.0}, {"1e12345678901", 2, 0.0}, {"1e0000000000000000000001", 2, 10.0},
      {"1." + zeros + "1e2", 2, 100.0},
      // Everything stops at the first zero byte; a sign alone reads as a
      // signed zero, except as the whole text.
      {SafeString("12\0x", 4), 1, 12.0}, {SafeString("1.5\0zz", 6), 2, 1.5},
      {SafeString("1e5\0x", 5), 2, 1e5}, {SafeString("-\0", 2), 0, -0.0}, {"-", 0, 0.0},
      {SafeString("0x\0", 3), 3, 0.0}, {SafeString("1e\0", 3), 0, 0.0}, {SafeString("1e-\0", 4), 0, 0.0},
      // Not numbers.
      {"", 0, 0.0}, {"x", 0, 0.0}, {".", 0, 0.0}, {"+", 0, 0.0}, {"e5", 0, 0.0}, {"0x", 0, 0.0},
      {"0x1g", 0, 0.0}, {"1.2.3", 0, 0.0}, {"NaN", 0, 0.0}, {"inff", 0, 0.0}, {"-nan", 0, 0.0},
      {"1e", 0, 0.0}, {"1e+", 0, 0.0}, {"1e5.0", 0, 0.0}, {".e5", 0, 0.0}, {"1ee5", 0, 0.0},
      {"1e5e", 0, 0.0}, {"12a", 0, 0.0}, {"--1", 0, 0.0}, {"+-1", 0, 0.0}, {"0x1.5", 0, 0.0},
      {"-0x1", 0, 0.0}, {" 1", 0, 0.0}, {"1 ", 0, 0.0}, {"ab", 0, 0.0}, {"1.5 ", 0, 0.0}};
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 30).c_str());
    EXPECT_EQ(StringUtils::GetNumberFormat(c.text), c.code);
    const double value = StringUtils::StringToFloat(c.text);
    EXPECT_TRUE(std::isnan(c.value) ? std::isnan(value) : value == c.value);
    EXPECT_EQ(std::signbit(value), std::signbit(c.value));
  }
}

// Beyond the largest double, leading zeros after the point, halfway (to
// even), just above halfway, before and after the point, dropped zeros only,
// rounding up to 1, a subnormal, out of range below and above, zeros only
// with an exponent beyond the range.
TEST_F(NumberTextTest, LongMantissasRoundAsTheWholeTextAndNeverAllocate) {
  const std::string zeros(800, '0');
  // clang-format off
  const std::string cases[] = {
      std::string(60, '7'), "0." + std::string(59, '3'), "1" + zeros, "0." + zeros + "25e801",
      "9007199254740993", "9007199254740993" + zeros + "1", "9007199254740993." + zeros + "1",
      "9007199254740992" + zeros + "e-800", "-" + std::string(1000, '9') + "e-1000",
      "1" + zeros + "e-1100", "0." + zeros + "1e-2147483647", "1" + zeros + "1e2147483647",
      zeros + "e400"};
  // clang-format on
  for (const std::string& text : cases) {
    SCOPED_TRACE(text.substr(0, 24) + "... (" + std::to_string(text.size()) + " bytes)");
    const SafeString input(text.c_str());
    double value = 1.0;
    zorv::test::FailAfterGuard fail(1);
    EXPECT_NO_THROW(value = StringUtils::StringToFloat(input));
    // The failure meant for the parser's first allocation is still pending.
    EXPECT_THROW(SafeString(100, 'x'), std::bad_alloc);
    EXPECT_EQ(value, std::strtod(text.c_str(), nullptr));
  }
}

TEST_F(NumberTextTest, FloatToStringIsShortestAndReadsBack) {
  struct Case {
    double value;
    const char* text;
  };
  // clang-format off
  const Case cases[] = {{0.1, "0.1"}, {100.0, "100"}, {-2.5, "-2.5"}, {0.0, "0"}, {-0.0, "-0"},
                        {1e22, "1e+22"}, {kNan, "nan"}, {-kNan, "nan"}, {HUGE_VAL, "inf"},
                        {-HUGE_VAL, "-inf"}, {1.5e-7, "1.5e-07"}};
  const double edges[] = {DBL_MAX, -DBL_MAX, DBL_MIN, DBL_TRUE_MIN, 1.0 / 3.0, 123456789.125,
                          0.30000000000000004, 9007199254740993.0, 1e-7, 1e21, HUGE_VAL};
  // clang-format on
  for (const Case& c : cases) EXPECT_EQ(StringUtils::FloatToString(c.value), c.text) << c.text;
  std::mt19937_64 random(7);
  for (size_t i = 0; i < 20000; ++i) {
    double v = i < std::size(edges) ? edges[i] : 0.0;
    const unsigned long long bits = random();
    if (i >= std::size(edges)) std::memcpy(&v, &bits, sizeof(v));
    if (std::isnan(v)) continue;
    const SafeString text = StringUtils::FloatToString(v);
    SCOPED_TRACE(text.c_str());
    const int code = StringUtils::GetNumberFormat(text);
    ASSERT_TRUE(code == 1 || code == 2);
    const double back = StringUtils::StringToFloat(text);
    ASSERT_EQ(std::memcmp(&back, &v, sizeof(v)), 0);
    // Shortest: one significant digit fewer never reads back (integral
    // values, written in full, are left out).
    if (i % 50 != 0 || text.find_first_of(".e") == SafeString::npos) continue;
    int significant = 0;
    for (char c : text.substr(0, text.find('e'))) {
      if (c >= '0' && c <= '9' && (significant > 0 || c != '0')) ++significant;
    }
    char shorter[400];
    std::snprintf(shorter, sizeof(shorter), "%.*g", significant > 1 ? significant - 1 : 1, v);
    EXPECT_TRUE(significant < 2 || std::strtod(shorter, nullptr) != v) << shorter;
  }
}

}  // namespace
