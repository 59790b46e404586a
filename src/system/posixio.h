// The library's POSIX descriptor calls: a descriptor that closes itself, and
// open, read, write and sync calls that retry when a signal interrupts them
// and, for reads and writes of a whole range, when the system transfers
// fewer bytes than asked. Every descriptor is opened close-on-exec. Private
// to the library; errno is left as the calls set it.
#ifndef ZORV_SRC_SYSTEM_POSIXIO_H_
#define ZORV_SRC_SYSTEM_POSIXIO_H_

#include <errno.h>
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <utility>

namespace zorv {
namespace foundation {
namespace system {
namespace posixio {

// Closes a descriptor when it leaves its scope.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() { close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  void swap(Descriptor& other) { std::swap(fd_, other.fd_); }
  // Gives the descriptor up without closing it.
  int release() { return std::exchange(fd_, -1); }
  // Closes now; true when the descriptor was open and closing succeeded.
  // close is not retried: after EINTR the descriptor is gone already.
  bool close() {
    if (fd_ < 0) return false;
    const int result = ::close(fd_);
    fd_ = -1;
    return result == 0;
  }

 private:
  int fd_;
};

// open(2) of `path` relative to the folder descriptor `folder` (AT_FDCWD:
// the current folder), close-on-exec. -1 on failure.
inline int OpenAt(int folder, const char* path, int flags, mode_t mode = 0) {
  int fd;
  do {
    fd = ::openat(folder, path, flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

inline int Open(const char* path, int flags, mode_t mode = 0) {
  return OpenAt(AT_FDCWD, path, flags, mode);
}

// One read of up to `count` bytes: the number read, 0 at the end, -1 on an
// error.
inline ssize_t ReadSome(int fd, void* data, size_t count) {
  ssize_t got;
  do {
    got = ::read(fd, data, count);
  } while (got < 0 && errno == EINTR);
  return got;
}

// The most one read asks for, so that a count never exceeds what ssize_t
// holds on a 32-bit target.
constexpr unsigned long long kMostPerRead = 1ull << 30;

// Reads until `count` bytes are in or the file ends: the number read, or -1
// on an error.
inline long long ReadFully(int fd, void* data, unsigned long long count) {
  unsigned char* const bytes = static_cast<unsigned char*>(data);
  unsigned long long done = 0;
  while (done < count) {
    unsigned long long want = count - done;
    if (want > kMostPerRead) want = kMostPerRead;
    const ssize_t got = ReadSome(fd, bytes + done, static_cast<size_t>(want));
    if (got < 0) return -1;
    if (got == 0) break;
    done += static_cast<unsigned long long>(got);
  }
  return static_cast<long long>(done);
}

// Writes all `count` bytes; false on an error or when nothing more is taken.
inline bool WriteFully(int fd, const void* data, size_t count) {
  const char* bytes = static_cast<const char*>(data);
  while (count > 0) {
    const ssize_t put = ::write(fd, bytes, count);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    bytes += put;
    count -= static_cast<size_t>(put);
  }
  return true;
}

// fsync(2), retried when interrupted.
inline bool Sync(int fd) {
  int result;
  do {
    result = ::fsync(fd);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

}  // namespace posixio
}  // namespace system
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_SRC_SYSTEM_POSIXIO_H_
