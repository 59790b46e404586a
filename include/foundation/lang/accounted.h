// Accounted creation of the disposable objects that hosts hand to executors
// and schedulers (tasks, timers), recorded with the debug-support library
// exactly as the library records its own objects.
#ifndef ZORV_FOUNDATION_LANG_ACCOUNTED_H_
#define ZORV_FOUNDATION_LANG_ACCOUNTED_H_

#include <new>
#include <utility>

#include "foundation/debug/objectmonitor.h"

namespace zorv {
namespace foundation {
namespace lang {

namespace detail {

// The one creation path of accounted objects, shared with the library's own
// (private) helpers; not part of the interface. With object tracing on, the
// memory comes from ObjectMonitor::_Alloc and a failed allocation yields
// null (the null object is still recorded, as the debug-support library
// expects); otherwise plain `new` is used, which throws std::bad_alloc. An
// exception from T's constructor releases the memory and passes on.
template <class T, class... Args>
T* NewAccounted(const char* source, int line, const char* name, Args&&... args) {
  T* object = nullptr;
  if (debug::ObjectMonitor::_IsTrace() != 0) {
    unsigned char* block = debug::ObjectMonitor::_Alloc(sizeof(T));
    if (block != nullptr) {
      try {
        object = ::new (static_cast<void*>(block)) T(std::forward<Args>(args)...);
      } catch (...) {
        debug::ObjectMonitor::_Dealloc(block, sizeof(T));
        throw;
      }
    }
  } else {
    object = new T(std::forward<Args>(args)...);
  }
  debug::ObjectMonitor::_IncLeak(static_cast<void*>(object), source, line, name, sizeof(T));
  return object;
}

// NewAccounted that never yields null: a failed traced allocation is
// forgotten again and reported as std::bad_alloc.
template <class T, class... Args>
T* NewAccountedOrThrow(const char* source, int line, const char* name, Args&&... args) {
  T* object = NewAccounted<T>(source, line, name, std::forward<Args>(args)...);
  if (object == nullptr) {
    debug::ObjectMonitor::_DecLeakEx(nullptr, source, line, name);
    throw std::bad_alloc();
  }
  return object;
}

}  // namespace detail

// Creates a disposable object (a task, a timer) the accounted way, recorded
// under `name`; hand it to an executor or scheduler, which disposes it. The
// caller owns the result until then. Throws std::bad_alloc when memory is
// exhausted; an exception from T's constructor passes on and leaves nothing
// allocated.
template <class T, class... Args>
T* MakeDisposable(const char* name, Args&&... args) {
  return detail::NewAccountedOrThrow<T>("host", 0, name, std::forward<Args>(args)...);
}

}  // namespace lang
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_LANG_ACCOUNTED_H_
