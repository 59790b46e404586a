// Tests of FileUtils' folder half: creation with parents, removal, copying
// and the searches with their flag word and path forms.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <tuple>

#include "file/filetestutil.h"
#include "support/forked.h"

// Test hooks (folders_hooks.cpp).
extern "C" void ZorvTestStickyAllocFailure(bool on);
extern "C" void ZorvTestFailListing(int skip);
extern "C" void ZorvTestFailMakeFolder(const char* name);
extern "C" void ZorvTestLogCalls(char* log, int room);
extern "C" void ZorvTestFailStat(const char* path, int skip);
extern "C" void ZorvTestFillBeforeRemoval(const char* name, int times);
extern "C" int ZorvTestFolderCalls(bool removals);

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::file::FileUtils;
using zorv::test::Build;
using zorv::test::Op;
using zorv::test::WithOpenHook;
using zorv::test::RawExists;
using zorv::test::ReadRawFile;

std::vector<std::string> Sorted(const Vector<SafeString>& list, bool sort = true) {
  std::vector<std::string> result;
  for (const SafeString& s : list) result.emplace_back(s.data(), s.size());
  if (sort) std::sort(result.begin(), result.end());
  return result;
}

// kTree below `prefix` (see Build), sorted.
std::vector<std::string> Tree(const std::string& prefix = "root/") {
  std::vector<std::string> items;
  for (const char* item : {"", "a.txt=x", "atxt=x", "b.dat=x", "empty/", "notes.txt=x", "sub/",
                           "sub/b.txt=x", "sub/deep/", "sub/deep/c.TXT=x"}) {
    items.push_back(prefix + item);
  }
  return items;
}

std::vector<std::string> Plus(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  std::sort(a.begin(), a.end());
  return a;
}

using FoldersTest = zorv::test::FileTest;

using Call = std::function<bool(const std::string&)>;

// `call` run in a child; the child's result. With `free` >= 0 exactly that
// many descriptors are left below the child's limit; with `zeroAt` >= 0 its
// descriptor 0 is closed just before the zeroAt+1-th opening of an entry
// "d", which then gets that descriptor (a closed standard input, or another
// thread's close), and must be closed again when the call returns. A
// descriptor closed twice during the call fails the child.
Call InChild(int free, int zeroAt, Call call) {
  return [=](const std::string& b) {
    const pid_t child = zorv::test::Fork([&](int pipeEnd) {
      struct rlimit limit;
      ::getrlimit(RLIMIT_NOFILE, &limit);
      limit.rlim_cur = 64;
      if (free >= 0 && ::setrlimit(RLIMIT_NOFILE, &limit) != 0) return 2;
      std::vector<int> opened;
      for (int fd; free >= 0 && (fd = ::open("/", O_RDONLY)) >= 0;) opened.push_back(fd);
      for (int i = 0; i < free; ++i, opened.pop_back()) ::close(opened.back());
      if (zeroAt >= 0 && ::dup2(pipeEnd, 0) != 0) return 2;
      if (zeroAt >= 0) ZorvTestBeforeOpen("d", zeroAt, "", 0);
      char log[256];
      ZorvTestLogCalls(log, sizeof log);
      const bool ok = call(b);
      ZorvTestLogCalls(nullptr, 0);
      if (zeroAt >= 0 && ::fcntl(0, F_GETFD) != -1) return 4;  // descriptor 0 kept
      return std::strchr(log, 'b') != nullptr ? 3 : ok ? 1 : 0;
    });
    const int code = child > 0 ? zorv::test::WaitChild(child) : -1;
    EXPECT_TRUE(code == 0 || code == 1) << "child failed: " << code;
    return code == 1;
  };
}

// `call` while a reader holds the FIFO `fifo` (under the case's folder)
// open, so that a writer's open of it succeeds.
Call WithReader(const std::string& fifo, Call call) {
  return [=](const std::string& b) {
    const int reader = ::open((b + "/" + fifo).c_str(), O_RDONLY | O_NONBLOCK);
    EXPECT_GE(reader, 0) << fifo;
    const bool ok = call(b);
    if (reader >= 0) ::close(reader);
    return ok;
  };
}

