// SHA256 against the NIST CAVP SHA-256 message files (short and long
// messages), on the portable block code and on the processor's SHA
// instructions. The Monte Carlo file's chain hashes only 96-byte messages,
// which the message files already cover, and is not run.
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
  }
  detail::_UseSha256Instructions(true);
}

}  // namespace
