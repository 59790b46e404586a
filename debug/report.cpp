// The report of live objects, blocks, handles and timing statistics, as text
// (PrintReport, WriteReport) or JSON (WriteReport).
//
// Both forms are written piece by piece through an Out, which sends the
// bytes to a stdio stream or through a small buffer to a descriptor, so a
// report needs no memory beyond the table of object groups.
#include "foundation/debug/report.h"

#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

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

// Where the report goes: a stdio stream, or a descriptor through buffer.
struct Out {
  FILE* file;
  int fd;
  bool ok;
  bool brokenPipe;
  size_t used;
  char buffer[4096];
};

void WriteAll(Out& out, const char* data, size_t size) {
  while (out.ok && size > 0) {
    const ssize_t n = write(out.fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      out.ok = false;
      out.brokenPipe = n < 0 && errno == EPIPE;
      return;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
}

void Flush(Out& out) {
  WriteAll(out, out.buffer, out.used);
  out.used = 0;
}

void Put(Out& out, const char* data, size_t size) {
  if (out.file != nullptr) {
    fwrite(data, 1, size, out.file);
    return;
  }
  if (!out.ok) return;
  if (out.used + size > sizeof out.buffer) {
    Flush(out);
    if (size > sizeof out.buffer) {
      WriteAll(out, data, size);
      return;
    }
  }
  memcpy(out.buffer + out.used, data, size);
  out.used += size;
}

void Put(Out& out, const char* text) { Put(out, text, strlen(text)); }

// Formats numbers only: every use is far shorter than the local buffer.
__attribute__((format(printf, 2, 3))) void PutF(Out& out, const char* format, ...) {
  char text[128];
  va_list args;
  va_start(args, format);
  const int n = vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (n > 0) Put(out, text, static_cast<size_t>(n) < sizeof text ? static_cast<size_t>(n) : sizeof text - 1);
}

// ---- Text ----

void TextChrono(void* context, const internal::TimingStats& s) {
  Out& out = *static_cast<Out*>(context);
  const double totalMs = static_cast<double>(s.totalNanos) / 1e6;
  const double meanUs =
      s.count == 0 ? 0.0 : static_cast<double>(s.totalNanos) / 1e3 / static_cast<double>(s.count);
  Put(out, "  ");
  Put(out, s.category);
  Put(out, "/");
  Put(out, s.operation);
  PutF(out, ": count %llu, total %.3f ms, mean %.3f us, max %.3f us\n", s.count, totalMs, meanUs,
       static_cast<double>(s.maxNanos) / 1e3);
}

void WriteText(Out& out, const Groups& groups) {
  Put(out, "==== zorv debug report ====\n");
  PutF(out, "live objects: %llu\n", ObjectMonitor::LiveObjects());
  for (size_t i = 0; i < groups.size; ++i) {
    const Group& g = groups.items[i];
    Put(out, "  ");
    Put(out, g.name);
    Put(out, " at ");
    Put(out, g.source);
    PutF(out, ":%d: %llu object(s), %llu bytes\n", g.line, g.count, g.bytes);
  }
  PutF(out, "live blocks: %llu (%llu bytes)\n", MemoryMonitor::LiveBlocks(),
       MemoryMonitor::LiveBytes());
  PutF(out, "live handles: %lld\n", SystemMonitor::LiveHandles());
  Put(out, "timing:\n");
  internal::VisitChrono(&TextChrono, &out);
  Put(out, "==== end of report ====\n");
}

// ---- JSON ----

// The length of the valid UTF-8 sequence at s (1 to 4), or 0 when the byte
// at s does not start one.
size_t Utf8Length(const unsigned char* s) {
  const unsigned char c = s[0];
  size_t n;
  unsigned char low = 0x80, high = 0xBF;  // range of the second byte
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    if (c == 0xE0) low = 0xA0;   // no overlong forms
    if (c == 0xED) high = 0x9F;  // no surrogates
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    if (c == 0xF0) low = 0x90;
    if (c == 0xF4) high = 0x8F;  // nothing above U+10FFFF
  } else {
    return 0;
  }
  if (s[1] < low || s[1] > high) return 0;
  for (size_t i = 2; i < n; ++i) {
    if (s[i] < 0x80 || s[i] > 0xBF) return 0;
  }
  return n;
}

void PutJsonString(Out& out, const char* text) {
  const unsigned char* s = reinterpret_cast<const unsigned char*>(text);
  Put(out, "\"");
  while (*s != 0) {
    const unsigned char* run = s;
    while (*s >= 0x20 && *s < 0x80 && *s != '"' && *s != '\\') ++s;
    Put(out, reinterpret_cast<const char*>(run), static_cast<size_t>(s - run));
    if (*s == 0) break;
    if (*s == '"' || *s == '\\') {
      const char escaped[2] = {'\\', static_cast<char>(*s)};
      Put(out, escaped, 2);
      ++s;
    } else if (*s == '\n') {
      Put(out, "\\n");
      ++s;
    } else if (*s == '\t') {
      Put(out, "\\t");
      ++s;
    } else if (*s < 0x20) {
      PutF(out, "\\u%04x", *s);
      ++s;
    } else if (const size_t n = Utf8Length(s)) {
      Put(out, reinterpret_cast<const char*>(s), n);
      s += n;
    } else {
      PutF(out, "\\u%04x", *s);
      ++s;
    }
  }
  Put(out, "\"");
}

// The end of the bucket that holds the `percent` percentile, at most max.
unsigned long long Percentile(const internal::TimingStats& s, unsigned int percent) {
  if (s.count == 0) return 0;
  unsigned long long rank = (s.count / 100) * percent + ((s.count % 100) * percent + 99) / 100;
  if (rank == 0) rank = 1;
  unsigned long long seen = 0;
  for (unsigned int b = 0; b + 1 < internal::kTimingBuckets; ++b) {
    seen += s.buckets[b];
    if (seen >= rank) {
      const unsigned long long end = internal::TimingBucketEnd(b);
      return end < s.maxNanos ? end : s.maxNanos;
    }
  }
  return s.maxNanos;
}

struct JsonTiming {
  Out* out;
  bool first;
};

void JsonChrono(void* context, const internal::TimingStats& s) {
  JsonTiming& timing = *static_cast<JsonTiming*>(context);
  Out& out = *timing.out;
  Put(out, timing.first ? "\n    {\"category\": " : ",\n    {\"category\": ");
  timing.first = false;
  PutJsonString(out, s.category);
  Put(out, ", \"operation\": ");
  PutJsonString(out, s.operation);
  PutF(out, ", \"count\": %llu, \"total_ns\": %llu, \"mean_ns\": %llu", s.count, s.totalNanos,
       s.count == 0 ? 0ull : s.totalNanos / s.count);
  PutF(out, ", \"max_ns\": %llu, \"p50_ns\": %llu, \"p99_ns\": %llu}", s.maxNanos,
       Percentile(s, 50), Percentile(s, 99));
}

void WriteJson(Out& out, const Groups& groups) {
  PutF(out, "{\n  \"version\": 1,\n  \"pid\": %ld,\n", static_cast<long>(getpid()));
  PutF(out, "  \"objects\": {\n    \"live\": %llu,\n    \"groups\": [",
       ObjectMonitor::LiveObjects());
  for (size_t i = 0; i < groups.size; ++i) {
    const Group& g = groups.items[i];
    Put(out, i == 0 ? "\n      {\"name\": " : ",\n      {\"name\": ");
    PutJsonString(out, g.name);
    Put(out, ", \"source\": ");
    PutJsonString(out, g.source);
    PutF(out, ", \"line\": %d, \"count\": %llu, \"bytes\": %llu}", g.line, g.count, g.bytes);
  }
  Put(out, groups.size == 0 ? "]\n  },\n" : "\n    ]\n  },\n");
  PutF(out, "  \"blocks\": {\n    \"live\": %llu,\n    \"bytes\": %llu,\n    \"by_size\": [",
       MemoryMonitor::LiveBlocks(), MemoryMonitor::LiveBytes());
  long long classes[internal::kSizeClasses];
  internal::LiveBlocksBySize(classes);
  for (unsigned int c = 0; c < internal::kSizeClasses; ++c) {
    const unsigned long long low = c == 0 ? 0 : (8ull << c) + 1;
    const unsigned long long high = c + 1 == internal::kSizeClasses ? 0xFFFFFFFFull : 16ull << c;
    PutF(out, "%s\n      {\"min\": %llu, \"max\": %llu, \"live\": %lld}", c == 0 ? "" : ",", low,
         high, classes[c]);
  }
  PutF(out, "\n    ]\n  },\n  \"handles\": %lld,\n  \"timing\": [", SystemMonitor::LiveHandles());
  JsonTiming timing{&out, true};
  internal::VisitChrono(&JsonChrono, &timing);
  Put(out, timing.first ? "]\n}\n" : "\n  ]\n}\n");
}

void CollectGroups(Groups& groups) {
  internal::VisitObjects(&AddObject, &groups);
  if (groups.size > 1) qsort(groups.items, groups.size, sizeof(Group), &CompareGroups);
}

struct ExitReport {
  ~ExitReport() {
    if (internal::EnvFlag("ZORV_DEBUG_REPORT")) PrintReport();
  }
};
ExitReport g_exitReport;

}  // namespace

