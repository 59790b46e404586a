// SHA-1 digest (FIPS 180-1), with the block transform chosen at run time.
#include "foundation/crypto/sha1.h"

#include <stdint.h>
#include <string.h>

#include <atomic>
#include <new>

#include "crypto/blockhash.h"
#include "crypto/digestcommon.h"
#include "crypto/sha1transform.h"
#include "lang/accounting.h"

namespace zorv {
namespace foundation {
namespace crypto {
namespace detail {

// What SHA-1 adds to the shared block hashing: its transform (chosen at run
// time) and big-endian words and length.
struct SHA1Algorithm {
  static constexpr size_t kWords = 5;
  static constexpr uint32_t kInitial[kWords] = {0x67452301u, 0xEFCDAB89u, 0x98BADCFEu,
                                               0x10325476u, 0xC3D2E1F0u};
  static void Transform(uint32_t* state, const unsigned char* data, size_t blocks);
  static void StoreWord(unsigned char* out, uint32_t word) { internal::StoreBig32(out, word); }
  static void StoreLength(unsigned char* out, unsigned long long bits) {
    internal::StoreBig32(out, static_cast<uint32_t>(bits >> 32));
    internal::StoreBig32(out + 4, static_cast<uint32_t>(bits));
  }
};

// The running digest.
struct SHA1Private : internal::BlockHash<SHA1Algorithm> {};

}  // namespace detail

namespace internal {

// The message schedule lives in a ring of 16 words; the rounds are unrolled
// so that the five working words never move.
#define SHA1_W(i) w[(i)&15]
#define SHA1_NEXT(i) \
  (SHA1_W(i) = RotateLeft(SHA1_W((i) + 13) ^ SHA1_W((i) + 8) ^ SHA1_W((i) + 2) ^ SHA1_W(i), 1))
#define SHA1_R0(v, x, y, z, u, i)                  \
  SHA1_W(i) = LoadBig32(data + 4 * (i));           \
  u += (((y) ^ (z)) & (x)) ^ (z);                  \
  u += SHA1_W(i) + 0x5A827999u + RotateLeft(v, 5); \
  x = RotateLeft(x, 30)
#define SHA1_R1(v, x, y, z, u, i)                                                   \
  u += ((((y) ^ (z)) & (x)) ^ (z)) + SHA1_NEXT(i) + 0x5A827999u + RotateLeft(v, 5); \
  x = RotateLeft(x, 30)
#define SHA1_R2(v, x, y, z, u, i)                                         \
  u += ((x) ^ (y) ^ (z)) + SHA1_NEXT(i) + 0x6ED9EBA1u + RotateLeft(v, 5); \
  x = RotateLeft(x, 30)
#define SHA1_R3(v, x, y, z, u, i)                                                         \
  u += ((x) & (y)) + ((z) & ((x) ^ (y))) + SHA1_NEXT(i) + 0x8F1BBCDCu + RotateLeft(v, 5); \
  x = RotateLeft(x, 30)
#define SHA1_R4(v, x, y, z, u, i)                                         \
  u += ((x) ^ (y) ^ (z)) + SHA1_NEXT(i) + 0xCA62C1D6u + RotateLeft(v, 5); \
  x = RotateLeft(x, 30)

void Sha1BlocksPortable(uint32_t state[5], const unsigned char* data, size_t blocks) {
  uint32_t a = state[0];
  uint32_t b = state[1];
  uint32_t c = state[2];
  uint32_t d = state[3];
  uint32_t e = state[4];
  uint32_t w[16];
  for (; blocks != 0; --blocks, data += 64) {
    const uint32_t a0 = a;
    const uint32_t b0 = b;
    const uint32_t c0 = c;
    const uint32_t d0 = d;
    const uint32_t e0 = e;
    // Rounds 0 to 19.
    SHA1_R0(a, b, c, d, e, 0);
    SHA1_R0(e, a, b, c, d, 1);
    SHA1_R0(d, e, a, b, c, 2);
    SHA1_R0(c, d, e, a, b, 3);
    SHA1_R0(b, c, d, e, a, 4);
    SHA1_R0(a, b, c, d, e, 5);
    SHA1_R0(e, a, b, c, d, 6);
    SHA1_R0(d, e, a, b, c, 7);
    SHA1_R0(c, d, e, a, b, 8);
    SHA1_R0(b, c, d, e, a, 9);
    SHA1_R0(a, b, c, d, e, 10);
    SHA1_R0(e, a, b, c, d, 11);
    SHA1_R0(d, e, a, b, c, 12);
    SHA1_R0(c, d, e, a, b, 13);
    SHA1_R0(b, c, d, e, a, 14);
    SHA1_R0(a, b, c, d, e, 15);
    SHA1_R1(e, a, b, c, d, 16);
    SHA1_R1(d, e, a, b, c, 17);
    SHA1_R1(c, d, e, a, b, 18);
    SHA1_R1(b, c, d, e, a, 19);
    // Rounds 20 to 39.
    SHA1_R2(a, b, c, d, e, 20);
    SHA1_R2(e, a, b, c, d, 21);
    SHA1_R2(d, e, a, b, c, 22);
    SHA1_R2(c, d, e, a, b, 23);
    SHA1_R2(b, c, d, e, a, 24);
    SHA1_R2(a, b, c, d, e, 25);
    SHA1_R2(e, a, b, c, d, 26);
    SHA1_R2(d, e, a, b, c, 27);
    SHA1_R2(c, d, e, a, b, 28);
    SHA1_R2(b, c, d, e, a, 29);
    SHA1_R2(a, b, c, d, e, 30);
    SHA1_R2(e, a, b, c, d, 31);
    SHA1_R2(d, e, a, b, c, 32);
    SHA1_R2(c, d, e, a, b, 33);
    SHA1_R2(b, c, d, e, a, 34);
    SHA1_R2(a, b, c, d, e, 35);
    SHA1_R2(e, a, b, c, d, 36);
    SHA1_R2(d, e, a, b, c, 37);
    SHA1_R2(c, d, e, a, b, 38);
    SHA1_R2(b, c, d, e, a, 39);
    // Rounds 40 to 59.
    SHA1_R3(a, b, c, d, e, 40);
    SHA1_R3(e, a, b, c, d, 41);
    SHA1_R3(d, e, a, b, c, 42);
    SHA1_R3(c, d, e, a, b, 43);
    SHA1_R3(b, c, d, e, a, 44);
    SHA1_R3(a, b, c, d, e, 45);
    SHA1_R3(e, a, b, c, d, 46);
    SHA1_R3(d, e, a, b, c, 47);
    SHA1_R3(c, d, e, a, b, 48);
    SHA1_R3(b, c, d, e, a, 49);
    SHA1_R3(a, b, c, d, e, 50);
    SHA1_R3(e, a, b, c, d, 51);
    SHA1_R3(d, e, a, b, c, 52);
    SHA1_R3(c, d, e, a, b, 53);
    SHA1_R3(b, c, d, e, a, 54);
    SHA1_R3(a, b, c, d, e, 55);
    SHA1_R3(e, a, b, c, d, 56);
    SHA1_R3(d, e, a, b, c, 57);
    SHA1_R3(c, d, e, a, b, 58);
    SHA1_R3(b, c, d, e, a, 59);
    // Rounds 60 to 79.
    SHA1_R4(a, b, c, d, e, 60);
    SHA1_R4(e, a, b, c, d, 61);
    SHA1_R4(d, e, a, b, c, 62);
    SHA1_R4(c, d, e, a, b, 63);
    SHA1_R4(b, c, d, e, a, 64);
    SHA1_R4(a, b, c, d, e, 65);
    SHA1_R4(e, a, b, c, d, 66);
    SHA1_R4(d, e, a, b, c, 67);
    SHA1_R4(c, d, e, a, b, 68);
    SHA1_R4(b, c, d, e, a, 69);
    SHA1_R4(a, b, c, d, e, 70);
    SHA1_R4(e, a, b, c, d, 71);
    SHA1_R4(d, e, a, b, c, 72);
    SHA1_R4(c, d, e, a, b, 73);
    SHA1_R4(b, c, d, e, a, 74);
    SHA1_R4(a, b, c, d, e, 75);
    SHA1_R4(e, a, b, c, d, 76);
    SHA1_R4(d, e, a, b, c, 77);
    SHA1_R4(c, d, e, a, b, 78);
    SHA1_R4(b, c, d, e, a, 79);
    a += a0;
    b += b0;
    c += c0;
    d += d0;
    e += e0;
  }
  state[0] = a;
  state[1] = b;
  state[2] = c;
  state[3] = d;
  state[4] = e;
}

#undef SHA1_R4
#undef SHA1_R3
#undef SHA1_R2
#undef SHA1_R1
#undef SHA1_R0
#undef SHA1_NEXT
#undef SHA1_W

}  // namespace internal

namespace {

constexpr char kSource[] = "../crypto/sha1.cpp";

using detail::SHA1Private;

// The transform in use: the accelerated one when the processor has it and
// tests have not forced the portable one.
std::atomic<internal::Sha1Blocks> g_transform{nullptr};

internal::Sha1Blocks Choose(bool allowed) {
  internal::Sha1Blocks accelerated = allowed ? internal::Sha1BlocksAccelerated() : nullptr;
  return accelerated != nullptr ? accelerated : &internal::Sha1BlocksPortable;
}

}  // namespace

void detail::SHA1Algorithm::Transform(uint32_t* state, const unsigned char* data, size_t blocks) {
  internal::Sha1Blocks transform = g_transform.load(std::memory_order_relaxed);
  if (transform == nullptr) {
    transform = Choose(true);
    g_transform.store(transform, std::memory_order_relaxed);
  }
  transform(state, data, blocks);
}

namespace {

SHA1Private* NewState(const char* name) {
  SHA1Private* d = lang::AccountedNewOrThrow<SHA1Private>(ZORV_ACCOUNTING_SITE(kSource, name));
  d->reset();
  return d;
}

}  // namespace

SHA1::SHA1() : d_(NewState("SHA1")) {}

SHA1::~SHA1() { lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~SHA1")); }

void SHA1::addData(unsigned char const* data, unsigned int size) { d_->update(data, size); }

collection::Vector<unsigned char> SHA1::result() const { return d_->finish(); }

collection::Vector<unsigned char> SHA1::ComputeBinary(unsigned char const* data,
                                                      unsigned int size) {
  SHA1Private state;
  state.reset();
  state.update(data, size);
  return state.finish();
}

bool SHA1::ComputeFile(char const* path, collection::Vector<unsigned char>& digest) {
  return internal::DigestFile<SHA1>(path, digest);
}

SafeString SHA1::ToString(collection::Vector<unsigned char> const& digest) {
  return internal::HexText(digest);
}

SafeString SHA1::EncodeBinary(unsigned char const* data, unsigned int size) {
  return ToString(ComputeBinary(data, size));
}

bool SHA1::EncodeFile(char const* path, SafeString& text) {
  collection::Vector<unsigned char> digest;
  if (!ComputeFile(path, digest)) return false;
  text = ToString(digest);
  return true;
}

namespace detail {

bool _UseSha1Instructions(bool allowed) {
  internal::Sha1Blocks transform = Choose(allowed);
  g_transform.store(transform, std::memory_order_relaxed);
  return transform != &internal::Sha1BlocksPortable;
}

}  // namespace detail

}  // namespace crypto
}  // namespace foundation
}  // namespace zorv
