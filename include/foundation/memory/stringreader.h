// StringReader: a read-only byte stream over an existing string.
#ifndef ZORV_FOUNDATION_MEMORY_STRINGREADER_H_
#define ZORV_FOUNDATION_MEMORY_STRINGREADER_H_

#include "foundation/export.h"
#include "foundation/memory/buffer.h"
#include "foundation/text/safestring.h"

namespace zorv {
namespace foundation {
namespace memory {

// Reads the bytes of a string it does not own; the string must outlive the
// reader and should not change while it is read. Writing operations throw.
// Not thread-safe: one thread at a time.
class ZORV_FOUNDATION_EXPORT StringReader : public IBuffer {
 public:
  // Reads `text` from position 0.
  explicit StringReader(const SafeString& text);
  ~StringReader() override;

  StringReader(const StringReader&) = delete;
  StringReader& operator=(const StringReader&) = delete;

  // Throws Exception("zorv.foundation.memory.StringReader.write",
  // "not supported operation").
  void write(const unsigned char* data, unsigned long long length) override;

  // Copies `length` bytes from the position and advances it. False, copying
  // nothing, when position + length exceeds the string's length or
  // 0xFFFFFFFF.
  bool read(unsigned char* data, unsigned long long length) override;

  // The string's length.
  unsigned long long length() const override;

  // Throws Exception("zorv.foundation.memory.StringReader.setLength",
  // "not supported operation").
  unsigned long long setLength(unsigned long long length) override;

  // The read position.
  unsigned long long tellRead() const override;

  // Always 0.
  unsigned long long tellWrite() const override;

  // Sets the position when `position` <= the string's length; returns the
  // previous position.
  unsigned long long seekRead(unsigned long long position) override;

  // Throws Exception("zorv.foundation.memory.StringReader.seekWrite",
  // "not supported operation").
  unsigned long long seekWrite(unsigned long long position) override;

  // The string's characters; do not write through the result.
  unsigned char* data() const override;

 private:
  const SafeString& text_;
  unsigned long long position_;
};

}  // namespace memory
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_MEMORY_STRINGREADER_H_
