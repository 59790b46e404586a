#include <stdexcept>
#include <string>
#include <unordered_map>

#include "foundation/collection/vector.h"
#include "foundation/debug/memorymonitor.h"
#include "foundation/debug/objectmonitor.h"
#include "foundation/lang/disposable.h"
#include "foundation/text/safestring.h"
#include "lang/accounting.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::debug::Allocator;
using zorv::foundation::debug::MemoryMonitor;
using zorv::foundation::debug::ObjectMonitor;
namespace lang = zorv::foundation::lang;

using CoreTest = zorv::test::LeakCheckedTest;

struct Usage {
  unsigned long long blocks;
  unsigned long long bytes;
};

Usage Now() { return Usage{MemoryMonitor::LiveBlocks(), MemoryMonitor::LiveBytes()}; }

TEST_F(CoreTest, SafeStringKeepsShortStringsInsideAndAccountsHeapBlocks) {
  const Usage before = Now();
  {
    SafeString fifteen(15, 'a');
    EXPECT_EQ(Now().blocks, before.blocks) << "15 characters fit in the object";
    SafeString sixteen(16, 'b');
    EXPECT_EQ(Now().blocks, before.blocks + 1);
    EXPECT_EQ(Now().bytes, before.bytes + 17) << "capacity 16 + terminating zero";
  }
  EXPECT_EQ(Now().blocks, before.blocks);
  EXPECT_EQ(Now().bytes, before.bytes);
}

TEST_F(CoreTest, SafeStringDoublesCapacityWhenThatSuffices) {
  const Usage before = Now();
  SafeString s(20, 'x');
  ASSERT_EQ(s.capacity(), 20u);
  EXPECT_EQ(Now().bytes, before.bytes + 21);
  s.push_back('y');
  EXPECT_EQ(s.capacity(), 40u);
  EXPECT_EQ(Now().blocks, before.blocks + 1);
  EXPECT_EQ(Now().bytes, before.bytes + 41);
  // A jump past twice the capacity takes exactly what is needed.
  s.append(100, 'z');
  EXPECT_EQ(s.capacity(), 121u);
  EXPECT_EQ(Now().bytes, before.bytes + 122);
}

TEST_F(CoreTest, SafeStringLongestLengthIs31Bits) {
  SafeString s("abc");
  EXPECT_EQ(s.max_size(), 0x7FFFFFFFu);
  EXPECT_THROW(s.resize(static_cast<size_t>(0x7FFFFFFFu) + 1u), std::length_error);
  EXPECT_EQ(s, "abc");
}

TEST_F(CoreTest, SafeStringConvertsFromStandardResultsAndHashes) {
  SafeString a("hello");
  SafeString b = a + " world";
  SafeString c = b.substr(6);
  EXPECT_EQ(b, "hello world");
  EXPECT_EQ(c, "world");
  EXPECT_TRUE(a < b);
  std::unordered_map<SafeString, int, std::hash<SafeString>, std::equal_to<SafeString>,
                     Allocator<std::pair<const SafeString, int> > >
      table;
  table[a] = 1;
  table[SafeString("a much longer key than fifteen characters")] = 2;
  EXPECT_EQ(table.at(SafeString("hello")), 1);
  EXPECT_EQ(std::hash<SafeString>()(a), std::hash<std::string>()(std::string("hello")));
}

