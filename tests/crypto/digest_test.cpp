// MD5, SHA1 and SHA256: published test vectors (for SHA256 the NIST CAVP
// short and long message files), incremental use against one-shot use and
// files against memory, the SHA digests on both block transforms (the
// portable one and the one on SHA instructions).
#include <errno.h>

#include <fstream>
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
  std::string digest;
};

const std::string kTwoBlocks = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
const std::string kFourBlocks =
    "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnop"
    "qrsmnopqrstnopqrstu";
const std::string kFox = "The quick brown fox jumps over the lazy dog";

// MD5: the test suite of RFC 1321, the pangram and one million 'a'. SHA-1
// and SHA-256: the FIPS 180 examples, the empty message and the pangram.
// clang-format off
const std::vector<Vec> kMd5Vectors = {
    {"", 1, "D41D8CD98F00B204E9800998ECF8427E"}, {"abc", 1, "900150983CD24FB0D6963F7D28E17F72"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", 1,
     "D174AB98D277D9F5A5611C2C9F419D9F"},
    {"1234567890", 8, "57EDF4A22BE3C955AC49DA2E2107B67A"},
    {kFox, 1, "9E107D9D372BB6826BD81D3542A419D6"},
    {"a", 1000000, "7707D6AE4E027C70EEA2A935C2296F21"}};
const std::vector<Vec> kSha1Vectors = {
    {"", 1, "DA39A3EE5E6B4B0D3255BFEF95601890AFD80709"},
    {"abc", 1, "A9993E364706816ABA3E25717850C26C9CD0D89D"},
    {kTwoBlocks, 1, "84983E441C3BD26EBAAE4AA1F95129E5E54670F1"},
    {kFourBlocks, 1, "A49B2446A02C645BF419F995B67091253A04A259"},
    {kFox, 1, "2FD4E1C67A2D28FCED849EE1BB76E7391B93EB12"},
    {"a", 1000000, "34AA973CD4C4DAA4F61EEB2BDBAD27316534016F"}};
// clang-format on

// SHA256: every record of the CAVP message files (lengths 0 to 64 bytes, and
// long ones), then one million 'a'.
std::vector<Vec> CavpVectors() {
  std::vector<Vec> vectors;
  for (const char* file : {"SHA256ShortMsg.rsp", "SHA256LongMsg.rsp"}) {
    std::ifstream in(std::string(ZORV_TEST_DATA_DIR) + "/" + file);
    size_t bits = 0;
    std::string eq, value;
    for (std::string name; in >> name;) {  // records of "Len = 8", "Msg = d3", "MD = 2896..."
      if (name != "Len" && name != "Msg" && name != "MD") continue;
      in >> eq >> value;
      if (name == "Len") bits = std::stoul(value);
      if (name == "Msg") vectors.push_back({"", 1, ""});
      for (size_t i = 0; name == "Msg" && i < bits / 4; i += 2) {
        vectors.back().input += static_cast<char>(std::stoi(value.substr(i, 2), nullptr, 16));
      }
      for (char& c : value) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
      if (name == "MD") vectors.back().digest = value;
    }
  }
  vectors.push_back(
      {"a", 1000000, "CDC76E5C9914FB9281A1C7E284D73E67F1809A48A497200E046D39CCC7112CD0"});
  return vectors;
}
const std::vector<Vec> kSha256Vectors = CavpVectors();

// No bytes as a null pointer, which must read as the empty message.
const unsigned char* Bytes(const std::string& s) {
  return s.empty() ? nullptr : reinterpret_cast<const unsigned char*>(s.data());
}

std::string Text(const SafeString& s) { return std::string(s.c_str(), s.size()); }

std::string RandomBytes(std::mt19937& random, size_t size) {
  std::string data(size, '\0');
  for (char& c : data) c = static_cast<char>(random() & 0xFF);
  return data;
}

// One digest class, and for the SHA digests the block transform to run on:
// portable, or the SHA instructions where the processor has them.
template <class D, int kBytes, const std::vector<Vec>& kVectors, bool (*kUse)(bool), bool kFast>
struct Kind {
  using Digest = D;
  static constexpr size_t kSize = kBytes;
  static const std::vector<Vec>& Vectors() { return kVectors; }
  static void Prepare() {
    const bool instructions = kUse(kFast);
    EXPECT_TRUE(kFast || !instructions) << "the portable code is forced";
  }
};

bool NoTransforms(bool) { return false; }
using Md5Kind = Kind<MD5, 16, kMd5Vectors, NoTransforms, true>;
using Sha1Portable = Kind<SHA1, 20, kSha1Vectors, detail::_UseSha1Instructions, false>;
using Sha1Fast = Kind<SHA1, 20, kSha1Vectors, detail::_UseSha1Instructions, true>;
using Sha256Portable = Kind<SHA256, 32, kSha256Vectors, detail::_UseSha256Instructions, false>;
using Sha256Fast = Kind<SHA256, 32, kSha256Vectors, detail::_UseSha256Instructions, true>;

template <class K>
class DigestTest : public zorv::test::LeakCheckedTest {
 protected:
  using D = typename K::Digest;
  void SetUp() override {
    LeakCheckedTest::SetUp();
    K::Prepare();
  }
  void TearDown() override {
    detail::_UseSha1Instructions(true);
    detail::_UseSha256Instructions(true);
    LeakCheckedTest::TearDown();
  }
  static std::string Hex(const std::string& data) {
    return Text(D::EncodeBinary(Bytes(data), static_cast<unsigned int>(data.size())));
  }
  static std::string Result(const D& digest) { return Text(D::ToString(digest.result())); }
};

