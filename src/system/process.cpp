// Process control: shell commands, programs and killall, started without
// waiting.
//
// Everything a child needs (its argument vector, the signal state it starts
// the program with) is made ready in the parent before the child is made
// (with vfork: it borrows the parent's memory until its exec). The child of
// a threaded host may only make system calls that are safe after fork: it
// never allocates, takes no lock, writes no memory but its own stack frames
// and never returns from its branch.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include "foundation/collection/vector.h"
#include "foundation/system/systemutils.h"
#include "foundation/text/safestring.h"
#include "foundation/text/stringutils.h"

// Older C libraries do not know the call; its number is the same on every
// Linux architecture.
#if defined(__linux__) && !defined(SYS_close_range)
#define SYS_close_range 436
#endif

namespace zorv {
namespace foundation {
namespace system {
namespace {

// The descriptors of the calling process, one entry per open descriptor.
constexpr char kDescriptorFolder[] = "/proc/self/fd";

// The signal state a started program begins with, made ready before fork.
struct ChildSignals {
  struct sigaction childDefault;
  sigset_t noneBlocked;

  ChildSignals() {
    memset(&childDefault, 0, sizeof childDefault);
    childDefault.sa_handler = SIG_DFL;
    sigemptyset(&childDefault.sa_mask);
    sigemptyset(&noneBlocked);
  }
};

// The entry name of a descriptor as a number; -1 for "." and "..".
int EntryNumber(const char* name) {
  if (*name < '0' || *name > '9') return -1;
  int number = 0;
  for (; *name >= '0' && *name <= '9'; ++name) {
    if (number > 214748363) return -1;
    number = number * 10 + (*name - '0');
  }
  return *name == '\0' ? number : -1;
}

// In the child: closes every descriptor above 2 by listing the descriptor
// folder with raw getdents64 into a buffer on the stack.
void CloseListedDescriptors() {
  const int folder = open(kDescriptorFolder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0) return;
  // The kernel's records have the layout of dirent64.
  constexpr size_t kLengthAt = offsetof(struct dirent64, d_reclen);
  constexpr size_t kNameAt = offsetof(struct dirent64, d_name);
  alignas(struct dirent64) char buffer[2048];
  for (;;) {
    const long filled = syscall(SYS_getdents64, folder, buffer, sizeof buffer);
    if (filled <= 0) break;
    for (long at = 0; at < filled;) {
      unsigned short length = 0;
      memcpy(&length, buffer + at + kLengthAt, sizeof length);
      if (length == 0) break;
      const int descriptor = EntryNumber(buffer + at + kNameAt);
      if (descriptor > 2 && descriptor != folder) close(descriptor);
      at += length;
    }
  }
  close(folder);
}

// In the child: closes every descriptor above 2 that it inherited, at once
// where the kernel has close_range (it fails with ENOSYS before Linux 5.9,
// and with EINVAL or EPERM where it is filtered), one by one otherwise.
void CloseInheritedDescriptors() {
#if defined(SYS_close_range)
  if (syscall(SYS_close_range, 3U, ~0U, 0U) == 0) return;
#endif
  CloseListedDescriptors();
}

// The child's whole branch. It shares the caller's memory until it runs its
// program (see Start), so a handler of the caller must never run in it:
// every caught signal goes back to its default first (as exec would do
// anyway), while all signals are still blocked. SIGCHLD goes back to its
// default too (an ignored signal stays ignored across exec) and then no
// signal stays blocked; if the exec fails the child ends at once, without
// the caller's exit handlers, static destructors or stdio buffers.
[[noreturn]] void RunChild(const char* path, char* const argv[], const ChildSignals& signals) {
  for (int number = 1; number < NSIG; ++number) {
    struct sigaction current;
    if (sigaction(number, nullptr, &current) == 0 && current.sa_handler != SIG_DFL &&
        current.sa_handler != SIG_IGN) {
      sigaction(number, &signals.childDefault, nullptr);
    }
  }
  sigaction(SIGCHLD, &signals.childDefault, nullptr);
  CloseInheritedDescriptors();
  sigprocmask(SIG_SETMASK, &signals.noneBlocked, nullptr);
  execv(path, argv);
  _exit(0);
}

// The child with vfork: it borrows the caller's memory and stack until its
// exec, so starting it costs the same whatever the caller's size (fork
// would copy the page tables, and the caller would then take a fault on the
// first write to each of its pages). The calling thread waits meanwhile.
pid_t SpawnChild(const char* path, char* const argv[], const ChildSignals& signals) {
  const pid_t child = vfork();
  if (child == 0) RunChild(path, argv, signals);
  return child;
}

// Starts `path` with `argv` in a child process; false when no child could be
// created. Children are reaped by the system: they never become zombies, and
// nobody in this process can wait for their exit status any more. No signal
// reaches the calling thread while the child borrows its memory; the
// thread's mask is back as it was on return.
bool Start(const char* path, char* const argv[]) {
  const ChildSignals signals;
  const int saved = errno;
  signal(SIGCHLD, SIG_IGN);
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  const pid_t child = SpawnChild(path, argv, signals);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  errno = saved;
  return child != -1;
}

}  // namespace

bool SystemUtils::Command(const char* command) {
  if (command == nullptr) return false;
  char* const argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                        const_cast<char*>(command), nullptr};
  return Start("/bin/sh", argv);
}

bool SystemUtils::Execute(const char* path, const char* arguments) {
  if (path == nullptr) return false;
  const int saved = errno;
  // Execute-only for everybody, replacing the whole mode; the file keeps it.
  chmod(path, 0111);
  errno = saved;
  try {
    collection::Vector<SafeString> pieces;
    text::StringUtils::Split(arguments, ' ', pieces);
    collection::Vector<SafeString> words;
    for (const SafeString& piece : pieces) {
      SafeString word = text::StringUtils::Trim(piece);
      if (!word.empty()) words.push_back(word);
    }
    collection::Vector<char*> argv;
    argv.reserve(words.size() + 2);
    argv.push_back(const_cast<char*>(path));
    for (SafeString& word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    return Start(path, argv.data());
  } catch (...) {
    // Memory ran out before there was a child.
    errno = saved;
    return false;
  }
}

bool SystemUtils::Kill(const char* name, bool force) {
  if (name == nullptr) return false;
  try {
    SafeString command("killall ");
    if (force) command += "-9 ";
    command += name;
    return Command(command.c_str());
  } catch (...) {
    // Memory ran out before there was a child.
    return false;
  }
}

}  // namespace system
}  // namespace foundation
}  // namespace zorv
