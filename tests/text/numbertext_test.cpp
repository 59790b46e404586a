// Tests of StringUtils' number text conversions and number classification.
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <random>
#include <string>

#include "foundation/text/stringutils.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::text::StringUtils;

using IntegerTextTest = zorv::test::LeakCheckedTest;
using FloatTextTest = zorv::test::LeakCheckedTest;
using NumberFormatTest = zorv::test::LeakCheckedTest;

TEST_F(IntegerTextTest, IntegersToDecimalText) {
  EXPECT_EQ(StringUtils::IntToString(0), "0");
  EXPECT_EQ(StringUtils::IntToString(7), "7");
  EXPECT_EQ(StringUtils::IntToString(-7), "-7");
  EXPECT_EQ(StringUtils::IntToString(INT_MAX), "2147483647");
  EXPECT_EQ(StringUtils::IntToString(INT_MIN), "-2147483648");
  EXPECT_EQ(StringUtils::IntToString(INT_MIN + 1), "-2147483647");
  EXPECT_EQ(StringUtils::LongToString(0), "0");
  EXPECT_EQ(StringUtils::LongToString(LLONG_MAX), "9223372036854775807");
  EXPECT_EQ(StringUtils::LongToString(LLONG_MIN), "-9223372036854775808");
  EXPECT_EQ(StringUtils::LongToString(-1000000000000ll), "-1000000000000");
  EXPECT_EQ(StringUtils::UIntToString(0), "0");
  EXPECT_EQ(StringUtils::UIntToString(UINT_MAX), "4294967295");
  EXPECT_EQ(StringUtils::ULongToString(0), "0");
  EXPECT_EQ(StringUtils::ULongToString(ULLONG_MAX), "18446744073709551615");
  EXPECT_EQ(StringUtils::ULongToString(10), "10");
  EXPECT_EQ(StringUtils::ULongToString(100), "100");
}

TEST_F(IntegerTextTest, HexText) {
  EXPECT_EQ(StringUtils::ULongToHexString(255, true), "0xFF");
  EXPECT_EQ(StringUtils::ULongToHexString(255, false), "FF");
  EXPECT_EQ(StringUtils::ULongToHexString(0, false), "0");
  EXPECT_EQ(StringUtils::ULongToHexString(0, true), "0x0");
  EXPECT_EQ(StringUtils::ULongToHexString(ULLONG_MAX, true), "0xFFFFFFFFFFFFFFFF");
  EXPECT_EQ(StringUtils::ULongToHexString(0x1000ABCull, false), "1000ABC");
}

