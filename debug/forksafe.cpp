// Fork handlers that keep the debug-support library's few mutexes usable in
// a child process created while other threads held them.
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "internal.h"

namespace zorv {
namespace foundation {
namespace debug {
namespace internal {
namespace {

std::atomic<ForkSafeMutex*> g_head{nullptr};
std::atomic<int> g_handlersInstalled{0};

// Mutexes are taken in list order and released in the same order; the list
// only grows at its head, so a mutex registered while a fork is under way is
// simply not part of that fork.
ForkSafeMutex* g_taken = nullptr;

void Prepare() {
  g_taken = g_head.load(std::memory_order_acquire);
  for (ForkSafeMutex* m = g_taken; m != nullptr; m = m->next) {
    pthread_mutex_lock(&m->mutex);
  }
}

void Release() {
  for (ForkSafeMutex* m = g_taken; m != nullptr; m = m->next) {
    pthread_mutex_unlock(&m->mutex);
  }
  g_taken = nullptr;
}

}  // namespace

void RegisterForkSafe(ForkSafeMutex* m) {
  int expected = 0;
  if (g_handlersInstalled.compare_exchange_strong(expected, 1)) {
    pthread_atfork(&Prepare, &Release, &Release);
  }
  ForkSafeMutex* head = g_head.load(std::memory_order_relaxed);
  do {
    m->next = head;
  } while (!g_head.compare_exchange_weak(head, m, std::memory_order_release,
                                         std::memory_order_relaxed));
}

bool EnvFlag(const char* name) {
  const char* value = getenv(name);
  return value != nullptr && value[0] != '\0' && strcmp(value, "0") != 0;
}

}  // namespace internal
}  // namespace debug
}  // namespace foundation
}  // namespace zorv
