// Tests of StringReader and StringWriter.
#include <cstring>
#include <stdexcept>
#include <string>

#include "foundation/lang/exception.h"
#include "foundation/memory/stringreader.h"
#include "foundation/memory/stringwriter.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::memory::IBuffer;
using zorv::foundation::memory::StringReader;
using zorv::foundation::memory::StringWriter;

using StringReaderTest = zorv::test::LeakCheckedTest;
using StringWriterTest = zorv::test::LeakCheckedTest;

const unsigned char* Bytes(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
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
