// Timing statistics and thread names.
//
// Statistics live in a fixed open-addressing table. A category/operation
// pair is entered once under a mutex; after that, completing a scope finds
// its entry and updates it with atomic operations only: the total, the
// histogram bucket of its duration (the count is the sum of the buckets) and,
// rarely, the maximum. The copies of the texts live in a fixed pool, so that
// recording a scope never allocates memory.
//
// Names are kept by pthread_t for as long as their thread lives: a thread
// that names itself gets a value under a thread-specific key, whose
// destructor forgets the name when the thread ends. pthread_t values are
// reused, so a name kept longer would be reported for a later thread.
#include "foundation/debug/chronomonitor.h"

#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>

#include "internal.h"

namespace zorv {
namespace foundation {
namespace debug {
namespace {

struct Stat {
  std::atomic<const char*> category;  // published last, with release
  const char* operation;
  std::atomic<unsigned long long> total;
  std::atomic<unsigned long long> max;
  std::atomic<unsigned long long> buckets[internal::kTimingBuckets];
};

unsigned long long CountOf(const Stat& stat) {
  unsigned long long count = 0;
  for (const auto& bucket : stat.buckets) count += bucket.load(std::memory_order_relaxed);
  return count;
}

constexpr unsigned int kStatCount = 1024;
Stat g_stats[kStatCount];
internal::ForkSafeMutex g_statMutex = ZORV_DEBUG_FORK_SAFE_MUTEX_INIT;

struct NameEntry {
  unsigned long long thread;
  char* name;
  NameEntry* next;
};

constexpr unsigned int kNameBuckets = 256;
NameEntry* g_names[kNameBuckets];
internal::ForkSafeMutex g_nameMutex = ZORV_DEBUG_FORK_SAFE_MUTEX_INIT;

// The key whose destructor forgets a thread's name. Created on the first
// naming, under g_nameMutex; when it cannot be created, names stay.
pthread_key_t g_nameKey;
bool g_nameKeyTried = false;
bool g_nameKeyReady = false;

struct Registrar {
  Registrar() {
    internal::RegisterForkSafe(&g_statMutex);
    internal::RegisterForkSafe(&g_nameMutex);
  }
};
Registrar g_registrar;

unsigned int HashPair(const char* category, const char* operation) {
  unsigned int h = 2166136261u;
  for (const char* p = category; *p != '\0'; ++p)
    h = (h ^ static_cast<unsigned char>(*p)) * 16777619u;
  h = (h ^ 0x1Fu) * 16777619u;
  for (const char* p = operation; *p != '\0'; ++p)
    h = (h ^ static_cast<unsigned char>(*p)) * 16777619u;
  return h;
}

// The copies of the texts of the pairs; taken from under g_statMutex.
char g_textPool[64 * 1024];
size_t g_textUsed = 0;

char* CopyText(const char* text, size_t size) {
  char* copy = g_textPool + g_textUsed;
  memcpy(copy, text, size);
  g_textUsed += size;
  return copy;
}

// Finds the entry of the pair; enters it when `create` is set. Null when the
// pair is unknown (or the table is full).
Stat* Find(const char* category, const char* operation, bool create) {
  if (category == nullptr) category = "";
  if (operation == nullptr) operation = "";
  const unsigned int start = HashPair(category, operation) & (kStatCount - 1);
  for (unsigned int i = 0; i < kStatCount; ++i) {
    Stat& stat = g_stats[(start + i) & (kStatCount - 1)];
    const char* c = stat.category.load(std::memory_order_acquire);
    if (c == nullptr) break;
    if (strcmp(c, category) == 0 && strcmp(stat.operation, operation) == 0) return &stat;
  }
  if (!create) return nullptr;
  internal::ScopedLock lock(g_statMutex);
  for (unsigned int i = 0; i < kStatCount; ++i) {
    Stat& stat = g_stats[(start + i) & (kStatCount - 1)];
    const char* c = stat.category.load(std::memory_order_acquire);
    if (c == nullptr) {
      const size_t categorySize = strlen(category) + 1;
      const size_t operationSize = strlen(operation) + 1;
      if (categorySize + operationSize > sizeof g_textPool - g_textUsed) return nullptr;
      stat.operation = CopyText(operation, operationSize);
      stat.category.store(CopyText(category, categorySize), std::memory_order_release);
      return &stat;
    }
    if (strcmp(c, category) == 0 && strcmp(stat.operation, operation) == 0) return &stat;
  }
  return nullptr;
}

unsigned int NameBucket(unsigned long long thread) {
  return static_cast<unsigned int>((thread ^ (thread >> 12) ^ (thread >> 32)) * 2654435761u) >> 24;
}

// Destructor of the name key: runs on a thread that named itself as it ends.
void ForgetName(void*) {
  const unsigned long long self = static_cast<unsigned long long>(pthread_self());
  NameEntry* gone = nullptr;
  {
    internal::ScopedLock lock(g_nameMutex);
    for (NameEntry** link = &g_names[NameBucket(self)]; *link != nullptr; link = &(*link)->next) {
      if ((*link)->thread == self) {
        gone = *link;
        *link = gone->next;
        break;
      }
    }
  }
  if (gone != nullptr) {
    free(gone->name);
    free(gone);
  }
}

// The operating system keeps 15 bytes of a thread name: keep the end, which
// carries the most specific part of dotted and path-like names.
void SetOsThreadName(const char* name, size_t length) {
  char shortName[16];
  const char* start = length > 15 ? name + (length - 15) : name;
  const size_t n = length > 15 ? 15 : length;
  memcpy(shortName, start, n);
  shortName[n] = '\0';
  pthread_setname_np(pthread_self(), shortName);
}

// Each thread remembers the entries of the last pairs it timed, by the
// addresses of their texts, so that a scope that ends again with the same
// texts skips hashing them. A hit is confirmed against the entry's own copy
// of the texts (the same address may hold other text by now), reached
// through pointers kept in the slot: the entry's own fields share a cache
// line with counters that other threads keep changing.
struct CacheSlot {
  const char* category;
  const char* operation;
  const char* categoryCopy;
  const char* operationCopy;
  Stat* stat;
};
constexpr unsigned int kCacheSlots = 8;
__thread CacheSlot t_cache[kCacheSlots] __attribute__((tls_model("initial-exec")));

Stat* FindCached(const char* category, const char* operation) {
  if (category == nullptr || operation == nullptr) return Find(category, operation, true);
  const uintptr_t key =
      reinterpret_cast<uintptr_t>(category) ^ (reinterpret_cast<uintptr_t>(operation) >> 3);
  CacheSlot& slot = t_cache[(key ^ (key >> 7)) & (kCacheSlots - 1)];
  if (slot.category == category && slot.operation == operation &&
      strcmp(slot.categoryCopy, category) == 0 && strcmp(slot.operationCopy, operation) == 0) {
    return slot.stat;
  }
  Stat* stat = Find(category, operation, true);
  if (stat != nullptr) {
    slot = CacheSlot{category, operation, stat->category.load(std::memory_order_relaxed),
                     stat->operation, stat};
  }
  return stat;
}

}  // namespace

ChronoMonitor::Chronometer::Chronometer(const char* category, const char* operation)
    : category_(category), operation_(operation), start_(internal::MonotonicNanos()) {}

ChronoMonitor::Chronometer::~Chronometer() {
  const unsigned long long elapsed = internal::MonotonicNanos() - start_;
  Stat* stat = FindCached(category_, operation_);
  if (stat == nullptr) return;
  stat->buckets[internal::TimingBucket(elapsed)].fetch_add(1, std::memory_order_relaxed);
  stat->total.fetch_add(elapsed, std::memory_order_relaxed);
  unsigned long long seen = stat->max.load(std::memory_order_relaxed);
  while (elapsed > seen &&
         !stat->max.compare_exchange_weak(seen, elapsed, std::memory_order_relaxed)) {
  }
}

unsigned long long ChronoMonitor::Count(const char* category, const char* operation) {
  Stat* stat = Find(category, operation, false);
  return stat == nullptr ? 0 : CountOf(*stat);
}

unsigned long long ChronoMonitor::TotalNanos(const char* category, const char* operation) {
  Stat* stat = Find(category, operation, false);
  return stat == nullptr ? 0 : stat->total.load(std::memory_order_relaxed);
}

unsigned long long ChronoMonitor::MaxNanos(const char* category, const char* operation) {
  Stat* stat = Find(category, operation, false);
  return stat == nullptr ? 0 : stat->max.load(std::memory_order_relaxed);
}

void ChronoMonitor::SetThreadName(const SafeString& name) {
  const unsigned long long self = static_cast<unsigned long long>(pthread_self());
  char* copy = static_cast<char*>(malloc(name.size() + 1));
  if (copy == nullptr) return;
  memcpy(copy, name.data(), name.size());
  copy[name.size()] = '\0';
  char* old = nullptr;
  NameEntry* fresh = nullptr;
  bool forgetAtEnd = false;
  {
    internal::ScopedLock lock(g_nameMutex);
    if (!g_nameKeyTried) {
      g_nameKeyTried = true;
      g_nameKeyReady = pthread_key_create(&g_nameKey, &ForgetName) == 0;
    }
    forgetAtEnd = g_nameKeyReady;
    NameEntry** bucket = &g_names[NameBucket(self)];
    NameEntry* e = *bucket;
    while (e != nullptr && e->thread != self) e = e->next;
    if (e != nullptr) {
      old = e->name;
      e->name = copy;
    } else {
      fresh = static_cast<NameEntry*>(malloc(sizeof(NameEntry)));
      if (fresh != nullptr) {
        *fresh = NameEntry{self, copy, *bucket};
        *bucket = fresh;
      } else {
        old = copy;
      }
    }
  }
  free(old);
  // Any value other than null makes the destructor run at thread exit.
  if (forgetAtEnd) pthread_setspecific(g_nameKey, &g_nameKey);
  SetOsThreadName(name.c_str(), strlen(name.c_str()));
}

SafeString ChronoMonitor::GetThreadName(unsigned long long threadId) {
  SafeString result;
  internal::ScopedLock lock(g_nameMutex);
  for (NameEntry* e = g_names[NameBucket(threadId)]; e != nullptr; e = e->next) {
    if (e->thread == threadId) {
      result = e->name;
      break;
    }
  }
  return result;
}

namespace internal {

void VisitChrono(ChronoVisitor visit, void* context) {
  for (Stat& stat : g_stats) {
    const char* c = stat.category.load(std::memory_order_acquire);
    if (c == nullptr) continue;
    TimingStats stats;
    stats.category = c;
    stats.operation = stat.operation;
    stats.count = 0;
    for (unsigned int b = 0; b < kTimingBuckets; ++b) {
      stats.buckets[b] = stat.buckets[b].load(std::memory_order_relaxed);
      stats.count += stats.buckets[b];
    }
    stats.totalNanos = stat.total.load(std::memory_order_relaxed);
    stats.maxNanos = stat.max.load(std::memory_order_relaxed);
    visit(context, stats);
  }
}

}  // namespace internal
}  // namespace debug
}  // namespace foundation
}  // namespace zorv
