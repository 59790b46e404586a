// FileUtils: kind tests, sizes, whole-file reading and writing, removal,
// renaming and copying of single files.
#include <fcntl.h>
#include <limits.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <utility>

#include "file/fileinternal.h"
#include "file/readroom.h"
#include "foundation/debug/allocator.h"
#include "foundation/file/fileutils.h"
#include "foundation/memory/buffer.h"

namespace zorv {
namespace foundation {
namespace file {

namespace {

using detail::Descriptor;

constexpr mode_t kDirectoryBit = 040000;
constexpr size_t kCopyChunk = 4096;
constexpr size_t kStreamBuffer = 64 * 1024;
// The read past a file's measured size that finds out whether more follows.
constexpr size_t kProbe = 4096;

using system::posixio::kMostPerRead;
using system::posixio::Open;
using system::posixio::OpenAt;
using system::posixio::ReadFully;
using system::posixio::ReadSome;
using system::posixio::WriteFully;

// Reads `fd` to its end into the room that `store` keeps, behind the `used`
// bytes already there. The room starts at the size the file said it has;
// once that is full, a small read past it finds out whether more follows (a
// file under /proc says 0 bytes, a file that grows says too few) before the
// room grows, so that a file that told its size right is read into exactly
// that room. `store` offers room(), at(offset) and grow(room), which is
// false when the room was refused.
// Returns false on a read error, a refused room, or when the file goes on
// beyond `limit` bytes; `used` is the number of bytes in the room either way.
template <class Store>
bool ReadToEnd(int fd, Store& store, unsigned long long limit, unsigned long long& used) {
  for (;;) {
    const unsigned long long room = store.room();
    if (used < room) {
      unsigned long long want = room - used;
      if (want > kMostPerRead) want = kMostPerRead;
      const ssize_t got = ReadSome(fd, store.at(used), static_cast<size_t>(want));
      if (got < 0) return false;
      if (got == 0) return true;
      used += static_cast<unsigned long long>(got);
      continue;
    }
    unsigned char probe[kProbe];
    const ssize_t got = ReadSome(fd, probe, sizeof probe);
    if (got < 0) return false;
    if (got == 0) return true;
    const unsigned long long more = static_cast<unsigned long long>(got);
    const unsigned long long grown = detail::GrownRoom(used, more, limit);
    if (grown == 0 || !store.grow(grown)) return false;
    std::memcpy(store.at(used), probe, static_cast<size_t>(more));
    used += more;
  }
}

// The room of ReadToEnd in a string.
class StringStore {
 public:
  explicit StringStore(SafeString& bytes) : bytes_(bytes) {}
  unsigned long long room() const { return bytes_.size(); }
  unsigned char* at(unsigned long long offset) {
    return reinterpret_cast<unsigned char*>(&bytes_[0]) + offset;
  }
  bool grow(unsigned long long room) {
    bytes_.resize(static_cast<size_t>(room));
    return true;
  }

 private:
  SafeString& bytes_;
};

// The room of ReadToEnd in a buffer, behind its first `start` bytes. A
// buffer whose length does not become what was asked refuses the room.
class BufferStore {
 public:
  BufferStore(memory::IBuffer* buffer, unsigned long long start) : buffer_(buffer), start_(start) {}
  unsigned long long room() const { return buffer_->length() - start_; }
  unsigned char* at(unsigned long long offset) {
    return buffer_->data() + static_cast<size_t>(start_ + offset);
  }
  bool grow(unsigned long long room) { return SetLength(buffer_, start_ + room); }

  // Sets the length and tells whether the buffer really took it.
  static bool SetLength(memory::IBuffer* buffer, unsigned long long length) {
    buffer->setLength(length);
    return buffer->length() == length;
  }