TEST_F(CoreTest, AllocatorThrowsBadAllocOnInjectedFailureAndOversizedRequests) {
  {
    zorv::test::FailAfterGuard guard(1);
    EXPECT_THROW(SafeString(100, 'a'), std::bad_alloc);
    // Injection fires once only.
    SafeString fine(100, 'a');
    EXPECT_EQ(fine.size(), 100u);
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
  EXPECT_EQ(ints.max_size(), 0xFFFFFFFFu / sizeof(int));
  EXPECT_THROW(ints.allocate(0x40000000u), std::bad_alloc) << "4 GiB does not fit in 32 bits";
  Allocator<char> chars;
  EXPECT_TRUE(chars == Allocator<long>());
  EXPECT_FALSE(chars != Allocator<long>());
}

TEST_F(CoreTest, VectorBlocksAreAccounted) {
  const Usage before = Now();
  {
    Vector<int> v;
    for (int i = 0; i < 1000; ++i) v.push_back(i);
    EXPECT_EQ(Now().blocks, before.blocks + 1);
    EXPECT_EQ(Now().bytes, before.bytes + v.capacity() * sizeof(int));
    Vector<int> copy = v;
    EXPECT_EQ(copy, v);
    Vector<SafeString> strings{SafeString("a"), SafeString(40, 'b')};
    EXPECT_EQ(strings[1].size(), 40u);
  }
  EXPECT_EQ(Now().blocks, before.blocks);
}

struct Probe {
  static int live;
  explicit Probe(int v) : value(v) { ++live; }
  ~Probe() { --live; }
  int value;
};
int Probe::live = 0;

struct Throwing {
  Throwing() { throw std::runtime_error("no"); }
};

TEST_F(CoreTest, AccountedObjectsAreRecordedAndForgotten) {
  const unsigned long long objects = ObjectMonitor::LiveObjects();
  Probe* p = lang::AccountedNew<Probe>(ZORV_ACCOUNTING_SITE("../lang/test", "Probe"), 7);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->value, 7);
  EXPECT_EQ(Probe::live, 1);
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects + 1);
  lang::AccountedDelete(p, ZORV_ACCOUNTING_SITE("../lang/test", "~Probe"));
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(Probe::live, 0);
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects);
  lang::AccountedDelete(p, ZORV_ACCOUNTING_SITE("../lang/test", "~Probe"));  // null: nothing

  EXPECT_THROW(lang::AccountedNew<Throwing>(ZORV_ACCOUNTING_SITE("../lang/test", "Throwing")),
               std::runtime_error);
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects);
}

// Calls the default dispose() through a null pointer, as hosts may; the
// sanitizer's null-call check would otherwise flag the call itself.
__attribute__((no_sanitize("undefined"))) void DisposeNull() {
  lang::IDisposable* none = nullptr;
  __asm__("" : "+r"(none));  // a pointer the compiler cannot see is null
  none->lang::IDisposable::dispose();
}

struct Task : lang::IDisposable {
  explicit Task(int* destroyed) : destroyed_(destroyed) {}
  ~Task() override { ++*destroyed_; }
  int* destroyed_;
};

struct OtherBase {
  virtual ~OtherBase() = default;
  char padding[24] = {};
};

struct MixedTask : OtherBase, lang::IDisposable {
  explicit MixedTask(int* destroyed) : destroyed_(destroyed) {}
  ~MixedTask() override { ++*destroyed_; }
  int* destroyed_;
};

TEST_F(CoreTest, DisposeDestroysAccountedAndPlainObjectsOnce) {
  const unsigned long long objects = ObjectMonitor::LiveObjects();
  int destroyed = 0;

  lang::IDisposable* made = lang::MakeDisposable<Task>("Task", &destroyed);
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects + 1);
  made->dispose();
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects);

  // A task the host created with plain new: never recorded, still disposed.
  lang::IDisposable* plain = new Task(&destroyed);
  plain->dispose();
  EXPECT_EQ(destroyed, 2);
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects);

  // The disposable base is not at the start of the object.
  MixedTask* mixed = lang::MakeDisposable<MixedTask>("MixedTask", &destroyed);
  lang::IDisposable* asDisposable = mixed;
  ASSERT_NE(static_cast<void*>(asDisposable), static_cast<void*>(mixed));
  asDisposable->dispose();
  EXPECT_EQ(destroyed, 3);
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects);

  DisposeNull();  // does nothing
  EXPECT_EQ(ObjectMonitor::LiveObjects(), objects);
}

}  // namespace
