// Tests of CodecUtils: Base64 and URI percent-encoding.
#include "foundation/text/codecutils.h"

#include <cctype>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "support/leakcheck.h"
#include "text/checkedsize.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::text::CodecUtils;

using CodecTest = zorv::test::LeakCheckedTest;

std::string Str(const SafeString& s) { return std::string(s.data(), s.size()); }

// Encodes a copy of `bytes` in a heap block of exactly their size, so that
// ASan sees a read past their end.
SafeString Encode(const std::string& bytes) {
  const std::vector<unsigned char> exact(bytes.begin(), bytes.end());
  return CodecUtils::EncodeBase64(exact.data(), static_cast<unsigned int>(exact.size()));
}

TEST_F(CodecTest, Base64EncodeAndDecode) {
  // A text, what DecodeBase64 returns and the bytes it leaves, and whether
  // EncodeBase64 of the bytes gives the text back.
  // clang-format off
  const std::tuple<std::string, bool, std::string, bool> cases[] = {
      {"", true, "", true}, {"Zg==", true, "f", true}, {"Zm8=", true, "fo", true},
      {"Zm9v", true, "foo", true}, {"Zm9vYg==", true, "foob", true},
      {"Zm9vYmE=", true, "fooba", true}, {"Zm9vYmFy", true, "foobar", true},
      {"////", true, "\xff\xff\xff", true}, {"+/8=", true, "\xfb\xff", true},
      {"AA==", true, std::string(1, '\0'), true},
      {"AAECAwQF", true, std::string("\0\1\2\3\4\5", 6), true},
      // Every character of the alphabet, in order.
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/", true,
       std::string("\x00\x10\x83\x10\x51\x87\x20\x92\x8b\x30\xd3\x8f\x41\x14\x93\x51\x55\x97\x61\x96\x9b"
       "\x71\xd7\x9f\x82\x18\xa3\x92\x59\xa7\xa2\x9a\xab\xb2\xdb\xaf\xc3\x1c\xb3\xd3\x5d\xb7"
       "\xe3\x9e\xbb\xf3\xdf\xbf", 48), true},
      // Missing padding is not tolerated; the third character alone drops
      // two bytes; '=' and a blank decode as zero bits; inner padding is not
      // looked at; a zero byte is no character of the alphabet either.
      {"Zm9", false, "", false}, {"Zm9vYg", false, "", false}, {"Zm=v", true, "f", false},
      {"Zm9=", true, "fo", false}, {"====", true, std::string(1, '\0'), false},
      {"Zg==Zm9v", true, std::string("f\0\0foo", 6), false}, {"Zm 9", true, "f`=", false},
      {"Zm9v\n", false, "", false}, {"\x80\x81\xff\xfe", true, std::string(3, '\0'), false},
      {std::string("AA\0A", 4), true, std::string(3, '\0'), false}};
  // clang-format on
  for (const auto& [text, result, bytes, encodes] : cases) {
    SCOPED_TRACE(text);
    Vector<unsigned char> out(5, 'j');
    const unsigned int length = static_cast<unsigned int>(text.size());
    EXPECT_EQ(CodecUtils::DecodeBase64(text.c_str(), length, out), result);
    EXPECT_EQ(std::string(out.begin(), out.end()), bytes);
    if (encodes) {
      EXPECT_EQ(Str(Encode(bytes)), text);
    }
  }
  Vector<unsigned char> untouched(3, 'u');
  EXPECT_FALSE(CodecUtils::DecodeBase64(nullptr, 4, untouched));
  EXPECT_EQ(untouched.size(), 3u);
  EXPECT_EQ(Str(CodecUtils::EncodeBase64(nullptr, 5)), "");
  std::mt19937 random(99);
  for (int i = 0; i < 2000; ++i) {
    std::string data(random() % 300, '\0');
    for (char& c : data) c = static_cast<char>(random());
    const SafeString encoded = Encode(data);
    Vector<unsigned char> out;
    ASSERT_TRUE(
        CodecUtils::DecodeBase64(encoded.data(), static_cast<unsigned int>(encoded.size()), out));
    ASSERT_EQ(std::string(out.begin(), out.end()), data);
  }
}

