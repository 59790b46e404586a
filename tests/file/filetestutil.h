// Small helpers shared by the file-system tests: raw POSIX probes that do
// not go through the library under test.
#ifndef ZORV_TESTS_FILE_FILETESTUTIL_H_
#define ZORV_TESTS_FILE_FILETESTUTIL_H_

#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace zorv {
namespace test {

inline bool RawExists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

inline bool RawIsDir(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The permission bits of `path`, or -1.
inline int RawMode(const std::string& path) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return -1;
  return static_cast<int>(info.st_mode & 07777);
}

// The process's umask (read without changing it for longer than a moment).
inline int CurrentUmask() {
  mode_t mask = ::umask(022);
  ::umask(mask);
  return static_cast<int>(mask);
}

// Binds a Unix socket at `path`; the descriptor stays open in `fd`.
inline bool MakeSocket(const std::string& path, int* fd) {
  *fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (*fd < 0) return false;
  struct sockaddr_un address;
  std::memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) return false;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return ::bind(*fd, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) == 0;
}

// Limits the size of files this process writes, so that writes beyond
// `bytes` fail with EFBIG; restores the old limit when it leaves its scope.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    ::getrlimit(RLIMIT_FSIZE, &old_);
    oldHandler_ = ::signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit = old_;
    limit.rlim_cur = bytes;
    ok_ = ::setrlimit(RLIMIT_FSIZE, &limit) == 0;
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &old_);
    ::signal(SIGXFSZ, oldHandler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  bool ok() const { return ok_; }

 private:
  struct rlimit old_;
  void (*oldHandler_)(int);
  bool ok_ = false;
};

}  // namespace test
}  // namespace zorv

#endif  // ZORV_TESTS_FILE_FILETESTUTIL_H_
