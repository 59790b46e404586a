// Archiver: an in-memory configuration table of sections, keys and values,
// read from and written to INI-like text files.
#ifndef ZORV_FOUNDATION_CONFIG_CONFIGARCHIVER_H_
#define ZORV_FOUNDATION_CONFIG_CONFIGARCHIVER_H_

#include "foundation/collection/vector.h"
#include "foundation/export.h"
#include "foundation/text/safestring.h"

namespace zorv {
namespace foundation {
namespace config {

namespace detail {
class IDataReader;
struct ArchiverPrivate;
}  // namespace detail

// A two-level table of text settings: sections, each holding keys with
// their values. Names are compared exactly (byte-wise, case-sensitive).
// Listing order is the table's hash order: neither sorted nor the order of
// the file, but stable while the table does not change, and the same for
// allSections, allKeys and saveAs (but for the one section that saveAs
// moves to the front, see there).
//
// The text format, as parsed:
//   - a line ends at each CR, LF or (in files) NUL byte; blank lines are
//     ignored, so CR LF, LF and CR files read alike;
//   - everything before the first line that starts with '[' and ends with
//     ']' is skipped, key lines included;
//   - '[' name ']' opens a section (the name is trimmed of spaces and tabs);
//     a header with blanks outside its brackets is an ignored line;
//   - key '=' value stores a pair (split at the first '=', both trimmed);
//     there is no comment syntax: '; a = b' stores the key '; a';
//   - any other line is ignored.
// A file may start with a UTF-8 (EF BB BF) or UTF-16 (FF FE, FE FF)
// byte-order mark, which is skipped (no conversion takes place).
//
// Thread safety: concurrent const calls are safe; a call that parses or
// edits must not run beside any other call on the same Archiver.
// Ownership: the Archiver owns its table; results are copies owned by the
// caller.
class ZORV_FOUNDATION_EXPORT Archiver {
 public:
  // An Archiver with an empty table.
  Archiver();
  // Frees the table.
  ~Archiver();
  Archiver(const Archiver&) = delete;
  Archiver& operator=(const Archiver&) = delete;

  // ---- Parsing ---------------------------------------------------------------

  // Clears the table, then reads the file at `path`. True when the file was
  // read (an empty file, or one without any header, gives an empty table).
  // A read error midway counts as the end of the file.
  // Throws lang::Exception:
  //   "zorv.foundation.config.Reader", "open config file [" path "] failed"
  //     when the file cannot be opened (or is a folder);
  //   "zorv.foundation.config.Archiver",
  //     "config error, repeated section [" name "]" when a header names a
  //     section that already exists;
  //   "zorv.foundation.config.Archiver",
  //     "config error, repeated key [" section "." key "]" when a key repeats
  //     within a section.
  // After a throw the table holds what was stored before the offending line.
  bool parseFile(const SafeString& path);

  // As parseFile, over the zero-terminated `text` (no byte-order mark
  // handling). A null `text` returns false and leaves the table untouched.
  bool parseText(const char* text);

  // ---- Reading ---------------------------------------------------------------

  // True when a section of exactly that name exists, even one with no keys.
  bool contains(const SafeString& section) const;

  // Every section name; empty when there are none.
  collection::Vector<SafeString> allSections() const;

  // Every key of the section; empty when it does not exist or has no keys.
  collection::Vector<SafeString> allKeys(const SafeString& section) const;

  // The stored value; "" when the section or key does not exist. Never
  // creates anything.
  SafeString value(const SafeString& section, const SafeString& key) const;

  // True, with `out` set to the stored value, when both exist; false with
  // `out` unchanged otherwise.
  bool value(const SafeString& section, const SafeString& key, SafeString& out) const;

  // ---- Editing and saving ----------------------------------------------------

  // Stores `value` under section and key, creating the section when missing
  // and overwriting an existing value. False, changing nothing, when
  // `section` or `key` is empty or holds '[', ']' or '='. Names and the
  // value are stored as given (not trimmed); saveAs refuses a table whose
  // names or values would not read back the same (see there).
  bool setValue(const SafeString& section, const SafeString& key, const SafeString& value);

  // Erases the key (the empty key is a key like any other); a section left
  // without keys is erased too. False when the section or key is missing.
  bool remove(const SafeString& section, const SafeString& key);

  // Writes the table to `path` through FileUtils::WriteText (creating
  // missing parent folders): for each section '[' name ']' LF, then
  // key ' = ' value LF for each key, then one more LF. LF only, no
  // byte-order mark; an empty table writes an empty file. A section whose
  // name holds '=' (only a file's first header can make one) is written
  // first, where it still reads as a header; the others follow in table
  // order. parseFile of the written file gives back exactly this table.
  // False, writing nothing, when the table holds what would not read back
  // the same:
  //   - a section name, key or value holding CR, LF or NUL (each ends a
  //     line), or starting or ending with a space or tab (trimmed on
  //     reading);
  //   - a key holding '=';
  //   - more than one section name holding '='.
  // False too when the file cannot be written; throws nothing (but
  // std::bad_alloc). The table is unchanged either way.
  bool saveAs(const SafeString& path);

  // As saveAs (the same text, the same refusals), written through
  // FileUtils::WriteTextAtomic: a crash or power cut leaves the old file or
  // the new one, never a mix; a link is followed and the file it leads to
  // replaced, keeping its permission bits.
  bool saveAsAtomic(const SafeString& path);

 private:
  void parse(detail::IDataReader& reader);

  detail::ArchiverPrivate* d_;
};

}  // namespace config
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_CONFIG_CONFIGARCHIVER_H_
