// Process control: Command through the shell, Execute with its argument
// splitting and its chmod, Kill through killall, null arguments, and
// children that inherit no descriptor above 2. Children are real processes,
// observed through the file system and /proc with bounded polling.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "foundation/system/systemutils.h"
#include "support/boundedwait.h"
#include "support/leakcheck.h"
#include "support/tempdir.h"

namespace {

using zorv::foundation::system::SystemUtils;
using zorv::test::PollUntil;
using zorv::test::ReadRawFile;
using zorv::test::TempDir;
using zorv::test::WriteRawFile;

// Copies the program at `from` to `to` with mode 0755; false on failure.
bool CopyProgram(const std::string& from, const std::string& to) {
  bool ok = false;
  const std::string bytes = ReadRawFile(from, &ok);
  return ok && !bytes.empty() && WriteRawFile(to, bytes) && chmod(to.c_str(), 0755) == 0;
}

// The first existing one of the usual places of a program.
std::string FindProgram(const char* name) {
  for (const char* folder : {"/usr/bin/", "/bin/"}) {
    const std::string path = std::string(folder) + name;
    if (access(path.c_str(), X_OK) == 0) return path;
  }
  return "";
}

// A process name of at most 15 bytes (the kernel's limit for comm) that no
// other process on the machine has.
std::string UniqueProcessName() {
  static std::atomic<int> counter{0};
  return "zk" + std::to_string(getpid()) + "x" + std::to_string(counter.fetch_add(1));
}

// Ids of the live processes whose name (/proc/<pid>/comm) is `name`.
std::vector<int> ProcessesNamed(const std::string& name) {
  std::vector<int> pids;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return pids;
  while (dirent* entry = readdir(proc)) {
    const int pid = atoi(entry->d_name);
    if (pid <= 0) continue;
    bool ok = false;
    std::string comm = ReadRawFile("/proc/" + std::to_string(pid) + "/comm", &ok);
    if (!ok) continue;
    while (!comm.empty() && comm.back() == '\n') comm.pop_back();
    if (comm != name) continue;
    // A reaped process can linger for a moment as a zombie; it counts as gone.
    const std::string stat = ReadRawFile("/proc/" + std::to_string(pid) + "/stat", &ok);
    const size_t close = stat.rfind(')');
    if (ok && close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'Z') {
      continue;
    }
    pids.push_back(pid);
  }
  closedir(proc);
  return pids;
}

// The descriptors open in process `pid` ("self" for this one), each with
// what it refers to (the target of its link in /proc: a path, "pipe:[...]").
std::map<int, std::string> DescriptorsOf(const std::string& pid) {
  std::map<int, std::string> fds;
  const std::string path = "/proc/" + pid + "/fd";
  DIR* folder = opendir(path.c_str());
  if (folder == nullptr) return fds;
  while (dirent* entry = readdir(folder)) {
    if (entry->d_name[0] == '.') continue;
    char target[4096];
    const ssize_t length =
        readlink((path + "/" + entry->d_name).c_str(), target, sizeof target - 1);
    fds[atoi(entry->d_name)] = length > 0 ? std::string(target, static_cast<size_t>(length)) : "";
  }
  closedir(folder);
  return fds;
}

std::set<std::string> EntriesOf(const std::string& path) {
  std::set<std::string> names;
  DIR* folder = opendir(path.c_str());
  if (folder == nullptr) return names;
  while (dirent* entry = readdir(folder)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.insert(name);
  }
  closedir(folder);
  return names;
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

class ProcessTest : public zorv::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    sleepProgram_ = FindProgram("sleep");
    touchProgram_ = FindProgram("touch");
  }

  void TearDown() override {
    // No child of a failed test may outlive it.
    for (const std::string& name : started_) {
      for (int pid : ProcessesNamed(name)) kill(pid, SIGKILL);
    }
    LeakCheckedTest::TearDown();
  }

  // Copies sleep under a fresh unique name into `dir`; returns the name, or ""
  // (after failing the test) when that is not possible.
  std::string sleepCopy(const TempDir& dir) {
    const std::string name = UniqueProcessName();
    if (sleepProgram_.empty() || !CopyProgram(sleepProgram_, dir / name)) {
      ADD_FAILURE() << "cannot copy the sleep program";
      return "";
    }
    started_.push_back(name);
    return name;
  }

  // True when a process of this name shows up in /proc within the limit.
  static bool AppearsRunning(const std::string& name) {
    return PollUntil([&] { return !ProcessesNamed(name).empty(); });
  }

  // True when no process of this name is left within the limit.
  static bool Disappears(const std::string& name) {
    return PollUntil([&] { return ProcessesNamed(name).empty(); });
  }

