// IBuffer: the interface's out-of-line destructor.
#include "foundation/memory/buffer.h"

namespace zorv {
namespace foundation {
namespace memory {

IBuffer::~IBuffer() = default;

}  // namespace memory
}  // namespace foundation
}  // namespace zorv
