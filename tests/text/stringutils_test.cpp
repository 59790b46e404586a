// Tests of StringUtils: comparison, hashing, trimming, case, splitting,
// formatting, number text conversions and number classification.
#include "foundation/text/stringutils.h"

#include <locale.h>
#include <sys/mman.h>
#include <unistd.h>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include <cctype>
#include <cfenv>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <new>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/leakcheck.h"
#include "support/tempdir.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::text::StringUtils;

using StringUtilsTest = zorv::test::LeakCheckedTest;
using NumberTextTest = zorv::test::LeakCheckedTest;

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

SafeString Bytes(const char* data, size_t n) { return SafeString(data, n); }

std::string Shown(const char* s) { return s ? s : "(null)"; }

TEST_F(StringUtilsTest, ComparisonsPrefixesAndCommonPrefix) {
  // compare: the exact difference of the first differing bytes, compareNoCase
  // the same after folding to upper case; startWith, endWith: a starts or
  // ends with b; common: GetPublicPrefix.
  // clang-format off
  const std::tuple<const char*, const char*, int, int, bool, bool, int> cases[] = {
      {nullptr, "x", 0, 0, false, false, 0}, {"x", nullptr, 1, 1, false, false, 0},
      {nullptr, nullptr, 0, 0, false, false, 0}, {"abc", "abc", 0, 0, true, true, 3},
      {"", "", 0, 0, false, false, 0}, {"abc", "", 'a', 'A', false, false, 0},
      {"", "a", -'a', -'A', false, false, 0}, {"ab", "abc", -'c', -'C', false, false, 2},
      {"abc", "ab", 'c', 'C', true, false, 2}, {"abc", "bc", 'a' - 'b', 'A' - 'B', false, true, 0},
      {"bc", "abc", 'b' - 'a', 'B' - 'A', false, false, 0}, {"ABC", "abc", 'A' - 'a', 0, false, false, 0},
      {"\xff", "a", 0xFF - 'a', 0xFF - 'A', false, false, 0}, {"a", "[", 'a' - '[', 'A' - '[', false, false, 0},
      {"HeLLo", "hEllO", 'H' - 'h', 0, false, false, 0}, {"\xe9", "\xc9", 0xE9 - 0xC9, 0x20, false, false, 0},
      {"\xe9x", "\xe9X", 'x' - 'X', 0, false, false, 1},
      {"file.TXT", ".txt", 'f' - '.', 'F' - '.', false, false, 0}};
  // clang-format on
  for (const auto& [a, b, compare, compareNoCase, startWith, endWith, common] : cases) {
    SCOPED_TRACE(Shown(a) + " vs " + Shown(b));
    EXPECT_EQ(StringUtils::Compare(a, b), compare);
    EXPECT_EQ(StringUtils::CompareNoCase(a, b), compareNoCase);
    EXPECT_EQ(StringUtils::StartWith(a, b), startWith);
    EXPECT_EQ(StringUtils::EndWith(a, b), endWith);
    EXPECT_EQ(StringUtils::GetPublicPrefix(a, b), common);
    // Behind a head that is equal without case, of lengths on both sides of
    // where a comparison stops going byte by byte, the same result.
    if (a == nullptr || b == nullptr) continue;
    const std::string head = "Network.Interface.Eth0.Gateway.Metric..";
    for (size_t length : {15u, 16u, 17u, 39u}) {
      std::string lowered = head.substr(0, length);
      for (char& c : lowered) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      SCOPED_TRACE(length);
      EXPECT_EQ(StringUtils::CompareNoCase((head.substr(0, length) + a).c_str(),
                                           (lowered + b).c_str()),
                compareNoCase);
      EXPECT_EQ(StringUtils::Compare((lowered + a).c_str(), (lowered + b).c_str()), compare);
    }
  }
}

