// SystemUtils: the library's clocks, the processor count and, further down,
// process control.
#ifndef ZORV_FOUNDATION_SYSTEM_SYSTEMUTILS_H_
#define ZORV_FOUNDATION_SYSTEM_SYSTEMUTILS_H_

#include "foundation/export.h"

namespace zorv {
namespace foundation {
namespace system {

// Static access to the operating system. The monotonic clocks are the time
// base of the whole library: due times, time-outs and stopwatches read them.
//
// Thread safety: every operation may be called from any thread.
class ZORV_FOUNDATION_EXPORT SystemUtils {
 public:
  SystemUtils() = delete;

  // ---- Clocks and processors ----

  // Milliseconds of CLOCK_MONOTONIC (seconds * 1000 + nanoseconds / 1000000).
  // Never goes backwards; unrelated to the wall clock.
  static unsigned long long GetTick();

  // Microseconds of CLOCK_MONOTONIC (seconds * 1000000 + nanoseconds / 1000).
  static unsigned long long GetClock();

  // The number of GetClock() units in a second: always 1000000.
  static unsigned long long GetClockFreq();

  // Seconds since the Unix epoch (time(NULL)), sign-extended to 64 bits.
  static long long GetTime();

  // The number of processors currently available (get_nprocs()).
  static int GetProcessorNum();

  // ---- Process control ----
  //
  // Children are started without waiting for them: the result says only
  // whether the child process could be created, never whether its program
  // ran or how it ended. The child is made with vfork: it borrows the
  // caller's memory until it has started its program (or failed to), and
  // the calling thread waits that long, with every signal blocked; so a
  // start costs the same whatever the caller's size, and the caller takes
  // no copy-on-write faults afterwards. Each call sets SIGCHLD to SIG_IGN
  // for the whole process, and it stays so: children are reaped by the
  // system and never become zombies, but nobody in the process can wait for
  // their exit status any more (waitpid then fails with ECHILD).
  //
  // The argument vector is made ready before the child is made; the child
  // allocates nothing, takes no lock and makes only system calls that are
  // safe in the child of a threaded process, so it is complete even when
  // memory is short and never comes back into the caller's code. Before it
  // runs its program the child sets every caught signal and SIGCHLD back to
  // their defaults and unblocks every signal, so the program can wait for
  // children of its own, and closes every descriptor above 2 that it
  // inherited; standard input, output and error stay shared with the
  // caller. When the program cannot be run, the child ends at once with
  // _exit(0): no exit handlers, static destructors or stdio flushes of the
  // caller run in it. None of these throws.

  // Runs `command` through "/bin/sh -c" in a child process. Returns false
  // when `command` is null or no child could be created.
  static bool Command(const char* command);

  // Runs the program at `path` in a child process, with the arguments
  // `arguments` split at each blank (' '), each piece trimmed of blanks and
  // tabs, empty pieces dropped; quotes are not interpreted, so an argument
  // cannot contain a blank. Null arguments run the program without any.
  // Before anything else the file's mode is set to 0111 (execute-only for
  // owner, group and others, read and write bits removed), and it keeps that
  // mode. Returns false when `path` is null, memory runs out while the
  // arguments are made ready, or no child could be created; a program that
  // cannot be run is not reported.
  static bool Execute(const char* path, const char* arguments);

  // Kills processes by name with the shell command "killall <name>", or
  // "killall -9 <name>" when `force` is set, run as Command() runs it. The
  // name is not quoted or escaped: it reaches the shell as it is. killall
  // must be on the shell's search path. Returns false when `name` is null,
  // memory runs out while the command is built, or no child could be
  // created.
  static bool Kill(const char* name, bool force);
};

}  // namespace system
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_SYSTEM_SYSTEMUTILS_H_
