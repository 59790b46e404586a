// Tests of FileUtils' folder half: creation with parents, removal, copying
// and the searches with their flag word and path forms.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "file/filetestutil.h"
#include "foundation/file/fileutils.h"
#include "support/leakcheck.h"
#include "support/tempdir.h"

// Test hooks (folders_hooks.cpp).
extern "C" void ZorvTestSwapBeforeOpen(const char* name, const char* target, int skip);
extern "C" void ZorvTestStickyAllocFailure(bool on);

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::file::FileUtils;
using zorv::test::RawExists;
using zorv::test::RawIsDir;
using zorv::test::ReadRawFile;
using zorv::test::TempDir;
using zorv::test::WriteRawFile;

std::string S(const SafeString& s) { return std::string(s.data(), s.size()); }

std::vector<std::string> Strings(const Vector<SafeString>& list) {
  std::vector<std::string> result;
  for (const SafeString& s : list) result.push_back(S(s));
  return result;
}

std::vector<std::string> Sorted(const Vector<SafeString>& list) {
  std::vector<std::string> result = Strings(list);
  std::sort(result.begin(), result.end());
  return result;
}

Vector<SafeString> Suffixes(std::initializer_list<const char*> list) {
  Vector<SafeString> result;
  for (const char* s : list) result.emplace_back(s);
  return result;
}

class FoldersTest : public zorv::test::LeakCheckedTest {
 protected:
  SafeString P(const std::string& relative) const { return SafeString((dir_ / relative).c_str()); }
  void MakeDir(const std::string& relative) {
    ASSERT_EQ(::mkdir((dir_ / relative).c_str(), 0755), 0) << relative;
  }
  void MakeFile(const std::string& relative, const std::string& content = "x") {
    ASSERT_TRUE(WriteRawFile(dir_ / relative, content)) << relative;
  }
  // root/a.txt, root/notes.txt, root/atxt, root/b.dat,
  // root/sub/b.txt, root/sub/deep/c.TXT, root/empty/
  void MakeTree() {
    MakeDir("root");
    MakeFile("root/a.txt");
    MakeFile("root/notes.txt");
    MakeFile("root/atxt");
    MakeFile("root/b.dat");
    MakeDir("root/sub");
    MakeFile("root/sub/b.txt");
    MakeDir("root/sub/deep");
    MakeFile("root/sub/deep/c.TXT");
    MakeDir("root/empty");
  }
  TempDir dir_;
};

TEST_F(FoldersTest, CreateFolderMakesTheMissingParents) {
  EXPECT_TRUE(FileUtils::CreateFolder(P("a/b/c")));
  const int mode = 0755 & ~zorv::test::CurrentUmask();
  for (const char* folder : {"a", "a/b", "a/b/c"}) {
    SCOPED_TRACE(folder);
    EXPECT_TRUE(RawIsDir(dir_ / folder));
    EXPECT_EQ(zorv::test::RawMode(dir_ / folder), mode);
  }
  EXPECT_TRUE(FileUtils::CreateFolder(P("a/b/d/")));
  EXPECT_TRUE(RawIsDir(dir_ / "a/b/d"));
}

TEST_F(FoldersTest, CreateFolderRefusesWhatExists) {
  MakeDir("have");
  MakeFile("file");
  EXPECT_FALSE(FileUtils::CreateFolder(""));
  EXPECT_FALSE(FileUtils::CreateFolder(P("have")));
  EXPECT_FALSE(FileUtils::CreateFolder(P("file")));
  // A prefix that is an ordinary file.
  EXPECT_FALSE(FileUtils::CreateFolder(P("file/sub")));
  EXPECT_FALSE(FileUtils::CreateFolder(P("file/sub/deeper")));
  EXPECT_EQ(ReadRawFile(dir_ / "file"), "x");
}

