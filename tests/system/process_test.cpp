// Process control: Command through the shell, Execute with its argument
// splitting and its chmod, Kill through killall, null arguments, what a
// started program inherits (no descriptor above 2, SIGCHLD at its default, no
// blocked signal), also when memory runs out, and a child whose exec fails.
// Children are real processes, observed through the file system and /proc
// with bounded polling. Every call that starts a child is made through
// ProcessTest::call(), which stops any child that comes back into the test.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "foundation/debug/memorymonitor.h"
#include "foundation/system/systemutils.h"
#include "support/boundedwait.h"
#include "support/leakcheck.h"
#include "support/tempdir.h"

namespace {

using zorv::foundation::debug::MemoryMonitor;
using zorv::foundation::system::SystemUtils;
using zorv::test::FailAfterGuard;
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

// The hexadecimal signal mask on the line `field` ("SigIgn", "SigBlk") of
// /proc/<pid>/status; false when it cannot be read.
bool SignalMask(int pid, const std::string& field, unsigned long long* mask) {
  bool ok = false;
  const std::string status = ReadRawFile("/proc/" + std::to_string(pid) + "/status", &ok);
  const size_t at = status.find("\n" + field + ":");
  if (!ok || at == std::string::npos) return false;
  *mask = strtoull(status.c_str() + at + field.size() + 2, nullptr, 16);
  return true;
}

// The bit of signal `number` in such a mask.
unsigned long long SignalBit(int number) { return 1ULL << (number - 1); }

// Everything written to `fd` until every writer has closed it; "<timed out>"
// when that takes longer than the limit.
std::string ReadUntilClosed(int fd) {
  std::string text;
  const auto end = std::chrono::steady_clock::now() + zorv::test::kLongWait;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return "<timed out>";
    pollfd ready = {fd, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(left.count())) <= 0) continue;
    char buffer[256];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n <= 0) return text;
    text.append(buffer, static_cast<size_t>(n));
  }
}

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

  // Makes one call that starts a child. Only the test process may come back
  // from it: a child that returns (or throws) out of the call instead of
  // running its program must never go on as a second copy of this test.
  static bool call(const std::function<bool()>& start) {
    const pid_t test = getpid();
    bool started = false;
    try {
      started = start();
    } catch (...) {
      LeaveUnlessTheTest(test);
      throw;
    }
    LeaveUnlessTheTest(test);
    return started;
  }

  // A shell command line that first ends the shell with status 1 when it is
  // this test's own process (the library ran its child's branch in the
  // caller, which then fails the whole run), then runs `rest`.
  static std::string NotInTheTest(const std::string& rest) {
    return "[ $$ -ne " + std::to_string(getpid()) + " ] || exit 1; " + rest;
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

 private:
  // In a child that came back, ends it and the test's own process by force:
  // the latter may have become the started program (the library ran the
  // child's branch in the caller), whose exit status would otherwise decide
  // the run.
  static void LeaveUnlessTheTest(pid_t test) {
    if (getpid() == test) return;
    static const char kWhy[] = "a child came back from the library into the test\n";
    const ssize_t written = write(2, kWhy, sizeof kWhy - 1);
    kill(test, SIGKILL);
    _exit(written > 0 ? 97 : 98);
  }
};

TEST_F(ProcessTest, NullArgumentsAndExhaustedMemoryReturnFalse) {
  EXPECT_FALSE(SystemUtils::Command(nullptr));
  EXPECT_FALSE(SystemUtils::Execute(nullptr, "-a"));
  EXPECT_FALSE(SystemUtils::Execute(nullptr, nullptr));
  EXPECT_FALSE(SystemUtils::Kill(nullptr, false));
  EXPECT_FALSE(SystemUtils::Kill(nullptr, true));
  // Memory runs out before a child exists: no exception, nothing started.
  TempDir dir;
  const std::string missing = dir / "missing";
  FailAfterGuard failing(1);
  EXPECT_FALSE(call([&] { return SystemUtils::Execute(missing.c_str(), "x"); }));
  MemoryMonitor::FailAfter(1);
  EXPECT_FALSE(call([] { return SystemUtils::Kill("a-name-longer-than-a-short-string", true); }));
}

