// Tests of FileUtils' single-file half: kind tests, sizes, reading,
// writing with parent creation and roll-back, removal, renaming, copying.
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "file/filetestutil.h"
#include "file/readroom.h"
#include "foundation/file/fileutils.h"
#include "foundation/memory/buffer.h"
#include "foundation/memory/memorybuffer.h"
#include "foundation/memory/stringwriter.h"
#include "support/leakcheck.h"
#include "support/tempdir.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::file::FileUtils;
using zorv::foundation::memory::MemoryBuffer;
using zorv::foundation::memory::StringWriter;
using zorv::test::RawExists;
using zorv::test::RawIsDir;
using zorv::test::ReadRawFile;
using zorv::test::TempDir;
using zorv::test::WriteRawFile;

class FileContentsTest : public zorv::test::LeakCheckedTest {
 protected:
  SafeString P(const std::string& relative) const { return SafeString((dir_ / relative).c_str()); }
  TempDir dir_;
};

std::string S(const SafeString& s) { return std::string(s.data(), s.size()); }

std::vector<std::string> Lines(const Vector<SafeString>& lines) {
  std::vector<std::string> result;
  for (const SafeString& line : lines) result.push_back(S(line));
  return result;
}

TEST_F(FileContentsTest, KindTests) {
  ASSERT_TRUE(WriteRawFile(dir_ / "file", "x"));
  ASSERT_EQ(::mkdir((dir_ / "folder").c_str(), 0755), 0);
  ASSERT_EQ(::symlink((dir_ / "folder").c_str(), (dir_ / "linkdir").c_str()), 0);
  ASSERT_EQ(::symlink((dir_ / "file").c_str(), (dir_ / "linkfile").c_str()), 0);
  ASSERT_EQ(::symlink((dir_ / "gone").c_str(), (dir_ / "dangling").c_str()), 0);
  ASSERT_EQ(::mkfifo((dir_ / "fifo").c_str(), 0644), 0);
  int socketFd = -1;
  ASSERT_TRUE(zorv::test::MakeSocket(dir_ / "sock", &socketFd));

  struct Case {
    std::string path;
    bool exists, folder, file;
  };
  const std::vector<Case> cases = {
      {"", false, false, false},
      {dir_ / "file", true, false, true},
      {dir_ / "folder", true, true, false},
      {dir_ / "folder/", true, true, false},
      {dir_ / "missing", false, false, false},
      {dir_ / "file/below", false, false, false},
      {dir_ / "linkdir", true, true, false},
      {dir_ / "linkfile", true, false, true},
      {dir_ / "dangling", false, false, false},
      {dir_ / "fifo", true, false, true},
      // A socket's type code holds the directory bit: it counts as a folder.
      {dir_ / "sock", true, true, false},
      {"/dev/null", true, false, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("path '" + c.path + "'");
    EXPECT_EQ(FileUtils::IsExist(c.path.c_str()), c.exists);
    EXPECT_EQ(FileUtils::IsFolder(c.path.c_str()), c.folder);
    EXPECT_EQ(FileUtils::IsFile(c.path.c_str()), c.file);
  }
  ::close(socketFd);
}

TEST_F(FileContentsTest, GetFileSize) {
  ASSERT_TRUE(WriteRawFile(dir_ / "five", "12345"));
  ASSERT_TRUE(WriteRawFile(dir_ / "empty", ""));
  ASSERT_EQ(::mkfifo((dir_ / "fifo").c_str(), 0644), 0);
  EXPECT_EQ(FileUtils::GetFileSize(P("five")), 5u);
  EXPECT_EQ(FileUtils::GetFileSize(P("empty")), 0u);
  EXPECT_EQ(FileUtils::GetFileSize(dir_.path().c_str()), 0u);
  EXPECT_EQ(FileUtils::GetFileSize(P("missing")), 0u);
  EXPECT_EQ(FileUtils::GetFileSize(""), 0u);
  EXPECT_EQ(FileUtils::GetFileSize("/dev/null"), 0u);
  // A FIFO without a writer neither blocks nor has a size.
  EXPECT_EQ(FileUtils::GetFileSize(P("fifo")), 0u);
}

TEST_F(FileContentsTest, GetFileSizeIsSixtyFourBit) {
  // A sparse file just over 4 GiB costs no disk space.
  const std::string path = dir_ / "sparse";
  ASSERT_TRUE(WriteRawFile(path, ""));
  const unsigned long long size = 0x100000010ull;
  if (::truncate(path.c_str(), static_cast<off_t>(size)) != 0) GTEST_SKIP() << "no sparse files";
  EXPECT_EQ(FileUtils::GetFileSize(path.c_str()), size);
}

TEST_F(FileContentsTest, ReadTextSkipsByteOrderMarks) {
  struct Case {
    std::string content;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {"", ""},
      {"a", "a"},
      {"ab", "ab"},
      {"\xEF\xBB\xBF", ""},
      {"\xEF\xBB\xBFhello", "hello"},
      {"\xEF\xBB", "\xEF\xBB"},
      {std::string("\xFF\xFEh\0i\0", 6), std::string("h\0i\0", 4)},
      {std::string("\xFE\xFF\0h", 4), std::string("\0h", 2)},
      {"\xFF\xFE", ""},
      {"\xEF\xBBX", "\xEF\xBBX"},
      {"line1\r\nline2\n", "line1\r\nline2\n"},
      {std::string("nul\0inside", 10), std::string("nul\0inside", 10)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("content of " + std::to_string(c.content.size()) + " bytes");
    ASSERT_TRUE(WriteRawFile(dir_ / "t", c.content));
    SafeString text("old");
    EXPECT_TRUE(FileUtils::ReadText(P("t"), text));
    EXPECT_EQ(S(text), c.expected);
  }
}

TEST_F(FileContentsTest, ReadTextFailuresLeaveTheTextAlone) {
  SafeString text("untouched");
  EXPECT_FALSE(FileUtils::ReadText(P("missing"), text));
  EXPECT_FALSE(FileUtils::ReadText(dir_.path().c_str(), text));
  EXPECT_FALSE(FileUtils::ReadText("", text));
  EXPECT_EQ(S(text), "untouched");
}

TEST_F(FileContentsTest, ReadTextAsLines) {
  struct Case {
    std::string content;
    std::vector<std::string> expected;
  };
  const std::vector<Case> cases = {
      {"", {}},
      {"a\r\nb", {"a\r", "b"}},
      {"a\n\nb\n", {"a", "", "b"}},
      {"\n", {""}},
      {"\n\n", {"", ""}},
      {"only", {"only"}},
      {"\xEF\xBB\xBF" "x\ny", {"x", "y"}},
      {"a\rb\n", {"a\rb"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("content '" + c.content + "'");
    ASSERT_TRUE(WriteRawFile(dir_ / "t", c.content));
    Vector<SafeString> lines;
    lines.push_back("stale");
    EXPECT_TRUE(FileUtils::ReadText(P("t"), lines));
    EXPECT_EQ(Lines(lines), c.expected);
  }
  Vector<SafeString> lines;
  lines.push_back("stale");
  EXPECT_FALSE(FileUtils::ReadText(P("missing"), lines));
  EXPECT_TRUE(lines.empty());
  lines.push_back("stale");
  EXPECT_FALSE(FileUtils::ReadText(dir_.path().c_str(), lines));
  EXPECT_TRUE(lines.empty());
}

TEST_F(FileContentsTest, ReadBinaryAppendsAtTheWritePosition) {
  const std::string bytes("\xEF\xBB\xBF\0\x01\x02", 6);
  ASSERT_TRUE(WriteRawFile(dir_ / "b", bytes));
  {
    MemoryBuffer buffer;
    ASSERT_TRUE(FileUtils::ReadBinary(P("b"), &buffer));
    ASSERT_EQ(buffer.length(), 6u);
    EXPECT_EQ(buffer.tellWrite(), 6u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer.data()), 6), bytes);
    // A second read appends behind the first.
    ASSERT_TRUE(FileUtils::ReadBinary(P("b"), &buffer));
    ASSERT_EQ(buffer.length(), 12u);
    EXPECT_EQ(buffer.tellWrite(), 12u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer.data()), 12), bytes + bytes);
  }
  {
    MemoryBuffer buffer;
    ASSERT_TRUE(WriteRawFile(dir_ / "empty", ""));
    EXPECT_TRUE(FileUtils::ReadBinary(P("empty"), &buffer));
    EXPECT_EQ(buffer.length(), 0u);
    EXPECT_FALSE(FileUtils::ReadBinary(P("missing"), &buffer));
    EXPECT_FALSE(FileUtils::ReadBinary(dir_.path().c_str(), &buffer));
    EXPECT_FALSE(FileUtils::ReadBinary("", &buffer));
    EXPECT_EQ(buffer.length(), 0u);
  }
}

