// Length-prefixed serialization of strings over any IStream, and forwarding
// to caller-supplied archivers.
#ifndef ZORV_FOUNDATION_IO_SERIALIZATION_H_
#define ZORV_FOUNDATION_IO_SERIALIZATION_H_

#include "foundation/export.h"
#include "foundation/io/archiver.h"
#include "foundation/io/stream.h"
#include "foundation/text/safestring.h"

namespace zorv {
namespace foundation {
namespace io {

// Wire format of one string: its length as an 8-byte unsigned integer in the
// machine's byte order (least significant first on the library's targets),
// then its bytes as they are, without a terminating zero. Strings follow one
// another directly. These functions keep no state and are as thread-safe as
// the stream they are given.

// Writes the length prefix, then the bytes of `value`. Does nothing for a
// null stream. Reports no failure; the stream's own write may throw (for
// instance std::bad_alloc from a growing buffer).
ZORV_FOUNDATION_EXPORT void Serialize(IStream* stream, const SafeString& value);

// Reads one serialized string into `value`. Returns false, leaving `value`
// unchanged, when the prefix cannot be read or announces more bytes than
// remain in the stream (the prefix is consumed then), when the read of the
// bytes fails, or for a null stream.
// Throws what making the string throws: std::bad_alloc when memory runs out,
// std::length_error when the announced length exceeds the largest string
// (on 32-bit targets), and whatever the stream's read throws. Before the
// exception leaves, the read position is put back where it stood before the
// prefix, so the stream stays in step and `value` is unchanged.
ZORV_FOUNDATION_EXPORT bool Deserialize(IStream* stream, SafeString& value);

// Forward `value` (and `index` or `name`) to the archiver's operation of the
// same role and return its result; with a null archiver they do nothing and
// return false.
ZORV_FOUNDATION_EXPORT bool Archive(IArchiver* archiver, const SafeString& value);
ZORV_FOUNDATION_EXPORT bool ArchiveIndex(IArchiver* archiver, unsigned int index,
                                         const SafeString& value);
ZORV_FOUNDATION_EXPORT bool ArchiveField(IArchiver* archiver, const SafeString& name,
                                         const SafeString& value);
ZORV_FOUNDATION_EXPORT bool Unarchive(IArchiver* archiver, SafeString& value);

}  // namespace io
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_IO_SERIALIZATION_H_
