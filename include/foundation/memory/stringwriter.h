// StringWriter: an append-only byte stream into an existing string.
#ifndef ZORV_FOUNDATION_MEMORY_STRINGWRITER_H_
#define ZORV_FOUNDATION_MEMORY_STRINGWRITER_H_

#include "foundation/export.h"
#include "foundation/memory/buffer.h"
#include "foundation/text/safestring.h"

namespace zorv {
namespace foundation {
namespace memory {

// Appends to a string it does not own; the string must outlive the writer.
// The write position counts the bytes written since the last reset; writes
// always append at the string's end, whatever the position. Reading is not
// supported. Not thread-safe: one thread at a time.
class ZORV_FOUNDATION_EXPORT StringWriter : public IBuffer {
 public:
  // Appends to `text`; the write position starts at 0.
  explicit StringWriter(SafeString& text);
  ~StringWriter() override;

  StringWriter(const StringWriter&) = delete;
  StringWriter& operator=(const StringWriter&) = delete;

  // Appends the `length` bytes at the end of the string and advances the
  // write position by `length`. Throws std::bad_alloc or std::length_error
  // when the string cannot grow.
  void write(const unsigned char* data, unsigned long long length) override;

  // Always false; copies nothing.
  bool read(unsigned char* data, unsigned long long length) override;

  // The string's length.
  unsigned long long length() const override;

  // Makes `length` (cut to 32 bits) the string's length, filling with zero
  // bytes or cutting, and sets the write position to 0; returns the previous
  // length. Throws std::length_error beyond the string's longest length.
  unsigned long long setLength(unsigned long long length) override;

  // Always 0.
  unsigned long long tellRead() const override;

  // The write position.
  unsigned long long tellWrite() const override;

  // Throws Exception("zorv.foundation.memory.StringReader.seekRead",
  // "not supported operation"); the source names the reader on purpose, as
  // callers match this text.
  unsigned long long seekRead(unsigned long long position) override;

  // Sets the write position when `position` <= the string's length; returns
  // the previous one.
  unsigned long long seekWrite(unsigned long long position) override;

  // The string's characters.
  unsigned char* data() const override;

  // Empties the string and sets the write position to 0.
  void clear();

 private:
  SafeString& text_;
  unsigned long long position_;
};

}  // namespace memory
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_MEMORY_STRINGWRITER_H_
