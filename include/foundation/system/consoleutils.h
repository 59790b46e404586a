// ConsoleUtils: console output serialised by one process-wide lock, with a
// replaceable writer, and a pause that waits for a key.
#ifndef ZORV_FOUNDATION_SYSTEM_CONSOLEUTILS_H_
#define ZORV_FOUNDATION_SYSTEM_CONSOLEUTILS_H_

#include <atomic>
#include <cstdint>

#include "foundation/export.h"
#include "foundation/threading/lock.h"

namespace zorv {
namespace foundation {
namespace system {
namespace sealed {

// The process-wide console lock: a spin lock that sleeps 1 ms between tries.
// It is NOT recursive: printing from inside a writer, or while holding it
// through ConsoleUtils::ConsoleLock(), never returns.
//
// Thread safety: safe to share; one instance lives for the whole process.
class ZORV_FOUNDATION_EXPORT ConsoleLock : public threading::ILock {
 public:
  // Free. Constant-initialised, so the process-wide instance is usable from
  // any static constructor or destructor.
  constexpr ConsoleLock() : counter_(0) {}
  ~ConsoleLock() override;
  ConsoleLock(const ConsoleLock&) = delete;
  ConsoleLock& operator=(const ConsoleLock&) = delete;

  // Blocks (sleeping 1 ms between tries) until the lock is taken.
  void lock() override;

  // Releases the lock. REQUIRES: the caller holds it.
  void unlock() override;

 private:
  std::atomic<std::uint32_t> counter_;
};

}  // namespace sealed

// Console output of the library and of its users. Every print holds the
// console lock, so that lines of different threads do not mix. Output goes to
// standard output, or to the writer set with SetWriter.
//
// Thread safety: every operation may be called from any thread; SetWriter
// should be called before threads print.
class ZORV_FOUNDATION_EXPORT ConsoleUtils {
 public:
  // The writer: receives each piece of text, zero-terminated, with no line
  // break added. It runs under the console lock and must not print through
  // ConsoleUtils itself.
  using Writer = void (*)(const char* text);

  ConsoleUtils() = delete;

  // Writes `text` (printf("%s") or the writer). REQUIRES: text is not null.
  static void Print(const char* text);

  // Writes `text` followed by a line break (puts); a writer receives `text`
  // alone, with no line break. REQUIRES: text is not null.
  static void Println(const char* text);

  // Writes the bytes [begin, end) in pieces of at most 1023 bytes, each
  // copied and zero-terminated before it is written; a zero byte inside the
  // range therefore cuts its piece short. Nothing is written when end <=
  // begin.
  static void Print(const char* begin, const char* end);

  // Prints "[...waiting for action...]" and waits for one key press on
  // standard input in raw mode. Returns at once when standard input is not a
  // terminal.
  static void Pause();

  // Replaces the writer; null restores standard output.
  static void SetWriter(Writer writer);

  // The console lock, for keeping several outputs together:
  // `threading::Locker locker(ConsoleUtils::ConsoleLock(), false);` then print
  // through the writer's own target, not through ConsoleUtils (not recursive).
  static threading::ILock& ConsoleLock();
};

}  // namespace system
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_SYSTEM_CONSOLEUTILS_H_