// Random texts of letters and the bytes beside them in the code table, one
// of them ending where an unreadable page begins, against a byte-by-byte
// comparison, with and without a fold to upper case.
TEST_F(StringUtilsTest, ComparisonsOfRandomTextsEndingAtAPage) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  char* areas[2];
  for (char*& area : areas) {
    area = static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE,
                                   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(area, MAP_FAILED);
    ASSERT_EQ(mprotect(area + page, page, PROT_NONE), 0);
  }
  const auto upper = [](unsigned char c) { return c >= 'a' && c <= 'z' ? c - 0x20 : c; };
  const char alphabet[] = "@AMZ[`amz{\x7f\xc1\xe1";
  std::mt19937 random(20261127);
  for (int round = 0; round < 20000; ++round) {
    std::string a;
    for (size_t n = random() % 48; n > 0; --n) a += alphabet[random() % (sizeof alphabet - 1)];
    std::string b = a;
    for (char& c : b) c = static_cast<char>(random() % 3 == 0 ? c ^ 0x20 : c);
    if (random() % 2 == 0) b.resize(random() % (b.size() + 2), 'm');
    // The text at the page's end by turns; the other one anywhere.
    const size_t other = random() % (page - b.size() - a.size() - 2);
    char* x = areas[0] + (round % 2 == 0 ? page - a.size() - 1 : other);
    char* y = areas[1] + (round % 2 == 0 ? other : page - b.size() - 1);
    std::memcpy(x, a.c_str(), a.size() + 1);
    std::memcpy(y, b.c_str(), b.size() + 1);
    size_t i = 0;
    while (a[i] != 0 && upper(a[i]) == upper(b[i])) ++i;
    size_t j = 0;
    while (a[j] != 0 && a[j] == b[j]) ++j;
    SCOPED_TRACE("'" + a + "' vs '" + b + "'");
    ASSERT_EQ(StringUtils::CompareNoCase(x, y), upper(a[i]) - upper(b[i]));
    ASSERT_EQ(StringUtils::Compare(x, y), (a[j] & 0xFF) - (b[j] & 0xFF));
  }
  for (char* area : areas) munmap(area, 2 * page);
}

TEST_F(StringUtilsTest, HashNoCaseIsFnv1aOverUpperCase) {
  // FNV-1a of "A\0BHI" and of "A".
  const char text[] = {'a', '\0', 'b', 'H', 'i'};
  EXPECT_EQ(StringUtils::HashNoCase(text, text + 5), 0x42C49825u);
  EXPECT_EQ(StringUtils::HashNoCase(text, text + 1), 0xC40BF6CCu);
  EXPECT_EQ(StringUtils::HashNoCase("A", nullptr), 2166136261u);
  EXPECT_EQ(StringUtils::HashNoCase(text + 1, text), 2166136261u);
  EXPECT_EQ(StringUtils::HashNoCase(nullptr, text), 2166136261u);
}

TEST_F(StringUtilsTest, TrimRemovesSpacesAndTabsOnly) {
  // An input, Trim, TrimLeft and TrimRight of it. An embedded zero ends the
  // result only when leading blanks were skipped.
  // clang-format off
  const std::tuple<SafeString, SafeString, SafeString, SafeString> cases[] = {
      {"\t a b \t", "a b", "a b \t", "\t a b"}, {"\r\nx", "\r\nx", "\r\nx", "\r\nx"},
      {"   ", "", "", ""}, {"", "", "", ""}, {"\v x \f", "\v x \f", "\v x \f", "\v x \f"},
      {Bytes("a\0b ", 4), Bytes("a\0b", 3), Bytes("a\0b ", 4), Bytes("a\0b", 3)},
      {Bytes(" a\0b ", 5), "a", "a", Bytes(" a\0b", 4)}, {Bytes(" \0 ", 3), "", "", Bytes(" \0", 2)},
      {SafeString(40, ' '), "", "", ""}};  // blanks in a heap block, nothing before them read
  // clang-format on
  for (const auto& [in, both, left, right] : cases) {
    SCOPED_TRACE("input of length " + std::to_string(in.size()) + ": " + in.c_str());
    EXPECT_EQ(StringUtils::Trim(in), both);
    EXPECT_EQ(StringUtils::TrimLeft(in), left);
    EXPECT_EQ(StringUtils::TrimRight(in), right);
  }
}

TEST_F(StringUtilsTest, CaseConversionTouchesAsciiLettersOnly) {
  EXPECT_EQ(StringUtils::ToUpper(nullptr), "");
  std::string all, upper, lower;
  for (int i = 1; i < 256; ++i) {
    all += static_cast<char>(i);
    upper += static_cast<char>(i >= 'a' && i <= 'z' ? i - 32 : i);
    lower += static_cast<char>(i >= 'A' && i <= 'Z' ? i + 32 : i);
  }
  EXPECT_EQ(StringUtils::ToUpper(all.c_str()).str(), upper);
  EXPECT_EQ(StringUtils::ToLower(all.c_str()).str(), lower);
}

