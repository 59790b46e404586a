// MD5, SHA1 and SHA256: published test vectors, incremental use against
// one-shot use, files against the md5sum/sha1sum/sha256sum programs, and both
// SHA block transforms (the portable one and the one on SHA instructions).
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <cctype>
#include <random>
#include <string>
#include <vector>

#include "foundation/collection/vector.h"
#include "foundation/crypto/md5.h"
#include "foundation/crypto/sha1.h"
#include "foundation/crypto/sha256.h"
#include "foundation/debug/objectmonitor.h"
#include "foundation/text/safestring.h"
#include "support/leakcheck.h"
#include "support/tempdir.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::crypto::MD5;
using zorv::foundation::crypto::SHA1;
using zorv::foundation::crypto::SHA256;
namespace detail = zorv::foundation::crypto::detail;

struct Vec {
  std::string input;
  int repeat;  // the input is repeated this many times
  const char* digest;
};

// MD5: the test suite of RFC 1321, the classic pangram and one million 'a'.
const Vec kMd5Vectors[] = {
    {"", 1, "D41D8CD98F00B204E9800998ECF8427E"},
    {"a", 1, "0CC175B9C0F1B6A831C399E269772661"},
    {"abc", 1, "900150983CD24FB0D6963F7D28E17F72"},
    {"message digest", 1, "F96B697D7CB7938D525A2F31AAF161D0"},
    {"abcdefghijklmnopqrstuvwxyz", 1, "C3FCD3D76192E4007DFB496CCA67E13B"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", 1,
     "D174AB98D277D9F5A5611C2C9F419D9F"},
    {"1234567890", 8, "57EDF4A22BE3C955AC49DA2E2107B67A"},
    {"The quick brown fox jumps over the lazy dog", 1, "9E107D9D372BB6826BD81D3542A419D6"},
    {"a", 1000000, "7707D6AE4E027C70EEA2A935C2296F21"},
};

// SHA-1: the FIPS 180 examples (one block, two blocks, one million 'a'),
// the empty message and a four-block message.
const Vec kSha1Vectors[] = {
    {"", 1, "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709"},
    {"abc", 1, "A9993E364706816ABA3E25717850C26C9CD0D89D"},
    {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", 1,
     "84983E441C3BD26EBAAE4AA1F95129E5E54670F1"},
    {"abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnop"
     "qrsmnopqrstnopqrstu",
     1, "A49B2446A02C645BF419F995B67091253A04A259"},
    {"The quick brown fox jumps over the lazy dog", 1, "2FD4E1C67A2D28FCED849EE1BB76E7391B93EB12"},
    {"a", 1000000, "34AA973CD4C4DAA4F61EEB2BDBAD27316534016F"},
};

// SHA-256: the FIPS 180-4 examples (one block, two blocks, one million 'a'),
// the empty message and the 896-bit message of the SHA-2 examples.
const Vec kSha256Vectors[] = {
    {"", 1, "E3B0C44298FC1C149AFBF4C8996FB92427AE41E4649B934CA495991B7852B855"},
    {"abc", 1, "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD"},
    {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", 1,
     "248D6A61D20638B8E5C026930C3E6039A33CE45964FF2167F6ECEDD419DB06C1"},
    {"abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnop"
     "qrsmnopqrstnopqrstu",
     1, "CF5B16A778AF8380036CE59E7B0492370B249B11E8F07A51AFAC45037AFEE9D1"},
    {"a", 1000000, "CDC76E5C9914FB9281A1C7E284D73E67F1809A48A497200E046D39CCC7112CD0"},
};

const unsigned char* Bytes(const std::string& s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}

std::string Text(const SafeString& s) { return std::string(s.c_str(), s.size()); }

std::string Repeat(const Vec& v) {
  std::string all;
  all.reserve(v.input.size() * static_cast<size_t>(v.repeat));
  for (int i = 0; i < v.repeat; ++i) all += v.input;
  return all;
}

std::string RandomBytes(std::mt19937& random, size_t size) {
  std::string data(size, '\0');
  for (char& c : data) c = static_cast<char>(random() & 0xFF);
  return data;
}

// One digest class, and for SHA1 the block transform the test runs on.
struct Md5Kind {
  using Digest = MD5;
  static constexpr size_t kSize = 16;
  static constexpr const char* kTool = "md5sum";
  static void Prepare() {}
  static std::vector<Vec> Vectors() { return {std::begin(kMd5Vectors), std::end(kMd5Vectors)}; }
};

struct Sha1PortableKind {
  using Digest = SHA1;
  static constexpr size_t kSize = 20;
  static constexpr const char* kTool = "sha1sum";
  static void Prepare() { EXPECT_FALSE(detail::_UseSha1Instructions(false)); }
  static std::vector<Vec> Vectors() { return {std::begin(kSha1Vectors), std::end(kSha1Vectors)}; }
};

