// Tests of MemoryBuffer: growth, positions, moves and copying from buffers.
#include "foundation/memory/memorybuffer.h"

#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "foundation/memory/stringreader.h"
#include "foundation/text/safestring.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::memory::IBuffer;
using zorv::foundation::memory::MemoryBuffer;
using zorv::foundation::memory::StringReader;

using MemoryBufferTest = zorv::test::LeakCheckedTest;

const unsigned char* Bytes(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
}

std::vector<unsigned char> Pattern(size_t n) {
  std::vector<unsigned char> bytes(n);
  for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<unsigned char>(i * 7 + 3);
  return bytes;
}

void ExpectFields(const MemoryBuffer& b, unsigned long long length, unsigned long long read,
                  unsigned long long write) {
  EXPECT_EQ(b.length(), length);
  EXPECT_EQ(b.tellRead(), read);
  EXPECT_EQ(b.tellWrite(), write);
}

// The buffer's fields in their binary order, behind the virtual table
// pointer: the layout is part of the interface, and it lets the tests read
// the allocated size.
struct Layout {
  void* vtable;
  unsigned char* block;
  unsigned long long length;
  unsigned long long readPosition;
  unsigned long long writePosition;
  unsigned long long allocLength;
};
static_assert(sizeof(Layout) == sizeof(MemoryBuffer), "MemoryBuffer layout");

unsigned long long Allocated(const MemoryBuffer& b) {
  Layout fields;
  std::memcpy(static_cast<void*>(&fields), static_cast<const void*>(&b), sizeof(fields));
  EXPECT_EQ(fields.block, b.data());
  EXPECT_EQ(fields.length, b.length());
  EXPECT_EQ(fields.readPosition, b.tellRead());
  EXPECT_EQ(fields.writePosition, b.tellWrite());
  return fields.allocLength;
}

TEST_F(MemoryBufferTest, NewBufferIsEmpty) {
  MemoryBuffer b;
  ExpectFields(b, 0, 0, 0);
  EXPECT_EQ(b.data(), nullptr);
  unsigned char byte = 0;
  EXPECT_TRUE(b.read(&byte, 0));
  EXPECT_FALSE(b.read(&byte, 1));
  b.clear();  // without storage nothing changes
  ExpectFields(b, 0, 0, 0);
}

// The growth sequence: exactly the first write, then doubling when the
// shortfall fits in the current size, else exactly the shortfall more.
TEST_F(MemoryBufferTest, GrowthSequence) {
  struct Step {
    unsigned long long write;
    unsigned long long allocatedAfter;
  };
  // 10 -> exactly 10; +1 (shortfall 1 <= 10) -> 20; +100 with 9 free
  // (shortfall 91 > 20) -> 111; +5 with 0 free (5 <= 111) -> 222.
  const Step steps[] = {{10, 10}, {1, 20}, {100, 111}, {5, 222}, {0, 222}, {106, 222}, {1, 444}};
  MemoryBuffer b;
  const std::vector<unsigned char> bytes = Pattern(200);
  unsigned long long written = 0;
  std::vector<unsigned char> expected;
  for (const Step& s : steps) {
    SCOPED_TRACE(s.write);
    b.write(bytes.data(), s.write);
    expected.insert(expected.end(), bytes.begin(), bytes.begin() + static_cast<long>(s.write));
    written += s.write;
    ExpectFields(b, written, 0, written);
    EXPECT_EQ(Allocated(b), s.allocatedAfter);
    ASSERT_EQ(std::memcmp(b.data(), expected.data(), expected.size()), 0);
  }
}

TEST_F(MemoryBufferTest, AllocHelpersDoNotTouchLengthOrPositions) {
  MemoryBuffer b;
  b._addAllocLength(10);  // 0 < 10: exactly 10
  EXPECT_EQ(Allocated(b), 10u);
  ExpectFields(b, 0, 0, 0);
  b._addAllocLength(4);  // 4 <= 10: doubles
  EXPECT_EQ(Allocated(b), 20u);
  b._addAllocLength(21);  // 20 < 21: exactly 41
  EXPECT_EQ(Allocated(b), 41u);
  b._setAllocLength(5);
  EXPECT_EQ(Allocated(b), 5u);
  ExpectFields(b, 0, 0, 0);
  const std::vector<unsigned char> bytes = Pattern(5);
  b.write(bytes.data(), 5);  // fits exactly: no growth
  EXPECT_EQ(Allocated(b), 5u);
  ExpectFields(b, 5, 0, 5);
  b.clear();
  EXPECT_EQ(Allocated(b), 0u);
}

TEST_F(MemoryBufferTest, WriteAfterSeekOverwritesWithoutExtending) {
  MemoryBuffer b;
  b.write(Bytes("0123456789"), 10);
  EXPECT_EQ(b.seekWrite(0), 10u);
  b.write(Bytes("abc"), 3);
  ExpectFields(b, 10, 0, 3);
  EXPECT_EQ(std::memcmp(b.data(), "abc3456789", 10), 0);
  // Overwriting past the end extends the length.
  EXPECT_EQ(b.seekWrite(8), 3u);
  b.write(Bytes("XYZW"), 4);
  ExpectFields(b, 12, 0, 12);
  EXPECT_EQ(std::memcmp(b.data(), "abc34567XYZW", 12), 0);
}