// A buffer over a vector that takes a length only up to `most` bytes, and
// whose write position is set at will.
class SmallBuffer : public zorv::foundation::memory::IBuffer {
 public:
  SmallBuffer(unsigned long long most, unsigned long long position)
      : most_(most), position_(position) {}
  void write(const unsigned char*, unsigned long long) override {}
  bool read(unsigned char*, unsigned long long) override { return false; }
  unsigned long long length() const override { return bytes_.size(); }
  unsigned long long setLength(unsigned long long length) override {
    const unsigned long long previous = bytes_.size();
    ++setLengthCalls_;
    bytes_.resize(static_cast<size_t>(length < most_ ? length : most_));
    position_ = 0;
    return previous;
  }
  unsigned long long tellRead() const override { return 0; }
  unsigned long long tellWrite() const override { return position_; }
  unsigned long long seekRead(unsigned long long) override { return 0; }
  unsigned long long seekWrite(unsigned long long position) override {
    const unsigned long long previous = position_;
    position_ = position;
    return previous;
  }
  unsigned char* data() const override { return const_cast<unsigned char*>(bytes_.data()); }
  int setLengthCalls() const { return setLengthCalls_; }

 private:
  std::vector<unsigned char> bytes_;
  unsigned long long most_;
  unsigned long long position_;
  int setLengthCalls_ = 0;
};

