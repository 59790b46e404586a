// The portable SHA-256 block transform, in plain C++ for every processor.
// Built in a file of its own so that it can take its own optimisation
// options (see sources.cmake).
#include <stdint.h>
#include <string.h>

#include "crypto/digestcommon.h"
#include "crypto/sha256transform.h"

namespace zorv {
namespace foundation {
namespace crypto {
namespace internal {

// Defined constexpr so that the unrolled first 16 rounds below take their
// constants as immediate operands instead of loading them.
constexpr uint32_t kSha256RoundConstants[64] = {
    0x428A2F98u, 0x71374491u, 0xB5C0FBCFu, 0xE9B5DBA5u, 0x3956C25Bu, 0x59F111F1u, 0x923F82A4u,
    0xAB1C5ED5u, 0xD807AA98u, 0x12835B01u, 0x243185BEu, 0x550C7DC3u, 0x72BE5D74u, 0x80DEB1FEu,
    0x9BDC06A7u, 0xC19BF174u, 0xE49B69C1u, 0xEFBE4786u, 0x0FC19DC6u, 0x240CA1CCu, 0x2DE92C6Fu,
    0x4A7484AAu, 0x5CB0A9DCu, 0x76F988DAu, 0x983E5152u, 0xA831C66Du, 0xB00327C8u, 0xBF597FC7u,
    0xC6E00BF3u, 0xD5A79147u, 0x06CA6351u, 0x14292967u, 0x27B70A85u, 0x2E1B2138u, 0x4D2C6DFCu,
    0x53380D13u, 0x650A7354u, 0x766A0ABBu, 0x81C2C92Eu, 0x92722C85u, 0xA2BFE8A1u, 0xA81A664Bu,
    0xC24B8B70u, 0xC76C51A3u, 0xD192E819u, 0xD6990624u, 0xF40E3585u, 0x106AA070u, 0x19A4C116u,
    0x1E376C08u, 0x2748774Cu, 0x34B0BCB5u, 0x391C0CB3u, 0x4ED8AA4Au, 0x5B9CCA4Fu, 0x682E6FF3u,
    0x748F82EEu, 0x78A5636Fu, 0x84C87814u, 0x8CC70208u, 0x90BEFFFAu, 0xA4506CEBu, 0xBEF9A3F7u,
    0xC67178F2u};

namespace {

inline uint32_t RotateRight(uint32_t value, int bits) {
  return (value >> bits) | (value << (32 - bits));
}

// The message schedule lives in a ring of 16 words. Each round is written
// with the eight working words renamed instead of moved; a group of 16
// rounds brings every name back to its place. `bc` carries b ^ c from round
// to round. (c itself is not needed: Maj uses only a, b and b ^ c.)
template <int I, bool kExpand>
inline __attribute__((always_inline)) void Round(uint32_t (&w)[16], const uint32_t* k,
                                                 const unsigned char* data, uint32_t& bc,
                                                 uint32_t a, uint32_t b, uint32_t& d, uint32_t e,
                                                 uint32_t f, uint32_t g, uint32_t& h) {
  uint32_t word;
  if constexpr (kExpand) {
    const uint32_t w15 = w[(I + 1) & 15];
    const uint32_t w2 = w[(I + 14) & 15];
    const uint32_t s0 = RotateRight(RotateRight(w15, 11) ^ w15, 7) ^ (w15 >> 3);
    const uint32_t s1 = RotateRight(RotateRight(w2, 2) ^ w2, 17) ^ (w2 >> 10);
    word = w[I & 15] += s0 + s1 + w[(I + 9) & 15];
  } else {
    word = w[I & 15] = LoadBig32(data + 4 * I);
  }
  // Sigma1(e) and Sigma0(a) as nested rotations: one register copy each
  // instead of two.
  h += RotateRight(RotateRight(RotateRight(e, 14) ^ e, 5) ^ e, 6) + (((f ^ g) & e) ^ g) +
       (kExpand ? k[I] : kSha256RoundConstants[I]) + word;
  d += h;
  // Maj(a, b, c) = ((a ^ b) & (b ^ c)) ^ b, and this round's a ^ b is the
  // next round's b ^ c.
  const uint32_t ab = a ^ b;
  h += RotateRight(RotateRight(RotateRight(a, 9) ^ a, 11) ^ a, 2) + ((ab & bc) ^ b);
  bc = ab;
}

template <bool kExpand>
inline __attribute__((always_inline)) void Sixteen(uint32_t (&w)[16], const uint32_t* k,
                                                   const unsigned char* data, uint32_t (&v)[8],
                                                   uint32_t& bc) {
  uint32_t& a = v[0];
  uint32_t& b = v[1];
  uint32_t& c = v[2];
  uint32_t& d = v[3];
  uint32_t& e = v[4];
  uint32_t& f = v[5];
  uint32_t& g = v[6];
  uint32_t& h = v[7];
  Round<0, kExpand>(w, k, data, bc, a, b, d, e, f, g, h);
  Round<1, kExpand>(w, k, data, bc, h, a, c, d, e, f, g);
  Round<2, kExpand>(w, k, data, bc, g, h, b, c, d, e, f);
  Round<3, kExpand>(w, k, data, bc, f, g, a, b, c, d, e);
  Round<4, kExpand>(w, k, data, bc, e, f, h, a, b, c, d);
  Round<5, kExpand>(w, k, data, bc, d, e, g, h, a, b, c);
  Round<6, kExpand>(w, k, data, bc, c, d, f, g, h, a, b);
  Round<7, kExpand>(w, k, data, bc, b, c, e, f, g, h, a);
  Round<8, kExpand>(w, k, data, bc, a, b, d, e, f, g, h);
  Round<9, kExpand>(w, k, data, bc, h, a, c, d, e, f, g);
  Round<10, kExpand>(w, k, data, bc, g, h, b, c, d, e, f);
  Round<11, kExpand>(w, k, data, bc, f, g, a, b, c, d, e);
  Round<12, kExpand>(w, k, data, bc, e, f, h, a, b, c, d);
  Round<13, kExpand>(w, k, data, bc, d, e, g, h, a, b, c);
  Round<14, kExpand>(w, k, data, bc, c, d, f, g, h, a, b);
  Round<15, kExpand>(w, k, data, bc, b, c, e, f, g, h, a);
}

}  // namespace

void Sha256BlocksPortable(uint32_t state[8], const unsigned char* data, size_t blocks) {
  uint32_t v[8];
  memcpy(v, state, sizeof v);
  uint32_t w[16];
  for (; blocks != 0; --blocks, data += 64) {
    uint32_t saved[8];
    memcpy(saved, v, sizeof v);
    uint32_t bc = v[1] ^ v[2];
    Sixteen<false>(w, kSha256RoundConstants, data, v, bc);
    // Rounds 16 to 63 as a loop rather than unrolled: the smaller code runs
    // faster than the fully unrolled rounds (measured on x86-64).
    for (int j = 16; j < 64; j += 16) {
      Sixteen<true>(w, kSha256RoundConstants + j, data, v, bc);
    }
    for (int i = 0; i < 8; ++i) v[i] += saved[i];
  }
  memcpy(state, v, sizeof v);
}

}  // namespace internal

}  // namespace crypto
}  // namespace foundation
}  // namespace zorv
