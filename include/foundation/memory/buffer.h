// IBuffer: a byte stream whose bytes lie contiguously in memory.
#ifndef ZORV_FOUNDATION_MEMORY_BUFFER_H_
#define ZORV_FOUNDATION_MEMORY_BUFFER_H_

#include "foundation/export.h"
#include "foundation/io/stream.h"

namespace zorv {
namespace foundation {
namespace memory {

// An io::IStream that also exposes its storage. Thread safety and ownership
// as for IStream; the address from data() belongs to the buffer and is valid
// until the buffer's next operation that changes its size.
class ZORV_FOUNDATION_EXPORT IBuffer : public io::IStream {
 public:
  ~IBuffer() override;

  // The address of the first byte (null when there is no storage).
  virtual unsigned char* data() const = 0;
};

}  // namespace memory
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_MEMORY_BUFFER_H_
