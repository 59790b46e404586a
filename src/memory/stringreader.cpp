// StringReader: a read-only byte stream over an existing string.
#include "foundation/memory/stringreader.h"

#include <cstring>

#include "foundation/lang/exception.h"

namespace zorv {
namespace foundation {
namespace memory {

namespace {

constexpr char kWriteSource[] = "zorv.foundation.memory.StringReader.write";
constexpr char kSetLengthSource[] = "zorv.foundation.memory.StringReader.setLength";
constexpr char kSeekWriteSource[] = "zorv.foundation.memory.StringReader.seekWrite";
constexpr char kNotSupported[] = "not supported operation";

// Reads never reach past this position.
constexpr unsigned long long kReadLimit = 0xFFFFFFFFull;

}  // namespace

StringReader::StringReader(const SafeString& text) : text_(text), position_(0) {}

StringReader::~StringReader() = default;

void StringReader::write(const unsigned char* /*data*/, unsigned long long /*length*/) {
  throw lang::Exception(kWriteSource, kNotSupported);
}

bool StringReader::read(unsigned char* data, unsigned long long length) {
  if (length > kReadLimit || position_ > kReadLimit - length) return false;
  const unsigned long long end = position_ + length;
  if (end > text_.size()) return false;
  if (length != 0) std::memcpy(data, text_.data() + position_, static_cast<size_t>(length));
  position_ = end;
  return true;
}

unsigned long long StringReader::length() const { return text_.size(); }

unsigned long long StringReader::setLength(unsigned long long /*length*/) {
  throw lang::Exception(kSetLengthSource, kNotSupported);
}

unsigned long long StringReader::tellRead() const { return position_; }

unsigned long long StringReader::tellWrite() const { return 0; }

unsigned long long StringReader::seekRead(unsigned long long position) {
  const unsigned long long previous = position_;
  if (position <= text_.size()) position_ = position;
  return previous;
}

unsigned long long StringReader::seekWrite(unsigned long long /*position*/) {
  throw lang::Exception(kSeekWriteSource, kNotSupported);
}

unsigned char* StringReader::data() const {
  return reinterpret_cast<unsigned char*>(const_cast<char*>(text_.data()));
}

}  // namespace memory
}  // namespace foundation
}  // namespace zorv
