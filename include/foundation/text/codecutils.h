// CodecUtils: Base64 and URI percent-encoding.
#ifndef ZORV_FOUNDATION_TEXT_CODECUTILS_H_
#define ZORV_FOUNDATION_TEXT_CODECUTILS_H_

#include "foundation/collection/vector.h"
#include "foundation/export.h"
#include "foundation/text/safestring.h"

namespace zorv {
namespace foundation {
namespace text {

// Static, table-driven conversions: Base64 (RFC 4648 standard alphabet, with
// padding, no line breaks) and URI percent-encoding (RFC 3986 unreserved set
// passes through). They allocate only their result, are safe from any thread
// and are lenient: the decoders never reject a character, only the Base64
// length. Results are values owned by the caller; std::bad_alloc passes on
// when a result cannot be allocated.
class ZORV_FOUNDATION_EXPORT CodecUtils {
 public:
  CodecUtils() = delete;

  // The Base64 text of the `size` bytes at `data`, padded with '=' to a
  // multiple of 4 characters. "" when `size` is 0 or `data` is null.
  // Throws std::length_error("zorv.foundation.text.CodecUtils.EncodeBase64")
  // when the text would be longer than the largest string (possible on
  // 32-bit targets), std::bad_alloc when memory runs out.
  static foundation::SafeString EncodeBase64(unsigned char const* data, unsigned int size);

  // Decodes `length` characters of Base64 text into `out`, which is cleared
  // first. Characters outside the alphabet (whitespace, line breaks and '='
  // included) decode as zero bits. Only the last group's padding counts: a
  // '=' third character drops the last two bytes, otherwise a '=' fourth
  // character drops the last byte. Returns false, with `out` untouched, for a
  // null `text`; false with `out` empty when `length` is not a multiple of 4;
  // true otherwise (an empty text gives an empty `out`).
  static bool DecodeBase64(char const* text, unsigned int length,
                           collection::Vector<unsigned char>& out);

  // The zero-terminated `text` with every byte outside A-Z a-z 0-9 - . _ ~
  // written as '%' and two upper-case hexadecimal digits (each byte of a
  // UTF-8 sequence on its own). Throws
  // std::length_error("zorv.foundation.text.CodecUtils.EncodeUri") when the
  // result would be longer than the largest string (possible on 32-bit
  // targets), std::bad_alloc when memory runs out. REQUIRES: text is not
  // null.
  static foundation::SafeString EncodeUri(char const* text);

  // The zero-terminated `text` with every '%' followed by two hexadecimal
  // digits (either case) replaced by the byte they give ("%00" gives a zero
  // byte, counted in the length). Any other byte, including a '%' without
  // two digits after it, and '+', is copied as it stands.
  // REQUIRES: text is not null.
  static foundation::SafeString DecodeUri(char const* text);
};

}  // namespace text
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_TEXT_CODECUTILS_H_
