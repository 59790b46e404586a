// SHA256 against the NIST CAVP SHA-256 files (short messages, long messages
// and the Monte Carlo chain), on the portable block code and on the
// processor's SHA instructions.
#include "foundation/crypto/sha256.h"

#include <fstream>
#include <string>
#include <vector>

#include "support/leakcheck.h"

namespace {

using zorv::foundation::crypto::SHA256;
namespace detail = zorv::foundation::crypto::detail;

std::string Unhex(const std::string& hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

std::string Upper(std::string s) {
  for (char& c : s) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return s;
}

// The "name = value" lines of a CAVP response file, in order.
std::vector<std::pair<std::string, std::string>> Fields(const std::string& file) {
  std::ifstream in(std::string(ZORV_TEST_DATA_DIR) + "/" + file);
  std::vector<std::pair<std::string, std::string>> fields;
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const size_t eq = line.find(" = ");
    if (line.empty() || line[0] == '#' || line[0] == '[' || eq == std::string::npos) continue;
    fields.emplace_back(line.substr(0, eq), line.substr(eq + 3));
  }
  return fields;
}

std::string Digest(const std::string& data) {
  return SHA256::EncodeBinary(reinterpret_cast<const unsigned char*>(data.data()),
                              static_cast<unsigned int>(data.size()))
      .str();
}

using Sha256Test = zorv::test::LeakCheckedTest;

TEST_F(Sha256Test, CavpFilesOnBothTransforms) {
  for (const bool instructions : {false, true}) {
    SCOPED_TRACE(instructions ? "SHA instructions" : "portable");
    const bool used = detail::_UseSha256Instructions(instructions);
    ASSERT_TRUE(instructions || !used) << "the portable code is forced";
    size_t count = 0;
    for (const char* file : {"SHA256ShortMsg.rsp", "SHA256LongMsg.rsp"}) {
      size_t length = 0;
      std::string message;
      for (const auto& field : Fields(file)) {
        if (field.first == "Len") length = std::stoul(field.second);
        if (field.first == "Msg") message = Unhex(field.second).substr(0, length / 8);
        if (field.first != "MD") continue;
        SCOPED_TRACE(std::string(file) + ", " + std::to_string(message.size()) + " bytes");
        EXPECT_EQ(Digest(message), Upper(field.second));
        ++count;
      }
    }
    EXPECT_EQ(count, 65u + 64u) << "every record of both files was read";
    // Each checkpoint digest comes from 1000 chained digests of the three
    // before; the first 20 of the file's 100 checkpoints are checked.
    std::string seed;
    std::vector<std::string> checkpoints;
    for (const auto& field : Fields("SHA256Monte.rsp")) {
      if (field.first == "Seed") seed = Unhex(field.second);
      if (field.first == "MD") checkpoints.push_back(Upper(field.second));
    }
    ASSERT_EQ(checkpoints.size(), 100u);
    for (size_t j = 0; j < 20; ++j) {
      std::string md[3] = {seed, seed, seed};
      for (int i = 0; i < 1000; ++i) {
        std::string next = Unhex(Digest(md[0] + md[1] + md[2]));
        md[0] = std::move(md[1]);
        md[1] = std::move(md[2]);
        md[2] = std::move(next);
      }
      seed = md[2];
      ASSERT_EQ(Upper(SHA256::ToString({seed.begin(), seed.end()}).str()), checkpoints[j])
          << "checkpoint " << j;
    }
  }
  detail::_UseSha256Instructions(true);
}

}  // namespace
