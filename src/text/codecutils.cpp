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

// URI encoding, indexed by the unsigned byte. For an RFC 3986 unreserved
// character the entry is the character itself with a length of 1; for every
// other byte it is '%' and the two upper-case hexadecimal digits with a
// length of 3. The bytes of the output sit in the low three bytes in order
// of appearance (first in the lowest) and the length in the top byte, so an
// input byte is written with one 4-byte store and the pointer moved by its
// length.
struct UriTable {
  std::uint32_t codes[256];
  unsigned char escaped[256];  // 1 when the byte is written as "%XY"
};

constexpr char kHexUpper[] = "0123456789ABCDEF";

constexpr UriTable MakeUriTable() {
  UriTable t{};
  for (int i = 0; i < 256; ++i) {
    const bool unreserved = (i >= 'A' && i <= 'Z') || (i >= 'a' && i <= 'z') ||
                            (i >= '0' && i <= '9') || i == '-' || i == '.' || i == '_' || i == '~';
    const std::uint32_t c = static_cast<std::uint32_t>(i);
    if (unreserved) {
      t.codes[i] = (1u << 24) | c;
    } else {
      t.codes[i] = (3u << 24) | (static_cast<std::uint32_t>(
                                     static_cast<unsigned char>(kHexUpper[c & 15])) << 16) |
                   (static_cast<std::uint32_t>(static_cast<unsigned char>(kHexUpper[c >> 4]))
                    << 8) |
                   static_cast<std::uint32_t>('%');
    }
    t.escaped[i] = unreserved ? 0 : 1;
  }
  return t;
}

constexpr UriTable kUri = MakeUriTable();

// Hexadecimal digits of either case, indexed by the unsigned byte: the
// digit's value, or -1 for every other byte (the terminating zero included).
struct HexTable {
  signed char values[256];
};

constexpr HexTable MakeHexTable() {
  HexTable t{};
  for (int i = 0; i < 256; ++i) {
    int v = -1;
    if (i >= '0' && i <= '9') v = i - '0';
    if (i >= 'a' && i <= 'f') v = i - 'a' + 10;
    if (i >= 'A' && i <= 'F') v = i - 'A' + 10;
    t.values[i] = static_cast<signed char>(v);
  }
  return t;
}

constexpr HexTable kHex = MakeHexTable();

// The machine word the URI decoder scans the text with.
#if defined(__SIZEOF_POINTER__) && __SIZEOF_POINTER__ >= 8
using Word = std::uint64_t;
#else
using Word = std::uint32_t;
#endif

constexpr Word kOnes = ~static_cast<Word>(0) / 255;  // 0x01 in every byte
constexpr Word kPercents = ~static_cast<Word>(0) / 255 * '%';

// The word at `p`, its first byte in the lowest bits.
inline Word LoadWord(const char* p) {
  Word word;
  std::memcpy(&word, p, sizeof(word));
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  word = sizeof(Word) == 8 ? static_cast<Word>(__builtin_bswap64(word))
                           : static_cast<Word>(__builtin_bswap32(static_cast<std::uint32_t>(word)));
#endif
  return word;
}

// Writes a word from LoadWord() back at `p` in memory order.
inline void StoreWord(char* p, Word word) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
  word = sizeof(Word) == 8 ? static_cast<Word>(__builtin_bswap64(word))
                           : static_cast<Word>(__builtin_bswap32(static_cast<std::uint32_t>(word)));
#endif
  std::memcpy(p, &word, sizeof(word));
}

// A word whose lowest set bit is the top bit of the first zero byte of
// `word` (0 when it has none). Bits above it may be set by the borrow and
// mean nothing.
inline Word FirstZeroByte(Word word) {
  return (word - kOnes) & ~word & (kOnes << 7);
}

// The position (0 for the first byte) of the byte marked by a non-zero
// FirstZeroByte() result.
inline size_t FirstMarked(Word marks) {
  return sizeof(Word) == 8
             ? static_cast<size_t>(__builtin_ctzll(static_cast<unsigned long long>(marks))) / 8
             : static_cast<size_t>(__builtin_ctz(static_cast<unsigned int>(marks))) / 8;
}