struct Sha1InstructionsKind : Sha1PortableKind {
  // Where the processor has no SHA instructions this runs the portable code
  // a second time; the cross-check test below says which path was taken.
  static void Prepare() { detail::_UseSha1Instructions(true); }
};

struct Sha256PortableKind {
  using Digest = SHA256;
  static constexpr size_t kSize = 32;
  static constexpr const char* kTool = "sha256sum";
  static void Prepare() { EXPECT_FALSE(detail::_UseSha256Instructions(false)); }
  static std::vector<Vec> Vectors() {
    return {std::begin(kSha256Vectors), std::end(kSha256Vectors)};
  }
};

struct Sha256InstructionsKind : Sha256PortableKind {
  static void Prepare() { detail::_UseSha256Instructions(true); }
};

template <class Kind>
class DigestTest : public zorv::test::LeakCheckedTest {
 protected:
  void SetUp() override {
    LeakCheckedTest::SetUp();
    Kind::Prepare();
  }
  void TearDown() override {
    detail::_UseSha1Instructions(true);
    detail::_UseSha256Instructions(true);
    LeakCheckedTest::TearDown();
  }

  static std::string Hex(const std::string& data) {
    return Text(Kind::Digest::EncodeBinary(Bytes(data), static_cast<unsigned int>(data.size())));
  }
};

using Kinds = ::testing::Types<Md5Kind, Sha1PortableKind, Sha1InstructionsKind,
                               Sha256PortableKind, Sha256InstructionsKind>;

class KindNames {
 public:
  template <class T>
  static std::string GetName(int) {
    if (std::is_same<T, Md5Kind>::value) return "MD5";
    if (std::is_same<T, Sha1PortableKind>::value) return "SHA1Portable";
    if (std::is_same<T, Sha1InstructionsKind>::value) return "SHA1Instructions";
    if (std::is_same<T, Sha256PortableKind>::value) return "SHA256Portable";
    return "SHA256Instructions";
  }
};

TYPED_TEST_SUITE(DigestTest, Kinds, KindNames);

TYPED_TEST(DigestTest, PublishedVectorsOneShotAndIncremental) {
  using Digest = typename TypeParam::Digest;
  for (const Vec& v : TypeParam::Vectors()) {
    SCOPED_TRACE(v.input.substr(0, 20) + " x" + std::to_string(v.repeat));
    const std::string all = Repeat(v);
    EXPECT_EQ(this->Hex(all), v.digest);
    const Vector<unsigned char> binary =
        Digest::ComputeBinary(Bytes(all), static_cast<unsigned int>(all.size()));
    ASSERT_EQ(binary.size(), TypeParam::kSize);
    EXPECT_EQ(Text(Digest::ToString(binary)), v.digest);
    // The same input fed one repetition at a time.
    Digest incremental;
    for (int i = 0; i < v.repeat; ++i) {
      incremental.addData(Bytes(v.input), static_cast<unsigned int>(v.input.size()));
    }
    EXPECT_EQ(Text(Digest::ToString(incremental.result())), v.digest);
  }
}

TYPED_TEST(DigestTest, NullDataOfSizeZeroIsTheEmptyDigest) {
  using Digest = typename TypeParam::Digest;
  const std::string empty = this->Hex("");
  EXPECT_EQ(Text(Digest::EncodeBinary(nullptr, 0)), empty);
  Digest digest;
  digest.addData(nullptr, 0);
  EXPECT_EQ(Text(Digest::ToString(digest.result())), empty);
}

TYPED_TEST(DigestTest, RandomSplitsGiveTheOneShotDigest) {
  using Digest = typename TypeParam::Digest;
  std::mt19937 random(20261122u);
  // Sizes around the block and padding boundaries, then random ones.
  std::vector<size_t> sizes = {0, 1, 55, 56, 57, 63, 64, 65, 119, 120, 127, 128, 129, 4096, 4097};
  for (int i = 0; i < 40; ++i) sizes.push_back(random() % 20000);
  for (size_t size : sizes) {
    SCOPED_TRACE("size " + std::to_string(size));
    const std::string data = RandomBytes(random, size);
    const Vector<unsigned char> expected =
        Digest::ComputeBinary(Bytes(data), static_cast<unsigned int>(size));
    for (int round = 0; round < 4; ++round) {
      Digest digest;
      size_t at = 0;
      while (at < size) {
        // Pieces of 0 to 150 bytes, now and then a long one.
        size_t piece = random() % 151;
        if (random() % 8 == 0) piece = random() % 3000;
        if (piece > size - at) piece = size - at;
        digest.addData(Bytes(data) + at, static_cast<unsigned int>(piece));
        at += piece;
      }
      EXPECT_EQ(digest.result(), expected);
    }
  }
}

