// The SHA-256 transform on x86 SHA extensions, and the run-time choice of
// the accelerated transform for this processor.
#include "crypto/sha256transform.h"

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

// One group of four rounds, number G of 16. The state is kept as the
// instructions want it: ABEF and CDGH, A and C in the highest lane. The
// message words of the block live in a ring of four vectors; after W(G) is
// used, W(G + 4) is made in its place while the block still needs more.
template <int G>
ZORV_SHA_TARGET inline __attribute__((always_inline)) void Group(__m128i& abef, __m128i& cdgh,
                                                                 __m128i (&m)[4]) {
  const __m128i k = _mm_loadu_si128(reinterpret_cast<const __m128i*>(kSha256RoundConstants + 4 * G));
  const __m128i wk = _mm_add_epi32(m[G & 3], k);
  cdgh = _mm_sha256rnds2_epu32(cdgh, abef, wk);
  abef = _mm_sha256rnds2_epu32(abef, cdgh, _mm_shuffle_epi32(wk, 0x0E));
  if constexpr (G + 4 < 16) {
    // W(G+4) = sigma1 and W(t-7) terms from W(G+3) and W(G+2..G+3),
    // sigma0 term from W(G+1), all over W(G).
    const __m128i w7 = _mm_alignr_epi8(m[(G + 3) & 3], m[(G + 2) & 3], 4);
    m[G & 3] = _mm_sha256msg2_epu32(
        _mm_add_epi32(_mm_sha256msg1_epu32(m[G & 3], m[(G + 1) & 3]), w7), m[(G + 3) & 3]);
  }
}

ZORV_SHA_TARGET void Sha256BlocksShaExtensions(uint32_t state[8], const unsigned char* data,
                                               size_t blocks) {
  const __m128i byteSwap = _mm_set_epi64x(0x0C0D0E0F08090A0BLL, 0x0405060700010203LL);
  // From A..D and E..H in memory order to ABEF and CDGH.
  const __m128i dcba = _mm_loadu_si128(reinterpret_cast<const __m128i*>(state));
  const __m128i hgfe = _mm_loadu_si128(reinterpret_cast<const __m128i*>(state + 4));
  const __m128i cdab = _mm_shuffle_epi32(dcba, 0xB1);
  const __m128i efgh = _mm_shuffle_epi32(hgfe, 0x1B);
  __m128i abef = _mm_alignr_epi8(cdab, efgh, 8);
  __m128i cdgh = _mm_blend_epi16(efgh, cdab, 0xF0);
  for (; blocks != 0; --blocks, data += 64) {
    const __m128i abefSaved = abef;
    const __m128i cdghSaved = cdgh;
    __m128i m[4];
    for (int i = 0; i < 4; ++i) {
      m[i] = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(data + 16 * i)),
                              byteSwap);
    }
    Group<0>(abef, cdgh, m);
    Group<1>(abef, cdgh, m);
    Group<2>(abef, cdgh, m);
    Group<3>(abef, cdgh, m);
    Group<4>(abef, cdgh, m);
    Group<5>(abef, cdgh, m);
    Group<6>(abef, cdgh, m);
    Group<7>(abef, cdgh, m);
    Group<8>(abef, cdgh, m);
    Group<9>(abef, cdgh, m);
    Group<10>(abef, cdgh, m);
    Group<11>(abef, cdgh, m);
    Group<12>(abef, cdgh, m);
    Group<13>(abef, cdgh, m);
    Group<14>(abef, cdgh, m);
    Group<15>(abef, cdgh, m);
    abef = _mm_add_epi32(abef, abefSaved);
    cdgh = _mm_add_epi32(cdgh, cdghSaved);
  }
  // Back to memory order.
  const __m128i feba = _mm_shuffle_epi32(abef, 0x1B);
  const __m128i dchg = _mm_shuffle_epi32(cdgh, 0xB1);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(state), _mm_blend_epi16(feba, dchg, 0xF0));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(state + 4), _mm_alignr_epi8(dchg, feba, 8));
}

#undef ZORV_SHA_TARGET

}  // namespace

Sha256Blocks Sha256BlocksAccelerated() {
  static const bool available = HasShaExtensions();
  return available ? &Sha256BlocksShaExtensions : nullptr;
}

#elif defined(__arm__) || defined(__aarch64__)

// In its own source, built for the ARMv8 cryptographic extension.
void Sha256BlocksArmv8(uint32_t state[8], const unsigned char* data, size_t blocks);

Sha256Blocks Sha256BlocksAccelerated() {
  static const bool available = HasArmv8Sha256();
  return available ? &Sha256BlocksArmv8 : nullptr;
}

#else

Sha256Blocks Sha256BlocksAccelerated() { return nullptr; }

#endif

}  // namespace internal
}  // namespace crypto
}  // namespace foundation
}  // namespace zorv