// What a started program inherits from its caller: no descriptor above 2,
// SIGCHLD at its default although the caller ignores it, and no blocked
// signal although the calling thread blocks one. Also when memory runs out
// while the call makes its child ready: each allocation of the call fails in
// turn until the call starts a child, which must then be complete.
TEST_F(ProcessTest, StartedProgramsInheritOnlyStandardDescriptorsAndDefaultSignals) {
  struct Case {
    const char* name;
    bool execute;
    bool exhaust;
  };
  const Case cases[] = {
      {"Command", false, false},
      {"Command, allocations failing", false, true},
      {"Execute", true, false},
      {"Execute, allocations failing", true, true},
  };
  TempDir dir;
  // What a careless child would pass on: a file and a pipe, neither marked
  // close-on-exec, and SIGUSR2 blocked in this thread.
  struct Inheritance {
    int file;
    int pipe[2];
    sigset_t previous;
    explicit Inheritance(const std::string& path)
        : file(open(path.c_str(), O_CREAT | O_WRONLY, 0600)), pipe{-1, -1} {
      if (::pipe(pipe) != 0) pipe[0] = pipe[1] = -1;
      sigset_t blocked;
      sigemptyset(&blocked);
      sigaddset(&blocked, SIGUSR2);
      pthread_sigmask(SIG_BLOCK, &blocked, &previous);
    }
    ~Inheritance() {
      pthread_sigmask(SIG_SETMASK, &previous, nullptr);
      for (int fd : {file, pipe[0], pipe[1]}) {
        if (fd >= 0) close(fd);
      }
    }
  } inheritance(dir / "held");
  ASSERT_GE(inheritance.file, 0);
  ASSERT_GE(inheritance.pipe[0], 0);
  std::set<std::string> parentTargets;
  for (const auto& fd : DescriptorsOf("self")) {
    if (fd.first > 2 && !fd.second.empty()) parentTargets.insert(fd.second);
  }
  ASSERT_EQ(parentTargets.count(dir / "held"), 1u) << "cannot read /proc/self/fd";

  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string name = sleepCopy(dir);
    ASSERT_FALSE(name.empty());
    // Command's shell replaces itself with the sleeping copy, which Execute
    // starts directly (the shell would catch SIGCHLD itself).
    const std::string program = dir / name;
    const std::string command = NotInTheTest("exec '" + program + "' 30");
    std::function<bool()> start = [&] {
      return c.execute ? SystemUtils::Execute(program.c_str(), "30")
                       : SystemUtils::Command(command.c_str());
    };
    bool started = false;
    if (!c.exhaust) started = call(start);
    for (unsigned int n = 1; c.exhaust && !started && n <= 100; ++n) {
      FailAfterGuard failing(n);
      started = call(start);
    }
    ASSERT_TRUE(started);
    ASSERT_TRUE(AppearsRunning(name)) << "the child did not run its program";
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
    unsigned long long ignored = 0;
    unsigned long long blocked = 0;
    ASSERT_TRUE(SignalMask(pids[0], "SigIgn", &ignored));
    ASSERT_TRUE(SignalMask(pids[0], "SigBlk", &blocked));
    EXPECT_EQ(ignored & SignalBit(SIGCHLD), 0u) << "SIGCHLD is still ignored";
    EXPECT_EQ(blocked, 0u) << "blocked signals, mask " << std::hex << blocked;
    kill(pids[0], SIGKILL);
    EXPECT_TRUE(Disappears(name));
  }
}

TEST_F(ProcessTest, CommandRunsThroughTheShellWithoutWaiting) {
  TempDir dir;
  const std::string out = dir / "out";
  const std::string command = NotInTheTest("word=made; echo $word$word > '" + out + "'");
  EXPECT_TRUE(call([&] { return SystemUtils::Command(command.c_str()); }));
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
  EXPECT_TRUE(call([&] { return SystemUtils::Command(command.c_str()); }));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_TRUE(AppearsRunning(name));
  call([&] { return SystemUtils::Kill(name.c_str(), true); });
  EXPECT_TRUE(Disappears(name));
}

