// SystemUtils: the library's clocks, the processor count and, further down,
// process control.
#ifndef ZORV_FOUNDATION_SYSTEM_SYSTEMUTILS_H_
#define ZORV_FOUNDATION_SYSTEM_SYSTEMUTILS_H_

#include "foundation/export.h"

namespace zorv {
namespace foundation {
namespace system {

// Static access to the operating system. The monotonic clocks are the time
// base of the whole library: due times, time-outs and stopwatches read them.
//
// Thread safety: every operation may be called from any thread.
class ZORV_FOUNDATION_EXPORT SystemUtils {
 public:
  SystemUtils() = delete;

  // ---- Clocks and processors ----

  // Milliseconds of CLOCK_MONOTONIC (seconds * 1000 + nanoseconds / 1000000).
  // Never goes backwards; unrelated to the wall clock.
  static unsigned long long GetTick();

  // Microseconds of CLOCK_MONOTONIC (seconds * 1000000 + nanoseconds / 1000).
  static unsigned long long GetClock();

  // The number of GetClock() units in a second: always 1000000.
  static unsigned long long GetClockFreq();

  // Seconds since the Unix epoch (time(NULL)), sign-extended to 64 bits.
  static long long GetTime();

  // The number of processors currently available (get_nprocs()).
  static int GetProcessorNum();

  // ---- Process control ----
};

}  // namespace system
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_SYSTEM_SYSTEMUTILS_H_
