// The SHA-1 block transforms: the portable one and the one on the
// processor's SHA instructions. Private to the library.
#ifndef ZORV_SRC_CRYPTO_SHA1TRANSFORM_H_
#define ZORV_SRC_CRYPTO_SHA1TRANSFORM_H_

#include <stddef.h>
#include <stdint.h>

namespace zorv {
namespace foundation {
namespace crypto {
namespace internal {

// Runs the SHA-1 compression over `blocks` consecutive 64-byte blocks at
// `data`, updating the five chaining words in standard order.
using Sha1Blocks = void (*)(uint32_t state[5], const unsigned char* data, size_t blocks);

// Plain C++, on every processor.
void Sha1BlocksPortable(uint32_t state[5], const unsigned char* data, size_t blocks);

// The transform on the processor's SHA instructions, or null when this
// processor (or this build) has none. Decided at run time, once.
Sha1Blocks Sha1BlocksAccelerated();

}  // namespace internal
}  // namespace crypto
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_SRC_CRYPTO_SHA1TRANSFORM_H_