// `call` while each of the next `times` removals of a folder "d" first
// finds a new folder in it.
Call Filled(int times, Call call) {
  return [=](const std::string& b) {
    ZorvTestFillBeforeRemoval("d", times);
    const bool ok = call(b);
    ZorvTestFillBeforeRemoval("", 0);
    return ok;
  };
}

TEST_F(FoldersTest, CreateRemoveCopyAndWrite) {
  const std::string longName(300, 'n');
  const std::vector<std::string> abc = {"a/", "a/b/", "a/b/c/"};
  const std::vector<std::string> file = {"f=x"};
  const std::vector<std::string> ownT = {"t/", "t/own=mine", "t/a.txt=old"};
  // Folders reached through ".." lie outside the first one made; the
  // folders made are those of the path opened.
  // clang-format off
  std::vector<zorv::test::FileCase> cases = {
      {"create with parents", {}, Op('m', "a/b/c"), true, abc},
      {"create with a trailing separator", {}, Op('m', "a/b/c/"), true, abc},
      {"failed create removes what it made", {}, Op('m', "new/chain/" + longName), false, {}},
      {"failed create keeps a parent", {"old/"}, Op('m', "old/chain/" + longName), false, {"old/"}},
      {"failed create through '..'", {"a/"}, Op('m', "a/new\\..\\..\\evil/" + longName), false, {"a/"}},
      {"remove a tree", Tree(), Op('R', "root"), true, {}},
      {"remove a folder named '.a'", {"d/", "d/.a/", "d/.a/f=x"}, Op('R', "d/.a"), true, {"d/"}},
      // Entries made in a folder after it was listed are found by another
      // listing, up to eight; a folder that keeps filling up fails.
      {"remove a folder filled meanwhile", {"d/", "d/f=x"}, Filled(1, Op('R', "d")), true, {}},
      {"remove a folder that keeps filling", {"d/", "d/f=x"}, Filled(8, Op('R', "d")), false,
       {"d/", "d/late0/"}},
      // A removal stops at the first entry that fails, also where a second
      // listing would have got it.
      {"remove a folder whose subfolder cannot be opened", {"d/", "d/s/", "d/s/f=x"},
       WithOpenHook("s", "!", Op('R', "d")), false, {"d/", "d/s/", "d/s/f=x"}},
      // The folder and its parent open, no descriptor for the entry: nothing goes.
      {"remove without descriptors", {"d/", "d/f=x"}, InChild(2, -1, Op('R', "d")), false,
       {"d/", "d/f=x"}},
      // A subfolder opened as descriptor 0 is removed or copied like any
      // other, and when its copy fails (on a FIFO) no descriptor is closed
      // twice. For a copy the target's "d" is opened second.
      {"remove a folder opened as descriptor 0", {"t/", "t/d/", "t/d/f=x"}, InChild(-1, 0, Op('R', "t")),
       true, {}},
      {"copy into a folder opened as descriptor 0", {"s/", "s/d/", "s/d/f=x"},
       InChild(-1, 1, Op('C', "s", "copy")), true, {"s/", "s/d/", "s/d/f=x", "copy/", "copy/d/", "copy/d/f=x"}},
      {"copy of a file that cannot be opened", {"s/", "s/f=x"}, WithOpenHook("f", "!", Op('C', "s", "copy")),
       false, {"s/", "s/f=x"}},
      {"copy a subfolder opened as descriptor 0", {"s/", "s/d/", "s/d/f=x"},
       InChild(-1, 0, Op('C', "s", "copy")), true, {"s/", "s/d/", "s/d/f=x", "copy/", "copy/d/", "copy/d/f=x"}},
      {"copy to a folder that opens as descriptor 0", {"s/", "s/f=x"},
       InChild(-1, 0, Op('C', "s", "d")), true, {"s/", "s/f=x", "d/", "d/f=x"}},
      {"copy from a folder opened as descriptor 0", {"d/", "d/f=x"},
       InChild(-1, 0, [](const std::string& b) {  // the source opened by its name "d"
         return ::chdir(b.c_str()) == 0 && FileUtils::CopyFolder("d", "copy");
       }),
       true, {"d/", "d/f=x", "copy/", "copy/f=x"}},
      {"failed copy into a folder opened as descriptor 0", {"s/", "s/d/", "s/d/p?"},
       InChild(-1, 1, Op('C', "s", "copy")), false, {"s/", "s/d/", "s/d/p?"}},
      {"failed listing of a folder opened as descriptor 0", {"t/", "t/d/"},
       InChild(-1, 0, [](const std::string& b) { ZorvTestFailListing(1); return Op('R', "t")(b); }),
       false, {"t/", "t/d/"}},
      {"write through '\\..'", {"a/"}, Op('t', "a/new\\..\\..\\evil/" + longName, "text"), false, {"a/"}},
      {"write through '/..'", {"a/"}, Op('t', "a/new/../../evil/deeper/" + longName, "text"), false, {"a/"}},
      {"failed write removes a chain", {}, Op('t', "made/one/two/" + longName, "text"), false, {}},
      {"write splits at '\\'", {}, Op('t', "out/x\\y.txt", "text"), true, {"out/", "out/x/", "out/x/y.txt=text"}},
      {"write to a path ending in a separator", {}, Op('t', "x/", "text"), false, {}},
      {"copy a tree", Tree(), Op('C', "root", "copy"), true, Plus(Tree(), Tree("copy/"))},
      {"copy an empty file", {"s/", "s/e="}, Op('C', "s", "copy"), true, {"s/", "s/e=", "copy/", "copy/e="}},
      {"copy into a subfolder that cannot be made", {"s/", "s/d/"},
       [](const std::string& b) {
         ZorvTestFailMakeFolder("d");
         const bool ok = Op('C', "s", "copy")(b);
         ZorvTestFailMakeFolder("");
         return ok;
       },
       false, {"s/", "s/d/"}},
      {"copy names that begin with dots", {"s/", "s/.a=x", "s/..b/"}, Op('C', "s", "c"), true,
       {"s/", "s/.a=x", "s/..b/", "c/", "c/.a=x", "c/..b/"}},
      // Another spelling of the source as the target: refused before any
      // folder in it is entered (a file would be refused as its own copy).
      {"copy onto itself as 's/.'", {"s/", "s/sub/"}, Op('C', "s", "s/."), false, {"s/", "s/sub/"}},
      // A file of the target that is another name of the source's is not
      // written (it would empty the source).
      {"copy onto a hard link of the source", {"s/", "s/f=x", "t/", "t/f=>s/f"}, Op('C', "s", "t"), false,
       {"s/", "s/f=x", "t/", "t/f=x"}},
      {"copy without memory to list the source", Tree(),
       [](const std::string& b) { ZorvTestFailListing(0); return Op('C', "root", "copy")(b); }, false, Tree()},
      {"copy into a folder", Plus(Tree(), ownT), Op('C', "root", "t"), true,
       Plus(Tree(), Plus(Tree("t/"), {"t/own=mine"}))},
      {"copy into a folder that has the subfolder", {"s/", "s/d/", "s/d/f=x", "t/", "t/d/", "t/d/o=y"},
       Op('C', "s", "t"), true, {"s/", "s/d/", "s/d/f=x", "t/", "t/d/", "t/d/f=x", "t/d/o=y"}},
      // A FIFO counts as a file but cannot be copied; an existing target stays.
      {"failed copy removes its target", {"s/", "s/d/", "s/d/f=x", "s/d/p?"}, Op('C', "s", "copy"), false,
       {"s/", "s/d/", "s/d/f=x", "s/d/p?"}},
      {"failed copy keeps a target", {"s/", "s/z=x", "s/p?", "e/", "e/own=x"}, Op('C', "s", "e"), false,
       {"e/", "e/own=x", "s/", "s/p?", "s/z=x"}},
      // Sockets and FIFOs are removed with their folder. A FIFO in an
      // existing target is neither waited on nor removed, and a socket
      // (which cannot be copied) fails a copy.
      {"remove sockets and FIFOs", {"d/", "d/s/", "d/s/sock@", "d/s/fifo?"}, Op('R', "d"), true, {}},
      {"remove a socket as a folder", {"d/", "d/sock@"}, Op('R', "d/sock"), false, {"d/", "d/sock?"}},
      {"FIFO held open in a target", {"tree/", "tree/pipe=f", "ex/", "ex/pipe?"},
       WithReader("ex/pipe", Op('C', "tree", "ex")), false,
       {"tree/", "tree/pipe=f", "ex/", "ex/pipe?"}},
      {"copy of a socket", {"s/", "s/sub/", "s/sub/sock@"}, Op('C', "s", "copy"), false,
       {"s/", "s/sub/", "s/sub/sock?"}}};
  // clang-format on
  // Refused calls, which change nothing: an empty path, what exists, a file
  // where a folder is wanted, a missing folder or parent folder, a missing
  // source or target folder, a copy onto itself.
  const struct {
    char op;
    const char* path;
    const char* to;
  } refused[] = {
      {'m', "", ""},         {'m', "root", ""},    {'m', "f", ""},       {'m', "f/sub/deeper", ""},
      {'R', "", ""},         {'R', "f", ""},       {'R', "missing", ""}, {'R', "missing/sub", ""},
      {'C', "root", "root"}, {'C', "root", "x/y"}, {'C', "f", "c"},      {'C', "missing", "c"},
      {'C', "", "c"},        {'C', "root", ""},    {'C', "root", "f"}};
  // A file that holds less than its size says (a sysfs attribute says
  // 4,096 bytes and holds a few), reached through a link: the copy ends
  // where the bytes end and fails, as for a file that shrinks meanwhile.
  const char* const kShortFile = "/sys/class/net/lo/mtu";
  if (access(kShortFile, R_OK) == 0) {
    const std::string link = std::string("s/m->") + kShortFile;
    cases.push_back({"copy of a file shorter than it says", {"s/", link}, Op('C', "s", "copy"), false,
                     {"s/", link}});
  }
  const std::vector<std::string> plain = Plus(Tree(), file);
  for (const auto& r : refused)
    cases.push_back({r.path, plain, Op(r.op, r.path, r.to), false, plain});
  zorv::test::RunFileCases(cases);
  const int mode = 0755 & ~zorv::test::CurrentUmask();
  ASSERT_TRUE(FileUtils::CreateFolder(P("m/n")));
  EXPECT_EQ(zorv::test::RawMode(dir_ / "m"), mode);
  EXPECT_EQ(zorv::test::RawMode(dir_ / "m/n"), mode);
}

