// Tests of MemoryBuffer (growth, positions, moves and copying from buffers),
// StringReader and StringWriter.
#include "foundation/memory/memorybuffer.h"

#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
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

void ExpectFields(const IBuffer& b, unsigned long long length, unsigned long long read,
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
  unsigned long long length, readPosition, writePosition, allocLength;
};
static_assert(sizeof(Layout) == sizeof(MemoryBuffer), "MemoryBuffer layout");

unsigned long long Allocated(const MemoryBuffer& b) {
  Layout fields;
  std::memcpy(static_cast<void*>(&fields), static_cast<const void*>(&b), sizeof(fields));
  return fields.allocLength;
}

// write() from the buffer's own bytes, when it grows and when it fits; and
// Copy(), which copies nothing for a length of 0.
TEST_F(MemoryBufferTest, WritesFromItsOwnBytes) {
  std::string large(1 << 20, '\0');
  for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 7 + i / 251);
  // Rows of the text, where the write starts, the bytes written from and the text expected.
  const std::tuple<std::string, unsigned long long, size_t, size_t, std::string> cases[] = {
      {"abcdef", 6, 0, 6, "abcdefabcdef"},  // grows: the block may move
      {"abcdef", 6, 2, 3, "abcdefcde"},     // grows, from the middle
      {"abcdef", 4, 0, 6, "abcdabcdef"},    // grows, overlapping the target
      {"abcdef", 1, 0, 3, "aabcef"},        // fits, overlapping the target
      {large, large.size(), 0, large.size(), large + large}};
  for (const auto& [text, writeAt, from, count, expected] : cases) {
    SCOPED_TRACE(text.substr(0, 8) + " at " + std::to_string(writeAt));
    MemoryBuffer b;
    b.write(Bytes(text.c_str()), text.size());
    b.seekWrite(writeAt);
    b.write(b.data() + from, count);
    ASSERT_EQ(b.length(), expected.size());
    EXPECT_EQ(std::memcmp(b.data(), expected.data(), expected.size()), 0);
  }
  unsigned char byte = 'x';
  MemoryBuffer::Copy(&byte, Bytes("y"), 1);
  EXPECT_EQ(byte, 'y');
  MemoryBuffer::Copy(nullptr, nullptr, 0);
}

// A script of calls on one buffer: each step is a call, its argument (bytes
// to write or read, a position, a length), the bytes written or expected from
// a read, what it returns (a read: 1 when it succeeds), and afterwards the
// fields, the first bytes and a MemoryBuffer's allocated size; and for a
// refused call the source of the Exception it throws ("length_error",
// "bad_alloc": that standard exception).
struct Step {
  const char* op;
  unsigned long long n;
  std::string bytes;
  unsigned long long returns;
  unsigned long long length, read, write;
  std::string content = "";
  unsigned long long allocated = 0;
  const char* refused = nullptr;
};

// The calls that only some buffers have.
void Other(MemoryBuffer& b, const std::string& op, unsigned long long n) {
  if (op == "clear") {
    b.clear();
  } else if (op == "move") {
    // Out to another buffer and back over one that holds bytes: each move
    // takes the block itself and leaves its source empty; a move onto itself
    // changes nothing.
    const unsigned char* block = b.data();
    MemoryBuffer other(std::move(b));
    ExpectFields(b, 0, 0, 0);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(b.data(), nullptr);
    b.write(Bytes("old"), 3);
    b = std::move(other);
    ExpectFields(other, 0, 0, 0);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(b.data(), block);
    MemoryBuffer& self = b;
    b = std::move(self);
  } else if (op == "addAlloc") {
    b._addAllocLength(n);
  } else {
    b._setAllocLength(n);
  }
}
void Other(StringWriter& b, const std::string&, unsigned long long) { b.clear(); }

template <class Buffer, size_t N>
void RunScript(Buffer& b, const Step (&steps)[N]) {
  for (const Step& s : steps) {
    SCOPED_TRACE(std::string(s.op) + " " + std::to_string(s.n) + " " + s.bytes);
    const std::string op = s.op;
    std::vector<unsigned char> out(s.n < 64 ? s.n + 1 : 1);
    unsigned long long returned = 0;
    const auto call = [&] {
      if (op == "read") {
        returned = b.read(out.data(), s.n) ? 1 : 0;
        if (returned == 1) {
          EXPECT_EQ(std::string(out.begin(), out.begin() + s.n), s.bytes);
        }
      } else if (op == "write") {
        b.write(s.n == 0 ? nullptr : Bytes(s.bytes.c_str()), s.n);
      } else if (op == "seekRead") {
        returned = b.seekRead(s.n);
      } else if (op == "seekWrite") {
        returned = b.seekWrite(s.n);
      } else if (op == "setLength") {
        returned = b.setLength(s.n);
      } else if constexpr (!std::is_same<Buffer, StringReader>::value) {
        Other(b, op, s.n);
      }
    };
    if (s.refused == nullptr) {
      call();
    } else if (std::string(s.refused) == "length_error") {
      EXPECT_THROW(call(), std::length_error);
    } else if (std::string(s.refused) == "bad_alloc") {
      EXPECT_THROW(call(), std::bad_alloc);
    } else {
      EXPECT_ZORV_THROW(call(), s.refused, "not supported operation");
    }
    EXPECT_EQ(returned, s.returns);
    ExpectFields(b, s.length, s.read, s.write);
    if constexpr (std::is_same<Buffer, MemoryBuffer>::value) {
      EXPECT_EQ(Allocated(b), s.allocated);
      EXPECT_EQ(b.data() == nullptr, s.allocated == 0);
    }
    if (b.data() != nullptr) {
      EXPECT_EQ(std::memcmp(b.data(), s.content.data(), s.content.size()), 0);
    }
  }
}

