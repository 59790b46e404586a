// Every allocating public operation, run under each single allocation
// failure it can meet: nothing leaks, and what the caller can see is either
// untouched or the whole result. Some are swept beside their other tests
// instead: Deserialize of a string (SerializationTest, one allocation),
// CopyFolder (FoldersTest, also with every later allocation failing), the
// pools' addTask (ExecutorTest, a failed growth of the queue) and
// StringUtils::Format with the general formatter that DateTime::toString
// uses (StringUtilsTest, each of its work blocks).
#include "support/oomsweep.h"

#include <algorithm>
#include <climits>
#include <filesystem>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "foundation/config/configarchiver.h"
#include "foundation/crypto/md5.h"
#include "foundation/crypto/sha1.h"
#include "foundation/file/fileutils.h"
#include "foundation/lang/exception.h"
#include "foundation/memory/stringwriter.h"
#include "foundation/text/codecutils.h"
#include "foundation/text/stringutils.h"
#include "foundation/threading/thread.h"
#include "foundation/threading/timer/timerscheduler.h"
#include "support/boundedwait.h"
#include "support/taskprobe.h"
#include "support/tempdir.h"

namespace {

namespace zf = zorv::foundation;
using zf::SafeString;
using zf::collection::Vector;
using zf::config::Archiver;
using zf::file::FileUtils;
using zf::text::CodecUtils;
using zf::text::StringUtils;
using zorv::test::OomAttempt;
using zorv::test::TempDir;

// ---- Inputs and views of the visible state -------------------------------

// A text of `n` letters, none of them a separator or blank.
std::string Filler(size_t n, char first = 'a') {
  std::string text(n, ' ');
  for (size_t i = 0; i < n; ++i) text[i] = static_cast<char>(first + i % 26);
  return text;
}

// Enough pieces to make the operation allocate many times, fewer on slow
// targets (each allocation costs an attempt).
unsigned int Count(unsigned int n) { return zorv::test::SlowTarget() ? (n + 3) / 4 : n; }

std::string Str(const SafeString& s) { return std::string(s.data(), s.size()); }

std::vector<std::string> Strs(const Vector<SafeString>& v) {
  std::vector<std::string> out;
  for (const SafeString& s : v) out.push_back(Str(s));
  return out;
}

std::string Bytes(const Vector<unsigned char>& v) { return std::string(v.begin(), v.end()); }

// Every entry below `root`, by its path from there ("/sub/name"), with the
// size of each file (-1 for a folder): what a file-system operation left
// behind. A missing root is an empty tree.
std::map<std::string, long long> Tree(const std::string& root) {
  std::map<std::string, long long> tree;
  std::error_code missing;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root, missing)) {
    tree[entry.path().string().substr(root.size())] =
        entry.is_directory() ? -1 : static_cast<long long>(entry.file_size());
  }
  return tree;
}

// A source tree of `files` files spread over two levels of folders.
void MakeTree(const std::string& root, unsigned int files) {
  std::filesystem::create_directories(root + "/sub/deeper");
  const char* const folders[] = {"", "/sub", "/sub/deeper"};
  for (unsigned int i = 0; i < files; ++i) {
    const std::string path =
        root + folders[i % 3] + "/file-with-a-long-name-" + std::to_string(i) + ".txt";
    ASSERT_TRUE(zorv::test::WriteRawFile(path, Filler(100 + i)));
  }
}

// The archiver's table as "section.key" -> value.
std::map<std::string, std::string> Table(const Archiver& archiver) {
  std::map<std::string, std::string> table;
  for (const SafeString& section : archiver.allSections()) {
    table[Str(section) + "."];  // a section without keys still shows
    for (const SafeString& key : archiver.allKeys(section)) {
      table[Str(section) + "." + Str(key)] = Str(archiver.value(section, key));
    }
  }
  return table;
}