// One hostile tree, built (see Build; '$' stands for the case's folder) in a
// fresh folder where "outside/keep" exists, and one call: an Op (see
// filetestutil.h) or 's', a search that must not list "keep". Nothing outside may change; `present`
// and `absent` are checked afterwards. With `swap` set, the entry "victim" is swapped for a link to
// "outside" before its swap-th opening (0 = first) during the call.
struct HostileCase {
  const char* name;
  std::vector<std::string> build;
  char op;
  std::string path, to;
  bool expected;
  std::vector<std::string> present, absent;
  int swap = -1;
};

TEST_F(FoldersTest, HostileTreesStayInside) {
  const std::vector<std::string> victim = {"tree/", "tree/victim/", "tree/victim/f=f"};
  // The first opening of a copy is the source's, the second the target's.
  // clang-format off
  const HostileCase cases[] = {
      {"link to a folder as the argument", {"arg->$/outside"}, 'R', "arg", "", true, {}, {"arg"}},
      {"link with a trailing separator", {"arg->$/outside"}, 'R', "arg/", "", true, {}, {"arg"}},
      {"link to a file as the argument", {"arg->$/outside/keep"}, 'R', "arg", "", false, {"arg"}, {}},
      {"links inside are removed as links",
       {"tree/", "tree/ld->$/outside", "tree/lf->$/outside/keep", "tree/dangling->$/nothing"}, 'R', "tree",
       "", true, {}, {"tree"}},
      {"a name leading back up", {"tree/", "tree/sub/"}, 'R', "tree/sub/..", "", false, {"tree/sub"}, {}},
      {"link loops are removed", {"tree/", "tree/sub/", "tree/sub/back->../..", "tree/self->."}, 'R', "tree",
       "", true, {}, {"tree"}},
      {"a link loop fails a copy", {"tree/", "tree/sub/", "tree/sub/f=f", "tree/sub/up->.."}, 'C', "tree",
       "copy", false, {}, {"copy"}},
      {"a target inside the source", {"tree/", "tree/f=f"}, 'C', "tree", "tree/in", false, {"tree/f"},
       {"tree/in"}},
      {"swapped while removed", victim, 'R', "tree", "", true, {}, {"tree"}, 0},
      {"target swapped while copied", victim, 'C', "tree", "copy", false, {}, {"copy"}, 1},
      {"a file swapped for a folder while copied", {"tree/", "tree/victim=f"}, 'C', "tree", "copy",
       false, {}, {"copy"}, 0},
      // Refused before anything is opened.
      {"a copy onto itself", victim, 'C', "tree/victim", "tree/victim", false, {"tree/victim/f"},
       {"tree/victim.moved"}, 0},
      {"swapped while searched", victim, 's', "tree", "", true, {"tree/victim.moved/f", "tree/victim"}, {}, 0},
      {"backslashes are part of names", {"tree/", "tree/f\\../", "tree/f\\../planted=f", "tree/a\\b=f"}, 'C',
       "tree", "copy", true, {"copy/f\\../planted", "copy/a\\b"}, {"planted", "b", "copy/b"}},
      {"backslash names are removed", {"tree/", "tree/x\\..\\../", "tree/x\\..\\../f=f"}, 'R', "tree", "",
       true, {}, {"tree"}},
      {"made folder swapped before its roll-back", {}, 't', "victim/" + std::string(300, 'n'), "text", false,
       {"victim.moved"}, {"victim"}, 0},
      {"a link in an existing target", {"tree/", "tree/keep=f", "ex/", "ex/keep->$/outside/keep"}, 'C',
       "tree", "ex", false, {"ex/keep"}, {}}};
  // clang-format on
  int index = 0;
  for (const HostileCase& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string base = dir_ / std::to_string(index++);
    ASSERT_EQ(::mkdir(base.c_str(), 0755), 0);
    ASSERT_TRUE(Build(base, {"outside/", "outside/keep=x"}));
    ASSERT_TRUE(Build(base, c.build));
    if (c.swap >= 0) ZorvTestBeforeOpen("victim", c.swap, (base + "/outside").c_str(), -1);
    int folders = ZorvTestFolderCalls(false);
    bool result = c.op == 's' || Op(c.op, c.path, c.to)(base);
    // A copy makes no more folders than the source has: a link loop is
    // not followed round.
    for (const std::string& e : c.build) folders += e.back() == '/';
    if (c.op == 'C') {
      EXPECT_LE(ZorvTestFolderCalls(false), folders);
    }
    for (const std::string& f :
         c.op == 's' ? Sorted(FileUtils::SearchFiles(zorv::test::At(base, c.path), 4, {}))
                     : std::vector<std::string>()) {
      result = result && f.find("keep") == std::string::npos;
    }
    ZorvTestBeforeOpen("", 0, "", -1);
    EXPECT_EQ(result, c.expected);
    EXPECT_EQ(zorv::test::Snapshot(base + "/outside"), std::vector<std::string>{"keep=x"});
    for (const std::string& p : c.present) EXPECT_TRUE(RawExists(base + "/" + p)) << p;
    for (const std::string& p : c.absent) EXPECT_FALSE(RawExists(base + "/" + p)) << p;
  }
}

