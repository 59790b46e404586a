// CodecUtils: Base64 and URI percent-encoding.
#include "foundation/text/codecutils.h"

#include <cstdint>
#include <cstring>

#include "text/checkedsize.h"

namespace zorv {
namespace foundation {
namespace text {

namespace {

constexpr char kEncodeBase64Source[] = "zorv.foundation.text.CodecUtils.EncodeBase64";
constexpr char kEncodeUriSource[] = "zorv.foundation.text.CodecUtils.EncodeUri";

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Base64 decoding, indexed by the unsigned byte: the alphabet's characters
// give 0..63, every other byte ('=' included) 0. Four copies of the table
// hold the value already shifted into its place in a 24-bit group, so a
// group decodes with four loads and three ORs.
struct DecodeTables {
  unsigned int shifted[4][256];
};

constexpr DecodeTables MakeDecodeTables() {
  DecodeTables t{};
  for (int i = 0; i < 64; ++i) {
    const unsigned char c = static_cast<unsigned char>(kAlphabet[i]);
    const unsigned int d = static_cast<unsigned int>(i);
    t.shifted[0][c] = d << 18;
    t.shifted[1][c] = d << 12;
    t.shifted[2][c] = d << 6;
    t.shifted[3][c] = d;
  }
  return t;
}

constexpr DecodeTables kDecode = MakeDecodeTables();

// The two Base64 characters of every 12-bit value, so a 3-byte group
// encodes with two table loads.
struct PairTable {
  char pairs[4096][2];
};

constexpr PairTable MakePairTable() {
  PairTable t{};
  for (int i = 0; i < 4096; ++i) {
    t.pairs[i][0] = kAlphabet[i >> 6];
    t.pairs[i][1] = kAlphabet[i & 63];
  }
  return t;
}

constexpr PairTable kPairs = MakePairTable();

// URI pass-through, indexed by the unsigned byte: 1 for RFC 3986
// unreserved characters, 0 for every other byte.
struct UriTable {
  unsigned char passes[256];
};

constexpr UriTable MakeUriTable() {
  UriTable t{};
  for (int i = 0; i < 256; ++i) {
    const bool unreserved = (i >= 'A' && i <= 'Z') || (i >= 'a' && i <= 'z') ||
                            (i >= '0' && i <= '9') || i == '-' || i == '.' || i == '_' || i == '~';
    t.passes[i] = unreserved ? 1 : 0;
  }
  return t;
}

constexpr UriTable kUri = MakeUriTable();

constexpr char kHexUpper[] = "0123456789ABCDEF";

// The four bytes at `p` as a big-endian number.
inline unsigned int LoadBigEndian32(const unsigned char* p) {
  std::uint32_t word;
  std::memcpy(&word, p, sizeof(word));
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  word = __builtin_bswap32(word);
#elif !defined(__BYTE_ORDER__)
  word = (static_cast<std::uint32_t>(p[0]) << 24) | (static_cast<std::uint32_t>(p[1]) << 16) |
         (static_cast<std::uint32_t>(p[2]) << 8) | p[3];
#endif
  return word;
}

// The value of a hexadecimal digit of either case, or -1.
inline int HexValue(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

foundation::SafeString CodecUtils::EncodeBase64(unsigned char const* data, unsigned int size) {
  if (size == 0 || data == nullptr) return foundation::SafeString();
  foundation::SafeString text;
  text.resize(detail::Base64Size<size_t>(size, text.max_size(), kEncodeBase64Source));
  char* out = &text[0];
  const unsigned int whole = size / 3 * 3;
  unsigned int i = 0;
  // Whole groups with a fourth byte readable behind them: one 32-bit load.
  const unsigned int wide = size >= 4 ? ((size - 4) / 3 + 1) * 3 : 0;
  const unsigned int fast = wide < whole ? wide : whole;
  for (; i < fast; i += 3) {
    const unsigned int group = LoadBigEndian32(data + i) >> 8;
    std::memcpy(out, kPairs.pairs[group >> 12], 2);
    std::memcpy(out + 2, kPairs.pairs[group & 0xFFF], 2);
    out += 4;
  }
  for (; i < whole; i += 3) {
    const unsigned int group = (static_cast<unsigned int>(data[i]) << 16) |
                               (static_cast<unsigned int>(data[i + 1]) << 8) | data[i + 2];
    std::memcpy(out, kPairs.pairs[group >> 12], 2);
    std::memcpy(out + 2, kPairs.pairs[group & 0xFFF], 2);
    out += 4;
  }
  const unsigned int left = size - whole;
  if (left == 2) {
    const unsigned int b0 = data[i];
    const unsigned int b1 = data[i + 1];
    out[0] = kAlphabet[b0 >> 2];
    out[1] = kAlphabet[((b0 & 3) << 4) | (b1 >> 4)];
    out[2] = kAlphabet[(b1 & 15) << 2];
    out[3] = '=';
  } else if (left == 1) {
    const unsigned int b0 = data[i];
    out[0] = kAlphabet[b0 >> 2];
    out[1] = kAlphabet[(b0 & 3) << 4];
    out[2] = '=';
    out[3] = '=';
  }
  return text;
}

bool CodecUtils::DecodeBase64(char const* text, unsigned int length,
                              collection::Vector<unsigned char>& out) {
  if (text == nullptr) return false;
  out.clear();
  if (length == 0) return true;
  if (length % 4 != 0) return false;
  out.resize(static_cast<size_t>(length / 4) * 3);
  const unsigned char* in = reinterpret_cast<const unsigned char*>(text);
  const unsigned char* const end = in + length;
  unsigned char* o = out.data();
  for (; in != end; in += 4, o += 3) {
    const unsigned int group = kDecode.shifted[0][in[0]] | kDecode.shifted[1][in[1]] |
                               kDecode.shifted[2][in[2]] | kDecode.shifted[3][in[3]];
    o[0] = static_cast<unsigned char>(group >> 16);
    o[1] = static_cast<unsigned char>(group >> 8);
    o[2] = static_cast<unsigned char>(group);
  }
  // Only the last group's padding counts.
  if (text[length - 2] == '=') {
    out.resize(out.size() - 2);
  } else if (text[length - 1] == '=') {
    out.resize(out.size() - 1);
  }
  return true;
}

foundation::SafeString CodecUtils::EncodeUri(char const* text) {
  const unsigned char* in = reinterpret_cast<const unsigned char*>(text);
  const size_t n = std::strlen(text);
  size_t escaped = 0;
  for (size_t i = 0; i < n; ++i) escaped += kUri.passes[in[i]] == 0 ? 1 : 0;
  foundation::SafeString result;
  result.resize(detail::EncodedUriSize<size_t>(n, escaped, result.max_size(), kEncodeUriSource));
  char* out = &result[0];
  for (size_t i = 0; i < n; ++i) {
    const unsigned char c = in[i];
    if (kUri.passes[c] != 0) {
      *out++ = static_cast<char>(c);
    } else {
      out[0] = '%';
      out[1] = kHexUpper[c >> 4];
      out[2] = kHexUpper[c & 15];
      out += 3;
    }
  }
  return result;
}

foundation::SafeString CodecUtils::DecodeUri(char const* text) {
  const unsigned char* in = reinterpret_cast<const unsigned char*>(text);
  const size_t n = std::strlen(text);
  foundation::SafeString result;
  result.resize(n);
  char* out = &result[0];
  size_t i = 0;
  while (i < n) {
    const unsigned char c = in[i];
    if (c == '%') {
      // The terminating zero is no digit, so the second digit is only read
      // when the first one lies within the text.
      const int high = HexValue(in[i + 1]);
      const int low = high < 0 ? -1 : HexValue(in[i + 2]);
      if (high >= 0 && low >= 0) {
        *out++ = static_cast<char>((high << 4) | low);
        i += 3;
        continue;
      }
    }
    *out++ = static_cast<char>(c);
    ++i;
  }
  result.resize(static_cast<size_t>(out - &result[0]));
  return result;
}

}  // namespace text
}  // namespace foundation
}  // namespace zorv
