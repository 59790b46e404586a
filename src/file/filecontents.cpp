// FileUtils: kind tests, sizes, whole-file reading and writing, removal,
// renaming and copying of single files.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "file/fileinternal.h"
#include "foundation/file/fileutils.h"
#include "foundation/memory/buffer.h"

namespace zorv {
namespace foundation {
namespace file {

namespace {

constexpr mode_t kDirectoryBit = 040000;
constexpr size_t kCopyChunk = 4096;
constexpr size_t kStreamBuffer = 64 * 1024;

// Closes a descriptor when it leaves its scope.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() { close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Closes now; true when the descriptor was open and closing succeeded.
  bool close() {
    if (fd_ < 0) return false;
    int result = ::close(fd_);
    fd_ = -1;
    return result == 0;
  }

 private:
  int fd_;
};

int OpenRetry(const char* path, int flags, mode_t mode = 0) {
  int fd;
  do {
    fd = ::open(path, flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// Reads up to `count` bytes, retrying on interruption; -1 on error.
ssize_t ReadSome(int fd, void* data, size_t count) {
  ssize_t got;
  do {
    got = ::read(fd, data, count);
  } while (got < 0 && errno == EINTR);
  return got;
}

// Reads exactly `count` bytes unless the file ends first; -1 on error,
// otherwise the number of bytes read.
long long ReadFully(int fd, unsigned char* data, unsigned long long count) {
  unsigned long long done = 0;
  while (done < count) {
    unsigned long long want = count - done;
    if (want > (1u << 30)) want = 1u << 30;
    ssize_t got = ReadSome(fd, data + done, static_cast<size_t>(want));
    if (got < 0) return -1;
    if (got == 0) break;
    done += static_cast<unsigned long long>(got);
  }
  return static_cast<long long>(done);
}

bool WriteFully(int fd, const char* data, size_t count) {
  size_t done = 0;
  while (done < count) {
    ssize_t put = ::write(fd, data + done, count - done);
    if (put < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (put == 0) return false;
    done += static_cast<size_t>(put);
  }
  return true;
}

// Copies `size` bytes from `in` to `out` in chunks of at most 4096 bytes,
// counting the remaining bytes down. Both sides are buffered (like file
// streams, with larger buffers), so that a chunk is a copy between buffers
// and the system is called once per buffer rather than once per chunk.
// False on a read or write error, or when the input ends early (a file that
// shrank while being copied).
bool CopyChunks(int in, int out, unsigned long long size) {
  collection::Vector<char> input(kStreamBuffer);
  collection::Vector<char> output(kStreamBuffer);
  size_t inBegin = 0;
  size_t inEnd = 0;
  size_t outEnd = 0;
  char chunk[kCopyChunk];
  unsigned long long remaining = size;
  while (remaining > 0) {
    if (inBegin == inEnd) {
      ssize_t got = ReadSome(in, input.data(), input.size());
      if (got <= 0) return false;
      inBegin = 0;
      inEnd = static_cast<size_t>(got);
    }
    size_t count = inEnd - inBegin;
    if (count > kCopyChunk) count = kCopyChunk;
    if (count > remaining) count = static_cast<size_t>(remaining);
    std::memcpy(chunk, input.data() + inBegin, count);
    inBegin += count;
    if (outEnd + count > output.size()) {
      if (!WriteFully(out, output.data(), outEnd)) return false;
      outEnd = 0;
    }
    std::memcpy(output.data() + outEnd, chunk, count);
    outEnd += count;
    remaining -= count;
  }
  return WriteFully(out, output.data(), outEnd);
}

// Opens `path` for reading and places the descriptor behind a byte-order
// mark: FF FE or FE FF (two bytes) or EF BB BF (three). Then reads all the
// remaining bytes into `out`. False when opening or reading fails.
bool ReadAfterMark(const SafeString& path, SafeString& out) {
  Descriptor fd(OpenRetry(path.c_str(), O_RDONLY));
  if (!fd.valid()) return false;
  struct stat info;
  size_t hint = 0;
  if (::fstat(fd.get(), &info) == 0) {
    if (S_ISDIR(info.st_mode)) return false;
    if (S_ISREG(info.st_mode) && info.st_size > 0 &&
        static_cast<unsigned long long>(info.st_size) < 0x7FFFFFF0ull) {
      hint = static_cast<size_t>(info.st_size);
    }
  }
  SafeString bytes;
  bytes.resize(hint > 0 ? hint : 4096);
  size_t used = 0;
  for (;;) {
    if (used == bytes.size()) bytes.resize(bytes.size() * 2);
    ssize_t got = ReadSome(fd.get(), &bytes[used], bytes.size() - used);
    if (got < 0) return false;
    if (got == 0) break;
    used += static_cast<size_t>(got);
  }
  size_t skip = 0;
  const unsigned char* b = reinterpret_cast<const unsigned char*>(bytes.data());
  if (used >= 2 && ((b[0] == 0xFF && b[1] == 0xFE) || (b[0] == 0xFE && b[1] == 0xFF))) {
    skip = 2;
  } else if (used >= 3 && b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF) {
    skip = 3;
  }
  bytes.resize(used);
  if (skip > 0) bytes.erase(0, skip);
  out.swap(bytes);
  return true;
}

// The shared procedure of WriteText and WriteBinary.
bool WriteWhole(const SafeString& path, const char* data, size_t size) {
  if (path.empty() || FileUtils::IsFolder(path)) return false;
  // The parents are made for the normalised path, and that path is opened.
  detail::ParentFolders parents;
  parents.plan(path);
  if (!parents.make()) return false;
  bool written = false;
  {
    Descriptor fd(OpenRetry(parents.path().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666));
    if (fd.valid()) {
      written = WriteFully(fd.get(), data, size);
      fd.close();
    }
  }
  if (!written) parents.rollBack();
  return written;
}

// True when both paths name one file (same device and inode).
bool SameFile(const SafeString& a, const SafeString& b) {
  struct stat first;
  struct stat second;
  if (::stat(a.c_str(), &first) != 0 || ::stat(b.c_str(), &second) != 0) return false;
  return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// The common checks of RenameFile and RenameFolder, then the rename.
bool Rename(const SafeString& from, const SafeString& to, bool folder) {
  if (from.empty() || to.empty() || from == to) return false;
  if (folder ? !FileUtils::IsFolder(from) : !FileUtils::IsFile(from)) return false;
  SafeString parent = FileUtils::GetFolderPath(to);
  if (!parent.empty() && !FileUtils::IsFolder(parent)) return false;
  if (FileUtils::IsExist(to)) {
    bool removed = folder ? FileUtils::RemoveFolder(to) : FileUtils::RemoveFile(to);
    if (!removed) return false;
  }
  return ::rename(from.c_str(), to.c_str()) == 0;
}

}  // namespace

bool FileUtils::IsExist(const SafeString& path) {
  if (path.empty()) return false;
  return ::access(path.c_str(), F_OK) == 0;
}

bool FileUtils::IsFolder(const SafeString& path) {
  if (path.empty()) return false;
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && (info.st_mode & kDirectoryBit) != 0;
}

bool FileUtils::IsFile(const SafeString& path) {
  if (path.empty()) return false;
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && (info.st_mode & kDirectoryBit) == 0;
}

unsigned long long FileUtils::GetFileSize(const SafeString& path) {
  if (!IsFile(path)) return 0;
  // Non-blocking, so that a FIFO without a writer cannot hold the call.
  Descriptor fd(OpenRetry(path.c_str(), O_RDONLY | O_NONBLOCK));
  if (!fd.valid()) return 0;
  off_t end = ::lseek(fd.get(), 0, SEEK_END);
  if (end < 0) return 0;
  return static_cast<unsigned long long>(end);
}

bool FileUtils::ReadText(const SafeString& path, SafeString& text) {
  if (path.empty()) return false;
  return ReadAfterMark(path, text);
}

bool FileUtils::ReadText(const SafeString& path, collection::Vector<SafeString>& lines) {
  lines.clear();
  if (path.empty()) return false;
  SafeString bytes;
  if (!ReadAfterMark(path, bytes)) return false;
  size_t start = 0;
  const size_t length = bytes.size();
  while (start < length) {
    const void* found = std::memchr(bytes.data() + start, '\n', length - start);
    size_t end = found == nullptr
                     ? length
                     : static_cast<size_t>(static_cast<const char*>(found) - bytes.data());
    lines.emplace_back(bytes.data() + start, end - start);
    start = end + 1;
  }
  return true;
}

bool FileUtils::ReadBinary(const SafeString& path, memory::IBuffer* buffer) {
  if (path.empty()) return false;
  Descriptor fd(OpenRetry(path.c_str(), O_RDONLY | O_NONBLOCK));
  if (!fd.valid()) return false;
  struct stat info;
  if (::fstat(fd.get(), &info) != 0 || S_ISDIR(info.st_mode)) return false;
  off_t end = ::lseek(fd.get(), 0, SEEK_END);
  if (end < 0 || ::lseek(fd.get(), 0, SEEK_SET) != 0) return false;
  const unsigned long long size = static_cast<unsigned long long>(end);
  const unsigned long long at = buffer->tellWrite();
  buffer->setLength(at + size);
  long long got = ReadFully(fd.get(), buffer->data() + at, size);
  buffer->seekWrite(buffer->length());
  return got >= 0 && static_cast<unsigned long long>(got) == size;
}

bool FileUtils::WriteText(const SafeString& path, const SafeString& text) {
  return WriteWhole(path, text.data(), text.size());
}

bool FileUtils::WriteBinary(const SafeString& path, const unsigned char* data,
                            unsigned int size) {
  if (data == nullptr && size != 0) return false;
  return WriteWhole(path, reinterpret_cast<const char*>(data), size);
}

bool FileUtils::RemoveFile(const SafeString& path) {
  if (!IsFile(path)) return false;
  return ::remove(path.c_str()) == 0;
}

bool FileUtils::RenameFile(const SafeString& from, const SafeString& to) {
  return Rename(from, to, false);
}

bool FileUtils::RenameFolder(const SafeString& from, const SafeString& to) {
  return Rename(from, to, true);
}

bool FileUtils::CopyFile(const SafeString& from, const SafeString& to) {
  if (from.empty() || to.empty() || from == to) return false;
  if (!IsFile(from)) return false;
  SafeString parent = GetFolderPath(to);
  if (!parent.empty() && !IsFolder(parent)) return false;
  if (IsFolder(to)) return false;
  // Two spellings of one file (or two hard links) would truncate the source.
  if (SameFile(from, to)) return false;

  Descriptor in(OpenRetry(from.c_str(), O_RDONLY | O_NONBLOCK));
  if (!in.valid()) return false;
  Descriptor out(OpenRetry(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666));
  if (!out.valid()) return false;

  bool ok = false;
  off_t end = ::lseek(in.get(), 0, SEEK_END);
  if (end >= 0 && ::lseek(in.get(), 0, SEEK_SET) == 0) {
    try {
      ok = CopyChunks(in.get(), out.get(), static_cast<unsigned long long>(end));
    } catch (...) {
      // No memory for the buffers: no partial copy stays behind.
      in.close();
      out.close();
      (void)RemoveFile(to);
      throw;
    }
  }
  in.close();
  if (!out.close()) ok = false;
  if (!ok) (void)RemoveFile(to);
  return ok;
}

}  // namespace file
}  // namespace foundation
}  // namespace zorv
