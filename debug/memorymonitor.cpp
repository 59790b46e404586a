// Heap-block accounting without locks.
//
// Each thread counts its allocations (bytes, and blocks per size class: the
// live blocks are their sum) in a slot of its own (plain relaxed
// loads and stores, no read-modify-write), so that Alloc and Dealloc cost one
// malloc or free and two uncontended stores. A slot outlives its thread: on
// exit the thread gives the slot back and a later thread adopts it together
// with its counts, so the sums over all slots stay exact. When every slot is
// taken, threads share one more slot through atomic additions.
#include "foundation/debug/memorymonitor.h"

#include <pthread.h>
#include <stdlib.h>

#include <atomic>

#include "internal.h"

namespace zorv {
namespace foundation {
namespace debug {
namespace {

struct alignas(64) Slot {
  std::atomic<long long> bytes;
  std::atomic<int> taken;
  std::atomic<long long> classes[internal::kSizeClasses];
};

constexpr int kSlotCount = 256;

Slot g_slots[kSlotCount];
Slot g_shared;
std::atomic<unsigned int> g_failAfter{0};

// 0: no key yet; 1: being created; 2: ready; 3: unavailable.
std::atomic<int> g_keyState{0};
pthread_key_t g_key;

__thread Slot* t_slot __attribute__((tls_model("initial-exec"))) = nullptr;

void ReleaseSlot(void* slot) {
  static_cast<Slot*>(slot)->taken.store(0, std::memory_order_release);
  // Allocations made by later thread-exit code go to the shared slot.
  t_slot = &g_shared;
}

bool KeyReady() {
  int state = g_keyState.load(std::memory_order_acquire);
  if (state == 2) return true;
  if (state == 3) return false;
  int expected = 0;
  if (g_keyState.compare_exchange_strong(expected, 1, std::memory_order_acq_rel)) {
    const int ok = pthread_key_create(&g_key, &ReleaseSlot) == 0 ? 2 : 3;
    g_keyState.store(ok, std::memory_order_release);
    return ok == 2;
  }
  // Another thread is creating the key right now; rather than wait for it,
  // this thread uses the shared slot until the next time.
  return false;
}

Slot* AcquireSlot() {
  if (!KeyReady()) return nullptr;
  for (Slot& slot : g_slots) {
    int expected = 0;
    if (slot.taken.load(std::memory_order_relaxed) == 0 &&
        slot.taken.compare_exchange_strong(expected, 1, std::memory_order_acq_rel)) {
      if (pthread_setspecific(g_key, &slot) != 0) {
        slot.taken.store(0, std::memory_order_release);
        return nullptr;
      }
      t_slot = &slot;
      return &slot;
    }
  }
  t_slot = &g_shared;
  return &g_shared;
}

inline void Account(long long blocks, long long bytes, unsigned int sizeClass) {
  Slot* slot = t_slot;
  if (slot == nullptr) slot = AcquireSlot();
  if (slot == nullptr || slot == &g_shared) {
    g_shared.bytes.fetch_add(bytes, std::memory_order_relaxed);
    g_shared.classes[sizeClass].fetch_add(blocks, std::memory_order_relaxed);
    return;
  }
  std::atomic<long long>& perClass = slot->classes[sizeClass];
  perClass.store(perClass.load(std::memory_order_relaxed) + blocks, std::memory_order_relaxed);
  slot->bytes.store(slot->bytes.load(std::memory_order_relaxed) + bytes,
                    std::memory_order_relaxed);
}

bool InjectFailure() {
  unsigned int left = g_failAfter.load(std::memory_order_relaxed);
  while (left != 0) {
    if (g_failAfter.compare_exchange_weak(left, left - 1, std::memory_order_relaxed)) {
      return left == 1;
    }
  }
  return false;
}

long long Sum(std::atomic<long long> Slot::*field) {
  long long total = (g_shared.*field).load(std::memory_order_relaxed);
  for (const Slot& slot : g_slots) total += (slot.*field).load(std::memory_order_relaxed);
  return total;
}

}  // namespace

unsigned char* MemoryMonitor::Alloc(unsigned int size) {
  if (g_failAfter.load(std::memory_order_relaxed) != 0 && InjectFailure()) {
    return nullptr;
  }
  void* block = malloc(size != 0 ? size : 1);
  if (block == nullptr) return nullptr;
  Account(1, static_cast<long long>(size), internal::SizeClass(size));
  return static_cast<unsigned char*>(block);
}

void MemoryMonitor::Dealloc(unsigned char* block, unsigned int size) {
  if (block == nullptr) return;
  free(block);
  Account(-1, -static_cast<long long>(size), internal::SizeClass(size));
}

unsigned long long MemoryMonitor::LiveBlocks() {
  long long counts[internal::kSizeClasses];
  internal::LiveBlocksBySize(counts);
  long long total = 0;
  for (const long long count : counts) total += count;
  return static_cast<unsigned long long>(total);
}

unsigned long long MemoryMonitor::LiveBytes() {
  return static_cast<unsigned long long>(Sum(&Slot::bytes));
}

void MemoryMonitor::FailAfter(unsigned int n) {
  g_failAfter.store(n, std::memory_order_relaxed);
}

namespace internal {

void LiveBlocksBySize(long long counts[kSizeClasses]) {
  for (unsigned int c = 0; c < kSizeClasses; ++c) {
    counts[c] = g_shared.classes[c].load(std::memory_order_relaxed);
    for (const Slot& slot : g_slots) counts[c] += slot.classes[c].load(std::memory_order_relaxed);
  }
}

}  // namespace internal
}  // namespace debug
}  // namespace foundation
}  // namespace zorv