TEST_F(MemoryBufferTest, CallsMoveLengthPositionsAndStorage) {
  const Step steps[] = {
      {"addAlloc", 10, "", 0, 0, 0, 0, "", 10},  // from nothing: exactly
      {"addAlloc", 4, "", 0, 0, 0, 0, "", 20},   // fits in the size: doubles
      {"addAlloc", 21, "", 0, 0, 0, 0, "", 41},  // else exactly the shortfall more
      {"setAlloc", 10, "", 0, 0, 0, 0, "", 10},
      {"write", 10, "0123456789", 0, 10, 0, 10, "0123456789", 10},  // fits exactly
      {"seekWrite", 0, "", 10, 10, 0, 0, "0123456789", 10},
      {"write", 3, "abc", 0, 10, 0, 3, "abc3456789", 10},  // overwrites, no longer
      {"seekWrite", 8, "", 3, 10, 0, 8, "abc3456789", 10},
      {"write", 4, "XYZW", 0, 12, 0, 12, "abc34567XYZW", 20},  // past the end: longer
      {"read", 5, "abc34", 1, 12, 5, 12, "abc34567XYZW", 20},
      {"read", 8, "", 0, 12, 5, 12, "abc34567XYZW", 20},  // 7 remain: nothing read
      {"read", 7, "567XYZW", 1, 12, 12, 12, "abc34567XYZW", 20},
      {"read", 0, "", 1, 12, 12, 12, "abc34567XYZW", 20},  // at the end, 0 bytes succeed
      {"read", 1, "", 0, 12, 12, 12, "abc34567XYZW", 20},
      {"seekRead", 13, "", 12, 12, 12, 12, "abc34567XYZW", 20},  // beyond: unchanged
      {"seekRead", 0, "", 12, 12, 0, 12, "abc34567XYZW", 20},
      {"seekRead", 12, "", 0, 12, 12, 12, "abc34567XYZW", 20},  // exactly the length
      {"seekWrite", 100, "", 12, 12, 12, 12, "abc34567XYZW", 20},
      {"seekWrite", 4, "", 12, 12, 12, 4, "abc34567XYZW", 20},
      {"seekRead", 5, "", 12, 12, 5, 4, "abc34567XYZW", 20},
      {"move", 0, "", 0, 12, 5, 4, "abc34567XYZW", 20},  // every field differs
      {"seekWrite", 12, "", 4, 12, 5, 12, "abc34567XYZW", 20},
      {"read", ~0ULL, "", 0, 12, 5, 12, "abc34567XYZW", 20},
      {"setLength", 3, "", 12, 3, 0, 0, "abc", 3},  // positions reset
      {"setLength", 8, "", 3, 8, 0, 0, "abc", 8},
      {"setLength", 0, "", 8, 0, 0, 0, "", 0},
      {"write", 3, "xyz", 0, 3, 0, 3, "xyz", 3},  // from nothing: exactly
      {"read", 1, "x", 1, 3, 1, 3, "xyz", 3},
      {"write", 5, "12345", 0, 8, 1, 8, "xyz12345", 8},  // short by more than the size: exactly
      {"clear", 0, "", 0, 0, 0, 0, "", 0},
      // Growth that cannot be had throws and changes nothing.
      {"write", 3, "abc", 0, 3, 0, 3, "abc", 3},
      {"setLength", (~0ull >> 1) + 1, "", 0, 3, 0, 3, "abc", 3, "bad_alloc"},
      {"write", ~0ull - 1, "x", 0, 3, 0, 3, "abc", 3, "bad_alloc"}};
  MemoryBuffer b;
  RunScript(b, steps);
}

// A target whose setLength throws: from() swallows it and reports false.
class RefusingBuffer : public MemoryBuffer {
 public:
  unsigned long long setLength(unsigned long long) override { throw std::bad_alloc(); }
};

