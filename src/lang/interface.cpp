// The root interface's out-of-line destructor anchors its virtual table and
// type information in the library.
#include "foundation/lang/interface.h"

namespace zorv {
namespace foundation {
namespace lang {

Interface::~Interface() = default;

}  // namespace lang
}  // namespace foundation
}  // namespace zorv
