// Tests of the crash-safe saves: FileUtils::WriteTextAtomic and
// WriteBinaryAtomic, and Archiver::saveAsAtomic.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

#include "file/filetestutil.h"
#include "foundation/config/configarchiver.h"
#include "support/boundedwait.h"

extern "C" void ZorvTestLogCalls(char* log, int room);
extern "C" void ZorvTestFailFolderSync(int error);

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::config::Archiver;
using zorv::foundation::file::FileUtils;
using zorv::test::Snapshot;

using AtomicSaveTest = zorv::test::LeakCheckedTest;

SafeString Safe(const std::string& s) { return SafeString(s.data(), s.size()); }

// The three savers over `path`: 0 WriteTextAtomic, 1 WriteBinaryAtomic,
// 2 saveAsAtomic; kSaved[saver] is what each writes.
const std::string kText("text\0with zero\n", 15);
const std::string kSaved[] = {kText, kText, "[s]\nport = 80\n\n"};

bool Save(int saver, const SafeString& path) {
  if (saver == 0) return FileUtils::WriteTextAtomic(path, Safe(kText));
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(kText.data());
  if (saver == 1) return FileUtils::WriteBinaryAtomic(path, bytes, 15);
  Archiver archiver;
  return archiver.setValue("s", "port", "80") && archiver.saveAsAtomic(path);
}

