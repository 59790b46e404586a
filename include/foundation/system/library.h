// Library: a shared object loaded with the dynamic loader.
#ifndef ZORV_FOUNDATION_SYSTEM_LIBRARY_H_
#define ZORV_FOUNDATION_SYSTEM_LIBRARY_H_

#include "foundation/export.h"

namespace zorv {
namespace foundation {
namespace system {

// One shared object loaded with dlopen(RTLD_LAZY), and its symbols.
// Destroying a Library does NOT unload it: call unload() when the symbols
// are no longer used. Copies share the same handle.
//
// Thread safety: not synchronised; use one Library from one thread at a
// time (the dynamic loader itself is thread-safe).
class ZORV_FOUNDATION_EXPORT Library {
 public:
  // Nothing loaded.
  Library();
  // Does nothing (the shared object stays loaded).
  ~Library() = default;

  // Loads the shared object at `path` (searched as dlopen searches). False
  // when this object already holds a library (which is kept) or when loading
  // fails (the loader's message is not kept).
  [[nodiscard]] bool load(const char* path);

  // The address of `symbol` in the loaded library; null when nothing is
  // loaded or the symbol is missing.
  void* address(const char* symbol);

  // Unloads the library (dlclose); does nothing when nothing is loaded.
  void unload();

 private:
  void* handle_;
};

}  // namespace system
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_SYSTEM_LIBRARY_H_