TEST_F(FileContentsTest, ReadBinaryNeverReadsPastTheLengthTheBufferTook) {
  ASSERT_TRUE(WriteRawFile(dir_ / "hundred", std::string(100, 'h')));
  struct Case {
    unsigned long long most, position;
    bool expected;
    int setLengthCalls;
  };
  const std::vector<Case> cases = {
      {1000, 0, true, 1},
      {1000, 900, true, 1},
      // The buffer takes fewer bytes than the file holds.
      {8, 0, false, 1},
      {99, 0, false, 1},
      // The end would lie beyond any object in memory, or wrap.
      {1000, static_cast<unsigned long long>(PTRDIFF_MAX) - 50, false, 0},
      {1000, ULLONG_MAX - 50, false, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("room " + std::to_string(c.most) + " at " + std::to_string(c.position));
    SmallBuffer buffer(c.most, c.position);
    EXPECT_EQ(FileUtils::ReadBinary(P("hundred"), &buffer), c.expected);
    EXPECT_EQ(buffer.setLengthCalls(), c.setLengthCalls);
    if (c.setLengthCalls > 0) {
      EXPECT_EQ(buffer.tellWrite(), buffer.length());
    }
    if (c.expected) {
      EXPECT_EQ(buffer.length(), c.position + 100);
      EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer.data()) + c.position, 100),
                std::string(100, 'h'));
    }
  }
}

