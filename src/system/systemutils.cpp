// The clocks and the processor count of SystemUtils.
#include "foundation/system/systemutils.h"

#include <sys/sysinfo.h>
#include <time.h>

namespace zorv {
namespace foundation {
namespace system {
namespace {

constexpr unsigned long long kClockFreq = 1000000ULL;

}  // namespace

unsigned long long SystemUtils::GetTick() {
  struct timespec now = {0, 0};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<unsigned long long>(now.tv_sec) * 1000ULL +
         static_cast<unsigned long long>(now.tv_nsec) / 1000000ULL;
}

unsigned long long SystemUtils::GetClock() {
  struct timespec now = {0, 0};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<unsigned long long>(now.tv_sec) * 1000000ULL +
         static_cast<unsigned long long>(now.tv_nsec) / 1000ULL;
}

unsigned long long SystemUtils::GetClockFreq() { return kClockFreq; }

long long SystemUtils::GetTime() { return static_cast<long long>(::time(nullptr)); }

int SystemUtils::GetProcessorNum() { return get_nprocs(); }

}  // namespace system
}  // namespace foundation
}  // namespace zorv
