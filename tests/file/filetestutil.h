// Small helpers shared by the file-system tests: raw POSIX probes and
// builders that do not go through the library under test, and the runner
// of tables of file operations. It brings in GoogleTest, FileUtils, the
// scratch folders and leak checks, and the POSIX and standard headers that
// the file tests share, so that those include only what they add.
#ifndef ZORV_TESTS_FILE_FILETESTUTIL_H_
#define ZORV_TESTS_FILE_FILETESTUTIL_H_

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "foundation/file/fileutils.h"
#include "support/leakcheck.h"
#include "support/tempdir.h"

// The open hook of folders_hooks.cpp, which the file tests link.
extern "C" void ZorvTestBeforeOpen(const char* name, int skip, const char* target, int fd);

namespace zorv {
namespace test {

inline bool RawExists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

// The permission bits of `path`, or -1.
inline int RawMode(const std::string& path) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return -1;
  return static_cast<int>(info.st_mode & 07777);
}

// The process's umask (read without changing it for longer than a moment).
inline int CurrentUmask() {
  mode_t mask = ::umask(022);
  ::umask(mask);
  return static_cast<int>(mask);
}

// Binds a Unix socket at `path` and closes it; the socket stays behind.
inline bool MakeSocket(const std::string& path) {
  struct sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) return false;
  path.copy(address.sun_path, path.size());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  const bool ok = ::bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) == 0;
  ::close(fd);
  return ok;
}

// Makes entries below `base` in order: "name/" a folder, "name->target" a
// symbolic link ('$' at the start of the target stands for `base`),
// "name=>target" a hard link, "name=text" a file, "name?" a FIFO, "name@" a
// socket. False at the first that fails.
inline bool Build(const std::string& base, const std::vector<std::string>& items) {
  for (const std::string& item : items) {
    const size_t arrow = item.find("->");
    const size_t equals = item.find('=');
    const std::string at = base + "/" + item.substr(0, std::min(arrow, equals));
    const char last = item.empty() ? '\0' : item.back();
    bool ok = false;
    if (arrow < equals) {
      std::string target = item.substr(arrow + 2);
      if (target[0] == '$') target.replace(0, 1, base);
      ok = ::symlink(target.c_str(), at.c_str()) == 0;
    } else if (equals != std::string::npos && item.compare(equals, 2, "=>") == 0) {
      ok = ::link((base + "/" + item.substr(equals + 2)).c_str(), at.c_str()) == 0;
    } else if (equals != std::string::npos) {
      ok = WriteRawFile(at, item.substr(equals + 1));
    } else if (last == '/') {
      ok = ::mkdir(at.c_str(), 0755) == 0;
    } else if (last == '?') {
      ok = ::mkfifo(at.substr(0, at.size() - 1).c_str(), 0644) == 0;
    } else if (last == '@') {
      ok = MakeSocket(at.substr(0, at.size() - 1));
    }
    if (!ok) return false;
  }
  return true;
}

// Everything below `base` in the notation of Build, sorted; links are not
// followed (`base` in their targets shows as '$'), and other kinds show as
// "name?".
inline std::vector<std::string> Snapshot(const std::string& base) {
  namespace fs = std::filesystem;
  std::vector<std::string> items;
  std::error_code error;
  for (fs::recursive_directory_iterator it(base, error), end; !error && it != end;
       it.increment(error)) {
    const std::string name = it->path().string().substr(base.size() + 1);
    const fs::file_type type = it->symlink_status().type();
    if (type == fs::file_type::directory) {
      items.push_back(name + "/");
    } else if (type == fs::file_type::symlink) {
      std::string text = fs::read_symlink(it->path(), error).string();
      if (text.compare(0, base.size(), base) == 0) text.replace(0, base.size(), "$");
      items.push_back(name + "->" + text);
    } else if (type == fs::file_type::regular) {
      items.push_back(name + "=" + ReadRawFile(it->path().string()));
    } else {
      items.push_back(name + "?");
    }
  }
  std::sort(items.begin(), items.end());
  return items;
}

