// Interface: the root of every interface class of the library.
#ifndef ZORV_FOUNDATION_LANG_INTERFACE_H_
#define ZORV_FOUNDATION_LANG_INTERFACE_H_

#include "foundation/export.h"

namespace zorv {
namespace foundation {
namespace lang {

// Root of every interface: a virtual destructor and nothing else, so that
// every derived virtual table starts with the complete and deleting
// destructors.
class ZORV_FOUNDATION_EXPORT Interface {
 public:
  virtual ~Interface();
};

}  // namespace lang
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_LANG_INTERFACE_H_