TEST_F(IntegerTextTest, ParseEdgeCases) {
  struct Case {
    const char* text;
    size_t length;
    int asInt;
    unsigned int asUInt;
    long long asLong;
    unsigned long long asULong;
  };
  const Case cases[] = {
      {"-0", 2, 0, 0, 0, 0},
      {"000123", 6, 123, 123, 123, 123},
      {"00000000000", 11, 0, 0, 0, 0},
      {"0", 1, 0, 0, 0, 0},
      {"+42", 3, 42, 42, 42, 42},
      {"-42", 3, -42, 4294967254u, -42, 18446744073709551574ull},
      {"12345678901", 11, 0, 0, 12345678901ll, 12345678901ull},
      {"4294967297", 10, 1, 1, 4294967297ll, 4294967297ull},
      {"2147483648", 10, INT_MIN, 2147483648u, 2147483648ll, 2147483648ull},
      {"-2147483648", 11, INT_MIN, 2147483648u, -2147483648ll, 18446744071562067968ull},
      {"9999999999", 10, 1410065407, 1410065407u, 9999999999ll, 9999999999ull},
      {"-1", 2, -1, 4294967295u, -1, ULLONG_MAX},
      {" 12", 3, 0, 0, 0, 0},
      {"12 ", 3, 0, 0, 0, 0},
      {"1.5", 3, 0, 0, 0, 0},
      {"", 0, 0, 0, 0, 0},
      {"-", 1, 0, 0, 0, 0},
      {"+-1", 3, 0, 0, 0, 0},
      {"--1", 3, 0, 0, 0, 0},
      {"0x10", 4, 0, 0, 0, 0},
      {"1e3", 3, 0, 0, 0, 0},
      {"\xff", 1, 0, 0, 0, 0},
      {"9223372036854775807", 19, 0, 0, LLONG_MAX, 9223372036854775807ull},
      {"9223372036854775808", 19, 0, 0, LLONG_MIN, 9223372036854775808ull},
      {"-9223372036854775808", 20, 0, 0, LLONG_MIN, 9223372036854775808ull},
      {"18446744073709551615", 20, 0, 0, 0, ULLONG_MAX},
      {"18446744073709551616", 20, 0, 0, 0, 0},
      {"99999999999999999999", 20, 0, 0, 0, 7766279631452241919ull},
      {"123456789012345678901", 21, 0, 0, 0, 0},
      {"0000000000000000000000000007", 28, 7, 7, 7, 7},
      // An embedded zero byte ends the digits; the count is the full length.
      {"12\0ab", 5, 12, 12, 12, 12},
      {"12\0abcdefghijk", 14, 0, 0, 12, 12},
  };
  for (const Case& c : cases) {
    const SafeString text(c.text, c.length);
    SCOPED_TRACE(std::string(c.text, c.length));
    EXPECT_EQ(StringUtils::StringToInt(text), c.asInt);
    EXPECT_EQ(StringUtils::StringToUInt(text), c.asUInt);
    EXPECT_EQ(StringUtils::StringToLong(text), c.asLong);
    EXPECT_EQ(StringUtils::StringToULong(text), c.asULong);
  }
}

TEST_F(IntegerTextTest, DigitLimits) {
  // 10 digits for the 32-bit parsers, 19 and 20 for the 64-bit ones; leading
  // zeros and the sign do not count.
  for (int digits = 1; digits <= 22; ++digits) {
    SCOPED_TRACE(digits);
    const SafeString ones(static_cast<size_t>(digits), '1');
    unsigned int u32 = 0;
    unsigned long long u64 = 0;
    for (int i = 0; i < digits; ++i) {
      u32 = u32 * 10 + 1;
      u64 = u64 * 10 + 1;
    }
    EXPECT_EQ(StringUtils::StringToUInt(ones), digits <= 10 ? u32 : 0u);
    EXPECT_EQ(StringUtils::StringToUInt("-00" + ones), digits <= 10 ? 0u - u32 : 0u);
    EXPECT_EQ(StringUtils::StringToInt("+" + ones), digits <= 10 ? static_cast<int>(u32) : 0);
    EXPECT_EQ(StringUtils::StringToLong(ones), digits <= 19 ? static_cast<long long>(u64) : 0);
    EXPECT_EQ(StringUtils::StringToULong("000" + ones), digits <= 20 ? u64 : 0u);
    EXPECT_EQ(StringUtils::StringToULong("-" + ones), digits <= 20 ? 0ull - u64 : 0u);
  }
}

