// Process control: Command through the shell, Execute with its argument
// splitting and its chmod, Kill through killall, and what a started program
// inherits. Every call that starts a child is made in a forked caller
// process (Call), which reports back who returned from the call: a library
// that ran its child's branch in the caller never reaches the test itself,
// and fails the test through that report. Children are observed through the
// files they write and through /proc, with bounded polling.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <iostream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "foundation/debug/memorymonitor.h"
#include "foundation/system/systemutils.h"
#include "support/boundedwait.h"
#include "support/forked.h"
#include "support/leakcheck.h"
#include "support/tempdir.h"

namespace {

using zorv::foundation::debug::MemoryMonitor;
using zorv::foundation::system::SystemUtils;
using zorv::test::PollUntil;
using zorv::test::ReadRawFile;
using zorv::test::TempDir;

// close_range, the same number on every architecture.
constexpr unsigned int kCloseRange = 436;

// The first existing one of the usual places of a program, copied to `to`
// with mode 0755; false on failure.
bool CopyProgram(const char* name, const std::string& to) {
  for (const char* folder : {"/usr/bin/", "/bin/"}) {
    bool ok = false;
    const std::string bytes = ReadRawFile(std::string(folder) + name, &ok);
    if (ok && !bytes.empty()) {
      return zorv::test::WriteRawFile(to, bytes) && chmod(to.c_str(), 0755) == 0;
    }
  }
  return false;
}

// Lists /proc/<pid>/<folder> ("self" for this process): each entry with the
// target of its link ("" for a plain entry).
std::map<std::string, std::string> Entries(const std::string& path) {
  std::map<std::string, std::string> entries;
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return entries;
  while (dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    char target[4096];
    const ssize_t n = readlink((path + "/" + name).c_str(), target, sizeof target - 1);
    entries[name] = n > 0 ? std::string(target, static_cast<size_t>(n)) : "";
  }
  closedir(dir);
  return entries;
}

// Ids of the processes whose name is `name`.
std::vector<int> ProcessesNamed(const std::string& name) {
  std::vector<int> pids;
  for (const auto& entry : Entries("/proc")) {
    const int pid = atoi(entry.first.c_str());
    if (pid > 0 && ReadRawFile("/proc/" + entry.first + "/comm") == name + "\n")
      pids.push_back(pid);
  }
  return pids;
}

// The hexadecimal mask on line `field` ("SigIgn", "SigBlk") of the status.
unsigned long long SignalMask(int pid, const std::string& field) {
  const std::string status = ReadRawFile("/proc/" + std::to_string(pid) + "/status");
  const size_t at = status.find("\n" + field + ":");
  EXPECT_NE(at, std::string::npos) << "no " << field << " for " << pid;
  return at == std::string::npos ? ~0ULL : strtoull(status.c_str() + at + field.size() + 2, 0, 16);
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

class ProcessTest : public zorv::test::LeakCheckedTest {
 protected:
  void TearDown() override {
    for (const std::string& name : started_) {  // no child may outlive its test
      for (int pid : ProcessesNamed(name)) kill(pid, SIGKILL);
    }
    LeakCheckedTest::TearDown();
  }

  // Makes `start` in a forked caller process, which then reports its own id,
  // the result, whether it threw, whether SIGCHLD is ignored afterwards (it
  // must be after a child was started, so that the system reaps the child),
  // whether the thread's signal mask is as before and the blocks the call left; true when it started a child. With `exhaust`, allocation n = 1,
  // 2, ... fails in turn until the call starts a child. With `pending`, the caller's standard
  // output is the report pipe with bytes buffered by a stdio stream that only the caller's exit
  // work would write out: any byte on the pipe besides the report fails the test.
  bool Call(const std::function<bool()> start, bool exhaust = false, bool pending = false) {
    int from = -1;
    const pid_t caller = zorv::test::Fork(
        [&](int to) {
          if (pending) {
            FILE* out = dup2(to, 1) == 1 ? fdopen(1, "w") : nullptr;
            if (out == nullptr || setvbuf(out, nullptr, _IOFBF, 1024) != 0) return 1;
            fputs("buffered by the caller\n", out);
          }
          const pid_t self = getpid();
          const unsigned long long blocks = MemoryMonitor::LiveBlocks();
          sigset_t maskBefore, maskAfter;
          pthread_sigmask(SIG_SETMASK, nullptr, &maskBefore);
          bool started = false, threw = false;
          for (unsigned int n = exhaust ? 1 : 0; !started && n <= 100 && getpid() == self; ++n) {
            zorv::test::FailAfterGuard failing(n);
            try {
              started = start();
            } catch (...) {
              threw = true;
            }
            if (!exhaust) break;
          }
          struct sigaction chld;
          sigaction(SIGCHLD, nullptr, &chld);
          pthread_sigmask(SIG_SETMASK, nullptr, &maskAfter);
          bool maskKept = true;
          for (int s = 1; s < NSIG; ++s) {
            maskKept = maskKept && sigismember(&maskBefore, s) == sigismember(&maskAfter, s);
          }
          char line[100];
          const int n = snprintf(line, sizeof line, "%d %d %d %d %d %lld\n", getpid(), started,
                                 threw, chld.sa_handler == SIG_IGN, maskKept,
                                 static_cast<long long>(MemoryMonitor::LiveBlocks() - blocks));
          return write(pending ? 1 : to, line, static_cast<size_t>(n)) == n ? 0 : 1;
        },
        &from);
    EXPECT_GT(caller, 0);
    const std::string text = zorv::test::ReadFrom(from);
    close(from);
    int pid = 0, started = 0, threw = 0, ignored = 0, maskKept = 0, used = 0;
    long long leaked = 0;
    const bool parsed = sscanf(text.c_str(), "%d %d %d %d %d %lld\n%n", &pid, &started, &threw,
                               &ignored, &maskKept, &leaked, &used) == 6 &&
                        static_cast<size_t>(used) == text.size();
    if (!parsed || pid != caller) kill(caller, SIGKILL);  // it may run the child's program
    EXPECT_EQ(zorv::test::WaitChild(caller), parsed && pid == caller ? 0 : -1);
    EXPECT_TRUE(parsed) << "not a report alone from the caller: '" << text << "'";
    if (!parsed) return false;
    EXPECT_EQ(pid, caller) << "the call came back in another process than its caller";
    EXPECT_EQ(threw, 0);
    EXPECT_EQ(leaked, 0) << "blocks left behind by the call";
    EXPECT_TRUE(ignored != 0 || started == 0) << "SIGCHLD is not left ignored";
    EXPECT_EQ(maskKept, 1) << "the calling thread's signal mask changed";
    return started != 0 && pid == caller;
  }

  // A copy of sleep under a fresh unique name (at most 15 bytes, the
  // kernel's limit for a process name) in `dir`; "" after a failure.
  std::string sleepCopy(const TempDir& dir) {
    static std::atomic<int> counter{0};
    const std::string name = "zk" + std::to_string(getpid()) + "x" + std::to_string(counter++);
    if (!CopyProgram("sleep", dir / name)) ADD_FAILURE() << "cannot copy the sleep program";
    started_.push_back(name);
    return name;
  }

  std::vector<std::string> started_;
};

// (Memory that runs out before a child exists: no exception, nothing
// started; each call meets each failure in the inheritance and killall tests.)
TEST_F(ProcessTest, NullArgumentsReturnFalse) {
  EXPECT_FALSE(SystemUtils::Command(nullptr));
  EXPECT_FALSE(SystemUtils::Execute(nullptr, "-a"));
  EXPECT_FALSE(SystemUtils::Kill(nullptr, true));
}

// What a started program inherits: no descriptor above 2, SIGCHLD at its
// default although the caller ignores it, SIGHUP ignored as the caller
// ignores it (as nohup does), no blocked signal although the
// calling thread blocks one; also when allocations of the call fail. The
// call returns while the child goes on, and leaves SIGCHLD ignored so that
// the system reaps the child; Command's shell runs the whole line.
TEST_F(ProcessTest, StartedProgramsInheritOnlyStandardDescriptorsAndDefaultSignals) {
  struct Case {
    const char* name;
    bool execute;
    bool exhaust;
    bool noCloseRange;
    bool noStdin;  // descriptor 0 closed: the child's listing then gets it
  };
  // clang-format off
  const Case cases[] = {
      {"Command", false, false, false, false},
      {"Command, allocations failing", false, true, false, false},
      {"Execute", true, false, false, false},
      {"Execute, allocations failing", true, true, false, false},
      {"Execute, descriptors listed one by one", true, false, true, false},
      {"Command, descriptors listed one by one", false, false, true, false},
      {"Command, listed one by one, no descriptor 0", false, false, true, true}};
  // clang-format on
  TempDir dir;
  // What a careless child passes on: a file and a pipe without close-on-exec,
  // and SIGUSR2 blocked in this thread (fork keeps the mask).
  const int file = open((dir / "held").c_str(), O_CREAT | O_WRONLY, 0600);
  int pipeFds[2] = {-1, -1};
  ASSERT_GE(file, 0);
  ASSERT_EQ(pipe(pipeFds), 0);
  // Also at 90, whose name has the digits at either end of the range.
  const int ninety = fcntl(90, F_GETFD) == -1 ? dup2(file, 90) : -1;
  ASSERT_EQ(ninety, 90);
  sigset_t blocked, previous;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &blocked, &previous);
  struct sigaction ignore = {}, hangUp;
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGHUP, &ignore, &hangUp);
  std::set<std::string> held, standard;  // what the test has open above 2, and of 0..2
  for (const auto& fd : Entries("/proc/self/fd")) {
    if (atoi(fd.first.c_str()) > 2 && !fd.second.empty()) held.insert(fd.second);
    if (atoi(fd.first.c_str()) <= 2) standard.insert(fd.first);
  }
  EXPECT_EQ(held.count(dir / "held"), 1u) << "cannot read /proc/self/fd";

  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string name = sleepCopy(dir);
    // Command's shell writes "mademade" and replaces itself with the copy.
    const std::string program = dir / name, out = dir / (name + ".out");
    const std::string command =
        "word=made; echo $word$word > '" + out + "'; exec '" + program + "' 30";
    const int savedIn = c.noStdin ? fcntl(0, F_DUPFD_CLOEXEC, 3) : -1;
    if (c.noStdin) close(0);
    const bool started = Call(
        [&] {
          if (c.noCloseRange) zorv::test::FailSyscall(kCloseRange, ENOSYS);
          return c.execute ? SystemUtils::Execute(program.c_str(), "30")
                           : SystemUtils::Command(command.c_str());
        },
        c.exhaust);
    if (savedIn >= 0) {
      dup2(savedIn, 0);
      close(savedIn);
    }
    ASSERT_TRUE(started);
    ASSERT_TRUE(PollUntil([&] { return !ProcessesNamed(name).empty(); }))
        << "the child did not run its program";
    EXPECT_EQ(ReadRawFile(out), c.execute ? "" : "mademade\n");
    const std::vector<int> pids = ProcessesNamed(name);
    ASSERT_EQ(pids.size(), 1u);
    EXPECT_EQ(SignalMask(pids[0], "SigIgn") & (1ULL << (SIGCHLD - 1) | 1ULL << (SIGHUP - 1)),
              1ULL << (SIGHUP - 1))
        << "SIGCHLD ignored, or SIGHUP not";
    EXPECT_EQ(SignalMask(pids[0], "SigBlk"), 0u) << "signals blocked";
    const std::string fds = "/proc/" + std::to_string(pids[0]) + "/fd";
    // Execute leaves the program execute-only, and a process run from a file
    // its user cannot read hides its descriptors from all but root.
    if (c.execute && geteuid() != 0 && access(fds.c_str(), R_OK) != 0) {
      std::cout << "not root: the descriptors of '" << c.name << "' are not checked\n";
      continue;
    }
    const auto inherited = Entries(fds);
    for (const std::string& fd : standard) {
      if (c.noStdin && fd == "0") continue;
      EXPECT_EQ(inherited.count(fd), 1u) << fd << " closed";
    }
    // The dynamic loader may briefly hold one of its own right after exec.
    for (const auto& fd : inherited) {
      if (atoi(fd.first.c_str()) <= 2) continue;
      EXPECT_EQ(held.count(fd.second), 0u) << "inherited " << fd.first << " " << fd.second;
    }
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  sigaction(SIGHUP, &hangUp, nullptr);
  for (int fd : {file, pipeFds[0], pipeFds[1], ninety}) close(fd);
}

