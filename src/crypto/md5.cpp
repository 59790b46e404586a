// MD5 digest (RFC 1321).
#include "foundation/crypto/md5.h"

#include <stdint.h>
#include <string.h>

#include <new>

#include "crypto/blockhash.h"
#include "crypto/digestcommon.h"
#include "lang/accounting.h"

namespace zorv {
namespace foundation {
namespace crypto {
namespace detail {

// What MD5 adds to the shared block hashing: little-endian words and length.
struct MD5Algorithm {
  static constexpr size_t kWords = 4;
  static constexpr uint32_t kInitial[kWords] = {0x67452301u, 0xEFCDAB89u, 0x98BADCFEu,
                                               0x10325476u};
  // Runs the block transform over `blocks` consecutive 64-byte blocks.
  static void Transform(uint32_t* state, const unsigned char* block, size_t blocks);
  static void StoreWord(unsigned char* out, uint32_t word) { internal::StoreLittle32(out, word); }
  static void StoreLength(unsigned char* out, unsigned long long bits) {
    internal::StoreLittle32(out, static_cast<uint32_t>(bits));
    internal::StoreLittle32(out + 4, static_cast<uint32_t>(bits >> 32));
  }
};

// The running digest.
struct MD5Private : internal::BlockHash<MD5Algorithm> {};

}  // namespace detail

namespace {

constexpr char kSource[] = "../crypto/md5.cpp";

using detail::MD5Private;
using internal::LoadLittle32;
using internal::RotateLeft;

// The four auxiliary functions, written for short dependency chains: in G
// the term without b is ready before b is, and the two halves of H share
// their exclusive-or with the neighbouring step.
#define MD5_F(b, c, d) ((((c) ^ (d)) & (b)) ^ (d))
#define MD5_I(b, c, d) ((c) ^ ((b) | ~(d)))

#define MD5_STEP(f, a, b, c, d, k, t, s) MD5_STEP_##f(a, b, c, d, k, t, s)
#define MD5_STEP_F(a, b, c, d, k, t, s)                      \
  a += LoadLittle32(block + 4 * (k)) + (t) + MD5_F(b, c, d); \
  a = RotateLeft(a, s) + (b)
#define MD5_STEP_G(a, b, c, d, k, t, s)                    \
  a += LoadLittle32(block + 4 * (k)) + (t) + ((c) & ~(d)); \
  a += (b) & (d);                                          \
  a = RotateLeft(a, s) + (b)
#define MD5_STEP_H1(a, b, c, d, k, t, s)                          \
  a += LoadLittle32(block + 4 * (k)) + (t) + (((b) ^ (c)) ^ (d)); \
  a = RotateLeft(a, s) + (b)
#define MD5_STEP_H2(a, b, c, d, k, t, s)                          \
  a += LoadLittle32(block + 4 * (k)) + (t) + ((b) ^ ((c) ^ (d))); \
  a = RotateLeft(a, s) + (b)
#define MD5_STEP_I(a, b, c, d, k, t, s)                      \
  a += LoadLittle32(block + 4 * (k)) + (t) + MD5_I(b, c, d); \
  a = RotateLeft(a, s) + (b)

}  // namespace

void detail::MD5Algorithm::Transform(uint32_t* state, const unsigned char* block, size_t blocks) {
  uint32_t a = state[0];
  uint32_t b = state[1];
  uint32_t c = state[2];
  uint32_t d = state[3];
  for (; blocks != 0; --blocks, block += 64) {
    const uint32_t a0 = a;
    const uint32_t b0 = b;
    const uint32_t c0 = c;
    const uint32_t d0 = d;
    // Round 1.
    MD5_STEP(F, a, b, c, d, 0, 0xd76aa478u, 7);
    MD5_STEP(F, d, a, b, c, 1, 0xe8c7b756u, 12);
    MD5_STEP(F, c, d, a, b, 2, 0x242070dbu, 17);
    MD5_STEP(F, b, c, d, a, 3, 0xc1bdceeeu, 22);
    MD5_STEP(F, a, b, c, d, 4, 0xf57c0fafu, 7);
    MD5_STEP(F, d, a, b, c, 5, 0x4787c62au, 12);
    MD5_STEP(F, c, d, a, b, 6, 0xa8304613u, 17);
    MD5_STEP(F, b, c, d, a, 7, 0xfd469501u, 22);
    MD5_STEP(F, a, b, c, d, 8, 0x698098d8u, 7);
    MD5_STEP(F, d, a, b, c, 9, 0x8b44f7afu, 12);
    MD5_STEP(F, c, d, a, b, 10, 0xffff5bb1u, 17);
    MD5_STEP(F, b, c, d, a, 11, 0x895cd7beu, 22);
    MD5_STEP(F, a, b, c, d, 12, 0x6b901122u, 7);
    MD5_STEP(F, d, a, b, c, 13, 0xfd987193u, 12);
    MD5_STEP(F, c, d, a, b, 14, 0xa679438eu, 17);
    MD5_STEP(F, b, c, d, a, 15, 0x49b40821u, 22);
    // Round 2.
    MD5_STEP(G, a, b, c, d, 1, 0xf61e2562u, 5);
    MD5_STEP(G, d, a, b, c, 6, 0xc040b340u, 9);
    MD5_STEP(G, c, d, a, b, 11, 0x265e5a51u, 14);
    MD5_STEP(G, b, c, d, a, 0, 0xe9b6c7aau, 20);
    MD5_STEP(G, a, b, c, d, 5, 0xd62f105du, 5);
    MD5_STEP(G, d, a, b, c, 10, 0x02441453u, 9);
    MD5_STEP(G, c, d, a, b, 15, 0xd8a1e681u, 14);
    MD5_STEP(G, b, c, d, a, 4, 0xe7d3fbc8u, 20);
    MD5_STEP(G, a, b, c, d, 9, 0x21e1cde6u, 5);
    MD5_STEP(G, d, a, b, c, 14, 0xc33707d6u, 9);
    MD5_STEP(G, c, d, a, b, 3, 0xf4d50d87u, 14);
    MD5_STEP(G, b, c, d, a, 8, 0x455a14edu, 20);
    MD5_STEP(G, a, b, c, d, 13, 0xa9e3e905u, 5);
    MD5_STEP(G, d, a, b, c, 2, 0xfcefa3f8u, 9);
    MD5_STEP(G, c, d, a, b, 7, 0x676f02d9u, 14);
    MD5_STEP(G, b, c, d, a, 12, 0x8d2a4c8au, 20);
    // Round 3.
    MD5_STEP(H1, a, b, c, d, 5, 0xfffa3942u, 4);
    MD5_STEP(H2, d, a, b, c, 8, 0x8771f681u, 11);
    MD5_STEP(H1, c, d, a, b, 11, 0x6d9d6122u, 16);
    MD5_STEP(H2, b, c, d, a, 14, 0xfde5380cu, 23);
    MD5_STEP(H1, a, b, c, d, 1, 0xa4beea44u, 4);
    MD5_STEP(H2, d, a, b, c, 4, 0x4bdecfa9u, 11);
    MD5_STEP(H1, c, d, a, b, 7, 0xf6bb4b60u, 16);
    MD5_STEP(H2, b, c, d, a, 10, 0xbebfbc70u, 23);
    MD5_STEP(H1, a, b, c, d, 13, 0x289b7ec6u, 4);
    MD5_STEP(H2, d, a, b, c, 0, 0xeaa127fau, 11);
    MD5_STEP(H1, c, d, a, b, 3, 0xd4ef3085u, 16);
    MD5_STEP(H2, b, c, d, a, 6, 0x04881d05u, 23);
    MD5_STEP(H1, a, b, c, d, 9, 0xd9d4d039u, 4);
    MD5_STEP(H2, d, a, b, c, 12, 0xe6db99e5u, 11);
    MD5_STEP(H1, c, d, a, b, 15, 0x1fa27cf8u, 16);
    MD5_STEP(H2, b, c, d, a, 2, 0xc4ac5665u, 23);
    // Round 4.
    MD5_STEP(I, a, b, c, d, 0, 0xf4292244u, 6);
    MD5_STEP(I, d, a, b, c, 7, 0x432aff97u, 10);
    MD5_STEP(I, c, d, a, b, 14, 0xab9423a7u, 15);
    MD5_STEP(I, b, c, d, a, 5, 0xfc93a039u, 21);
    MD5_STEP(I, a, b, c, d, 12, 0x655b59c3u, 6);
    MD5_STEP(I, d, a, b, c, 3, 0x8f0ccc92u, 10);
    MD5_STEP(I, c, d, a, b, 10, 0xffeff47du, 15);
    MD5_STEP(I, b, c, d, a, 1, 0x85845dd1u, 21);
    MD5_STEP(I, a, b, c, d, 8, 0x6fa87e4fu, 6);
    MD5_STEP(I, d, a, b, c, 15, 0xfe2ce6e0u, 10);
    MD5_STEP(I, c, d, a, b, 6, 0xa3014314u, 15);
    MD5_STEP(I, b, c, d, a, 13, 0x4e0811a1u, 21);
    MD5_STEP(I, a, b, c, d, 4, 0xf7537e82u, 6);
    MD5_STEP(I, d, a, b, c, 11, 0xbd3af235u, 10);
    MD5_STEP(I, c, d, a, b, 2, 0x2ad7d2bbu, 15);
    MD5_STEP(I, b, c, d, a, 9, 0xeb86d391u, 21);
    a += a0;
    b += b0;
    c += c0;
    d += d0;
  }
  state[0] = a;
  state[1] = b;
  state[2] = c;
  state[3] = d;
}

#undef MD5_STEP_I
#undef MD5_STEP_H2
#undef MD5_STEP_H1
#undef MD5_STEP_G
#undef MD5_STEP_F
#undef MD5_STEP
#undef MD5_I
#undef MD5_F

namespace {

MD5Private* NewState(const char* name) {
  MD5Private* d = lang::AccountedNewOrThrow<MD5Private>(ZORV_ACCOUNTING_SITE(kSource, name));
  d->reset();
  return d;
}

}  // namespace

MD5::MD5() : d_(NewState("MD5")) {}

MD5::~MD5() { lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~MD5")); }

void MD5::addData(unsigned char const* data, unsigned int size) { d_->update(data, size); }

collection::Vector<unsigned char> MD5::result() const { return d_->finish(); }

collection::Vector<unsigned char> MD5::ComputeBinary(unsigned char const* data, unsigned int size) {
  MD5Private state;
  state.reset();
  state.update(data, size);
  return state.finish();
}

bool MD5::ComputeFile(char const* path, collection::Vector<unsigned char>& digest) {
  return internal::DigestFile<MD5>(path, digest);
}

SafeString MD5::ToString(collection::Vector<unsigned char> const& digest) {
  return internal::HexText(digest);
}

SafeString MD5::EncodeBinary(unsigned char const* data, unsigned int size) {
  return ToString(ComputeBinary(data, size));
}

bool MD5::EncodeFile(char const* path, SafeString& text) {
  collection::Vector<unsigned char> digest;
  if (!ComputeFile(path, digest)) return false;
  text = ToString(digest);
  return true;
}

}  // namespace crypto
}  // namespace foundation
}  // namespace zorv
