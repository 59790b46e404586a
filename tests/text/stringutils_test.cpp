// Tests of StringUtils: comparison, hashing, trimming, case, splitting and
// formatting.
#include "foundation/text/stringutils.h"

#include <locale.h>
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include <cfenv>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <vector>

#include "support/leakcheck.h"
#include "support/tempdir.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::text::StringUtils;

using StringUtilsTest = zorv::test::LeakCheckedTest;

SafeString Bytes(const char* data, size_t n) { return SafeString(data, n); }

std::string Shown(const char* s) { return s ? s : "(null)"; }

TEST_F(StringUtilsTest, ComparisonsPrefixesAndCommonPrefix) {
  struct Case {
    const char* a;
    const char* b;
    int compare;        // exact difference of the first differing bytes
    int compareNoCase;  // the same after folding to upper case
    bool startWith;     // a starts with b
    bool endWith;       // a ends with b
    int common;         // GetPublicPrefix
  };
  // clang-format off
  const Case cases[] = {
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
  for (const Case& c : cases) {
    SCOPED_TRACE(Shown(c.a) + " vs " + Shown(c.b));
    EXPECT_EQ(StringUtils::Compare(c.a, c.b), c.compare);
    EXPECT_EQ(StringUtils::CompareNoCase(c.a, c.b), c.compareNoCase);
    EXPECT_EQ(StringUtils::StartWith(c.a, c.b), c.startWith);
    EXPECT_EQ(StringUtils::EndWith(c.a, c.b), c.endWith);
    EXPECT_EQ(StringUtils::GetPublicPrefix(c.a, c.b), c.common);
  }
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
  struct Case {
    SafeString in, both, left, right;
  };
  // An embedded zero ends the result only when leading blanks were skipped.
  // clang-format off
  const Case cases[] = {
      {"\t a b \t", "a b", "a b \t", "\t a b"}, {"\r\nx", "\r\nx", "\r\nx", "\r\nx"},
      {"   ", "", "", ""}, {"", "", "", ""}, {"\v x \f", "\v x \f", "\v x \f", "\v x \f"},
      {Bytes("a\0b ", 4), Bytes("a\0b", 3), Bytes("a\0b ", 4), Bytes("a\0b", 3)},
      {Bytes(" a\0b ", 5), "a", "a", Bytes(" a\0b", 4)}, {Bytes(" \0 ", 3), "", "", Bytes(" \0", 2)}};
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE("input of length " + std::to_string(c.in.size()) + ": " + c.in.c_str());
    EXPECT_EQ(StringUtils::Trim(c.in), c.both);
    EXPECT_EQ(StringUtils::TrimLeft(c.in), c.left);
    EXPECT_EQ(StringUtils::TrimRight(c.in), c.right);
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
  struct Case {
    const char* text;
    char separator;
    bool found;
    std::vector<std::string> pieces;
  };
  // clang-format off
  const Case cases[] = {
      {"a,,b,", ',', true, {"old", "a", "", "b", ""}}, {"abc", ',', false, {"old", "abc"}},
      {"", ',', false, {"old", ""}}, {",a", ',', true, {"old", "", "a"}},
      {"k=v=x", '=', true, {"old", "k", "v", "x"}}, {"abc", '\0', false, {"old", "abc"}},
      {nullptr, ',', false, {"old", ""}}};
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(Shown(c.text));
    Vector<SafeString> pieces;
    pieces.push_back("old");
    EXPECT_EQ(StringUtils::Split(c.text, c.separator, pieces), c.found);
    ASSERT_EQ(pieces.size(), c.pieces.size());
    for (size_t i = 0; i < pieces.size(); ++i) EXPECT_EQ(pieces[i], c.pieces[i].c_str());
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
        ExpectLikeTheCLibrary(directive + "c", 'z');
        ExpectLikeTheCLibrary(directive + "c", 0);
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
  ExpectLikeTheCLibrary("%hdd", static_cast<short>(-300));  // 'h' then a conversion's letter
  ExpectLikeTheCLibrary("trailing %");
  // A wide character that has no multibyte form in the C locale makes
  // vsnprintf fail.
  const wchar_t wide[] = {static_cast<wchar_t>(0x20AC), 0};
  ExpectLikeTheCLibrary("%ls", wide);
  for (size_t n : {509u, 510u, 511u, 512u, 513u, 1000u}) {
    ExpectLikeTheCLibrary("%s%d", std::string(n - 2, 'q').c_str(), 42);
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
  // showing.
  struct Case {
    size_t length;
    unsigned int attempts;
  };
  // clang-format off
  const Case cases[] = {{2, 1}, {99, 1}, {100, 2}, {150, 2}, {199, 2}, {200, 3}, {399, 3}, {1000, 5}};
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.length);
    const std::string text(c.length, 'x');
    for (unsigned int n = 1; n <= c.attempts; ++n) {
      zorv::test::FailAfterGuard guard(n);
      EXPECT_EQ(StringUtils::_InternalFormat("%s", text.c_str()), "") << n;
    }
    zorv::test::FailAfterGuard guard(c.attempts + 1);
    EXPECT_EQ(StringUtils::_InternalFormat("<%s>", text.c_str() + 2).str(),
              "<" + text.substr(2) + ">");
  }
}

}  // namespace
