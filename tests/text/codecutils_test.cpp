// Tests of CodecUtils: Base64 and URI percent-encoding.
#include "foundation/text/codecutils.h"

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/leakcheck.h"
#include "text/checkedsize.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::text::CodecUtils;

using Base64Test = zorv::test::LeakCheckedTest;
using UriTest = zorv::test::LeakCheckedTest;

SafeString Encode(const std::string& bytes) {
  return CodecUtils::EncodeBase64(reinterpret_cast<const unsigned char*>(bytes.data()),
                                  static_cast<unsigned int>(bytes.size()));
}

std::string Decoded(const Vector<unsigned char>& out) {
  return std::string(out.begin(), out.end());
}

TEST_F(Base64Test, Rfc4648Vectors) {
  const std::pair<const char*, const char*> vectors[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
  };
  for (const auto& v : vectors) {
    SCOPED_TRACE(v.first);
    EXPECT_EQ(Encode(v.first), v.second);
    Vector<unsigned char> out;
    EXPECT_TRUE(
        CodecUtils::DecodeBase64(v.second, static_cast<unsigned int>(std::strlen(v.second)), out));
    EXPECT_EQ(Decoded(out), v.first);
  }
}

TEST_F(Base64Test, EncodeUsesTheWholeAlphabet) {
  std::string bytes;
  for (int i = 0; i < 64; ++i) {
    // Three bytes whose four 6-bit groups are all i.
    const unsigned int group = (static_cast<unsigned int>(i) << 18) | (i << 12) | (i << 6) | i;
    bytes += static_cast<char>(group >> 16);
    bytes += static_cast<char>(group >> 8);
    bytes += static_cast<char>(group);
  }
  const SafeString text = Encode(bytes);
  const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  ASSERT_EQ(text.size(), 256u);
  for (int i = 0; i < 64; ++i) EXPECT_EQ(text.substr(i * 4, 4), SafeString(4, alphabet[i]));
  EXPECT_EQ(Encode(std::string("\xff\xff\xff", 3)), "////");
  EXPECT_EQ(Encode(std::string("\xfb\xff", 2)), "+/8=");
  EXPECT_EQ(Encode(std::string(1, '\0')), "AA==");
  EXPECT_EQ(CodecUtils::EncodeBase64(nullptr, 5), "");
  const unsigned char one = 'x';
  EXPECT_EQ(CodecUtils::EncodeBase64(&one, 0), "");
}

TEST_F(Base64Test, DecodeRules) {
  struct Case {
    const char* text;
    unsigned int length;
    bool result;
    std::string bytes;
  };
  const Case cases[] = {
      {"Zm9v", 4, true, "foo"},
      {"Zm9", 3, false, ""},
      {"", 0, true, ""},
      {"Zm9vYg", 6, false, ""},
      {"Zm=v", 4, true, "f"},  // the third character alone drops two bytes
      {"Zm9=", 4, true, "fo"},
      {"Zg==", 4, true, "f"},
      {"====", 4, true, std::string(1, '\0')},            // '=' decodes as zero bits
      {"Zg==Zm9v", 8, true, std::string("f\0\0foo", 6)},  // padding inside is not looked at
      {"Zm 9", 4, true, "f`="},                           // a blank decodes as zero bits
      {"Zm9v\n", 5, false, ""},
      {"\x80\x81\xff\xfe", 4, true, std::string(3, '\0')},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Vector<unsigned char> out(5, 'j');
    EXPECT_EQ(CodecUtils::DecodeBase64(c.text, c.length, out), c.result);
    EXPECT_EQ(Decoded(out), c.bytes);
  }
  Vector<unsigned char> untouched(3, 'u');
  EXPECT_FALSE(CodecUtils::DecodeBase64(nullptr, 4, untouched));
  EXPECT_EQ(Decoded(untouched), "uuu");
}