TEST_F(FoldersTest, FailedCreateFolderRemovesWhatItMade) {
  const std::string longName(300, 'n');
  EXPECT_FALSE(FileUtils::CreateFolder(P("new/chain/" + longName)));
  EXPECT_FALSE(RawExists(dir_ / "new"));
  MakeDir("old");
  EXPECT_FALSE(FileUtils::CreateFolder(P("old/chain/" + longName)));
  EXPECT_TRUE(RawIsDir(dir_ / "old"));
  EXPECT_FALSE(RawExists(dir_ / "old/chain"));
}

TEST_F(FoldersTest, RemoveFolderRemovesTheWholeTree) {
  MakeTree();
  int socketFd = -1;
  ASSERT_TRUE(zorv::test::MakeSocket(dir_ / "root/sub/sock", &socketFd));
  ASSERT_EQ(::mkfifo((dir_ / "root/sub/fifo").c_str(), 0644), 0);
  EXPECT_TRUE(FileUtils::RemoveFolder(P("root")));
  EXPECT_FALSE(RawExists(dir_ / "root"));
  ::close(socketFd);
}

TEST_F(FoldersTest, RemoveFolderRefusals) {
  MakeFile("file");
  EXPECT_FALSE(FileUtils::RemoveFolder("/"));
  EXPECT_TRUE(RawIsDir("/tmp") || RawIsDir("/usr"));
  EXPECT_FALSE(FileUtils::RemoveFolder(""));
  EXPECT_FALSE(FileUtils::RemoveFolder(P("file")));
  EXPECT_EQ(ReadRawFile(dir_ / "file"), "x");
  EXPECT_FALSE(FileUtils::RemoveFolder(P("missing")));
}

// Everything below `root` by relative path: kind plus file contents or link
// target, so that any change shows. Links are not followed.
std::map<std::string, std::string> Snapshot(const std::string& root) {
  namespace fs = std::filesystem;
  std::map<std::string, std::string> result;
  std::error_code error;
  for (fs::recursive_directory_iterator it(root, error), end; !error && it != end;
       it.increment(error)) {
    const fs::path& path = it->path();
    const std::string relative = path.lexically_relative(root).string();
    if (it->is_symlink()) {
      result[relative] = "link " + fs::read_symlink(path).string();
    } else if (it->is_directory()) {
      result[relative] = "folder";
    } else {
      std::ifstream in(path, std::ios::binary);
      std::ostringstream bytes;
      bytes << in.rdbuf();
      result[relative] = "file " + bytes.str();
    }
  }
  return result;
}

// One hostile tree: `build` makes it in a fresh folder (where "outside/keep"
// already exists), `run` calls the library and gives what it returned.
// "outside" must come through unchanged; `present` and `absent` list
// relative paths to check afterwards. With `swap` set, the entry "victim"
// is swapped for a link to "outside" before its swap-th opening (0 = first)
// during `run`.
struct HostileCase {
  const char* name;
  std::function<void(const std::string& base)> build;
  std::function<bool(const std::string& base)> run;
  bool expected;
  std::vector<std::string> present;
  std::vector<std::string> absent;
  int swap = -1;
};

void Link(const std::string& target, const std::string& at) {
  ASSERT_EQ(::symlink(target.c_str(), at.c_str()), 0) << at;
}

void Folder(const std::string& at) { ASSERT_EQ(::mkdir(at.c_str(), 0755), 0) << at; }

void File(const std::string& at) { ASSERT_TRUE(WriteRawFile(at, "f")) << at; }

bool Remove(const std::string& path) { return FileUtils::RemoveFolder(path.c_str()); }

bool Copy(const std::string& from, const std::string& to) {
  return FileUtils::CopyFolder(from.c_str(), to.c_str());
}

// Whether any collected path goes through the link "sub" into "outside".
bool ListsOutside(const Vector<SafeString>& found) {
  for (const SafeString& path : found) {
    if (S(path).find("keep") != std::string::npos) return true;
  }
  return false;
}

