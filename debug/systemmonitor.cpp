// Operating-system handle accounting.
#include "foundation/debug/systemmonitor.h"

#include <atomic>

namespace zorv {
namespace foundation {
namespace debug {
namespace {
std::atomic<long long> g_handles{0};
}  // namespace

void SystemMonitor::IncreaseHandle() { g_handles.fetch_add(1, std::memory_order_relaxed); }

void SystemMonitor::DecreaseHandle() { g_handles.fetch_sub(1, std::memory_order_relaxed); }

long long SystemMonitor::LiveHandles() { return g_handles.load(std::memory_order_relaxed); }

}  // namespace debug
}  // namespace foundation
}  // namespace zorv
