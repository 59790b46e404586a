// Test hooks of the folder tests, placed in the test executable so that the
// library's calls reach them first:
// - openat: swaps a named entry for a link just before it is opened, the
//   race a tree walk has to survive, or closes a descriptor then, as another
//   thread of the program may, or fails as for a folder that may not be
//   searched (which root may);
// - fdopendir: fails a chosen call as the C library does when it has no
//   memory for the listing;
// - unlinkat: makes a folder inside a folder about to be removed, as another
//   program adding entries meanwhile, and counts the folder removals;
// - mkdirat: fails for a chosen name, as for a target the caller may not
//   write (which root may), and counts the folders asked for;
// - lseek: a seek to the end gives a chosen size, as a device may claim
//   more than it holds, and a seek back to the start may fail;
// - copy_file_range: empties the source first, as a file truncated while
//   the kernel copies it;
// - read: fails a chosen call, as a disk that goes bad midway through a
//   file does;
// - MemoryMonitor::Alloc: once fault injection has failed one allocation,
//   fails every later one too, so that clean-up which needs memory shows;
// - write, fsync and renameat: logged in order while a log is set, so that
//   a test sees the order of a save's system calls; close is logged when
//   its descriptor was not open (closed twice);
// - fsync: fails once for a folder, as on a file system that cannot sync
//   folders or has lost a write;
// - stat and lstat: fail for a chosen path, as when the entry goes away
//   between two calls or "/" cannot be read.
// This file includes no <fcntl.h>, whose declarations of openat may be
// renamed (64-bit offsets) or wrapped (fortified builds).
#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "foundation/debug/memorymonitor.h"

namespace {

// The open flags that carry a mode argument (O_CREAT, O_TMPFILE), the same
// on every Linux target this library builds for.
constexpr int kOpenWithMode = 0100 | 020000000;
// O_LARGEFILE on 32-bit targets, where the C library adds it itself.
#if defined(__arm__)
constexpr int kLargeFile = 0400000;
#elif defined(__i386__)
constexpr int kLargeFile = 0100000;
#else
constexpr int kLargeFile = 0;
#endif

char g_openName[256];
int g_openSkip = 0;
char g_swapTarget[4096];
int g_closeFd = -1;

char g_statName[4096];
int g_statSkip = 0;

char* g_log = nullptr;
int g_logRoom = 0;
int g_logUsed = 0;

void LogCall(char c) {
  if (g_log == nullptr || g_logUsed + 1 >= g_logRoom) return;
  g_log[g_logUsed++] = c;
  g_log[g_logUsed] = '\0';
}

int g_listingSkip = -1;
char g_makeFails[256];
char g_fillName[256];
int g_copyCalls = -1;
int g_fillTimes = 0;
long long g_seekEnd = -1;
bool g_seekStartFails = false;
int g_readSkip = -1;
int g_readError = 0;
int g_folderSyncError = 0;

std::atomic<bool> g_sticky{false};
std::atomic<bool> g_failing{false};

constexpr int kCurrentFolder = -100;  // AT_FDCWD on Linux
constexpr int kNoFollow = 0x100;      // AT_SYMLINK_NOFOLLOW on Linux

// True, with errno ENOENT, when `path` is the one armed by ZorvTestFailStat
// and its turn has come (which disarms it).
bool StatFails(const char* path) {
  if (g_statName[0] == '\0' || std::strcmp(path, g_statName) != 0 || g_statSkip-- != 0) {
    return false;
  }
  g_statName[0] = '\0';
  errno = ENOENT;
  return true;
}

}  // namespace

// These definitions replace the C library's and are called from the test
// through its own declarations: none has a previous declaration here.
#pragma GCC diagnostic ignored "-Wmissing-declarations"

extern "C" int openat(int folder, const char* path, int flags, ...) {
  unsigned int mode = 0;
  va_list args;
  va_start(args, flags);
  if ((flags & kOpenWithMode) != 0) mode = va_arg(args, unsigned int);
  va_end(args);
  if (g_openName[0] != '\0' && std::strcmp(path, g_openName) == 0 && g_openSkip-- == 0) {
    g_openName[0] = '\0';
    char moved[sizeof(g_openName) + 8];
    std::snprintf(moved, sizeof(moved), "%s.moved", path);
    if (std::strcmp(g_swapTarget, "!") == 0) {
      errno = EACCES;
      return -1;
    }
    if (g_swapTarget[0] == '\0') {
      ::close(g_closeFd);
    } else if (std::strcmp(g_swapTarget, "-") == 0) {
      (void)::unlinkat(folder, path, 0);
    } else if (::renameat(folder, path, folder, moved) != 0 ||
               ::symlinkat(g_swapTarget, folder, path) != 0) {
      std::fprintf(stderr, "swap of %s failed\n", path);
    }
  }
  return static_cast<int>(::syscall(SYS_openat, folder, path, flags | kLargeFile, mode));
}

