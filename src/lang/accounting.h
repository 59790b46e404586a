// The library's own accounted creation and destruction of its private
// objects: every one is recorded with the debug-support library under the
// source, line and name of the site that creates or destroys it.
#ifndef ZORV_SRC_LANG_ACCOUNTING_H_
#define ZORV_SRC_LANG_ACCOUNTING_H_

#include <utility>

#include "foundation/lang/accounted.h"

namespace zorv {
namespace foundation {
namespace lang {

// Where an accounted object is created or destroyed.
struct AccountingSite {
  const char* source;
  int line;
  const char* name;
};

// An AccountingSite for the current line.
#define ZORV_ACCOUNTING_SITE(source, name) \
  (::zorv::foundation::lang::AccountingSite{(source), __LINE__, (name)})

// Creates a T from args and records it; null when a traced allocation fails
// (see detail::NewAccounted).
template <class T, class... Args>
T* AccountedNew(const AccountingSite& site, Args&&... args) {
  return detail::NewAccounted<T>(site.source, site.line, site.name, std::forward<Args>(args)...);
}

// AccountedNew for objects the caller cannot do without: never null, throws
// std::bad_alloc instead.
template <class T, class... Args>
T* AccountedNewOrThrow(const AccountingSite& site, Args&&... args) {
  return detail::NewAccountedOrThrow<T>(site.source, site.line, site.name,
                                        std::forward<Args>(args)...);
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

}  // namespace lang
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_SRC_LANG_ACCOUNTING_H_
