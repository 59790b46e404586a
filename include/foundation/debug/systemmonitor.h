// Operating-system handle accounting of the debug-support library.
#ifndef ZORV_FOUNDATION_DEBUG_SYSTEMMONITOR_H_
#define ZORV_FOUNDATION_DEBUG_SYSTEMMONITOR_H_

#include "foundation/export.h"

namespace zorv {
namespace foundation {
namespace debug {

// Counts live operating-system handles (mutexes, conditions, threads,
// semaphores). Thread safety: lock-free, callable from any thread.
class ZORV_DEBUG_EXPORT SystemMonitor {
 public:
  // Counts one more live handle; called after the handle was created.
  static void IncreaseHandle();

  // Counts one fewer live handle; called after the handle was released.
  static void DecreaseHandle();

  // Handles increased minus handles decreased.
  static long long LiveHandles();
};

}  // namespace debug
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_DEBUG_SYSTEMMONITOR_H_
