// Stopwatch: an elapsed-time meter on the monotonic microsecond clock.
#ifndef ZORV_FOUNDATION_TIME_STOPWATCH_H_
#define ZORV_FOUNDATION_TIME_STOPWATCH_H_

#include "foundation/export.h"

namespace zorv {
namespace foundation {
namespace time {

// Measures elapsed time with SystemUtils::GetClock(). A plain value: copy it
// freely. Not synchronised: use one Stopwatch per thread.
class ZORV_FOUNDATION_EXPORT Stopwatch {
 public:
  // A stopped stopwatch that reads 0.
  Stopwatch();

  // Starts (or restarts) measuring from now.
  void start();

  // Freezes the reading; does nothing when already stopped.
  void stop();

  bool isStopped() const;

  // Elapsed whole milliseconds (the reading so far while running).
  unsigned long long toTick() const;

  // Elapsed seconds.
  double toSeconds() const;

 private:
  unsigned long long elapsedMicros() const;

  bool stopped_;
  // The start reading while running; the elapsed ticks once stopped.
  unsigned long long value_;
};

}  // namespace time
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_TIME_STOPWATCH_H_
