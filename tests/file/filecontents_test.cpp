// Tests of FileUtils' single-file half: kind tests, sizes, reading,
// writing with parent creation and roll-back, removal, renaming, copying.
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <array>
#include <chrono>
#include <climits>
#include <thread>
#include <tuple>
#include <utility>

#include "file/filetestutil.h"
#include "file/readroom.h"
#include "foundation/memory/buffer.h"
#include "foundation/memory/memorybuffer.h"
#include "system/posixio.h"

extern "C" void ZorvTestSeekEnd(long long size, bool startFails = false);
extern "C" void ZorvTestFailRead(int skip, int error);
extern "C" void ZorvTestFailListing(int skip);
extern "C" void ZorvTestFailStat(const char* path, int skip);
extern "C" void ZorvTestEmptyWhileCopied(bool on);
extern "C" int ZorvTestCopyCalls();

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::file::FileUtils;
using zorv::foundation::memory::MemoryBuffer;
using zorv::test::Op;
using zorv::test::WithOpenHook;
using zorv::test::ReadRawFile;
using zorv::test::WriteRawFile;

using FileContentsTest = zorv::test::FileTest;

std::string S(const SafeString& s) { return std::string(s.data(), s.size()); }

// Failed reads leave the text alone, empty the lines and, when `binary`,
// read nothing into a buffer.
void ExpectReadsFail(const std::string& path, bool binary) {
  SafeString text("untouched");
  EXPECT_FALSE(FileUtils::ReadText(path.c_str(), text));
  EXPECT_EQ(S(text), "untouched");
  Vector<SafeString> lines(1);
  EXPECT_FALSE(FileUtils::ReadText(path.c_str(), lines));
  EXPECT_TRUE(lines.empty());
  MemoryBuffer buffer;
  EXPECT_TRUE(!binary || !FileUtils::ReadBinary(path.c_str(), &buffer));
  EXPECT_EQ(buffer.length(), 0u);
}

TEST_F(FileContentsTest, KindsAndSizes) {
  ASSERT_TRUE(
      zorv::test::Build(dir_.path(), {"file=12345", "empty=", "folder/", "linkdir->folder",
                                      "linkfile->file", "dangling->gone", "fifo?", "sock@"}));
  // A FIFO without a writer neither blocks nor has a size; a socket's type
  // code holds the directory bit, so it counts as a folder. What is no file
  // cannot be read. The terminal has no size, nor can it be opened where
  // the process has none.
  // clang-format off
  const std::tuple<std::string, bool, bool, bool, unsigned long long> cases[] = {
      {"", false, false, false, 0}, {"file", true, false, true, 5}, {"empty", true, false, true, 0},
      {"folder", true, true, false, 0}, {"folder/", true, true, false, 0},
      {"missing", false, false, false, 0}, {"file/below", false, false, false, 0},
      {"linkdir", true, true, false, 0}, {"linkfile", true, false, true, 5},
      {"dangling", false, false, false, 0}, {"fifo", true, false, true, 0},
      {"sock", true, true, false, 0}, {"/dev/null", true, false, true, 0},
      {"/dev/tty", true, false, true, 0}};
  // clang-format on
  for (const auto& [name, exists, folder, file, size] : cases) {
    const std::string path = name.empty() || name[0] == '/' ? name : dir_ / name;
    SCOPED_TRACE("path '" + path + "'");
    EXPECT_EQ(FileUtils::IsExist(path.c_str()), exists);
    EXPECT_EQ(FileUtils::IsFolder(path.c_str()), folder);
    EXPECT_EQ(FileUtils::IsFile(path.c_str()), file);
    EXPECT_EQ(FileUtils::GetFileSize(path.c_str()), size);
    if (!file) ExpectReadsFail(path, true);
  }
  // A file that this process could not open for reading has no size (root
  // may open it all the same).
  const std::string locked = dir_ / "file";
  ASSERT_EQ(::chmod(locked.c_str(), 0), 0);
  const int opened = ::open(locked.c_str(), O_RDONLY | O_CLOEXEC);
  if (opened >= 0) ::close(opened);
  EXPECT_EQ(FileUtils::GetFileSize(locked.c_str()), opened >= 0 ? 5u : 0u);
  ASSERT_EQ(::chmod(locked.c_str(), 0644), 0);
}

