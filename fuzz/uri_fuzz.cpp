// Fuzzes CodecUtils::DecodeUri and EncodeUri with arbitrary zero-terminated
// texts.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/text/codecutils.h"

using zorv::foundation::SafeString;
using zorv::foundation::text::CodecUtils;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const size_t length = std::strlen(text.c_str());
  const SafeString decoded = CodecUtils::DecodeUri(text.c_str());
  if (decoded.size() > length) std::abort();
  const SafeString encoded = CodecUtils::EncodeUri(text.c_str());
  if (encoded.size() < length || encoded.size() > 3 * length) std::abort();
  const SafeString back = CodecUtils::DecodeUri(encoded.c_str());
  if (back.size() != length || std::memcmp(back.data(), text.c_str(), length) != 0) std::abort();
  return 0;
}
