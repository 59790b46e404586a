// IDisposable: objects that executors and schedulers destroy on the
// owner's behalf.
#ifndef ZORV_FOUNDATION_LANG_DISPOSABLE_H_
#define ZORV_FOUNDATION_LANG_DISPOSABLE_H_

#include "foundation/export.h"
#include "foundation/lang/interface.h"

namespace zorv {
namespace foundation {
namespace lang {

// An object that can destroy itself. Tasks, timers and services derive from
// it; an executor or scheduler that accepts one calls dispose() exactly once
// when it is done with it.
//
// Create disposable objects with lang::MakeDisposable (lang/accounted.h) so
// that their creation and disposal are accounted alike. An object created
// with plain `new` may be disposed too: it was never recorded, and forgetting
// it is harmless.
class ZORV_FOUNDATION_EXPORT IDisposable : public Interface {
 public:
  ~IDisposable() override;

  // Forgets the object in the debug-support accounting and destroys it: with
  // object tracing on, the complete-object destructor runs and the block goes
  // back to the debug-support library; otherwise it is deleted. Calling it
  // through a null pointer does nothing.
  virtual void dispose();
};

}  // namespace lang
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_LANG_DISPOSABLE_H_
