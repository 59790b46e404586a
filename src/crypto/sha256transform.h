// The SHA-256 block transforms: the portable one and the ones on the
// processor's SHA instructions. Private to the library.
#ifndef ZORV_SRC_CRYPTO_SHA256TRANSFORM_H_
#define ZORV_SRC_CRYPTO_SHA256TRANSFORM_H_

#include <stddef.h>
#include <stdint.h>

namespace zorv {
namespace foundation {
namespace crypto {
namespace internal {

// Runs the SHA-256 compression over `blocks` consecutive 64-byte blocks at
// `data`, updating the eight chaining words in standard order.
using Sha256Blocks = void (*)(uint32_t state[8], const unsigned char* data, size_t blocks);

// The 64 round constants.
extern const uint32_t kSha256RoundConstants[64];

// Plain C++, on every processor.
void Sha256BlocksPortable(uint32_t state[8], const unsigned char* data, size_t blocks);

// The transform on the processor's SHA instructions, or null when this
// processor (or this build) has none. Decided at run time, once.
Sha256Blocks Sha256BlocksAccelerated();

}  // namespace internal
}  // namespace crypto
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_SRC_CRYPTO_SHA256TRANSFORM_H_
