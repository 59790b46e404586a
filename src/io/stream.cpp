// IStream: the interface's out-of-line destructor.
#include "foundation/io/stream.h"

namespace zorv {
namespace foundation {
namespace io {

IStream::~IStream() = default;

}  // namespace io
}  // namespace foundation
}  // namespace zorv