using Kinds = ::testing::Types<Md5Kind, Sha1Portable, Sha1Fast, Sha256Portable, Sha256Fast>;
struct KindNames {
  template <class T>
  static std::string GetName(int i) {
    const char* const names[] = {"MD5", "SHA1Portable", "SHA1Instructions", "SHA256Portable",
                                 "SHA256Instructions"};
    return names[i];
  }
};
TYPED_TEST_SUITE(DigestTest, Kinds, KindNames);

TYPED_TEST(DigestTest, PublishedVectorsOneShotAndIncremental) {
  using Digest = typename TypeParam::Digest;
  if (TypeParam::kSize == 32) {
    EXPECT_EQ(TypeParam::Vectors().size(), 65u + 64u + 1u) << "every CAVP record was read";
  }
  for (const Vec& v : TypeParam::Vectors()) {
    SCOPED_TRACE(v.input.substr(0, 20) + " x" + std::to_string(v.repeat));
    std::string all;
    for (int i = 0; i < v.repeat; ++i) all += v.input;
    EXPECT_EQ(this->Hex(all), v.digest);
    const Vector<unsigned char> binary =
        Digest::ComputeBinary(Bytes(all), static_cast<unsigned int>(all.size()));
    EXPECT_EQ(Text(Digest::ToString(binary)), v.digest);
    Digest incremental;  // one repetition at a time
    for (int i = 0; i < v.repeat; ++i) {
      incremental.addData(Bytes(v.input), static_cast<unsigned int>(v.input.size()));
    }
    EXPECT_EQ(this->Result(incremental), v.digest);
  }
  // ToString takes any length.
  EXPECT_EQ(Text(Digest::ToString({0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0x0F})),
            "0123456789ABCDEF0F");
  EXPECT_EQ(Text(Digest::ToString({})), "");
  // Accounted under the type's name while alive (the fixture sees it go).
  const unsigned long long before = zorv::foundation::debug::ObjectMonitor::LiveObjects();
  const Digest counted;
  EXPECT_EQ(zorv::foundation::debug::ObjectMonitor::LiveObjects(), before + 1);
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
    for (int round = 0; round < 4; ++round) {
      Digest digest;
      size_t at = 0;
      bool looked = round != 0;
      while (at < size) {
        // Pieces of 0 to 150 bytes, now and then a long one.
        size_t piece = random() % 8 == 0 ? random() % 3000 : random() % 151;
        if (piece > size - at) piece = size - at;
        digest.addData(Bytes(data) + at, static_cast<unsigned int>(piece));
        at += piece;
        // result() half-way gives the digest so far and changes nothing.
        if (!looked && 2 * at >= size && at < size) {
          EXPECT_EQ(this->Result(digest), this->Hex(data.substr(0, at)));
          looked = true;
        }
      }
      EXPECT_EQ(this->Result(digest), this->Hex(data));
    }
  }
}

TYPED_TEST(DigestTest, FilesMatchMemory) {
  using Digest = typename TypeParam::Digest;
  zorv::test::TempDir dir;
  std::mt19937 random(7u);
  // The last size is read once more without a heap buffer: the small
  // fallback buffer gives the same digest.
  for (size_t size : {size_t{0}, size_t{1}, size_t{4095}, size_t{4096}, size_t{4097},
                      size_t{3 * 4096 + 100}, size_t{100000}, size_t{3 * 262144 + 4097}}) {
    SCOPED_TRACE("size " + std::to_string(size));
    const std::string path = dir / ("file" + std::to_string(size));
    const std::string data = RandomBytes(random, size);
    ASSERT_TRUE(zorv::test::WriteRawFile(path, data));
    SafeString text("unchanged");
    ASSERT_TRUE(Digest::EncodeFile(path.c_str(), text));
    EXPECT_EQ(Text(text), this->Hex(data));
    Vector<unsigned char> digest{1, 2, 3};
    ASSERT_TRUE(Digest::ComputeFile(path.c_str(), digest));
    EXPECT_EQ(Text(Digest::ToString(digest)), Text(text)) << "contents replaced";
    if (size > 262144) {
      zorv::test::FailAfterGuard fail(1);
      ASSERT_TRUE(Digest::EncodeFile(path.c_str(), text));
      EXPECT_EQ(Text(text), this->Hex(data));
    }
  }
  // Files under /proc say they hold 0 bytes but are read to their end; a
  // device ends at the size a seek gives, not after endless bytes.
  const std::string version = zorv::test::ReadRawFile("/proc/version");
  SafeString text;
  ASSERT_TRUE(Digest::EncodeFile("/proc/version", text));
  EXPECT_EQ(Text(text), this->Hex(version));
  ASSERT_TRUE(Digest::EncodeFile("/dev/zero", text));
  EXPECT_EQ(Text(text), this->Hex(""));
  // A missing file, a folder and no path fail, leave the output alone and
  // leave errno as it was.
  const std::string missing = dir / "missing";
  for (const char* path :
       {missing.c_str(), dir.path().c_str(), static_cast<const char*>(nullptr)}) {
    SCOPED_TRACE(path != nullptr ? path : "null");
    Vector<unsigned char> digest{1, 2, 3};
    SafeString kept("kept");
    errno = 0;
    EXPECT_FALSE(Digest::ComputeFile(path, digest));
    EXPECT_FALSE(Digest::EncodeFile(path, kept));
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(digest, (Vector<unsigned char>{1, 2, 3}));
    EXPECT_EQ(Text(kept), "kept");
  }
}

}  // namespace