 private:
  memory::IBuffer* buffer_;
  unsigned long long start_;
};

// Room for one side of a copy, from the accounted heap: at least a chunk,
// at most kStreamBuffer bytes, and no more than `expected` asks for, so
// that a small file's copy takes small blocks. Not cleared, since every
// byte is written before it is read.
class CopyBuffer {
 public:
  explicit CopyBuffer(unsigned long long expected)
      : size_(expected < kCopyChunk      ? kCopyChunk
              : expected < kStreamBuffer ? static_cast<size_t>(expected)
                                         : kStreamBuffer),
        data_(debug::Allocator<char>().allocate(size_)) {}
  ~CopyBuffer() { debug::Allocator<char>().deallocate(data_, size_); }
  CopyBuffer(const CopyBuffer&) = delete;
  CopyBuffer& operator=(const CopyBuffer&) = delete;
  char* data() { return data_; }
  size_t size() const { return size_; }

 private:
  const size_t size_;
  char* const data_;
};

// Copies `in` to `out` in chunks of at most 4096 bytes: to the end of `in`
// when `toEnd`, otherwise exactly `size` bytes, counted down. Both sides are
// buffered (like file streams, with larger buffers), so that a chunk is a
// copy between buffers and the system is called once per buffer rather than
// once per chunk; `expected` (what the file says it holds) sizes the
// buffers. False on a read or write error, or when `in` ends before `size`
// bytes without `toEnd`.
bool CopyChunks(int in, int out, bool toEnd, unsigned long long size,
                unsigned long long expected) {
  CopyBuffer input(expected);
  CopyBuffer output(expected);
  size_t inBegin = 0;
  size_t inEnd = 0;
  size_t outEnd = 0;
  char chunk[kCopyChunk];
  unsigned long long remaining = size;
  while (toEnd || remaining > 0) {
    if (inBegin == inEnd) {
      ssize_t got = ReadSome(in, input.data(), input.size());
      if (got < 0) return false;
      if (got == 0) {
        if (toEnd) break;
        return false;
      }
      inBegin = 0;
      inEnd = static_cast<size_t>(got);
    }
    size_t count = inEnd - inBegin;
    if (count > kCopyChunk) count = kCopyChunk;
    if (!toEnd && count > remaining) count = static_cast<size_t>(remaining);
    std::memcpy(chunk, input.data() + inBegin, count);
    inBegin += count;
    if (outEnd + count > output.size()) {
      if (!WriteFully(out, output.data(), outEnd)) return false;
      outEnd = 0;
    }
    std::memcpy(output.data() + outEnd, chunk, count);
    outEnd += count;
    if (!toEnd) remaining -= count;
  }
  return WriteFully(out, output.data(), outEnd);
}

// Lets the kernel copy the first `size` bytes of `in` to `out` where it can
// (both regular files, a kernel and file systems that support it), without
// the bytes passing through this process. Stops quietly at the first
// refusal, error or early end: whatever is left, CopyChunks copies from
// where this stopped, and meets any real error there again. Returns the
// number of bytes it left of `size`.
unsigned long long CopyInKernel(int in, int out, unsigned long long size) {
  while (size > 0) {
    const size_t want = static_cast<size_t>(std::min(size, kMostPerRead));
    const ssize_t copied = ::copy_file_range(in, nullptr, out, nullptr, want, 0);
    if (copied <= 0) break;
    size -= static_cast<unsigned long long>(copied);
  }
  return size;
}

// The first read of a text, into a buffer on the stack. A file that ends
// within it (most settings and every sysfs attribute) costs that read and
// the one that finds its end, and no question about its size.
constexpr size_t kFirstRead = 4096;

// Opens `path` for reading, reads it to its end and places the bytes behind
// any byte-order mark in `out`: FF FE or FE FF (two bytes) or EF BB BF
// (three). False, with `out` untouched, when opening or reading fails (a
// folder fails its first read) or the file holds more bytes than a string
// can (SafeString::max_size()).
bool ReadAfterMark(const SafeString& path, SafeString& out) {
  Descriptor fd(Open(path.c_str(), O_RDONLY));
  if (!fd.valid()) return false;
  unsigned char first[kFirstRead];
  const long long got = ReadFully(fd.get(), first, sizeof first);
  if (got < 0) return false;
  unsigned long long used = static_cast<unsigned long long>(got);
  SafeString bytes;
  if (used < sizeof first) {
    bytes.assign(reinterpret_cast<const char*>(first), static_cast<size_t>(used));
  } else {
    // More may follow: the room is what a regular file says it holds.
    struct stat info;
    unsigned long long said = used;
    if (::fstat(fd.get(), &info) == 0 && S_ISREG(info.st_mode) &&
        static_cast<unsigned long long>(info.st_size) > said) {
      said = static_cast<unsigned long long>(info.st_size);
    }
    const unsigned long long limit = bytes.max_size();
    if (said > limit) return false;
    bytes.resize(static_cast<size_t>(said));
    std::memcpy(&bytes[0], first, sizeof first);
    StringStore store(bytes);
    if (!ReadToEnd(fd.get(), store, limit, used)) return false;
    bytes.resize(static_cast<size_t>(used));
    // Room grown past the end goes back.
    if (bytes.capacity() > bytes.size()) bytes.shrink_to_fit();
  }
  size_t skip = 0;
  const unsigned char* b = reinterpret_cast<const unsigned char*>(bytes.data());
  if (used >= 2 && ((b[0] == 0xFF && b[1] == 0xFE) || (b[0] == 0xFE && b[1] == 0xFF))) {
    skip = 2;
  } else if (used >= 3 && b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF) {
    skip = 3;
  }
  if (skip > 0) bytes.erase(0, skip);
  out.swap(bytes);
  return true;
}

// The shared procedure of WriteText and WriteBinary.
bool WriteWhole(const SafeString& path, const char* data, size_t size) {
  if (path.empty() || FileUtils::IsFolder(path)) return false;
  // The parents are made for the normalised path, and that path is opened.
  // Where they all exist (the usual case) the file opens at once; they are
  // looked at and made only when the kernel finds one missing.
  detail::ParentFolders parents;
  parents.plan(path);
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
  Descriptor fd(Open(parents.path().c_str(), kFlags, 0666));
  if (!fd.valid()) {
    if (errno != ENOENT || !parents.make()) return false;
    Descriptor made(Open(parents.path().c_str(), kFlags, 0666));
    fd.swap(made);
  }
  const bool written = fd.valid() && WriteFully(fd.get(), data, size);
  fd.close();
  if (!written) parents.rollBack();
  return written;
}

// The most symbolic links followed to a save's target, as the system does.
constexpr int kMostLinks = 40;
// The longest name of an entry.
constexpr size_t kLongestName = 255;

// Follows `path` through symbolic links to the entry a save replaces: a
// relative link is read from the folder of the link. `path` itself when it
// is no link or does not exist. False after kMostLinks links or when a link
// cannot be read.
bool FinalTarget(const SafeString& path, SafeString& target) {
  SafeString current = path;
  for (int links = 0; links <= kMostLinks; ++links) {
    struct stat info;
    if (::lstat(current.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) {
      target.swap(current);
      return true;
    }
    char text[PATH_MAX];
    const ssize_t length = ::readlink(current.c_str(), text, sizeof text);
    if (length <= 0 || static_cast<size_t>(length) >= sizeof text) return false;
    SafeString next(text, static_cast<size_t>(length));
    const size_t slash = current.rfind('/');
    if (next[0] != '/' && slash != SafeString::npos) next.insert(0, current, 0, slash + 1);
    current.swap(next);
  }
  return false;
}

// Where a crash-safe save goes: the target's folder and name, and the
// temporary beside it. Everything is allocated before the first folder of
// the save is made, so that nothing allocates afterwards.
struct AtomicPlan {
  SafeString folder;
  SafeString name;
  SafeString temporary;
};

bool PlanAtomic(const SafeString& path, AtomicPlan& plan) {
  SafeString target;
  if (!FinalTarget(path, target)) return false;
  const size_t slash = target.rfind('/');
  if (slash == SafeString::npos) {
    plan.folder = ".";
    plan.name = target;
  } else {
    plan.folder = slash == 0 ? SafeString("/") : target.substr(0, slash);
    plan.name = target.substr(slash + 1);
  }
  if (!detail::IsEntryName(plan.name.c_str())) return false;
  // One name per target, cut to stay a valid name; targets that share the
  // cut name take turns on it like any two savers.
  plan.temporary = ".";
  plan.temporary.append(plan.name, 0, kLongestName - 5);
  plan.temporary += ".tmp";
  return true;
}

// Creates the temporary `name` in the folder `folder` and locks it against
// other savers of the same target. A temporary that is there already (left
// by a killed save, or another saver's) is locked, removed and made anew, so
// that a new file always gets a fresh mode. The lock must be on the file the
// name leads to once it is held: another saver may have renamed the locked
// file over the target meanwhile, which is then let go and the name opened
// anew.
bool LockTemporary(int folder, const char* name, Descriptor& out) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK;
  for (int attempt = 0; attempt < 1000; ++attempt) {
    Descriptor fd(OpenAt(folder, name, kFlags | O_EXCL, 0666));
    const bool created = fd.valid();
    if (!created && errno == EEXIST) {
      Descriptor existing(OpenAt(folder, name, kFlags & ~O_CREAT));
      // Gone between the two opens: made anew on the next round.
      if (!existing.valid() && errno == ENOENT) continue;
      fd.swap(existing);
    }
    if (!fd.valid()) return false;
    int locked;
    do {
      locked = ::flock(fd.get(), LOCK_EX);
    } while (locked != 0 && errno == EINTR);
    struct stat held;
    if (locked != 0 || ::fstat(fd.get(), &held) != 0 || !S_ISREG(held.st_mode)) {
      if (created) (void)::unlinkat(folder, name, 0);
      return false;
    }
    struct stat named;
    if (::fstatat(folder, name, &named, AT_SYMLINK_NOFOLLOW) != 0 || named.st_dev != held.st_dev ||
        named.st_ino != held.st_ino) {
      continue;
    }
    if (!created) {
      (void)::unlinkat(folder, name, 0);
      continue;
    }
    out.swap(fd);
    return true;
  }
  return false;
}

// Writes the temporary of `plan`, syncs it, renames it over the target and
// syncs the folder. On failure before the rename the temporary is removed
// and the target untouched. Allocates nothing.
bool SaveAtomic(const AtomicPlan& plan, const char* data, size_t size) {
  Descriptor folder(Open(plan.folder.c_str(), O_RDONLY | O_DIRECTORY));
  if (!folder.valid()) return false;
  struct stat old;
  const bool replacing = ::fstatat(folder.get(), plan.name.c_str(), &old, 0) == 0;
  if (replacing && !S_ISREG(old.st_mode)) return false;
  Descriptor temporary;
  if (!LockTemporary(folder.get(), plan.temporary.c_str(), temporary)) return false;
  bool ok = WriteFully(temporary.get(), data, size);
  if (ok && replacing) {
    // The owner where the system allows it (it clears set-id bits, which
    // the mode then restores), the permission bits always.
    (void)::fchown(temporary.get(), old.st_uid, old.st_gid);
    ok = ::fchmod(temporary.get(), old.st_mode & 07777) == 0;
  }
  ok = ok && system::posixio::Sync(temporary.get()) &&
       ::renameat(folder.get(), plan.temporary.c_str(), folder.get(), plan.name.c_str()) == 0;
  if (!ok) {
    (void)::unlinkat(folder.get(), plan.temporary.c_str(), 0);
    return false;
  }
  // A file system that cannot sync folders says EINVAL.
  return system::posixio::Sync(folder.get()) || errno == EINVAL;
}

// The shared procedure of WriteTextAtomic and WriteBinaryAtomic.
bool WriteWholeAtomic(const SafeString& path, const char* data, size_t size) {
  if (path.empty() || FileUtils::IsFolder(path)) return false;
  detail::ParentFolders parents;
  parents.plan(path);
  AtomicPlan plan;
  if (!PlanAtomic(parents.path(), plan)) return false;
  if (!parents.make()) return false;
  const bool written = SaveAtomic(plan, data, size);
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

// What a path names, told apart by device and inode.
struct Identity {
  dev_t device = 0;
  ino_t inode = 0;
  bool link = false;
  bool operator==(const Identity& other) const {
    return device == other.device && inode == other.inode;
  }
};

// The identity of the entry `path` names itself (lstat: a symbolic link is
// the link) or, with `follow`, of what it leads to. False when it is missing.
bool IdentityOf(const SafeString& path, bool follow, Identity& id) {
  struct stat info;
  if ((follow ? ::stat(path.c_str(), &info) : ::lstat(path.c_str(), &info)) != 0) return false;
  id.device = info.st_dev;
  id.inode = info.st_ino;
  id.link = S_ISLNK(info.st_mode);
  return true;
}

// `path` without trailing '/' (a folder spelled 'd/' is the entry 'd');
// a path of separators only stays as it is.
SafeString WithoutTrailingSlashes(const SafeString& path) {
  size_t end = path.size();
  while (end > 1 && path[end - 1] == '/') --end;
  return path.substr(0, end);
}

// The folder holding the entry `path` as the system sees it (only '/'
// separates): 'a/b' -> 'a', 'b' -> '.', '/b' -> '/'.
SafeString EntryFolder(const SafeString& path) {
  const SafeString entry = WithoutTrailingSlashes(path);
  const size_t slash = entry.rfind('/');
  if (slash == SafeString::npos) return SafeString(".");
  if (slash == 0) return SafeString("/");
  return entry.substr(0, slash);
}

// True when the folder `folder` (followed), or any folder above it up to the
// root, is `outer`; the walk goes through the real parents (".."), whatever
// the spelling. True as well when the walk cannot be made: the answer is
// used to refuse a removal.
bool AtOrBelow(const SafeString& folder, const Identity& outer) {
  return !detail::WalkUpFrom(AT_FDCWD, folder.c_str(), [&outer](const struct stat& here) {
    return here.st_dev != outer.device || here.st_ino != outer.inode;
  });
}

// The common checks of RenameFile and RenameFolder, then the rename. Before
// anything is removed, both paths are compared by device and inode, so that
// another spelling of the source (or, on a case-blind file system, another
// case) never has its own object removed under it.
bool Rename(const SafeString& fromPath, const SafeString& toPath, bool folder) {
  if (fromPath.empty() || toPath.empty() || fromPath == toPath) return false;
  if (folder ? !FileUtils::IsFolder(fromPath) : !FileUtils::IsFile(fromPath)) return false;
  SafeString parent = FileUtils::GetFolderPath(toPath);
  if (!parent.empty() && !FileUtils::IsFolder(parent)) return false;
  // A folder named with a trailing '/' is the entry without it, so that a
  // link named 'l/' is still handled as the link.
  const SafeString from = folder ? WithoutTrailingSlashes(fromPath) : fromPath;
  const SafeString to = folder ? WithoutTrailingSlashes(toPath) : toPath;
  Identity fromEntry;
  Identity toEntry;
  if (!IdentityOf(from, false, fromEntry)) return false;
  if (!IdentityOf(to, false, toEntry)) return ::rename(from.c_str(), to.c_str()) == 0;
  // The same entry spelled differently (or a hard link of the same file):
  // moving it onto itself leaves everything as it is.
  if (fromEntry == toEntry) return true;
  Identity fromTarget;
  Identity toTarget;
  if (!IdentityOf(from, true, fromTarget)) return false;
  const bool toLeads = IdentityOf(to, true, toTarget);
  // One leads to the other through a link: only a link at the target may go.
  if (toLeads && fromTarget == toTarget && !toEntry.link) return false;
  if (!folder) {
    // rename replaces an existing file (or link) at once; a folder stays.
    if (toLeads && FileUtils::IsFolder(to)) return false;
    return ::rename(from.c_str(), to.c_str()) == 0;
  }
  if (FileUtils::IsExist(to)) {
    if (!FileUtils::IsFolder(to)) return false;
    if (toEntry.link) {
      // A link to a folder goes as a link; nothing behind it is touched.
      if (::unlink(to.c_str()) != 0) return false;
    } else {
      // Neither folder may hold the other: removing the target would take
      // the source with it, or the move would fail after the removal.
      if (AtOrBelow(from, toTarget)) return false;
      if (fromEntry.link && AtOrBelow(EntryFolder(from), toTarget)) return false;
      if (AtOrBelow(to, fromTarget)) return false;
      if (!FileUtils::RemoveFolder(to)) return false;
    }
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

namespace {

// IsFile, keeping the status that tells it.
bool StatOfFile(const SafeString& path, struct stat& info) {
  return !path.empty() && ::stat(path.c_str(), &info) == 0 && (info.st_mode & kDirectoryBit) == 0;
}

}  // namespace

bool FileUtils::IsFile(const SafeString& path) {
  struct stat info;
  return StatOfFile(path, info);
}

unsigned long long FileUtils::GetFileSize(const SafeString& path) {
  struct stat info;
  if (!StatOfFile(path, info)) return 0;
  // A regular file's size is in its status. It counts when the file could be
  // opened for reading, which the permission check answers without the
  // open, the seek and the close (nor the events an open gives watchers).
  if (S_ISREG(info.st_mode)) {
    if (::faccessat(AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) != 0) return 0;
    return static_cast<unsigned long long>(info.st_size);
  }
  // Devices and FIFOs are sought to their end; non-blocking, so that a FIFO
  // without a writer cannot hold the call.
  Descriptor fd(Open(path.c_str(), O_RDONLY | O_NONBLOCK));
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
  const char* const begin = bytes.data();
  const size_t length = bytes.size();
  // Count first: the vector gets its room once, and a file of more lines
  // than a vector can hold fails here instead of throwing.
  size_t count = 0;
  for (size_t at = 0; at < length; ++count) {
    const void* found = std::memchr(begin + at, '\n', length - at);
    if (found == nullptr) break;
    at = static_cast<size_t>(static_cast<const char*>(found) - begin) + 1;
  }
  if (length > 0 && begin[length - 1] != '\n') ++count;
  if (count > lines.max_size()) return false;
  lines.reserve(count);
  size_t start = 0;
  while (start < length) {
    const void* found = std::memchr(begin + start, '\n', length - start);
    size_t end =
        found == nullptr ? length : static_cast<size_t>(static_cast<const char*>(found) - begin);
    lines.emplace_back(begin + start, end - start);
    start = end + 1;
  }
  return true;
}

bool FileUtils::ReadBinary(const SafeString& path, memory::IBuffer* buffer) {
  if (path.empty()) return false;
  Descriptor fd(Open(path.c_str(), O_RDONLY | O_NONBLOCK));
  if (!fd.valid()) return false;
  struct stat info;
  if (::fstat(fd.get(), &info) != 0 || S_ISDIR(info.st_mode)) return false;
  // A regular file is read to its end, whatever size it says it has (files
  // under /proc say 0); any other file (a device) up to the size that a seek
  // to its end gives, so that /dev/zero ends at once.
  const bool toEnd = S_ISREG(info.st_mode);
  unsigned long long size = 0;
  if (toEnd) {
    if (info.st_size > 0) size = static_cast<unsigned long long>(info.st_size);
  } else {
    off_t end = ::lseek(fd.get(), 0, SEEK_END);
    if (end < 0 || ::lseek(fd.get(), 0, SEEK_SET) != 0) return false;
    size = static_cast<unsigned long long>(end);
  }
  // No object in memory is larger than PTRDIFF_MAX bytes.
  const unsigned long long limit = static_cast<unsigned long long>(PTRDIFF_MAX);
  const unsigned long long at = buffer->tellWrite();
  unsigned long long total = 0;
  if (!detail::SumWithin(at, size, limit, total)) return false;
  // A buffer that does not take the whole length (a StringWriter cuts it to
  // 32 bits) is not read into.
  bool ok = BufferStore::SetLength(buffer, total);
  if (ok && toEnd) {
    BufferStore store(buffer, at);
    unsigned long long used = 0;
    ok = ReadToEnd(fd.get(), store, limit - at, used);
    if (ok && at + used != buffer->length()) ok = BufferStore::SetLength(buffer, at + used);
  } else if (ok) {
    const long long got = ReadFully(fd.get(), buffer->data() + static_cast<size_t>(at), size);
    ok = got >= 0 && static_cast<unsigned long long>(got) == size;
  }
  buffer->seekWrite(buffer->length());
  return ok;
}

bool FileUtils::WriteText(const SafeString& path, const SafeString& text) {
  return WriteWhole(path, text.data(), text.size());
}

bool FileUtils::WriteBinary(const SafeString& path, const unsigned char* data, unsigned int size) {
  if (data == nullptr && size != 0) return false;
  return WriteWhole(path, reinterpret_cast<const char*>(data), size);
}

bool FileUtils::WriteTextAtomic(const SafeString& path, const SafeString& text) {
  return WriteWholeAtomic(path, text.data(), text.size());
}

bool FileUtils::WriteBinaryAtomic(const SafeString& path, const unsigned char* data,
                                  unsigned int size) {
  if (data == nullptr && size != 0) return false;
  return WriteWholeAtomic(path, reinterpret_cast<const char*>(data), size);
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

  Descriptor in(Open(from.c_str(), O_RDONLY | O_NONBLOCK));
  if (!in.valid()) return false;
  Descriptor out(Open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666));
  if (!out.valid()) return false;
  // A failed copy removes its partial file, but never a device or FIFO that
  // the target named.
  struct stat target;
  const bool ownFile = ::fstat(out.get(), &target) == 0 && S_ISREG(target.st_mode);

  // A regular file is copied to its end, whatever size it says it has
  // (files under /proc say 0); any other file (a device) only up to the
  // size that a seek to its end gives, and a FIFO, which has none, fails.
  struct stat info;
  bool ok = false;
  bool toEnd = false;
  off_t end = 0;
  if (::fstat(in.get(), &info) == 0) {
    toEnd = S_ISREG(info.st_mode);
    if (!toEnd) {
      end = ::lseek(in.get(), 0, SEEK_END);
      if (end >= 0 && ::lseek(in.get(), 0, SEEK_SET) != 0) end = -1;
    }
  } else {
    end = -1;
  }
  if (end >= 0) {
    // A regular file's bytes up to the size it says go through the kernel
    // when it can, if they fill more than a buffer (for less, a read and a
    // write cost less); the chunks read on to the end, with buffers sized
    // for what the kernel left.
    const unsigned long long size = static_cast<unsigned long long>(end);
    unsigned long long expected = toEnd ? static_cast<unsigned long long>(info.st_size) : size;
    if (toEnd && expected > kStreamBuffer) expected = CopyInKernel(in.get(), out.get(), expected);
    try {
      ok = CopyChunks(in.get(), out.get(), toEnd, size, expected);
    } catch (...) {
      // No memory for the buffers: no partial copy stays behind.
      in.close();
      out.close();
      if (ownFile) (void)RemoveFile(to);
      throw;
    }
  }
  in.close();
  if (!out.close()) ok = false;
  if (!ok && ownFile) (void)RemoveFile(to);
  return ok;
}

}  // namespace file
}  // namespace foundation
}  // namespace zorv