TEST_F(FileContentsTest, FilesLongerThanMemoryHoldsFailCleanly) {
  // Sparse files cost no disk space. A StringWriter cuts the length of the
  // larger one to 16 bytes: nothing may be read into them.
  struct Case {
    unsigned long long size;
    bool binaryIntoMemory;  // a MemoryBuffer refuses it without trying
  };
  const std::vector<Case> cases = {
      {0x80000010ull, sizeof(void*) == 4},
      {0x100000010ull, sizeof(void*) == 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("size " + std::to_string(c.size));
    const std::string path = dir_ / "sparse";
    ASSERT_TRUE(WriteRawFile(path, ""));
    if (::truncate(path.c_str(), static_cast<off_t>(c.size)) != 0) {
      GTEST_SKIP() << "no sparse files";
    }
    SafeString text("untouched");
    EXPECT_FALSE(FileUtils::ReadText(path.c_str(), text));
    EXPECT_EQ(S(text), "untouched");
    Vector<SafeString> lines;
    EXPECT_FALSE(FileUtils::ReadText(path.c_str(), lines));
    EXPECT_TRUE(lines.empty());
    if (c.size > 0xFFFFFFFFull || sizeof(void*) == 4) {
      SafeString target;
      StringWriter writer(target);
      EXPECT_FALSE(FileUtils::ReadBinary(path.c_str(), &writer));
      EXPECT_LE(target.size(), 16u);
      EXPECT_EQ(writer.tellWrite(), writer.length());
    }
    if (c.binaryIntoMemory) {
      MemoryBuffer buffer;
      EXPECT_FALSE(FileUtils::ReadBinary(path.c_str(), &buffer));
      EXPECT_EQ(buffer.length(), 0u);
    }
  }
}

TEST_F(FileContentsTest, ReadersTakeAPseudoFileToItsEnd) {
  // Files under /proc say they hold 0 bytes.
  const char* const path = "/proc/version";
  bool readable = false;
  const std::string expected = ReadRawFile(path, &readable);
  if (!readable || expected.empty()) GTEST_SKIP() << path << " cannot be read";
  SafeString text;
  ASSERT_TRUE(FileUtils::ReadText(path, text));
  EXPECT_EQ(S(text), expected);
  EXPECT_LE(text.capacity(), text.size() + 16) << "room past the end is given back";
  MemoryBuffer buffer;
  ASSERT_TRUE(FileUtils::ReadBinary(path, &buffer));
  ASSERT_EQ(buffer.length(), expected.size());
  EXPECT_EQ(buffer.tellWrite(), expected.size());
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer.data()), expected.size()), expected);
  ASSERT_TRUE(FileUtils::CopyFile(path, P("copy")));
  EXPECT_EQ(ReadRawFile(dir_ / "copy"), expected);
}

TEST_F(FileContentsTest, ReadTextTakesTheRoomOfTheFileOnly) {
  for (const std::string& content :
       {std::string(100000, 'r'), "\xEF\xBB\xBF" + std::string(70000, 'm')}) {
    SCOPED_TRACE("content of " + std::to_string(content.size()) + " bytes");
    ASSERT_TRUE(WriteRawFile(dir_ / "t", content));
    SafeString text;
    ASSERT_TRUE(FileUtils::ReadText(P("t"), text));
    EXPECT_EQ(text.size() + (content[0] == 'r' ? 0 : 3), content.size());
    EXPECT_LE(text.capacity(), content.size());
  }
}