// from() takes bytes at the source's read position, or at an offset and then
// puts the position back; the target holds just them, rewound. Each row is a
// call on one target (which first holds "zz") from a buffer read up to 2, a
// reader, or none; a failed call changes neither side.
TEST_F(MemoryBufferTest, FromTakesBytesOfAnotherBuffer) {
  MemoryBuffer source, target;
  source.write(Bytes("0123456789"), 10);
  unsigned char skip[2];
  ASSERT_TRUE(source.read(skip, 2));
  RefusingBuffer refusing;
  EXPECT_FALSE(refusing.from(&source, 2));
  EXPECT_EQ(source.tellRead(), 2u);
  const SafeString text("reader text");
  StringReader reader(text);
  target.write(Bytes("zz"), 2);
  // Rows of the source, the offset (-1: from the read position), the bytes
  // asked for, the result, what the target holds and the source's read
  // position afterwards.
  // clang-format off
  const std::tuple<IBuffer*, long long, unsigned long long, bool, std::string,
                   unsigned long long> cases[] = {
      {&source, 6, 3, true, "678", 2}, {&source, 8, 3, false, "678", 2},
      {nullptr, 0, 0, false, "678", 2}, {&reader, 7, 4, true, "text", 0},
      {&source, 50, 2, true, "23", 2},  // an offset beyond the source: at the read position
      {&source, -1, 5, true, "23456", 7}, {&source, -1, 4, false, "23456", 7},  // 3 remain
      {nullptr, -1, 1, false, "23456", 7}, {&source, -1, 3, true, "789", 10},
      {&source, -1, 0, true, "", 10}};  // at the end
  // clang-format on
  for (const auto& [from, at, n, result, holds, readAfter] : cases) {
    SCOPED_TRACE(std::to_string(at) + " " + std::to_string(n) + " " + holds);
    const unsigned long long offset = static_cast<unsigned long long>(at);
    EXPECT_EQ(at < 0 ? target.from(from, n) : target.from(from, offset, n), result);
    ExpectFields(target, holds.size(), 0, 0);
    EXPECT_TRUE(holds.empty() || std::memcmp(target.data(), holds.data(), holds.size()) == 0);
    EXPECT_EQ((from != nullptr ? from : &source)->tellRead(), readAfter);
  }
}

// A reader over "abc\0ef": reads and seeks move its position, the calls of
// the other direction are refused, and the string stays as it was.
TEST_F(StringReaderTest, ReadsTheStringFromItsPositionAndRefusesWriting) {
  const std::string text("abc\0ef", 6);
  // clang-format off
  const Step steps[] = {
      {"read", 2, "ab", 1, 6, 2, 0, text}, {"read", 5, "", 0, 6, 2, 0},  // 4 remain
      {"read", 4, std::string("c\0ef", 4), 1, 6, 6, 0}, {"read", 0, "", 1, 6, 6, 0},
      {"read", 1, "", 0, 6, 6, 0}, {"read", ~0ULL, "", 0, 6, 6, 0},
      {"read", 0x100000000ULL, "", 0, 6, 6, 0},
      {"seekRead", 7, "", 6, 6, 6, 0},  // beyond: unchanged
      {"seekRead", 2, "", 6, 6, 2, 0}, {"seekRead", 6, "", 2, 6, 6, 0},
      {"write", 1, "a", 0, 6, 6, 0, text, 0, "zorv.foundation.memory.StringReader.write"},
      {"setLength", 0, "", 0, 6, 6, 0, text, 0, "zorv.foundation.memory.StringReader.setLength"},
      {"seekWrite", 0, "", 0, 6, 6, 0, text, 0, "zorv.foundation.memory.StringReader.seekWrite"}};
  // clang-format on
  const SafeString safe(text);
  StringReader reader(safe);
  RunScript(reader, steps);
}

// A writer appends to its string whatever its write position; it fills or
// cuts it to a length cut to 32 bits, and refuses reading.
TEST_F(StringWriterTest, WritesAppendSetLengthFillsOrCutsAndReadingIsRefused) {
  // clang-format off
  const Step steps[] = {
      {"write", 3, "abc", 0, 8, 0, 3, "head:abc"}, {"seekWrite", 0, "", 3, 8, 0, 0},
      {"write", 2, "de", 0, 10, 0, 2, "head:abcde"},  // still at the end
      {"seekWrite", 11, "", 2, 10, 0, 2},             // beyond the length: unchanged
      {"seekWrite", 10, "", 2, 10, 0, 10},
      {"write", 2, std::string("\0z", 2), 0, 12, 0, 12, std::string("head:abcde\0z", 12)},
      {"write", 0, "", 0, 12, 0, 12, std::string("head:abcde\0z", 12)},
      {"read", 1, "", 0, 12, 0, 12},
      // The writer's refusal names the reader's source on purpose.
      {"seekRead", 0, "", 0, 12, 0, 12, "", 0, "zorv.foundation.memory.StringReader.seekRead"},
      {"setLength", 14, "", 12, 14, 0, 0, std::string("head:abcde\0z\0\0", 14)},
      {"setLength", 2, "", 14, 2, 0, 0, "he"}, {"setLength", 0x100000001ull, "", 2, 1, 0, 0, "h"},
      {"setLength", 0xFFFFFFF0ull, "", 0, 1, 0, 0, "h", 0, "length_error"},
      {"write", 1, "!", 0, 2, 0, 1, "h!"}, {"clear", 0, "", 0, 0, 0, 0}};
  // clang-format on
  SafeString text("head:");
  StringWriter writer(text);
  RunScript(writer, steps);
  EXPECT_EQ(writer.data(), reinterpret_cast<unsigned char*>(&text[0]));
}

}  // namespace