// The same function under its 64-bit-offset name.
extern "C" int openat64(int folder, const char* path, int flags, ...)
    __attribute__((alias("openat")));

// Before the `skip`+1-th opening of an entry named `name` (by openat, in any
// folder): with a `target`, the entry is renamed to name + ".moved" and a
// link to `target` is put in its place; with "-" it is removed; with "!"
// the opening fails with EACCES; with an empty one, `fd` is closed.
// Once per arming; an empty name disarms.
extern "C" void ZorvTestBeforeOpen(const char* name, int skip, const char* target, int fd) {
  std::snprintf(g_swapTarget, sizeof(g_swapTarget), "%s", target);
  g_closeFd = fd;
  g_openSkip = skip;
  std::snprintf(g_openName, sizeof(g_openName), "%s", name);
}

// The `skip`+1-th fdopendir from now fails with ENOMEM; -1 disarms.
extern "C" void ZorvTestFailListing(int skip) { g_listingSkip = skip; }

// mkdirat of an entry named `name` fails with EACCES; an empty name disarms.
extern "C" void ZorvTestFailMakeFolder(const char* name) {
  std::snprintf(g_makeFails, sizeof(g_makeFails), "%s", name);
}

int g_foldersMade = 0;
int g_folderRemovals = 0;

// How many folders mkdirat was asked to make, or unlinkat to remove.
extern "C" int ZorvTestFolderCalls(bool removals) {
  return removals ? g_folderRemovals : g_foldersMade;
}

extern "C" int mkdirat(int folder, const char* path, mode_t mode) {
  ++g_foldersMade;
  if (g_makeFails[0] != '\0' && std::strcmp(path, g_makeFails) == 0) {
    errno = EACCES;
    return -1;
  }
  return static_cast<int>(::syscall(SYS_mkdirat, folder, path, mode));
}

// Before each of the next `times` removals of a folder named `name`
// (unlinkat with AT_REMOVEDIR), a folder "late<n>" (n counting down) is
// made inside it, as another program adding entries meanwhile; 0 disarms.
extern "C" void ZorvTestFillBeforeRemoval(const char* name, int times) {
  std::snprintf(g_fillName, sizeof(g_fillName), "%s", name);
  g_fillTimes = times;
}

extern "C" int unlinkat(int folder, const char* path, int flags) {
  constexpr int kRemoveFolder = 0x200;  // AT_REMOVEDIR on Linux
  g_folderRemovals += (flags & kRemoveFolder) != 0;
  if ((flags & kRemoveFolder) != 0 && g_fillTimes > 0 && std::strcmp(path, g_fillName) == 0) {
    char late[sizeof(g_fillName) + 16];
    std::snprintf(late, sizeof(late), "%s/late%d", path, --g_fillTimes);
    (void)::syscall(SYS_mkdirat, folder, late, 0700);
  }
  return static_cast<int>(::syscall(SYS_unlinkat, folder, path, flags));
}

// While armed, the source of copy_file_range is emptied before the first
// call, as a file that another program truncates while the kernel copies
// it; the calls are counted, and from the 101st on they fail with EIO.
extern "C" void ZorvTestEmptyWhileCopied(bool on) { g_copyCalls = on ? 0 : -1; }
extern "C" int ZorvTestCopyCalls() { return g_copyCalls; }

extern "C" ssize_t copy_file_range(int in, off64_t* inAt, int out, off64_t* outAt, size_t length,
                                   unsigned int flags) {
  if (g_copyCalls >= 0 && g_copyCalls++ == 0) {
    char source[64];  // the descriptor is open for reading only
    std::snprintf(source, sizeof(source), "/proc/self/fd/%d", in);
    (void)::truncate(source, 0);
  }
  if (g_copyCalls > 100) {
    errno = EIO;
    return -1;
  }
  return static_cast<ssize_t>(::syscall(SYS_copy_file_range, in, inAt, out, outAt, length, flags));
}

// The next seek to the end (offset 0, SEEK_END) moves to the end as usual
// but reports `size`; -1 disarms. With `startFails`, the next seek back to
// the start (offset 0, SEEK_SET) then fails with ESPIPE.
extern "C" void ZorvTestSeekEnd(long long size, bool startFails) {
  g_seekEnd = size;
  g_seekStartFails = startFails;
}

// Declared by <unistd.h> under the name that takes a 64-bit offset, which is
// the one the library calls on every target.
extern "C" off_t lseek(int fd, off_t offset, int whence) {
  using SeekFunction = long long (*)(int, long long, int);
  static const SeekFunction real = reinterpret_cast<SeekFunction>(::dlsym(RTLD_NEXT, "lseek64"));
  if (offset == 0 && whence == SEEK_SET && g_seekStartFails) {
    g_seekStartFails = false;
    errno = ESPIPE;
    return -1;
  }
  const long long at = real(fd, offset, whence);
  if (at >= 0 && offset == 0 && whence == SEEK_END && g_seekEnd >= 0) {
    const long long claimed = g_seekEnd;
    g_seekEnd = -1;
    return static_cast<off_t>(claimed);
  }
  return static_cast<off_t>(at);
}

