// Child processes for tests: a body run in a fork()ed copy of the test, a
// pipe back from it, and bounded waits for both.
#ifndef ZORV_TESTS_SUPPORT_FORKED_H_
#define ZORV_TESTS_SUPPORT_FORKED_H_

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <signal.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>

#include "support/boundedwait.h"

namespace zorv {
namespace test {

// From now on, system call `nr` returns -`error` (0: returns 0) in every
// thread of this process and in its children, where a seccomp filter can be
// installed (not under qemu-user, for one); elsewhere nothing changes. Meant
// for a forked child.
inline void FailSyscall(unsigned int nr, unsigned int error) {
  sock_filter code[] = {
      {BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<unsigned int>(offsetof(seccomp_data, nr))},
      {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, nr},
      {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | error},
      {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
  };
  sock_fprog program = {static_cast<unsigned short>(sizeof code / sizeof code[0]), code};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0) {
    (void)syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_TSYNC, &program);
  }
}

// Runs `body(fd)` in a fork()ed child that ends with _exit(its result); `fd`
// is the write end of a close-on-exec pipe whose read end goes to *readEnd
// (closed when readEnd is null). Returns the child's id, or -1.
inline pid_t Fork(const std::function<int(int)>& body, int* readEnd = nullptr) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -1;
  fflush(nullptr);  // nothing of the test's output may be written twice
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    _exit(body(fds[1]));
  }
  close(fds[1]);
  if (readEnd != nullptr && child != -1) {
    *readEnd = fds[0];
  } else {
    close(fds[0]);
  }
  return child;
}

// The exit status of `child`, or -1 when it did not exit normally within the
// limit (it is then killed).
inline int WaitChild(pid_t child) {
  int status = 0;
  if (!PollUntil([&] { return waitpid(child, &status, WNOHANG) == child; })) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// What is written to `fd` until every writer has closed it, or up to the
// first `stop` byte when stop is not 0; "<timed out>" after the limit.
inline std::string ReadFrom(int fd, char stop = 0) {
  std::string text;
  const auto end = std::chrono::steady_clock::now() + kLongWait;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return "<timed out>";
    pollfd ready = {fd, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(left.count())) <= 0) continue;
    char byte;
    if (read(fd, &byte, 1) != 1) return text;
    text.push_back(byte);
    if (stop != 0 && byte == stop) return text;
  }
}

}  // namespace test
}  // namespace zorv

#endif  // ZORV_TESTS_SUPPORT_FORKED_H_
