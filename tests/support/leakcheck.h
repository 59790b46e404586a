// A test fixture that fails the test that leaks accounted objects, handles
// or blocks.
#ifndef ZORV_TESTS_SUPPORT_LEAKCHECK_H_
#define ZORV_TESTS_SUPPORT_LEAKCHECK_H_

#include <gtest/gtest.h>

namespace zorv {
namespace test {

// Snapshots the debug-support counters in SetUp and expects them back at
// those values in TearDown. Derive fixtures from it, or use it directly with
// TEST_F(LeakCheckedTest, ...).
class LeakCheckedTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

 private:
  unsigned long long objects_ = 0;
  long long handles_ = 0;
  unsigned long long blocks_ = 0;
  unsigned long long bytes_ = 0;
};

// Switches fault injection off when a test leaves its scope, also on early
// return.
class FailAfterGuard {
 public:
  explicit FailAfterGuard(unsigned int n);
  ~FailAfterGuard();
  FailAfterGuard(const FailAfterGuard&) = delete;
  FailAfterGuard& operator=(const FailAfterGuard&) = delete;
};

}  // namespace test
}  // namespace zorv

// Expects `statement` to throw lang::Exception with exactly these texts.
#define EXPECT_ZORV_THROW(statement, expectedFunc, expectedInfo)                 \
  do {                                                                            \
    bool zorvThrown = false;                                                      \
    try {                                                                         \
      statement;                                                                  \
    } catch (const ::zorv::foundation::lang::Exception& zorvError) {              \
      zorvThrown = true;                                                          \
      EXPECT_EQ(std::string(zorvError.func().c_str()), std::string(expectedFunc)); \
      EXPECT_EQ(std::string(zorvError.info().c_str()), std::string(expectedInfo)); \
    }                                                                             \
    EXPECT_TRUE(zorvThrown) << "expected an Exception from: " #statement;         \
  } while (0)

#endif  // ZORV_TESTS_SUPPORT_LEAKCHECK_H_