TYPED_TEST(DigestTest, ResultTwiceWithMoreDataBetween) {
  using Digest = typename TypeParam::Digest;
  const std::string first = "The first part, 37 bytes of text ....";
  const std::string second(100, 'x');
  Digest digest;
  digest.addData(Bytes(first), static_cast<unsigned int>(first.size()));
  EXPECT_EQ(Text(Digest::ToString(digest.result())), this->Hex(first));
  EXPECT_EQ(Text(Digest::ToString(digest.result())), this->Hex(first))
      << "result() changes nothing";
  digest.addData(Bytes(second), static_cast<unsigned int>(second.size()));
  EXPECT_EQ(Text(Digest::ToString(digest.result())), this->Hex(first + second));
}

TYPED_TEST(DigestTest, ObjectsAreAccountedUnderTheirTypeName) {
  using Digest = typename TypeParam::Digest;
  const unsigned long long before = zorv::foundation::debug::ObjectMonitor::LiveObjects();
  {
    Digest a;
    Digest b;
    EXPECT_EQ(zorv::foundation::debug::ObjectMonitor::LiveObjects(), before + 2);
  }
  EXPECT_EQ(zorv::foundation::debug::ObjectMonitor::LiveObjects(), before);
}

// Runs `tool file` and returns its hexadecimal digest in upper case, or ""
// when the tool could not be run.
std::string ToolDigest(const char* tool, const std::string& path) {
  const std::string command = std::string(tool) + " '" + path + "' 2>/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return "";
  char line[512] = {0};
  const bool got = fgets(line, sizeof line, pipe) != nullptr;
  const int status = pclose(pipe);
  if (!got || status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return "";
  std::string hex;
  for (const char* p = line; isxdigit(static_cast<unsigned char>(*p)); ++p) {
    hex += static_cast<char>(toupper(static_cast<unsigned char>(*p)));
  }
  return hex;
}

TYPED_TEST(DigestTest, FilesMatchTheSystemTool) {
  using Digest = typename TypeParam::Digest;
  zorv::test::TempDir dir;
  std::mt19937 random(7u);
  bool toolRan = false;
  for (size_t size : {size_t{0}, size_t{1}, size_t{4095}, size_t{4096}, size_t{4097},
                      size_t{3 * 4096 + 100}, size_t{100000}, size_t{2 * 262144 + 1234}}) {
    SCOPED_TRACE("size " + std::to_string(size));
    const std::string path = dir / ("file" + std::to_string(size));
    const std::string data = RandomBytes(random, size);
    ASSERT_TRUE(zorv::test::WriteRawFile(path, data));
    SafeString text("unchanged");
    ASSERT_TRUE(Digest::EncodeFile(path.c_str(), text));
    EXPECT_EQ(Text(text), this->Hex(data)) << "file digest equals memory digest";
    Vector<unsigned char> digest{1, 2, 3};
    ASSERT_TRUE(Digest::ComputeFile(path.c_str(), digest));
    EXPECT_EQ(Text(Digest::ToString(digest)), Text(text)) << "contents replaced";
    const std::string fromTool = ToolDigest(TypeParam::kTool, path);
    if (fromTool.empty()) continue;
    toolRan = true;
    EXPECT_EQ(Text(text), fromTool);
  }
  if (!toolRan) GTEST_SKIP() << TypeParam::kTool << " is not available";
}

// A large file is read through a buffer taken from the heap; when none can be
// had, the small fallback buffer gives the same digest.
TYPED_TEST(DigestTest, FileDigestDoesNotDependOnTheReadBuffer) {
  using Digest = typename TypeParam::Digest;
  zorv::test::TempDir dir;
  std::mt19937 random(11u);
  const std::string path = dir / "large";
  const std::string data = RandomBytes(random, 3 * 262144 + 4097);
  ASSERT_TRUE(zorv::test::WriteRawFile(path, data));
  SafeString text;
  {
    zorv::test::FailAfterGuard fail(1);
    ASSERT_TRUE(Digest::EncodeFile(path.c_str(), text));
  }
  EXPECT_EQ(Text(text), this->Hex(data));
}

TYPED_TEST(DigestTest, MissingFileFailsAndLeavesTheOutputAlone) {
  using Digest = typename TypeParam::Digest;
  zorv::test::TempDir dir;
  const std::string missing = dir / "missing";
  Vector<unsigned char> digest{1, 2, 3};
  errno = 0;
  EXPECT_FALSE(Digest::ComputeFile(missing.c_str(), digest));
  EXPECT_EQ(errno, 0) << "errno does not leave the library";
  EXPECT_EQ(digest, (Vector<unsigned char>{1, 2, 3}));
  SafeString text("kept");
  EXPECT_FALSE(Digest::EncodeFile(missing.c_str(), text));
  EXPECT_EQ(Text(text), "kept");
  EXPECT_FALSE(Digest::ComputeFile(nullptr, digest));
  EXPECT_FALSE(Digest::EncodeFile(nullptr, text));
  EXPECT_EQ(Text(text), "kept");
}

// Files under /proc say they hold 0 bytes; a folder opens but holds none.
TYPED_TEST(DigestTest, PseudoFilesAreReadToTheirEndAndFoldersFail) {
  using Digest = typename TypeParam::Digest;
  const char* const path = "/proc/version";
  bool readable = false;
  const std::string expected = zorv::test::ReadRawFile(path, &readable);
  if (readable && !expected.empty()) {
    SafeString text;
    ASSERT_TRUE(Digest::EncodeFile(path, text));
    EXPECT_EQ(Text(text), this->Hex(expected));
  }
  zorv::test::TempDir dir;
  Vector<unsigned char> digest{1, 2, 3};
  errno = 0;
  EXPECT_FALSE(Digest::ComputeFile(dir.path().c_str(), digest));
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(digest, (Vector<unsigned char>{1, 2, 3}));
  SafeString text("kept");
  EXPECT_FALSE(Digest::EncodeFile(dir.path().c_str(), text));
  EXPECT_EQ(Text(text), "kept");
  // A device ends at the size a seek gives, not after endless bytes.
  ASSERT_TRUE(Digest::EncodeFile("/dev/zero", text));
  EXPECT_EQ(Text(text), this->Hex(""));
}

TYPED_TEST(DigestTest, EmptyFileGivesTheEmptyDigest) {
  using Digest = typename TypeParam::Digest;
  zorv::test::TempDir dir;
  const std::string path = dir / "empty";
  ASSERT_TRUE(zorv::test::WriteRawFile(path, ""));
  SafeString text;
  ASSERT_TRUE(Digest::EncodeFile(path.c_str(), text));
  EXPECT_EQ(Text(text), this->Hex(""));
  EXPECT_EQ(text.size(), 2 * TypeParam::kSize);
}

using DigestTextTest = zorv::test::LeakCheckedTest;

TEST_F(DigestTextTest, ToStringIsUpperCaseHexHighNibbleFirst) {
  struct Case {
    Vector<unsigned char> bytes;
    const char* text;
  };
  const Case cases[] = {
      {{}, ""},
      {{0x00}, "00"},
      {{0x0F}, "0F"},
      {{0xF0}, "F0"},
      {{0xAB, 0xCD, 0xEF}, "ABCDEF"},
      {{0x01, 0x23, 0x45, 0x67, 0x89}, "0123456789"},
      {{0xFF, 0x00, 0x7F}, "FF007F"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(Text(MD5::ToString(c.bytes)), c.text);
    EXPECT_EQ(Text(SHA1::ToString(c.bytes)), c.text);
    EXPECT_EQ(Text(SHA256::ToString(c.bytes)), c.text);
  }
}

TEST_F(DigestTextTest, Sha1TransformsAgreeOnRandomData) {
  const bool instructions = detail::_UseSha1Instructions(true);
  if (!instructions) {
    detail::_UseSha1Instructions(true);
    GTEST_SKIP() << "this processor has no SHA instructions; only the portable code runs";
  }
  std::mt19937 random(99u);
  for (int i = 0; i < 60; ++i) {
    const size_t size = i < 20 ? static_cast<size_t>(i) * 31 : random() % 9000;
    SCOPED_TRACE("size " + std::to_string(size));
    const std::string data = RandomBytes(random, size);
    detail::_UseSha1Instructions(true);
    const Vector<unsigned char> fast =
        SHA1::ComputeBinary(Bytes(data), static_cast<unsigned int>(size));
    detail::_UseSha1Instructions(false);
    const Vector<unsigned char> portable =
        SHA1::ComputeBinary(Bytes(data), static_cast<unsigned int>(size));
    EXPECT_EQ(fast, portable);
  }
  detail::_UseSha1Instructions(true);
}

TEST_F(DigestTextTest, Sha1SwitchingTransformsInsideOneObject) {
  std::mt19937 random(5u);
  const std::string data = RandomBytes(random, 5000);
  SHA1 digest;
  detail::_UseSha1Instructions(false);
  digest.addData(Bytes(data), 2000);
  detail::_UseSha1Instructions(true);
  digest.addData(Bytes(data) + 2000, 3000);
  EXPECT_EQ(digest.result(), SHA1::ComputeBinary(Bytes(data), 5000));
}

}  // namespace
