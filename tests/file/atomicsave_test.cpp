// Tests of the crash-safe saves: FileUtils::WriteTextAtomic and
// WriteBinaryAtomic, and Archiver::saveAsAtomic.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "file/filetestutil.h"
#include "foundation/config/configarchiver.h"
#include "foundation/file/fileutils.h"
#include "support/boundedwait.h"
#include "support/leakcheck.h"
#include "support/tempdir.h"

extern "C" void ZorvTestLogCalls(char* log, int room);

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::config::Archiver;
using zorv::foundation::file::FileUtils;
using zorv::test::RawExists;
using zorv::test::RawMode;
using zorv::test::ReadRawFile;
using zorv::test::Snapshot;
using zorv::test::TempDir;
using zorv::test::WriteRawFile;

using AtomicSaveTest = zorv::test::LeakCheckedTest;

SafeString Safe(const std::string& s) { return SafeString(s.data(), s.size()); }

// One way of saving, with the bytes it writes.
struct Saver {
  const char* name;
  std::function<bool(const SafeString&)> save;
  std::string bytes;
};

std::vector<Saver> Savers() {
  static const std::string kText("text\0with zero\n", 15);
  static const std::string kArchive("[s]\nport = 80\n\n");
  return {
      {"WriteTextAtomic",
       [](const SafeString& p) { return FileUtils::WriteTextAtomic(p, Safe(kText)); }, kText},
      {"WriteBinaryAtomic",
       [](const SafeString& p) {
         return FileUtils::WriteBinaryAtomic(p,
                                             reinterpret_cast<const unsigned char*>(kText.data()),
                                             static_cast<unsigned int>(kText.size()));
       },
       kText},
      {"saveAsAtomic",
       [](const SafeString& p) {
         Archiver archiver;
         return archiver.setValue("s", "port", "80") && archiver.saveAsAtomic(p);
       },
       kArchive},
  };
}

TEST_F(AtomicSaveTest, Cases) {
  const int newMode = 0666 & ~zorv::test::CurrentUmask();
  const bool root = ::geteuid() == 0;
  struct Case {
    const char* what;
    // Made with raw calls in a fresh folder `base` before the save.
    std::function<void(const std::string& base)> setUp;
    std::string path;
    bool ok;
    // The file that must hold the new bytes (on success), and its mode.
    std::string written;
    int mode;
    // The entries of `base` afterwards but for the saved file (see Build;
    // '$' stands for `base`).
    std::vector<std::string> tree;
    // A limit of the size of files written, when not 0.
    rlim_t sizeLimit = 0;
  };
  const auto file = [](const std::string& path, int mode) {
    ASSERT_TRUE(WriteRawFile(path, "old contents"));
    ASSERT_EQ(::chmod(path.c_str(), static_cast<mode_t>(mode)), 0);
  };
  const std::vector<Case> cases = {
      {"new file", [](const std::string&) {}, "new", true, "new", newMode, {}},
      {"existing mode kept",
       [&](const std::string& b) { file(b + "/old", 0640); },
       "old",
       true,
       "old",
       0640,
       {}},
      {"stale temporary reused",
       [&](const std::string& b) {
         file(b + "/t", 0600);
         file(b + "/.t.tmp", 0600);
       },
       "t",
       true,
       "t",
       0600,
       {}},
      {"relative link from a subfolder",
       [&](const std::string& b) {
         ASSERT_EQ(::mkdir((b + "/real").c_str(), 0755), 0);
         ASSERT_EQ(::mkdir((b + "/sub").c_str(), 0755), 0);
         file(b + "/real/t", 0604);
         ASSERT_EQ(::symlink("../real/t", (b + "/sub/l").c_str()), 0);
       },
       "sub/l",
       true,
       "real/t",
       0604,
       {"real/", "sub/", "sub/l->../real/t"}},
      {"absolute link to a relative link",
       [&](const std::string& b) {
         file(b + "/t", 0600);
         ASSERT_EQ(::symlink("t", (b + "/rel").c_str()), 0);
         ASSERT_EQ(::symlink((b + "/rel").c_str(), (b + "/abs").c_str()), 0);
       },
       "abs",
       true,
       "t",
       0600,
       {"abs->$/rel", "rel->t"}},
      {"missing parents made",
       [](const std::string&) {},
       "x/y/z",
       true,
       "x/y/z",
       newMode,
       {"x/", "x/y/"}},
      {"parent is a file",
       [&](const std::string& b) { file(b + "/f", 0644); },
       "f/z",
       false,
       "",
       0,
       {"f=old contents"}},
      {"target is a folder",
       [](const std::string& b) { ASSERT_EQ(::mkdir((b + "/d").c_str(), 0755), 0); },
       "d",
       false,
       "",
       0,
       {"d/"}},
      {"target is a FIFO",
       [](const std::string& b) { ASSERT_EQ(::mkfifo((b + "/p").c_str(), 0644), 0); },
       "p",
       false,
       "",
       0,
       {"p?"}},
      {"link loop",
       [](const std::string& b) { ASSERT_EQ(::symlink("loop", (b + "/loop").c_str()), 0); },
       "loop",
       false,
       "",
       0,
       {"loop->loop"}},
      {"read-only folder",
       [](const std::string& b) { ASSERT_EQ(::mkdir((b + "/ro").c_str(), 0555), 0); },
       "ro/t",
       false,
       "",
       0,
       {"ro/"}},
      {"write fails",
       [&](const std::string& b) { file(b + "/t", 0600); },
       "t",
       false,
       "",
       0,
       {"t=old contents"},
       4},
      {"empty path", [](const std::string&) {}, "", false, "", 0, {}},
  };
  for (const Saver& saver : Savers()) {
    for (const Case& c : cases) {
      SCOPED_TRACE(std::string(saver.name) + ": " + c.what);
      if (root && std::strncmp(c.what, "read-only", 9) == 0) continue;
      TempDir base;
      c.setUp(base.path());
      if (HasFatalFailure()) return;
      const SafeString path = c.path.empty() ? SafeString() : Safe(base / c.path);
      if (c.sizeLimit != 0) {
        zorv::test::FileSizeLimit limit(c.sizeLimit);
        EXPECT_EQ(saver.save(path), c.ok);
      } else {
        EXPECT_EQ(saver.save(path), c.ok);
      }
      std::vector<std::string> tree = c.tree;
      for (std::string& item : tree) {
        if (item.find('$') != std::string::npos) item.replace(item.find('$'), 1, base.path());
      }
      if (c.ok) {
        tree.push_back(c.written + "=" + saver.bytes);
        std::sort(tree.begin(), tree.end());
        EXPECT_EQ(RawMode(base / c.written), c.mode);
      }
      EXPECT_EQ(Snapshot(base.path()), tree);
    }
  }
}