TEST_F(IntegerTextTest, RoundTripsOverTheFullRanges) {
  std::mt19937_64 random(42);
  const long long longEdges[] = {0,
                                 1,
                                 -1,
                                 9,
                                 10,
                                 -10,
                                 99,
                                 100,
                                 INT_MAX,
                                 INT_MIN,
                                 LLONG_MAX,
                                 LLONG_MIN,
                                 LLONG_MAX - 1,
                                 LLONG_MIN + 1,
                                 999999999999999999ll,
                                 1000000000000000000ll,
                                 -1000000000000000000ll};
  for (long long v : longEdges) {
    SCOPED_TRACE(v);
    EXPECT_EQ(StringUtils::StringToLong(StringUtils::LongToString(v)), v);
    char expected[32];
    std::snprintf(expected, sizeof(expected), "%lld", v);
    EXPECT_EQ(StringUtils::LongToString(v), expected);
  }
  for (int i = 0; i < 20000; ++i) {
    const unsigned long long bits = random();
    // Vary the digit count too: shift away a random number of bits.
    const unsigned long long u = bits >> (random() % 64);
    const long long l = static_cast<long long>(random()) >> (random() % 64);
    const unsigned int u32 = static_cast<unsigned int>(u);
    const int i32 = static_cast<int>(l);
    ASSERT_EQ(StringUtils::StringToULong(StringUtils::ULongToString(u)), u);
    ASSERT_EQ(StringUtils::StringToLong(StringUtils::LongToString(l)), l);
    ASSERT_EQ(StringUtils::StringToUInt(StringUtils::UIntToString(u32)), u32);
    ASSERT_EQ(StringUtils::StringToInt(StringUtils::IntToString(i32)), i32);
    ASSERT_EQ(StringUtils::HexStringToULong(StringUtils::ULongToHexString(u, true)), u);
    ASSERT_EQ(StringUtils::GetNumberFormat(StringUtils::LongToString(l)), 1);
    ASSERT_EQ(StringUtils::GetNumberFormat(StringUtils::ULongToHexString(u, true)), 3);
    char expected[32];
    std::snprintf(expected, sizeof(expected), "%llu", u);
    ASSERT_EQ(StringUtils::ULongToString(u), expected);
    std::snprintf(expected, sizeof(expected), "%d", i32);
    ASSERT_EQ(StringUtils::IntToString(i32), expected);
  }
  EXPECT_EQ(StringUtils::StringToInt(StringUtils::IntToString(INT_MIN)), INT_MIN);
  EXPECT_EQ(StringUtils::StringToUInt(StringUtils::UIntToString(UINT_MAX)), UINT_MAX);
  EXPECT_EQ(StringUtils::StringToULong(StringUtils::ULongToString(ULLONG_MAX)), ULLONG_MAX);
}

