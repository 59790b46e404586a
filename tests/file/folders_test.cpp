// Tests of FileUtils' folder half: creation with parents, removal, copying
// and the searches with their flag word and path forms.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

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
using zorv::test::At;
using zorv::test::Build;
using zorv::test::FileCase;
using zorv::test::RawExists;
using zorv::test::RawIsDir;
using zorv::test::ReadRawFile;
using zorv::test::Snapshot;
using zorv::test::TempDir;

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

// root/a.txt, root/notes.txt, root/atxt, root/b.dat, root/sub/b.txt,
// root/sub/deep/c.TXT, root/empty/
const std::vector<std::string> kTree = {
    "root/",     "root/a.txt=x",     "root/notes.txt=x", "root/atxt=x",           "root/b.dat=x",
    "root/sub/", "root/sub/b.txt=x", "root/sub/deep/",   "root/sub/deep/c.TXT=x", "root/empty/"};

// kTree with its "root/" prefix replaced by `prefix`.
std::vector<std::string> TreeAt(const std::string& prefix) {
  std::vector<std::string> items;
  for (const std::string& item : kTree) items.push_back(prefix + item.substr(5));
  return items;
}

std::vector<std::string> Plus(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  std::sort(a.begin(), a.end());
  return a;
}

class FoldersTest : public zorv::test::LeakCheckedTest {
 protected:
  SafeString P(const std::string& relative) const { return SafeString((dir_ / relative).c_str()); }
  TempDir dir_;
};

std::function<bool(const TempDir&)> Create(const std::string& path) {
  return [=](const TempDir& b) { return FileUtils::CreateFolder(At(b, path)); };
}
std::function<bool(const TempDir&)> Remove(const std::string& path) {
  return [=](const TempDir& b) { return FileUtils::RemoveFolder(At(b, path)); };
}
std::function<bool(const TempDir&)> Copy(const std::string& from, const std::string& to) {
  return [=](const TempDir& b) { return FileUtils::CopyFolder(At(b, from), At(b, to)); };
}
std::function<bool(const TempDir&)> Write(const std::string& path) {
  return [=](const TempDir& b) { return FileUtils::WriteText(At(b, path), "text"); };
}

