// Length-prefixed serialization of strings and archiver forwarding.
#include "foundation/io/serialization.h"

#include <cstring>
#include <typeinfo>
#include <utility>

#include "foundation/memory/memorybuffer.h"
#include "io/sizeprefix.h"

namespace zorv {
namespace foundation {
namespace io {

void __WriteSize(IStream* stream, unsigned long long size) {
  stream->write(reinterpret_cast<const unsigned char*>(&size), sizeof(size));
}

bool __ReadSize(IStream* stream, unsigned long long& size) {
  return stream->read(reinterpret_cast<unsigned char*>(&size), sizeof(size));
}

void Serialize(IStream* stream, const SafeString& value) {
  if (stream == nullptr) return;
  __WriteSize(stream, value.length());
  stream->write(reinterpret_cast<const unsigned char*>(value.data()), value.length());
}

namespace {

// Puts the read position back to `start` and passes the exception on, so
// that the stream stays in step with its strings and the caller may try the
// same string again.
[[noreturn]] void Rewind(IStream* stream, unsigned long long start) {
  try {
    (void)stream->seekRead(start);
  } catch (...) {
    // A stream that cannot seek stays where it is; the first error counts.
  }
  throw;
}

// Deserialize from a plain MemoryBuffer: the same steps and results as
// through its virtual operations, with the string's bytes copied straight
// into `value` (reusing its room) instead of into a zero-filled temporary.
// A MemoryBuffer's read position never passes its length, its read cannot
// fail once the length says the bytes are there, and assign leaves `value`
// as it was when it throws.
bool TakeFromBuffer(memory::MemoryBuffer& buffer, SafeString& value) {
  const unsigned long long start = buffer.tellRead();
  const unsigned long long length = buffer.length();
  if (length - start < 8) return false;
  const char* at = reinterpret_cast<const char*>(buffer.data()) + start;
  unsigned long long size;
  std::memcpy(&size, at, sizeof size);
  (void)buffer.seekRead(start + 8);
  if (length - start - 8 < size || size > 0xFFFFFFFFull) return false;
  try {
    value.assign(at + 8, static_cast<size_t>(size));
  } catch (...) {
    Rewind(&buffer, start);
  }
  (void)buffer.seekRead(start + 8 + size);
  return true;
}

}  // namespace

bool Deserialize(IStream* stream, SafeString& value) {
  if (stream == nullptr) return false;
  // Exactly a MemoryBuffer, not a class that may override its operations.
  if (typeid(*stream) == typeid(memory::MemoryBuffer)) {
    return TakeFromBuffer(static_cast<memory::MemoryBuffer&>(*stream), value);
  }
  const unsigned long long start = stream->tellRead();
  unsigned long long size = 0;
  if (!__ReadSize(stream, size)) return false;
  const unsigned long long length = stream->length();
  const unsigned long long position = stream->tellRead();
  const unsigned long long remaining = length - position;
  if (position > length || remaining < size) return false;
  if (remaining < static_cast<unsigned int>(size)) return false;
  // A string's length never exceeds 32 bits; the bytes must fit the string.
  if (size > 0xFFFFFFFFull) return false;
  try {
    SafeString temp(static_cast<size_t>(size), '\0');
    if (!stream->read(reinterpret_cast<unsigned char*>(&temp[0]), size)) return false;
    value = std::move(temp);
  } catch (...) {
    Rewind(stream, start);
  }
  return true;
}

bool Archive(IArchiver* archiver, const SafeString& value) {
  return archiver != nullptr && archiver->archive(value);
}

bool ArchiveIndex(IArchiver* archiver, unsigned int index, const SafeString& value) {
  return archiver != nullptr && archiver->archiveIndex(index, value);
}

bool ArchiveField(IArchiver* archiver, const SafeString& name, const SafeString& value) {
  return archiver != nullptr && archiver->archiveField(name, value);
}

bool Unarchive(IArchiver* archiver, SafeString& value) {
  return archiver != nullptr && archiver->unarchive(value);
}

}  // namespace io
}  // namespace foundation
}  // namespace zorv