TEST_F(Base64Test, RandomBytesRoundTrip) {
  std::mt19937 random(99);
  for (int i = 0; i < 2000; ++i) {
    std::string bytes(random() % 300, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    const SafeString text = Encode(bytes);
    ASSERT_EQ(text.size(), (bytes.size() + 2) / 3 * 4);
    Vector<unsigned char> out;
    ASSERT_TRUE(CodecUtils::DecodeBase64(text.data(), static_cast<unsigned int>(text.size()), out));
    ASSERT_EQ(Decoded(out), bytes);
  }
}

TEST_F(UriTest, EncodeEscapesAllButUnreserved) {
  EXPECT_EQ(CodecUtils::EncodeUri("a b~"), "a%20b~");
  EXPECT_EQ(CodecUtils::EncodeUri("\xc3\xa9"), "%C3%A9");
  EXPECT_EQ(CodecUtils::EncodeUri("+/?=&%"), "%2B%2F%3F%3D%26%25");
  EXPECT_EQ(CodecUtils::EncodeUri("AZaz09-._~"), "AZaz09-._~");
  EXPECT_EQ(CodecUtils::EncodeUri(""), "");
  for (int c = 1; c < 256; ++c) {
    SCOPED_TRACE(c);
    const char text[2] = {static_cast<char>(c), '\0'};
    const bool unreserved = std::isalnum(c) != 0 && c < 128;
    const bool mark = c == '-' || c == '.' || c == '_' || c == '~';
    const SafeString encoded = CodecUtils::EncodeUri(text);
    if (unreserved || mark) {
      EXPECT_EQ(encoded, text);
    } else {
      char expected[4];
      std::snprintf(expected, sizeof(expected), "%%%02X", c);
      EXPECT_EQ(encoded, expected);
    }
  }
}

TEST_F(UriTest, DecodeIsLenient) {
  struct Case {
    const char* text;
    std::string decoded;
  };
  const Case cases[] = {
      {"100%", "100%"}, {"%zz%41", "%zzA"},
      {"%4a", "J"},     {"%4A", "J"},
      {"a+b", "a+b"},   {"%00x", std::string("\0x", 2)},
      {"%", "%"},       {"%4", "%4"},
      {"%%41", "%A"},   {"%C3%A9", "\xc3\xa9"},
      {"", ""},         {"%g1%1g", "%g1%1g"},
      {"%2520", "%20"}, {"\xff%ff", "\xff\xff"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const SafeString out = CodecUtils::DecodeUri(c.text);
    EXPECT_EQ(std::string(out.data(), out.size()), c.decoded);
  }
}

TEST_F(UriTest, RandomTextRoundTrips) {
  std::mt19937 random(5);
  for (int i = 0; i < 2000; ++i) {
    std::string text(random() % 100, '\0');
    for (char& c : text) c = static_cast<char>(1 + random() % 255);
    const SafeString encoded = CodecUtils::EncodeUri(text.c_str());
    for (char c : encoded) {
      ASSERT_TRUE(std::isalnum(static_cast<unsigned char>(c)) ||
                  std::strchr("-._~%", c) != nullptr);
    }
    const SafeString decoded = CodecUtils::DecodeUri(encoded.c_str());
    ASSERT_EQ(std::string(decoded.data(), decoded.size()), text);
  }
}

// The result sizes in 32-bit arithmetic, as on the ARM targets: a size that
// does not fit, or exceeds the string's limit, throws instead of wrapping
// (EncodeUri of 0x55555556 blanks once wrapped to 2 bytes).
TEST(CheckedSizeTest, ResultSizesThrowInsteadOfWrapping) {
  using zorv::foundation::text::detail::Base64Size;
  using zorv::foundation::text::detail::EncodedUriSize;
  constexpr std::uint32_t kMax = 0xFFFFFFFFu;
  constexpr char kSource[] = "zorv.foundation.text.CodecUtils.Test";
  struct Case {
    const char* what;
    std::uint32_t n;
    std::uint32_t escaped;  // for the URI rows
    std::uint32_t max;
    bool throws;
    std::uint32_t expected;
  };
  const Case uri[] = {
      {"all escaped, wraps to 2", 0x55555556u, 0x55555556u, kMax, true, 0},
      {"all escaped, just fits", 0x55555555u, 0x55555555u, kMax, false, kMax},
      {"doubling wraps", 0x80000000u, 0x80000000u, kMax, true, 0},
      {"sum wraps", 0xFFFFFFFFu, 1, kMax, true, 0},
      {"at the limit", 10, 3, 16, false, 16},
      {"over the limit", 10, 4, 16, true, 0},
      {"empty", 0, 0, 0, false, 0},
  };
  for (const Case& c : uri) {
    SCOPED_TRACE(std::string("EncodedUriSize: ") + c.what);
    try {
      const std::uint32_t size = EncodedUriSize<std::uint32_t>(c.n, c.escaped, c.max, kSource);
      EXPECT_FALSE(c.throws) << size;
      EXPECT_EQ(size, c.expected);
    } catch (const std::length_error& error) {
      EXPECT_TRUE(c.throws);
      EXPECT_STREQ(error.what(), kSource);
    }
  }
  const Case base64[] = {
      {"largest that fits", 0xBFFFFFFDu, 0, kMax, false, 0xFFFFFFFCu},
      {"one group more wraps to 0", 0xBFFFFFFEu, 0, kMax, true, 0},
      {"largest input", 0xFFFFFFFFu, 0, kMax, true, 0},
      {"one byte", 1, 0, kMax, false, 4},
      {"three bytes", 3, 0, kMax, false, 4},
      {"over the limit", 4, 0, 7, true, 0},
      {"empty", 0, 0, 0, false, 0},
  };
  for (const Case& c : base64) {
    SCOPED_TRACE(std::string("Base64Size: ") + c.what);
    try {
      const std::uint32_t size = Base64Size<std::uint32_t>(c.n, c.max, kSource);
      EXPECT_FALSE(c.throws) << size;
      EXPECT_EQ(size, c.expected);
    } catch (const std::length_error& error) {
      EXPECT_TRUE(c.throws);
      EXPECT_STREQ(error.what(), kSource);
    }
  }
}

}  // namespace
