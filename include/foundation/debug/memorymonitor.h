// Heap-block accounting of the debug-support library.
#ifndef ZORV_FOUNDATION_DEBUG_MEMORYMONITOR_H_
#define ZORV_FOUNDATION_DEBUG_MEMORYMONITOR_H_

#include "foundation/export.h"

namespace zorv {
namespace foundation {
namespace debug {

// Counts every block handed out through Alloc and returned through Dealloc.
//
// Thread safety: every operation may be called from any thread at any time,
// including from static constructors before main and in a child process right
// after fork. Alloc and Dealloc take no lock.
class ZORV_DEBUG_EXPORT MemoryMonitor {
 public:
  // Returns a block of `size` bytes (suitably aligned for any fundamental
  // type), or null when memory is exhausted or fault injection fires.
  static unsigned char* Alloc(unsigned int size);

  // Releases a block from Alloc. `size` must equal the size that was asked
  // for. A null block is ignored.
  static void Dealloc(unsigned char* block, unsigned int size);

  // Blocks handed out by Alloc and not yet returned.
  static unsigned long long LiveBlocks();

  // Bytes handed out by Alloc and not yet returned.
  static unsigned long long LiveBytes();

  // Fault injection: the n-th call of Alloc from now (1 = the very next)
  // returns null, once. 0 switches injection off.
  static void FailAfter(unsigned int n);
};

}  // namespace debug
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_DEBUG_MEMORYMONITOR_H_
