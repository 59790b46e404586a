// The library's exception type.
#include "foundation/lang/exception.h"

namespace zorv {
namespace foundation {
namespace lang {

Exception::Exception(const char* func, const char* info) : func_(func), info_(info) {}

Exception::Exception(const Exception& other) = default;

Exception& Exception::operator=(const Exception& other) = default;

Exception::~Exception() = default;

SafeString Exception::func() const { return func_; }

SafeString Exception::info() const { return info_; }

SafeString Exception::what() const {
  SafeString text(func_);
  text.append(" : ", 3);
  text.append(info_);
  return text;
}

}  // namespace lang
}  // namespace foundation
}  // namespace zorv