TEST_F(FoldersTest, EverySpellingOfTheRootIsRefused) {
  ASSERT_TRUE(Build(dir_.path(), {"sentinel/", "sentinel/keep=x", "rootlink->/"}));
  // As many ".." as the scratch folder has components, and one more.
  std::string ups;
  for (char c : dir_.path()) ups += c == '/' ? "/.." : "";
  const std::string up = dir_.path() + ups, upFromSentinel = dir_ / "sentinel/.." + ups;
  const std::string link = dir_ / "rootlink";
  const std::vector<std::string> spellings = {
      "/",      "//", "///",    "\\",      "/.",           "/./", "/..",      "/../.",
      "/.//..", up,   up + "/", up + "/.", upFromSentinel, link,  link + "/", link + "/."};
  // The calls run in a child that, when started as root, gives up its rights
  // first, so that a regression cannot empty the machine.
  for (const std::string& mine : {dir_.path(), dir_ / "sentinel"})
    ASSERT_TRUE(::geteuid() != 0 || ::chown(mine.c_str(), 65534, 65534) == 0) << mine;
  const pid_t child = zorv::test::Fork([&](int) {
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) return 2;
    for (size_t i = 0; i < spellings.size(); ++i)
      if (FileUtils::RemoveFolder(spellings[i].c_str())) return 10 + static_cast<int>(i);
    return 0;
  });
  ASSERT_GT(child, 0);
  const int code = zorv::test::WaitChild(child);
  EXPECT_EQ(code, 0) << (code >= 10 ? "accepted: " + spellings[code - 10] : "child failed");
  EXPECT_EQ(ReadRawFile(dir_ / "sentinel/keep"), "x");
  EXPECT_TRUE(RawExists(link));
  // Without the identity of "/" nothing is removed at all.
  ZorvTestFailStat("/", 0);
  EXPECT_FALSE(FileUtils::RemoveFolder((dir_ / "sentinel").c_str()));
  ZorvTestFailStat("", 0);
  EXPECT_EQ(ReadRawFile(dir_ / "sentinel/keep"), "x");
}

