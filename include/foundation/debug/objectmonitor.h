// Live-object accounting of the debug-support library.
#ifndef ZORV_FOUNDATION_DEBUG_OBJECTMONITOR_H_
#define ZORV_FOUNDATION_DEBUG_OBJECTMONITOR_H_

#include "foundation/export.h"

namespace zorv {
namespace foundation {
namespace debug {

// Records every private object and disposable object that the foundation
// library (or a host, through lang::MakeDisposable) creates, with the source
// location and name of its creation, so that leaks can be listed.
//
// Tracing (ZORV_DEBUG_TRACE=1 in the environment, read once) additionally
// takes the objects' memory from _Alloc so that the record carries the block.
// Objects are recorded whether tracing is on or off.
//
// Thread safety: every operation may be called from any thread.
class ZORV_DEBUG_EXPORT ObjectMonitor {
 public:
  // The block and size recorded for an object, as _DecLeakInfoEx returns
  // them: the caller passes both to _Dealloc. Both are zero for an object
  // that was never recorded.
  struct LeakInfo {
    unsigned char* block;
    unsigned int size;
  };

  // Objects recorded by _IncLeak and not yet forgotten.
  static unsigned long long LiveObjects();

  // ---- End of public API: the accounting hooks of the foundation library ----

  // Non-zero when object tracing is on. The answer never changes during the
  // life of the process.
  static int _IsTrace();

  // Returns a block of `size` bytes for a traced object, or null.
  static unsigned char* _Alloc(unsigned int size);

  // Releases a block from _Alloc; null is ignored.
  static void _Dealloc(unsigned char* block, unsigned int size);

  // Records a live object created at source:line under `name`. A second
  // record of the same address replaces the first.
  static void _IncLeak(void* object, const char* source, int line,
                       const char* name, unsigned int size);

  // Forgets an object. Forgetting an object that was never recorded does
  // nothing.
  static void _DecLeakEx(void* object, const char* source, int line,
                         const char* name);

  // Forgets an object and returns the block and size recorded for it
  // ({nullptr, 0} when the object was never recorded).
  static LeakInfo _DecLeakInfoEx(void* object, const char* source, int line,
                                 const char* name);
};

}  // namespace debug
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_DEBUG_OBJECTMONITOR_H_
