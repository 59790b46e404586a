// The SHA-256 transform on the ARMv8 cryptographic extension. This source is
// built with that extension enabled; sha256accel.cpp calls it only after the
// kernel has reported the extension.
#include "crypto/sha256transform.h"

#if defined(__arm__) || defined(__aarch64__)

#include <arm_neon.h>

namespace zorv {
namespace foundation {
namespace crypto {
namespace internal {

void Sha256BlocksArmv8(uint32_t state[8], const unsigned char* data, size_t blocks);

namespace {

// One group of four rounds, number G of 16: W(G) (with its round constants)
// goes through the rounds, and W(G + 4) is made in its place in the ring of
// four message vectors while the block still needs more.
template <int G>
inline __attribute__((always_inline)) void Group(uint32x4_t& abcd, uint32x4_t& efgh,
                                                 uint32x4_t (&m)[4]) {
  const uint32x4_t wk = vaddq_u32(m[G & 3], vld1q_u32(kSha256RoundConstants + 4 * G));
  const uint32x4_t abcdBefore = abcd;
  abcd = vsha256hq_u32(abcd, efgh, wk);
  efgh = vsha256h2q_u32(efgh, abcdBefore, wk);
  if constexpr (G + 4 < 16) {
    m[G & 3] = vsha256su1q_u32(vsha256su0q_u32(m[G & 3], m[(G + 1) & 3]), m[(G + 2) & 3],
                               m[(G + 3) & 3]);
  }
}

}  // namespace

void Sha256BlocksArmv8(uint32_t state[8], const unsigned char* data, size_t blocks) {
  uint32x4_t abcd = vld1q_u32(state);
  uint32x4_t efgh = vld1q_u32(state + 4);
  for (; blocks != 0; --blocks, data += 64) {
    const uint32x4_t abcdSaved = abcd;
    const uint32x4_t efghSaved = efgh;
    uint32x4_t m[4];
    for (int i = 0; i < 4; ++i) {
      m[i] = vreinterpretq_u32_u8(vrev32q_u8(vld1q_u8(data + 16 * i)));
    }
    Group<0>(abcd, efgh, m);
    Group<1>(abcd, efgh, m);
    Group<2>(abcd, efgh, m);
    Group<3>(abcd, efgh, m);
    Group<4>(abcd, efgh, m);
    Group<5>(abcd, efgh, m);
    Group<6>(abcd, efgh, m);
    Group<7>(abcd, efgh, m);
    Group<8>(abcd, efgh, m);
    Group<9>(abcd, efgh, m);
    Group<10>(abcd, efgh, m);
    Group<11>(abcd, efgh, m);
    Group<12>(abcd, efgh, m);
    Group<13>(abcd, efgh, m);
    Group<14>(abcd, efgh, m);
    Group<15>(abcd, efgh, m);
    abcd = vaddq_u32(abcd, abcdSaved);
    efgh = vaddq_u32(efgh, efghSaved);
  }
  vst1q_u32(state, abcd);
  vst1q_u32(state + 4, efgh);
}

}  // namespace internal
}  // namespace crypto
}  // namespace foundation
}  // namespace zorv

#endif  // defined(__arm__) || defined(__aarch64__)