// A caller chrooted without a chdir reaches its own root by a relative
// path, as a plain folder inside the tree it removes: the tree is kept.
TEST_F(FoldersTest, TheRootMetInsideATreeIsKept) {
  ASSERT_TRUE(Build(dir_.path(), {"tree/", "tree/inner/"}));
  const std::string base = dir_.path();
  const pid_t child = zorv::test::Fork([&](int) {
    if (::chdir(base.c_str()) != 0) return 2;
    if (::chroot("tree/inner") != 0 &&
        (::unshare(CLONE_NEWUSER) != 0 || ::chroot("tree/inner") != 0)) {
      return 77;
    }
    return FileUtils::RemoveFolder("tree") ? 1 : 0;
  });
  ASSERT_GT(child, 0);
  const int code = zorv::test::WaitChild(child);
  if (code == 77) GTEST_SKIP() << "no chroot here";
  EXPECT_EQ(code, 0);
  EXPECT_TRUE(RawExists(dir_ / "tree/inner"));
}

// A folder of the removal's own path, or one above it, mounted again inside
// the tree: the removal fails there, and nothing beside the tree is touched.
// Any other folder mounted there is emptied like the rest.
// Made in a mount namespace of a child (a user namespace too when not root).
TEST_F(FoldersTest, AFolderAboveMountedInsideIsKept) {
  std::vector<std::string> tree = {"g/", "g/t/", "g/p/", "g/p/k3=x", "g/p/t/", "o/", "o/f=x", "q/"};
  // Files enough that, in whatever order a folder lists, "g/t" seldom comes first.
  for (char n = 'a'; n <= 'z'; ++n) tree.push_back(std::string("g/f") + n + "=x");
  // Deeper than the 64 folders above that a removal reads when it meets a mount.
  std::string deep = "q";
  for (int level = 0; level < 70; ++level) tree.push_back((deep += "/d") + "/");
  const struct {
    const char* name;
    const char* mountedFolder;  // mounted at "mnt", below the path removed
    const char* removed;
    size_t listed;  // folders that a listing of the removed tree finds
  } cases[] = {{"the folder holding the tree", "g", "g/t", 4},
               {"a folder further up", "g", "g/p/t", 4},
               {"the tree itself, mounted inside", "g/p/t", "g/p/t", 1},
               {"another folder, mounted deep inside: emptied, then busy", "o", deep.c_str(), 1}};
  int index = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string base = dir_ / std::to_string(index++);
    const std::string removed = base + "/" + c.removed;
    ASSERT_EQ(::mkdir(base.c_str(), 0755), 0);
    ASSERT_TRUE(Build(base, tree));
    ASSERT_TRUE(Build(removed, {"mnt/"}));
    const pid_t child = zorv::test::Fork([&](int) {
      if (::unshare(::geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0 ||
          ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          ::mount((base + "/" + c.mountedFolder).c_str(), (removed + "/mnt").c_str(), nullptr, MS_BIND,
                  nullptr) != 0) {
        return 77;
      }
      // A listing lists a folder of its own path but never enters it.
      if (FileUtils::SearchFolders(removed.c_str(), 4).size() != c.listed) return 3;
      const int removals = ZorvTestFolderCalls(true);
      if (FileUtils::RemoveFolder(removed.c_str())) return 1;
      // A kept folder is the removal's first failure: it ends there, with
      // no folder removed (the trees hold nothing else).
      return std::string(c.mountedFolder) != "o" && ZorvTestFolderCalls(true) != removals ? 5 : 0;
    });
    ASSERT_GT(child, 0);
    const int code = zorv::test::WaitChild(child);
    if (code == 77) GTEST_SKIP() << "no mount namespace here";
    EXPECT_EQ(code, 0);
    for (char n = 'a'; n <= 'z'; ++n) EXPECT_TRUE(RawExists(base + "/g/f" + n)) << n;
    EXPECT_TRUE(RawExists(base + "/g/p/k3"));
    EXPECT_TRUE(RawExists(removed + "/mnt"));
    EXPECT_EQ(RawExists(base + "/o/f"), std::string(c.mountedFolder) != "o");
  }
}

