#include "foundation/lang/exception.h"

#include <new>
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

TEST_F(ExceptionTest, AllocationFailureReleasesWhatWasCopied) {
  const std::string longFunc(40, 'f');
  const std::string longInfo(40, 'i');
  for (unsigned int n = 1; n <= 2; ++n) {
    SCOPED_TRACE(n);
    zorv::test::FailAfterGuard guard(n);
    EXPECT_THROW(Exception(longFunc.c_str(), longInfo.c_str()), std::bad_alloc);
  }
  const Exception e(longFunc.c_str(), longInfo.c_str());
  zorv::test::FailAfterGuard guard(1);
  EXPECT_THROW(e.what(), std::bad_alloc);
}

}  // namespace