extern "C" DIR* fdopendir(int fd) {
  using FdOpenDirFunction = DIR* (*)(int);
  static const FdOpenDirFunction real =
      reinterpret_cast<FdOpenDirFunction>(::dlsym(RTLD_NEXT, "fdopendir"));
  if (g_listingSkip >= 0 && g_listingSkip-- == 0) {
    errno = ENOMEM;
    return nullptr;
  }
  return real(fd);
}

// With `on`, the first allocation that fault injection fails makes every
// later one fail as well, until switched off.
extern "C" void ZorvTestStickyAllocFailure(bool on) {
  g_failing.store(false);
  g_sticky.store(on);
}

// While `log` is not null, each write appends 'w', each fsync 'f' (of a
// file) or 'd' (of a folder), each renameat 'r' and each close that finds
// no open descriptor 'b' to it, kept
// NUL-terminated within `room` bytes.
extern "C" void ZorvTestLogCalls(char* log, int room) {
  g_logUsed = 0;
  g_logRoom = room;
  if (log != nullptr && room > 0) log[0] = '\0';
  g_log = log;
}

// The `skip`+1-th read from now fails with `error`; a negative skip disarms.
extern "C" void ZorvTestFailRead(int skip, int error) {
  g_readError = error;
  g_readSkip = skip;
}

extern "C" ssize_t read(int fd, void* data, size_t count) {
  if (g_readSkip >= 0 && g_readSkip-- == 0) {
    errno = g_readError;
    return -1;
  }
  return ::syscall(SYS_read, fd, data, count);
}

extern "C" ssize_t write(int fd, const void* data, size_t count) {
  LogCall('w');
  return ::syscall(SYS_write, fd, data, count);
}

// The `skip`+1-th stat or lstat of `path` from now (both counted) fails
// with ENOENT; an empty path disarms.
extern "C" void ZorvTestFailStat(const char* path, int skip) {
  g_statSkip = skip;
  std::snprintf(g_statName, sizeof(g_statName), "%s", path);
}

// Declared by <sys/stat.h> under the name that takes 64-bit sizes, which is
// the one the library calls on every target.
extern "C" int stat(const char* path, struct stat* info) {
  return StatFails(path) ? -1 : ::fstatat(kCurrentFolder, path, info, 0);
}

// The same for lstat (under its 64-bit name too, as stat).
extern "C" int lstat(const char* path, struct stat* info) {
  return StatFails(path) ? -1 : ::fstatat(kCurrentFolder, path, info, kNoFollow);
}

// The next fsync of a folder fails with `error`; 0 disarms.
extern "C" void ZorvTestFailFolderSync(int error) { g_folderSyncError = error; }

extern "C" int fsync(int fd) {
  // Looked at only when asked: the descriptor may come from the raw openat
  // above, which ThreadSanitizer does not see, and another thread may have
  // used its number before.
  struct stat info;
  const bool watched = g_log != nullptr || g_folderSyncError != 0;
  const bool folder = watched && ::fstat(fd, &info) == 0 && S_ISDIR(info.st_mode);
  if (g_log != nullptr) LogCall(folder ? 'd' : 'f');
  if (folder && g_folderSyncError != 0) {
    errno = g_folderSyncError;
    g_folderSyncError = 0;
    return -1;
  }
  return static_cast<int>(::syscall(SYS_fsync, fd));
}

extern "C" int close(int fd) {
  const int result = static_cast<int>(::syscall(SYS_close, fd));
  if (result != 0 && errno == EBADF) LogCall('b');
  return result;
}

extern "C" int renameat(int fromFolder, const char* from, int toFolder, const char* to) {
  using RenameAtFunction = int (*)(int, const char*, int, const char*);
  static const RenameAtFunction real =
      reinterpret_cast<RenameAtFunction>(::dlsym(RTLD_NEXT, "renameat"));
  LogCall('r');
  return real(fromFolder, from, toFolder, to);
}

namespace zorv {
namespace foundation {
namespace debug {

unsigned char* MemoryMonitor::Alloc(unsigned int size) {
  using AllocFunction = unsigned char* (*)(unsigned int);
  static const AllocFunction real = reinterpret_cast<AllocFunction>(
      ::dlsym(RTLD_NEXT, "_ZN4zorv10foundation5debug13MemoryMonitor5AllocEj"));
  if (g_failing.load()) return nullptr;
  unsigned char* block = real(size);
  if (block == nullptr && g_sticky.load()) g_failing.store(true);
  return block;
}

}  // namespace debug
}  // namespace foundation
}  // namespace zorv
