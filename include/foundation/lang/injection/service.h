// IService: a named, process-wide service that the host finalizes.
#ifndef ZORV_FOUNDATION_LANG_INJECTION_SERVICE_H_
#define ZORV_FOUNDATION_LANG_INJECTION_SERVICE_H_

#include "foundation/export.h"
#include "foundation/lang/disposable.h"
#include "foundation/text/safestring.h"

namespace zorv {
namespace foundation {
namespace lang {
namespace injection {

// A service that a host registers under its type name and instance name,
// calls finalize() on at shutdown, and then destroys (with dispose() when it
// was made with lang::MakeDisposable, or by deleting it). The library keeps
// no registry of its own.
//
// Ownership: the host owns its services.
class ZORV_FOUNDATION_EXPORT IService : public IDisposable {
 public:
  ~IService() override;

  // The service's type name, for instance
  // "zorv.foundation.threading.GlobalTaskScheduler".
  virtual SafeString typeName() const = 0;

  // The instance name; "default" unless a service says otherwise.
  virtual SafeString instanceName() const;

  // Stops the service's work before it is destroyed. Calling it twice is
  // harmless.
  virtual void finalize() = 0;
};

}  // namespace injection
}  // namespace lang
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_LANG_INJECTION_SERVICE_H_
