// SHA1: the FIPS 180-1 SHA-1 message digest of memory blocks and files.
#ifndef ZORV_FOUNDATION_CRYPTO_SHA1_H_
#define ZORV_FOUNDATION_CRYPTO_SHA1_H_

#include "foundation/collection/vector.h"
#include "foundation/export.h"
#include "foundation/text/safestring.h"

namespace zorv {
namespace foundation {
namespace crypto {

namespace detail {
struct SHA1Private;
}  // namespace detail

// An incremental SHA-1 digest (20 bytes): feed bytes with addData() in any
// number of pieces, read the digest of everything fed so far with result().
// The static helpers digest one memory block or one whole file and give raw
// bytes or upper-case hexadecimal text.
//
// Thread safety: an object is not locked; use one object from one thread at
// a time. Distinct objects and the static helpers may be used from any
// number of threads at once.
// Ownership: the object owns its state; it is not copyable. Results are
// returned by value and belong to the caller.
class ZORV_FOUNDATION_EXPORT SHA1 {
 public:
  // An empty digest (nothing added yet).
  // Throws std::bad_alloc when memory is exhausted.
  SHA1();
  ~SHA1();
  SHA1(const SHA1&) = delete;
  SHA1& operator=(const SHA1&) = delete;

  // Appends `size` bytes at `data` to the digested data. May be called any
  // number of times; size 0 does nothing.
  // REQUIRES: data points to `size` readable bytes (may be null when size is 0).
  void addData(unsigned char const* data, unsigned int size);

  // The 20 digest bytes of everything added so far. The object is not
  // changed: more data may be added afterwards, and a later result() covers
  // all data added in total.
  collection::Vector<unsigned char> result() const;

  // ---- One-shot helpers ----

  // The 20 digest bytes of `size` bytes at `data`.
  // REQUIRES: data points to `size` readable bytes (may be null when size is 0).
  static collection::Vector<unsigned char> ComputeBinary(unsigned char const* data,
                                                         unsigned int size);

  // Stores the 20 digest bytes of the contents of the file at `path` in
  // `digest`, replacing its contents; the file is read from start to end
  // through one buffer of at most 256 KiB (4096 bytes when no more memory
  // can be had), never loaded whole. A regular file is read until its end,
  // whatever size it says it has (files under /proc say 0 bytes); a device
  // only up to the size that a seek to its end gives. Returns false, leaving
  // `digest` untouched, when `path` is null, the file cannot be opened, is a
  // folder, or a read fails.
  [[nodiscard]] static bool ComputeFile(char const* path,
                                        collection::Vector<unsigned char>& digest);

  // Upper-case hexadecimal text of any byte vector: two characters per byte,
  // high nibble first, no separators; "" for an empty vector.
  static SafeString ToString(collection::Vector<unsigned char> const& digest);

  // ToString(ComputeBinary(data, size)): 40 upper-case hexadecimal characters.
  // REQUIRES: as ComputeBinary.
  static SafeString EncodeBinary(unsigned char const* data, unsigned int size);

  // ComputeFile, then ToString into `text`. Returns false, leaving `text`
  // untouched, when ComputeFile fails.
  [[nodiscard]] static bool EncodeFile(char const* path, SafeString& text);

 private:
  detail::SHA1Private* d_;
};

// ---- End of public API: helpers for the library's own tests ----

namespace detail {

// Chooses the SHA-1 block code of the whole process: with `allowed` true
// (the default) the processor's SHA instructions (x86 SHA extensions, the
// ARMv8 cryptographic extension) are used when the processor has them;
// with false the portable code is used everywhere. Takes effect from the
// next block digested, also in objects already holding data (both codes
// keep the same state). Returns whether the SHA instructions are in use
// from now on. Thread-safe.
ZORV_FOUNDATION_EXPORT bool _UseSha1Instructions(bool allowed);

}  // namespace detail

}  // namespace crypto
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_CRYPTO_SHA1_H_