TEST_F(AtomicSaveTest, SyncsTheFileThenRenamesThenSyncsTheFolder) {
  TempDir base;
  for (const Saver& saver : Savers()) {
    // A new target, then one that is replaced.
    for (int round = 0; round < 2; ++round) {
      SCOPED_TRACE(std::string(saver.name) + (round == 0 ? ": new" : ": existing"));
      char log[64];
      ZorvTestLogCalls(log, sizeof log);
      const bool saved = saver.save(Safe(base / saver.name));
      ZorvTestLogCalls(nullptr, 0);
      EXPECT_TRUE(saved);
      std::string order(log);
      order.erase(std::unique(order.begin(), order.end()), order.end());
      EXPECT_EQ(order, "wfrd");
    }
  }
  ZorvTestLogCalls(nullptr, 0);
}

// A child saves two contents of 64 KiB and more in turn until it is killed
// at a random moment: the target then holds one of them whole, and the next
// save leaves the target alone in its folder.
TEST_F(AtomicSaveTest, KilledSaveLeavesOneWholeVersion) {
  TempDir base;
  const std::string target = base / "data";
  std::string first(64 * 1024 + 17, '\0');
  std::string second(96 * 1024, '\0');
  for (size_t i = 0; i < first.size(); ++i) first[i] = static_cast<char>('a' + i % 23);
  for (size_t i = 0; i < second.size(); ++i) second[i] = static_cast<char>('A' + i % 19);
  const SafeString firstText = Safe(first);
  const SafeString secondText = Safe(second);
  const SafeString path = Safe(target);
  ASSERT_TRUE(FileUtils::WriteTextAtomic(path, firstText));
  const bool slow = zorv::test::SlowTarget();
  const int kills = slow ? 60 : 200;
  const unsigned int spanMicros = slow ? 40000 : 3000;
  std::mt19937 random(20261125);
  int stale = 0;
  for (int kill = 0; kill < kills; ++kill) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (unsigned int n = 0;; ++n)
        (void)FileUtils::WriteTextAtomic(path, n % 2 ? firstText : secondText);
    }
    // The moment of the kill, not a wait for anything.
    std::this_thread::sleep_for(std::chrono::microseconds(random() % spanMicros));
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    bool read = false;
    const std::string now = ReadRawFile(target, &read);
    ASSERT_TRUE(read) << "kill " << kill;
    ASSERT_TRUE(now == first || now == second) << "kill " << kill << ": " << now.size() << " bytes";
    if (RawExists(base / ".data.tmp")) ++stale;
    ASSERT_TRUE(FileUtils::WriteTextAtomic(path, firstText));
    ASSERT_EQ(Snapshot(base.path()), std::vector<std::string>{"data=" + first}) << "kill " << kill;
  }
  // Not a check: how many kills hit a save before its rename.
  RecordProperty("stale_temporaries", stale);
}

}  // namespace
