// Tests of the pure path functions of FileUtils: one table of edge cases and
// a property test over random paths against a reference splitter.

#include <random>

#include "file/filetestutil.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::file::FileUtils;

using PathUtilsTest = zorv::test::LeakCheckedTest;

std::string S(const SafeString& s) { return std::string(s.data(), s.size()); }
SafeString Safe(const std::string& s) { return SafeString(s.data(), s.size()); }

// Every function over one path, or LinkPath(path, second) when `second` is
// set.
std::string Apply(char function, const std::string& path, const char* second) {
  using Function = SafeString (*)(const SafeString&);
  static const Function kFunctions[] = {&FileUtils::GetFileName, &FileUtils::GetFileExt,
                                        &FileUtils::GetNoExtFileName, &FileUtils::GetFolderPath,
                                        &FileUtils::GetNoExtPath};
  if (function == 'l') return S(FileUtils::LinkPath(Safe(path), second));
  return S(kFunctions[std::string("nesfx").find(function)](Safe(path)));
}

TEST_F(PathUtilsTest, Table) {
  const std::string zeroInName = std::string("dir/fi\0le.txt/next", 18);
  const std::string zeroInLast = std::string("dir/na\0me.ext", 13);
  struct Case {
    char function;  // n name, e ext, s stem, f folder, x no-ext path, l LinkPath
    std::string path;
    const char* expected;
    const char* second = nullptr;
  };
  // Separators only, too many for the string's inline room: nothing before
  // the text is looked at.
  const std::string separators = std::string(10, '\\') + std::string(10, '/');
  // The random paths below reach every other case; these rows show each
  // function once and hold the zero bytes and the long runs of separators
  // that the random paths never have.
  // clang-format off
  const std::vector<Case> cases = {
      {'n', "dir/sub/", "sub"}, {'n', "//server\\share\\f", "f"}, {'n', zeroInName, "next"},
      {'n', zeroInLast, "na"}, {'e', "archive.tar.gz", "gz"}, {'e', zeroInLast, ""},
      {'s', ".profile", ""}, {'f', "/usr//lib/", "/usr"}, {'f', zeroInName, "dir/fi"},
      {'x', "a\\b\\c.d.e", "a/b/c.d"}, {'x', zeroInLast, "dir/na"}, {'l', "a\\b", "a/b/c/d", "c\\\\d"}, {'l', "/", "//", "/"},
      {'n', separators, "/"}, {'f', separators, ""}, {'x', separators, "/"}};
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(1, c.function) + "('" + c.path + "'" +
                 (c.second != nullptr ? std::string(", '") + c.second + "'" : "") + ")");
    EXPECT_EQ(Apply(c.function, c.path, c.second), c.expected);
  }
}

// A random path of up to 16 pieces of '/', '\', '.', '..' and short names: long
// enough for separators to meet across the 16- and 8-byte blocks of the scans.
std::string RandomPath(std::mt19937& random) {
  static const char* const kPieces[] = {"/",  "\\", ".",     "..", "a",    "bc", "d.e",
                                        ".f", "g.", "h.i.j", "//", "\\\\", "k"};
  std::uniform_int_distribution<int> count(0, 16);
  std::uniform_int_distribution<int> piece(0, 12);
  std::string path;
  for (int n = count(random); n > 0; --n) path += kPieces[piece(random)];
  return path;
}

// The components, written independently: the text between separators, and
// a root "/" for a leading separator.
std::vector<std::string> ReferenceSplit(const std::string& path) {
  std::vector<std::string> parts;
  if (!path.empty() && (path[0] == '/' || path[0] == '\\')) parts.push_back("/");
  std::string current;
  for (char c : path + "/") {
    const bool separator = c == '/' || c == '\\';
    if (!separator) current += c;
    if (separator && !current.empty()) parts.push_back(std::exchange(current, ""));
  }
  return parts;
}

std::string ReferenceJoin(const std::vector<std::string>& parts) {
  std::string result;
  for (size_t i = 0; i < parts.size(); ++i) {
    result += parts[i];
    if (i + 1 < parts.size() && !result.empty() && result.back() != '/') result += '/';
  }
  return result;
}

TEST_F(PathUtilsTest, RandomPathsMatchTheReferenceSplitAndJoin) {
  std::mt19937 random(20261122);
  for (int round = 0; round < 3000; ++round) {
    const std::string path = RandomPath(random);
    const std::string other = RandomPath(random);
    SCOPED_TRACE("paths '" + path + "', '" + other + "'");
    const std::vector<std::string> parts = ReferenceSplit(path);
    std::vector<std::string> rest = parts;
    if (!rest.empty()) rest.pop_back();
    const std::string name = Apply('n', path, nullptr);
    const std::string ext = Apply('e', path, nullptr);
    const std::string stem = Apply('s', path, nullptr);
    EXPECT_EQ(name, parts.empty() ? "" : parts.back());
    EXPECT_EQ(Apply('f', path, nullptr), ReferenceJoin(rest));
    EXPECT_EQ(Apply('l', path, ""), ReferenceJoin(parts));
    EXPECT_EQ(name.find('.') == std::string::npos ? stem : stem + "." + ext, name);
    EXPECT_EQ(ext.find('.'), std::string::npos);
    EXPECT_TRUE(name.find('.') != std::string::npos || ext.empty());
    if (!parts.empty()) {
      rest.push_back(stem);
      EXPECT_EQ(Apply('x', path, nullptr), ReferenceJoin(rest));
    }
    std::vector<std::string> both = parts;
    for (const std::string& part : ReferenceSplit(other)) both.push_back(part);
    EXPECT_EQ(Apply('l', path, other.c_str()), ReferenceJoin(both));
  }
}

}  // namespace
