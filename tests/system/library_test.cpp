#include "foundation/system/library.h"

#include "support/leakcheck.h"

namespace {

using zorv::foundation::system::Library;

using LibraryTest = zorv::test::LeakCheckedTest;

// An object holds one library: a failed load leaves it empty, a second load
// fails and keeps the first.
TEST_F(LibraryTest, LoadsOnceLooksUpAndUnloads) {
  Library library;
  EXPECT_FALSE(library.load("/nonexistent/libzorv.so"));
  EXPECT_EQ(library.address("cos"), nullptr) << "nothing loaded yet";
  library.unload();  // nothing to unload
  // The mathematics library is present wherever the foundation library runs.
  ASSERT_TRUE(library.load("libm.so.6"));
  EXPECT_FALSE(library.load("libdl.so.2"));
  const auto cosine = reinterpret_cast<double (*)(double)>(library.address("cos"));
  ASSERT_NE(cosine, nullptr) << "the first library stays loaded";
  EXPECT_DOUBLE_EQ(cosine(0.0), 1.0);
  library.unload();
  EXPECT_EQ(library.address("cos"), nullptr);
}

}  // namespace