TEST_F(FoldersTest, CreateRemoveCopyAndWriteTables) {
  const std::string longName(300, 'n');
  const std::vector<std::string> twoFolders = {"a/", "a/b/", "a/b/c/"};
  const std::vector<FileCase> cases = {
      {"create with parents", {}, Create("a/b/c"), true, twoFolders},
      {"create with a trailing separator", {}, Create("a/b/c/"), true, twoFolders},
      {"create nothing", {}, Create(""), false, {}},
      {"create what exists", {"have/"}, Create("have"), false, {"have/"}},
      {"create a file", {"f=x"}, Create("f"), false, {"f=x"}},
      {"create below a file", {"f=x"}, Create("f/sub/deeper"), false, {"f=x"}},
      {"failed create removes what it made", {}, Create("new/chain/" + longName), false, {}},
      {"failed create keeps a parent", {"old/"}, Create("old/chain/" + longName), false, {"old/"}},
      {"failed create through '..'",
       {"a/"},
       Create("a/new\\..\\..\\evil/" + longName),
       false,
       {"a/"}},
      {"remove a tree", kTree, Remove("root"), true, {}},
      {"remove nothing", {}, Remove(""), false, {}},
      {"remove a file", {"f=x"}, Remove("f"), false, {"f=x"}},
      {"remove a missing folder", {}, Remove("missing"), false, {}},
      // Folders reached through ".." lie outside the first one made.
      {"write through '\\..'", {"a/"}, Write("a/new\\..\\..\\evil/" + longName), false, {"a/"}},
      {"write through '/..'", {"a/"}, Write("a/new/../../evil/deeper/" + longName), false, {"a/"}},
      {"failed write removes a chain", {}, Write("made/one/two/" + longName), false, {}},
      // The folders made are those of the path opened.
      {"write splits at '\\'",
       {},
       Write("out/x\\y.txt"),
       true,
       {"out/", "out/x/", "out/x/y.txt=text"}},
      {"copy a tree", kTree, Copy("root", "copy"), true, Plus(kTree, TreeAt("copy/"))},
      {"copy into an existing folder", Plus(kTree, {"t/", "t/own=mine", "t/a.txt=old"}),
       Copy("root", "t"), true, Plus(kTree, Plus(TreeAt("t/"), {"t/own=mine"}))},
      {"copy onto itself", kTree, Copy("root", "root"), false, kTree},
      {"copy into a missing folder", kTree, Copy("root", "x/y"), false, kTree},
      {"copy a file", {"f=x"}, Copy("f", "c"), false, {"f=x"}},
      {"copy a missing folder", {}, Copy("missing", "c"), false, {}},
      {"copy from nothing", {}, Copy("", "c"), false, {}},
      {"copy to nothing", kTree, Copy("root", ""), false, kTree},
      {"copy onto a file", Plus(kTree, {"f=x"}), Copy("root", "f"), false, Plus(kTree, {"f=x"})},
      // A FIFO counts as a file but cannot be copied; an existing target stays.
      {"failed copy removes its target",
       {"s/", "s/d/", "s/d/f=x"},
       [](const TempDir& b) {
         return ::mkfifo((b / "s/d/fifo").c_str(), 0644) == 0 &&
                FileUtils::CopyFolder(At(b, "s"), At(b, "copy"));
       },
       false,
       {"s/", "s/d/", "s/d/f=x", "s/d/fifo?"}},
      {"failed copy keeps an existing target",
       {"s/", "s/z=x", "e/", "e/own=x"},
       [](const TempDir& b) {
         return ::mkfifo((b / "s/fifo").c_str(), 0644) == 0 &&
                FileUtils::CopyFolder(At(b, "s"), At(b, "e"));
       },
       false,
       {"e/", "e/own=x", "s/", "s/fifo?", "s/z=x"}},
  };
  zorv::test::RunFileCases(cases);
  const int mode = 0755 & ~zorv::test::CurrentUmask();
  ASSERT_TRUE(FileUtils::CreateFolder(P("m/n")));
  EXPECT_EQ(zorv::test::RawMode(dir_ / "m"), mode);
  EXPECT_EQ(zorv::test::RawMode(dir_ / "m/n"), mode);
}

TEST_F(FoldersTest, SocketsAndFifosAreRemovedWithTheirFolder) {
  ASSERT_TRUE(Build(dir_.path(), {"d/", "d/s/"}));
  int socketFd = -1;
  ASSERT_TRUE(zorv::test::MakeSocket(dir_ / "d/s/sock", &socketFd));
  ASSERT_EQ(::mkfifo((dir_ / "d/s/fifo").c_str(), 0644), 0);
  EXPECT_TRUE(FileUtils::RemoveFolder(P("d")));
  EXPECT_FALSE(RawExists(dir_ / "d"));
  ::close(socketFd);
}

// One hostile tree: `build` lists it (see Build) in a fresh folder where
// "outside/keep" exists and "$" stands for that folder, `run` calls the
// library and gives what it returned. "outside" must come through
// unchanged; `present` and `absent` list relative paths to check afterwards.
// With `swap` set, the entry "victim" is swapped for a link to "outside"
// before its swap-th opening (0 = first) during `run`.
struct HostileCase {
  const char* name;
  std::vector<std::string> build;
  std::function<bool(const std::string& base)> run;
  bool expected;
  std::vector<std::string> present;
  std::vector<std::string> absent;
  int swap = -1;
};

bool RemoveAt(const std::string& path) { return FileUtils::RemoveFolder(path.c_str()); }

bool CopyAt(const std::string& from, const std::string& to) {
  return FileUtils::CopyFolder(from.c_str(), to.c_str());
}