TEST_F(FileContentsTest, ReadersSkipByteOrderMarksAndSplitLines) {
  const std::string utf16("\xFF\xFEh\0i\0", 6);
  const std::string wide(37, 'w');  // read into a string whose room is exactly its length
  // clang-format off
  const std::tuple<std::string, std::string, std::vector<std::string>> cases[] = {
      {"", "", {}}, {"a", "a", {"a"}}, {"\xEF\xBB\xBF", "", {}}, {"\xFF\xFE", "", {}},
      {"\xEF\xBB\xBFhello", "hello", {"hello"}}, {"\xEF\xBB", "\xEF\xBB", {"\xEF\xBB"}},
      {"\xEF\xBBX", "\xEF\xBBX", {"\xEF\xBBX"}}, {utf16, utf16.substr(2), {utf16.substr(2)}},
      {std::string("\xFE\xFF\0h", 4), std::string("\0h", 2), {std::string("\0h", 2)}},
      {"a\r\nb", "a\r\nb", {"a\r", "b"}}, {"a\n\nb\n", "a\n\nb\n", {"a", "", "b"}},
      {"\n\n", "\n\n", {"", ""}}, {"a\rb\n", "a\rb\n", {"a\rb"}},
      {"\xEF\xBB\xBFx\ny", "x\ny", {"x", "y"}}, {"\xFF\xFF", "\xFF\xFF", {"\xFF\xFF"}},
      {"\xFE\xFE", "\xFE\xFE", {"\xFE\xFE"}}, {wide + "\nab", wide + "\nab", {wide, "ab"}}};
  // clang-format on
  for (const auto& [content, expected, expectedLines] : cases) {
    SCOPED_TRACE("content '" + content + "'");
    ASSERT_TRUE(WriteRawFile(dir_ / "t", content));
    SafeString text("old");
    EXPECT_TRUE(FileUtils::ReadText(P("t"), text));
    EXPECT_EQ(S(text), expected);
    Vector<SafeString> lines(1);  // a stale line
    EXPECT_TRUE(FileUtils::ReadText(P("t"), lines));
    std::vector<std::string> got;
    for (const SafeString& line : lines) got.push_back(S(line));
    EXPECT_EQ(got, expectedLines);
  }
}

// A buffer over a vector that takes a length only up to `most` bytes, and
// whose write position is set at will.
class SmallBuffer : public zorv::foundation::memory::IBuffer {
 public:
  SmallBuffer(unsigned long long most, unsigned long long at) : most_(most), at_(at) {}
  void write(const unsigned char*, unsigned long long) override {}
  bool read(unsigned char*, unsigned long long) override { return false; }
  unsigned long long length() const override { return bytes_.size(); }
  unsigned long long setLength(unsigned long long length) override {
    ++calls_;
    bytes_.resize(static_cast<size_t>(length < most_ ? length : most_));
    return at_ = 0;
  }
  unsigned long long tellRead() const override { return 0; }
  unsigned long long tellWrite() const override { return at_; }
  unsigned long long seekRead(unsigned long long) override { return 0; }
  unsigned long long seekWrite(unsigned long long at) override { return std::exchange(at_, at); }
  unsigned char* data() const override { return const_cast<unsigned char*>(bytes_.data()); }
  std::vector<unsigned char> bytes_;
  unsigned long long most_, at_;
  int calls_ = 0;
};

