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

// A live object's record, kept in its shard's table itself: forgetting an
// object then reads one line of the table, where a list of separately
// allocated records costs a line of the bucket array and another of the
// record, both usually just written by the thread that recorded the object.
struct Record {
  void* object;  // null: a free slot
  const char* source;
  const char* name;
  int line;
  unsigned int size;
};

// An open-addressing table (linear probing, at most half full while it can
// grow). A removal moves later records of the same run back, so that a
// lookup can stop at the first free slot.
struct Shard {
  internal::ForkSafeMutex mutex;
  Record* slots;
  unsigned int capacity;  // a power of two, or 0 before the first record
  // Written under the mutex; read without it to skip empty shards and to
  // count the live objects (no counter shared by all shards, whose cache
  // line every thread that records an object would have to take).
  std::atomic<unsigned int> count;
  // The record of a null object (a private object whose allocation failed
  // is still recorded, under a null pointer), which no slot can hold.
  Record nullRecord;
  bool hasNull;
};

// 32 shards: the fork handlers hold every shard mutex at once, and tools that
// follow lock ownership (ThreadSanitizer tracks 64 per thread) must keep up.
constexpr unsigned int kShardBits = 5;
constexpr unsigned int kShardCount = 1u << kShardBits;
constexpr unsigned int kFirstCapacity = 64;

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

// The slot where the probe for `object` starts.
inline unsigned int HomeOf(const Shard& shard, const void* object) {
  return (Hash(object) >> kShardBits) & (shard.capacity - 1);
}

// The slot of `object`, or of the free slot that ends its probe.
unsigned int Probe(const Shard& shard, const void* object) {
  unsigned int i = HomeOf(shard, object);
  while (shard.slots[i].object != nullptr && shard.slots[i].object != object) {
    i = (i + 1) & (shard.capacity - 1);
  }
  return i;
}

// Doubles the table (or makes the first one); false, keeping the table as
// it was, when memory is short.
bool Grow(Shard& shard) {
  const unsigned int newCapacity = shard.capacity == 0 ? kFirstCapacity : shard.capacity * 2;
  if (newCapacity == 0) return false;
  Record* fresh = static_cast<Record*>(calloc(newCapacity, sizeof(Record)));
  if (fresh == nullptr) return false;
  Record* old = shard.slots;
  const unsigned int oldCapacity = shard.capacity;
  shard.slots = fresh;
  shard.capacity = newCapacity;
  for (unsigned int i = 0; i < oldCapacity; ++i) {
    if (old[i].object != nullptr) shard.slots[Probe(shard, old[i].object)] = old[i];
  }
  free(old);
  return true;
}

// Removes the record of `object`, copying it to `*taken` when given; false
// when the object has no record. Under the shard's mutex.
bool Take(Shard& shard, void* object, Record* taken) {
  if (object == nullptr) {
    if (!shard.hasNull) return false;
    if (taken != nullptr) *taken = shard.nullRecord;
    shard.hasNull = false;
    shard.count.store(shard.count.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
    return true;
  }
  if (shard.capacity == 0) return false;
  const unsigned int mask = shard.capacity - 1;
  unsigned int hole = Probe(shard, object);
  if (shard.slots[hole].object == nullptr) return false;
  if (taken != nullptr) *taken = shard.slots[hole];
  // Moves back each later record of the run whose probe passes the hole.
  for (unsigned int j = (hole + 1) & mask; shard.slots[j].object != nullptr; j = (j + 1) & mask) {
    const unsigned int home = HomeOf(shard, shard.slots[j].object);
    if (((j - home) & mask) >= ((j - hole) & mask)) {
      shard.slots[hole] = shard.slots[j];
      hole = j;
    }
  }
  shard.slots[hole].object = nullptr;
  shard.count.store(shard.count.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
  return true;
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
  Shard& shard = ShardOf(Hash(object));
  internal::ScopedLock lock(shard.mutex);
  const unsigned int count = shard.count.load(std::memory_order_relaxed);
  if (object == nullptr) {
    if (!shard.hasNull) shard.count.store(count + 1, std::memory_order_relaxed);
    shard.hasNull = true;
    shard.nullRecord = Record{object, source, name, line, size};
    return;
  }
  // Half full at most while the table can grow; when it cannot, the last
  // free slot stays free, so that every probe ends.
  if (2 * (count + 1) > shard.capacity && !Grow(shard) && count + 1 >= shard.capacity) {
    if (shard.capacity == 0) return;
    const unsigned int i = Probe(shard, object);
    if (shard.slots[i].object == object) shard.slots[i] = Record{object, source, name, line, size};
    return;
  }
  Record& slot = shard.slots[Probe(shard, object)];
  if (slot.object == nullptr) {
    shard.count.store(count + 1, std::memory_order_relaxed);
  }
  slot = Record{object, source, name, line, size};
}

void ObjectMonitor::_DecLeakEx(void* object, const char*, int, const char*) {
  SetUp();
  Shard& shard = ShardOf(Hash(object));
  // An object is recorded before it can be forgotten, by the same thread or
  // one that synchronised with it: an empty shard cannot hold it. Objects
  // that were never recorded (tasks created with plain new) mostly end here.
  if (shard.count.load(std::memory_order_relaxed) == 0) return;
  internal::ScopedLock lock(shard.mutex);
  (void)Take(shard, object, nullptr);
}

ObjectMonitor::LeakInfo ObjectMonitor::_DecLeakInfoEx(void* object, const char*, int,
                                                      const char*) {
  SetUp();
  Shard& shard = ShardOf(Hash(object));
  if (shard.count.load(std::memory_order_relaxed) == 0) return LeakInfo{nullptr, 0};
  internal::ScopedLock lock(shard.mutex);
  Record record;
  if (!Take(shard, object, &record)) return LeakInfo{nullptr, 0};
  return LeakInfo{static_cast<unsigned char*>(record.object), record.size};
}

namespace internal {

void VisitObjects(ObjectVisitor visit, void* context) {
  SetUp();
  for (Shard& shard : g_shards) {
    ScopedLock lock(shard.mutex);
    if (shard.hasNull) {
      const Record& r = shard.nullRecord;
      visit(context, r.name, r.source, r.line, r.size);
    }
    for (unsigned int i = 0; i < shard.capacity; ++i) {
      const Record& r = shard.slots[i];
      if (r.object != nullptr) visit(context, r.name, r.source, r.line, r.size);
    }
  }
}

}  // namespace internal
}  // namespace debug
}  // namespace foundation
}  // namespace zorv
