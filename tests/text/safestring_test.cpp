// Tests of SafeString's conversions to and from the standard strings.
#include "foundation/text/safestring.h"

#include <string>
#include <string_view>
#include <type_traits>

#include "foundation/debug/memorymonitor.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::SafeString;

using SafeStringTest = zorv::test::LeakCheckedTest;

SafeString Take(const SafeString& s) { return s; }

TEST_F(SafeStringTest, ConvertsImplicitlyFromStandardStringsAndExplicitlyBack) {
  static_assert(std::is_convertible<std::string, SafeString>::value, "from std::string");
  static_assert(std::is_convertible<std::string_view, SafeString>::value, "from string_view");
  static_assert(!std::is_convertible<SafeString, std::string>::value, "back only explicitly");
  static_assert(std::is_convertible<SafeString, std::string_view>::value, "view without a copy");

  const std::string with_nul("a\0b", 3);
  const SafeString from_std = with_nul;
  EXPECT_EQ(Take(std::string_view(with_nul)), from_std);
  EXPECT_EQ(Take(with_nul.substr(1)), SafeString(std::string_view("\0b", 2)));
  EXPECT_EQ(static_cast<std::string>(from_std), with_nul);
  SafeString assigned("x");
  assigned = with_nul;
  EXPECT_EQ(assigned.str(), with_nul);
  // Conversion memory is accounted.
  const unsigned long long before = zorv::foundation::debug::MemoryMonitor::LiveBytes();
  const SafeString s = std::string(100, 'x');
  EXPECT_GE(zorv::foundation::debug::MemoryMonitor::LiveBytes(), before + 100);
  EXPECT_EQ(Take(s).str(), std::string(100, 'x'));
}

}  // namespace