TEST_F(FoldersTest, HostileTreesStayInside) {
  std::vector<int> sockets;
  const HostileCase cases[] = {
      {"link to a folder as the argument",
       [](const std::string& b) { Link(b + "/outside", b + "/arg"); },
       [](const std::string& b) { return Remove(b + "/arg"); }, true, {}, {"arg"}},
      {"link to a folder with a trailing separator",
       [](const std::string& b) { Link(b + "/outside", b + "/arg"); },
       [](const std::string& b) { return Remove(b + "/arg/"); }, true, {}, {"arg"}},
      {"link to a file as the argument",
       [](const std::string& b) { Link(b + "/outside/keep", b + "/arg"); },
       [](const std::string& b) { return Remove(b + "/arg"); }, false, {"arg"}, {}},
      {"links inside are removed as links",
       [](const std::string& b) {
         Folder(b + "/tree");
         Link(b + "/outside", b + "/tree/linkdir");
         Link(b + "/outside/keep", b + "/tree/linkfile");
         Link(b + "/nothing", b + "/tree/dangling");
       },
       [](const std::string& b) { return Remove(b + "/tree"); }, true, {}, {"tree"}},
      {"a name leading back up is refused",
       [](const std::string& b) { Folder(b + "/tree"); Folder(b + "/tree/sub"); },
       [](const std::string& b) { return Remove(b + "/tree/sub/.."); }, false, {"tree/sub"}, {}},
      {"link loops are removed",
       [](const std::string& b) {
         Folder(b + "/tree");
         Folder(b + "/tree/sub");
         Link("../..", b + "/tree/sub/back");
         Link(".", b + "/tree/self");
       },
       [](const std::string& b) { return Remove(b + "/tree"); }, true, {}, {"tree"}},
      {"link loops end a search: links are listed, never entered",
       [](const std::string& b) {
         Folder(b + "/tree");
         Folder(b + "/tree/sub");
         File(b + "/tree/sub/f");
         Link("..", b + "/tree/sub/up");
         Link(b + "/outside", b + "/tree/out");
       },
       [](const std::string& b) {
         const SafeString tree = (b + "/tree").c_str();
         return Sorted(FileUtils::SearchFiles(tree, 5, {})) ==
                    std::vector<std::string>{"/sub/f"} &&
                Sorted(FileUtils::SearchFolders(tree, 5)) ==
                    std::vector<std::string>{"/out", "/sub", "/sub/up"};
       },
       true, {}, {}},
      {"a link loop fails a copy",
       [](const std::string& b) {
         Folder(b + "/tree");
         Folder(b + "/tree/sub");
         File(b + "/tree/sub/f");
         Link("..", b + "/tree/sub/up");
       },
       [](const std::string& b) { return Copy(b + "/tree", b + "/copy"); }, false, {}, {"copy"}},
      {"a target inside the source fails a copy",
       [](const std::string& b) { Folder(b + "/tree"); File(b + "/tree/f"); },
       [](const std::string& b) { return Copy(b + "/tree", b + "/tree/inner"); }, false,
       {"tree/f"}, {"tree/inner"}},
      {"folder swapped for a link while removed",
       [](const std::string& b) {
         Folder(b + "/tree");
         Folder(b + "/tree/victim");
         File(b + "/tree/victim/f");
       },
       [](const std::string& b) { return Remove(b + "/tree"); }, true, {}, {"tree"}, 0},
      {"target folder swapped for a link while copied",
       [](const std::string& b) {
         Folder(b + "/tree");
         Folder(b + "/tree/victim");
         File(b + "/tree/victim/f");
       },
       // The first opening is the source's, the second the target's.
       [](const std::string& b) { return Copy(b + "/tree", b + "/copy"); }, false, {}, {"copy"},
       1},
      {"folder swapped for a link while searched",
       [](const std::string& b) {
         Folder(b + "/tree");
         Folder(b + "/tree/victim");
         File(b + "/tree/victim/f");
       },
       [](const std::string& b) {
         return !ListsOutside(FileUtils::SearchFiles((b + "/tree").c_str(), 4, {}));
       },
       true, {"tree/victim.moved/f", "tree/victim"}, {}, 0},
      {"backslashes are part of names on disk",
       [](const std::string& b) {
         Folder(b + "/tree");
         Folder(b + "/tree/f\\..");
         File(b + "/tree/f\\../planted");
         File(b + "/tree/a\\b");
       },
       [](const std::string& b) { return Copy(b + "/tree", b + "/copy"); }, true,
       {"copy/f\\../planted", "copy/a\\b"}, {"planted", "b", "copy/b"}},
      {"backslash names are removed",
       [](const std::string& b) {
         Folder(b + "/tree");
         Folder(b + "/tree/x\\..\\..");
         File(b + "/tree/x\\..\\../f");
       },
       [](const std::string& b) { return Remove(b + "/tree"); }, true, {}, {"tree"}},
      {"a link in an existing target is not written through",
       [](const std::string& b) {
         Folder(b + "/tree");
         File(b + "/tree/keep");
         Folder(b + "/existing");
         Link(b + "/outside/keep", b + "/existing/keep");
       },
       [](const std::string& b) { return Copy(b + "/tree", b + "/existing"); }, false,
       {"existing/keep"}, {}},
      {"a FIFO in an existing target is neither waited on nor removed",
       [](const std::string& b) {
         Folder(b + "/tree");
         File(b + "/tree/pipe");
         Folder(b + "/existing");
         ASSERT_EQ(::mkfifo((b + "/existing/pipe").c_str(), 0644), 0);
       },
       [](const std::string& b) { return Copy(b + "/tree", b + "/existing"); }, false,
       {"existing/pipe"}, {}},
      {"an entry that cannot be copied fails the copy",
       [&sockets](const std::string& b) {
         Folder(b + "/tree");
         Folder(b + "/tree/sub");
         File(b + "/tree/a");
         int fd = -1;
         ASSERT_TRUE(zorv::test::MakeSocket(b + "/tree/sub/sock", &fd));
         sockets.push_back(fd);
       },
       [](const std::string& b) { return Copy(b + "/tree", b + "/copy"); }, false, {}, {"copy"}},
  };
  int index = 0;
  for (const HostileCase& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string base = dir_ / std::to_string(index++);
    Folder(base);
    Folder(base + "/outside");
    File(base + "/outside/keep");
    c.build(base);
    const auto before = Snapshot(base + "/outside");
    if (c.swap >= 0) ZorvTestSwapBeforeOpen("victim", (base + "/outside").c_str(), c.swap);
    EXPECT_EQ(c.run(base), c.expected);
    ZorvTestSwapBeforeOpen("", "", 0);
    EXPECT_EQ(Snapshot(base + "/outside"), before);
    for (const std::string& path : c.present) EXPECT_TRUE(RawExists(base + "/" + path)) << path;
    for (const std::string& path : c.absent) EXPECT_FALSE(RawExists(base + "/" + path)) << path;
  }
  for (int fd : sockets) ::close(fd);
}

