// Tests of FileUtils' folder half: creation with parents, removal, copying
// and the searches with their flag word and path forms.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "file/filetestutil.h"
#include "foundation/file/fileutils.h"
#include "support/leakcheck.h"
#include "support/tempdir.h"

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

TEST_F(FoldersTest, RemoveFolderRemovesLinksWithoutFollowingThem) {
  MakeDir("outside");
  MakeFile("outside/keep");
  MakeDir("tree");
  ASSERT_EQ(::symlink((dir_ / "outside").c_str(), (dir_ / "tree/linkdir").c_str()), 0);
  ASSERT_EQ(::symlink((dir_ / "outside/keep").c_str(), (dir_ / "tree/linkfile").c_str()), 0);
  ASSERT_EQ(::symlink((dir_ / "nothing").c_str(), (dir_ / "tree/dangling").c_str()), 0);
  EXPECT_TRUE(FileUtils::RemoveFolder(P("tree")));
  EXPECT_FALSE(RawExists(dir_ / "tree"));
  EXPECT_EQ(ReadRawFile(dir_ / "outside/keep"), "x");
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

TEST_F(FoldersTest, AllocationFailuresLeaveNothingHalfMade) {
  MakeTree();
  const SafeString root = P("root");
  const SafeString copy = P("copy");
  const SafeString deep = P("made/one/two/file.txt");
  bool copied = false;
  bool written = false;
  for (unsigned int n = 1; n < 400 && !(copied && written); ++n) {
    SCOPED_TRACE("failing allocation " + std::to_string(n));
    if (!copied) {
      bool threw = false;
      {
        zorv::test::FailAfterGuard fail(n);
        try {
          copied = FileUtils::CopyFolder(root, copy);
        } catch (const std::bad_alloc&) {
          threw = true;
        }
      }
      EXPECT_EQ(RawExists(dir_ / "copy"), copied);
      EXPECT_TRUE(threw || copied);
    }
    if (!written) {
      bool threw = false;
      {
        zorv::test::FailAfterGuard fail(n);
        try {
          written = FileUtils::WriteText(deep, "text");
        } catch (const std::bad_alloc&) {
          threw = true;
        }
      }
      EXPECT_EQ(RawExists(dir_ / "made"), written);
      EXPECT_TRUE(threw || written);
    }
    {
      zorv::test::FailAfterGuard fail(n);
      try {
        Vector<SafeString> found = FileUtils::SearchFiles(root, 4, Suffixes({".txt"}));
        EXPECT_EQ(found.size(), 4u);
      } catch (const std::bad_alloc&) {
      }
    }
  }
  EXPECT_TRUE(copied);
  EXPECT_TRUE(written);
  EXPECT_EQ(ReadRawFile(dir_ / "made/one/two/file.txt"), "text");
}

}  // namespace