TEST_F(MemoryBufferTest, WritesFromItsOwnBytes) {
  struct Case {
    std::string text;
    unsigned long long writeAt;
    size_t from;
    size_t count;
    std::string expected;
  };
  std::string large(1 << 20, '\0');
  for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 7 + i / 251);
  const Case cases[] = {
      {"abcdef", 6, 0, 6, "abcdefabcdef"},   // grows: the block may move
      {"abcdef", 6, 2, 3, "abcdefcde"},      // grows, from the middle
      {"abcdef", 4, 0, 6, "abcdabcdef"},     // grows, overlapping the target
      {"abcdef", 1, 0, 3, "aabcef"},         // fits, overlapping the target
      {large, large.size(), 0, large.size(), large + large},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 8) + " at " + std::to_string(c.writeAt));
    MemoryBuffer b;
    b.write(Bytes(c.text.c_str()), c.text.size());
    b.seekWrite(c.writeAt);
    b.write(b.data() + c.from, c.count);
    ASSERT_EQ(b.length(), c.expected.size());
    EXPECT_EQ(std::memcmp(b.data(), c.expected.data(), c.expected.size()), 0);
  }
}

TEST_F(MemoryBufferTest, ReadAndSeekRules) {
  MemoryBuffer b;
  b.write(Bytes("hello world"), 11);
  unsigned char out[16] = {};
  EXPECT_TRUE(b.read(out, 5));
  EXPECT_EQ(std::memcmp(out, "hello", 5), 0);
  EXPECT_EQ(b.tellRead(), 5u);
  EXPECT_TRUE(b.read(out, 0));
  EXPECT_FALSE(b.read(out, 7));  // 6 remain
  EXPECT_EQ(b.tellRead(), 5u);
  EXPECT_TRUE(b.read(out, 6));
  EXPECT_EQ(std::memcmp(out, " world", 6), 0);
  EXPECT_TRUE(b.read(out, 0));  // at the end, 0 bytes still succeed
  EXPECT_FALSE(b.read(out, 1));

  EXPECT_EQ(b.seekRead(12), 11u);  // beyond the length: unchanged
  EXPECT_EQ(b.tellRead(), 11u);
  EXPECT_EQ(b.seekRead(11), 11u);
  EXPECT_EQ(b.seekRead(0), 11u);
  EXPECT_EQ(b.tellRead(), 0u);
  EXPECT_EQ(b.seekWrite(100), 11u);
  EXPECT_EQ(b.tellWrite(), 11u);
  EXPECT_EQ(b.seekWrite(4), 11u);
  EXPECT_EQ(b.tellWrite(), 4u);
  EXPECT_FALSE(b.read(out, ~0ull));
}

TEST_F(MemoryBufferTest, SetLengthResizesAndResetsPositions) {
  MemoryBuffer b;
  b.write(Bytes("abcdef"), 6);
  unsigned char out[8];
  ASSERT_TRUE(b.read(out, 2));
  EXPECT_EQ(b.setLength(6), 6u);  // same length, positions still reset
  ExpectFields(b, 6, 0, 0);
  EXPECT_EQ(std::memcmp(b.data(), "abcdef", 6), 0);
  EXPECT_EQ(b.setLength(3), 6u);
  ExpectFields(b, 3, 0, 0);
  EXPECT_EQ(std::memcmp(b.data(), "abc", 3), 0);
  EXPECT_EQ(b.setLength(8), 3u);
  EXPECT_EQ(std::memcmp(b.data(), "abc", 3), 0);
  EXPECT_EQ(Allocated(b), 8u);
  b.write(Bytes("12345678"), 8);
  EXPECT_EQ(Allocated(b), 8u);
  EXPECT_EQ(b.setLength(0), 8u);
  ExpectFields(b, 0, 0, 0);
  EXPECT_EQ(b.data(), nullptr);
  EXPECT_EQ(Allocated(b), 0u);
}

TEST_F(MemoryBufferTest, ClearFreesAndZeroes) {
  MemoryBuffer b;
  b.write(Bytes("abc"), 3);
  unsigned char out[1];
  ASSERT_TRUE(b.read(out, 1));
  b.clear();
  ExpectFields(b, 0, 0, 0);
  EXPECT_EQ(b.data(), nullptr);
  b.write(Bytes("xy"), 2);
  ExpectFields(b, 2, 0, 2);
}

