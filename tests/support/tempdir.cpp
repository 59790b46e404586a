#include "support/tempdir.h"

#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <stdexcept>
#include <vector>

namespace zorv {
namespace test {
namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
  ::remove(path);
  return 0;
}

}  // namespace

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") +
                        "/zorv-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = buffer.data();
}

TempDir::~TempDir() { nftw(path_.c_str(), &RemoveEntry, 16, FTW_DEPTH | FTW_PHYS); }

bool WriteRawFile(const std::string& path, const std::string& content) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < content.size()) {
    const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
    if (n <= 0) {
      ::close(fd);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return ::close(fd) == 0;
}

std::string ReadRawFile(const std::string& path, bool* ok) {
  std::string content;
  const int fd = ::open(path.c_str(), O_RDONLY);
  if (fd < 0) {
    if (ok != nullptr) *ok = false;
    return content;
  }
  char buffer[65536];
  ssize_t n;
  while ((n = ::read(fd, buffer, sizeof buffer)) > 0) content.append(buffer, static_cast<size_t>(n));
  ::close(fd);
  if (ok != nullptr) *ok = n == 0;
  return content;
}

}  // namespace test
}  // namespace zorv