// ReadBinary appends at the write position and never reads past the length
// that the buffer took.
TEST_F(FileContentsTest, ReadBinaryIntoBuffers) {
  const std::string bytes("\xEF\xBB\xBF\0\x01\x02", 6);
  ASSERT_TRUE(
      zorv::test::Build(dir_.path(), {"b=" + bytes, "empty=", "h=" + std::string(100, 'h')}));
  MemoryBuffer buffer;
  for (const char* name : {"b", "empty", "b"}) ASSERT_TRUE(FileUtils::ReadBinary(P(name), &buffer));
  ASSERT_EQ(buffer.length(), 12u);
  EXPECT_EQ(buffer.tellWrite(), 12u);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer.data()), 12), bytes + bytes);
  // The buffer takes fewer bytes than the file holds; the end would lie
  // beyond any object in memory, or wrap.
  // clang-format off
  const std::tuple<unsigned long long, unsigned long long, bool, int> cases[] = {
      {1000, 0, true, 1}, {1000, 900, true, 1}, {8, 0, false, 1}, {99, 0, false, 1},
      {1000, PTRDIFF_MAX - 50ull, false, 0}, {1000, ULLONG_MAX - 50, false, 0}};
  // clang-format on
  for (const auto& [most, at, ok, calls] : cases) {
    SCOPED_TRACE("room " + std::to_string(most) + " at " + std::to_string(at));
    SmallBuffer small(most, at);
    EXPECT_EQ(FileUtils::ReadBinary(P("h"), &small), ok);
    EXPECT_EQ(small.calls_, calls);
    EXPECT_TRUE(calls == 0 || small.tellWrite() == small.length());
    if (!ok) continue;
    EXPECT_EQ(small.length(), at + 100);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(small.data()) + at, 100), std::string(100, 'h'));
  }
}

TEST_F(FileContentsTest, FilesLongerThanMemoryHoldsFailCleanly) {
  // Sparse files cost no disk space. Nothing may be read into a string; a
  // MemoryBuffer on a 32-bit target refuses both without trying (a buffer
  // that does not take the length is a row of ReadBinaryIntoBuffers).
  for (const unsigned long long size : {0x80000010ull, 0x100000010ull}) {
    SCOPED_TRACE("size " + std::to_string(size));
    const std::string path = dir_ / "sparse";
    ASSERT_TRUE(WriteRawFile(path, ""));
    if (::truncate(path.c_str(), static_cast<off_t>(size)) != 0) GTEST_SKIP() << "no sparse files";
    EXPECT_EQ(FileUtils::GetFileSize(path.c_str()), size);
    ExpectReadsFail(path, sizeof(void*) == 4);
  }
}

// A file read as text takes the room of its size only.
TEST_F(FileContentsTest, ReadersSizeTheirRoom) {
  for (const std::string& content :
       {std::string(100000, 'r'), "\xEF\xBB\xBF" + std::string(70000, 'm')}) {
    ASSERT_TRUE(WriteRawFile(dir_ / "t", content));
    SafeString text;
    ASSERT_TRUE(FileUtils::ReadText(P("t"), text));
    EXPECT_EQ(S(text), content.substr(content[0] == 'r' ? 0 : 3));
    EXPECT_LE(text.capacity(), content.size());
  }
}

// A read that fails midway through a file fails the whole call, wherever it
// falls: in the first 4 KiB, in the rest, or in the last look for more. A
// text keeps what it held.
TEST_F(FileContentsTest, AReadThatFailsMidwayFailsTheCall) {
  const std::string content(10000, 'm');
  ASSERT_TRUE(WriteRawFile(dir_ / "t", content));
  for (int skip = 0; skip < 3; ++skip) {
    SCOPED_TRACE(skip);
    SafeString text("kept");
    ZorvTestFailRead(skip, EIO);
    EXPECT_FALSE(FileUtils::ReadText(P("t"), text));
    EXPECT_EQ(S(text), "kept");
    Vector<SafeString> lines;
    ZorvTestFailRead(skip, EIO);
    EXPECT_FALSE(FileUtils::ReadText(P("t"), lines));
    if (skip < 2) {  // the whole file comes in the first read here
      MemoryBuffer buffer;
      ZorvTestFailRead(skip, EIO);
      EXPECT_FALSE(FileUtils::ReadBinary(P("t"), &buffer));
    }
    ZorvTestFailRead(-1, 0);
  }
}

