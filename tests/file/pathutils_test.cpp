// Tests of the pure path functions of FileUtils: tables of edge cases and
// property tests over random paths.
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/file/fileutils.h"
#include "support/leakcheck.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::file::FileUtils;

class PathUtilsTest : public zorv::test::LeakCheckedTest {};

struct OneArgCase {
  const char* input;
  const char* expected;
};

std::string S(const SafeString& s) { return std::string(s.data(), s.size()); }

void CheckTable(const char* what, SafeString (*function)(const SafeString&),
                const std::vector<OneArgCase>& cases) {
  for (const OneArgCase& c : cases) {
    SCOPED_TRACE(std::string(what) + "('" + c.input + "')");
    EXPECT_EQ(S(function(c.input)), c.expected);
  }
}

TEST_F(PathUtilsTest, GetFileName) {
  CheckTable("GetFileName", &FileUtils::GetFileName,
             {{"", ""},
              {"dir/file.txt", "file.txt"},
              {"dir/sub/", "sub"},
              {"/", "/"},
              {"///", "/"},
              {"C:\\data\\x.bin", "x.bin"},
              {"name", "name"},
              {"a\\b/c", "c"},
              {"./x/../y", "y"},
              {"..", ".."},
              {"//server\\share\\f", "f"}});
}

TEST_F(PathUtilsTest, GetFileExt) {
  CheckTable("GetFileExt", &FileUtils::GetFileExt,
             {{"", ""},
              {".profile", "profile"},
              {".bashrc", "bashrc"},
              {"archive.tar.gz", "gz"},
              {"name.", ""},
              {"name", ""},
              {"dir.d/file", ""},
              {"/a/b.TXT", "TXT"},
              {"a.b\\c.d", "d"},
              {"/", ""}});
}

TEST_F(PathUtilsTest, GetNoExtFileName) {
  CheckTable("GetNoExtFileName", &FileUtils::GetNoExtFileName,
             {{"", ""},
              {".profile", ""},
              {".bashrc", ""},
              {"archive.tar.gz", "archive.tar"},
              {"name.", "name"},
              {"name", "name"},
              {"dir.d/file", "file"},
              {"/x/y.z/", "y"},
              {"/", "/"}});
}

TEST_F(PathUtilsTest, GetFolderPath) {
  CheckTable("GetFolderPath", &FileUtils::GetFolderPath,
             {{"", ""},
              {"/a/b/c", "/a/b"},
              {"a\\b\\", "a"},
              {"/a", "/"},
              {"a", ""},
              {"/", ""},
              {"a\\b/c", "a/b"},
              {"//server\\share\\f", "/server/share"},
              {"/usr//lib/", "/usr"},
              {"./x/../y", "./x/.."}});
}

TEST_F(PathUtilsTest, GetNoExtPath) {
  CheckTable("GetNoExtPath", &FileUtils::GetNoExtPath,
             {{"", ""},
              {"/a/b.txt", "/a/b"},
              {"a\\b\\c.d.e", "a/b/c.d"},
              {"/a/.rc", "/a/"},
              {"/", "/"},
              {"name", "name"},
              {"x.y/z", "x.y/z"},
              {"//a//b.c//", "/a/b"}});
}

TEST_F(PathUtilsTest, LinkPath) {
  struct Case {
    const char* first;
    const char* second;
    const char* expected;
  };
  const Case cases[] = {
      {"/opt/app", "conf/x.ini", "/opt/app/conf/x.ini"},
      {"a/", "b", "a/b"},
      {"/a", "/b", "/a//b"},
      {"", "", ""},
      {"", "b", "b"},
      {"a", "", "a"},
      {"", "/b", "/b"},
      {"a\\b", "c\\\\d", "a/b/c/d"},
      {"/", "/", "//"},
      {"a/..", "../b", "a/../../b"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("LinkPath('") + c.first + "', '" + c.second + "')");
    EXPECT_EQ(S(FileUtils::LinkPath(c.first, c.second)), c.expected);
  }
}

TEST_F(PathUtilsTest, EmbeddedZeroEndsItsComponent) {
  SafeString path("dir/fi", 6);
  path.push_back('\0');
  path += "le.txt/next";
  EXPECT_EQ(S(FileUtils::GetFolderPath(path)), "dir/fi");
  EXPECT_EQ(S(FileUtils::GetFileName(path)), "next");
  SafeString tail("dir/na", 6);
  tail.push_back('\0');
  tail += "me.ext";
  EXPECT_EQ(S(FileUtils::GetFileName(tail)), "na");
  EXPECT_EQ(S(FileUtils::GetFileExt(tail)), "");
}

