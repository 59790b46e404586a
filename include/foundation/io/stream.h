// IStream: the byte-stream interface with separate read and write positions.
#ifndef ZORV_FOUNDATION_IO_STREAM_H_
#define ZORV_FOUNDATION_IO_STREAM_H_

#include "foundation/export.h"
#include "foundation/lang/interface.h"

namespace zorv {
namespace foundation {
namespace io {

// A stream of bytes with a length, a read position and a write position, all
// 64-bit byte counts. Implementations decide their own thread safety (the
// library's own streams are for one thread at a time). The slot order of the
// virtual operations is part of the binary interface.
class ZORV_FOUNDATION_EXPORT IStream : public lang::Interface {
 public:
  ~IStream() override;

  // Writes `length` bytes from `data` at the write position and advances it.
  virtual void write(const unsigned char* data, unsigned long long length) = 0;

  // Copies `length` bytes from the read position to `data` and advances it.
  // Returns true only when all `length` bytes were delivered.
  virtual bool read(unsigned char* data, unsigned long long length) = 0;

  // The number of valid bytes.
  virtual unsigned long long length() const = 0;

  // Sets the number of valid bytes; returns the previous length.
  virtual unsigned long long setLength(unsigned long long length) = 0;

  // The read position.
  virtual unsigned long long tellRead() const = 0;

  // The write position.
  virtual unsigned long long tellWrite() const = 0;

  // Moves the read position; returns the previous read position.
  virtual unsigned long long seekRead(unsigned long long position) = 0;

  // Moves the write position; returns the previous write position.
  virtual unsigned long long seekWrite(unsigned long long position) = 0;
};

}  // namespace io
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_IO_STREAM_H_