// A file emptied by another program while the kernel copies it: the copy
// stops where the file now ends, after one call.
TEST_F(FileContentsTest, AFileEmptiedWhileCopiedEndsTheCopy) {
  ASSERT_TRUE(WriteRawFile(dir_ / "big", std::string(100000, 'b')));
  ZorvTestEmptyWhileCopied(true);
  const bool copied = FileUtils::CopyFile(P("big"), P("copy"));
  const int calls = ZorvTestCopyCalls();
  ZorvTestEmptyWhileCopied(false);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(copied, zorv::test::RawExists(dir_ / "copy"));
  EXPECT_EQ((copied ? ReadRawFile(dir_ / "copy") : "").size(), 0u);
}

// Files under /proc say they hold 0 bytes, yet are read, and copied, to
// their end; a device is read by ReadBinary from its start up to the size a
// seek to its end gives: a loop device over a file of 1 KiB shows that file
// (where one can be set up).
TEST_F(FileContentsTest, ProcFilesAndDevicesAreReadWhole) {
  const std::string bytes = "a" + std::string(1023, 'd');
  ASSERT_TRUE(WriteRawFile(dir_ / "image", bytes));
  const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  const int number = control < 0 ? -1 : ::ioctl(control, LOOP_CTL_GET_FREE);
  if (control >= 0) ::close(control);
  const std::string device = "/dev/loop" + std::to_string(number);
  const int loop = number < 0 ? -1 : ::open(device.c_str(), O_RDWR | O_CLOEXEC);
  const int image = ::open((dir_ / "image").c_str(), O_RDWR | O_CLOEXEC);
  const bool attached = loop >= 0 && ::ioctl(loop, LOOP_SET_FD, image) == 0;
  for (const std::string& path : {std::string("/proc/version"), device}) {
    SCOPED_TRACE(path);
    const std::string expected = path != device ? ReadRawFile(path) : attached ? bytes : "";
    if (expected.empty()) continue;
    MemoryBuffer buffer;
    EXPECT_TRUE(FileUtils::ReadBinary(path.c_str(), &buffer));
    EXPECT_EQ(buffer.tellWrite(), expected.size());
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer.data()), buffer.length()), expected);
    if (path == device) continue;  // no file to read as text or copy
    SafeString text;
    EXPECT_TRUE(FileUtils::ReadText(path.c_str(), text));
    EXPECT_EQ(S(text), expected);
    EXPECT_LE(text.capacity(), text.size() + 16) << "room past the end is given back";
    EXPECT_TRUE(FileUtils::CopyFile(path.c_str(), P("copy")));
    EXPECT_EQ(ReadRawFile(dir_ / "copy"), expected);
  }
  if (attached) ::ioctl(loop, LOOP_CLR_FD, 0);
  if (loop >= 0) ::close(loop);
  ::close(image);
  // A read that fails after the open fails the whole call: offset 0 of
  // /proc/self/mem is never mapped.
  SafeString text;
  MemoryBuffer buffer;
  EXPECT_FALSE(FileUtils::ReadText("/proc/self/mem", text));
  EXPECT_FALSE(FileUtils::ReadBinary("/proc/self/mem", &buffer));
  // The same where the file said it has bytes: the loopback's speed in sysfs
  // says 4096, where its read fails.
  const char* const said = "/sys/class/net/lo/speed";
  const int raw = ::open(said, O_RDONLY | O_CLOEXEC);
  char byte;
  if (raw >= 0 && ::read(raw, &byte, 1) < 0) {
    EXPECT_FALSE(FileUtils::ReadText(said, text));
    EXPECT_FALSE(FileUtils::ReadBinary(said, &buffer));
  }
  if (raw >= 0) ::close(raw);
  SmallBuffer small(8, 0);  // too small for what a /proc file turns out to hold
  EXPECT_FALSE(FileUtils::ReadBinary("/proc/version", &small));
  if (!attached) GTEST_SKIP() << "no loop device; /proc/version was read";
}

