// The SHA-1 transform on the ARMv8 cryptographic extension. This source is
// built with that extension enabled; sha1accel.cpp calls it only after the
// kernel has reported the extension.
#include "crypto/sha1transform.h"

#if defined(__arm__) || defined(__aarch64__)

#include <arm_neon.h>

namespace zorv {
namespace foundation {
namespace crypto {
namespace internal {

void Sha1BlocksArmv8(uint32_t state[5], const unsigned char* data, size_t blocks);

namespace {

// One group of four rounds, number G of 20: W(G) (with its round constant)
// goes through the rounds, and W(G + 4) is made in its place in the ring of
// four message vectors while the block still needs more.
template <int G>
inline __attribute__((always_inline)) void Group(uint32x4_t& abcd, uint32_t& e, uint32x4_t (&m)[4],
                                                 const uint32x4_t& k) {
  const uint32x4_t wk = vaddq_u32(m[G & 3], k);
  const uint32_t eNext = vsha1h_u32(vgetq_lane_u32(abcd, 0));
  if constexpr (G < 5) {
    abcd = vsha1cq_u32(abcd, e, wk);
  } else if constexpr (G >= 10 && G < 15) {
    abcd = vsha1mq_u32(abcd, e, wk);
  } else {
    abcd = vsha1pq_u32(abcd, e, wk);
  }
  e = eNext;
  if constexpr (G + 4 <= 19) {
    m[G & 3] =
        vsha1su1q_u32(vsha1su0q_u32(m[G & 3], m[(G + 1) & 3], m[(G + 2) & 3]), m[(G + 3) & 3]);
  }
}

}  // namespace

void Sha1BlocksArmv8(uint32_t state[5], const unsigned char* data, size_t blocks) {
  const uint32x4_t k0 = vdupq_n_u32(0x5A827999u);
  const uint32x4_t k1 = vdupq_n_u32(0x6ED9EBA1u);
  const uint32x4_t k2 = vdupq_n_u32(0x8F1BBCDCu);
  const uint32x4_t k3 = vdupq_n_u32(0xCA62C1D6u);
  uint32x4_t abcd = vld1q_u32(state);
  uint32_t e = state[4];
  for (; blocks != 0; --blocks, data += 64) {
    const uint32x4_t abcdSaved = abcd;
    const uint32_t eSaved = e;
    uint32x4_t m[4];
    for (int i = 0; i < 4; ++i) {
      m[i] = vreinterpretq_u32_u8(vrev32q_u8(vld1q_u8(data + 16 * i)));
    }
    Group<0>(abcd, e, m, k0);
    Group<1>(abcd, e, m, k0);
    Group<2>(abcd, e, m, k0);
    Group<3>(abcd, e, m, k0);
    Group<4>(abcd, e, m, k0);
    Group<5>(abcd, e, m, k1);
    Group<6>(abcd, e, m, k1);
    Group<7>(abcd, e, m, k1);
    Group<8>(abcd, e, m, k1);
    Group<9>(abcd, e, m, k1);
    Group<10>(abcd, e, m, k2);
    Group<11>(abcd, e, m, k2);
    Group<12>(abcd, e, m, k2);
    Group<13>(abcd, e, m, k2);
    Group<14>(abcd, e, m, k2);
    Group<15>(abcd, e, m, k3);
    Group<16>(abcd, e, m, k3);
    Group<17>(abcd, e, m, k3);
    Group<18>(abcd, e, m, k3);
    Group<19>(abcd, e, m, k3);
    abcd = vaddq_u32(abcd, abcdSaved);
    e += eSaved;
  }
  vst1q_u32(state, abcd);
  state[4] = e;
}

}  // namespace internal
}  // namespace crypto
}  // namespace foundation
}  // namespace zorv

#endif  // defined(__arm__) || defined(__aarch64__)