TEST(ReadRoomTest, SumsAndGrowthNeverWrap) {
  namespace detail = zorv::foundation::file::detail;
  const unsigned long long k32 = 0xFFFFFFFFull;  // the largest 32-bit size_t
  struct SumCase {
    unsigned long long a, b, limit;
    bool fits;
  };
  const std::vector<SumCase> sums = {
      {1, 2, 3, true},       {1, 3, 3, false},           {k32, 1, k32, false},
      {0, k32, k32, true},   {k32 + 1, 0, k32, false},   {ULLONG_MAX, 1, ULLONG_MAX, false},
      {1, ULLONG_MAX, ULLONG_MAX, false},
  };
  for (const SumCase& c : sums) {
    SCOPED_TRACE(std::to_string(c.a) + " + " + std::to_string(c.b) + " within " +
                 std::to_string(c.limit));
    unsigned long long sum = 7;
    EXPECT_EQ(detail::SumWithin(c.a, c.b, c.limit, sum), c.fits);
    EXPECT_EQ(sum, c.fits ? c.a + c.b : 7u);
  }
  struct GrowCase {
    unsigned long long used, more, limit, expected;
  };
  const std::vector<GrowCase> growths = {
      {0, 1, 0x7FFFFFFF, 4096},
      {0, 10000, 0x7FFFFFFF, 10000},
      {4096, 1, 0x7FFFFFFF, 6144},
      {100, 4096, 0x7FFFFFFF, 4196},
      // Near the limit the room stops there, and fails beyond it.
      {0x60000000, 1, 0x7FFFFFFF, 0x7FFFFFFF},
      {0x7FFFFFF0, 15, 0x7FFFFFFF, 0x7FFFFFFF},
      {0x7FFFFFF0, 16, 0x7FFFFFFF, 0},
      {0, 1, 100, 100},
      {0xC0000000, 4096, k32, k32},
      {k32, 1, k32, 0},
      {ULLONG_MAX - 10, 5, ULLONG_MAX, ULLONG_MAX},
      {ULLONG_MAX - 10, 11, ULLONG_MAX, 0},
  };
  for (const GrowCase& c : growths) {
    SCOPED_TRACE(std::to_string(c.used) + " used, " + std::to_string(c.more) + " more, limit " +
                 std::to_string(c.limit));
    EXPECT_EQ(detail::GrownRoom(c.used, c.more, c.limit), c.expected);
  }
}

TEST_F(FileContentsTest, WriteTextCreatesParentsAndReplacesContents) {
  const SafeString path = P("x/y/z.txt");
  SafeString text("first\n", 6);
  text.push_back('\0');
  text += "after nul";
  ASSERT_TRUE(FileUtils::WriteText(path, text));
  EXPECT_EQ(ReadRawFile(dir_ / "x/y/z.txt"), S(text));
  const int expectedMode = 0755 & ~zorv::test::CurrentUmask();
  EXPECT_EQ(zorv::test::RawMode(dir_ / "x"), expectedMode);
  EXPECT_EQ(zorv::test::RawMode(dir_ / "x/y"), expectedMode);
  ASSERT_TRUE(FileUtils::WriteText(path, "short"));
  EXPECT_EQ(ReadRawFile(dir_ / "x/y/z.txt"), "short");
  ASSERT_TRUE(FileUtils::WriteText(path, ""));
  EXPECT_EQ(ReadRawFile(dir_ / "x/y/z.txt"), "");
}

TEST_F(FileContentsTest, WriteBinaryWritesTheBytes) {
  const unsigned char bytes[] = {0, 1, 2, 0xFF, 0};
  ASSERT_TRUE(FileUtils::WriteBinary(P("d/b.bin"), bytes, sizeof(bytes)));
  EXPECT_EQ(ReadRawFile(dir_ / "d/b.bin"), std::string("\0\1\2\xFF\0", 5));
  ASSERT_TRUE(FileUtils::WriteBinary(P("d/b.bin"), nullptr, 0));
  EXPECT_EQ(ReadRawFile(dir_ / "d/b.bin"), "");
  EXPECT_FALSE(FileUtils::WriteBinary(P("d/c.bin"), nullptr, 3));
  EXPECT_FALSE(RawExists(dir_ / "d/c.bin"));
}

TEST_F(FileContentsTest, WriteRefusesBadPathsWithoutCreatingAnything) {
  ASSERT_TRUE(WriteRawFile(dir_ / "plain", "p"));
  ASSERT_EQ(::mkdir((dir_ / "folder").c_str(), 0755), 0);
  EXPECT_FALSE(FileUtils::WriteText("", "x"));
  EXPECT_FALSE(FileUtils::WriteText(P("folder"), "x"));
  EXPECT_TRUE(RawIsDir(dir_ / "folder"));
  // A prefix that is an ordinary file.
  EXPECT_FALSE(FileUtils::WriteText(P("plain/sub/f.txt"), "x"));
  EXPECT_EQ(ReadRawFile(dir_ / "plain"), "p");
  EXPECT_FALSE(RawExists(dir_ / "plain/sub"));
  EXPECT_FALSE(FileUtils::WriteText(P("plain/f.txt"), "x"));
  EXPECT_FALSE(FileUtils::WriteBinary(P("plain/f.bin"), nullptr, 0));
  EXPECT_FALSE(RawExists(dir_ / "plain/f.txt"));
}