TEST_F(StringUtilsTest, SplitAppendsEveryPiece) {
  // A text, the separator, what Split returns and the pieces after "old".
  // clang-format off
  const std::tuple<const char*, char, bool, std::vector<std::string>> cases[] = {
      {"a,,b,", ',', true, {"old", "a", "", "b", ""}}, {"abc", ',', false, {"old", "abc"}},
      {"", ',', false, {"old", ""}}, {",a", ',', true, {"old", "", "a"}},
      {"k=v=x", '=', true, {"old", "k", "v", "x"}}, {"abc", '\0', false, {"old", "abc"}},
      {nullptr, ',', false, {"old", ""}}, {"a\xff\xff" "b", '\xff', true, {"old", "a", "", "b"}}};
  // clang-format on
  for (const auto& [text, separator, found, expected] : cases) {
    SCOPED_TRACE(Shown(text));
    Vector<SafeString> pieces(1, SafeString("old"));
    EXPECT_EQ(StringUtils::Split(text, separator, pieces), found);
    ASSERT_EQ(pieces.size(), expected.size());
    for (size_t i = 0; i < pieces.size(); ++i) EXPECT_EQ(pieces[i], expected[i].c_str());
  }
}

// ---- Formatting ---------------------------------------------------------------

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
// Format against the C library's text for the same arguments; where the C
// library fails, Format gives "".
template <class... T>
void ExpectLikeTheCLibrary(const std::string& format, T... values) {
  SCOPED_TRACE(format);
  std::vector<char> expected(8192);
  const int n = std::snprintf(expected.data(), expected.size(), format.c_str(), values...);
  ASSERT_LT(n, static_cast<int>(expected.size()));
  const SafeString got = StringUtils::Format(format.c_str(), values...);
  EXPECT_EQ(got.str(), std::string(expected.data(), n < 0 ? 0 : static_cast<size_t>(n)));
}
#pragma GCC diagnostic pop

TEST_F(StringUtilsTest, FormatWritesWhatTheCLibraryWrites) {
  const long long ints[] = {0, 1, -1, 42, -123456, INT_MAX, INT_MIN};
  const unsigned long long uints[] = {0, 1, 255, 0xDEADBEEFull, UINT_MAX, ULLONG_MAX};
  const double reals[] = {0.0,     -0.0,  0.5,      1.5,        2.5,  -2.5,  0.125,
                          3.14159, 1e-7,  0.045,    123456.789, 1e15, -1e20, 9.995,
                          DBL_MIN, 1e300, HUGE_VAL, -HUGE_VAL,  NAN};
  const char* strings[] = {"", "abc", "hello, world", "\xe9t\xe9"};
  for (const char* flags : {"", "-", "0", "+", " ", "-0", "+0", " +", "#", "'"}) {
    for (const char* width : {"", "1", "12", "200"}) {
      for (const char* precision : {"", ".", ".3", ".12"}) {
        const std::string directive = std::string("%") + flags + width + precision;
        // One format per kind of conversion: the quick formatter takes all of
        // it or none.
        const auto each = [&directive](std::initializer_list<std::string> conversions) {
          std::string format;
          for (const std::string& c : conversions) format += directive + c + "|";
          return format;
        };
        for (long long v : ints) {
          ExpectLikeTheCLibrary(each({"d", "i", "lld", "ld"}), static_cast<int>(v),
                                static_cast<int>(v), v, static_cast<long>(v));
          ExpectLikeTheCLibrary(each({"hd", "hhd", "jd", "td"}), static_cast<short>(v),
                                static_cast<signed char>(v), static_cast<intmax_t>(v),
                                static_cast<ptrdiff_t>(v));
        }
        for (unsigned long long v : uints) {
          for (const std::string c : {"u", "x", "X", "o"}) {
            const std::string format = each({c, "ll" + c, "l" + c, "z" + c, "hh" + c, "h" + c});
            ExpectLikeTheCLibrary(format, static_cast<unsigned int>(v), v,
                                  static_cast<unsigned long>(v), static_cast<size_t>(v),
                                  static_cast<unsigned char>(v), static_cast<unsigned short>(v));
          }
        }
        for (double v : reals) {
          ExpectLikeTheCLibrary(each({"f", "F", "lf"}), v, v, v);
          ExpectLikeTheCLibrary(each({"e", "g"}), v, v);
        }
        for (const char* s : strings) ExpectLikeTheCLibrary(directive + "s", s);
        ExpectLikeTheCLibrary(each({"c", "c"}), 'z', 0);
        ExpectLikeTheCLibrary(directive + "%");
        ExpectLikeTheCLibrary(directive + "p", static_cast<void*>(nullptr));
      }
    }
  }
  // Whole lines, a null string, '*' and positions, failures, texts around
  // the quick formatter's 512 bytes, and another rounding mode.
  ExpectLikeTheCLibrary("%04d-%02d-%02d %02d:%02d:%02d.%03d [%-8s] %5s %s: %u bytes in %.3f s",
                        2026, 11, 22, 4, 5, 6, 7, "io", "DEBUG", "socket", 4096u, 0.0125);
  ExpectLikeTheCLibrary("id=%llu handle 0x%08x state %d load %.1f%% %s", 1ull << 40, 0xBEEFu, -3,
                        99.95, static_cast<const char*>(nullptr));
  ExpectLikeTheCLibrary("[%*d|%-*.*s]", 6, 42, 8, 2, "abcdef");
  ExpectLikeTheCLibrary("%2$s %1$d", 5, "x");
  // A length, then a conversion's letter as text.
  ExpectLikeTheCLibrary("%hdd %ldu", static_cast<short>(-300), -300L);
  ExpectLikeTheCLibrary("%llf", 0.125L);  // the C library reads 'll' as 'L' here
  ExpectLikeTheCLibrary("trailing %");
  // A wide character that has no multibyte form in the C locale makes
  // vsnprintf fail.
  const wchar_t wide[] = {static_cast<wchar_t>(0x20AC), 0};
  ExpectLikeTheCLibrary("%ls", wide);
  ExpectLikeTheCLibrary("%lc", static_cast<wint_t>(wide[0]));
  for (size_t n : {509u, 510u, 511u, 512u, 513u, 1000u}) {
    ExpectLikeTheCLibrary("%s%d", std::string(n - 2, 'q').c_str(), 42);
    // At 513 the text fills the quick buffer and leaves no room for the sign.
    ExpectLikeTheCLibrary("%s%+d", std::string(n - 1, 'q').c_str(), 42);
    ExpectLikeTheCLibrary(std::string(n - 2, 'q') + "%d", 42);
    ExpectLikeTheCLibrary("%s%8d|%-8d", std::string(n - 15, 'q').c_str(), 42, 42);
  }
  std::fesetround(FE_UPWARD);
  ExpectLikeTheCLibrary("%.1f %.0f", 0.25, 2.5);
  std::fesetround(FE_TONEAREST);
}