bool IsHex(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

// The decoder written the plain way, one byte at a time, as the library
// defines it.
std::string PlainDecodeUri(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    // text[size()] is the terminating zero, no digit.
    if (text[i] == '%' && IsHex(text[i + 1]) && IsHex(text[i + 2])) {
      out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

TEST_F(CodecTest, UriEncodeAndDecode) {
  // A text, EncodeUri(text) and DecodeUri(text).
  // clang-format off
  const std::tuple<const char*, std::string, std::string> cases[] = {
      {"", "", ""}, {"a b~", "a%20b~", "a b~"}, {"\xc3\xa9", "%C3%A9", "\xc3\xa9"},
      {"AZaz09-._~", "AZaz09-._~", "AZaz09-._~"}, {"+/?=&", "%2B%2F%3F%3D%26", "+/?=&"},
      // The bytes next to the unreserved ranges.
      {"@[`{:", "%40%5B%60%7B%3A", "@[`{:"},
      {"\x01\x7f\x80\xff", "%01%7F%80%FF", "\x01\x7f\x80\xff"}, {"100%", "100%25", "100%"},
      {"%zz%41", "%25zz%2541", "%zzA"}, {"%00x", "%2500x", std::string("\0x", 2)}, {"%4", "%254", "%4"},
      {"%%41", "%25%2541", "%A"}, {"%g1%1g%G0%0G", "%25g1%251g%25G0%250G", "%g1%1g%G0%0G"},
      {"%2520", "%252520", "%20"}, {"\xff%ff", "%FF%25ff", "\xff\xff"},
      // Escapes across and at the end of 4- and 8-byte words.
      {"abcdef%41%4", "abcdef%2541%254", "abcdefA%4"}, {"abcdefg%41", "abcdefg%2541", "abcdefgA"},
      {"abcdefgh%4", "abcdefgh%254", "abcdefgh%4"},
      {"abcdefghijklmn%", "abcdefghijklmn%25", "abcdefghijklmn%"},
      {"%41%42%43%44%45%46", "%2541%2542%2543%2544%2545%2546", "ABCDEF"}};
  // clang-format on
  for (const auto& [text, encoded, decoded] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(Str(CodecUtils::EncodeUri(text)), encoded);
    EXPECT_EQ(Str(CodecUtils::DecodeUri(text)), decoded);
  }
  // Random texts of every length around the word sizes, with '%' and
  // hexadecimal digits frequent: decoding gives the plain result, and
  // decoding the encoded text gives the text back.
  std::mt19937 random(5);
  const char often[] = "%%%%4aF0g ";
  for (int i = 0; i < 4000; ++i) {
    std::string text(i < 200 ? i / 5 : random() % 300, '\0');
    for (char& c : text) {
      c = random() % 2 == 0 ? often[random() % 10] : static_cast<char>(1 + random() % 255);
    }
    SCOPED_TRACE(text);
    const SafeString encoded = CodecUtils::EncodeUri(text.c_str());
    ASSERT_EQ(Str(CodecUtils::DecodeUri(text.c_str())), PlainDecodeUri(text));
    ASSERT_EQ(Str(CodecUtils::DecodeUri(encoded.c_str())), text);
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
  // uri: EncodedUriSize, else Base64Size.
  // clang-format off
  const std::tuple<const char*, bool, std::uint32_t, std::uint32_t, std::uint32_t, bool,
                   std::uint32_t> cases[] = {
      {"all escaped, wraps to 2", true, 0x55555556u, 0x55555556u, kMax, true, 0},
      {"all escaped, just fits", true, 0x55555555u, 0x55555555u, kMax, false, kMax},
      {"doubling wraps", true, 0x80000000u, 0x80000000u, kMax, true, 0},
      {"sum wraps", true, 0xFFFFFFFFu, 1, kMax, true, 0}, {"at the limit", true, 10, 3, 16, false, 16},
      {"over the limit", true, 10, 4, 16, true, 0},
      {"largest that fits", false, 0xBFFFFFFDu, 0, kMax, false, 0xFFFFFFFCu},
      {"one group more wraps to 0", false, 0xBFFFFFFEu, 0, kMax, true, 0},
      {"one byte", false, 1, 0, kMax, false, 4}, {"over the limit", false, 4, 0, 7, true, 0},
      {"empty", false, 0, 0, 0, false, 0}};
  // clang-format on
  for (const auto& [what, uri, n, escaped, max, throws, expected] : cases) {
    SCOPED_TRACE(std::string(uri ? "EncodedUriSize: " : "Base64Size: ") + what);
    try {
      const std::uint32_t size = uri ? EncodedUriSize<std::uint32_t>(n, escaped, max, kSource)
                                     : Base64Size<std::uint32_t>(n, max, kSource);
      EXPECT_FALSE(throws) << size;
      EXPECT_EQ(size, expected);
    } catch (const std::length_error& error) {
      EXPECT_TRUE(throws);
      EXPECT_STREQ(error.what(), kSource);
    }
  }
}

}  // namespace
