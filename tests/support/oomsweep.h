// An allocation-failure sweep: runs one operation once for each accounted
// allocation it makes, with exactly that allocation failing, and checks after
// every attempt that nothing was left behind.
#ifndef ZORV_TESTS_SUPPORT_OOMSWEEP_H_
#define ZORV_TESTS_SUPPORT_OOMSWEEP_H_

#include <gtest/gtest.h>

#include <exception>
#include <new>

#include "foundation/debug/memorymonitor.h"
#include "foundation/lang/exception.h"
#include "support/leakcheck.h"

namespace zorv {
namespace test {

// More attempts than any swept operation needs: reaching it fails the sweep.
constexpr unsigned int kOomSweepBound = 10000;

// One attempt of a sweep: the n-th accounted allocation made while run()
// executes fails, on whichever thread makes it. A row prepares its state,
// calls run() once with the operation, then checks the visible state against
// what the attempt reports. Threads that the operation hands work to must not
// allocate meanwhile (hold them at a gate), or the failure lands elsewhere.
class OomAttempt {
 public:
  explicit OomAttempt(unsigned int n) : n_(n) {}

  // Runs `op` with FailAfter(n) armed and switches injection off again.
  // std::bad_alloc is caught and reported by threw(); any other exception
  // fails the test with its texts.
  template <class Op>
  void run(Op&& op) {
    EXPECT_FALSE(ran_) << "an attempt runs its operation once";
    ran_ = true;
    std::exception_ptr other;
    {
      FailAfterGuard armed(n_);
      try {
        op();
      } catch (const std::bad_alloc&) {
        threw_ = true;
      } catch (...) {
        other = std::current_exception();
      }
      injected_ = threw_ || !Pending();
    }
    if (other) Report(other);
  }

  // Runs `op`, an operation that returns its whole result or throws, and
  // expects the result unless it threw.
  template <class T, class Op>
  void wholeOrThrown(const T& expected, Op&& op) {
    T got{};
    run([&] { got = op(); });
    if (!threw_) {
      EXPECT_EQ(got, expected);
    }
  }

  bool ran() const { return ran_; }
  // The operation ended by std::bad_alloc.
  bool threw() const { return threw_; }
  // The armed failure fired while the operation ran (and was reported or
  // absorbed by it).
  bool injected() const { return injected_; }

 private:
  // True when the armed failure has not fired yet. It is at most n
  // allocations away, so n probe allocations find it (and use it up).
  bool Pending() const {
    using foundation::debug::MemoryMonitor;
    for (unsigned int i = 0; i < n_; ++i) {
      unsigned char* block = MemoryMonitor::Alloc(1);
      if (block == nullptr) return true;
      MemoryMonitor::Dealloc(block, 1);
    }
    return false;
  }

  static void Report(const std::exception_ptr& error) {
    try {
      std::rethrow_exception(error);
    } catch (const foundation::lang::Exception& e) {
      ADD_FAILURE() << "unexpected Exception: " << e.what().c_str();
    } catch (const std::exception& e) {
      ADD_FAILURE() << "unexpected exception: " << e.what();
    } catch (...) {
      ADD_FAILURE() << "unexpected exception of unknown type";
    }
  }

  unsigned int n_;
  bool ran_ = false;
  bool threw_ = false;
  bool injected_ = false;
};

// True when the attempt completed: the operation returned `ok` without
// throwing. An attempt in which no failure fired must have returned ok.
inline bool Completed(const OomAttempt& a, bool ok = true) {
  EXPECT_TRUE(ok || a.injected()) << "failed without an allocation failure";
  return !a.threw() && ok;
}

// A fixture that sweeps operations: the counter baseline of LeakCheckedTest
// is taken again before every attempt and checked after it.
class OomSweepTest : public LeakCheckedTest {
 protected:
  // Calls attempt(a) for n = 1, 2, ... until an attempt ran without the
  // armed failure firing; that attempt must have completed. Stops at the
  // first attempt that fails a check, so the trace names its n.
  template <class Attempt>
  void sweep(Attempt&& attempt) {
    for (unsigned int n = 1; n <= kOomSweepBound; ++n) {
      SCOPED_TRACE(::testing::Message() << "allocation " << n << " fails");
      SetUp();
      OomAttempt a(n);
      attempt(a);
      TearDown();
      EXPECT_TRUE(a.ran()) << "the attempt never ran its operation";
      if (HasFailure() || !a.injected()) return;
    }
    ADD_FAILURE() << "still failing after " << kOomSweepBound << " attempts";
  }
};

}  // namespace test
}  // namespace zorv

// Makes `check` (an EXPECT_...) unless the attempt's operation threw.
#define UNLESS_THREW(attempt, check) \
  do {                               \
    if (!(attempt).threw()) {        \
      check;                         \
    }                                \
  } while (0)

#endif  // ZORV_TESTS_SUPPORT_OOMSWEEP_H_
