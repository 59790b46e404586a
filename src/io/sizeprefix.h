// The 8-byte length prefix of serialized strings. The two helpers stay
// exported under their historical names, which programs built against
// earlier headers link to; the library's own code declares them here.
#ifndef ZORV_SRC_IO_SIZEPREFIX_H_
#define ZORV_SRC_IO_SIZEPREFIX_H_

#include "foundation/export.h"
#include "foundation/io/stream.h"

namespace zorv {
namespace foundation {
namespace io {

// Writes the 8-byte prefix `size` with one write(data, 8) call.
ZORV_FOUNDATION_EXPORT void __WriteSize(IStream* stream, unsigned long long size);

// Reads the 8-byte prefix into `size` with one read(data, 8) call and
// returns that call's result.
ZORV_FOUNDATION_EXPORT bool __ReadSize(IStream* stream, unsigned long long& size);

}  // namespace io
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_SRC_IO_SIZEPREFIX_H_