TEST_F(FoldersTest, HostileTreesStayInside) {
  const std::vector<std::string> victim = {"tree/", "tree/victim/", "tree/victim/f=f"};
  const std::vector<std::string> loop = {"tree/", "tree/sub/", "tree/sub/f=f", "tree/sub/up->.."};
  const HostileCase cases[] = {
      {"link to a folder as the argument",
       {"arg->$/outside"},
       [](const std::string& b) { return RemoveAt(b + "/arg"); },
       true,
       {},
       {"arg"}},
      {"link to a folder with a trailing separator",
       {"arg->$/outside"},
       [](const std::string& b) { return RemoveAt(b + "/arg/"); },
       true,
       {},
       {"arg"}},
      {"link to a file as the argument",
       {"arg->$/outside/keep"},
       [](const std::string& b) { return RemoveAt(b + "/arg"); },
       false,
       {"arg"},
       {}},
      {"links inside are removed as links",
       {"tree/", "tree/linkdir->$/outside", "tree/linkfile->$/outside/keep",
        "tree/dangling->$/nothing"},
       [](const std::string& b) { return RemoveAt(b + "/tree"); },
       true,
       {},
       {"tree"}},
      {"a name leading back up is refused",
       {"tree/", "tree/sub/"},
       [](const std::string& b) { return RemoveAt(b + "/tree/sub/.."); },
       false,
       {"tree/sub"},
       {}},
      {"link loops are removed",
       {"tree/", "tree/sub/", "tree/sub/back->../..", "tree/self->."},
       [](const std::string& b) { return RemoveAt(b + "/tree"); },
       true,
       {},
       {"tree"}},
      {"link loops end a search: links are listed, never entered",
       Plus(loop, {"tree/out->$/outside"}),
       [](const std::string& b) {
         const SafeString tree = (b + "/tree").c_str();
         return Sorted(FileUtils::SearchFiles(tree, 5, {})) == std::vector<std::string>{"/sub/f"} &&
                Sorted(FileUtils::SearchFolders(tree, 5)) ==
                    std::vector<std::string>{"/out", "/sub", "/sub/up"};
       },
       true,
       {},
       {}},
      {"a link loop fails a copy",
       loop,
       [](const std::string& b) { return CopyAt(b + "/tree", b + "/copy"); },
       false,
       {},
       {"copy"}},
      {"a target inside the source fails a copy",
       {"tree/", "tree/f=f"},
       [](const std::string& b) { return CopyAt(b + "/tree", b + "/tree/inner"); },
       false,
       {"tree/f"},
       {"tree/inner"}},
      {"folder swapped for a link while removed",
       victim,
       [](const std::string& b) { return RemoveAt(b + "/tree"); },
       true,
       {},
       {"tree"},
       0},
      // The first opening is the source's, the second the target's.
      {"target folder swapped for a link while copied",
       victim,
       [](const std::string& b) { return CopyAt(b + "/tree", b + "/copy"); },
       false,
       {},
       {"copy"},
       1},
      {"folder swapped for a link while searched",
       victim,
       [](const std::string& b) {
         for (const SafeString& path : FileUtils::SearchFiles((b + "/tree").c_str(), 4, {})) {
           if (S(path).find("keep") != std::string::npos) return false;
         }
         return true;
       },
       true,
       {"tree/victim.moved/f", "tree/victim"},
       {},
       0},
      {"backslashes are part of names on disk",
       {"tree/", "tree/f\\../", "tree/f\\../planted=f", "tree/a\\b=f"},
       [](const std::string& b) { return CopyAt(b + "/tree", b + "/copy"); },
       true,
       {"copy/f\\../planted", "copy/a\\b"},
       {"planted", "b", "copy/b"}},
      {"backslash names are removed",
       {"tree/", "tree/x\\..\\../", "tree/x\\..\\../f=f"},
       [](const std::string& b) { return RemoveAt(b + "/tree"); },
       true,
       {},
       {"tree"}},
      {"a link in an existing target is not written through",
       {"tree/", "tree/keep=f", "existing/", "existing/keep->$/outside/keep"},
       [](const std::string& b) { return CopyAt(b + "/tree", b + "/existing"); },
       false,
       {"existing/keep"},
       {}},
  };
  int index = 0;
  for (const HostileCase& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string base = dir_ / std::to_string(index++);
    ASSERT_EQ(::mkdir(base.c_str(), 0755), 0);
    std::vector<std::string> items = {"outside/", "outside/keep=x"};
    for (std::string item : c.build) {
      const size_t dollar = item.find('$');
      if (dollar != std::string::npos) item.replace(dollar, 1, base);
      items.push_back(item);
    }
    ASSERT_TRUE(Build(base, items));
    if (c.swap >= 0) ZorvTestSwapBeforeOpen("victim", (base + "/outside").c_str(), c.swap);
    EXPECT_EQ(c.run(base), c.expected);
    ZorvTestSwapBeforeOpen("", "", 0);
    EXPECT_EQ(Snapshot(base + "/outside"), std::vector<std::string>{"keep=x"});
    for (const std::string& path : c.present) EXPECT_TRUE(RawExists(base + "/" + path)) << path;
    for (const std::string& path : c.absent) EXPECT_FALSE(RawExists(base + "/" + path)) << path;
  }
}

