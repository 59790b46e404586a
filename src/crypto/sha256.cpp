// SHA-256 digest (FIPS 180-4), with the block transform chosen at run time.
#include "foundation/crypto/sha256.h"

#include <stdint.h>
#include <string.h>

#include <atomic>
#include <new>

#include "crypto/blockhash.h"
#include "crypto/digestcommon.h"
#include "crypto/sha256transform.h"
#include "lang/accounting.h"

namespace zorv {
namespace foundation {
namespace crypto {
namespace detail {

// What SHA-256 adds to the shared block hashing: its transform (chosen at
// run time) and big-endian words and length.
struct SHA256Algorithm {
  static constexpr size_t kWords = 8;
  static constexpr uint32_t kInitial[kWords] = {0x6A09E667u, 0xBB67AE85u, 0x3C6EF372u, 0xA54FF53Au,
                                                0x510E527Fu, 0x9B05688Cu, 0x1F83D9ABu, 0x5BE0CD19u};
  static void Transform(uint32_t* state, const unsigned char* data, size_t blocks);
  static void StoreWord(unsigned char* out, uint32_t word) { internal::StoreBig32(out, word); }
  static void StoreLength(unsigned char* out, unsigned long long bits) {
    internal::StoreBig32(out, static_cast<uint32_t>(bits >> 32));
    internal::StoreBig32(out + 4, static_cast<uint32_t>(bits));
  }
};

// The running digest.
struct SHA256Private : internal::BlockHash<SHA256Algorithm> {};

}  // namespace detail

namespace {

constexpr char kSource[] = "../crypto/sha256.cpp";

using detail::SHA256Private;

// The transform in use: the accelerated one when the processor has it and
// tests have not forced the portable one.
std::atomic<internal::Sha256Blocks> g_transform{nullptr};

internal::Sha256Blocks Choose(bool allowed) {
  internal::Sha256Blocks accelerated = allowed ? internal::Sha256BlocksAccelerated() : nullptr;
  return accelerated != nullptr ? accelerated : &internal::Sha256BlocksPortable;
}

SHA256Private* NewState(const char* name) {
  SHA256Private* d = lang::AccountedNewOrThrow<SHA256Private>(ZORV_ACCOUNTING_SITE(kSource, name));
  d->reset();
  return d;
}

}  // namespace

void detail::SHA256Algorithm::Transform(uint32_t* state, const unsigned char* data, size_t blocks) {
  internal::Sha256Blocks transform = g_transform.load(std::memory_order_relaxed);
  if (transform == nullptr) {
    transform = Choose(true);
    g_transform.store(transform, std::memory_order_relaxed);
  }
  transform(state, data, blocks);
}

SHA256::SHA256() : d_(NewState("SHA256")) {}

SHA256::~SHA256() { lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~SHA256")); }

void SHA256::addData(unsigned char const* data, unsigned int size) { d_->update(data, size); }

collection::Vector<unsigned char> SHA256::result() const { return d_->finish(); }

collection::Vector<unsigned char> SHA256::ComputeBinary(unsigned char const* data,
                                                        unsigned int size) {
  SHA256Private state;
  state.reset();
  state.update(data, size);
  return state.finish();
}

bool SHA256::ComputeFile(char const* path, collection::Vector<unsigned char>& digest) {
  return internal::DigestFile<SHA256>(path, digest);
}

SafeString SHA256::ToString(collection::Vector<unsigned char> const& digest) {
  return internal::HexText(digest);
}

SafeString SHA256::EncodeBinary(unsigned char const* data, unsigned int size) {
  return ToString(ComputeBinary(data, size));
}

bool SHA256::EncodeFile(char const* path, SafeString& text) {
  collection::Vector<unsigned char> digest;
  if (!ComputeFile(path, digest)) return false;
  text = ToString(digest);
  return true;
}

namespace detail {

bool _UseSha256Instructions(bool allowed) {
  internal::Sha256Blocks transform = Choose(allowed);
  g_transform.store(transform, std::memory_order_relaxed);
  return transform != &internal::Sha256BlocksPortable;
}

}  // namespace detail

}  // namespace crypto
}  // namespace foundation
}  // namespace zorv