// The decimal point is the locale's: here a comma, from a locale made with
// localedef (only LC_NUMERIC; the warnings for the others make its status
// nonzero) and loaded for this thread alone.
TEST_F(StringUtilsTest, FormatWritesTheLocalesDecimalPoint) {
  zorv::test::TempDir dir;
  ASSERT_TRUE(zorv::test::WriteRawFile(dir / "comma.def",
                                       "LC_NUMERIC\ndecimal_point \"<U002C>\"\nthousands_sep \"\"\n"
                                       "grouping -1\nEND LC_NUMERIC\n"));
  const std::string make = "localedef -c -f ANSI_X3.4-1968 -i " + (dir / "comma.def") + " " +
                           (dir / "comma") + " >/dev/null 2>&1";
  (void)std::system(make.c_str());
  setenv("LOCPATH", dir.path().c_str(), 1);
#if defined(__SANITIZE_ADDRESS__)
  __lsan_disable();  // the C library keeps its parsed LOCPATH for good
#endif
  const locale_t comma = newlocale(LC_NUMERIC_MASK, "comma", nullptr);
#if defined(__SANITIZE_ADDRESS__)
  __lsan_enable();
#endif
  unsetenv("LOCPATH");
  if (comma == nullptr) GTEST_SKIP() << "localedef made no locale";
  const locale_t previous = uselocale(comma);
  ExpectLikeTheCLibrary("%.1f|%f|%d", 0.25, 2.5, 7);
  uselocale(previous);
  freelocale(comma);
}

// A failed allocation gives "", quick and general formatting alike. The
// quick formatter's one block is its result, and a short result needs none
// (it lives in the string object); the general formatter always takes a work
// block. So a short text formatted with the first allocation failing shows
// that the quick formatter took every conversion in it.
TEST_F(StringUtilsTest, FormatFailuresGiveAnEmptyText) {
  EXPECT_EQ(StringUtils::_InternalFormat(nullptr), "");
  EXPECT_EQ(StringUtils::Format(nullptr), "");
  {
    zorv::test::FailAfterGuard guard(1);
    EXPECT_EQ(StringUtils::Format("%.9s%.1000s|%c|%x|%d|%.1f%%", "a", "b", 'c', 10u, -7, 0.5),
              "ab|c|a|-7|0.5%");
    EXPECT_EQ(StringUtils::Format("%s", std::string(100, 'x').c_str()), "");
  }
  {
    // A '0' flag on a string is left to the C library.
    zorv::test::FailAfterGuard guard(1);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
    EXPECT_EQ(StringUtils::Format("%05s", "ab"), "");
#pragma GCC diagnostic pop
  }
  // Each attempt of the general formatter takes one new work block, twice
  // the size of the one before; a failed block ends the formatting with an
  // empty result, so the number of attempts shows in where a fault stops
  // showing. Rows: the length of a text, the attempts it takes.
  // clang-format off
  const std::pair<size_t, unsigned int> cases[] = {{2, 1}, {99, 1}, {100, 2}, {150, 2}, {199, 2},
                                                   {200, 3}, {399, 3}, {1000, 5}};
  // clang-format on
  for (const auto& [length, attempts] : cases) {
    SCOPED_TRACE(length);
    const std::string text(length, 'x');
    for (unsigned int n = 1; n <= attempts; ++n) {
      zorv::test::FailAfterGuard guard(n);
      EXPECT_EQ(StringUtils::_InternalFormat("%s", text.c_str()), "") << n;
    }
    zorv::test::FailAfterGuard guard(attempts + 1);
    EXPECT_EQ(StringUtils::_InternalFormat("<%s>", text.c_str() + 2).str(),
              "<" + text.substr(2) + ">");
  }
}