TEST_F(FoldersTest, EverySpellingOfTheRootIsRefused) {
  MakeDir("sentinel");
  MakeFile("sentinel/keep");
  ASSERT_EQ(::symlink("/", (dir_ / "rootlink").c_str()), 0);
  // As many ".." as the scratch folder has components, and one more.
  std::string up = dir_.path();
  std::string upFromSentinel = dir_ / "sentinel/..";
  for (char c : dir_.path()) {
    if (c != '/') continue;
    up += "/..";
    upFromSentinel += "/..";
  }
  const std::vector<std::string> spellings = {
      "/", "//", "///", "\\", "/.", "/./", "/..", "/../.", "/.//..", up, up + "/", up + "/.",
      upFromSentinel, dir_ / "rootlink", dir_ / "rootlink/", dir_ / "rootlink/."};
  struct stat root;
  ASSERT_EQ(::stat("/", &root), 0);
  for (const std::string& spelling : spellings) {
    SCOPED_TRACE(spelling);
    // The table itself: each spelling leads to the root.
    struct stat info;
    if (spelling != "\\") {
      ASSERT_EQ(::stat(spelling.c_str(), &info), 0);
      ASSERT_TRUE(info.st_dev == root.st_dev && info.st_ino == root.st_ino);
    }
  }
  // The calls run in a child that, when started as root, gives up its rights
  // first, so that a regression cannot empty the machine.
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(dir_.path().c_str(), 65534, 65534), 0);
    ASSERT_EQ(::chown((dir_ / "sentinel").c_str(), 65534, 65534), 0);
  }
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(2);
    for (size_t i = 0; i < spellings.size(); ++i) {
      if (FileUtils::RemoveFolder(spellings[i].c_str())) ::_exit(10 + static_cast<int>(i));
    }
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  const int code = WEXITSTATUS(status);
  EXPECT_EQ(code, 0) << (code >= 10 && code - 10 < static_cast<int>(spellings.size())
                             ? "accepted: " + spellings[static_cast<size_t>(code - 10)]
                             : std::string("child failed"));
  EXPECT_EQ(ReadRawFile(dir_ / "sentinel/keep"), "x");
  EXPECT_TRUE(RawExists(dir_ / "rootlink"));
}

