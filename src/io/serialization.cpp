// Length-prefixed serialization of strings and archiver forwarding.
#include "foundation/io/serialization.h"

#include <utility>

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

bool Deserialize(IStream* stream, SafeString& value) {
  if (stream == nullptr) return false;
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
    // Put the prefix back, so that the stream stays in step with its strings
    // and the caller may try the same string again.
    try {
      (void)stream->seekRead(start);
    } catch (...) {
      // A stream that cannot seek stays where it is; the first error counts.
    }
    throw;
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
