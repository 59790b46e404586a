// StringWriter: an append-only byte stream into an existing string.
#include "foundation/memory/stringwriter.h"

#include <cstdint>
#include <stdexcept>

#include "foundation/lang/exception.h"

namespace zorv {
namespace foundation {
namespace memory {

namespace {

// The writer reports its read-side refusal under the reader's source.
constexpr char kSeekReadSource[] = "zorv.foundation.memory.StringReader.seekRead";
constexpr char kNotSupported[] = "not supported operation";

}  // namespace

StringWriter::StringWriter(SafeString& text) : text_(text), position_(0) {}

StringWriter::~StringWriter() = default;

void StringWriter::write(const unsigned char* data, unsigned long long length) {
  if (length > static_cast<unsigned long long>(SIZE_MAX)) {
    throw std::length_error("basic_string::append");
  }
  if (length != 0) text_.append(reinterpret_cast<const char*>(data), static_cast<size_t>(length));
  position_ += length;
}

bool StringWriter::read(unsigned char* /*data*/, unsigned long long /*length*/) { return false; }

unsigned long long StringWriter::length() const { return text_.size(); }

unsigned long long StringWriter::setLength(unsigned long long length) {
  const unsigned long long previous = text_.size();
  text_.resize(static_cast<unsigned int>(length), '\0');
  position_ = 0;
  return previous;
}

unsigned long long StringWriter::tellRead() const { return 0; }

unsigned long long StringWriter::tellWrite() const { return position_; }

unsigned long long StringWriter::seekRead(unsigned long long /*position*/) {
  throw lang::Exception(kSeekReadSource, kNotSupported);
}

unsigned long long StringWriter::seekWrite(unsigned long long position) {
  const unsigned long long previous = position_;
  if (position <= text_.size()) position_ = position;
  return previous;
}

unsigned char* StringWriter::data() const { return reinterpret_cast<unsigned char*>(&text_[0]); }

void StringWriter::clear() {
  text_.clear();
  position_ = 0;
}

}  // namespace memory
}  // namespace foundation
}  // namespace zorv