TEST_F(IntegerTextTest, HexParse) {
  struct Case {
    const char* text;
    unsigned long long value;
  };
  const Case cases[] = {
      {"0x1F", 31},
      {"0X1f", 31},
      {"0xabcdef", 0xABCDEF},
      {"0xFFFFFFFFFFFFFFFF", ULLONG_MAX},
      {"0x0000000000000001", 1},
      {"0x00000000000000001", 0},  // 17 digits
      {"1F", 0},
      {"0x", 0},
      {"0x1g", 0},
      {"-0x1", 0},
      {"0x-1", 0},
      {" 0x1", 0},
      {"00x1", 0},
      {"0xG", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(StringUtils::HexStringToULong(c.text), c.value);
  }
  EXPECT_EQ(StringUtils::HexStringToULong(SafeString("0x1\0f", 5)), 1u);
}

TEST_F(NumberFormatTest, Classification) {
  struct Case {
    const char* text;
    int code;
  };
  const Case cases[] = {
      {"", 0},      {"7", 1},    {"x", 0},      {".", 0},
      {"12", 1},    {"-1", 1},   {"+1", 1},     {"-", 0},
      {"1e5", 2},   {"e5", 0},   {"0x", 0},     {"0x1g", 0},
      {"0xAB", 3},  {"0Xab", 3}, {"1.2.3", 0},  {"+inf", 2},
      {"-inf", 2},  {"inf", 2},  {"nan", 2},    {"NaN", 0},
      {"1.", 2},    {".5", 2},   {"-.", 2},     {"1e", 0},
      {"1e+", 0},   {"1e-5", 2}, {"1E+05", 2},  {"1.5e3", 2},
      {"1e5.0", 0}, {".e5", 0},  {"-.5e-3", 2}, {"1ee5", 0},
      {"1e5e", 0},  {"12a", 0},  {"--1", 0},    {"+-1", 0},
      {"0x1.5", 0}, {"-0x1", 0}, {"00123", 1},  {" 1", 0},
      {"1 ", 0},    {"+", 0},    {"ab", 0},     {"1.5 ", 0},
      {"inff", 0},  {"-nan", 0}, {"0x0", 3},    {"1e0000000000000000000001", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(StringUtils::GetNumberFormat(c.text), c.code);
  }
  EXPECT_EQ(StringUtils::GetNumberFormat(SafeString("12\0x", 4)), 1);
  EXPECT_EQ(StringUtils::GetNumberFormat(SafeString("-\0", 2)), 0);
  EXPECT_EQ(StringUtils::GetNumberFormat(SafeString("\0", 1)), 0);
}

TEST_F(FloatTextTest, Parse) {
  struct Case {
    const char* text;
    double value;
  };
  const Case cases[] = {
      {"2.5e2", 250.0},
      {"7", 7.0},
      {"x", 0.0},
      {"", 0.0},
      {"0.1", 0.1},
      {"-2.5", -2.5},
      {"+2.5", 2.5},
      {"1.", 1.0},
      {".5", 0.5},
      {"1e3", 1000.0},
      {"1E-3", 0.001},
      {"-1.5e+2", -150.0},
      {"1.2.3", 0.0},
      {"1e", 0.0},
      {"1e+", 0.0},
      {"e5", 0.0},
      {"1x", 0.0},
      {"12 ", 0.0},
      {"1e5.5", 0.0},
      {"1e00005", 1e5},
      {"1e12345678901", 0.0},  // exponent beyond 10 digits
      {"123456789012345678901234567890", 123456789012345678901234567890.0},
      {"0.000001", 1e-6},
      {"1e400", HUGE_VAL},
      {"-1e400", -HUGE_VAL},
      {"1e-400", 0.0},
      {"4.9406564584124654e-324", 4.9406564584124654e-324},
      {"1.7976931348623157e308", DBL_MAX},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(StringUtils::StringToFloat(c.text), c.value);
  }
  EXPECT_TRUE(std::isnan(StringUtils::StringToFloat("nan")));
  EXPECT_EQ(StringUtils::StringToFloat("inf"), HUGE_VAL);
  EXPECT_EQ(StringUtils::StringToFloat("+inf"), HUGE_VAL);
  EXPECT_EQ(StringUtils::StringToFloat("-inf"), -HUGE_VAL);
  EXPECT_EQ(StringUtils::StringToFloat("-."), 0.0);
  EXPECT_EQ(StringUtils::StringToFloat(SafeString("1.5\0zz", 6)), 1.5);
  EXPECT_EQ(StringUtils::StringToFloat(SafeString("1e\0", 3)), 0.0);
  EXPECT_EQ(StringUtils::StringToFloat(SafeString("1e-\0", 4)), 0.0);
  // The exponent follows the integer rules, wrap-around included.
  EXPECT_EQ(StringUtils::StringToFloat("1e4294967297"), 10.0);
  const SafeString longMantissa = "1." + SafeString(500, '0') + "1e2";
  EXPECT_EQ(StringUtils::StringToFloat(longMantissa), 100.0);
}

TEST_F(FloatTextTest, LongMantissasRoundAsTheWholeTextAndNeverAllocate) {
  const std::string zeros(800, '0');
  const std::string cases[] = {
      std::string(60, '7'),
      "0." + std::string(59, '3'),
      "1" + zeros,                                  // beyond the largest double
      "0." + zeros + "25e801",                      // leading zeros after the point
      "9007199254740993",                           // halfway: rounds to even
      "9007199254740993" + zeros + "1",             // just above halfway: rounds up
      "9007199254740993." + zeros + "1",            // the same after the point
      "9007199254740992" + zeros + "e-800",         // dropped zeros only
      "-" + std::string(1000, '9') + "e-1000",      // rounds up to 1
      "1" + zeros + "e-1100",                       // underflows to a subnormal
      "0." + zeros + "1e-2147483647",               // out of range below
      "1" + zeros + "1e2147483647",                 // out of range above
  };
  for (const std::string& text : cases) {
    SCOPED_TRACE(text.substr(0, 24) + "... (" + std::to_string(text.size()) + " bytes)");
    const double expected = std::strtod(text.c_str(), nullptr);
    const SafeString input(text.c_str());
    double value = 1.0;
    zorv::test::FailAfterGuard fail(1);
    EXPECT_NO_THROW(value = StringUtils::StringToFloat(input));
    // The failure meant for the parser's first allocation is still pending.
    EXPECT_THROW(SafeString(100, 'x'), std::bad_alloc);
    EXPECT_EQ(value, expected);
  }
}

TEST_F(FloatTextTest, FloatToStringIsShortestAndReadsBack) {
  EXPECT_EQ(StringUtils::FloatToString(0.1), "0.1");
  EXPECT_EQ(StringUtils::FloatToString(100.0), "100");
  EXPECT_EQ(StringUtils::FloatToString(-2.5), "-2.5");
  EXPECT_EQ(StringUtils::FloatToString(0.0), "0");
  EXPECT_EQ(StringUtils::FloatToString(-0.0), "-0");
  EXPECT_EQ(StringUtils::FloatToString(1e22), "1e+22");
  EXPECT_EQ(StringUtils::FloatToString(std::numeric_limits<double>::quiet_NaN()), "nan");
  EXPECT_EQ(StringUtils::FloatToString(-std::numeric_limits<double>::quiet_NaN()), "nan");
  EXPECT_EQ(StringUtils::FloatToString(HUGE_VAL), "inf");
  EXPECT_EQ(StringUtils::FloatToString(-HUGE_VAL), "-inf");

  std::mt19937_64 random(7);
  const double edges[] = {DBL_MAX,
                          -DBL_MAX,
                          DBL_MIN,
                          DBL_TRUE_MIN,
                          1.0 / 3.0,
                          123456789.125,
                          0.30000000000000004,
                          5e-324,
                          9007199254740993.0,
                          1e-7,
                          1e21};
  for (int i = 0; i < 20000 + static_cast<int>(sizeof(edges) / sizeof(edges[0])); ++i) {
    double v;
    if (i < static_cast<int>(sizeof(edges) / sizeof(edges[0]))) {
      v = edges[i];
    } else {
      const unsigned long long bits = random();
      std::memcpy(&v, &bits, sizeof(v));
      if (!std::isfinite(v)) continue;
    }
    const SafeString text = StringUtils::FloatToString(v);
    SCOPED_TRACE(text.c_str());
    const int code = StringUtils::GetNumberFormat(text);
    ASSERT_TRUE(code == 1 || code == 2);
    const double back = StringUtils::StringToFloat(text);
    ASSERT_EQ(std::memcmp(&back, &v, sizeof(v)), 0);
    // Shortest: one significant digit fewer never reads back. (Large
    // integral values are written in full when that is no longer than the
    // exponent form, so they are left out here.)
    const bool integral = text.find_first_of(".e") == SafeString::npos;
    if (i % 50 == 0 && !integral) {
      std::string digits;
      for (char c : text.substr(0, text.find('e'))) {
        if (c >= '0' && c <= '9') digits += c;
      }
      digits.erase(0, digits.find_first_not_of('0'));
      const size_t last = digits.find_last_not_of('0');
      digits.erase(last == std::string::npos ? 0 : last + 1);
      if (digits.size() >= 2) {
        char shorter[40];
        std::snprintf(shorter, sizeof(shorter), "%.*g", static_cast<int>(digits.size() - 1), v);
        EXPECT_NE(std::strtod(shorter, nullptr), v) << shorter;
      }
    }
  }
  for (double v : {HUGE_VAL, -HUGE_VAL}) {
    EXPECT_EQ(StringUtils::StringToFloat(StringUtils::FloatToString(v)), v);
    EXPECT_EQ(StringUtils::GetNumberFormat(StringUtils::FloatToString(v)), 2);
  }
  EXPECT_TRUE(std::isnan(StringUtils::StringToFloat(
      StringUtils::FloatToString(std::numeric_limits<double>::quiet_NaN()))));
}

}  // namespace
