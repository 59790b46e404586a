// The accounting allocator and the containers built on it: SafeString and
// Vector take their heap blocks through it, and they are counted; the
// allocator throws std::bad_alloc on an injected failure or a request larger
// than 32 bits.
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "foundation/collection/vector.h"
#include "foundation/debug/memorymonitor.h"
#include "foundation/text/safestring.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::debug::Allocator;
using zorv::foundation::debug::MemoryMonitor;

using AllocationTest = zorv::test::LeakCheckedTest;

// Blocks and bytes in use above those at construction.
struct Usage {
  unsigned long long blocks = MemoryMonitor::LiveBlocks(), bytes = MemoryMonitor::LiveBytes();
  unsigned long long moreBlocks() const { return MemoryMonitor::LiveBlocks() - blocks; }
  unsigned long long moreBytes() const { return MemoryMonitor::LiveBytes() - bytes; }
};

// Short strings live inside the object; a longer one takes one block of its
// capacity and the terminating zero. Growth doubles the capacity when that
// suffices, else takes exactly what is needed. A vector's block is accounted
// too.
TEST_F(AllocationTest, SafeStringAndVectorBlocksAndGrowth) {
  // A size, what is appended, the capacity and the blocks taken then.
  const std::tuple<size_t, size_t, size_t, unsigned long long> cases[] = {
      {15, 0, 15, 0}, {15, 1, 30, 1}, {16, 0, 16, 1},    {20, 20, 40, 1},
      {20, 0, 20, 1}, {20, 1, 40, 1}, {41, 100, 141, 1}, {20, 101, 121, 1}};
  for (const auto& [size, append, capacity, blocks] : cases) {
    SCOPED_TRACE(std::to_string(size) + " + " + std::to_string(append));
    const Usage before;
    SafeString s(size, 'a');
    s.append(append, 'b');
    EXPECT_EQ(s.capacity(), capacity);
    EXPECT_EQ(s, SafeString(std::string(size, 'a').append(append, 'b').c_str()));
    EXPECT_EQ(before.moreBlocks(), blocks);
    EXPECT_EQ(before.moreBytes(), blocks == 0 ? 0 : capacity + 1);
  }
  const Usage before;
  Vector<int> v;
  for (int i = 0; i < 1000; ++i) v.push_back(i);
  EXPECT_EQ(before.moreBlocks(), 1u) << "a vector's one block";
  EXPECT_EQ(before.moreBytes(), v.capacity() * sizeof(int));
  SafeString s("abc");
  EXPECT_EQ(s.max_size(), 0x7FFFFFFFu) << "the longest length is 31 bits";
  EXPECT_THROW(s.resize(static_cast<size_t>(0x7FFFFFFFu) + 1u), std::length_error);
  EXPECT_EQ(s, "abc");
}

SafeString Take(const SafeString& s) { return s; }

// SafeString converts implicitly from the standard strings, whole bytes and
// accounted memory, and only explicitly back; the base class's results
// convert too, and it hashes as the standard string.
TEST_F(AllocationTest, SafeStringConvertsFromStandardStringsAndHashes) {
  static_assert(std::is_convertible<std::string, SafeString>::value, "from std::string");
  static_assert(std::is_convertible<std::string_view, SafeString>::value, "from string_view");
  static_assert(!std::is_convertible<SafeString, std::string>::value, "back only explicitly");
  static_assert(std::is_convertible<SafeString, std::string_view>::value, "view without a copy");
  const std::string withNul("a\0b", 3);
  const SafeString fromStd = withNul;
  EXPECT_EQ(Take(std::string_view(withNul)), fromStd);
  EXPECT_EQ(Take(withNul.substr(1)), SafeString(std::string_view("\0b", 2)));
  EXPECT_EQ(static_cast<std::string>(fromStd), withNul);
  SafeString assigned("x");
  assigned = withNul;
  EXPECT_EQ(assigned.str(), withNul);
  const Usage before;
  const SafeString converted = std::string(100, 'x');
  EXPECT_EQ(before.moreBytes(), 101u);
  EXPECT_EQ(Take(fromStd + " world").substr(4), "world");
  EXPECT_EQ(std::hash<SafeString>()(fromStd), std::hash<std::string>()(withNul));
}

TEST_F(AllocationTest, AllocatorThrowsBadAllocOnInjectedFailureAndOversizedRequests) {
  {
    zorv::test::FailAfterGuard guard(1);
    EXPECT_THROW(SafeString(100, 'a'), std::bad_alloc);
    EXPECT_EQ(SafeString(100, 'a').size(), 100u) << "an injected failure fires once";
  }
  {
    zorv::test::FailAfterGuard guard(3);
    Vector<int> v;
    v.reserve(1);
    v.reserve(2);
    EXPECT_THROW(v.reserve(3), std::bad_alloc);
    EXPECT_EQ(v.capacity(), 2u) << "the vector keeps what it had";
  }
  Allocator<int> ints;
  EXPECT_THROW(ints.allocate(0x40000000u), std::bad_alloc) << "4 GiB does not fit in 32 bits";
  EXPECT_TRUE(Allocator<char>() == Allocator<long>());
  EXPECT_FALSE(Allocator<char>() != Allocator<long>());
}

}  // namespace
