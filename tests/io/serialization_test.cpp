// Tests of the length-prefixed string serialization and archiver forwarding.
#include "foundation/io/serialization.h"

#include <exception>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "foundation/memory/memorybuffer.h"
#include "foundation/memory/stringreader.h"
#include "foundation/memory/stringwriter.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::io::Archive;
using zorv::foundation::io::ArchiveField;
using zorv::foundation::io::ArchiveIndex;
using zorv::foundation::io::Deserialize;
using zorv::foundation::io::IArchiver;
using zorv::foundation::io::IStream;
using zorv::foundation::io::Serialize;
using zorv::foundation::io::Unarchive;
using zorv::foundation::memory::MemoryBuffer;
using zorv::foundation::memory::StringReader;
using zorv::foundation::memory::StringWriter;

using SerializationTest = zorv::test::LeakCheckedTest;

// Bytes as a vector: a little-endian 64-bit length, then the characters.
std::vector<unsigned char> Prefixed(unsigned long long length, const std::string& following) {
  std::vector<unsigned char> bytes;
  for (int i = 0; i < 8; ++i) bytes.push_back(static_cast<unsigned char>(length >> (8 * i)));
  bytes.insert(bytes.end(), following.begin(), following.end());
  return bytes;
}

// A buffer whose length() claims `missing` bytes more than it holds (fewer,
// when `missing` wraps below zero).
class PromisingBuffer : public MemoryBuffer {
 public:
  explicit PromisingBuffer(unsigned long long missing) : missing_(missing) {}
  unsigned long long length() const override { return MemoryBuffer::length() + missing_; }

 private:
  unsigned long long missing_;
};

// What a read makes of a buffer's bytes: the value, or false with the value
// untouched and the read position where the failure left it. Announced
// lengths that are claimed but that no string can take, or that memory
// cannot hold (40 bytes, with the first allocation failing; no other row
// allocates), throw std::length_error or std::bad_alloc, on 32-bit and
// 64-bit targets alike, and the prefix is put back. Rows that claim nothing
// missing run over a plain MemoryBuffer too, which is read by another way.
TEST_F(SerializationTest, DeserializeReadsOnePrefixedString) {
  // clang-format off
  const struct {
    const char* name;
    std::vector<unsigned char> bytes;
    unsigned long long missing;
    int result;  // -1: throws
    const char* value;
    unsigned long long readAfter;
  } cases[] = {
      {"empty string", Prefixed(0, ""), 0, 1, "", 8}, {"nothing", {}, 0, 0, "unchanged", 0},
      {"with more behind", Prefixed(2, "abc"), 0, 1, "ab", 10},
      {"short prefix", {3, 0, 0, 0, 0, 0, 0}, 0, 0, "unchanged", 0},
      {"4 of 5", Prefixed(5, "wxyz"), 0, 0, "unchanged", 8},
      {"all bits", Prefixed(~0ull, "wxy"), 0, 0, "unchanged", 8},
      {"beyond 32 bits", Prefixed(0x100000002ull, "wxy"), 0, 0, "unchanged", 8},
      {"beyond 32 bits, all claimed", Prefixed(0x100000002ull, "wxy"), 1ull << 32, 0, "unchanged", 8},
      {"4 GiB - 1", Prefixed(0xFFFFFFFFull, ""), 0xFFFFFFFFull, -1, "unchanged", 0},
      {"4 GiB - 16", Prefixed(0xFFFFFFF0ull, ""), 0xFFFFFFF0ull, -1, "unchanged", 0},
      {"2 GiB", Prefixed(0x80000000ull, ""), 0x80000000ull, -1, "unchanged", 0},
      {"no memory", Prefixed(40, ""), 40, -1, "unchanged", 0},
      {"no memory, all there", Prefixed(40, std::string(40, 'z')), 0, -1, "unchanged", 0},
      {"length short of the read position", Prefixed(0, ""), ~0ull, 0, "unchanged", 8},
      {"claimed but not there", Prefixed(5, "wx"), 3, 0, "unchanged", 8}};
  // clang-format on
  for (const auto& c : cases) {
    for (const bool plain : {false, true}) {
      if (plain && c.missing != 0) continue;
      SCOPED_TRACE(std::string(c.name) + (plain ? ", plain buffer" : ""));
      PromisingBuffer promising(c.missing);
      MemoryBuffer simple;
      MemoryBuffer& b = plain ? simple : promising;
      b.write(c.bytes.data(), c.bytes.size());
      SafeString out("unchanged");
      zorv::test::FailAfterGuard fail(1);
      if (c.result < 0) {
        EXPECT_THROW((void)Deserialize(&b, out), std::exception);
      } else {
        EXPECT_EQ(Deserialize(&b, out), c.result == 1);
      }
      EXPECT_EQ(out, c.value);
      EXPECT_EQ(b.tellRead(), c.readAfter) << "a prefix read whole stays consumed";
    }
  }
  SafeString kept("kept");
  EXPECT_FALSE(Deserialize(nullptr, kept));
  EXPECT_EQ(kept, "kept");
  Serialize(nullptr, "ignored");
}

