// The file and text line readers of the configuration parser.
#include "foundation/config/datareader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "foundation/lang/exception.h"
#include "system/posixio.h"

namespace zorv {
namespace foundation {
namespace config {
namespace detail {

namespace {

constexpr char kReaderSource[] = "zorv.foundation.config.Reader";
constexpr unsigned int kChunk = 64 * 1024;

// True for the bytes that end a line of a file: CR, LF and NUL.
inline bool EndsFileLine(unsigned char c) { return c <= 13 && (c == 13 || c == 10 || c == 0); }

}  // namespace

// ---- FileReader -------------------------------------------------------------

FileReader::FileReader(const SafeString& path) : path_(path), fd_(-1), begin_(0), end_(0) {}

FileReader::~FileReader() { close(); }

void FileReader::open() {
  close();
  system::posixio::Descriptor fd(system::posixio::Open(path_.c_str(), O_RDONLY));
  struct stat info;
  if (fd.valid() && (::fstat(fd.get(), &info) != 0 || S_ISDIR(info.st_mode))) fd.close();
  if (!fd.valid()) {
    SafeString text("open config file [");
    text += path_;
    text += "] failed";
    throw lang::Exception(kReaderSource, text.c_str());
  }
  buffer_.resize(kChunk);
  fd_ = fd.release();
  begin_ = 0;
  end_ = 0;
  // A byte-order mark: FF FE or FE FF (UTF-16, either order) or EF BB BF
  // (UTF-8) is consumed; anything else is read from the first byte.
  while (end_ < 3 && fill()) {
  }
  const unsigned char* b = reinterpret_cast<const unsigned char*>(buffer_.data());
  if (end_ >= 2 && ((b[0] == 0xFF && b[1] == 0xFE) || (b[0] == 0xFE && b[1] == 0xFF))) {
    begin_ = 2;
  } else if (end_ >= 3 && b[0] == 0xEF && b[1] == 0xBB && b[2] == 0xBF) {
    begin_ = 3;
  }
}

// Appends the next bytes of the file behind end_; false at the end of the
// file, on a read error, or when the reader is not open.
bool FileReader::fill() {
  if (fd_ < 0) return false;
  if (begin_ == end_) {
    begin_ = 0;
    end_ = 0;
  }
  if (end_ == buffer_.size()) return false;
  const ssize_t got = system::posixio::ReadSome(fd_, &buffer_[end_], buffer_.size() - end_);
  if (got <= 0) return false;
  end_ += static_cast<unsigned int>(got);
  return true;
}

bool FileReader::readLine(SafeString& line) {
  line.clear();
  bool collected = false;
  for (;;) {
    if (begin_ == end_ && !fill()) return collected;
    const char* data = buffer_.data();
    unsigned int i = begin_;
    while (i < end_ && !EndsFileLine(static_cast<unsigned char>(data[i]))) ++i;
    if (i > begin_) {
      line.append(data + begin_, i - begin_);
      collected = true;
    }
    if (i < end_) {
      begin_ = i + 1;
      return true;
    }
    begin_ = end_;
  }
}

void FileReader::close() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
  begin_ = 0;
  end_ = 0;
}

// ---- TextReader -------------------------------------------------------------

TextReader::TextReader(const char* text) : cursor_(text) {}

TextReader::~TextReader() = default;

void TextReader::open() {}

bool TextReader::readLine(SafeString& line) {
  if (*cursor_ == '\0') return false;
  size_t length = std::strcspn(cursor_, "\r\n");
  line.assign(cursor_, length);
  cursor_ += length;
  if (*cursor_ != '\0') ++cursor_;
  return true;
}

void TextReader::close() {}

}  // namespace detail
}  // namespace config
}  // namespace foundation
}  // namespace zorv
