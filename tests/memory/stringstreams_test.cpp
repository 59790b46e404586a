// Tests of StringReader and StringWriter.
#include <cstring>
#include <stdexcept>

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

TEST_F(StringReaderTest, ReadsTheStringFromItsPosition) {
  const SafeString text("abcdef");
  StringReader reader(text);
  EXPECT_EQ(reader.length(), 6u);
  EXPECT_EQ(reader.tellRead(), 0u);
  EXPECT_EQ(reader.tellWrite(), 0u);
  EXPECT_EQ(reader.data(), reinterpret_cast<const unsigned char*>(text.data()));
  unsigned char out[8] = {};
  EXPECT_TRUE(reader.read(out, 2));
  EXPECT_EQ(std::memcmp(out, "ab", 2), 0);
  EXPECT_FALSE(reader.read(out, 5));  // 4 remain
  EXPECT_EQ(reader.tellRead(), 2u);
  EXPECT_TRUE(reader.read(out, 4));  // exactly the rest
  EXPECT_EQ(std::memcmp(out, "cdef", 4), 0);
  EXPECT_TRUE(reader.read(out, 0));
  EXPECT_FALSE(reader.read(out, 1));
  EXPECT_FALSE(reader.read(out, ~0ull));
  EXPECT_FALSE(reader.read(out, 0x100000000ull));
}

TEST_F(StringReaderTest, SeekReadStaysWithinTheString) {
  const SafeString text("0123456789");
  StringReader reader(text);
  EXPECT_EQ(reader.seekRead(4), 0u);
  EXPECT_EQ(reader.seekRead(11), 4u);
  EXPECT_EQ(reader.tellRead(), 4u);
  EXPECT_EQ(reader.seekRead(10), 4u);
  EXPECT_EQ(reader.tellRead(), 10u);
  unsigned char out[1];
  EXPECT_FALSE(reader.read(out, 1));
  EXPECT_EQ(reader.seekRead(9), 10u);
  EXPECT_TRUE(reader.read(out, 1));
  EXPECT_EQ(out[0], '9');
}

TEST_F(StringReaderTest, WritingOperationsAreRefused) {
  const SafeString text("x");
  StringReader reader(text);
  IBuffer* buffer = &reader;
  EXPECT_ZORV_THROW(buffer->write(Bytes("a"), 1), "zorv.foundation.memory.StringReader.write",
                    "not supported operation");
  EXPECT_ZORV_THROW(buffer->setLength(0), "zorv.foundation.memory.StringReader.setLength",
                    "not supported operation");
  EXPECT_ZORV_THROW(buffer->seekWrite(0), "zorv.foundation.memory.StringReader.seekWrite",
                    "not supported operation");
  EXPECT_EQ(text, "x");
}

TEST_F(StringReaderTest, EmbeddedZeroBytesAreRead) {
  const SafeString text("a\0b", 3);
  StringReader reader(text);
  unsigned char out[3];
  ASSERT_TRUE(reader.read(out, 3));
  EXPECT_EQ(std::memcmp(out, "a\0b", 3), 0);
}

TEST_F(StringWriterTest, WritesAlwaysAppend) {
  SafeString text("head:");
  StringWriter writer(text);
  EXPECT_EQ(writer.tellWrite(), 0u);
  EXPECT_EQ(writer.length(), 5u);
  writer.write(Bytes("abc"), 3);
  EXPECT_EQ(text, "head:abc");
  EXPECT_EQ(writer.tellWrite(), 3u);
  EXPECT_EQ(writer.seekWrite(0), 3u);
  writer.write(Bytes("de"), 2);  // still at the end
  EXPECT_EQ(text, "head:abcde");
  EXPECT_EQ(writer.tellWrite(), 2u);
  EXPECT_EQ(writer.seekWrite(11), 2u);  // beyond the length: unchanged
  EXPECT_EQ(writer.tellWrite(), 2u);
  EXPECT_EQ(writer.seekWrite(10), 2u);
  EXPECT_EQ(writer.tellWrite(), 10u);
  writer.write(Bytes("\0z"), 2);
  EXPECT_EQ(text, SafeString("head:abcde\0z", 12));
  writer.write(nullptr, 0);
  EXPECT_EQ(text.size(), 12u);
  EXPECT_EQ(writer.data(), reinterpret_cast<unsigned char*>(&text[0]));
}

TEST_F(StringWriterTest, ReadingIsRefused) {
  SafeString text("abc");
  StringWriter writer(text);
  unsigned char out[2] = {'x', 'y'};
  EXPECT_FALSE(writer.read(out, 1));
  EXPECT_FALSE(writer.read(out, 0));
  EXPECT_EQ(out[0], 'x');
  EXPECT_EQ(writer.tellRead(), 0u);
  // The refusal names the reader's source on purpose.
  EXPECT_ZORV_THROW(writer.seekRead(0), "zorv.foundation.memory.StringReader.seekRead",
                    "not supported operation");
}

TEST_F(StringWriterTest, SetLengthFillsOrCutsAndResetsThePosition) {
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
}

TEST_F(StringWriterTest, ClearEmptiesTheString) {
  SafeString text("some text");
  StringWriter writer(text);
  writer.write(Bytes("!"), 1);
  writer.clear();
  EXPECT_TRUE(text.empty());
  EXPECT_EQ(writer.tellWrite(), 0u);
  EXPECT_EQ(writer.length(), 0u);
}

}  // namespace