  std::string sleepProgram_;
  std::string touchProgram_;
  std::vector<std::string> started_;
};

TEST_F(ProcessTest, NullArgumentsReturnFalse) {
  EXPECT_FALSE(SystemUtils::Command(nullptr));
  EXPECT_FALSE(SystemUtils::Execute(nullptr, "-a"));
  EXPECT_FALSE(SystemUtils::Execute(nullptr, nullptr));
  EXPECT_FALSE(SystemUtils::Kill(nullptr, false));
  EXPECT_FALSE(SystemUtils::Kill(nullptr, true));
}

TEST_F(ProcessTest, CommandRunsThroughTheShellWithoutWaiting) {
  TempDir dir;
  const std::string out = dir / "out";
  const std::string command = "word=made; echo $word$word > '" + out + "'";
  EXPECT_TRUE(SystemUtils::Command(command.c_str()));
  EXPECT_TRUE(PollUntil([&] { return ReadRawFile(out) == "mademade\n"; }))
      << "got '" << ReadRawFile(out) << "'";
  // The child is reaped by the system: SIGCHLD stays ignored.
  struct sigaction current;
  ASSERT_EQ(sigaction(SIGCHLD, nullptr, &current), 0);
  EXPECT_EQ(current.sa_handler, SIG_IGN);
}

TEST_F(ProcessTest, CommandReturnsBeforeTheChildEnds) {
  TempDir dir;
  const std::string name = sleepCopy(dir);
  ASSERT_FALSE(name.empty());
  const std::string command = "exec '" + (dir / name) + "' 30";
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(SystemUtils::Command(command.c_str()));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_TRUE(AppearsRunning(name));
  SystemUtils::Kill(name.c_str(), true);
  EXPECT_TRUE(Disappears(name));
}

