// Live-object records, kept in a hash table split into independently locked
// shards so that threads creating objects rarely meet.
#include "foundation/debug/objectmonitor.h"

#include <stdint.h>
#include <stdlib.h>

#include <atomic>

#include "internal.h"

namespace zorv {
namespace foundation {
namespace debug {
namespace {

struct Record {
  void* object;
  const char* source;
  const char* name;
  int line;
  unsigned int size;
  Record* next;
};

struct Shard {
  internal::ForkSafeMutex mutex;
  Record** buckets;
  unsigned int bucketCount;
  // Written under the mutex; read without it to skip empty shards and to
  // count the live objects (no counter shared by all shards, whose cache
  // line every thread that records an object would have to take).
  std::atomic<unsigned int> count;
  // Records of forgotten objects kept for the next ones (at most kSpares):
  // a task is usually recorded by one thread and forgotten by another, and
  // a record freed on the one thread and allocated on the other costs the
  // allocator more than a record handed back through the shard.
  Record* spares;
  unsigned int spareCount;
};

constexpr unsigned int kSpares = 64;

// 32 shards: the fork handlers hold every shard mutex at once, and tools that
// follow lock ownership (ThreadSanitizer tracks 64 per thread) must keep up.
constexpr unsigned int kShardBits = 5;
constexpr unsigned int kShardCount = 1u << kShardBits;

Shard g_shards[kShardCount];
std::atomic<int> g_trace{-1};

// 0: shards not registered for fork yet; 1: registering; 2: done.
std::atomic<int> g_setUp{0};

void SetUp() {
  if (g_setUp.load(std::memory_order_acquire) == 2) return;
  int expected = 0;
  if (g_setUp.compare_exchange_strong(expected, 1)) {
    for (Shard& shard : g_shards) internal::RegisterForkSafe(&shard.mutex);
    g_setUp.store(2, std::memory_order_release);
    return;
  }
  while (g_setUp.load(std::memory_order_acquire) != 2) {
  }
}

inline uint32_t Hash(const void* object) {
  uintptr_t v = reinterpret_cast<uintptr_t>(object);
  v ^= v >> 17;
  return static_cast<uint32_t>(v * 0x9E3779B1u) ^ static_cast<uint32_t>(v >> 3);
}

Shard& ShardOf(uint32_t hash) { return g_shards[hash & (kShardCount - 1)]; }

inline unsigned int BucketOf(const Shard& shard, uint32_t hash) {
  return (hash >> kShardBits) & (shard.bucketCount - 1);
}

// Doubles the bucket array; keeps the old one when memory is short.
void Grow(Shard& shard) {
  const unsigned int newCount = shard.bucketCount == 0 ? 64 : shard.bucketCount * 2;
  Record** fresh = static_cast<Record**>(calloc(newCount, sizeof(Record*)));
  if (fresh == nullptr) return;
  const unsigned int oldCount = shard.bucketCount;
  Record** old = shard.buckets;
  shard.buckets = fresh;
  shard.bucketCount = newCount;
  for (unsigned int i = 0; i < oldCount; ++i) {
    Record* r = old[i];
    while (r != nullptr) {
      Record* next = r->next;
      const unsigned int b = BucketOf(shard, Hash(r->object));
      r->next = fresh[b];
      fresh[b] = r;
      r = next;
    }
  }
  free(old);
}

// Unlinks and returns the record of `object` (whose hash is `hash`) from
// its shard, or null. Under the shard's mutex.
Record* Take(Shard& shard, uint32_t hash, void* object) {
  if (shard.bucketCount == 0) return nullptr;
  Record** link = &shard.buckets[BucketOf(shard, hash)];
  while (*link != nullptr) {
    Record* r = *link;
    if (r->object == object) {
      *link = r->next;
      shard.count.store(shard.count.load(std::memory_order_relaxed) - 1,
                        std::memory_order_relaxed);
      return r;
    }
    link = &r->next;
  }
  return nullptr;
}

// Keeps `record` for reuse when there is room, else returns it for the
// caller to free after leaving the shard's mutex. Under that mutex.
Record* Spare(Shard& shard, Record* record) {
  if (record == nullptr || shard.spareCount >= kSpares) return record;
  record->next = shard.spares;
  shard.spares = record;
  ++shard.spareCount;
  return nullptr;
}

struct Loader {
  Loader() { ObjectMonitor::_IsTrace(); }
};
Loader g_loader;

}  // namespace

unsigned long long ObjectMonitor::LiveObjects() {
  unsigned long long live = 0;
  for (const Shard& shard : g_shards) live += shard.count.load(std::memory_order_relaxed);
  return live;
}

int ObjectMonitor::_IsTrace() {
  int trace = g_trace.load(std::memory_order_acquire);
  if (trace < 0) {
    int fresh = internal::EnvFlag("ZORV_DEBUG_TRACE") ? 1 : 0;
    if (g_trace.compare_exchange_strong(trace, fresh, std::memory_order_acq_rel)) {
      trace = fresh;
    }
  }
  return trace;
}

unsigned char* ObjectMonitor::_Alloc(unsigned int size) {
  return static_cast<unsigned char*>(malloc(size != 0 ? size : 1));
}

void ObjectMonitor::_Dealloc(unsigned char* block, unsigned int) { free(block); }

void ObjectMonitor::_IncLeak(void* object, const char* source, int line,
                             const char* name, unsigned int size) {
  SetUp();
  const uint32_t hash = Hash(object);
  Shard& shard = ShardOf(hash);
  Record* replaced;
  {
    internal::ScopedLock lock(shard.mutex);
    Record* record = shard.spares;
    if (record != nullptr) {
      shard.spares = record->next;
      --shard.spareCount;
    } else {
      record = static_cast<Record*>(malloc(sizeof(Record)));
      if (record == nullptr) return;
    }
    *record = Record{object, source, name, line, size, nullptr};
    replaced = Spare(shard, Take(shard, hash, object));
    if (shard.count.load(std::memory_order_relaxed) >= shard.bucketCount) Grow(shard);
    if (shard.bucketCount == 0) {
      free(record);
      record = nullptr;
    } else {
      Record*& head = shard.buckets[BucketOf(shard, hash)];
      record->next = head;
      head = record;
      shard.count.store(shard.count.load(std::memory_order_relaxed) + 1,
                        std::memory_order_relaxed);
    }
  }
  free(replaced);
}

void ObjectMonitor::_DecLeakEx(void* object, const char* source, int line, const char* name) {
  (void)_DecLeakInfoEx(object, source, line, name);
}

ObjectMonitor::LeakInfo ObjectMonitor::_DecLeakInfoEx(void* object, const char*, int,
                                                      const char*) {
  SetUp();
  const uint32_t hash = Hash(object);
  Shard& shard = ShardOf(hash);
  // An object is recorded before it can be forgotten, by the same thread or
  // one that synchronised with it: an empty shard cannot hold it. Objects
  // that were never recorded (tasks created with plain new) mostly end here.
  if (shard.count.load(std::memory_order_relaxed) == 0) return LeakInfo{nullptr, 0};
  LeakInfo info{nullptr, 0};
  Record* unused;
  {
    internal::ScopedLock lock(shard.mutex);
    Record* record = Take(shard, hash, object);
    if (record != nullptr) {
      info.block = static_cast<unsigned char*>(record->object);
      info.size = record->size;
    }
    unused = Spare(shard, record);
  }
  free(unused);
  return info;
}

namespace internal {

void VisitObjects(ObjectVisitor visit, void* context) {
  SetUp();
  for (Shard& shard : g_shards) {
    ScopedLock lock(shard.mutex);
    for (unsigned int b = 0; b < shard.bucketCount; ++b) {
      for (Record* r = shard.buckets[b]; r != nullptr; r = r->next) {
        visit(context, r->name, r->source, r->line, r->size);
      }
    }
  }
}

}  // namespace internal
}  // namespace debug
}  // namespace foundation
}  // namespace zorv
