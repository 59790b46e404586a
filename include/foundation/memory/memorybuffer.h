// MemoryBuffer: a growable byte buffer with separate read and write positions.
#ifndef ZORV_FOUNDATION_MEMORY_MEMORYBUFFER_H_
#define ZORV_FOUNDATION_MEMORY_MEMORYBUFFER_H_

#include "foundation/export.h"
#include "foundation/memory/buffer.h"

namespace zorv {
namespace foundation {
namespace memory {

// A growable byte buffer. Its storage comes from the C heap (realloc/free),
// deliberately not from the accounted allocator. It keeps a length (valid
// bytes), a read position and a write position; both positions stay within
// the allocated size, and after every write the length is at least the write
// position. Growth: the first write into an empty buffer allocates exactly
// what it needs; later growth doubles the storage when the shortfall fits in
// the current size, and otherwise adds exactly the shortfall.
//
// Not thread-safe: one thread at a time. Movable, not copyable. The buffer
// owns its storage; data() stays valid until the next growth, setLength(),
// clear(), move or destruction.
class ZORV_FOUNDATION_EXPORT MemoryBuffer : public IBuffer {
 public:
  // An empty buffer without storage; all fields zero.
  MemoryBuffer();

  // Takes all of `other`'s fields; `other` becomes empty.
  MemoryBuffer(MemoryBuffer&& other) noexcept;

  // Nothing on self-assignment; otherwise clear(), then takes all of
  // `other`'s fields and empties `other`.
  MemoryBuffer& operator=(MemoryBuffer&& other) noexcept;

  // Releases the storage (clear()).
  ~MemoryBuffer() override;

  MemoryBuffer(const MemoryBuffer&) = delete;
  MemoryBuffer& operator=(const MemoryBuffer&) = delete;

  // Copies `length` bytes to the write position, growing the storage when
  // needed, and advances the write position; the length grows only when the
  // write passes its end (writing after seekWrite overwrites). The bytes
  // may lie in this buffer itself (write(data(), length()) doubles the
  // contents), also where they overlap the bytes being written.
  // Throws std::bad_alloc when the storage cannot grow; then nothing was
  // written. REQUIRES: `data` points to `length` readable bytes.
  void write(const unsigned char* data, unsigned long long length) override;

  // Copies `length` bytes from the read position and advances it. Returns
  // false, copying nothing, when fewer than `length` bytes remain before the
  // length. Reading 0 bytes succeeds.
  bool read(unsigned char* data, unsigned long long length) override;

  unsigned long long length() const override;

  // Resizes the storage to exactly `length` bytes (0 releases it), sets the
  // length to `length` and both positions to 0; returns the previous length.
  // Bytes up to the smaller of the two lengths are kept; new bytes are
  // undefined. Throws std::bad_alloc, leaving the buffer unchanged, when the
  // storage cannot be resized.
  unsigned long long setLength(unsigned long long length) override;

  unsigned long long tellRead() const override;
  unsigned long long tellWrite() const override;

  // Sets the read position when `position` <= length(); returns the previous
  // read position in every case.
  unsigned long long seekRead(unsigned long long position) override;

  // Sets the write position when `position` <= length(); returns the
  // previous write position in every case.
  unsigned long long seekWrite(unsigned long long position) override;

  // The storage (null before the first growth).
  unsigned char* data() const override;

  // Frees the storage and sets all fields to zero. Without storage nothing
  // changes (the length and positions stay as they are).
  void clear();

  // Replaces this buffer's contents by the next `length` bytes of `source`,
  // from its read position, which advances: calls setLength(length), then
  // source->read(data(), length). Returns true when the bytes were taken;
  // false for a null source, when fewer than `length` bytes remain in it
  // (nothing changes then) or when setLength throws (the exception is
  // swallowed).
  bool from(IBuffer* source, unsigned long long length);

  // As from(source, length), starting at `offset` in the source; the
  // source's read position is restored afterwards. An offset beyond the
  // source's length leaves the start at its current read position.
  bool from(IBuffer* source, unsigned long long offset, unsigned long long length);

  // Copies `length` bytes. REQUIRES: the ranges do not overlap.
  static void Copy(unsigned char* destination, const unsigned char* source, unsigned int length);

  // ---- End of public API -----------------------------------------------------
  // Growth helpers, exported for the library's own use.

  // Resizes the storage to exactly `length` bytes with realloc and records
  // the new size; the length and positions are not adjusted. Throws
  // std::bad_alloc, leaving the buffer unchanged, when realloc fails for a
  // non-zero size, or for a size above PTRDIFF_MAX.
  void _setAllocLength(unsigned long long length);

  // Grows the storage for a shortfall of `length` bytes: to exactly
  // allocated + length when the allocated size is smaller than the shortfall,
  // otherwise to twice the allocated size. Throws as _setAllocLength.
  void _addAllocLength(unsigned long long length);

 private:
  unsigned char* block_;
  unsigned long long length_;
  unsigned long long readPosition_;
  unsigned long long writePosition_;
  unsigned long long allocLength_;
};

}  // namespace memory
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_MEMORY_MEMORYBUFFER_H_
