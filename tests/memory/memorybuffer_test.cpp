// Tests of MemoryBuffer (growth, positions, moves and copying from buffers),
// StringReader and StringWriter.
#include "foundation/memory/memorybuffer.h"

#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "foundation/lang/exception.h"
#include "foundation/memory/stringreader.h"
#include "foundation/memory/stringwriter.h"
#include "foundation/text/safestring.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::memory::IBuffer;
using zorv::foundation::memory::MemoryBuffer;
using zorv::foundation::memory::StringReader;
using zorv::foundation::memory::StringWriter;

using MemoryBufferTest = zorv::test::LeakCheckedTest;
using StringReaderTest = zorv::test::LeakCheckedTest;
using StringWriterTest = zorv::test::LeakCheckedTest;

const unsigned char* Bytes(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
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
  return fields.allocLength;
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
      {"abcdef", 6, 0, 6, "abcdefabcdef"},  // grows: the block may move
      {"abcdef", 6, 2, 3, "abcdefcde"},     // grows, from the middle
      {"abcdef", 4, 0, 6, "abcdabcdef"},    // grows, overlapping the target
      {"abcdef", 1, 0, 3, "aabcef"},        // fits, overlapping the target
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

// One buffer through a script of calls: each row is a call, what it
// returns, and the fields, allocated size and bytes afterwards.
TEST_F(MemoryBufferTest, CallsMoveLengthPositionsAndStorage) {
  struct Step {
    const char* op;
    unsigned long long n;        // bytes to write or read, a position, a length
    const char* bytes;           // bytes written, or expected from a read
    unsigned long long returns;  // a read: 1 when it succeeds
    unsigned long long length, read, write, allocated;
    const char* content;
  };
  const Step steps[] = {
      {"addAlloc", 10, "", 0, 0, 0, 0, 10, ""},  // from nothing: exactly
      {"addAlloc", 4, "", 0, 0, 0, 0, 20, ""},   // fits in the size: doubles
      {"addAlloc", 21, "", 0, 0, 0, 0, 41, ""},  // else exactly the shortfall more
      {"setAlloc", 10, "", 0, 0, 0, 0, 10, ""},
      {"write", 10, "0123456789", 0, 10, 0, 10, 10, "0123456789"},  // fits exactly
      {"seekWrite", 0, "", 10, 10, 0, 0, 10, "0123456789"},
      {"write", 3, "abc", 0, 10, 0, 3, 10, "abc3456789"},  // overwrites, no longer
      {"seekWrite", 8, "", 3, 10, 0, 8, 10, "abc3456789"},
      {"write", 4, "XYZW", 0, 12, 0, 12, 20, "abc34567XYZW"},  // past the end: longer
      {"read", 5, "abc34", 1, 12, 5, 12, 20, "abc34567XYZW"},
      {"read", 8, "", 0, 12, 5, 12, 20, "abc34567XYZW"},  // 7 remain: nothing read
      {"read", 7, "567XYZW", 1, 12, 12, 12, 20, "abc34567XYZW"},
      {"read", 0, "", 1, 12, 12, 12, 20, "abc34567XYZW"},  // at the end, 0 bytes succeed
      {"read", 1, "", 0, 12, 12, 12, 20, "abc34567XYZW"},
      {"seekRead", 13, "", 12, 12, 12, 12, 20, "abc34567XYZW"},  // beyond: unchanged
      {"seekRead", 0, "", 12, 12, 0, 12, 20, "abc34567XYZW"},
      {"seekRead", 12, "", 0, 12, 12, 12, 20, "abc34567XYZW"},  // exactly the length
      {"seekWrite", 100, "", 12, 12, 12, 12, 20, "abc34567XYZW"},
      {"seekWrite", 4, "", 12, 12, 12, 4, 20, "abc34567XYZW"},
      {"seekWrite", 12, "", 4, 12, 12, 12, 20, "abc34567XYZW"},
      {"read", ~0ULL, "", 0, 12, 12, 12, 20, "abc34567XYZW"},
      {"setLength", 3, "", 12, 3, 0, 0, 3, "abc"},  // positions reset
      {"setLength", 8, "", 3, 8, 0, 0, 8, "abc"},
      {"setLength", 0, "", 8, 0, 0, 0, 0, ""},
      {"write", 3, "xyz", 0, 3, 0, 3, 3, "xyz"},  // from nothing: exactly
      {"read", 1, "x", 1, 3, 1, 3, 3, "xyz"},
      {"write", 5, "12345", 0, 8, 1, 8, 8, "xyz12345"},  // short by more than the size: exactly
      {"clear", 0, "", 0, 0, 0, 0, 0, ""},
  };
  MemoryBuffer b;
  for (const Step& s : steps) {
    SCOPED_TRACE(std::string(s.op) + " " + std::to_string(s.n) + " " + s.bytes);
    const std::string op = s.op;
    std::vector<unsigned char> out(s.n == ~0ULL ? 1 : s.n + 1);
    unsigned long long returned = 0;
    if (op == "read") {
      returned = b.read(out.data(), s.n) ? 1 : 0;
      if (returned == 1) {
        EXPECT_EQ(std::string(out.begin(), out.begin() + s.n), s.bytes);
      }
    } else if (op == "write") {
      b.write(Bytes(s.bytes), s.n);
    } else if (op == "seekRead") {
      returned = b.seekRead(s.n);
    } else if (op == "seekWrite") {
      returned = b.seekWrite(s.n);
    } else if (op == "setLength") {
      returned = b.setLength(s.n);
    } else if (op == "addAlloc") {
      b._addAllocLength(s.n);
    } else if (op == "setAlloc") {
      b._setAllocLength(s.n);
    } else {
      b.clear();
    }
    EXPECT_EQ(returned, s.returns);
    ExpectFields(b, s.length, s.read, s.write);
    EXPECT_EQ(Allocated(b), s.allocated);
    EXPECT_EQ(b.data() == nullptr, s.allocated == 0);
    if (b.data() != nullptr) {
      EXPECT_EQ(std::memcmp(b.data(), s.content, strlen(s.content)), 0);
    }
  }
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

// A target whose setLength throws: from() swallows it and reports false.
class RefusingBuffer : public MemoryBuffer {
 public:
  unsigned long long setLength(unsigned long long) override { throw std::bad_alloc(); }
};

// from() takes bytes at the source's read position, or at an offset and then
// puts the position back; the target holds just them, rewound.
TEST_F(MemoryBufferTest, FromTakesBytesOfAnotherBuffer) {
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
  EXPECT_TRUE(target.from(&source, 3));  // exactly what remains
  EXPECT_TRUE(target.from(&source, 0));  // at the end
  ExpectFields(target, 0, 0, 0);

  ASSERT_EQ(source.seekRead(1), 10u);
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
  RefusingBuffer refusing;
  EXPECT_FALSE(refusing.from(&source, 2));
  EXPECT_EQ(source.tellRead(), 1u);

  // Any IBuffer serves as a source.
  const SafeString text("reader text");
  StringReader reader(text);
  EXPECT_TRUE(target.from(&reader, 7, 4));
  EXPECT_EQ(std::memcmp(target.data(), "text", 4), 0);
  EXPECT_EQ(reader.tellRead(), 0u);
}

TEST_F(MemoryBufferTest, ImpossibleGrowthThrowsBadAllocAndChangesNothing) {
  MemoryBuffer b;
  b.write(Bytes("abc"), 3);
  EXPECT_THROW(b.setLength((~0ull >> 1) + 1), std::bad_alloc);
  ExpectFields(b, 3, 0, 3);
  EXPECT_EQ(std::memcmp(b.data(), "abc", 3), 0);
  unsigned char byte = 'x';
  EXPECT_THROW(b.write(&byte, ~0ull - 1), std::bad_alloc);
  ExpectFields(b, 3, 0, 3);
  MemoryBuffer::Copy(&byte, Bytes("y"), 1);
  EXPECT_EQ(byte, 'y');
  MemoryBuffer::Copy(nullptr, nullptr, 0);
}

// A reader over "abc\0ef" through a script of reads and seeks: each row is
// the call, what it returns (a read: 1 when it succeeds) and the position
// afterwards.
TEST_F(StringReaderTest, ReadsTheStringFromItsPosition) {
  struct Step {
    const char* op;
    unsigned long long n;
    const char* bytes;  // expected from a read
    unsigned long long returns;
    unsigned long long position;
  };
  const Step steps[] = {
      {"read", 2, "ab", 1, 2},
      {"read", 5, "", 0, 2},  // 4 remain
      {"read", 4, "c\0ef", 1, 6},
      {"read", 0, "", 1, 6},
      {"read", 1, "", 0, 6},
      {"read", ~0ULL, "", 0, 6},
      {"read", 0x100000000ULL, "", 0, 6},
      {"seekRead", 7, "", 6, 6},
      {"seekRead", 2, "", 6, 2},  // beyond: unchanged
      {"seekRead", 6, "", 2, 6},
  };
  const SafeString text("abc\0ef", 6);
  StringReader reader(text);
  EXPECT_EQ(reader.tellWrite(), 0u);
  EXPECT_EQ(reader.data(), reinterpret_cast<const unsigned char*>(text.data()));
  for (const Step& s : steps) {
    SCOPED_TRACE(std::string(s.op) + " " + std::to_string(s.n));
    unsigned char out[8] = {};
    unsigned long long returned = 0;
    if (std::string(s.op) == "read") {
      returned = reader.read(out, s.n) ? 1 : 0;
      if (returned == 1) {
        EXPECT_EQ(std::string(reinterpret_cast<char*>(out), s.n), std::string(s.bytes, s.n));
      }
    } else {
      returned = reader.seekRead(s.n);
    }
    EXPECT_EQ(returned, s.returns);
    EXPECT_EQ(reader.tellRead(), s.position);
  }
}

// A reader refuses writing, a writer reading; neither touches the string.
TEST_F(StringReaderTest, TheOtherDirectionIsRefused) {
  SafeString text("x");
  StringReader reader(text);
  StringWriter writer(text);
  IBuffer* buffer = &reader;
  EXPECT_ZORV_THROW(buffer->write(Bytes("a"), 1), "zorv.foundation.memory.StringReader.write",
                    "not supported operation");
  EXPECT_ZORV_THROW(buffer->setLength(0), "zorv.foundation.memory.StringReader.setLength",
                    "not supported operation");
  EXPECT_ZORV_THROW(buffer->seekWrite(0), "zorv.foundation.memory.StringReader.seekWrite",
                    "not supported operation");
  // The writer's refusal names the reader's source on purpose.
  EXPECT_ZORV_THROW(writer.seekRead(0), "zorv.foundation.memory.StringReader.seekRead",
                    "not supported operation");
  unsigned char out[2] = {'y', 'z'};
  EXPECT_FALSE(writer.read(out, 1));
  EXPECT_EQ(out[0], 'y');
  EXPECT_EQ(writer.tellRead(), 0u);
  EXPECT_EQ(text, "x");
}

TEST_F(StringWriterTest, WritesAlwaysAppend) {
  SafeString text("head:");
  StringWriter writer(text);
  writer.write(Bytes("abc"), 3);
  EXPECT_EQ(text, "head:abc");
  EXPECT_EQ(writer.seekWrite(0), 3u);
  writer.write(Bytes("de"), 2);  // still at the end
  EXPECT_EQ(text, "head:abcde");
  EXPECT_EQ(writer.tellWrite(), 2u);
  EXPECT_EQ(writer.seekWrite(11), 2u);  // beyond the length: unchanged
  EXPECT_EQ(writer.seekWrite(10), 2u);
  EXPECT_EQ(writer.tellWrite(), 10u);
  writer.write(Bytes("\0z"), 2);
  EXPECT_EQ(text, SafeString("head:abcde\0z", 12));
  writer.write(nullptr, 0);
  EXPECT_EQ(text.size(), 12u);
  EXPECT_EQ(writer.data(), reinterpret_cast<unsigned char*>(&text[0]));
}

TEST_F(StringWriterTest, SetLengthFillsOrCutsAndClearEmpties) {
  SafeString text("abc");
  StringWriter writer(text);
  writer.write(Bytes("def"), 3);
  EXPECT_EQ(writer.setLength(8), 6u);
  EXPECT_EQ(text, SafeString("abcdef\0\0", 8));
  EXPECT_EQ(writer.tellWrite(), 0u);
  EXPECT_EQ(writer.setLength(2), 8u);
  EXPECT_EQ(text, "ab");
  // The length is cut to 32 bits.
  EXPECT_EQ(writer.setLength(0x100000001ull), 2u);
  EXPECT_EQ(text, "a");
  EXPECT_THROW(writer.setLength(0xFFFFFFF0ull), std::length_error);
  EXPECT_EQ(text, "a");
  writer.write(Bytes("!"), 1);
  writer.clear();
  EXPECT_TRUE(text.empty());
  EXPECT_EQ(writer.tellWrite(), 0u);
}

}  // namespace
