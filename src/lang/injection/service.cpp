// The defaults of IService.
#include "foundation/lang/injection/service.h"

namespace zorv {
namespace foundation {
namespace lang {
namespace injection {

IService::~IService() = default;

SafeString IService::instanceName() const { return SafeString("default"); }

}  // namespace injection
}  // namespace lang
}  // namespace foundation
}  // namespace zorv
