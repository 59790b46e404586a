// The buffering and padding shared by the Merkle-Damgard digests (MD5,
// SHA-1): an algorithm supplies its initial words, its block transform and
// the byte order of its words and length. Private to the library.
#ifndef ZORV_SRC_CRYPTO_BLOCKHASH_H_
#define ZORV_SRC_CRYPTO_BLOCKHASH_H_

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "foundation/collection/vector.h"

namespace zorv {
namespace foundation {
namespace crypto {
namespace internal {

// The running state of a digest over 64-byte blocks. Algorithm provides:
//   static constexpr size_t kWords;                  chaining words
//   static const uint32_t kInitial[kWords];
//   static void Transform(uint32_t* state, const unsigned char* data, size_t blocks);
//   static void StoreWord(unsigned char* out, uint32_t word);   digest byte order
//   static void StoreLength(unsigned char out[8], unsigned long long bits);
// The digest is every chaining word, in order, stored with StoreWord.
template <class Algorithm>
struct BlockHash {
  static constexpr size_t kBlock = 64;
  static constexpr size_t kDigestSize = 4 * Algorithm::kWords;

  uint32_t state[Algorithm::kWords];
  unsigned long long count;  // bytes added so far
  unsigned char buffer[kBlock];

  void reset() {
    memcpy(state, Algorithm::kInitial, sizeof state);
    count = 0;
  }

  // Adds bytes: completes the partly filled block first, transforms whole
  // blocks straight from the input, and keeps the remainder.
  void update(const unsigned char* data, size_t size) {
    if (size == 0) return;
    const size_t offset = static_cast<size_t>(count % kBlock);
    count += size;
    if (offset != 0) {
      const size_t fill = kBlock - offset;
      if (size < fill) {
        memcpy(buffer + offset, data, size);
        return;
      }
      memcpy(buffer + offset, data, fill);
      Algorithm::Transform(state, buffer, 1);
      data += fill;
      size -= fill;
    }
    const size_t blocks = size / kBlock;
    if (blocks != 0) {
      Algorithm::Transform(state, data, blocks);
      data += blocks * kBlock;
      size -= blocks * kBlock;
    }
    if (size != 0) memcpy(buffer, data, size);
  }

  // Pads a copy of the state and returns its digest; this state is left as
  // it was, so more data may follow.
  collection::Vector<unsigned char> finish() const {
    BlockHash copy = *this;
    unsigned char length[8];
    Algorithm::StoreLength(length, count << 3);
    static const unsigned char kPadding[kBlock] = {0x80};
    const size_t offset = static_cast<size_t>(count % kBlock);
    copy.update(kPadding, offset < 56 ? 56 - offset : 120 - offset);
    copy.update(length, 8);
    collection::Vector<unsigned char> digest(kDigestSize);
    for (size_t i = 0; i < Algorithm::kWords; ++i) Algorithm::StoreWord(&digest[4 * i], copy.state[i]);
    return digest;
  }
};

}  // namespace internal
}  // namespace crypto
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_SRC_CRYPTO_BLOCKHASH_H_
