#include "support/tempdir.h"

#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <stdexcept>

namespace zorv {
namespace test {
namespace {

// Removes one entry; a failure does not stop the walk.
int RemoveEntry(const char* path, const struct stat*, int, FTW*) { return ::remove(path), 0; }

}  // namespace

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  path_ = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/zorv-test-XXXXXX";
  if (mkdtemp(&path_[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir() { nftw(path_.c_str(), &RemoveEntry, 16, FTW_DEPTH | FTW_PHYS); }

bool WriteRawFile(const std::string& path, const std::string& content) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return false;
  size_t done = 0;
  ssize_t n = 1;
  while (n > 0 && done < content.size()) {
    n = ::write(fd, content.data() + done, content.size() - done);
    if (n > 0) done += static_cast<size_t>(n);
  }
  return ::close(fd) == 0 && done == content.size();
}

std::string ReadRawFile(const std::string& path, bool* ok) {
  std::string content;
  const int fd = ::open(path.c_str(), O_RDONLY);
  char buffer[65536];
  ssize_t n = -1;  // stays so when the file cannot be opened
  while (fd >= 0 && (n = ::read(fd, buffer, sizeof buffer)) > 0) {
    content.append(buffer, static_cast<size_t>(n));
  }
  if (fd >= 0) ::close(fd);
  if (ok != nullptr) *ok = n == 0;
  return content;
}

}  // namespace test
}  // namespace zorv
