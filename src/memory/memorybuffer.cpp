// MemoryBuffer: a growable byte buffer on the C heap.
#include "foundation/memory/memorybuffer.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace zorv {
namespace foundation {
namespace memory {

MemoryBuffer::MemoryBuffer()
    : block_(nullptr), length_(0), readPosition_(0), writePosition_(0), allocLength_(0) {}

MemoryBuffer::MemoryBuffer(MemoryBuffer&& other) noexcept
    : block_(other.block_),
      length_(other.length_),
      readPosition_(other.readPosition_),
      writePosition_(other.writePosition_),
      allocLength_(other.allocLength_) {
  other.block_ = nullptr;
  other.length_ = 0;
  other.readPosition_ = 0;
  other.writePosition_ = 0;
  other.allocLength_ = 0;
}

MemoryBuffer& MemoryBuffer::operator=(MemoryBuffer&& other) noexcept {
  if (this == &other) return *this;
  clear();
  block_ = other.block_;
  length_ = other.length_;
  readPosition_ = other.readPosition_;
  writePosition_ = other.writePosition_;
  allocLength_ = other.allocLength_;
  other.block_ = nullptr;
  other.length_ = 0;
  other.readPosition_ = 0;
  other.writePosition_ = 0;
  other.allocLength_ = 0;
  return *this;
}

MemoryBuffer::~MemoryBuffer() { clear(); }

void MemoryBuffer::write(const unsigned char* data, unsigned long long length) {
  const unsigned long long free = allocLength_ - writePosition_;
  if (free < length) {
    // The bytes may come from this buffer's own block, which growing can
    // move: find them again at the same offset in the new block.
    const std::uintptr_t source = reinterpret_cast<std::uintptr_t>(data);
    const std::uintptr_t begin = reinterpret_cast<std::uintptr_t>(block_);
    const bool inside = block_ != nullptr && source >= begin && source - begin < allocLength_;
    _addAllocLength(length - free);
    if (inside) data = block_ + (source - begin);
  }
  if (length != 0) std::memmove(block_ + writePosition_, data, static_cast<size_t>(length));
  writePosition_ += length;
  if (length_ < writePosition_) length_ = writePosition_;
}

bool MemoryBuffer::read(unsigned char* data, unsigned long long length) {
  if (readPosition_ > length_ || length_ - readPosition_ < length) return false;
  if (length != 0) std::memmove(data, block_ + readPosition_, static_cast<size_t>(length));
  readPosition_ += length;
  return true;
}

unsigned long long MemoryBuffer::length() const { return length_; }

unsigned long long MemoryBuffer::setLength(unsigned long long length) {
  const unsigned long long previous = length_;
  _setAllocLength(length);
  length_ = length;
  readPosition_ = 0;
  writePosition_ = 0;
  return previous;
}

unsigned long long MemoryBuffer::tellRead() const { return readPosition_; }

unsigned long long MemoryBuffer::tellWrite() const { return writePosition_; }

unsigned long long MemoryBuffer::seekRead(unsigned long long position) {
  const unsigned long long previous = readPosition_;
  if (position <= length_) readPosition_ = position;
  return previous;
}

unsigned long long MemoryBuffer::seekWrite(unsigned long long position) {
  const unsigned long long previous = writePosition_;
  if (position <= length_) writePosition_ = position;
  return previous;
}

unsigned char* MemoryBuffer::data() const { return block_; }

void MemoryBuffer::clear() {
  if (block_ == nullptr) return;
  std::free(block_);
  block_ = nullptr;
  length_ = 0;
  readPosition_ = 0;
  writePosition_ = 0;
  allocLength_ = 0;
}

bool MemoryBuffer::from(IBuffer* source, unsigned long long length) {
  if (source == nullptr) return false;
  const unsigned long long sourceLength = source->length();
  const unsigned long long sourceRead = source->tellRead();
  if (sourceRead > sourceLength || sourceLength - sourceRead < length) return false;
  try {
    setLength(length);
  } catch (...) {
    return false;
  }
  return source->read(block_, length);
}

bool MemoryBuffer::from(IBuffer* source, unsigned long long offset, unsigned long long length) {
  if (source == nullptr) return false;
  const unsigned long long previous = source->seekRead(offset);
  const bool result = from(source, length);
  source->seekRead(previous);
  return result;
}

void MemoryBuffer::Copy(unsigned char* destination, const unsigned char* source,
                        unsigned int length) {
  if (length != 0) std::memcpy(destination, source, length);
}

void MemoryBuffer::_setAllocLength(unsigned long long length) {
  // No object can be larger than PTRDIFF_MAX bytes (the C heap refuses such
  // sizes too); failing early also keeps a cut size from being recorded.
  if (length > static_cast<unsigned long long>(PTRDIFF_MAX)) throw std::bad_alloc();
  void* block = std::realloc(block_, static_cast<size_t>(length));
  if (block == nullptr && length != 0) throw std::bad_alloc();
  block_ = static_cast<unsigned char*>(block);
  allocLength_ = length;
}

void MemoryBuffer::_addAllocLength(unsigned long long length) {
  const unsigned long long grown = allocLength_ < length ? allocLength_ + length : allocLength_ * 2;
  if (grown < allocLength_) throw std::bad_alloc();
  _setAllocLength(grown);
}

}  // namespace memory
}  // namespace foundation
}  // namespace zorv
