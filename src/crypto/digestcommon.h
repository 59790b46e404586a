// Pieces shared by the MD5 and SHA-1 digests: byte-order helpers, the
// hexadecimal text and the file loop. Private to the library.
#ifndef ZORV_SRC_CRYPTO_DIGESTCOMMON_H_
#define ZORV_SRC_CRYPTO_DIGESTCOMMON_H_

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "foundation/collection/vector.h"
#include "foundation/debug/memorymonitor.h"
#include "foundation/text/safestring.h"
#include "system/posixio.h"

namespace zorv {
namespace foundation {
namespace crypto {
namespace internal {

// Size of the fallback buffer for reading files, and of the buffer used
// when it can be had.
constexpr unsigned int kFileChunk = 4096;
constexpr unsigned int kFileBuffer = 256 * 1024;

// A heap buffer of `size` bytes from the debug-support library, or none
// (data null) when `size` is 0 or the memory cannot be had.
struct FileBuffer {
  explicit FileBuffer(unsigned int bytes)
      : data(bytes == 0 ? nullptr : debug::MemoryMonitor::Alloc(bytes)), size(bytes) {}
  ~FileBuffer() { debug::MemoryMonitor::Dealloc(data, size); }
  FileBuffer(const FileBuffer&) = delete;
  FileBuffer& operator=(const FileBuffer&) = delete;

  unsigned char* data;
  unsigned int size;
};

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

// Digests the open file `fd` with a fresh Digest object: reads it from the
// start, in order, through one fixed buffer, and hashes what each read
// delivered. A regular file is read to its end, whatever size it says it
// has (files under /proc say 0 bytes); any other file (a device) up to the
// size that a seek to its end gives, so that /dev/zero ends at once.
// Returns false, leaving `digest` untouched, when the file is a folder or a
// read fails.
//
// The buffer holds kFileBuffer bytes, so that a large file costs one system
// call per kFileBuffer bytes instead of one per 4096, which on a fast
// processor costs as much as the hashing itself; when that much memory
// cannot be had, it falls back to kFileChunk bytes on the stack. The digest
// is the same either way: only the sizes of the reads differ.
template <class Digest>
bool DigestDescriptor(int fd, collection::Vector<unsigned char>& digest) {
  struct stat info;
  if (fstat(fd, &info) != 0 || S_ISDIR(info.st_mode)) return false;
  const bool toEnd = S_ISREG(info.st_mode);
  // The file is read once from start to end: let the kernel read ahead.
  (void)posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  unsigned long long remaining = 0;
  if (toEnd) {
    if (info.st_size > 0) remaining = static_cast<unsigned long long>(info.st_size);
  } else {
    const off_t end = lseek(fd, 0, SEEK_END);
    if (end > 0) remaining = static_cast<unsigned long long>(end);
    (void)lseek(fd, 0, SEEK_SET);
  }
  unsigned char small[kFileChunk];
  // A file that says it fits the small buffer needs no other; a larger one
  // gets a buffer of its size in whole chunks, up to kFileBuffer.
  unsigned int bigSize = 0;
  if (remaining > kFileChunk) {
    bigSize =
        remaining >= kFileBuffer
            ? kFileBuffer
            : static_cast<unsigned int>((remaining + kFileChunk - 1) / kFileChunk * kFileChunk);
  }
  FileBuffer big(bigSize);
  unsigned char* const buffer = big.data != nullptr ? big.data : small;
  const size_t room = big.data != nullptr ? bigSize : kFileChunk;
  Digest digester;
  while (toEnd || remaining > 0) {
    const size_t wanted = toEnd || remaining >= room ? room : static_cast<size_t>(remaining);
    const ssize_t got = system::posixio::ReadSome(fd, buffer, wanted);
    if (got < 0) return false;
    // The end, or a device that ends before its measured size.
    if (got == 0) break;
    digester.addData(buffer, static_cast<unsigned int>(got));
    if (!toEnd) remaining -= static_cast<unsigned long long>(got);
  }
  digest = digester.result();
  return true;
}

// DigestDescriptor over the file at `path`, opened here (retrying when a
// signal interrupts the open) and closed again; false as well when it cannot
// be opened.
template <class Digest>
bool DigestFile(const char* path, collection::Vector<unsigned char>& digest) {
  if (path == nullptr) return false;
  // errno stays the caller's: failures are reported by the result only.
  const int savedErrno = errno;
  bool ok = false;
  {
    system::posixio::Descriptor fd(system::posixio::Open(path, O_RDONLY));
    ok = fd.valid() && DigestDescriptor<Digest>(fd.get(), digest);
  }
  errno = savedErrno;
  return ok;
}

}  // namespace internal
}  // namespace crypto
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_SRC_CRYPTO_DIGESTCOMMON_H_