TEST_F(AtomicSaveTest, Cases) {
  const int newMode = 0666 & ~zorv::test::CurrentUmask();
  struct Case {
    const char* what;
    std::vector<std::string> before;  // see Build
    std::string path;
    bool ok;
    // The file the save replaces: its mode is set before the save when it
    // exists, and expected afterwards, with the saved bytes, on success.
    std::string written;
    int mode;
    // The folder afterwards but for `written` (see Snapshot).
    std::vector<std::string> after;
    rlim_t sizeLimit = 0;
    bool noDescriptors = false;  // no descriptor can be opened during the save
  };
  // `more` and a chain of n links, "l0" first, to the file "t".
  const auto chain = [](int n, std::vector<std::string> more) {
    for (int i = 0; i < n; ++i) {
      const std::string next = i + 1 < n ? "l" + std::to_string(i + 1) : "t";
      more.push_back("l" + std::to_string(i) + "->" + next);
    }
    return more;
  };
  // clang-format off
  const std::vector<Case> cases = {
      {"new file", {}, "new", true, "new", newMode, {}},
      {"existing mode kept", {"old=o"}, "old", true, "old", 0640, {}},
      {"stale temporary replaced", {"t=o", ".t.tmp=stale"}, "t", true, "t", 0600, {}},
      {"relative link from a subfolder", {"real/", "sub/", "real/t=o", "sub/l->../real/t"}, "sub/l",
       true, "real/t", 0604, {"real/", "sub/", "sub/l->../real/t"}},
      {"absolute link to a relative link", {"t=o", "rel->t", "abs->$/rel"}, "abs", true, "t", 0600,
       {"abs->$/rel", "rel->t"}},
      {"missing parents made", {}, "x/y/z", true, "x/y/z", newMode, {"x/", "x/y/"}},
      {"parent is a file", {"f=o"}, "f/z", false, "", 0, {"f=o"}},
      {"target is a folder", {"d/"}, "d", false, "", 0, {"d/"}},
      {"link loop", {"loop->loop"}, "loop", false, "", 0, {"loop->loop"}},
      {"40 links, the most followed", chain(40, {"t=o"}), "l0", true, "t", 0600, chain(40, {})},
      {"41 links", chain(41, {"t=o"}), "l0", false, "", 0, chain(41, {"t=o"})},
      {"name is a parent reference", {"d/"}, "d/..", false, "", 0, {"d/"}},
      {"read-only folder", {"ro/"}, "ro/t", false, "ro", 0555, {"ro/"}},
      {"write fails", {"t=o"}, "t", false, "t", 0600, {"t=o"}, 4},
      {"empty path", {}, "", false, "", 0, {}},
      {"folder cannot be opened", {}, "t", false, "", 0, {}, 0, true},
      // A FIFO as the target is refused without waiting on it; one at the
      // temporary's name (held open by a reader) is neither used nor removed.
      {"FIFO target", {"p?"}, "p", false, "", 0, {"p?"}},
      {"FIFO temporary", {"t=o", ".t.tmp?"}, "t", false, "t", 0600, {"t=o", ".t.tmp?"}}};
  // clang-format on
  for (int saver = 0; saver < 3; ++saver) {
    SCOPED_TRACE("saver " + std::to_string(saver));
    std::vector<zorv::test::FileCase> runs;
    for (const Case& c : cases) {
      if (::geteuid() == 0 && c.written == "ro") continue;
      std::vector<std::string> after = c.after;
      if (c.ok) after.push_back(c.written + "=" + kSaved[saver]);
      // A save that succeeds writes and syncs the temporary, renames it and
      // syncs the folder, in this order.
      auto save = [saver, c](const std::string& base) {
        const std::string written = base + "/" + c.written;
        if (!c.written.empty()) (void)::chmod(written.c_str(), static_cast<mode_t>(c.mode));
        struct rlimit files;
        ::getrlimit(RLIMIT_NOFILE, &files);
        struct rlimit none = {0, files.rlim_max};
        const int reader = ::open((base + "/.t.tmp").c_str(), O_RDONLY | O_NONBLOCK);
        if (c.noDescriptors) ::setrlimit(RLIMIT_NOFILE, &none);
        char log[64];
        ZorvTestLogCalls(log, sizeof log);
        const bool saved = Save(saver, c.path.empty() ? SafeString() : Safe(base + "/" + c.path));
        ZorvTestLogCalls(nullptr, 0);
        ::setrlimit(RLIMIT_NOFILE, &files);
        if (reader >= 0) ::close(reader);
        std::string order(log);
        order.erase(std::unique(order.begin(), order.end()), order.end());
        EXPECT_TRUE(!saved || order == "wfrd") << order;
        EXPECT_TRUE(!saved || zorv::test::RawMode(written) == c.mode) << "mode of " << c.written;
        return saved;
      };
      runs.push_back({c.what, c.before, save, c.ok, after, c.sizeLimit});
    }
    zorv::test::RunFileCases(runs);
  }
  // No bytes make an empty file; a null pointer with a size makes none.
  zorv::test::TempDir dir;
  EXPECT_TRUE(FileUtils::WriteBinaryAtomic(Safe(dir / "empty"), nullptr, 0));
  EXPECT_FALSE(FileUtils::WriteBinaryAtomic(Safe(dir / "none"), nullptr, 1));
  // A stale temporary that goes away between the two opens of a round is
  // made anew on the next.
  ASSERT_TRUE(zorv::test::WriteRawFile(dir / ".v.tmp", "stale"));
  ZorvTestBeforeOpen(".v.tmp", 1, "-", -1);
  EXPECT_TRUE(FileUtils::WriteTextAtomic(Safe(dir / "v"), "new"));
  ZorvTestBeforeOpen("", 0, "", -1);
  EXPECT_EQ(Snapshot(dir.path()), (std::vector<std::string>{"empty=", "v=new"}));
  // A folder that cannot be synced fails the save, unless its file system
  // cannot sync folders at all (EINVAL); the file is in place either way.
  for (const auto& [error, saved] : {std::pair<int, bool>{EIO, false}, {EINVAL, true}}) {
    SCOPED_TRACE(error);
    ZorvTestFailFolderSync(error);
    EXPECT_EQ(FileUtils::WriteTextAtomic(Safe(dir / "synced"), std::to_string(error).c_str()),
              saved);
    ZorvTestFailFolderSync(0);
    EXPECT_EQ(zorv::test::ReadRawFile(dir / "synced"), std::to_string(error));
  }
}