// ---- Numbers -------------------------------------------------------------------

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
  // Up to 10 digits for the 32-bit parsers, 19 and 20 for the 64-bit ones;
  // leading zeros and the sign do not count.
  // clang-format off
  const std::tuple<SafeString, int, long long, unsigned long long> cases[] = {
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
  for (const auto& [text, asInt, asLong, asULong] : cases) {
    SCOPED_TRACE(text.c_str());
    EXPECT_EQ(StringUtils::StringToInt(text), asInt);
    EXPECT_EQ(StringUtils::StringToUInt(text), static_cast<unsigned int>(asInt));
    EXPECT_EQ(StringUtils::StringToLong(text), asLong);
    EXPECT_EQ(StringUtils::StringToULong(text), asULong);
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
      {" 0x1", 0}, {"00x1", 0}, {"0xG", 0}, {"0X1f", 31}, {"0xabcdef", 0xABCDEF}, {"1x1", 0},
      {"0x0000000000000001", 1}, {SafeString("0x1\0f", 5), 1}};
  // clang-format on
  for (const auto& h : hex) {
    EXPECT_EQ(StringUtils::HexStringToULong(h.first), h.second) << h.first.c_str();
  }
}

// Classification and the floating-point value of the same texts.
TEST_F(NumberTextTest, ClassificationAndFloatParse) {
  const std::string zeros(500, '0');
  // clang-format off
  const std::tuple<SafeString, int, double> cases[] = {
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
      {"1." + zeros + "1e2", 2, 100.0}, {"2.5e00", 2, 2.5},
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
  for (const auto& [text, code, expected] : cases) {
    SCOPED_TRACE(text.substr(0, 30).c_str());
    EXPECT_EQ(StringUtils::GetNumberFormat(text), code);
    const double value = StringUtils::StringToFloat(text);
    EXPECT_TRUE(std::isnan(expected) ? std::isnan(value) : value == expected);
    EXPECT_EQ(std::signbit(value), std::signbit(expected));
  }
}

// Beyond the largest double, leading zeros after the point, halfway (to
// even), just above halfway, before and after the point, halfway with only
// zeros dropped, rounding up to 1, a subnormal, out of range below and
// above, zeros only with an exponent beyond the range.
TEST_F(NumberTextTest, LongMantissasRoundAsTheWholeTextAndNeverAllocate) {
  const std::string zeros(800, '0');
  // clang-format off
  const std::string cases[] = {
      std::string(60, '7'), "0." + std::string(59, '3'), "1" + zeros, "0." + zeros + "25e801",
      "9007199254740993", "9007199254740993" + zeros + "1", "9007199254740993." + zeros + "1",
      "9007199254740993" + zeros + "e-800", "-" + std::string(1000, '9') + "e-1000",
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
  // clang-format off
  const std::pair<double, const char*> cases[] = {
      {0.1, "0.1"}, {100.0, "100"}, {-2.5, "-2.5"}, {0.0, "0"}, {-0.0, "-0"}, {1e22, "1e+22"},
      {kNan, "nan"}, {-kNan, "nan"}, {HUGE_VAL, "inf"}, {-HUGE_VAL, "-inf"}, {1.5e-7, "1.5e-07"}};
  const double edges[] = {DBL_MAX, -DBL_MAX, DBL_MIN, DBL_TRUE_MIN, 1.0 / 3.0, 123456789.125,
                          0.30000000000000004, 9007199254740993.0, 1e-7, 1e21, HUGE_VAL};
  // clang-format on
  for (const auto& [value, text] : cases)
    EXPECT_EQ(StringUtils::FloatToString(value), text) << text;
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
