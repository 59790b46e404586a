// Accounted creation and destruction of objects: the one mechanism through
// which the library creates its private objects, and through which hosts
// create the disposable objects they hand to executors.
#ifndef ZORV_FOUNDATION_LANG_ACCOUNTED_H_
#define ZORV_FOUNDATION_LANG_ACCOUNTED_H_

#include <new>
#include <type_traits>
#include <utility>

#include "foundation/debug/objectmonitor.h"

namespace zorv {
namespace foundation {
namespace lang {

// Where an accounted object is created or destroyed: the source text, line
// and name recorded with the debug-support library.
struct AccountingSite {
  const char* source;
  int line;
  const char* name;
};

// An AccountingSite for the current line.
#define ZORV_ACCOUNTING_SITE(source, name) \
  (::zorv::foundation::lang::AccountingSite{(source), __LINE__, (name)})

// Creates a T from args and records it with the debug-support library. With
// object tracing on, the memory comes from ObjectMonitor::_Alloc; then a
// failed allocation yields null (the null object is still recorded, as the
// debug-support library expects). Otherwise plain `new` is used, which
// throws std::bad_alloc when memory is exhausted. An exception from T's
// constructor releases the memory and passes on.
template <class T, class... Args>
T* AccountedNew(const AccountingSite& site, Args&&... args) {
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
  debug::ObjectMonitor::_IncLeak(static_cast<void*>(object), site.source, site.line,
                                 site.name, sizeof(T));
  return object;
}

// Forgets and destroys an object from AccountedNew, then sets the pointer to
// null. Does nothing for a null pointer. The site's name is by convention
// "~" followed by the class name.
template <class T>
void AccountedDelete(T*& object, const AccountingSite& site) noexcept {
  if (object == nullptr) return;
  T* doomed = object;
  object = nullptr;
  if (debug::ObjectMonitor::_IsTrace() != 0) {
    debug::ObjectMonitor::LeakInfo info = debug::ObjectMonitor::_DecLeakInfoEx(
        static_cast<void*>(doomed), site.source, site.line, site.name);
    doomed->~T();
    debug::ObjectMonitor::_Dealloc(info.block, info.size);
  } else {
    debug::ObjectMonitor::_DecLeakEx(static_cast<void*>(doomed), site.source, site.line,
                                     site.name);
    delete doomed;
  }
}

// AccountedNew for objects the caller cannot do without: a null result (a
// traced allocation that failed) is forgotten again and reported as
// std::bad_alloc, so the caller never holds a null object.
template <class T, class... Args>
T* AccountedNewOrThrow(const AccountingSite& site, Args&&... args) {
  T* object = AccountedNew<T>(site, std::forward<Args>(args)...);
  if (object == nullptr) {
    debug::ObjectMonitor::_DecLeakEx(nullptr, site.source, site.line, site.name);
    throw std::bad_alloc();
  }
  return object;
}

// Creates a disposable object (a task, a timer) the accounted way, recorded
// under `name`; hand it to an executor or scheduler, which disposes it. The
// caller owns the result until then. Throws std::bad_alloc when memory is
// exhausted.
template <class T, class... Args>
T* MakeDisposable(const char* name, Args&&... args) {
  return AccountedNewOrThrow<T>(AccountingSite{"host", 0, name}, std::forward<Args>(args)...);
}

}  // namespace lang
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_LANG_ACCOUNTED_H_
