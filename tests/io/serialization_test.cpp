// Tests of the length-prefixed string serialization and archiver forwarding.
#include "foundation/io/serialization.h"

#include <cstring>
#include <new>
#include <stdexcept>
#include <random>
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

std::vector<unsigned char> Image(const MemoryBuffer& b) {
  return std::vector<unsigned char>(b.data(), b.data() + b.length());
}

TEST_F(SerializationTest, ExactByteImage) {
  MemoryBuffer b;
  Serialize(&b, "");
  EXPECT_EQ(Image(b), (std::vector<unsigned char>{0, 0, 0, 0, 0, 0, 0, 0}));
  b.clear();
  Serialize(&b, "abc");
  EXPECT_EQ(Image(b), (std::vector<unsigned char>{3, 0, 0, 0, 0, 0, 0, 0, 'a', 'b', 'c'}));
  b.clear();
  const SafeString big(0x1234, '\0');
  Serialize(&b, big);
  ASSERT_EQ(b.length(), 8u + 0x1234u);
  EXPECT_EQ(b.data()[0], 0x34);
  EXPECT_EQ(b.data()[1], 0x12);
  for (int i = 2; i < 8; ++i) EXPECT_EQ(b.data()[i], 0);
}

TEST_F(SerializationTest, StringsFollowOneAnotherAndReadBack) {
  const SafeString values[] = {"", "abc", SafeString("a\0b\xff", 4), SafeString(300, 'x'), "end"};
  MemoryBuffer b;
  for (const SafeString& v : values) Serialize(&b, v);
  for (const SafeString& v : values) {
    SafeString out("junk");
    ASSERT_TRUE(Deserialize(&b, out));
    EXPECT_EQ(out, v);
  }
  SafeString out("kept");
  EXPECT_FALSE(Deserialize(&b, out));
  EXPECT_EQ(out, "kept");
}

TEST_F(SerializationTest, EmptyStringFromEightZeroBytes) {
  MemoryBuffer b;
  const unsigned char zeros[8] = {};
  b.write(zeros, 8);
  SafeString out("x");
  EXPECT_TRUE(Deserialize(&b, out));
  EXPECT_EQ(out, "");
  EXPECT_EQ(b.tellRead(), 8u);
}

TEST_F(SerializationTest, PrefixAnnouncingMoreThanRemainsFails) {
  struct Case {
    unsigned long long prefix;
    unsigned int following;
  };
  const Case cases[] = {{10, 4}, {5, 4}, {~0ull, 3}, {0x100000002ull, 3}, {0x80000000ull, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.prefix);
    MemoryBuffer b;
    b.write(reinterpret_cast<const unsigned char*>(&c.prefix), 8);
    const unsigned char bytes[4] = {'w', 'x', 'y', 'z'};
    b.write(bytes, c.following);
    SafeString out("unchanged");
    EXPECT_FALSE(Deserialize(&b, out));
    EXPECT_EQ(out, "unchanged");
    EXPECT_EQ(b.tellRead(), 8u);  // the prefix stays consumed
  }
}

TEST_F(SerializationTest, ShortPrefixFails) {
  for (unsigned int n = 0; n < 8; ++n) {
    SCOPED_TRACE(n);
    MemoryBuffer b;
    const unsigned char bytes[8] = {};
    b.write(bytes, n);
    SafeString out("unchanged");
    EXPECT_FALSE(Deserialize(&b, out));
    EXPECT_EQ(out, "unchanged");
    EXPECT_EQ(b.tellRead(), 0u);
  }
}

TEST_F(SerializationTest, WorksOverStringStreams) {
  SafeString storage;
  StringWriter writer(storage);
  Serialize(&writer, "one");
  Serialize(&writer, "two!");
  EXPECT_EQ(storage.size(), 8u + 3u + 8u + 4u);
  StringReader reader(storage);
  SafeString out;
  ASSERT_TRUE(Deserialize(&reader, out));
  EXPECT_EQ(out, "one");
  ASSERT_TRUE(Deserialize(&reader, out));
  EXPECT_EQ(out, "two!");
  EXPECT_FALSE(Deserialize(&reader, out));
  Serialize(nullptr, "ignored");
  SafeString kept("kept");
  EXPECT_FALSE(Deserialize(nullptr, kept));
  EXPECT_EQ(kept, "kept");
}

TEST_F(SerializationTest, RandomStringsRoundTrip) {
  std::mt19937 random(1234);
  std::vector<SafeString> values;
  MemoryBuffer b;
  for (int i = 0; i < 200; ++i) {
    SafeString v(random() % 200, '\0');
    for (char& c : v) c = static_cast<char>(random());
    Serialize(&b, v);
    values.push_back(v);
  }
  for (const SafeString& v : values) {
    SafeString out;
    ASSERT_TRUE(Deserialize(&b, out));
    ASSERT_EQ(out, v);
  }
}