void PrintReport() {
  Groups groups{nullptr, 0, 0};
  CollectGroups(groups);
  Out out;
  out.file = stderr;
  out.fd = -1;
  out.ok = true;
  out.brokenPipe = false;
  out.used = 0;
  flockfile(stderr);
  WriteText(out, groups);
  funlockfile(stderr);
  free(groups.items);
}

bool WriteReport(int fd, ReportFormat format) {
  // A write to a pipe without a reader raises SIGPIPE, whose default action
  // ends the process: keep it blocked here and discard the one the write
  // raised, unless one was already pending before.
  sigset_t pipeOnly;
  sigset_t saved;
  sigset_t pending;
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipeOnly, &saved);
  sigemptyset(&pending);
  sigpending(&pending);
  const bool pipeWasPending = sigismember(&pending, SIGPIPE) == 1;

  Groups groups{nullptr, 0, 0};
  CollectGroups(groups);
  Out out;
  out.file = nullptr;
  out.fd = fd;
  out.ok = fd >= 0;
  out.brokenPipe = false;
  out.used = 0;
  if (format == ReportFormat::kJson) {
    WriteJson(out, groups);
  } else {
    WriteText(out, groups);
  }
  Flush(out);
  free(groups.items);

  if (out.brokenPipe && !pipeWasPending) {
    const timespec none = {0, 0};
    while (sigtimedwait(&pipeOnly, nullptr, &none) < 0 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  return out.ok;
}

}  // namespace debug
}  // namespace foundation
}  // namespace zorv
