// Fuzzes CodecUtils::DecodeBase64 with arbitrary bytes and checks that
// decoding never reads past the text and that re-encoding a well-formed
// decode gives the text back.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "foundation/text/codecutils.h"

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::text::CodecUtils;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An exact-size copy, so reading one byte too far is caught.
  std::vector<char> text(data, data + size);
  static const char kEmpty[1] = {0};
  const char* begin = size == 0 ? kEmpty : text.data();  // null would be refused
  Vector<unsigned char> out;
  const bool ok = CodecUtils::DecodeBase64(begin, static_cast<unsigned int>(size), out);
  if (ok != (size % 4 == 0)) std::abort();
  if (!ok) {
    if (!out.empty()) std::abort();
    return 0;
  }
  if (out.size() > size / 4 * 3) std::abort();
  // Encoding and decoding the bytes again is the identity.
  const SafeString again =
      CodecUtils::EncodeBase64(out.data(), static_cast<unsigned int>(out.size()));
  Vector<unsigned char> back;
  if (!CodecUtils::DecodeBase64(again.data(), static_cast<unsigned int>(again.size()), back)) {
    std::abort();
  }
  if (back != out) std::abort();
  return 0;
}
