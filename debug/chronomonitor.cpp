// Timing statistics and thread names.
//
// Statistics live in a fixed open-addressing table. A category/operation
// pair is entered once under a mutex; after that, completing a scope finds
// its entry and updates it without a lock: the total, the histogram bucket
// of its duration (the count is the sum of the buckets) and, rarely, the
// maximum. The copies of the texts live in a fixed pool, so that recording
// a scope never allocates memory.
//
// Threads that time the same pair would all add to the same cache lines, and
// every addition would move them from processor to processor. So a thread
// adds to a lane of its own for each of the first pairs it times (see Lane),
// with plain loads and stores; readers add the lanes to the entry's own
// counters, which the threads without a lane keep with atomic additions.
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
#include "scopeclock.h"

namespace zorv {
namespace foundation {
namespace debug {
namespace {

// The counters of one pair, or of one thread's share of one pair.
struct Counters {
  std::atomic<unsigned long long> total;
  std::atomic<unsigned long long> max;
  std::atomic<unsigned long long> buckets[internal::kTimingBuckets];
};

struct Lane;

struct Stat {
  std::atomic<const char*> category;  // published last, with release
  const char* operation;
  Counters shared;
  std::atomic<Lane*> lanes;  // this pair's lanes, latest first
};

// A thread's own counters for one pair. Only the thread that has taken the
// lane writes them, so an addition is a load and a store, not an atomic
// read-modify-write; readers may see a lane's total and buckets one scope
// apart, as they may the shared counters. A lane stays bound to its pair
// and listed in it for the life of the process: when its thread ends, the
// lane is given up, counts and all, for the next thread that times the pair.
struct alignas(64) Lane {
  Counters counters;
  Stat* stat;                // written before the lane is listed
  Lane* next;                // next in the pair's list; written before listing
  std::atomic<bool> taken;   // by a live thread
  Lane* nextOwned;           // the owning thread's other lanes
};

constexpr unsigned int kLaneCount = 256;
constexpr unsigned int kLanesPerThread = 8;
Lane g_lanes[kLaneCount];
std::atomic<unsigned int> g_lanesUsed{0};

void AddUp(const Counters& c, internal::TimingStats& stats) {
  for (unsigned int b = 0; b < internal::kTimingBuckets; ++b) {
    const unsigned long long n = c.buckets[b].load(std::memory_order_relaxed);
    stats.buckets[b] += n;
    stats.count += n;
  }
  stats.totalNanos += c.total.load(std::memory_order_relaxed);
  const unsigned long long m = c.max.load(std::memory_order_relaxed);
  if (m > stats.maxNanos) stats.maxNanos = m;
}

// The figures of a pair: its shared counters and its lanes added up.
internal::TimingStats Snapshot(const Stat& stat) {
  internal::TimingStats stats = {};
  stats.category = stat.category.load(std::memory_order_acquire);
  stats.operation = stat.operation;
  AddUp(stat.shared, stats);
  for (const Lane* lane = stat.lanes.load(std::memory_order_acquire); lane != nullptr;
       lane = lane->next) {
    AddUp(lane->counters, stats);
  }
  return stats;
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

void TakeBackLanes();

struct Registrar {
  Registrar() {
    internal::RegisterForkSafe(&g_statMutex);
    internal::RegisterForkSafe(&g_nameMutex);
    pthread_atfork(nullptr, nullptr, &TakeBackLanes);
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

// Each thread remembers the entries of the last pairs it timed, placed by
// the addresses of their texts, so that a scope that ends again with the
// same texts skips hashing them. A hit is confirmed against the entry's own
// copy of the texts (the same address may hold other text by now), reached
// through pointers kept in the slot: the entry's own fields share a cache
// line with counters that other threads keep changing.
struct CacheSlot {
  const char* categoryCopy;
  const char* operationCopy;
  Stat* stat;
  Lane* lane;  // the thread's lane for the pair, or null
};
constexpr unsigned int kCacheSlots = 8;
__thread CacheSlot t_cache[kCacheSlots] __attribute__((tls_model("initial-exec")));

// The lanes the thread has taken, and whether it may take more: not once
// its lanes were given up as it ends (timing scopes may still end in other
// destructors after that), nor when the key that gives them up at its end
// could not be made.
__thread Lane* t_owned __attribute__((tls_model("initial-exec")));
__thread unsigned int t_ownedCount __attribute__((tls_model("initial-exec")));
__thread bool t_lanesEnded __attribute__((tls_model("initial-exec")));

pthread_key_t g_laneKey;
std::atomic<int> g_laneKeyState{0};  // 0 not tried, 1 ready, 2 unavailable

// Destructor of the lane key: gives up the ending thread's lanes.
void GiveUpLanes(void*) {
  // Another thread may take a lane as soon as it is given up, and relink it.
  Lane* lane = t_owned;
  while (lane != nullptr) {
    Lane* next = lane->nextOwned;
    lane->taken.store(false, std::memory_order_release);
    lane = next;
  }
  t_owned = nullptr;
  t_ownedCount = 0;
  for (CacheSlot& slot : t_cache) slot.lane = nullptr;
  t_lanesEnded = true;
}

// In a child process, only the forking thread is left: the lanes of the
// others are given up, and the forking thread's stay its own.
void TakeBackLanes() {
  const unsigned int used = g_lanesUsed.load(std::memory_order_relaxed);
  for (unsigned int i = 0; i < used && i < kLaneCount; ++i) {
    g_lanes[i].taken.store(false, std::memory_order_relaxed);
  }
  for (Lane* lane = t_owned; lane != nullptr; lane = lane->nextOwned) {
    lane->taken.store(true, std::memory_order_relaxed);
  }
}

bool LaneKeyReady() {
  int state = g_laneKeyState.load(std::memory_order_acquire);
  if (state == 0) {
    internal::ScopedLock lock(g_statMutex);
    state = g_laneKeyState.load(std::memory_order_relaxed);
    if (state == 0) {
      state = pthread_key_create(&g_laneKey, &GiveUpLanes) == 0 ? 1 : 2;
      g_laneKeyState.store(state, std::memory_order_release);
    }
  }
  return state == 1;
}

// The calling thread's lane for `stat`: one it has, a given-up one of the
// pair, or a fresh one from the pool. Null when the thread may take no more
// or the pool is spent; the thread then adds to the shared counters.
Lane* LaneFor(Stat* stat) {
  for (Lane* lane = t_owned; lane != nullptr; lane = lane->nextOwned) {
    if (lane->stat == stat) return lane;
  }
  if (t_lanesEnded || t_ownedCount >= kLanesPerThread || !LaneKeyReady()) return nullptr;
  Lane* found = nullptr;
  for (Lane* lane = stat->lanes.load(std::memory_order_acquire); lane != nullptr;
       lane = lane->next) {
    bool expected = false;
    if (!lane->taken.load(std::memory_order_relaxed) &&
        lane->taken.compare_exchange_strong(expected, true, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
      found = lane;
      break;
    }
  }
  if (found == nullptr) {
    unsigned int index = g_lanesUsed.load(std::memory_order_relaxed);
    do {
      if (index >= kLaneCount) return nullptr;
    } while (!g_lanesUsed.compare_exchange_weak(index, index + 1, std::memory_order_relaxed));
    found = &g_lanes[index];
    found->stat = stat;
    found->taken.store(true, std::memory_order_relaxed);
    Lane* head = stat->lanes.load(std::memory_order_relaxed);
    do {
      found->next = head;
    } while (!stat->lanes.compare_exchange_weak(head, found, std::memory_order_release,
                                                std::memory_order_relaxed));
  }
  if (t_owned == nullptr) pthread_setspecific(g_laneKey, &g_laneKey);
  found->nextOwned = t_owned;
  t_owned = found;
  ++t_ownedCount;
  return found;
}

// Where the calling thread adds a scope of the pair: its lane's counters or
// the pair's shared ones (`*lane` tells which). Null for a pair that cannot
// be entered.
Counters* FindCached(const char* category, const char* operation, bool* lane) {
  *lane = false;
  if (category == nullptr || operation == nullptr) {
    Stat* stat = Find(category, operation, true);
    return stat == nullptr ? nullptr : &stat->shared;
  }
  const uintptr_t key =
      reinterpret_cast<uintptr_t>(category) ^ (reinterpret_cast<uintptr_t>(operation) >> 3);
  CacheSlot& slot = t_cache[(key ^ (key >> 7)) & (kCacheSlots - 1)];
  if (slot.stat == nullptr || strcmp(slot.categoryCopy, category) != 0 ||
      strcmp(slot.operationCopy, operation) != 0) {
    Stat* stat = Find(category, operation, true);
    if (stat == nullptr) return nullptr;
    slot = CacheSlot{stat->category.load(std::memory_order_relaxed), stat->operation, stat,
                     LaneFor(stat)};
  }
  if (slot.lane == nullptr) return &slot.stat->shared;
  *lane = true;
  return &slot.lane->counters;
}

// Adds one to a counter only the calling thread writes.
inline void AddOwn(std::atomic<unsigned long long>& counter, unsigned long long value) {
  counter.store(counter.load(std::memory_order_relaxed) + value, std::memory_order_relaxed);
}

}  // namespace

ChronoMonitor::Chronometer::Chronometer(const char* category, const char* operation)
    : category_(category), operation_(operation), start_(internal::ScopeClockStart()) {}

ChronoMonitor::Chronometer::~Chronometer() {
  const unsigned long long elapsed = internal::ScopeClockElapsed(start_);
  bool own = false;
  Counters* c = FindCached(category_, operation_, &own);
  if (c == nullptr) return;
  std::atomic<unsigned long long>& bucket = c->buckets[internal::TimingBucket(elapsed)];
  if (own) {
    AddOwn(bucket, 1);
    AddOwn(c->total, elapsed);
    if (elapsed > c->max.load(std::memory_order_relaxed)) {
      c->max.store(elapsed, std::memory_order_relaxed);
    }
    return;
  }
  bucket.fetch_add(1, std::memory_order_relaxed);
  c->total.fetch_add(elapsed, std::memory_order_relaxed);
  unsigned long long seen = c->max.load(std::memory_order_relaxed);
  while (elapsed > seen && !c->max.compare_exchange_weak(seen, elapsed, std::memory_order_relaxed)) {
  }
}

unsigned long long ChronoMonitor::Count(const char* category, const char* operation) {
  const Stat* stat = Find(category, operation, false);
  return stat == nullptr ? 0 : Snapshot(*stat).count;
}

unsigned long long ChronoMonitor::TotalNanos(const char* category, const char* operation) {
  const Stat* stat = Find(category, operation, false);
  return stat == nullptr ? 0 : Snapshot(*stat).totalNanos;
}

unsigned long long ChronoMonitor::MaxNanos(const char* category, const char* operation) {
  const Stat* stat = Find(category, operation, false);
  return stat == nullptr ? 0 : Snapshot(*stat).maxNanos;
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
  for (const Stat& stat : g_stats) {
    if (stat.category.load(std::memory_order_acquire) == nullptr) continue;
    visit(context, Snapshot(stat));
  }
}

}  // namespace internal
}  // namespace debug
}  // namespace foundation
}  // namespace zorv
