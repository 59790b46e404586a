// Tests of StringUtils: comparison, hashing, trimming, case, splitting and
// formatting.
#include "foundation/text/stringutils.h"

#include <climits>
#include <cstring>
#include <new>
#include <string>

#include "support/leakcheck.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::text::StringUtils;

using StringUtilsTest = zorv::test::LeakCheckedTest;

SafeString Bytes(const char* data, size_t n) { return SafeString(data, n); }

TEST_F(StringUtilsTest, CompareIsBytewiseUnsignedWithNullRules) {
  struct Case {
    const char* a;
    const char* b;
    int sign;
  };
  const Case cases[] = {
      {nullptr, "x", 0}, {"x", nullptr, 1}, {nullptr, nullptr, 0}, {"abc", "abc", 0},
      {"", "", 0},       {"a", "b", -1},    {"b", "a", 1},         {"ab", "abc", -1},
      {"abc", "ab", 1},  {"\xff", "a", 1},  {"a", "\x80", -1},     {"ABC", "abc", -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.a ? c.a : "(null)") + " vs " + (c.b ? c.b : "(null)"));
    const int r = StringUtils::Compare(c.a, c.b);
    EXPECT_EQ(r > 0, c.sign > 0);
    EXPECT_EQ(r < 0, c.sign < 0);
  }
  EXPECT_EQ(StringUtils::Compare("a", "b"), -1);
  EXPECT_EQ(StringUtils::Compare("x", nullptr), 1);
  EXPECT_EQ(StringUtils::Compare("\xff", "a"), 0xFF - 'a');
  EXPECT_EQ(StringUtils::Compare("ab", "abc"), -'c');
}

TEST_F(StringUtilsTest, CompareNoCaseFoldsAsciiToUpper) {
  EXPECT_EQ(StringUtils::CompareNoCase("abc", "ABC"), 0);
  EXPECT_EQ(StringUtils::CompareNoCase("HeLLo", "hEllO"), 0);
  EXPECT_EQ(StringUtils::CompareNoCase("a", "["), 'A' - '[');
  EXPECT_LT(StringUtils::CompareNoCase("a", "["), 0);
  EXPECT_EQ(StringUtils::CompareNoCase(nullptr, "x"), 0);
  EXPECT_EQ(StringUtils::CompareNoCase("x", nullptr), 1);
  EXPECT_EQ(StringUtils::CompareNoCase("abc", "abd"), 'C' - 'D');
  EXPECT_EQ(StringUtils::CompareNoCase("ab", "ABC"), -'C');
  // Bytes above 127 are not folded.
  EXPECT_NE(StringUtils::CompareNoCase("\xe9", "\xc9"), 0);
  EXPECT_EQ(StringUtils::CompareNoCase("\xe9x", "\xe9X"), 0);
}

TEST_F(StringUtilsTest, StartWithAndEndWith) {
  EXPECT_FALSE(StringUtils::StartWith("abc", ""));
  EXPECT_FALSE(StringUtils::EndWith("abc", ""));
  EXPECT_TRUE(StringUtils::StartWith("abc", "abc"));
  EXPECT_TRUE(StringUtils::EndWith("abc", "abc"));
  EXPECT_TRUE(StringUtils::StartWith("abc", "ab"));
  EXPECT_TRUE(StringUtils::EndWith("abc", "bc"));
  EXPECT_FALSE(StringUtils::StartWith("abc", "abcd"));
  EXPECT_FALSE(StringUtils::EndWith("bc", "abc"));
  EXPECT_FALSE(StringUtils::StartWith("abc", "B"));
  EXPECT_FALSE(StringUtils::EndWith("abc", "B"));
  EXPECT_FALSE(StringUtils::StartWith(nullptr, "a"));
  EXPECT_FALSE(StringUtils::StartWith("a", nullptr));
  EXPECT_FALSE(StringUtils::EndWith(nullptr, "a"));
  EXPECT_FALSE(StringUtils::EndWith("a", nullptr));
  EXPECT_FALSE(StringUtils::StartWith("", "a"));
  EXPECT_FALSE(StringUtils::EndWith("", "a"));
  // Case matters.
  EXPECT_FALSE(StringUtils::EndWith("file.TXT", ".txt"));
}

TEST_F(StringUtilsTest, HashNoCaseIsFnv1aOverUpperCase) {
  const char* empty = "";
  EXPECT_EQ(StringUtils::HashNoCase(empty, empty), 2166136261u);
  const char* a = "a";
  const char* upperA = "A";
  EXPECT_EQ(StringUtils::HashNoCase(a, a + 1), 0xC40BF6CCu);
  EXPECT_EQ(StringUtils::HashNoCase(upperA, upperA + 1), 0xC40BF6CCu);
  const char mixed[] = "Hello World";
  const char upper[] = "HELLO WORLD";
  EXPECT_EQ(StringUtils::HashNoCase(mixed, mixed + 11), StringUtils::HashNoCase(upper, upper + 11));
  // A zero byte inside the range is hashed, not a stop.
  const char withZero[] = {'a', '\0', 'b'};
  unsigned int h = 2166136261u;
  for (unsigned char c : {'A', '\0', 'B'}) h = (h ^ c) * 16777619u;
  EXPECT_EQ(StringUtils::HashNoCase(withZero, withZero + 3), h);
  EXPECT_NE(StringUtils::HashNoCase(withZero, withZero + 3),
            StringUtils::HashNoCase(withZero, withZero + 1));
  EXPECT_EQ(StringUtils::HashNoCase(nullptr, nullptr), 2166136261u);
}