// One call on a fresh folder built from `before` (see Build): its result and
// the whole folder afterwards. With `sizeLimit` set, writes beyond that many
// bytes fail with EFBIG during the call.
struct FileCase {
  const char* what;
  std::vector<std::string> before;
  std::function<bool(const std::string& base)> call;
  bool ok;
  std::vector<std::string> after;
  rlim_t sizeLimit = 0;
};

inline void RunFileCases(const std::vector<FileCase>& cases) {
  ::signal(SIGXFSZ, SIG_IGN);
  for (const FileCase& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir base;
    ASSERT_TRUE(zorv::test::Build(base.path(), c.before));
    struct rlimit old, limit;
    ::getrlimit(RLIMIT_FSIZE, &old);
    limit = {c.sizeLimit != 0 ? c.sizeLimit : old.rlim_cur, old.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_EQ(c.call(base.path()), c.ok);
    ::setrlimit(RLIMIT_FSIZE, &old);
    std::vector<std::string> after = c.after;
    std::sort(after.begin(), after.end());
    EXPECT_EQ(Snapshot(base.path()), after);
  }
}

// `relative` below `base`; an absolute or empty path as it is.
inline foundation::SafeString At(const std::string& base, const std::string& relative) {
  return (relative.empty() || relative[0] == '/' ? relative : base + "/" + relative).c_str();
}

// One call over paths below a folder: 'm' CreateFolder(from), 'R'
// RemoveFolder, 'C' CopyFolder(from, to), 'r' RemoveFile, 'f' RenameFile,
// 'd' RenameFolder, 'c' CopyFile, 't' WriteText(from, to), 'b' WriteBinary(from,
// to) and 'n' the same with null data.
inline std::function<bool(const std::string&)> Op(char op, const std::string& from,
                                                  const std::string& to = "") {
  using foundation::file::FileUtils;
  return [=](const std::string& b) {
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(to.data());
    if (op == 'm') return FileUtils::CreateFolder(At(b, from));
    if (op == 'R') return FileUtils::RemoveFolder(At(b, from));
    if (op == 'C') return FileUtils::CopyFolder(At(b, from), At(b, to));
    if (op == 'r') return FileUtils::RemoveFile(At(b, from));
    if (op == 'f') return FileUtils::RenameFile(At(b, from), At(b, to));
    if (op == 'd') return FileUtils::RenameFolder(At(b, from), At(b, to));
    if (op == 't')
      return FileUtils::WriteText(At(b, from), foundation::SafeString(to.data(), to.size()));
    if (op == 'b' || op == 'n') {
      return FileUtils::WriteBinary(At(b, from), op == 'b' ? bytes : nullptr,
                                    static_cast<unsigned int>(to.size()));
    }
    return FileUtils::CopyFile(At(b, from), At(b, to));
  };
}

// A leak-checked test with a scratch folder; P(relative) is a path in it.
class FileTest : public LeakCheckedTest {
 protected:
  foundation::SafeString P(const std::string& relative) const { return (dir_ / relative).c_str(); }
  TempDir dir_;
};

// `call` with the open hook armed for the first opening of `name` (as the
// library passes it to openat; a name starting with '/' is the path below
// the test's folder): `target` "!" fails it with EACCES, another target
// turns the entry into a link to it just before.
inline std::function<bool(const std::string&)> WithOpenHook(
    const std::string& name, const std::string& target,
    std::function<bool(const std::string&)> call) {
  return [=](const std::string& b) {
    ZorvTestBeforeOpen((name[0] == '/' ? b + name : name).c_str(), 0, target.c_str(), -1);
    const bool ok = call(b);
    ZorvTestBeforeOpen("", 0, "", -1);
    return ok;
  };
}

}  // namespace test
}  // namespace zorv

#endif  // ZORV_TESTS_FILE_FILETESTUTIL_H_