// A config text of `sections` sections with three keys each.
std::string ConfigText(unsigned int sections) {
  std::string text = "preamble = skipped\n";
  for (unsigned int s = 0; s < sections; ++s) {
    text += "[ section-with-a-long-name-" + std::to_string(s) + " ]\r\n";
    for (int k = 0; k < 3; ++k) {
      text += "key-with-a-long-name-" + std::to_string(k) + " = value " + Filler(20 + k) + "\n";
    }
  }
  return text;
}

// A thread that builds a long string, or reports the failure through
// interrupted().
class StringThread : public zf::threading::Thread {
 public:
  explicit StringThread(const SafeString& name) : Thread(name) {}
  ~StringThread() override { wait(); }
  void run() override { built = StringUtils::ToUpper(Filler(200).c_str()).size() == 200; }
  void interrupted() override { failed = true; }
  bool built = false;
  bool failed = false;
};

// ---- The table ---------------------------------------------------------------

// A scratch path as the library's string.
SafeString At(const TempDir& dir, const char* relative) {
  return SafeString((dir / relative).c_str());
}

// Runs `op`, which returns whether it succeeded: false also when it threw.
template <class Op>
bool Ok(OomAttempt& a, Op op) {
  bool ok = false;
  a.run([&] { ok = op(); });
  return ok;
}

// A file operation that completes, after which `whole` checks its result, or
// fails and leaves the scratch folder as it was (partial work removed).
template <class Op, class Whole>
void WholeOrUntouched(OomAttempt& a, const TempDir& dir, Op op, Whole whole) {
  const auto before = Tree(dir.path());
  if (Completed(a, Ok(a, op))) {
    whole();
  } else {
    EXPECT_EQ(Tree(dir.path()), before) << "partial work was left behind";
  }
}

// A parse into an empty archiver of what `text` holds: the table is part of
// the whole one, and all of it unless the parse threw.
template <class Parse>
void ParsesInto(OomAttempt& a, const std::string& text, Parse parse) {
  Archiver expected, archiver;
  ASSERT_TRUE(expected.parseText(text.c_str()));
  const bool ok = Ok(a, [&] { return parse(archiver); });
  const auto got = Table(archiver), whole = Table(expected);
  EXPECT_TRUE(std::includes(whole.begin(), whole.end(), got.begin(), got.end()));
  UNLESS_THREW(a, EXPECT_TRUE(ok && got == whole));
}

struct Row {
  const char* name;
  void (*attempt)(OomAttempt& a);
};

void PrintTo(const Row& row, std::ostream* os) { *os << row.name; }

