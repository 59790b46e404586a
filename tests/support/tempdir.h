// A private temporary folder per test, removed with plain POSIX calls.
#ifndef ZORV_TESTS_SUPPORT_TEMPDIR_H_
#define ZORV_TESTS_SUPPORT_TEMPDIR_H_

#include <string>

namespace zorv {
namespace test {

// Creates a fresh folder under $TMPDIR (or /tmp) with mkdtemp; the
// destructor removes it and everything below it with nftw.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // The folder, without a trailing slash.
  const std::string& path() const { return path_; }

  // path() + "/" + relative.
  std::string operator/(const std::string& relative) const { return path_ + "/" + relative; }

 private:
  std::string path_;
};

// Writes `content` to `path` with POSIX calls; returns false on failure.
bool WriteRawFile(const std::string& path, const std::string& content);

// Reads the whole file at `path`; sets *ok to false on failure.
std::string ReadRawFile(const std::string& path, bool* ok = nullptr);

}  // namespace test
}  // namespace zorv

#endif  // ZORV_TESTS_SUPPORT_TEMPDIR_H_