TEST_F(FileContentsTest, FailedWriteRemovesTheFoldersItMade) {
  // A name longer than any file system allows: the parents can be made, the
  // file cannot be opened.
  const std::string longName(300, 'n');
  EXPECT_FALSE(FileUtils::WriteText(P("made/one/" + longName), "x"));
  EXPECT_FALSE(RawExists(dir_ / "made"));
  // Only what this call made goes: an existing parent stays.
  ASSERT_EQ(::mkdir((dir_ / "kept").c_str(), 0755), 0);
  EXPECT_FALSE(FileUtils::WriteText(P("kept/new/" + longName), "x"));
  EXPECT_TRUE(RawIsDir(dir_ / "kept"));
  EXPECT_FALSE(RawExists(dir_ / "kept/new"));
}

TEST_F(FileContentsTest, WriteThatRunsOutOfRoomRollsBack) {
  zorv::test::FileSizeLimit limit(1024);
  ASSERT_TRUE(limit.ok());
  const SafeString big(4096, 'b');
  EXPECT_FALSE(FileUtils::WriteText(P("grow/big.txt"), big));
  EXPECT_FALSE(RawExists(dir_ / "grow"));
  std::vector<unsigned char> bytes(4096, 7);
  EXPECT_FALSE(FileUtils::WriteBinary(P("grow2/big.bin"), bytes.data(), 4096));
  EXPECT_FALSE(RawExists(dir_ / "grow2"));
}

TEST_F(FileContentsTest, RemoveFile) {
  ASSERT_TRUE(WriteRawFile(dir_ / "f", "x"));
  ASSERT_EQ(::mkdir((dir_ / "d").c_str(), 0755), 0);
  EXPECT_TRUE(FileUtils::RemoveFile(P("f")));
  EXPECT_FALSE(RawExists(dir_ / "f"));
  EXPECT_FALSE(FileUtils::RemoveFile(P("f")));
  EXPECT_FALSE(FileUtils::RemoveFile(P("d")));
  EXPECT_TRUE(RawIsDir(dir_ / "d"));
  EXPECT_FALSE(FileUtils::RemoveFile(""));
}

TEST_F(FileContentsTest, RenameFile) {
  ASSERT_TRUE(WriteRawFile(dir_ / "a", "A"));
  ASSERT_TRUE(WriteRawFile(dir_ / "b", "B"));
  ASSERT_EQ(::mkdir((dir_ / "d").c_str(), 0755), 0);
  EXPECT_FALSE(FileUtils::RenameFile(P("a"), P("a")));
  EXPECT_FALSE(FileUtils::RenameFile(P("a"), ""));
  EXPECT_FALSE(FileUtils::RenameFile("", P("a")));
  EXPECT_FALSE(FileUtils::RenameFile(P("missing"), P("c")));
  EXPECT_FALSE(FileUtils::RenameFile(P("d"), P("e")));
  EXPECT_FALSE(FileUtils::RenameFile(P("a"), P("d")));
  EXPECT_FALSE(FileUtils::RenameFile(P("a"), P("nofolder/a")));
  EXPECT_FALSE(RawExists(dir_ / "nofolder"));
  EXPECT_EQ(ReadRawFile(dir_ / "a"), "A");
  // Replaces an existing file.
  EXPECT_TRUE(FileUtils::RenameFile(P("a"), P("b")));
  EXPECT_FALSE(RawExists(dir_ / "a"));
  EXPECT_EQ(ReadRawFile(dir_ / "b"), "A");
  EXPECT_TRUE(FileUtils::RenameFile(P("b"), P("d/moved")));
  EXPECT_EQ(ReadRawFile(dir_ / "d/moved"), "A");
}