const Row kRows[] = {
    // Core: the exception type copies its texts; what() is built from those
    // of the last assignment.
    {"Exception_copyAndWhat",
     [](OomAttempt& a) {
       const std::string func = "zorv.foundation.area.Class.operationWithALongName";
       a.wholeOrThrown(func + " : " + Filler(40), [&] {
         zf::lang::Exception assigned("zorv.foundation.a.B.c", "an earlier reason");
         assigned = zf::lang::Exception(func.c_str(), Filler(40).c_str());
         return Str(zf::lang::Exception(assigned).what());
       });
     }},
    // Text: results are built whole or not at all.
    {"StringUtils_Split",
     [](OomAttempt& a) {
       std::string text;
       for (unsigned int i = 0; i < Count(12); ++i) text += Filler(10 + i) + ",";
       Vector<SafeString> pieces(1, SafeString("kept piece of an earlier call")), expected = pieces;
       (void)StringUtils::Split(text.c_str(), ',', expected);
       const bool found = Ok(a, [&] { return StringUtils::Split(text.c_str(), ',', pieces); });
       const std::vector<std::string> whole = Strs(expected);
       ASSERT_LE(pieces.size(), whole.size());  // pieces appended before a failure stay
       EXPECT_EQ(Strs(pieces),
                 std::vector<std::string>(whole.begin(), whole.begin() + pieces.size()));
       UNLESS_THREW(a, EXPECT_TRUE(found && pieces.size() == whole.size()));
     }},
    {"StringUtils_TrimCaseAndNumbersToText",
     [](OomAttempt& a) {
       const SafeString text((" \t" + Filler(40) + "\t ").c_str());
       const std::string numbers =
           " -9223372036854775808 18446744073709551615 0xFFFFFFFFFFFFFFFF -0.1234567890123456";
       a.wholeOrThrown(Filler(40) + numbers, [&] {
         return Str(
             StringUtils::ToLower(StringUtils::ToUpper(StringUtils::Trim(text).c_str()).c_str()) +
             " " + StringUtils::LongToString(LLONG_MIN) + " " +
             StringUtils::ULongToString(ULLONG_MAX) + " " +
             StringUtils::ULongToHexString(ULLONG_MAX, true) + " " +
             StringUtils::FloatToString(-0.1234567890123456));
       });
     }},
    {"CodecUtils_Base64",
     [](OomAttempt& a) {
       const std::string bytes = Filler(Count(300));
       SafeString text;
       Vector<unsigned char> decoded(3, 7);
       bool ok = false;
       a.run([&] {
         text = CodecUtils::EncodeBase64(reinterpret_cast<const unsigned char*>(bytes.data()),
                                         static_cast<unsigned int>(bytes.size()));
         ok =
             CodecUtils::DecodeBase64(text.data(), static_cast<unsigned int>(text.size()), decoded);
       });
       UNLESS_THREW(a, EXPECT_TRUE(ok && Bytes(decoded) == bytes));
       if (a.threw() && !text.empty()) {  // the decoder failed: nothing or nothing old
         EXPECT_TRUE(decoded.empty() || Bytes(decoded) == "\7\7\7");
       }
     }},
    {"CodecUtils_Uri",
     [](OomAttempt& a) {
       const std::string text = "path with blanks/" + Filler(Count(200)) + "/\xC3\xA9~";
       a.wholeOrThrown(text, [&] {
         return Str(CodecUtils::DecodeUri(CodecUtils::EncodeUri(text.c_str()).c_str()));
       });
     }},
    // Streams: a failed write leaves the stream as it was.
    {"StringWriter_write",
     [](OomAttempt& a) {
       SafeString target("earlier text of the target string");
       zf::memory::StringWriter writer(target);
       const std::string bytes = Filler(Count(400));
       a.run([&] {
         for (size_t at = 0; at < bytes.size(); at += 50) {
           writer.write(reinterpret_cast<const unsigned char*>(bytes.data()) + at,
                        std::min<size_t>(50, bytes.size() - at));
         }
       });
       EXPECT_EQ(Str(target),
                 ("earlier text of the target string" + bytes).substr(0, 33 + writer.tellWrite()));
       UNLESS_THREW(a, EXPECT_EQ(writer.tellWrite(), bytes.size()));
     }},
    // Configuration.
    {"Archiver_parseText",
     [](OomAttempt& a) {
       const std::string text = ConfigText(Count(6));
       ParsesInto(a, text, [&](Archiver& archiver) { return archiver.parseText(text.c_str()); });
     }},
    {"Archiver_setValue",
     [](OomAttempt& a) {
       Archiver archiver;
       ASSERT_TRUE(archiver.setValue("existing-section-name", "existing-key-name", "old value"));
       auto expected = Table(archiver);
       const auto before = expected;
       const bool ok = Ok(a, [&] {
         return archiver.setValue("new-section-with-a-long-name", "new-key-with-a-long-name",
                                  Filler(60).c_str());
       });
       expected["new-section-with-a-long-name."];
       expected["new-section-with-a-long-name.new-key-with-a-long-name"] = Filler(60);
       EXPECT_EQ(Table(archiver), a.threw() ? before : expected);
       UNLESS_THREW(a, EXPECT_TRUE(ok));
     }},
    {"Archiver_saveAs",
     [](OomAttempt& a) {
       TempDir dir;
       Archiver archiver, reread;
       ASSERT_TRUE(archiver.parseText(ConfigText(Count(4)).c_str()));
       const auto table = Table(archiver);
       WholeOrUntouched(
           a, dir, [&] { return archiver.saveAs(At(dir, "conf/sub/app.ini")); },
           [&] {
             ASSERT_TRUE(reread.parseFile(At(dir, "conf/sub/app.ini")));
             EXPECT_EQ(Table(reread), table);
           });
       EXPECT_EQ(Table(archiver), table);
     }},
    {"Archiver_parseFile",
     [](OomAttempt& a) {
       TempDir dir;
       const std::string text = ConfigText(Count(6));
       ASSERT_TRUE(zorv::test::WriteRawFile(dir / "app.ini", "\xEF\xBB\xBF" + text));
       ParsesInto(a, text,
                  [&](Archiver& archiver) { return archiver.parseFile(At(dir, "app.ini")); });
     }},
    // Files: a failed call leaves the scratch folder as it was, except where
    // the operation says otherwise.
    {"FileUtils_PathUtilities",
     [](OomAttempt& a) {
       const SafeString path("\\root\\folder-with-a-long-name//sub-folder/file.name.ext");
       a.wholeOrThrown(std::string("/root/folder-with-a-long-name/sub-folder/file.name.ext"), [&] {
         return Str(FileUtils::LinkPath(FileUtils::GetFolderPath(path),
                                        FileUtils::GetNoExtFileName(path)) +
                    "." + FileUtils::GetFileExt(path));
       });
     }},
    {"FileUtils_ReadText",
     [](OomAttempt& a) {
       TempDir dir;
       std::vector<std::string> lines;
       std::string text;
       for (unsigned int i = 0; i < Count(12); ++i) {
         lines.push_back(Filler(20 + i));
         text += lines.back() + "\n";
       }
       ASSERT_TRUE(zorv::test::WriteRawFile(dir / "lines.txt", "\xEF\xBB\xBF" + text));
       const SafeString path = At(dir, "lines.txt");
       Vector<SafeString> read(1, SafeString("earlier line of the vector"));
       SafeString whole("earlier contents of the string");
       bool linesOk = false, wholeOk = false;
       a.run([&] {  // the lines first: a failure there leaves `whole` untouched
         linesOk = FileUtils::ReadText(path, read);
         wholeOk = FileUtils::ReadText(path, whole);
       });
       ASSERT_LE(read.size(), lines.size());  // cleared, then filled up to the failure
       EXPECT_EQ(Strs(read), std::vector<std::string>(lines.begin(), lines.begin() + read.size()));
       EXPECT_EQ(Str(whole), wholeOk ? text : "earlier contents of the string");
       if (Completed(a, linesOk && wholeOk)) {
         EXPECT_EQ(read.size(), lines.size());
       }
     }},
    {"FileUtils_ReadBinary",
     [](OomAttempt& a) {
       TempDir dir;
       const std::string bytes = Filler(Count(5000));
       ASSERT_TRUE(zorv::test::WriteRawFile(dir / "file.bin", bytes));
       const SafeString path = At(dir, "file.bin");
       SafeString target("earlier text of the target string");
       zf::memory::StringWriter writer(target);  // its room is accounted, unlike a MemoryBuffer's
       const bool ok = Ok(a, [&] { return FileUtils::ReadBinary(path, &writer); });
       EXPECT_EQ(Str(target), Completed(a, ok) ? bytes : "earlier text of the target string");
     }},
    {"FileUtils_CopyFile",
     [](OomAttempt& a) {
       TempDir dir;
       const std::string bytes = Filler(Count(9000));
       ASSERT_TRUE(zorv::test::WriteRawFile(dir / "from.bin", bytes));
       WholeOrUntouched(
           a, dir, [&] { return FileUtils::CopyFile(At(dir, "from.bin"), At(dir, "to.bin")); },
           [&] { EXPECT_EQ(zorv::test::ReadRawFile(dir / "to.bin"), bytes); });
     }},
    {"FileUtils_SearchFiles",
     [](OomAttempt& a) {
       TempDir dir;
       MakeTree(dir / "tree", Count(9));
       const Vector<SafeString> suffixes(1, SafeString(".TXT"));
       const auto search = [&] {
         return Strs(FileUtils::SearchFiles(At(dir, "tree"), 0x5, suffixes));
       };
       const std::vector<std::string> expected = search();
       ASSERT_EQ(expected.size(), Count(9));
       a.wholeOrThrown(expected, search);  // all or nothing
     }},
    // Digests.
    {"MD5_SHA1_ComputeFile",
     [](OomAttempt& a) {
       TempDir dir;
       const std::string bytes = Filler(Count(9000)), path = dir / "file.bin";
       ASSERT_TRUE(zorv::test::WriteRawFile(path, bytes));
       const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
       const auto size = static_cast<unsigned int>(bytes.size());
       const std::string md5 = Bytes(zf::crypto::MD5::ComputeBinary(data, size));
       const std::string sha1 = Str(zf::crypto::SHA1::EncodeBinary(data, size));
       Vector<unsigned char> digest(1, 9);
       SafeString text("earlier text");
       bool md5Ok = false, sha1Ok = false;
       a.run([&] {
         md5Ok = zf::crypto::MD5::ComputeFile(path.c_str(), digest);
         sha1Ok = zf::crypto::SHA1::EncodeFile(path.c_str(), text);
       });
       EXPECT_EQ(Bytes(digest), md5Ok ? md5 : "\t");
       EXPECT_EQ(Str(text), sha1Ok ? sha1 : "earlier text");
       Completed(a, md5Ok && sha1Ok);
     }},
    // Threading.
    {"TimerScheduler_repeatingTimerKeepsRunning",
     [](OomAttempt& a) {
       zorv::test::Tally tally;
       zf::threading::TimerScheduler scheduler;
       zorv::test::ProbeTimer* timer = zorv::test::NewTimer(&tally, 1, 1, 2);  // runs 3 times
       a.run([&] {
         scheduler.addTimer(timer);
         (void)zorv::test::PollUntil([&] { return tally.disposals.load() == 1; });
       });
       if (a.threw() && tally.disposals.load() == 0) {  // not accepted: still the caller's
         EXPECT_EQ(scheduler.timerNum(), 0u);
         timer->dispose();
         EXPECT_EQ(tally.runs.load(), 0);
       } else {
         EXPECT_EQ(tally.runs.load(), 3) << "a repeating timer must not be dropped";
         EXPECT_EQ(tally.interrupts.load(), 0);
       }
       scheduler.stop();
       EXPECT_EQ(tally.disposals.load(), 1);
     }},
    {"Thread_start",
     [](OomAttempt& a) {
       bool started = false, oneOutcome = false;
       a.run([&] {
         StringThread thread(SafeString("oom-sweep-thread-with-a-long-name"));
         thread.start();
         started = thread.isStarted();
         thread.wait();
         oneOutcome = thread.built != thread.failed;
       });
       EXPECT_TRUE(!started || oneOutcome) << "run() completed, or interrupted() was called";
       UNLESS_THREW(a, EXPECT_TRUE(started));
     }},
};

class OomSweep : public zorv::test::OomSweepTest, public ::testing::WithParamInterface<Row> {};

TEST_P(OomSweep, EveryAllocationFailureLeavesNothingBehind) { sweep(GetParam().attempt); }

INSTANTIATE_TEST_SUITE_P(PublicOperations, OomSweep, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row>& row) {
                           return std::string(row.param.name);
                         });

}  // namespace