// A stream holding one length prefix that claims `claimed` bytes behind it
// without holding them: reads past the prefix give 'z' bytes.
class PromisingStream : public IStream {
 public:
  PromisingStream(unsigned long long prefix, unsigned long long claimed)
      : prefix_(prefix), claimed_(claimed) {}
  void write(const unsigned char*, unsigned long long) override {}
  bool read(unsigned char* data, unsigned long long n) override {
    if (n > length() - position_) return false;
    for (unsigned long long i = 0; i < n; ++i, ++position_) {
      data[i] = position_ < 8 ? reinterpret_cast<const unsigned char*>(&prefix_)[position_] : 'z';
    }
    return true;
  }
  unsigned long long length() const override { return 8 + claimed_; }
  unsigned long long setLength(unsigned long long) override { return length(); }
  unsigned long long tellRead() const override { return position_; }
  unsigned long long tellWrite() const override { return 0; }
  unsigned long long seekRead(unsigned long long p) override {
    const unsigned long long previous = position_;
    if (p <= length()) position_ = p;
    return previous;
  }
  unsigned long long seekWrite(unsigned long long) override { return 0; }

 private:
  unsigned long long prefix_;
  unsigned long long claimed_;
  unsigned long long position_ = 0;
};

TEST_F(SerializationTest, FailedAllocationPutsThePrefixBack) {
  MemoryBuffer b;
  const SafeString second(40, 'x');
  Serialize(&b, "first");
  Serialize(&b, second);
  SafeString out;
  ASSERT_TRUE(Deserialize(&b, out));
  const unsigned long long at = b.tellRead();
  {
    zorv::test::FailAfterGuard fail(1);
    EXPECT_THROW(Deserialize(&b, out), std::bad_alloc);
  }
  EXPECT_EQ(b.tellRead(), at);
  EXPECT_EQ(out, "first");
  ASSERT_TRUE(Deserialize(&b, out));
  EXPECT_EQ(out, second);

  // Announced lengths that no string can take, or that memory cannot hold:
  // std::length_error or std::bad_alloc, on 32-bit and 64-bit targets alike.
  const unsigned long long prefixes[] = {0xFFFFFFFFull, 0xFFFFFFF0ull, 0x80000000ull, 40};
  for (unsigned long long prefix : prefixes) {
    SCOPED_TRACE(prefix);
    PromisingStream stream(prefix, prefix);
    SafeString kept("kept");
    bool threw = false;
    {
      zorv::test::FailAfterGuard fail(1);
      try {
        (void)Deserialize(&stream, kept);
      } catch (const std::bad_alloc&) {
        threw = true;
      } catch (const std::length_error&) {
        threw = true;
      }
    }
    EXPECT_TRUE(threw);
    EXPECT_EQ(stream.tellRead(), 0u);
    EXPECT_EQ(kept, "kept");
  }
}

class RecordingArchiver : public IArchiver {
 public:
  bool archive(const SafeString& value) override {
    log += "archive(" + value + ")";
    return true;
  }
  bool archiveIndex(unsigned int index, const SafeString& value) override {
    log += "index(" + std::to_string(index) + "," + value.c_str() + ")";
    return true;
  }
  bool archiveField(const SafeString& name, const SafeString& value) override {
    log += "field(" + name + "," + value + ")";
    return false;
  }
  bool unarchive(SafeString& value) override {
    value = "restored";
    log += "unarchive";
    return true;
  }
  SafeString log;
};

TEST_F(SerializationTest, ArchiverCallsAreForwarded) {
  RecordingArchiver archiver;
  EXPECT_TRUE(Archive(&archiver, "a"));
  EXPECT_TRUE(ArchiveIndex(&archiver, 7, "b"));
  EXPECT_FALSE(ArchiveField(&archiver, "n", "c"));
  SafeString value;
  EXPECT_TRUE(Unarchive(&archiver, value));
  EXPECT_EQ(value, "restored");
  EXPECT_EQ(archiver.log, "archive(a)index(7,b)field(n,c)unarchive");
  EXPECT_FALSE(Archive(nullptr, "a"));
  EXPECT_FALSE(ArchiveIndex(nullptr, 1, "a"));
  EXPECT_FALSE(ArchiveField(nullptr, "a", "b"));
  SafeString untouched("same");
  EXPECT_FALSE(Unarchive(nullptr, untouched));
  EXPECT_EQ(untouched, "same");
}

}  // namespace
