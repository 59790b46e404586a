// Stopwatch on the monotonic microsecond clock.
#include "foundation/time/stopwatch.h"

#include "foundation/system/systemutils.h"

namespace zorv {
namespace foundation {
namespace time {

using system::SystemUtils;

Stopwatch::Stopwatch() : stopped_(true), value_(0) {}

void Stopwatch::start() {
  stopped_ = false;
  value_ = SystemUtils::GetClock();
}

void Stopwatch::stop() {
  if (stopped_) return;
  stopped_ = true;
  value_ = SystemUtils::GetClock() - value_;
}

bool Stopwatch::isStopped() const { return stopped_; }

unsigned long long Stopwatch::elapsedMicros() const {
  const unsigned long long freq = SystemUtils::GetClockFreq();
  const unsigned long long ticks = stopped_ ? value_ : SystemUtils::GetClock() - value_;
  // Nearest microsecond; the value is never negative, so adding a half and
  // truncating rounds correctly.
  return static_cast<unsigned long long>(  // NOLINT(bugprone-incorrect-roundings)
      static_cast<double>(ticks) * 1000000.0 / static_cast<double>(freq) + 0.5);
}

unsigned long long Stopwatch::toTick() const { return elapsedMicros() / 1000ULL; }

double Stopwatch::toSeconds() const { return static_cast<double>(elapsedMicros()) / 1000000.0; }

}  // namespace time
}  // namespace foundation
}  // namespace zorv
