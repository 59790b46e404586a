#include "foundation/lang/exception.h"

#include "support/leakcheck.h"

namespace {

using zorv::foundation::lang::Exception;

using ExceptionTest = zorv::test::LeakCheckedTest;

// what() is built from the texts of the last assignment.
TEST_F(ExceptionTest, WhatJoinsSourceAndReason) {
  struct Case {
    const char* func;
    const char* info;
    const char* what;
  };
  const Case cases[] = {
      {"zorv.foundation.memory.StringReader.write", "not supported operation",
       "zorv.foundation.memory.StringReader.write : not supported operation"},
      {"", "", " : "},
  };
  Exception e("zorv.foundation.a.B.c", "an earlier reason");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    e = Exception(c.func, c.info);
    EXPECT_EQ(e.what(), c.what);
  }
}

}  // namespace