// A handler of the caller never runs in a started child, also for a signal
// that reaches the child before its program runs. The caller (in a process
// group of its own) signals the whole group while it starts programs.
TEST_F(ProcessTest, TheCallersHandlersNeverRunInAChild) {
  const pid_t caller = zorv::test::Fork([](int) {
    static volatile int* ranElsewhere;
    static pid_t self;
    void* shared = mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (setpgid(0, 0) != 0 || shared == MAP_FAILED) return 2;
    ranElsewhere = static_cast<volatile int*>(shared);
    self = getpid();
    struct sigaction action = {};
    action.sa_handler = [](int) {
      if (getpid() != self) *ranElsewhere = 1;
    };
    sigaction(SIGUSR1, &action, nullptr);
    std::atomic<bool> done{false};
    std::thread sender([&done] {
      while (!done) kill(0, SIGUSR1);
    });
    for (int i = 0; i < 300 && *ranElsewhere == 0; ++i) (void)SystemUtils::Execute("/bin/true", "");
    done = true;
    sender.join();
    return *ranElsewhere;
  });
  ASSERT_GT(caller, 0);
  EXPECT_EQ(zorv::test::WaitChild(caller), 0);
}

TEST_F(ProcessTest, ExecuteSplitsAtBlanksTrimsSetsModeExecuteOnlyAndEndsAFailedChild) {
  TempDir dir;
  const std::string program = dir / "toucher";
  ASSERT_TRUE(CopyProgram("touch", program));
  // Runs of blanks, and tabs at the ends of a piece, which trimming removes:
  // a word left untrimmed would be a file in the folder too.
  const std::string arguments = "  first   " + (dir / "second") + "\t  \t ";
  EXPECT_TRUE(Call([&] {
    return chdir(dir.path().c_str()) == 0 &&
           SystemUtils::Execute(program.c_str(), arguments.c_str());
  }));
  EXPECT_TRUE(PollUntil([&] { return Exists(dir / "first") && Exists(dir / "second"); }));
  std::set<std::string> names;
  for (const auto& entry : Entries(dir.path())) names.insert(entry.first);
  EXPECT_EQ(names, (std::set<std::string>{"toucher", "first", "second"})) << "exactly these";
  struct stat info;
  ASSERT_EQ(stat(program.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0111u) << "the whole mode is replaced and kept";
  // A child whose program cannot be run ends at once, without the caller's
  // exit work (which would write out the caller's buffered bytes again).
  const std::string missing = dir / "missing";
  EXPECT_TRUE(Call([&] { return SystemUtils::Execute(missing.c_str(), "x"); }, false, true));
  EXPECT_FALSE(Exists(missing)) << "chmod creates nothing";
}

// A stand-in killall first on the caller's PATH records its arguments, so
// that the exact command lines of Kill can be read back. Each allocation of
// the call fails in turn first (the last row's command is long enough to
// need some).
TEST_F(ProcessTest, KillCommandLines) {
  TempDir dir;
  const std::string args = dir / "args";
  ASSERT_TRUE(
      zorv::test::WriteRawFile(dir / "killall", "#!/bin/sh\necho \"$*\" > '" + args + "'\n"));
  ASSERT_EQ(chmod((dir / "killall").c_str(), 0755), 0);
  const std::string path = dir.path() + ":/usr/bin:/bin";
  const std::string marker = dir / "second-command";
  struct Case {
    std::string name;
    bool force;
    const char* arguments;
  };
  // clang-format off
  const Case cases[] = {{"x", true, "-9 x\n"}, {"x", false, "x\n"},
                        {"x; touch '" + marker + "'", false, "x\n"}};  // reaches the shell as it is
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto kill = [&] {
      return setenv("PATH", path.c_str(), 1) == 0 && SystemUtils::Kill(c.name.c_str(), c.force);
    };
    ASSERT_TRUE(Call(kill, true));
    EXPECT_TRUE(PollUntil([&] { return ReadRawFile(args) == c.arguments; })) << ReadRawFile(args);
    unlink(args.c_str());
  }
  EXPECT_TRUE(PollUntil([&] { return Exists(marker); }));
}

}  // namespace
