// IArchiver: the archiver interface that applications implement.
#ifndef ZORV_FOUNDATION_IO_ARCHIVER_H_
#define ZORV_FOUNDATION_IO_ARCHIVER_H_

#include "foundation/export.h"
#include "foundation/lang/interface.h"
#include "foundation/text/safestring.h"

namespace zorv {
namespace foundation {
namespace io {

// An archiver supplied by the library's users; the library only calls it
// (through Archive, ArchiveIndex, ArchiveField and Unarchive) and never owns
// it. Thread safety is the implementation's business. The slot order of the
// virtual operations is part of the binary interface.
class ZORV_FOUNDATION_EXPORT IArchiver : public lang::Interface {
 public:
  ~IArchiver() override;

  // Stores one value; true on success.
  virtual bool archive(const SafeString& value) = 0;

  // Stores the value at `index` of a sequence; true on success.
  virtual bool archiveIndex(unsigned int index, const SafeString& value) = 0;

  // Stores the value of the field `name`; true on success.
  virtual bool archiveField(const SafeString& name, const SafeString& value) = 0;

  // Takes the next value out into `value`; true on success.
  virtual bool unarchive(SafeString& value) = 0;
};

}  // namespace io
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_IO_ARCHIVER_H_