TEST_F(FoldersTest, FailedWritesRemoveEveryFolderTheyMade) {
  const std::string longName(300, 'n');
  MakeDir("a");
  struct {
    std::string path;
    bool expected;
    std::vector<std::string> present;
    std::vector<std::string> absent;
  } const cases[] = {
      // Folders reached through ".." lie outside the first one made.
      {"a/new\\..\\..\\evil/" + longName, false, {"a"}, {"a/new", "evil"}},
      {"a/new/../../evil/deeper/" + longName, false, {"a"}, {"a/new", "evil"}},
      {"made/one/two/" + longName, false, {}, {"made"}},
      // The folders made are those of the path opened.
      {"out/x\\y.txt", true, {"out/x/y.txt"}, {"out/x\\y.txt"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(FileUtils::WriteText(P(c.path), "text"), c.expected);
    for (const std::string& path : c.present) EXPECT_TRUE(RawExists(dir_ / path)) << path;
    for (const std::string& path : c.absent) EXPECT_FALSE(RawExists(dir_ / path)) << path;
  }
  EXPECT_FALSE(FileUtils::CreateFolder(P("a/new\\..\\..\\evil/" + longName)));
  EXPECT_FALSE(RawExists(dir_ / "a/new"));
  EXPECT_FALSE(RawExists(dir_ / "evil"));
  // A made folder swapped for a link before the roll-back: the link goes,
  // what it leads to stays.
  MakeDir("outside");
  MakeFile("outside/keep");
  ZorvTestSwapBeforeOpen("victim", (dir_ / "outside").c_str(), 0);
  EXPECT_FALSE(FileUtils::WriteText(P("victim/" + longName), "text"));
  ZorvTestSwapBeforeOpen("", "", 0);
  EXPECT_TRUE(RawExists(dir_ / "victim.moved"));
  EXPECT_FALSE(RawExists(dir_ / "victim"));
  EXPECT_EQ(ReadRawFile(dir_ / "outside/keep"), "x");
}

TEST_F(FoldersTest, CopyFolderCopiesTheTree) {
  MakeTree();
  ASSERT_TRUE(WriteRawFile(dir_ / "root/sub/b.txt", "bee"));
  EXPECT_TRUE(FileUtils::CopyFolder(P("root"), P("copy")));
  EXPECT_EQ(ReadRawFile(dir_ / "copy/sub/b.txt"), "bee");
  EXPECT_EQ(ReadRawFile(dir_ / "copy/sub/deep/c.TXT"), "x");
  EXPECT_TRUE(RawIsDir(dir_ / "copy/empty"));
  EXPECT_EQ(Sorted(FileUtils::SearchFiles(P("copy"), 5, {})),
            Sorted(FileUtils::SearchFiles(P("root"), 5, {})));
  EXPECT_EQ(Sorted(FileUtils::SearchFolders(P("copy"), 5)),
            Sorted(FileUtils::SearchFolders(P("root"), 5)));
}

TEST_F(FoldersTest, CopyFolderIntoAnExistingFolderKeepsItsContents) {
  MakeTree();
  MakeDir("target");
  MakeFile("target/own", "mine");
  MakeFile("target/a.txt", "to be replaced");
  EXPECT_TRUE(FileUtils::CopyFolder(P("root"), P("target")));
  EXPECT_EQ(ReadRawFile(dir_ / "target/own"), "mine");
  EXPECT_EQ(ReadRawFile(dir_ / "target/a.txt"), "x");
  EXPECT_TRUE(RawExists(dir_ / "target/sub/deep/c.TXT"));
}

TEST_F(FoldersTest, CopyFolderRefusals) {
  MakeTree();
  MakeFile("file");
  EXPECT_FALSE(FileUtils::CopyFolder(P("root"), P("root")));
  EXPECT_FALSE(FileUtils::CopyFolder(P("root"), P("x/y")));
  EXPECT_FALSE(RawExists(dir_ / "x"));
  EXPECT_FALSE(FileUtils::CopyFolder(P("file"), P("c")));
  EXPECT_FALSE(FileUtils::CopyFolder(P("missing"), P("c")));
  EXPECT_FALSE(FileUtils::CopyFolder("", P("c")));
  EXPECT_FALSE(FileUtils::CopyFolder(P("root"), ""));
  EXPECT_FALSE(FileUtils::CopyFolder(P("root"), P("file")));
  EXPECT_FALSE(RawExists(dir_ / "c"));
}

TEST_F(FoldersTest, FailedCopyFolderRemovesTheTargetItCreated) {
  MakeTree();
  // A FIFO counts as a file but cannot be copied.
  ASSERT_EQ(::mkfifo((dir_ / "root/sub/deep/fifo").c_str(), 0644), 0);
  EXPECT_FALSE(FileUtils::CopyFolder(P("root"), P("copy")));
  EXPECT_FALSE(RawExists(dir_ / "copy"));
  // An existing target stays.
  MakeDir("existing");
  MakeFile("existing/own");
  EXPECT_FALSE(FileUtils::CopyFolder(P("root"), P("existing")));
  EXPECT_EQ(ReadRawFile(dir_ / "existing/own"), "x");
}

TEST_F(FoldersTest, SearchFilesPathForms) {
  MakeTree();
  const std::string root = dir_ / "root";
  EXPECT_EQ(Sorted(FileUtils::SearchFiles(root.c_str(), 0, {})),
            (std::vector<std::string>{root + "/a.txt", root + "/atxt", root + "/b.dat",
                                      root + "/notes.txt"}));
  EXPECT_EQ(Sorted(FileUtils::SearchFiles(root.c_str(), 4, {})),
            (std::vector<std::string>{root + "/a.txt", root + "/atxt", root + "/b.dat",
                                      root + "/notes.txt", root + "/sub/b.txt",
                                      root + "/sub/deep/c.TXT"}));
  EXPECT_EQ(Sorted(FileUtils::SearchFiles(root.c_str(), 5, {})),
            (std::vector<std::string>{"/a.txt", "/atxt", "/b.dat", "/notes.txt", "/sub/b.txt",
                                      "/sub/deep/c.TXT"}));
  EXPECT_EQ(Sorted(FileUtils::SearchFiles(root.c_str(), 6, {})),
            (std::vector<std::string>{"a.txt", "atxt", "b.dat", "b.txt", "c.TXT", "notes.txt"}));
  // Bit 0 wins over bit 1.
  EXPECT_EQ(Sorted(FileUtils::SearchFiles(root.c_str(), 3, {})),
            (std::vector<std::string>{"/a.txt", "/atxt", "/b.dat", "/notes.txt"}));
  // The search path is normalised: backslashes, doubled and trailing
  // separators.
  std::string messy = root + "\\\\sub//";
  EXPECT_EQ(Strings(FileUtils::SearchFiles(messy.c_str(), 0, {})),
            (std::vector<std::string>{root + "/sub/b.txt"}));
}

TEST_F(FoldersTest, SearchFilesSuffixes) {
  MakeTree();
  const SafeString root = P("root");
  EXPECT_EQ(Sorted(FileUtils::SearchFiles(root, 2, Suffixes({"TXT"}))),
            (std::vector<std::string>{"a.txt", "atxt", "notes.txt"}));
  EXPECT_EQ(Sorted(FileUtils::SearchFiles(root, 6, Suffixes({".TXT"}))),
            (std::vector<std::string>{"a.txt", "b.txt", "c.TXT", "notes.txt"}));
  EXPECT_EQ(Sorted(FileUtils::SearchFiles(root, 2, Suffixes({".dat", ".txt"}))),
            (std::vector<std::string>{"a.txt", "b.dat", "notes.txt"}));
  EXPECT_EQ(FileUtils::SearchFiles(root, 2, Suffixes({""})).size(), 4u);
  EXPECT_TRUE(FileUtils::SearchFiles(root, 2, Suffixes({"a-very-long-suffix-indeed.txt"})).empty());
  // A file matched by two suffixes is listed once.
  EXPECT_EQ(Sorted(FileUtils::SearchFiles(root, 2, Suffixes({"txt", ".txt"}))),
            (std::vector<std::string>{"a.txt", "atxt", "notes.txt"}));
}

TEST_F(FoldersTest, SearchFoldersListsAFolderBeforeItsContents) {
  MakeTree();
  const SafeString root = P("root");
  EXPECT_EQ(Sorted(FileUtils::SearchFolders(root, 1)),
            (std::vector<std::string>{"/empty", "/sub"}));
  const std::vector<std::string> all = Strings(FileUtils::SearchFolders(root, 5));
  EXPECT_EQ(std::set<std::string>(all.begin(), all.end()),
            (std::set<std::string>{"/empty", "/sub", "/sub/deep"}));
  const auto sub = std::find(all.begin(), all.end(), "/sub");
  const auto deep = std::find(all.begin(), all.end(), "/sub/deep");
  EXPECT_LT(sub - all.begin(), deep - all.begin());
  // The subfolder's contents follow it directly.
  EXPECT_EQ(deep - sub, 1);
  // The kind bits of the caller are ignored.
  EXPECT_EQ(Sorted(FileUtils::SearchFolders(root, 0x40000002u)),
            (std::vector<std::string>{"empty", "sub"}));
  EXPECT_EQ(Sorted(FileUtils::SearchFiles(root, 0x80000002u, {})),
            (std::vector<std::string>{"a.txt", "atxt", "b.dat", "notes.txt"}));
}

TEST_F(FoldersTest, SearchesOfNothing) {
  MakeFile("file");
  EXPECT_TRUE(FileUtils::SearchFiles("", 4, {}).empty());
  EXPECT_TRUE(FileUtils::SearchFolders("", 4).empty());
  EXPECT_TRUE(FileUtils::SearchFiles(P("missing"), 4, {}).empty());
  EXPECT_TRUE(FileUtils::SearchFiles(P("file"), 4, {}).empty());
  EXPECT_TRUE(FileUtils::SearchFolders(P("file"), 4).empty());
  MakeDir("hollow");
  EXPECT_TRUE(FileUtils::SearchFiles(P("hollow"), 4, {}).empty());
}

TEST_F(FoldersTest, SearchCountsSocketsAsFoldersAndFifosAsFiles) {
  MakeDir("kinds");
  int socketFd = -1;
  ASSERT_TRUE(zorv::test::MakeSocket(dir_ / "kinds/sock", &socketFd));
  ASSERT_EQ(::mkfifo((dir_ / "kinds/fifo").c_str(), 0644), 0);
  ASSERT_EQ(::symlink((dir_ / "kinds").c_str(), (dir_ / "kinds/self").c_str()), 0);
  EXPECT_EQ(Sorted(FileUtils::SearchFolders(P("kinds"), 2)),
            (std::vector<std::string>{"self", "sock"}));
  EXPECT_EQ(Sorted(FileUtils::SearchFiles(P("kinds"), 2, {})), (std::vector<std::string>{"fifo"}));
  ::close(socketFd);
}

TEST_F(FoldersTest, SearchOfTheRootGivesSingleSeparators) {
  const std::vector<std::string> top = Strings(FileUtils::SearchFolders("/", 0));
  ASSERT_FALSE(top.empty());
  for (const std::string& path : top) {
    SCOPED_TRACE(path);
    EXPECT_EQ(path.compare(0, 1, "/"), 0);
    EXPECT_NE(path.compare(0, 2, "//"), 0);
  }
}

TEST_F(FoldersTest, ProcessDescriptorFolderCanBeListed) {
  const std::string fds = "/proc/" + std::to_string(::getpid()) + "/fd";
  if (!RawIsDir(fds)) GTEST_SKIP() << "no /proc";
  const std::vector<std::string> names = Strings(FileUtils::SearchFiles(fds.c_str(), 2, {}));
  EXPECT_NE(std::find(names.begin(), names.end(), "0"), names.end());
}

// Each call runs with its n-th allocation failing, for n = 1, 2, ... until
// it succeeds; in the sticky mode every allocation after that one fails as
// well, so a clean-up that needs memory would leave things behind.
TEST_F(FoldersTest, AllocationFailuresLeaveNothingHalfMade) {
  MakeTree();
  const SafeString root = P("root");
  const SafeString copy = P("copy");
  const SafeString deep = P("made/one/../../two/three/file.txt");
  for (const bool sticky : {false, true}) {
    SCOPED_TRACE(sticky ? "every later allocation fails too" : "one allocation fails");
    std::filesystem::remove_all(dir_ / "copy");
    std::filesystem::remove_all(dir_ / "made");
    std::filesystem::remove_all(dir_ / "two");
    bool copied = false;
    bool written = false;
    for (unsigned int n = 1; n < 400 && !(copied && written); ++n) {
      SCOPED_TRACE("failing allocation " + std::to_string(n));
      // Runs `call` with allocation n failing; true when it threw bad_alloc.
      auto failing = [&](const std::function<void()>& call) {
        bool threw = false;
        ZorvTestStickyAllocFailure(sticky);
        {
          zorv::test::FailAfterGuard fail(n);
          try {
            call();
          } catch (const std::bad_alloc&) {
            threw = true;
          }
        }
        ZorvTestStickyAllocFailure(false);
        return threw;
      };
      if (!copied) {
        const bool threw = failing([&] { copied = FileUtils::CopyFolder(root, copy); });
        EXPECT_EQ(RawExists(dir_ / "copy"), copied);
        EXPECT_TRUE(threw || copied);
      }
      if (!written) {
        const bool threw = failing([&] { written = FileUtils::WriteText(deep, "text"); });
        EXPECT_EQ(RawExists(dir_ / "made"), written);
        EXPECT_EQ(RawExists(dir_ / "two"), written);
        EXPECT_TRUE(threw || written);
      }
      (void)failing([&] {
        Vector<SafeString> found = FileUtils::SearchFiles(root, 4, Suffixes({".txt"}));
        EXPECT_EQ(found.size(), 4u);
      });
    }
    EXPECT_TRUE(copied);
    EXPECT_TRUE(written);
    EXPECT_EQ(ReadRawFile(dir_ / "two/three/file.txt"), "text");
  }
}

}  // namespace