TEST_F(FoldersTest, Searches) {
  ASSERT_TRUE(
      Build(dir_.path(), Plus(Tree(), {"hollow/", "file=x", "kinds/", "kinds/self->$/kinds",
                                       "kinds/sock@", "kinds/fifo?", "loop/", "loop/sub/",
                                       "loop/sub/f=x", "loop/sub/up->..", "loop/out->$/root"})));
  const std::string r = dir_ / "root";
  const std::vector<std::string> top = {"a.txt", "atxt", "b.dat", "notes.txt"};
  // Bit 0 wins over bit 1, the kind bits of the caller are ignored, the
  // search path is normalised, a suffix may be a whole name, a file matched
  // by two suffixes is listed once, sockets count as folders and FIFOs as
  // files, and links are listed but never entered.
  // clang-format off
  const std::tuple<bool, std::string, unsigned int, Vector<SafeString>, std::vector<std::string>>
      cases[] = {
      {false, r, 0, {}, {r + "/a.txt", r + "/atxt", r + "/b.dat", r + "/notes.txt"}},
      {false, r, 4, {}, {r + "/a.txt", r + "/atxt", r + "/b.dat", r + "/notes.txt", r + "/sub/b.txt",
                         r + "/sub/deep/c.TXT"}},
      {false, r, 5, {}, {"/a.txt", "/atxt", "/b.dat", "/notes.txt", "/sub/b.txt", "/sub/deep/c.TXT"}},
      {false, r, 6, {}, {"a.txt", "atxt", "b.dat", "b.txt", "c.TXT", "notes.txt"}},
      {false, r, 3, {}, {"/a.txt", "/atxt", "/b.dat", "/notes.txt"}},
      {false, r, 0x80000002u, {}, top}, {true, r, 0x40000002u, {}, {"empty", "sub"}},
      {true, r, 1, {}, {"/empty", "/sub"}}, {true, r, 5, {}, {"/empty", "/sub", "/sub/deep"}},
      {false, r + "\\\\sub//", 0, {}, {r + "/sub/b.txt"}},
      {false, r, 2, {"TXT"}, {"a.txt", "atxt", "notes.txt"}},
      {false, r, 6, {".TXT"}, {"a.txt", "b.txt", "c.TXT", "notes.txt"}},
      {false, r, 2, {".dat", ".txt"}, {"a.txt", "b.dat", "notes.txt"}},
      {false, r, 2, {""}, top}, {false, r, 2, {"a-very-long-suffix-indeed.txt"}, {}},
      {false, r, 2, {"ATXT"}, {"atxt"}},
      {false, r, 2, {"txt", ".txt"}, {"a.txt", "atxt", "notes.txt"}},
      {true, dir_ / "kinds", 2, {}, {"self", "sock"}}, {false, dir_ / "kinds", 2, {}, {"fifo"}},
      {false, dir_ / "loop", 5, {}, {"/sub/f"}}, {true, dir_ / "loop", 5, {}, {"/out", "/sub", "/sub/up"}},
      {false, "", 4, {}, {}}, {true, "", 4, {}, {}}, {false, dir_ / "missing", 4, {}, {}},
      {false, dir_ / "file", 4, {}, {}}, {true, dir_ / "file", 4, {}, {}}, {false, dir_ / "hollow", 4, {}, {}}};
  // clang-format on
  for (const auto& [folders, path, flags, suffixes, expected] : cases) {
    SCOPED_TRACE((folders ? "folders of '" : "files of '") + path + "', " + std::to_string(flags));
    EXPECT_EQ(Sorted(folders ? FileUtils::SearchFolders(path.c_str(), flags)
                             : FileUtils::SearchFiles(path.c_str(), flags, suffixes)),
              expected);
  }
  // A folder comes before its contents, which follow it directly.
  const std::vector<std::string> all = Sorted(FileUtils::SearchFolders(r.c_str(), 5), false);
  const auto sub = std::find(all.begin(), all.end(), "/sub");
  ASSERT_TRUE(sub != all.end() && sub + 1 != all.end());
  EXPECT_EQ(*(sub + 1), "/sub/deep");
  // The root gives single separators; /proc/<pid>/fd can be listed.
  for (const std::string& path : Sorted(FileUtils::SearchFolders("/", 0))) {
    EXPECT_TRUE(path.compare(0, 1, "/") == 0 && path.compare(0, 2, "//") != 0) << path;
  }
  const std::string fds = "/proc/" + std::to_string(::getpid()) + "/fd";
  const std::vector<std::string> names = Sorted(FileUtils::SearchFiles(fds.c_str(), 2, {}));
  EXPECT_TRUE(!RawExists(fds) || std::find(names.begin(), names.end(), "0") != names.end());
}

