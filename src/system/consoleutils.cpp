// Console output under the process-wide console lock.
#include "foundation/system/consoleutils.h"

#include <stdio.h>
#include <string.h>
#include <termios.h>

#include "foundation/threading/thread.h"

namespace zorv {
namespace foundation {
namespace system {
namespace {

constexpr size_t kPieceBytes = 1023;
constexpr char kPausePrompt[] = "[...waiting for action...]";

// The one console lock of the process, constructed when the library loads.
sealed::ConsoleLock g_consoleLock;

std::atomic<ConsoleUtils::Writer> g_writer{nullptr};

// Holds the console lock for a scope (the lock never throws).
class ConsoleScope {
 public:
  ConsoleScope() { g_consoleLock.lock(); }
  ~ConsoleScope() { g_consoleLock.unlock(); }
  ConsoleScope(const ConsoleScope&) = delete;
  ConsoleScope& operator=(const ConsoleScope&) = delete;
};

void WritePiece(const char* text) {
  ConsoleUtils::Writer writer = g_writer.load(std::memory_order_acquire);
  if (writer != nullptr) {
    writer(text);
  } else {
    printf("%s", text);
  }
}

}  // namespace

namespace sealed {

ConsoleLock::~ConsoleLock() = default;

void ConsoleLock::lock() {
  while (counter_.fetch_add(1, std::memory_order_acquire) + 1 != 1) {
    counter_.fetch_sub(1, std::memory_order_relaxed);
    threading::Thread::Yield();
  }
}

void ConsoleLock::unlock() { counter_.fetch_sub(1, std::memory_order_release); }

}  // namespace sealed

void ConsoleUtils::Print(const char* text) {
  ConsoleScope scope;
  WritePiece(text);
}

void ConsoleUtils::Println(const char* text) {
  ConsoleScope scope;
  ConsoleUtils::Writer writer = g_writer.load(std::memory_order_acquire);
  if (writer != nullptr) {
    writer(text);
  } else {
    puts(text);
  }
}

void ConsoleUtils::Print(const char* begin, const char* end) {
  ConsoleScope scope;
  char piece[kPieceBytes + 1];
  while (begin < end) {
    size_t size = static_cast<size_t>(end - begin);
    if (size > kPieceBytes) size = kPieceBytes;
    memcpy(piece, begin, size);
    piece[size] = '\0';
    WritePiece(piece);
    begin += size;
  }
}

void ConsoleUtils::Pause() {
  Println(kPausePrompt);
  struct termios kept;
  if (tcgetattr(0, &kept) != 0) return;
  struct termios raw = kept;
  cfmakeraw(&raw);
  if (tcsetattr(0, TCSANOW, &raw) != 0) return;
  (void)getc(stdin);
  tcsetattr(0, TCSANOW, &kept);
}

void ConsoleUtils::SetWriter(Writer writer) { g_writer.store(writer, std::memory_order_release); }

threading::ILock& ConsoleUtils::ConsoleLock() { return g_consoleLock; }

}  // namespace system
}  // namespace foundation
}  // namespace zorv
