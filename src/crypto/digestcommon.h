// Pieces shared by the MD5 and SHA-1 digests: byte-order helpers, the
// hexadecimal text and the file loop. Private to the library.
#ifndef ZORV_SRC_CRYPTO_DIGESTCOMMON_H_
#define ZORV_SRC_CRYPTO_DIGESTCOMMON_H_

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

#include "foundation/collection/vector.h"
#include "foundation/text/safestring.h"

namespace zorv {
namespace foundation {
namespace crypto {
namespace internal {

// Size of the pieces in which files are read.
constexpr unsigned int kFileChunk = 4096;

inline uint32_t RotateLeft(uint32_t value, int bits) {
  return (value << bits) | (value >> (32 - bits));
}

inline uint32_t LoadLittle32(const unsigned char* p) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  uint32_t value;
  memcpy(&value, p, sizeof value);
  return value;
#else
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
#endif
}

inline uint32_t LoadBig32(const unsigned char* p) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  uint32_t value;
  memcpy(&value, p, sizeof value);
  return __builtin_bswap32(value);
#else
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
#endif
}

inline void StoreLittle32(unsigned char* p, uint32_t value) {
  p[0] = static_cast<unsigned char>(value);
  p[1] = static_cast<unsigned char>(value >> 8);
  p[2] = static_cast<unsigned char>(value >> 16);
  p[3] = static_cast<unsigned char>(value >> 24);
}

inline void StoreBig32(unsigned char* p, uint32_t value) {
  p[0] = static_cast<unsigned char>(value >> 24);
  p[1] = static_cast<unsigned char>(value >> 16);
  p[2] = static_cast<unsigned char>(value >> 8);
  p[3] = static_cast<unsigned char>(value);
}

// Upper-case hexadecimal text of `bytes`, high nibble first.
inline SafeString HexText(const collection::Vector<unsigned char>& bytes) {
  static const char kDigits[] = "0123456789ABCDEF";
  SafeString text;
  text.resize(bytes.size() * 2);
  for (size_t i = 0; i < bytes.size(); ++i) {
    text[2 * i] = kDigits[bytes[i] >> 4];
    text[2 * i + 1] = kDigits[bytes[i] & 0x0F];
  }
  return text;
}

// Digests the file at `path` with a fresh Digest object: measures its size,
// then reads min(4096, remaining) bytes at a time through one fixed buffer,
// counting the requested sizes. Returns false, leaving `digest` untouched,
// when the file cannot be opened.
template <class Digest>
bool DigestFile(const char* path, collection::Vector<unsigned char>& digest) {
  if (path == nullptr) return false;
  // errno stays the caller's: failures are reported by the result only.
  const int savedErrno = errno;
  FILE* file = fopen(path, "rb");
  if (file == nullptr) {
    errno = savedErrno;
    return false;
  }
  // Every read asks for whole pieces of the fixed buffer; unbuffered reads go
  // straight into it instead of through a second copy.
  setvbuf(file, nullptr, _IONBF, 0);
  // The file is read once from start to end: let the kernel read ahead.
  posix_fadvise(fileno(file), 0, 0, POSIX_FADV_SEQUENTIAL);
  unsigned long long remaining = 0;
  if (fseeko(file, 0, SEEK_END) == 0) {
    const off_t end = ftello(file);
    if (end > 0) remaining = static_cast<unsigned long long>(end);
  }
  fseeko(file, 0, SEEK_SET);
  unsigned char buffer[kFileChunk];
  Digest digester;
  while (remaining > 0) {
    const size_t wanted = remaining < kFileChunk ? static_cast<size_t>(remaining) : kFileChunk;
    const size_t got = fread(buffer, 1, wanted, file);
    // A short file (shrunk since it was measured, or a folder) ends the loop
    // at its first empty read: later reads would deliver nothing either.
    if (got == 0) break;
    digester.addData(buffer, static_cast<unsigned int>(got));
    remaining -= wanted;
  }
  fclose(file);
  errno = savedErrno;
  digest = digester.result();
  return true;
}

}  // namespace internal
}  // namespace crypto
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_SRC_CRYPTO_DIGESTCOMMON_H_
