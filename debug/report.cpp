// The text report of live objects, blocks, handles and timing statistics.
#include "foundation/debug/report.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "foundation/debug/memorymonitor.h"
#include "foundation/debug/objectmonitor.h"
#include "foundation/debug/systemmonitor.h"
#include "internal.h"

namespace zorv {
namespace foundation {
namespace debug {
namespace {

struct Group {
  const char* name;
  const char* source;
  int line;
  unsigned long long count;
  unsigned long long bytes;
};

struct Groups {
  Group* items;
  size_t size;
  size_t capacity;
};

const char* OrEmpty(const char* s) { return s != nullptr ? s : ""; }

void AddObject(void* context, const char* name, const char* source, int line,
               unsigned int size) {
  Groups* groups = static_cast<Groups*>(context);
  name = OrEmpty(name);
  source = OrEmpty(source);
  for (size_t i = 0; i < groups->size; ++i) {
    Group& g = groups->items[i];
    if (g.line == line && strcmp(g.name, name) == 0 && strcmp(g.source, source) == 0) {
      ++g.count;
      g.bytes += size;
      return;
    }
  }
  if (groups->size == groups->capacity) {
    const size_t capacity = groups->capacity == 0 ? 32 : groups->capacity * 2;
    Group* items = static_cast<Group*>(realloc(groups->items, capacity * sizeof(Group)));
    if (items == nullptr) return;
    groups->items = items;
    groups->capacity = capacity;
  }
  groups->items[groups->size++] = Group{name, source, line, 1, size};
}

int CompareGroups(const void* a, const void* b) {
  const Group* x = static_cast<const Group*>(a);
  const Group* y = static_cast<const Group*>(b);
  int c = strcmp(x->name, y->name);
  if (c == 0) c = strcmp(x->source, y->source);
  if (c == 0) c = (x->line > y->line) - (x->line < y->line);
  return c;
}

void PrintChrono(void* context, const char* category, const char* operation,
                 unsigned long long count, unsigned long long totalNanos,
                 unsigned long long maxNanos) {
  FILE* out = static_cast<FILE*>(context);
  const double totalMs = static_cast<double>(totalNanos) / 1e6;
  const double meanUs = count == 0 ? 0.0 : static_cast<double>(totalNanos) / 1e3 / count;
  fprintf(out, "  %s/%s: count %llu, total %.3f ms, mean %.3f us, max %.3f us\n", category,
          operation, count, totalMs, meanUs, static_cast<double>(maxNanos) / 1e3);
}

struct ExitReport {
  ~ExitReport() {
    if (internal::EnvFlag("ZORV_DEBUG_REPORT")) PrintReport();
  }
};
ExitReport g_exitReport;

}  // namespace

void PrintReport() {
  FILE* out = stderr;
  Groups groups{nullptr, 0, 0};
  internal::VisitObjects(&AddObject, &groups);
  if (groups.size > 1) qsort(groups.items, groups.size, sizeof(Group), &CompareGroups);
  flockfile(out);
  fprintf(out, "==== zorv debug report ====\n");
  fprintf(out, "live objects: %llu\n", ObjectMonitor::LiveObjects());
  for (size_t i = 0; i < groups.size; ++i) {
    const Group& g = groups.items[i];
    fprintf(out, "  %s at %s:%d: %llu object(s), %llu bytes\n", g.name, g.source, g.line,
            g.count, g.bytes);
  }
  fprintf(out, "live blocks: %llu (%llu bytes)\n", MemoryMonitor::LiveBlocks(),
          MemoryMonitor::LiveBytes());
  fprintf(out, "live handles: %lld\n", SystemMonitor::LiveHandles());
  fprintf(out, "timing:\n");
  internal::VisitChrono(&PrintChrono, out);
  fprintf(out, "==== end of report ====\n");
  funlockfile(out);
  free(groups.items);
}

}  // namespace debug
}  // namespace foundation
}  // namespace zorv