TEST_F(ProcessTest, ExecuteSplitsAtBlanksTrimsAndSetsModeExecuteOnly) {
  ASSERT_FALSE(touchProgram_.empty()) << "touch not found";
  TempDir dir;
  const std::string program = dir / "toucher";
  ASSERT_TRUE(CopyProgram(touchProgram_, program));
  // Runs of blanks, and tabs at the ends of a piece, which trimming removes.
  const std::string arguments = "  " + (dir / "first") + "   " + (dir / "second") + "\t  \t ";
  EXPECT_TRUE(call([&] { return SystemUtils::Execute(program.c_str(), arguments.c_str()); }));
  EXPECT_TRUE(PollUntil([&] { return Exists(dir / "first") && Exists(dir / "second"); }));
  EXPECT_EQ(EntriesOf(dir.path()), (std::set<std::string>{"toucher", "first", "second"}))
      << "exactly the named files";
  struct stat info;
  ASSERT_EQ(stat(program.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0111u) << "the whole mode is replaced and kept";
}

// A child whose program cannot be run ends at once: it neither comes back
// into the caller nor does the caller's exit work, such as writing out its
// stdio buffers a second time. The call is made by a helper process whose
// standard output is a pipe that the test reads to its end.
TEST_F(ProcessTest, FailedExecEndsTheChildWithoutTheCallersExitWork) {
  TempDir dir;
  const std::string missing = dir / "missing";
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  // None of the test's own output may be left in the helper's buffers.
  fflush(nullptr);
  const pid_t helper = fork();
  ASSERT_NE(helper, -1);
  if (helper == 0) {
    dup2(out[1], 1);
    close(out[0]);
    close(out[1]);
    // A stream with bytes not yet written: exit() would write them out. (Not
    // stdout, which some sanitizer runtimes flush in _exit too.)
    FILE* pending = fdopen(1, "w");
    if (pending == nullptr || setvbuf(pending, nullptr, _IOFBF, 1024) != 0) _exit(1);
    fputs("buffered by the caller", pending);
    const pid_t self = getpid();
    bool started = false;
    try {
      started = SystemUtils::Execute(missing.c_str(), "x");
    } catch (...) {
    }
    if (getpid() != self) _exit(97);  // a child came back into the caller
    const char* report = started ? "started\n" : "not started\n";
    const ssize_t written = write(1, report, strlen(report));
    _exit(written > 0 ? 0 : 1);
  }
  close(out[1]);
  const std::string written = ReadUntilClosed(out[0]);
  close(out[0]);
  if (written == "<timed out>") kill(helper, SIGKILL);
  waitpid(helper, nullptr, 0);
  EXPECT_EQ(written, "started\n");
  EXPECT_FALSE(Exists(missing)) << "chmod creates nothing";
}

TEST_F(ProcessTest, KillWithoutForceEndsAProcessByName) {
  TempDir dir;
  const std::string name = sleepCopy(dir);
  ASSERT_FALSE(name.empty());
  ASSERT_TRUE(call([&] { return SystemUtils::Execute((dir / name).c_str(), "30"); }));
  ASSERT_TRUE(AppearsRunning(name));
  EXPECT_TRUE(call([&] { return SystemUtils::Kill(name.c_str(), false); }));
  EXPECT_TRUE(Disappears(name));
}

TEST_F(ProcessTest, KillWithForceEndsAProcessThatIgnoresTerm) {
  TempDir dir;
  const std::string name = sleepCopy(dir);
  ASSERT_FALSE(name.empty());
  // An ignored signal stays ignored across exec: this sleep ignores SIGTERM.
  const std::string command = "trap '' TERM; exec '" + (dir / name) + "' 30";
  ASSERT_TRUE(call([&] { return SystemUtils::Command(command.c_str()); }));
  ASSERT_TRUE(AppearsRunning(name));
  // A plain killall sends SIGTERM, which this process survives; wait for the
  // killall itself to finish before looking again.
  const std::string marker = dir / "killall-done";
  const std::string plain = "killall " + name + " 2>/dev/null; touch '" + marker + "'";
  // (The shell form of Kill(name, false), followed by a marker.)
  ASSERT_TRUE(call([&] { return SystemUtils::Command(plain.c_str()); }));
  ASSERT_TRUE(PollUntil([&] { return Exists(marker); }));
  EXPECT_FALSE(ProcessesNamed(name).empty()) << "SIGTERM should have been ignored";
  EXPECT_TRUE(call([&] { return SystemUtils::Kill(name.c_str(), true); }));
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
    EXPECT_TRUE(call([&] { return SystemUtils::Kill(c.name, c.force); }));
    EXPECT_EQ(nextArguments(), c.arguments);
  }
}

TEST_F(KillCommandLineTest, NameReachesTheShellAsItIs) {
  const std::string marker = dir_ / "second-command";
  const std::string name = "x; touch '" + marker + "'";
  EXPECT_TRUE(call([&] { return SystemUtils::Kill(name.c_str(), false); }));
  EXPECT_EQ(nextArguments(), "x\n");
  EXPECT_TRUE(PollUntil([&] { return Exists(marker); }));
}

}  // namespace
