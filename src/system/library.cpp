// Library: dlopen, dlsym and dlclose.
#include "foundation/system/library.h"

#include <dlfcn.h>

namespace zorv {
namespace foundation {
namespace system {

Library::Library() : handle_(nullptr) {}

bool Library::load(const char* path) {
  if (handle_ != nullptr) return false;
  handle_ = dlopen(path, RTLD_LAZY);
  return handle_ != nullptr;
}

void* Library::address(const char* symbol) {
  if (handle_ == nullptr) return nullptr;
  return dlsym(handle_, symbol);
}

void Library::unload() {
  if (handle_ == nullptr) return;
  dlclose(handle_);
  handle_ = nullptr;
}

}  // namespace system
}  // namespace foundation
}  // namespace zorv
