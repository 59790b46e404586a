#include "foundation/system/library.h"

#include "support/leakcheck.h"

namespace {

using zorv::foundation::system::Library;

using LibraryTest = zorv::test::LeakCheckedTest;

// The mathematics library is present wherever the foundation library runs.
constexpr char kLibm[] = "libm.so.6";

// An object holds one library: a failed load leaves it empty, a second load
// fails and keeps the first.
TEST_F(LibraryTest, LoadsOnceLooksUpAndUnloads) {
  Library library;
  EXPECT_FALSE(library.load("/nonexistent/libzorv.so"));
  EXPECT_EQ(library.address("cos"), nullptr) << "nothing loaded yet";
  library.unload();  // nothing to unload
  ASSERT_TRUE(library.load(kLibm));
  EXPECT_FALSE(library.load("libdl.so.2"));
  EXPECT_FALSE(library.load("/nonexistent/libzorv.so"));
  void* cosine = library.address("cos");
  ASSERT_NE(cosine, nullptr) << "the first library stays loaded";
  double (*call)(double) = reinterpret_cast<double (*)(double)>(cosine);
  EXPECT_DOUBLE_EQ(call(0.0), 1.0);
  EXPECT_EQ(library.address("zorv_no_such_symbol"), nullptr);
  library.unload();
  EXPECT_EQ(library.address("cos"), nullptr);
  EXPECT_TRUE(library.load(kLibm)) << "loads again after unload";
  library.unload();
}

}  // namespace