TEST_F(ProcessTest, ExecuteSplitsAtBlanksTrimsAndSetsModeExecuteOnly) {
  ASSERT_FALSE(touchProgram_.empty()) << "touch not found";
  TempDir dir;
  const std::string program = dir / "toucher";
  ASSERT_TRUE(CopyProgram(touchProgram_, program));
  // Runs of blanks, and tabs at the ends of a piece, which trimming removes.
  const std::string arguments = "  " + (dir / "first") + "   " + (dir / "second") + "\t  \t ";
  EXPECT_TRUE(SystemUtils::Execute(program.c_str(), arguments.c_str()));
  EXPECT_TRUE(PollUntil([&] { return Exists(dir / "first") && Exists(dir / "second"); }));
  EXPECT_EQ(EntriesOf(dir.path()), (std::set<std::string>{"toucher", "first", "second"}))
      << "exactly the named files";
  struct stat info;
  ASSERT_EQ(stat(program.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0111u) << "the whole mode is replaced and kept";
}

TEST_F(ProcessTest, ExecuteOfAMissingProgramStillReportsTheFork) {
  TempDir dir;
  // The exec fails in the child, which ends quietly; only the fork counts.
  EXPECT_TRUE(SystemUtils::Execute((dir / "missing").c_str(), "x"));
  EXPECT_FALSE(Exists(dir / "missing")) << "chmod creates nothing";
}

TEST_F(ProcessTest, KillWithoutForceEndsAProcessByName) {
  TempDir dir;
  const std::string name = sleepCopy(dir);
  ASSERT_FALSE(name.empty());
  ASSERT_TRUE(SystemUtils::Execute((dir / name).c_str(), "30"));
  ASSERT_TRUE(AppearsRunning(name));
  EXPECT_TRUE(SystemUtils::Kill(name.c_str(), false));
  EXPECT_TRUE(Disappears(name));
}

TEST_F(ProcessTest, KillWithForceEndsAProcessThatIgnoresTerm) {
  TempDir dir;
  const std::string name = sleepCopy(dir);
  ASSERT_FALSE(name.empty());
  // An ignored signal stays ignored across exec: this sleep ignores SIGTERM.
  const std::string command = "trap '' TERM; exec '" + (dir / name) + "' 30";
  ASSERT_TRUE(SystemUtils::Command(command.c_str()));
  ASSERT_TRUE(AppearsRunning(name));
  // A plain killall sends SIGTERM, which this process survives; wait for the
  // killall itself to finish before looking again.
  const std::string marker = dir / "killall-done";
  const std::string plain = "killall " + name + " 2>/dev/null; touch '" + marker + "'";
  // (The shell form of Kill(name, false), followed by a marker.)
  ASSERT_TRUE(SystemUtils::Command(plain.c_str()));
  ASSERT_TRUE(PollUntil([&] { return Exists(marker); }));
  EXPECT_FALSE(ProcessesNamed(name).empty()) << "SIGTERM should have been ignored";
  EXPECT_TRUE(SystemUtils::Kill(name.c_str(), true));
  EXPECT_TRUE(Disappears(name));
}

// Puts a stand-in killall first on PATH that records its arguments, so the
// exact command lines of Kill can be read back.
class KillCommandLineTest : public ProcessTest {
 protected:
  void SetUp() override {
    ProcessTest::SetUp();
    if (IsSkipped()) return;
    const char* path = getenv("PATH");
    oldPath_ = path != nullptr ? path : "/usr/bin:/bin";
    ASSERT_EQ(mkdir((dir_ / "bin").c_str(), 0755), 0);
    const std::string script = "#!/bin/sh\necho \"$*\" > '" + (dir_ / "args.tmp") + "'\nmv '" +
                               (dir_ / "args.tmp") + "' '" + (dir_ / "args") + "'\n";
    ASSERT_TRUE(WriteRawFile(dir_ / "bin/killall", script));
    ASSERT_EQ(chmod((dir_ / "bin/killall").c_str(), 0755), 0);
    setenv("PATH", ((dir_ / "bin") + ":" + oldPath_).c_str(), 1);
  }

  void TearDown() override {
    if (!oldPath_.empty()) setenv("PATH", oldPath_.c_str(), 1);
    ProcessTest::TearDown();
  }

  // The arguments the stand-in received next, or "" when it did not run.
  std::string nextArguments() {
    const std::string args = dir_ / "args";
    if (!PollUntil([&] { return Exists(args); })) return "";
    const std::string text = ReadRawFile(args);
    unlink(args.c_str());
    return text;
  }

  TempDir dir_;
  std::string oldPath_;
};

TEST_F(KillCommandLineTest, CommandLines) {
  struct Case {
    const char* name;
    bool force;
    const char* arguments;
  };
  const Case cases[] = {
      {"x", true, "-9 x\n"},
      {"x", false, "x\n"},
      {"some-daemon", true, "-9 some-daemon\n"},
      {"a b", false, "a b\n"},  // not quoted: two names
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_TRUE(SystemUtils::Kill(c.name, c.force));
    EXPECT_EQ(nextArguments(), c.arguments);
  }
}

TEST_F(KillCommandLineTest, NameReachesTheShellAsItIs) {
  const std::string marker = dir_ / "second-command";
  const std::string name = "x; touch '" + marker + "'";
  EXPECT_TRUE(SystemUtils::Kill(name.c_str(), false));
  EXPECT_EQ(nextArguments(), "x\n");
  EXPECT_TRUE(PollUntil([&] { return Exists(marker); }));
}

TEST_F(ProcessTest, ChildrenInheritNoDescriptorAboveTwo) {
  TempDir dir;
  // Descriptors a careless child would inherit: a file and a pipe, neither
  // marked close-on-exec.
  const int file = open((dir / "held").c_str(), O_CREAT | O_WRONLY, 0600);
  ASSERT_GE(file, 0);
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  std::set<std::string> parentTargets;
  for (const auto& fd : DescriptorsOf("self")) {
    if (fd.first > 2 && !fd.second.empty()) parentTargets.insert(fd.second);
  }
  ASSERT_EQ(parentTargets.count(dir / "held"), 1u) << "cannot read /proc/self/fd";
  for (int through = 0; through < 2; ++through) {
    SCOPED_TRACE(through == 0 ? "Execute" : "Command");
    const std::string name = sleepCopy(dir);
    ASSERT_FALSE(name.empty());
    if (through == 0) {
      ASSERT_TRUE(SystemUtils::Execute((dir / name).c_str(), "30"));
    } else {
      ASSERT_TRUE(SystemUtils::Command(("exec '" + (dir / name) + "' 30").c_str()));
    }
    ASSERT_TRUE(AppearsRunning(name));
    const std::vector<int> pids = ProcessesNamed(name);
    ASSERT_EQ(pids.size(), 1u);
    const std::map<int, std::string> inherited = DescriptorsOf(std::to_string(pids[0]));
    EXPECT_FALSE(inherited.empty()) << "cannot read /proc/" << pids[0] << "/fd";
    // Right after the exec the dynamic loader may briefly hold a descriptor of
    // its own (a library it maps); only what the parent had open must not be
    // there.
    for (const auto& fd : inherited) {
      if (fd.first <= 2) continue;
      EXPECT_EQ(parentTargets.count(fd.second), 0u)
          << "descriptor " << fd.first << " (" << fd.second << ") was inherited";
    }
    EXPECT_TRUE(SystemUtils::Kill(name.c_str(), true));
    EXPECT_TRUE(Disappears(name));
  }
  close(file);
  close(fds[0]);
  close(fds[1]);
}

}  // namespace