// A save that waits for another saver's lock on the temporary goes on
// waiting when a signal (whose handler does not restart calls) ends the
// wait, and saves once the lock is let go.
TEST_F(AtomicSaveTest, SignalDuringTheWaitForTheLockIsSurvived) {
  zorv::test::TempDir dir;
  ASSERT_TRUE(zorv::test::WriteRawFile(dir / ".w.tmp", "other saver"));
  const int holder = ::open((dir / ".w.tmp").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(holder, 0);
  ASSERT_EQ(::flock(holder, LOCK_EX), 0);
  struct sigaction quiet = {};
  struct sigaction kept = {};
  quiet.sa_handler = [](int) {};
  ASSERT_EQ(::sigaction(SIGUSR1, &quiet, &kept), 0);
  std::atomic<long> tid{0};
  std::atomic<bool> done{false};
  bool saved = false;
  std::thread saver([&] {
    tid = ::syscall(SYS_gettid);
    saved = FileUtils::WriteTextAtomic(Safe(dir / "w"), "new");
    done = true;
  });
  // Field 3 of the thread's stat is its state: S while it waits for the lock.
  // The file is opened once and kept open while the saver runs, so that no
  // descriptor number passes between the two threads (the saver's come from
  // openat, which ThreadSanitizer does not see).
  int statFd = -1;
  const auto waiting = [&] {
    if (tid == 0) return false;
    if (statFd < 0) {
      const std::string path = "/proc/self/task/" + std::to_string(tid.load()) + "/stat";
      statFd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    }
    char text[1024];
    const ssize_t got = statFd < 0 ? -1 : ::pread(statFd, text, sizeof text, 0);
    const std::string stat(text, got > 0 ? static_cast<size_t>(got) : 0);
    const size_t name = stat.rfind(')');
    return name != std::string::npos && name + 2 < stat.size() && stat[name + 2] == 'S';
  };
  for (int signal = 0; signal < 2; ++signal) {
    EXPECT_TRUE(zorv::test::PollUntil([&] { return done || waiting(); }));
    if (!done) ::pthread_kill(saver.native_handle(), SIGUSR1);
  }
  ::close(holder);
  saver.join();
  if (statFd >= 0) ::close(statFd);
  ::sigaction(SIGUSR1, &kept, nullptr);
  EXPECT_TRUE(saved);
  EXPECT_EQ(Snapshot(dir.path()), std::vector<std::string>{"w=new"});
}

// A child saves two contents of 64 KiB and more in turn until it is killed
// at a random moment: the target then holds one of them whole, and the next
// save leaves the target alone in its folder.
TEST_F(AtomicSaveTest, KilledSaveLeavesOneWholeVersion) {
  zorv::test::TempDir base;
  const std::string target = base / "data";
  // A mixed or cut file has the wrong bytes or length.
  const std::string first(64 * 1024 + 17, 'a');
  const std::string second(96 * 1024, 'B');
  const SafeString texts[] = {Safe(first), Safe(second)};
  const SafeString path = Safe(target);
  ASSERT_TRUE(FileUtils::WriteTextAtomic(path, texts[0]));
  const bool slow = zorv::test::SlowTarget();
  const int kills = slow ? 60 : 200;
  const unsigned int spanMicros = slow ? 40000 : 3000;
  std::mt19937 random(20261125);
  int stale = 0;
  for (int kill = 0; kill < kills; ++kill) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (unsigned int n = 1;; ++n) (void)FileUtils::WriteTextAtomic(path, texts[n % 2]);
    }
    // The moment of the kill, not a wait for anything.
    std::this_thread::sleep_for(std::chrono::microseconds(random() % spanMicros));
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    bool read = false;
    const std::string now = zorv::test::ReadRawFile(target, &read);
    ASSERT_TRUE(read) << "kill " << kill;
    ASSERT_TRUE(now == first || now == second) << "kill " << kill << ": " << now.size() << " bytes";
    if (zorv::test::RawExists(base / ".data.tmp")) ++stale;
    ASSERT_TRUE(FileUtils::WriteTextAtomic(path, texts[0]));
    ASSERT_EQ(Snapshot(base.path()), std::vector<std::string>{"data=" + first}) << "kill " << kill;
  }
  // Not a check: how many kills hit a save before its rename.
  RecordProperty("stale_temporaries", stale);
}

}  // namespace
