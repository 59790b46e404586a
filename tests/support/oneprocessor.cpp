// With ZORV_TEST_ONE_PROCESSOR=1 in its environment, a test process holds
// itself to the first processor it may run on before main() starts, as if it
// ran on a single-core board: every thread made later (the pools' workers
// among them) inherits that. Linked into every test executable.
#include <sched.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct OneProcessor {
  OneProcessor() {
    const char* flag = std::getenv("ZORV_TEST_ONE_PROCESSOR");
    if (flag == nullptr || std::strcmp(flag, "1") != 0) return;
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) == 0) {
      for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (!CPU_ISSET(cpu, &allowed)) continue;
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(cpu, &one);
        if (sched_setaffinity(0, sizeof one, &one) == 0) return;
        break;
      }
    }
    std::fprintf(stderr, "ZORV_TEST_ONE_PROCESSOR: could not hold the process to one processor\n");
    std::abort();
  }
};

const OneProcessor g_oneProcessor;

}  // namespace