// Strings follow one another, over every kind of stream, each as its length
// in 8 little-endian bytes (two of them not zero in the first), then its
// bytes as they are.
TEST_F(SerializationTest, StringsRoundTrip) {
  std::mt19937 random(1234);
  std::vector<SafeString> values = {SafeString("a\0\xff", 3) + SafeString(0x1231, 'q'), "", "abc",
                                    SafeString("a\0b\xff", 4), SafeString(300, 'x')};
  for (int i = 0; i < 200; ++i) {
    SafeString v(random() % 200, '\0');
    for (char& c : v) c = static_cast<char>(random());
    values.push_back(v);
  }
  SafeString storage;
  StringWriter writer(storage);
  MemoryBuffer buffer;
  for (const SafeString& v : values) {
    Serialize(&buffer, v);
    Serialize(&writer, v);
  }
  EXPECT_EQ(storage, SafeString(reinterpret_cast<const char*>(buffer.data()), buffer.length()));
  EXPECT_EQ(std::vector<unsigned char>(buffer.data(), buffer.data() + 8 + 0x1234),
            Prefixed(0x1234, values[0].str()));
  StringReader reader(storage);
  for (IStream* stream : {static_cast<IStream*>(&buffer), static_cast<IStream*>(&reader)}) {
    for (const SafeString& v : values) {
      SafeString out("junk");
      ASSERT_TRUE(Deserialize(stream, out));
      ASSERT_EQ(out, v);
    }
  }
}

// Logs each call; archiveField alone answers false.
class RecordingArchiver : public IArchiver {
 public:
  bool archive(const SafeString& value) override { return Log("archive(" + value + ")"); }
  bool archiveIndex(unsigned int index, const SafeString& value) override {
    return Log("index(" + std::to_string(index) + "," + value.c_str() + ")");
  }
  bool archiveField(const SafeString& name, const SafeString& value) override {
    return !Log("field(" + name + "," + value + ")");
  }
  bool unarchive(SafeString& value) override {
    value = "restored";
    return Log("unarchive");
  }
  bool Log(const SafeString& call) {
    log += call;
    return true;
  }
  SafeString log;
};

TEST_F(SerializationTest, ArchiverCallsAreForwarded) {
  RecordingArchiver archiver;
  for (RecordingArchiver* to : {&archiver, static_cast<RecordingArchiver*>(nullptr)}) {
    SCOPED_TRACE(to != nullptr ? "archiver" : "none");
    SafeString value("same");
    EXPECT_EQ(Archive(to, "a"), to != nullptr);
    EXPECT_EQ(ArchiveIndex(to, 7, "b"), to != nullptr);
    EXPECT_FALSE(ArchiveField(to, "n", "c"));
    EXPECT_EQ(Unarchive(to, value), to != nullptr);
    EXPECT_EQ(value, to != nullptr ? "restored" : "same");
  }
  EXPECT_EQ(archiver.log, "archive(a)index(7,b)field(n,c)unarchive");
}

}  // namespace
