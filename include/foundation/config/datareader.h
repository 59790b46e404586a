// The line sources behind Archiver::parseFile and Archiver::parseText.
#ifndef ZORV_FOUNDATION_CONFIG_DATAREADER_H_
#define ZORV_FOUNDATION_CONFIG_DATAREADER_H_

#include "foundation/export.h"
#include "foundation/text/safestring.h"

namespace zorv {
namespace foundation {
namespace config {
namespace detail {

// A source of text lines. A line ends at a CR or LF byte (and in files at a
// NUL byte), which is not part of any line; a CR LF pair therefore yields a
// line and then an empty one. Not thread-safe: one reader serves one parse.
// It has no virtual destructor: readers are destroyed through their own
// type only.
class ZORV_FOUNDATION_EXPORT IDataReader {
 public:
  // Prepares the source.
  virtual void open() = 0;
  // Replaces `line` by the next line, without its line break. False when the
  // source is exhausted.
  virtual bool readLine(SafeString& line) = 0;
  // Releases the source.
  virtual void close() = 0;

 protected:
  IDataReader() = default;
  ~IDataReader() = default;
  IDataReader(const IDataReader&) = default;
  IDataReader& operator=(const IDataReader&) = default;
};

// Reads the lines of a file, byte for byte without translation. A NUL byte
// ends a line like CR and LF. open() skips a leading byte-order mark: EF BB BF,
// or FF FE / FE FF (the rest is still read as 8-bit text). A read error
// counts as the end of the file. The destructor closes an open file.
class ZORV_FOUNDATION_EXPORT FileReader final : public IDataReader {
 public:
  explicit FileReader(const SafeString& path);
  ~FileReader();
  FileReader(const FileReader&) = delete;
  FileReader& operator=(const FileReader&) = delete;

  // Opens the file and skips a byte-order mark.
  // Throws lang::Exception("zorv.foundation.config.Reader",
  // "open config file [" path "] failed") when the file cannot be opened for
  // reading or is a folder.
  void open() override;
  // At the end of the file, true when at least one byte was collected.
  bool readLine(SafeString& line) override;
  // Closes the file; does nothing when it is not open.
  void close() override;

 private:
  bool fill();

  SafeString path_;
  int fd_;
  SafeString buffer_;
  unsigned int begin_;
  unsigned int end_;
};

// Reads the lines of a zero-terminated text that it does not own; the text
// must outlive the reader. open() and close() do nothing; no byte-order mark
// handling.
class ZORV_FOUNDATION_EXPORT TextReader final : public IDataReader {
 public:
  // REQUIRES: text is not null.
  explicit TextReader(const char* text);
  ~TextReader();

  void open() override;
  // False when the cursor stands on the terminating NUL.
  bool readLine(SafeString& line) override;
  void close() override;

 private:
  const char* cursor_;
};

}  // namespace detail
}  // namespace config
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_CONFIG_DATAREADER_H_