// ---- Property tests over random paths -------------------------------------

// A random path of '/', '\', '.', '..' and short names.
std::string RandomPath(std::mt19937& random) {
  static const char* const kPieces[] = {"/", "\\", ".", "..", "a", "bc", "d.e", ".f", "g.",
                                        "h.i.j", "//", "\\\\", "k"};
  std::uniform_int_distribution<int> count(0, 8);
  std::uniform_int_distribution<int> piece(0, static_cast<int>(sizeof(kPieces) / sizeof(kPieces[0])) - 1);
  std::string path;
  for (int n = count(random); n > 0; --n) path += kPieces[piece(random)];
  return path;
}

// What the splitter should produce, written independently: components
// between separators, with a root marker for a leading separator.
std::vector<std::string> ReferenceSplit(const std::string& path) {
  std::vector<std::string> parts;
  std::string current;
  for (size_t i = 0; i < path.size(); ++i) {
    char c = path[i];
    if (c == '/' || c == '\\') {
      if (!current.empty()) {
        parts.push_back(current);
        current.clear();
      } else if (parts.empty()) {
        parts.push_back("/");
      }
    } else {
      current += c;
    }
  }
  if (!current.empty()) parts.push_back(current);
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

TEST_F(PathUtilsTest, RandomPathsKeepTheSplitAndJoinInvariants) {
  std::mt19937 random(20261122);
  for (int round = 0; round < 3000; ++round) {
    const std::string path = RandomPath(random);
    SCOPED_TRACE("path '" + path + "'");
    const std::vector<std::string> parts = ReferenceSplit(path);
    const std::string normal = ReferenceJoin(parts);

    const std::string name = S(FileUtils::GetFileName(path.c_str()));
    const std::string folder = S(FileUtils::GetFolderPath(path.c_str()));
    const std::string ext = S(FileUtils::GetFileExt(path.c_str()));
    const std::string stem = S(FileUtils::GetNoExtFileName(path.c_str()));
    const std::string noExt = S(FileUtils::GetNoExtPath(path.c_str()));

    // The name is the last component; the folder is the rest, joined.
    EXPECT_EQ(name, parts.empty() ? "" : parts.back());
    std::vector<std::string> rest = parts;
    if (!rest.empty()) rest.pop_back();
    EXPECT_EQ(folder, ReferenceJoin(rest));

    // Output never holds a backslash, and only a leading root doubles up.
    EXPECT_EQ(folder.find('\\'), std::string::npos);
    EXPECT_EQ(noExt.find('\\'), std::string::npos);
    EXPECT_EQ(folder.find("//"), std::string::npos);

    // Normalisation is idempotent: linking a path to nothing normalises it,
    // and normalising again changes nothing.
    const std::string linked = S(FileUtils::LinkPath(path.c_str(), ""));
    EXPECT_EQ(linked, normal);
    EXPECT_EQ(S(FileUtils::LinkPath(linked.c_str(), "")), linked);

    // Folder and name put back together give the normalised path (except
    // where the folder is empty and the name is the whole path).
    if (!parts.empty()) {
      EXPECT_EQ(S(FileUtils::LinkPath(folder.c_str(), name.c_str())), normal);
    }

    // Stem and extension recompose the name.
    if (name.find('.') != std::string::npos) {
      EXPECT_EQ(stem + "." + ext, name);
    } else {
      EXPECT_EQ(stem, name);
      EXPECT_EQ(ext, "");
    }
    EXPECT_EQ(ext.find('.'), std::string::npos);

    // The extension-less path is the folder linked with the stem.
    if (!parts.empty()) {
      std::vector<std::string> withStem = rest;
      withStem.push_back(stem);
      EXPECT_EQ(noExt, ReferenceJoin(withStem));
    }

    // Linking two random paths concatenates their components.
    const std::string other = RandomPath(random);
    std::vector<std::string> both = parts;
    for (const std::string& part : ReferenceSplit(other)) both.push_back(part);
    EXPECT_EQ(S(FileUtils::LinkPath(path.c_str(), other.c_str())), ReferenceJoin(both))
        << "second '" << other << "'";
  }
}

}  // namespace
