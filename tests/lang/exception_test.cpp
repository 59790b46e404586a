#include "foundation/lang/exception.h"

#include <string>

#include "support/leakcheck.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::lang::Exception;

using ExceptionTest = zorv::test::LeakCheckedTest;

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
      {"a source longer than fifteen", "", "a source longer than fifteen : "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const Exception e(c.func, c.info);
    EXPECT_EQ(e.what(), c.what);
    EXPECT_EQ(e.func(), c.func);
    EXPECT_EQ(e.info(), c.info);
  }
}

TEST_F(ExceptionTest, CopiesAreIndependentAndThrowByValue) {
  Exception original("zorv.foundation.a.B.c", "first reason");
  Exception copy(original);
  original = Exception("zorv.foundation.x.Y.z", "second reason");
  EXPECT_EQ(copy.what(), "zorv.foundation.a.B.c : first reason");
  EXPECT_EQ(original.what(), "zorv.foundation.x.Y.z : second reason");
  try {
    throw copy;
  } catch (Exception caught) {
    EXPECT_EQ(caught.info(), "first reason");
  }
}

}  // namespace
