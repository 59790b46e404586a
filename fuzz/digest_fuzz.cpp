// Digests of arbitrary data: incremental use in pieces chosen by the input
// must equal one-shot use, and both SHA-1 block transforms must agree.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include "foundation/collection/vector.h"
#include "foundation/crypto/md5.h"
#include "foundation/crypto/sha1.h"

namespace {

using zorv::foundation::collection::Vector;

template <class Digest>
void Check(const uint8_t* data, size_t size, uint8_t seed) {
  const unsigned int length = static_cast<unsigned int>(size);
  const Vector<unsigned char> expected = Digest::ComputeBinary(data, length);
  Digest digest;
  size_t at = 0;
  unsigned int step = seed;
  while (at < size) {
    step = step * 33u + 7u;
    size_t piece = step % 97u;
    if (piece > size - at) piece = size - at;
    digest.addData(data + at, static_cast<unsigned int>(piece));
    at += piece;
    if ((step & 15u) == 0) (void)digest.result();  // result() must change nothing
  }
  if (digest.result() != expected) abort();
  if (Digest::ToString(expected).size() != 2 * expected.size()) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint8_t seed = size > 0 ? data[0] : 0;
  Check<zorv::foundation::crypto::MD5>(data, size, seed);
  namespace detail = zorv::foundation::crypto::detail;
  const bool instructions = detail::_UseSha1Instructions(true);
  Check<zorv::foundation::crypto::SHA1>(data, size, seed);
  if (instructions) {
    const Vector<unsigned char> fast =
        zorv::foundation::crypto::SHA1::ComputeBinary(data, static_cast<unsigned int>(size));
    detail::_UseSha1Instructions(false);
    Check<zorv::foundation::crypto::SHA1>(data, size, seed);
    const Vector<unsigned char> portable =
        zorv::foundation::crypto::SHA1::ComputeBinary(data, static_cast<unsigned int>(size));
    detail::_UseSha1Instructions(true);
    if (fast != portable) abort();
  }
  return 0;
}