TEST_F(StringUtilsTest, GetPublicPrefixCountsCommonLeadingBytes) {
  EXPECT_EQ(StringUtils::GetPublicPrefix("abcd", "abxy"), 2);
  EXPECT_EQ(StringUtils::GetPublicPrefix("abc", "abc"), 3);
  EXPECT_EQ(StringUtils::GetPublicPrefix("", ""), 0);
  EXPECT_EQ(StringUtils::GetPublicPrefix("", "a"), 0);
  EXPECT_EQ(StringUtils::GetPublicPrefix("a", ""), 0);
  EXPECT_EQ(StringUtils::GetPublicPrefix("xa", "ya"), 0);
  EXPECT_EQ(StringUtils::GetPublicPrefix("abc", "ab"), 2);
  EXPECT_EQ(StringUtils::GetPublicPrefix(nullptr, "a"), 0);
  EXPECT_EQ(StringUtils::GetPublicPrefix("a", nullptr), 0);
}

TEST_F(StringUtilsTest, TrimRemovesSpacesAndTabsOnly) {
  struct Case {
    SafeString in;
    SafeString both;
    SafeString left;
    SafeString right;
  };
  const Case cases[] = {
      {"\t a b \t", "a b", "a b \t", "\t a b"},
      {"\r\nx", "\r\nx", "\r\nx", "\r\nx"},
      {"   ", "", "", ""},
      {"", "", "", ""},
      {"abc", "abc", "abc", "abc"},
      {" x\n", "x\n", "x\n", " x\n"},
      {"\v x \f", "\v x \f", "\v x \f", "\v x \f"},
      // An embedded zero ends the result only when leading blanks were skipped.
      {Bytes("a\0b ", 4), Bytes("a\0b", 3), Bytes("a\0b ", 4), Bytes("a\0b", 3)},
      {Bytes(" a\0b ", 5), "a", "a", Bytes(" a\0b", 4)},
      {Bytes(" \0 ", 3), "", "", Bytes(" \0", 2)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("input of length " + std::to_string(c.in.size()) + ": " +
                 std::string(c.in.c_str()));
    EXPECT_EQ(StringUtils::Trim(c.in), c.both);
    EXPECT_EQ(StringUtils::TrimLeft(c.in), c.left);
    EXPECT_EQ(StringUtils::TrimRight(c.in), c.right);
  }
}

TEST_F(StringUtilsTest, CaseConversionTouchesAsciiLettersOnly) {
  EXPECT_EQ(StringUtils::ToUpper("Hello, World! z{@["), "HELLO, WORLD! Z{@[");
  EXPECT_EQ(StringUtils::ToLower("Hello, World! Z[`{"), "hello, world! z[`{");
  EXPECT_EQ(StringUtils::ToUpper("\xe9t\xe9\xff"), "\xe9T\xe9\xff");
  EXPECT_EQ(StringUtils::ToLower("\xc9T\xc9"), "\xc9t\xc9");
  EXPECT_EQ(StringUtils::ToUpper(nullptr), "");
  EXPECT_EQ(StringUtils::ToLower(nullptr), "");
  EXPECT_EQ(StringUtils::ToUpper(""), "");
  // Every byte value maps as the tables say.
  char all[256];
  for (int i = 1; i < 256; ++i) all[i - 1] = static_cast<char>(i);
  all[255] = '\0';
  const SafeString up = StringUtils::ToUpper(all);
  const SafeString low = StringUtils::ToLower(all);
  ASSERT_EQ(up.size(), 255u);
  ASSERT_EQ(low.size(), 255u);
  for (int i = 1; i < 256; ++i) {
    SCOPED_TRACE(i);
    const int u = (i >= 'a' && i <= 'z') ? i - 32 : i;
    const int l = (i >= 'A' && i <= 'Z') ? i + 32 : i;
    EXPECT_EQ(static_cast<unsigned char>(up[i - 1]), u);
    EXPECT_EQ(static_cast<unsigned char>(low[i - 1]), l);
  }
}

TEST_F(StringUtilsTest, SplitAppendsEveryPiece) {
  struct Case {
    const char* text;
    char separator;
    bool found;
    std::vector<std::string> pieces;
  };
  const Case cases[] = {
      {"a,,b,", ',', true, {"a", "", "b", ""}},
      {"abc", ',', false, {"abc"}},
      {"", ',', false, {""}},
      {",", ',', true, {"", ""}},
      {",a", ',', true, {"", "a"}},
      {"key=value=x", '=', true, {"key", "value", "x"}},
      {"a b", ' ', true, {"a", "b"}},
      {"abc", '\0', false, {"abc"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Vector<SafeString> pieces;
    EXPECT_EQ(StringUtils::Split(c.text, c.separator, pieces), c.found);
    ASSERT_EQ(pieces.size(), c.pieces.size());
    for (size_t i = 0; i < pieces.size(); ++i) EXPECT_EQ(pieces[i], c.pieces[i].c_str());
  }
}

TEST_F(StringUtilsTest, SplitKeepsExistingPiecesAndHandlesNull) {
  Vector<SafeString> pieces;
  pieces.push_back("old");
  EXPECT_FALSE(StringUtils::Split(nullptr, ',', pieces));
  ASSERT_EQ(pieces.size(), 2u);
  EXPECT_EQ(pieces[0], "old");
  EXPECT_EQ(pieces[1], "");
  EXPECT_TRUE(StringUtils::Split("x;y", ';', pieces));
  ASSERT_EQ(pieces.size(), 4u);
  EXPECT_EQ(pieces[2], "x");
  EXPECT_EQ(pieces[3], "y");
}

TEST_F(StringUtilsTest, FormatExpandsLikePrintf) {
  EXPECT_EQ(StringUtils::Format("%d-%s-%05.1f|%x|%c", -12, "ab", 3.14159, 255u, 'z'),
            "-12-ab-003.1|ff|z");
  EXPECT_EQ(StringUtils::Format("%s", ""), "");
  EXPECT_EQ(StringUtils::Format("/proc/%d/fd", 42), "/proc/42/fd");
  EXPECT_EQ(StringUtils::Format("%lld %llu", LLONG_MIN, ULLONG_MAX),
            "-9223372036854775808 18446744073709551615");
  EXPECT_EQ(StringUtils::_InternalFormat("%s=%d", "x", 7), "x=7");
  EXPECT_EQ(StringUtils::_InternalFormat(nullptr), "");
  EXPECT_EQ(StringUtils::Format(nullptr), "");
  // A wide character that has no multibyte form in the C locale makes
  // vsnprintf fail; the result is empty at once instead of growing forever.
  const wchar_t wide[] = {static_cast<wchar_t>(0x20AC), 0};
  EXPECT_EQ(StringUtils::Format("%ls", wide), "");
}

TEST_F(StringUtilsTest, FormatOfEveryLengthAroundTheDoublingSteps) {
  for (size_t n : {0u, 1u, 98u, 99u, 100u, 101u, 150u, 199u, 200u, 399u, 400u, 1000u, 5000u}) {
    SCOPED_TRACE(n);
    const std::string expected(n, 'q');
    const SafeString a = StringUtils::Format("%s", expected.c_str());
    EXPECT_EQ(std::string(a.c_str(), a.size()), expected);
    const SafeString b = StringUtils::_InternalFormat("<%s>", expected.c_str());
    EXPECT_EQ(std::string(b.c_str(), b.size()), "<" + expected + ">");
  }
}

// Each attempt takes one new work block; a failed block ends the formatting
// with an empty result, so the number of attempts shows in where a fault
// stops showing.
TEST_F(StringUtilsTest, FormatDoublesTheWorkSizeAndFailsQuietly) {
  struct Case {
    size_t length;
    unsigned int attempts;
  };
  const Case cases[] = {{50, 1}, {99, 1}, {150, 2}, {399, 3}, {1000, 5}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.length);
    const std::string text(c.length, 'x');
    for (unsigned int n = 1; n <= c.attempts; ++n) {
      SCOPED_TRACE(n);
      zorv::test::FailAfterGuard guard(n);
      EXPECT_EQ(StringUtils::_InternalFormat("%s", text.c_str()), "");
    }
    zorv::test::FailAfterGuard guard(c.attempts + 1);
    EXPECT_EQ(StringUtils::_InternalFormat("%s", text.c_str()).size(), c.length);
  }
}

}  // namespace

namespace {

// A failed allocation passes std::bad_alloc on and leaks nothing (the
// fixture checks the live blocks).
TEST_F(StringUtilsTest, AllocationFailuresPassOnWithoutLeaks) {
  const SafeString longText(" \t" + std::string(64, 'k') + "\t ");
  const std::string plain(64, 'k');
  {
    zorv::test::FailAfterGuard guard(1);
    EXPECT_THROW(StringUtils::Trim(longText), std::bad_alloc);
  }
  {
    zorv::test::FailAfterGuard guard(1);
    EXPECT_THROW(StringUtils::ToUpper(plain.c_str()), std::bad_alloc);
  }
  for (unsigned int n = 1; n <= 3; ++n) {
    SCOPED_TRACE(n);
    Vector<SafeString> pieces;
    const std::string text = plain + "," + plain + "," + plain;
    zorv::test::FailAfterGuard guard(n);
    EXPECT_THROW(StringUtils::Split(text.c_str(), ',', pieces), std::bad_alloc);
  }
  EXPECT_EQ(StringUtils::Trim(longText), plain.c_str());
}

}  // namespace