// Decodes the '%' at `in` into `*out`: the byte of the two hexadecimal
// digits behind it, or the '%' itself when they are not both there.
// Returns how many bytes of text were used (3 or 1). The terminating zero
// is no digit, so the second digit is only read when the first one lies
// within the text.
inline size_t DecodeEscape(const char* in, char* out) {
  const int high = kHex.values[static_cast<unsigned char>(in[1])];
  if (high >= 0) {
    const int low = kHex.values[static_cast<unsigned char>(in[2])];
    if (low >= 0) {
      *out = static_cast<char>((high << 4) | low);
      return 3;
    }
  }
  *out = '%';
  return 1;
}

// Writes the four bytes of `code` at `out`, lowest first.
inline void StoreLittleEndian32(char* out, std::uint32_t code) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  std::memcpy(out, &code, sizeof(code));
#else
  out[0] = static_cast<char>(code);
  out[1] = static_cast<char>(code >> 8);
  out[2] = static_cast<char>(code >> 16);
  out[3] = static_cast<char>(code >> 24);
#endif
}

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
  const unsigned char* const in = reinterpret_cast<const unsigned char*>(text);
  const size_t n = std::strlen(text);
  // Four counters, so that the additions do not wait on each other.
  size_t counts[4] = {0, 0, 0, 0};
  size_t i = 0;
  for (; i + 4 <= n; i += 4) {
    counts[0] += kUri.escaped[in[i]];
    counts[1] += kUri.escaped[in[i + 1]];
    counts[2] += kUri.escaped[in[i + 2]];
    counts[3] += kUri.escaped[in[i + 3]];
  }
  for (; i < n; ++i) counts[0] += kUri.escaped[in[i]];
  const size_t escaped = counts[0] + counts[1] + counts[2] + counts[3];
  foundation::SafeString result;
  result.resize(detail::EncodedUriSize<size_t>(n, escaped, result.max_size(), kEncodeUriSource));
  if (n == 0) return result;
  char* out = &result[0];
  // Every byte writes at least one, so while four bytes of input are left
  // the output has room for a whole 4-byte store; the byte behind the
  // written ones is overwritten by the next byte or by the ones after.
  i = 0;
  for (; i + 4 <= n; ++i) {
    const std::uint32_t code = kUri.codes[in[i]];
    StoreLittleEndian32(out, code);
    out += code >> 24;
  }
  for (; i < n; ++i) {
    const std::uint32_t code = kUri.codes[in[i]];
    out[0] = static_cast<char>(code);
    if ((code >> 24) == 3) {
      out[1] = static_cast<char>(code >> 8);
      out[2] = static_cast<char>(code >> 16);
    }
    out += code >> 24;
  }
  return result;
}

foundation::SafeString CodecUtils::DecodeUri(char const* text) {
  const size_t n = std::strlen(text);
  foundation::SafeString result;
  result.resize(n);
  if (n == 0) return result;
  const char* in = text;
  const char* const end = text + n;
  char* const first = &result[0];
  char* out = first;
  // A word at a time while a whole word of text is left: the word is stored
  // as it stands and both pointers move to its first '%', if any. The
  // output never runs ahead of the input, so the store stays within the
  // result.
  while (static_cast<size_t>(end - in) >= sizeof(Word)) {
    const Word word = LoadWord(in);
    StoreWord(out, word);
    const Word marks = FirstZeroByte(word ^ kPercents);
    if (marks == 0) {
      in += sizeof(Word);
      out += sizeof(Word);
      continue;
    }
    const size_t before = FirstMarked(marks);
    in += before;
    out += before;
    in += DecodeEscape(in, out);
    ++out;
  }
  for (; in != end; ++out) {
    if (*in == '%') {
      in += DecodeEscape(in, out);
    } else {
      *out = *in++;
    }
  }
  result.resize(static_cast<size_t>(out - first));
  return result;
}

}  // namespace text
}  // namespace foundation
}  // namespace zorv