// Each call runs with its n-th allocation failing, for n = 1, 2, ... until
// it succeeds; in the sticky mode every allocation after that one fails as
// well, so a clean-up that needs memory would leave things behind.
TEST_F(FoldersTest, AllocationFailuresLeaveNothingHalfMade) {
  ASSERT_TRUE(Build(dir_.path(), Tree()));
  const SafeString root = P("root");
  const SafeString deep = P("made/one/../../two/three/file.txt");
  for (const bool sticky : {false, true}) {
    SCOPED_TRACE(sticky ? "every later allocation fails too" : "one allocation fails");
    for (const char* made : {"copy", "made", "two"}) std::filesystem::remove_all(dir_ / made);
    bool copied = false, written = false;
    for (unsigned int n = 1; n < 400 && !(copied && written); ++n) {
      SCOPED_TRACE("failing allocation " + std::to_string(n));
      // Runs `call` with allocation n failing; true when it threw bad_alloc.
      auto failing = [&](const std::function<void()>& call) {
        bool threw = false;
        ZorvTestStickyAllocFailure(sticky);
        zorv::test::FailAfterGuard fail(n);
        try {
          call();
        } catch (const std::bad_alloc&) {
          threw = true;
        }
        ZorvTestStickyAllocFailure(false);
        return threw;
      };
      if (!copied) {
        EXPECT_TRUE(failing([&] { copied = FileUtils::CopyFolder(root, P("copy")); }) || copied);
        EXPECT_EQ(RawExists(dir_ / "copy"), copied);
      }
      if (!written) {
        EXPECT_TRUE(failing([&] { written = FileUtils::WriteText(deep, "text"); }) || written);
        EXPECT_EQ(RawExists(dir_ / "made"), written);
        EXPECT_EQ(RawExists(dir_ / "two"), written);
      }
      (void)failing([&] { EXPECT_EQ(FileUtils::SearchFiles(root, 4, {".txt"}).size(), 4u); });
    }
    EXPECT_TRUE(copied && written);
    EXPECT_EQ(ReadRawFile(dir_ / "two/three/file.txt"), "text");
  }
}

}  // namespace
