// The SHA-1 transform on x86 SHA extensions, and the run-time choice of the
// accelerated transform for this processor.
#include "crypto/sha1transform.h"

#include "crypto/shafeatures.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace zorv {
namespace foundation {
namespace crypto {
namespace internal {

#if defined(__x86_64__) || defined(__i386__)

namespace {

#define ZORV_SHA_TARGET __attribute__((target("sha,sse4.1,ssse3")))

// One group of four rounds, number G of 20, with the message words of the
// block in a ring of four vectors: W(G) is used, W(G + 1) completed, and
// W(G + 2), W(G + 3) carried forward, as far as the block needs them.
template <int G>
ZORV_SHA_TARGET inline __attribute__((always_inline)) void Group(__m128i& abcd, __m128i& e,
                                                                 __m128i& previous,
                                                                 __m128i (&m)[4]) {
  if constexpr (G == 0) {
    e = _mm_add_epi32(e, m[0]);
  } else {
    e = _mm_sha1nexte_epu32(previous, m[G & 3]);
  }
  previous = abcd;
  if (G >= 3 && G + 1 <= 19) m[(G + 1) & 3] = _mm_sha1msg2_epu32(m[(G + 1) & 3], m[G & 3]);
  abcd = _mm_sha1rnds4_epu32(abcd, e, G / 5);
  if (G >= 1 && G + 3 <= 19) m[(G + 3) & 3] = _mm_sha1msg1_epu32(m[(G + 3) & 3], m[G & 3]);
  if (G >= 2 && G + 2 <= 19) m[(G + 2) & 3] = _mm_xor_si128(m[(G + 2) & 3], m[G & 3]);
}

ZORV_SHA_TARGET void Sha1BlocksShaExtensions(uint32_t state[5], const unsigned char* data,
                                             size_t blocks) {
  const __m128i byteSwap = _mm_set_epi64x(0x0001020304050607LL, 0x08090A0B0C0D0E0FLL);
  __m128i abcd = _mm_shuffle_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(state)), 0x1B);
  __m128i e = _mm_set_epi32(static_cast<int>(state[4]), 0, 0, 0);
  for (; blocks != 0; --blocks, data += 64) {
    const __m128i abcdSaved = abcd;
    const __m128i eSaved = e;
    __m128i m[4];
    for (int i = 0; i < 4; ++i) {
      m[i] = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(data + 16 * i)),
                              byteSwap);
    }
    __m128i previous;
    Group<0>(abcd, e, previous, m);
    Group<1>(abcd, e, previous, m);
    Group<2>(abcd, e, previous, m);
    Group<3>(abcd, e, previous, m);
    Group<4>(abcd, e, previous, m);
    Group<5>(abcd, e, previous, m);
    Group<6>(abcd, e, previous, m);
    Group<7>(abcd, e, previous, m);
    Group<8>(abcd, e, previous, m);
    Group<9>(abcd, e, previous, m);
    Group<10>(abcd, e, previous, m);
    Group<11>(abcd, e, previous, m);
    Group<12>(abcd, e, previous, m);
    Group<13>(abcd, e, previous, m);
    Group<14>(abcd, e, previous, m);
    Group<15>(abcd, e, previous, m);
    Group<16>(abcd, e, previous, m);
    Group<17>(abcd, e, previous, m);
    Group<18>(abcd, e, previous, m);
    Group<19>(abcd, e, previous, m);
    e = _mm_sha1nexte_epu32(previous, eSaved);
    abcd = _mm_add_epi32(abcd, abcdSaved);
  }
  _mm_storeu_si128(reinterpret_cast<__m128i*>(state), _mm_shuffle_epi32(abcd, 0x1B));
  state[4] = static_cast<uint32_t>(_mm_extract_epi32(e, 3));
}

#undef ZORV_SHA_TARGET

}  // namespace

Sha1Blocks Sha1BlocksAccelerated() {
  static const bool available = HasShaExtensions();
  return available ? &Sha1BlocksShaExtensions : nullptr;
}

#elif defined(__arm__) || defined(__aarch64__)

// In its own source, built for the ARMv8 cryptographic extension.
void Sha1BlocksArmv8(uint32_t state[5], const unsigned char* data, size_t blocks);

Sha1Blocks Sha1BlocksAccelerated() {
  static const bool available = HasArmv8Sha1();
  return available ? &Sha1BlocksArmv8 : nullptr;
}

#else

Sha1Blocks Sha1BlocksAccelerated() { return nullptr; }

#endif

}  // namespace internal
}  // namespace crypto
}  // namespace foundation
}  // namespace zorv
