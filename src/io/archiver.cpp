// IArchiver: the interface's out-of-line destructor.
#include "foundation/io/archiver.h"

namespace zorv {
namespace foundation {
namespace io {

IArchiver::~IArchiver() = default;

}  // namespace io
}  // namespace foundation
}  // namespace zorv