TEST_F(MemoryBufferTest, MovesTakeEverything) {
  MemoryBuffer a;
  a.write(Bytes("payload"), 7);
  unsigned char out[3];
  ASSERT_TRUE(a.read(out, 3));
  const unsigned char* block = a.data();

  MemoryBuffer b(std::move(a));
  ExpectFields(a, 0, 0, 0);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(a.data(), nullptr);
  ExpectFields(b, 7, 3, 7);
  EXPECT_EQ(b.data(), block);

  MemoryBuffer c;
  c.write(Bytes("old"), 3);
  c = std::move(b);
  ExpectFields(c, 7, 3, 7);
  EXPECT_EQ(c.data(), block);
  ExpectFields(b, 0, 0, 0);  // NOLINT(bugprone-use-after-move)

  MemoryBuffer& self = c;
  c = std::move(self);
  ExpectFields(c, 7, 3, 7);
  EXPECT_EQ(c.data(), block);
}

TEST_F(MemoryBufferTest, FromTakesBytesAtTheSourceReadPosition) {
  MemoryBuffer source;
  source.write(Bytes("0123456789"), 10);
  unsigned char skip[2];
  ASSERT_TRUE(source.read(skip, 2));

  MemoryBuffer target;
  target.write(Bytes("zz"), 2);
  EXPECT_TRUE(target.from(&source, 5));
  ExpectFields(target, 5, 0, 0);
  EXPECT_EQ(std::memcmp(target.data(), "23456", 5), 0);
  EXPECT_EQ(source.tellRead(), 7u);

  EXPECT_FALSE(target.from(&source, 4));  // only 3 remain: nothing changes
  ExpectFields(target, 5, 0, 0);
  EXPECT_EQ(source.tellRead(), 7u);
  EXPECT_FALSE(target.from(nullptr, 1));
  EXPECT_TRUE(target.from(&source, 0));
  ExpectFields(target, 0, 0, 0);
}

TEST_F(MemoryBufferTest, FromWithOffsetRestoresTheSourcePosition) {
  MemoryBuffer source;
  source.write(Bytes("0123456789"), 10);
  unsigned char skip[1];
  ASSERT_TRUE(source.read(skip, 1));

  MemoryBuffer target;
  EXPECT_TRUE(target.from(&source, 6, 3));
  EXPECT_EQ(std::memcmp(target.data(), "678", 3), 0);
  EXPECT_EQ(source.tellRead(), 1u);
  EXPECT_FALSE(target.from(&source, 8, 3));
  EXPECT_EQ(source.tellRead(), 1u);
  // An offset beyond the source leaves the start at the read position.
  EXPECT_TRUE(target.from(&source, 50, 2));
  EXPECT_EQ(std::memcmp(target.data(), "12", 2), 0);
  EXPECT_EQ(source.tellRead(), 1u);
  EXPECT_FALSE(target.from(nullptr, 0, 0));

  // Any IBuffer serves as a source.
  const SafeString text("reader text");
  StringReader reader(text);
  EXPECT_TRUE(target.from(&reader, 7, 4));
  EXPECT_EQ(std::memcmp(target.data(), "text", 4), 0);
  EXPECT_EQ(reader.tellRead(), 0u);
}

// A target whose setLength throws: from() swallows it and reports false.
class RefusingBuffer : public MemoryBuffer {
 public:
  unsigned long long setLength(unsigned long long) override { throw std::bad_alloc(); }
};

TEST_F(MemoryBufferTest, FromSwallowsAFailingSetLength) {
  MemoryBuffer source;
  source.write(Bytes("abc"), 3);
  RefusingBuffer target;
  EXPECT_FALSE(target.from(&source, 2));
  EXPECT_EQ(source.tellRead(), 0u);
}

TEST_F(MemoryBufferTest, ImpossibleGrowthThrowsBadAllocAndChangesNothing) {
  MemoryBuffer b;
  b.write(Bytes("abc"), 3);
  EXPECT_THROW(b._setAllocLength(~0ull), std::bad_alloc);
  EXPECT_THROW(b.setLength((~0ull >> 1) + 1), std::bad_alloc);
  ExpectFields(b, 3, 0, 3);
  EXPECT_EQ(std::memcmp(b.data(), "abc", 3), 0);
  unsigned char byte = 'x';
  EXPECT_THROW(b.write(&byte, ~0ull - 1), std::bad_alloc);
  ExpectFields(b, 3, 0, 3);
}

TEST_F(MemoryBufferTest, CopyCopiesBytes) {
  unsigned char to[5] = {};
  MemoryBuffer::Copy(to, Bytes("hello"), 5);
  EXPECT_EQ(std::memcmp(to, "hello", 5), 0);
  MemoryBuffer::Copy(nullptr, nullptr, 0);
}

TEST_F(MemoryBufferTest, ManySmallWritesReadBackInOrder) {
  MemoryBuffer b;
  const std::vector<unsigned char> bytes = Pattern(4096);
  for (int i = 0; i < 256; ++i) b.write(bytes.data(), 1 + static_cast<unsigned int>(i) % 97);
  std::vector<unsigned char> out(97);
  for (int i = 0; i < 256; ++i) {
    const unsigned int n = 1 + static_cast<unsigned int>(i) % 97;
    ASSERT_TRUE(b.read(out.data(), n));
    ASSERT_EQ(std::memcmp(out.data(), bytes.data(), n), 0);
  }
  EXPECT_EQ(b.tellRead(), b.length());
}

}  // namespace