// A device is read and copied up to the size that a seek to its end gives
// (the test hooks make /dev/zero and /dev/null claim one): /dev/zero then
// gives that many zero bytes; /dev/null ends before it, which fails the read
// and the copy and leaves no partial target; so does a device that cannot
// seek back to its start, or whose first read fails.
TEST_F(FileContentsTest, DeviceReadAndCopiedUpToItsSeekEnd) {
  struct Case {
    const char* name;
    const char* device;
    long long claimed;
    bool startFails;
    bool readFails;
    bool ok;
  };
  const Case cases[] = {
      {"zeros", "/dev/zero", 9000, false, false, true},
      {"ends early", "/dev/null", 10, false, false, false},
      {"no seek back", "/dev/zero", 9000, true, false, false},
      {"read fails", "/dev/zero", 9000, false, true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto arm = [&c] {  // for one call each
      ZorvTestSeekEnd(c.claimed, c.startFails);
      ZorvTestFailRead(c.readFails ? 0 : -1, EIO);
    };
    arm();
    MemoryBuffer read;
    EXPECT_EQ(FileUtils::ReadBinary(c.device, &read), c.ok);
    if (c.ok) {
      EXPECT_EQ(std::string(reinterpret_cast<char*>(read.data()), read.length()),
                std::string(9000, '\0'));
    }
    arm();
    EXPECT_EQ(FileUtils::CopyFile(c.device, P("copy")), c.ok);
    ZorvTestSeekEnd(-1);
    ZorvTestFailRead(-1, 0);
    if (c.ok) {
      EXPECT_EQ(ReadRawFile(dir_ / "copy"), std::string(9000, '\0'));
      std::filesystem::rename(dir_ / "copy", dir_ / "zeros");
    }
    EXPECT_FALSE(std::filesystem::exists(dir_ / "copy"));
  }
  // A copy onto a device that refuses to be written fails and leaves the
  // device's node; the node is made here (as /dev/full), which needs root.
  if (::mknod((dir_ / "full").c_str(), S_IFCHR | 0666, makedev(1, 7)) == 0) {
    EXPECT_FALSE(FileUtils::CopyFile(P("zeros"), P("full")));
    struct stat info;
    EXPECT_TRUE(::lstat((dir_ / "full").c_str(), &info) == 0 && S_ISCHR(info.st_mode));
  }
  // The same for a FIFO that a reader holds open, when the source's read
  // fails: the FIFO stays.
  ASSERT_EQ(::mkfifo((dir_ / "target").c_str(), 0600), 0);
  const int reader = ::open((dir_ / "target").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_TRUE(WriteRawFile(dir_ / "small", "bytes"));
  ZorvTestFailRead(0, EIO);
  EXPECT_FALSE(FileUtils::CopyFile(P("small"), P("target")));
  ZorvTestFailRead(-1, 0);
  ::close(reader);
  struct stat fifo;
  EXPECT_TRUE(::lstat((dir_ / "target").c_str(), &fifo) == 0 && S_ISFIFO(fifo.st_mode));
  ASSERT_EQ(::mkfifo((dir_ / "fifo").c_str(), 0600), 0);
  MemoryBuffer piped;
  EXPECT_FALSE(FileUtils::ReadBinary(P("fifo"), &piped));  // no end to seek to
  EXPECT_TRUE(FileUtils::ReadBinary("/dev/null", &piped));  // its end is at 0
  EXPECT_EQ(piped.length(), 0u);
  // As text, a FIFO is read to its end, which lies past the first read's
  // room and is known only when the writer closes. The writer opens once
  // the reader waits in its open (or gives up after a minute).
  const std::string fed(10000, 'f');
  std::thread writer([&fed, path = dir_ / "fifo"] {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    int fd = -1;
    while (fd < 0 && std::chrono::steady_clock::now() < deadline) {
      fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
      if (fd < 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (fd < 0) return;
    (void)::fcntl(fd, F_SETFL, 0);
    EXPECT_TRUE(zorv::foundation::system::posixio::WriteFully(fd, fed.data(), fed.size()));
    ::close(fd);
  });
  SafeString text;
  EXPECT_TRUE(FileUtils::ReadText(P("fifo"), text));
  writer.join();
  EXPECT_EQ(S(text), fed);
}

TEST(ReadRoomTest, SumsAndGrowthNeverWrap) {
  namespace detail = zorv::foundation::file::detail;
  const unsigned long long k32 = 0xFFFFFFFFull, k31 = 0x7FFFFFFF, kMax = ULLONG_MAX;
  // Rows of a, b, the limit and the result (for SumWithin: 1 when it fits).
  const std::vector<std::array<unsigned long long, 4>> sums = {
      {1, 2, 3, 1},         {1, 3, 3, 0},       {k32, 1, k32, 0},  {0, k32, k32, 1},
      {k32 + 1, 0, k32, 0}, {kMax, 1, kMax, 0}, {1, kMax, kMax, 0}};
  for (const auto& [a, b, limit, expected] : sums) {
    SCOPED_TRACE(std::to_string(a) + " + " + std::to_string(b) + " within " +
                 std::to_string(limit));
    unsigned long long sum = 7;
    EXPECT_EQ(detail::SumWithin(a, b, limit, sum), expected == 1);
    EXPECT_EQ(sum, expected == 1 ? a + b : 7u);
  }
  // Used, more, limit and the room grown to: near the limit the room stops
  // there, and fails (0) beyond it.
  const std::vector<std::array<unsigned long long, 4>> growths = {
      {0, 1, k31, 4096},        {0, 10000, k31, 10000},     {4096, 1, k31, 6144},
      {100, 4096, k31, 4196},   {0x60000000, 1, k31, k31},  {0x7FFFFFF0, 15, k31, k31},
      {0x7FFFFFF0, 16, k31, 0}, {0, 1, 100, 100},           {0xC0000000, 4096, k32, k32},
      {k32, 1, k32, 0},         {kMax - 10, 5, kMax, kMax}, {kMax - 10, 11, kMax, 0}};
  for (const auto& [a, b, limit, expected] : growths) {
    SCOPED_TRACE(std::to_string(a) + " used, " + std::to_string(b) + " more, limit " +
                 std::to_string(limit));
    EXPECT_EQ(detail::GrownRoom(a, b, limit), expected);
  }
}

// A descriptor that was never open is not closed successfully: a failed
// open must not pass for a written and closed file.
TEST(DescriptorTest, OnlyAnOpenDescriptorClosesWithSuccess) {
  namespace posixio = zorv::foundation::system::posixio;
  posixio::Descriptor open(posixio::Open("/dev/null", O_WRONLY));
  ASSERT_TRUE(open.valid());
  EXPECT_TRUE(posixio::WriteFully(open.get(), "x", 1));
  EXPECT_TRUE(open.close());
  EXPECT_FALSE(open.close());
  EXPECT_FALSE(posixio::WriteFully(-1, "x", 1));
}

// `call` while the `skip`+1-th stat or lstat of the case's entry `name`
// fails, as when the entry goes away meanwhile.
std::function<bool(const std::string&)> FailingStat(const char* name, int skip,
                                                    std::function<bool(const std::string&)> call) {
  return [=](const std::string& b) {
    ZorvTestFailStat((b + "/" + name).c_str(), skip);
    const bool ok = call(b);
    ZorvTestFailStat("", 0);
    return ok;
  };
}

TEST_F(FileContentsTest, WriteRemoveRenameAndCopy) {
  // A name longer than any file system allows: the parents can be made, the
  // file cannot be opened.
  const std::string longName(300, 'n');
  const std::string nul("first\n\0after nul", 16);
  const std::string bin("\0\1\2\xFF\0", 5);
  std::string big;
  for (int i = 0; i < 17 * 4096 + 17; ++i) big += static_cast<char>(i * 7);
  const std::string s5(5 * 4096, 's');
  const std::vector<std::string> sub = {"s/", "s/m=M", "t/", "t/k=K", "l->t"};
  const std::vector<std::string> moved = {"l/", "l/m=M", "t/", "t/k=K"};
  // WriteText(path, "r") from the case's folder as the working folder.
  const auto fromHere = [](const std::string& path) {
    return [path](const std::string& b) {
      const std::string back = std::filesystem::current_path();
      const bool ok = ::chdir(b.c_str()) == 0 && FileUtils::WriteText(path.c_str(), "r");
      return ::chdir(back.c_str()) == 0 && ok;
    };
  };
  // clang-format off
  std::vector<zorv::test::FileCase> cases = {
      {"parents made", {}, Op('t', "x/y/z.txt", nul), true, {"x/", "x/y/", "x/y/z.txt=" + nul}},
      {"parent made for a path from the working folder", {}, fromHere("made/f"), true,
       {"made/", "made/f=r"}},
      {"parent from the working folder rolled back", {}, fromHere("made/" + longName), false, {}},
      {"contents replaced", {"f=longer old"}, Op('t', "f", "short"), true, {"f=short"}},
      {"emptied", {"f=old"}, Op('t', "f", ""), true, {"f="}},
      {"binary", {}, Op('b', "d/b", bin), true, {"d/", "d/b=" + bin}},
      {"binary of nothing", {"b=old"}, Op('n', "b"), true, {"b="}},
      {"binary null data", {}, Op('n', "c", "xyz"), false, {}},
      {"write to an empty path", {}, Op('t', "", "x"), false, {}},
      {"write to a folder", {"folder/"}, Op('t', "folder", "x"), false, {"folder/"}},
      {"parent is a file", {"plain=p"}, Op('n', "plain/sub/f"), false, {"plain=p"}},
      {"existing parent kept", {"kept/"}, Op('t', "kept/new/" + longName, "x"), false, {"kept/"}},
      {"out of room", {}, Op('b', "grow/big", big), false, {}, 1024},
      {"remove a file", {"f=x"}, Op('r', "f"), true, {}},
      {"rename replaces a file", {"a=A", "b=B"}, Op('f', "a", "b"), true, {"b=A"}},
      {"rename into a folder", {"a=A", "d/"}, Op('f', "a", "d/m"), true, {"d/", "d/m=A"}},
      // The source goes away between its check and its comparisons (the
      // entry's own, then what it leads to).
      {"rename whose source goes away", {"a=A", "b=B"}, FailingStat("a", 1, Op('f', "a", "b")), false,
       {"a=A", "b=B"}},
      {"rename whose source goes away later", {"a=A", "b=B"}, FailingStat("a", 2, Op('f', "a", "b")),
       false, {"a=A", "b=B"}},
      {"rename a folder replaces a tree", {"f/", "f/x=F", "t/", "t/o/", "t/o/x=X"}, Op('d', "f", "t"),
       true, {"t/", "t/x=F"}},
      {"rename a folder onto one that cannot be emptied", {"f/", "f/x=F", "t/", "t/o=X"},
       [](const std::string& b) { ZorvTestFailListing(0); return Op('d', "f", "t")(b); }, false,
       {"f/", "f/x=F", "t/", "t/o=X"}},
      // The source turns into a dangling link just before it is opened to
      // compare it with the target: the target stays.
      {"rename a folder whose source goes away", {"f/", "f/x=F", "t/", "t/o=X"},
       WithOpenHook("/f", "gone", Op('d', "f", "t")), false,
       {"f->gone", "f.moved/", "f.moved/x=F", "t/", "t/o=X"}},
      // Whether either folder holds the other cannot be told: nothing goes.
      {"rename a folder when a parent cannot be opened", {"f/", "f/x=F", "t/"},
       WithOpenHook("..", "!", Op('d', "f", "t")), false, {"f/", "f/x=F", "t/"}},
      {"rename a folder onto a link", sub, Op('d', "s", "l"), true, moved},
      {"rename a folder onto a link spelled l/", sub, Op('d', "s", "l/"), true, moved},
      // Nobody may remove that link, root included: nothing moves.
      {"rename a folder onto a link that stays", {"s/", "s/x=X"}, Op('d', "s", "/proc/self/cwd"), false,
       {"s/", "s/x=X"}},
      {"rename a file onto a link", {"s=M", "t=T", "l->t"}, Op('f', "s", "l"), true, {"l=M", "t=T"}},
      {"copy in chunks", {"s=" + big}, Op('c', "s", "n"), true, {"n=" + big, "s=" + big}},
      {"copy of nothing", {"s=", "d=old"}, Op('c', "s", "d"), true, {"d=", "s="}},
      {"copy of /dev/null", {}, Op('c', "/dev/null", "n"), true, {"n="}},
      {"copy of a file that cannot be opened", {"s=S"}, WithOpenHook("/s", "!", Op('c', "s", "d")),
       false, {"s=S"}},
      // A FIFO counts as a file but cannot be sized: no partial copy remains.
      {"copy of a FIFO", {"fifo?"}, Op('c', "fifo", "copy"), false, {"fifo?"}},
      {"failed copy removes the partial target", {"s=" + s5}, Op('c', "s", "d"), false, {"s=" + s5},
       2 * 4096 + 100},
      {"failed copy of more than a buffer", {"s=" + s5 + s5 + s5 + s5}, Op('c', "s", "d"), false,
       {"s=" + s5 + s5 + s5 + s5}, 2 * 4096 + 100},
      {"copy to a name too long", {"s=S", "d/"}, Op('c', "s", "d/" + longName), false, {"d/", "s=S"}}};
  // Calls that change nothing: missing or empty paths, the same path or
  // another spelling of it (which may succeed), a folder where a file is
  // wanted (or the other way round), a missing target folder, a link onto
  // what it leads to, a folder holding the other (or the link moved).
  const struct {
    char op;
    const char* from;
    const char* to;
    bool ok;
  } unchanged[] = {
      {'r', "missing", "", false}, {'r', "d", "", false}, {'r', "", "", false},
      {'f', "a", "a", false}, {'f', "a", "", false}, {'f', "", "a", false},
      {'f', "missing", "c", false}, {'f', "d", "e", false}, {'f', "a", "d", false},
      {'f', "a", "no/a", false}, {'d', "a", "e", false}, {'d', "d", "d", false},
      {'c', "a", "a", false}, {'c', "a", "d/../a", false}, {'c', "a", "d", false},
      {'c', "a", "no/x", false}, {'c', "missing", "x", false}, {'c', "d", "x", false},
      {'c', "", "x", false}, {'c', "a", "", false},
      {'f', "a.txt", "./a.txt", true}, {'f', "a.txt", "p/../a.txt", true}, {'f', "a.txt", "hard", true},
      {'d', "p", "p/", true}, {'d', "p/q", "./p/q", true}, {'f', "la", "a.txt", false},
      {'d', "lp", "p", false}, {'d', "lp", "lp/", true}, {'d', "p/q", "p", false},
      {'d', "p/q/", "p/", false}, {'d', "p/q", "lp/..", false}, {'d', "p", "p/q", false},
      {'d', "p/ld", "p", false}, {'d', "d", "a", false}};
  // clang-format on
  const std::vector<std::string> tree = {"a=A",   "d/", "a.txt=A", "hard=>a.txt", "la->a.txt",
                                         "lp->p", "p/", "p/q/",    "p/q/f=F",     "p/ld->../d"};
  std::vector<std::string> after = tree;
  after[3] = "hard=A";
  for (const auto& u : unchanged)
    cases.push_back({u.from, tree, Op(u.op, u.from, u.to), u.ok, after});
  zorv::test::RunFileCases(cases);
}

}  // namespace