TEST_F(FileContentsTest, RenameFolderReplacesATree) {
  ASSERT_EQ(::mkdir((dir_ / "from").c_str(), 0755), 0);
  ASSERT_TRUE(WriteRawFile(dir_ / "from/f", "F"));
  ASSERT_EQ(::mkdir((dir_ / "to").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((dir_ / "to/old").c_str(), 0755), 0);
  ASSERT_TRUE(WriteRawFile(dir_ / "to/old/x", "X"));
  ASSERT_TRUE(WriteRawFile(dir_ / "file", "x"));
  EXPECT_FALSE(FileUtils::RenameFolder(P("file"), P("other")));
  EXPECT_FALSE(FileUtils::RenameFolder(P("from"), P("from")));
  EXPECT_TRUE(FileUtils::RenameFolder(P("from"), P("to")));
  EXPECT_FALSE(RawExists(dir_ / "from"));
  EXPECT_EQ(ReadRawFile(dir_ / "to/f"), "F");
  EXPECT_FALSE(RawExists(dir_ / "to/old"));
}

TEST_F(FileContentsTest, RenameOntoItselfOrAFolderAroundItRemovesNothing) {
  ASSERT_EQ(::mkdir((dir_ / "p").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((dir_ / "p/q").c_str(), 0755), 0);
  ASSERT_TRUE(WriteRawFile(dir_ / "p/q/f", "F"));
  ASSERT_TRUE(WriteRawFile(dir_ / "a.txt", "A"));
  ASSERT_EQ(::link((dir_ / "a.txt").c_str(), (dir_ / "hard").c_str()), 0);
  ASSERT_EQ(::symlink((dir_ / "a.txt").c_str(), (dir_ / "la").c_str()), 0);
  ASSERT_EQ(::symlink((dir_ / "p").c_str(), (dir_ / "lp").c_str()), 0);
  struct Case {
    bool folder;
    std::string from, to;
    bool expected;
  };
  const std::vector<Case> cases = {
      // Another spelling of the same object: nothing to do.
      {false, "a.txt", "./a.txt", true},
      {false, "a.txt", "p/../a.txt", true},
      {false, "a.txt", "hard", true},
      {true, "p", "p/", true},
      {true, "p/q", "./p/q", true},
      // A link onto the file it leads to.
      {false, "la", "a.txt", false},
      {true, "lp", "p", false},
      {true, "lp", "lp/", true},
      // The target holds the source, or the source the target.
      {true, "p/q", "p", false},
      {true, "p/q/", "p/", false},
      {true, "p/q", "lp/..", false},
      {true, "p", "p/q", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE((c.folder ? "RenameFolder " : "RenameFile ") + c.from + " -> " + c.to);
    const SafeString from = P(c.from);
    const SafeString to = P(c.to);
    EXPECT_EQ(c.folder ? FileUtils::RenameFolder(from, to) : FileUtils::RenameFile(from, to),
              c.expected);
    EXPECT_EQ(ReadRawFile(dir_ / "p/q/f"), "F");
    EXPECT_EQ(ReadRawFile(dir_ / "a.txt"), "A");
    EXPECT_EQ(ReadRawFile(dir_ / "hard"), "A");
    EXPECT_EQ(ReadRawFile(dir_ / "la"), "A");
    EXPECT_EQ(ReadRawFile(dir_ / "lp/q/f"), "F");
  }
}

TEST_F(FileContentsTest, RenameOntoALinkReplacesOnlyTheLink) {
  struct Case {
    bool folder;
    std::string to;
  };
  const std::vector<Case> cases = {{true, "link"}, {true, "link/"}, {false, "link"}};
  for (const Case& c : cases) {
    SCOPED_TRACE((c.folder ? "folder onto " : "file onto ") + c.to);
    TempDir dir;
    ASSERT_EQ(::mkdir((dir / "target").c_str(), 0755), 0);
    ASSERT_TRUE(WriteRawFile(dir / "target/keep", "K"));
    ASSERT_TRUE(WriteRawFile(dir / "file", "T"));
    ASSERT_EQ(::symlink((dir / (c.folder ? "target" : "file")).c_str(), (dir / "link").c_str()), 0);
    if (c.folder) {
      ASSERT_EQ(::mkdir((dir / "source").c_str(), 0755), 0);
      ASSERT_TRUE(WriteRawFile(dir / "source/moved", "M"));
    } else {
      ASSERT_TRUE(WriteRawFile(dir / "source", "M"));
    }
    const SafeString from((dir / "source").c_str());
    const SafeString to((dir / c.to).c_str());
    ASSERT_TRUE(c.folder ? FileUtils::RenameFolder(from, to) : FileUtils::RenameFile(from, to));
    EXPECT_FALSE(RawExists(dir / "source"));
    EXPECT_EQ(ReadRawFile(dir / (c.folder ? "link/moved" : "link")), "M");
    EXPECT_EQ(ReadRawFile(dir / "target/keep"), "K");
    EXPECT_EQ(ReadRawFile(dir / "file"), "T");
  }
}

TEST_F(FileContentsTest, CopyFileCopiesEveryByteInChunks) {
  std::string content;
  for (int i = 0; i < 3 * 4096 + 17; ++i) content += static_cast<char>(i * 7);
  ASSERT_TRUE(WriteRawFile(dir_ / "src", content));
  ASSERT_TRUE(WriteRawFile(dir_ / "dst", "old contents, longer than nothing"));
  EXPECT_TRUE(FileUtils::CopyFile(P("src"), P("new")));
  EXPECT_EQ(ReadRawFile(dir_ / "new"), content);
  EXPECT_TRUE(FileUtils::CopyFile(P("src"), P("dst")));
  EXPECT_EQ(ReadRawFile(dir_ / "dst"), content);
  ASSERT_TRUE(WriteRawFile(dir_ / "empty", ""));
  EXPECT_TRUE(FileUtils::CopyFile(P("empty"), P("dst")));
  EXPECT_EQ(ReadRawFile(dir_ / "dst"), "");
  EXPECT_TRUE(FileUtils::CopyFile("/dev/null", P("null")));
  EXPECT_EQ(ReadRawFile(dir_ / "null"), "");
}

TEST_F(FileContentsTest, CopyFileRefusals) {
  ASSERT_TRUE(WriteRawFile(dir_ / "src", "data"));
  ASSERT_EQ(::mkdir((dir_ / "d").c_str(), 0755), 0);
  ASSERT_EQ(::mkfifo((dir_ / "fifo").c_str(), 0644), 0);
  EXPECT_FALSE(FileUtils::CopyFile(P("src"), P("src")));
  // Another spelling of the same file must not truncate it.
  EXPECT_FALSE(FileUtils::CopyFile(P("src"), P("d/../src")));
  EXPECT_EQ(ReadRawFile(dir_ / "src"), "data");
  EXPECT_FALSE(FileUtils::CopyFile(P("src"), P("d")));
  EXPECT_FALSE(FileUtils::CopyFile(P("src"), P("missing/x")));
  EXPECT_FALSE(RawExists(dir_ / "missing"));
  EXPECT_FALSE(FileUtils::CopyFile(P("missing"), P("x")));
  EXPECT_FALSE(FileUtils::CopyFile(P("d"), P("x")));
  EXPECT_FALSE(FileUtils::CopyFile("", P("x")));
  EXPECT_FALSE(FileUtils::CopyFile(P("src"), ""));
  EXPECT_FALSE(RawExists(dir_ / "x"));
  // A FIFO counts as a file but cannot be sized: no partial copy remains.
  EXPECT_FALSE(FileUtils::CopyFile(P("fifo"), P("fromfifo")));
  EXPECT_FALSE(RawExists(dir_ / "fromfifo"));
}

TEST_F(FileContentsTest, FailedCopyRemovesThePartialTarget) {
  ASSERT_TRUE(WriteRawFile(dir_ / "src", std::string(5 * 4096, 's')));
  zorv::test::FileSizeLimit limit(2 * 4096 + 100);
  ASSERT_TRUE(limit.ok());
  EXPECT_FALSE(FileUtils::CopyFile(P("src"), P("dst")));
  EXPECT_FALSE(RawExists(dir_ / "dst"));
}

}  // namespace