// A FIFO in an existing target is neither waited on nor removed; an entry
// that cannot be copied (a socket) fails the copy.
TEST_F(FoldersTest, CopyRefusesEntriesItCannotCopy) {
  ASSERT_TRUE(Build(dir_.path(), {"tree/", "tree/pipe=f", "existing/", "s/", "s/sub/", "s/a=x"}));
  ASSERT_EQ(::mkfifo((dir_ / "existing/pipe").c_str(), 0644), 0);
  int socketFd = -1;
  ASSERT_TRUE(zorv::test::MakeSocket(dir_ / "s/sub/sock", &socketFd));
  EXPECT_FALSE(FileUtils::CopyFolder(P("tree"), P("existing")));
  EXPECT_EQ(Snapshot(dir_ / "existing"), std::vector<std::string>{"pipe?"});
  EXPECT_FALSE(FileUtils::CopyFolder(P("s"), P("copy")));
  EXPECT_FALSE(RawExists(dir_ / "copy"));
  ::close(socketFd);
}

TEST_F(FoldersTest, EverySpellingOfTheRootIsRefused) {
  ASSERT_TRUE(Build(dir_.path(), {"sentinel/", "sentinel/keep=x"}));
  ASSERT_EQ(::symlink("/", (dir_ / "rootlink").c_str()), 0);
  // As many ".." as the scratch folder has components, and one more.
  std::string up = dir_.path();
  std::string upFromSentinel = dir_ / "sentinel/..";
  for (char c : dir_.path()) {
    if (c != '/') continue;
    up += "/..";
    upFromSentinel += "/..";
  }
  const std::vector<std::string> spellings = {"/",
                                              "//",
                                              "///",
                                              "\\",
                                              "/.",
                                              "/./",
                                              "/..",
                                              "/../.",
                                              "/.//..",
                                              up,
                                              up + "/",
                                              up + "/.",
                                              upFromSentinel,
                                              dir_ / "rootlink",
                                              dir_ / "rootlink/",
                                              dir_ / "rootlink/."};
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

TEST_F(FoldersTest, MadeFolderSwappedForALinkBeforeItsRollBack) {
  // The link goes, what it leads to stays.
  ASSERT_TRUE(Build(dir_.path(), {"outside/", "outside/keep=x"}));
  ZorvTestSwapBeforeOpen("victim", (dir_ / "outside").c_str(), 0);
  EXPECT_FALSE(FileUtils::WriteText(P("victim/" + std::string(300, 'n')), "text"));
  ZorvTestSwapBeforeOpen("", "", 0);
  EXPECT_EQ(Snapshot(dir_.path()),
            (std::vector<std::string>{"outside/", "outside/keep=x", "victim.moved/"}));
}

TEST_F(FoldersTest, Searches) {
  ASSERT_TRUE(Build(dir_.path(), kTree));
  ASSERT_TRUE(Build(dir_.path(), {"hollow/", "file=x", "kinds/", "kinds/self->" + dir_ / "kinds"}));
  int socketFd = -1;
  ASSERT_TRUE(zorv::test::MakeSocket(dir_ / "kinds/sock", &socketFd));
  ASSERT_EQ(::mkfifo((dir_ / "kinds/fifo").c_str(), 0644), 0);
  const std::string r = dir_ / "root";
  const std::vector<std::string> top = {"/a.txt", "/atxt", "/b.dat", "/notes.txt"};
  const std::vector<std::string> topNames = {"a.txt", "atxt", "b.dat", "notes.txt"};
  struct Case {
    bool folders;
    std::string path;
    unsigned int flags;
    Vector<SafeString> suffixes;
    std::vector<std::string> expected;
  };
  const std::vector<Case> cases = {
      {false, r, 0, {}, {r + "/a.txt", r + "/atxt", r + "/b.dat", r + "/notes.txt"}},
      {false,
       r,
       4,
       {},
       {r + "/a.txt", r + "/atxt", r + "/b.dat", r + "/notes.txt", r + "/sub/b.txt",
        r + "/sub/deep/c.TXT"}},
      {false,
       r,
       5,
       {},
       {"/a.txt", "/atxt", "/b.dat", "/notes.txt", "/sub/b.txt", "/sub/deep/c.TXT"}},
      {false, r, 6, {}, {"a.txt", "atxt", "b.dat", "b.txt", "c.TXT", "notes.txt"}},
      // Bit 0 wins over bit 1; the kind bits of the caller are ignored.
      {false, r, 3, {}, top},
      {false, r, 0x80000002u, {}, topNames},
      {true, r, 0x40000002u, {}, {"empty", "sub"}},
      {true, r, 1, {}, {"/empty", "/sub"}},
      // The search path is normalised.
      {false, r + "\\\\sub//", 0, {}, {r + "/sub/b.txt"}},
      {false, r, 2, Suffixes({"TXT"}), {"a.txt", "atxt", "notes.txt"}},
      {false, r, 6, Suffixes({".TXT"}), {"a.txt", "b.txt", "c.TXT", "notes.txt"}},
      {false, r, 2, Suffixes({".dat", ".txt"}), {"a.txt", "b.dat", "notes.txt"}},
      {false, r, 2, Suffixes({""}), topNames},
      {false, r, 2, Suffixes({"a-very-long-suffix-indeed.txt"}), {}},
      // A file matched by two suffixes is listed once.
      {false, r, 2, Suffixes({"txt", ".txt"}), {"a.txt", "atxt", "notes.txt"}},
      // Sockets count as folders, FIFOs as files; links are listed.
      {true, dir_ / "kinds", 2, {}, {"self", "sock"}},
      {false, dir_ / "kinds", 2, {}, {"fifo"}},
      {false, "", 4, {}, {}},
      {true, "", 4, {}, {}},
      {false, dir_ / "missing", 4, {}, {}},
      {false, dir_ / "file", 4, {}, {}},
      {true, dir_ / "file", 4, {}, {}},
      {false, dir_ / "hollow", 4, {}, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE((c.folders ? "SearchFolders('" : "SearchFiles('") + c.path + "', " +
                 std::to_string(c.flags) + ")");
    EXPECT_EQ(Sorted(c.folders ? FileUtils::SearchFolders(c.path.c_str(), c.flags)
                               : FileUtils::SearchFiles(c.path.c_str(), c.flags, c.suffixes)),
              c.expected);
  }
  ::close(socketFd);
  // A folder comes before its contents, which follow it directly.
  const std::vector<std::string> all = Strings(FileUtils::SearchFolders(r.c_str(), 5));
  ASSERT_EQ(all.size(), 3u);
  const auto sub = std::find(all.begin(), all.end(), "/sub");
  ASSERT_NE(sub + 1, all.end());
  EXPECT_EQ(*(sub + 1), "/sub/deep");
}

TEST_F(FoldersTest, SearchOfTheRootAndOfProc) {
  const std::vector<std::string> top = Strings(FileUtils::SearchFolders("/", 0));
  ASSERT_FALSE(top.empty());
  for (const std::string& path : top) {
    SCOPED_TRACE(path);
    EXPECT_EQ(path.compare(0, 1, "/"), 0);
    EXPECT_NE(path.compare(0, 2, "//"), 0);
  }
  const std::string fds = "/proc/" + std::to_string(::getpid()) + "/fd";
  if (!RawIsDir(fds)) GTEST_SKIP() << "no /proc";
  const std::vector<std::string> names = Strings(FileUtils::SearchFiles(fds.c_str(), 2, {}));
  EXPECT_NE(std::find(names.begin(), names.end(), "0"), names.end());
}

// Each call runs with its n-th allocation failing, for n = 1, 2, ... until
// it succeeds; in the sticky mode every allocation after that one fails as
// well, so a clean-up that needs memory would leave things behind.
TEST_F(FoldersTest, AllocationFailuresLeaveNothingHalfMade) {
  ASSERT_TRUE(Build(dir_.path(), kTree));
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
