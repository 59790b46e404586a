// Tests of config::Archiver: the text format, both parse entry points and
// their readers, the errors, access, editing and saveAs.
#include "foundation/config/configarchiver.h"

#include <map>
#include <random>
#include <tuple>

#include "file/filetestutil.h"
#include "foundation/config/datareader.h"
#include "foundation/lang/exception.h"
#include "support/forked.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::config::Archiver;
using zorv::foundation::config::detail::FileReader;
using zorv::foundation::config::detail::IDataReader;
using zorv::test::WriteRawFile;

using Table = std::map<std::string, std::map<std::string, std::string>>;

constexpr char kArchiver[] = "zorv.foundation.config.Archiver";
constexpr char kReader[] = "zorv.foundation.config.Reader";

std::string S(const SafeString& s) { return std::string(s.data(), s.size()); }
SafeString Safe(const std::string& s) { return SafeString(s.data(), s.size()); }

// The whole table, sorted, for comparison.
Table Dump(const Archiver& archiver) {
  Table table;
  for (const SafeString& section : archiver.allSections()) {
    std::map<std::string, std::string>& keys = table[S(section)];
    for (const SafeString& key : archiver.allKeys(section)) {
      keys[S(key)] = S(archiver.value(section, key));
    }
  }
  return table;
}

// A leak-checked test with a scratch folder; P(relative) is a path in it.
using ArchiverTest = zorv::test::FileTest;

// Each text is parsed by parseText and, written to a file, by parseFile,
// into an archiver that held an earlier table: that goes in any case. A
// repeated name throws and keeps what was read before it.
TEST_F(ArchiverTest, ParsesTextAndFiles) {
  const Table sk = {{"s", {{"k", "v"}}}};
  struct Case {
    std::string text;
    Table expected;
    bool fileDiffers = false;  // a byte-order mark or NUL reads differently in a file
    Table fileExpected = {};
    const char* repeated = nullptr;  // the error's reason
  };
  // clang-format off
  std::vector<Case> cases = {
      {"preamble = lost\nstray words\n[first]\nplain=value\n  spaced\t=\t  padded value \t\n"
       "bare word line\n; semi = colon\n# hash = mark\neq = a=b=c\nbrackets = [x] ]y[\n"
       "= nameless\nempty =\na==b\n[a=b]\n [ignored]\n[ignored] \n\"quoted\" = \"kept\"\n\n"
       "[ second ]\nKey = upper\nkey = lower\n[]\n[empty section]\n",
       {{"first",
         {{"plain", "value"}, {"spaced", "padded value"}, {"; semi", "colon"}, {"# hash", "mark"},
          {"eq", "a=b=c"}, {"brackets", "[x] ]y["}, {"", "nameless"}, {"empty", ""}, {"a", "=b"},
          {"[a", "b]"}, {"\"quoted\"", "\"kept\""}}},
        {"second", {{"Key", "upper"}, {"key", "lower"}}}, {"", {}}, {"empty section", {}}}},
      {"", {}}, {"k = v\nother = w\n", {}}, {"[a=b]\nk=v", {{"a=b", {{"k", "v"}}}}},
      {"[]", {{"", {}}}}, {"[ ]\nk=v", {{"", {{"k", "v"}}}}}, {"[", {}}, {"]", {}},
      {"[\t s \t]\r\nk = v\r\n", sk}, {"[s]\n[", {{"s", {}}}},
      {"[s]\nk = v\r\n\r\n[t]\rx = y\r\ry = z", {{"s", {{"k", "v"}}}, {"t", {{"x", "y"}, {"y", "z"}}}}},
      // The mark is a part of the first line of a text, skipped in a file.
      {"\xEF\xBB\xBF[s]\nk=v", {}, true, sk},
      {"\xEF\xBB\xBF[s]\n[t]\nk=v", {{"t", {{"k", "v"}}}}, true, {{"s", {}}, {"t", {{"k", "v"}}}}},
      {"\xFF\xFE[s]\nk=v", {}, true, sk}, {"\xFE\xFF[s]\nk=v", {}, true, sk},
      {"\xEF\xBB\xBF", {}}, {"\xEF\xBB[s]\n[t]", {{"t", {}}}},
      // A NUL ends a text, and a line of a file.
      {std::string("[s]\0k=v\0\0j=w", 12), {{"s", {}}}, true, {{"s", {{"k", "v"}, {"j", "w"}}}}},
      {std::string("[s]\nk=v\0tail=t\n", 16), sk, true, {{"s", {{"k", "v"}, {"tail", "t"}}}}},
      {"[a]\nk = 1\n[b]\nj = 2\n[ a ]\nlost = 3\n", {{"a", {{"k", "1"}}}, {"b", {{"j", "2"}}}}, false,
       {}, "config error, repeated section [a]"},
      {"[s]\nk = 1\nj = 2\n k  = 3\nafter = 4\n", {{"s", {{"k", "1"}, {"j", "2"}}}}, false, {},
       "config error, repeated key [s.k]"},
      {"[ s p ]\n=a\n = b\n", {{"s p", {{"", "a"}}}}, false, {}, "config error, repeated key [s p.]"}};
  // clang-format on
  // Far more lines than one read of a file holds, across the reads' edges; a
  // value longer than a read, then a last line without an end: the bytes
  // behind the last read are the value's, never taken for the line's.
  Case big = {"[big]\n", {{"big", {{"long", std::string(100000, 'x')}, {"last", "end"}}}}};
  for (int i = 0; i < 20000; ++i) {
    const std::string n = std::to_string(i), value = "value " + std::string(i % 7, 'v') + n;
    big.text += "key" + n + " = " + value + "\r\n";
    big.expected["big"]["key" + n] = value;
  }
  big.text += "long = " + std::string(100000, 'x') + "\nlast = end";
  cases.push_back(big);
  for (const Case& c : cases) {
    SCOPED_TRACE("text '" + c.text.substr(0, 80) + "'");
    ASSERT_TRUE(WriteRawFile(dir_ / "f.ini", c.text));
    Archiver fromText, fromFile;
    ASSERT_TRUE(fromText.parseText("[old]\nk=v\n") && fromFile.parseText("[old]\nk=v\n"));
    if (c.repeated == nullptr) {
      EXPECT_TRUE(fromText.parseText(c.text.c_str()));
      EXPECT_TRUE(fromFile.parseFile(P("f.ini")));
    } else {
      EXPECT_ZORV_THROW(fromText.parseText(c.text.c_str()), kArchiver, c.repeated);
      EXPECT_ZORV_THROW(fromFile.parseFile(P("f.ini")), kArchiver, c.repeated);
    }
    EXPECT_EQ(Dump(fromText), c.expected);
    EXPECT_EQ(Dump(fromFile), c.fileDiffers ? c.fileExpected : c.expected);
  }
  // Files that cannot be read, a folder and a missing file, leave no table.
  for (const std::string& path : {dir_.path(), dir_ / "missing.ini"}) {
    Archiver archiver;
    ASSERT_TRUE(archiver.parseText("[old]\nk=v\n"));
    EXPECT_ZORV_THROW(archiver.parseFile(Safe(path)), kReader,
                      ("open config file [" + path + "] failed").c_str());
    EXPECT_EQ(Dump(archiver), Table{});
  }
}

// A daemon with its standard input closed opens the file as descriptor 0,
// which is read like any other.
TEST_F(ArchiverTest, ParseFileOnDescriptorZero) {
  ASSERT_TRUE(WriteRawFile(dir_ / "zero.ini", "[s]\nk = v\n"));
  const SafeString path = P("zero.ini");
  const pid_t child = zorv::test::Fork([&](int) {
    ::close(0);
    Archiver archiver;
    return archiver.parseFile(path) && Dump(archiver) == Table{{"s", {{"k", "v"}}}} ? 0 : 1;
  });
  ASSERT_NE(child, -1);
  EXPECT_EQ(zorv::test::WaitChild(child), 0);
}

TEST_F(ArchiverTest, ReadersSplitLines) {
  // clang-format off
  const std::tuple<bool, std::string, std::vector<std::string>> cases[] = {
      {false, "a\r\nb\n\nc", {"a", "", "b", "", "c"}}, {false, "", {}}, {false, "\n", {""}},
      {true, std::string("\xEF\xBB\xBF" "a\r\nb\0c\n\nd", 13), {"a", "", "b", "c", "", "d"}},
      // A file of only a mark has no line, whatever its length.
      {true, "\xEF\xBB\xBF", {}}, {true, "\xFF\xFE", {}}, {true, "\xEF\xBB", {"\xEF\xBB"}},
      {true, "", {}},
      // Only the whole marks count.
      {true, "\xEF" "ab", {"\xEF" "ab"}}, {true, "a\xBB\xBF", {"a\xBB\xBF"}},
      {true, "\xFE" "a", {"\xFE" "a"}}, {true, "a\xFF", {"a\xFF"}}, {true, "\xFF" "a", {"\xFF" "a"}},
      {true, "a\xFE", {"a\xFE"}}};
  // clang-format on
  for (const auto& [file, content, expected] : cases) {
    SCOPED_TRACE(std::string(file ? "file '" : "text '") + content + "'");
    ASSERT_TRUE(WriteRawFile(dir_ / "r", content));
    FileReader fileReader(P("r"));
    zorv::foundation::config::detail::TextReader textReader(content.c_str());
    IDataReader& reader = file ? static_cast<IDataReader&>(fileReader) : textReader;
    reader.open();
    std::vector<std::string> lines;
    SafeString line("stale");
    while (reader.readLine(line)) lines.push_back(S(line));
    reader.close();
    reader.close();
    EXPECT_EQ(lines, expected);
  }
  FileReader missing(P("nothing"));
  EXPECT_THROW(missing.open(), zorv::foundation::lang::Exception);
  SafeString line;
  EXPECT_FALSE(missing.readLine(line));
}

TEST_F(ArchiverTest, AccessAndEditing) {
  Archiver archiver;
  ASSERT_TRUE(archiver.parseText("[s]\nk = v\nempty =\n[bare]\n[t]\n= x\n"));
  EXPECT_TRUE(archiver.contains("bare"));
  EXPECT_FALSE(archiver.contains("S"));
  SafeString out("unchanged");
  EXPECT_FALSE(archiver.value("s", "missing", out));
  EXPECT_FALSE(archiver.value("missing", "k", out));
  EXPECT_EQ(S(out), "unchanged");
  EXPECT_TRUE(archiver.value("s", "empty", out));
  EXPECT_EQ(S(out), "");
  EXPECT_TRUE(archiver.allKeys("missing").empty());
  // Refused names, accepted values kept as given, and removals (a null
  // value): missing names, and sections emptied by it (also of the empty key).
  // clang-format off
  const struct { const char *section, *key, *value; bool ok; } edits[] = {
      {"", "k", "v", false}, {"a", "", "v", false}, {"a[1]", "k", "v", false}, {"a]", "k", "v", false},
      {"a=b", "k", "v", false}, {"a", "x=y", "v", false}, {"a", "[k", "v", false}, {"a", "k]", "v", false},
      {"", "", "v", false}, {"a", "k", "v", true}, {"s", "k", "  untrimmed\r\n", true},
      {"s", "new", "set", true}, {"missing", "k", nullptr, false}, {"s", "c", nullptr, false},
      {"t", "", nullptr, true}, {"a", "k", nullptr, true}};
  // clang-format on
  for (const auto& e : edits) {
    SCOPED_TRACE(std::string(e.value != nullptr ? "set " : "remove ") + e.section + "." + e.key);
    EXPECT_EQ(e.ok, e.value != nullptr ? archiver.setValue(e.section, e.key, e.value)
                                       : archiver.remove(e.section, e.key));
  }
  // Without a text nothing is parsed and the table stays.
  EXPECT_FALSE(archiver.parseText(nullptr));
  EXPECT_EQ(Dump(archiver), (Table{{"s", {{"k", "  untrimmed\r\n"}, {"empty", ""}, {"new", "set"}}},
                                   {"bare", {}}}));
}

// Saves the tables of the rows, then random ones: a saved file must read
// back into the same table (where a row gives it, as exactly that text), a
// refused save must leave no file and the table as it was.
TEST_F(ArchiverTest, SaveWritesOnlyWhatReadsBackTheSame) {
  // Enough other sections that the hash order rarely puts the first header
  // first.
  const std::string others = "[s1]\nk = 1\n[s2]\n[s3]\nk = 3\n[s4]\n[s5]\n[s6]\n[s7]\n";
  struct Case {
    std::string text;
    std::vector<std::string> set;  // section, key, value
    bool saved;
    const char* exact = nullptr;  // the saved text
    std::string path = "";        // where, if not a new file of its own
  };
  const std::string nul(1, '\0');
  // The random tables cover the other names and values; these rows hold
  // what they reach too rarely.
  // clang-format off
  const std::vector<Case> cases = {
      {"[s]\nport = 80\n", {}, true, "[s]\nport = 80\n\n"}, {"[e]\n", {}, true, "[e]\n\n"},
      {"", {}, true, "", "old.ini"}, {"[s]\nk=v", {}, true, "[s]\nk = v\n\n", "new/folder/two.ini"},
      {"[a=b]\n[a = 1]\nx = [y]\n" + others, {}, true}, {"[a=b]\n", {}, true},
      {"[[x]]\n[a=b]\n= v\n[]\n[y]]\n]k[ = ]v[\n" + others, {}, true},
      {"[p=q]\nk = v\n", {"s", "k", "v"}, true}, {others, {"s", "k", "a = b [c]"}, true},
      {others, {"s1", "k2", "v\n[s1]"}, false}, {others, {"s", "k", "v" + nul + "x = y"}, false}};
  // clang-format on
  // Random names: mostly letters, sometimes a byte that a saved file cannot
  // carry as is (the last pick is the terminating NUL).
  static const char kChars[] = "abcdefgh#;\x80\"ab=[] \t\r\n";
  std::mt19937 random(2718);
  std::uniform_int_distribution<int> pick(0, static_cast<int>(sizeof(kChars)) - 1);
  std::uniform_int_distribution<int> length(0, 3);
  auto name = [&] {
    std::string text;
    for (int i = length(random); i > 0; --i) text += kChars[pick(random)];
    return text;
  };
  int saved = 0, refused = 0;
  ASSERT_TRUE(WriteRawFile(dir_ / "old.ini", "old"));
  for (size_t round = 0; round < cases.size() + 300; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const Case* c = round < cases.size() ? &cases[round] : nullptr;
    const std::string file =
        c != nullptr && !c->path.empty() ? c->path : "table" + std::to_string(round) + ".ini";
    const SafeString path = P(file);
    Archiver archiver;
    bool expectSaved = false;
    if (c != nullptr) {
      ASSERT_TRUE(archiver.parseText(c->text.c_str()));
      EXPECT_TRUE(c->set.empty() ||
                  archiver.setValue(Safe(c->set[0]), Safe(c->set[1]), Safe(c->set[2])));
      expectSaved = c->saved;
    } else {
      std::string text;
      for (int line = length(random) * 2; line > 0; --line) {
        text += (line % 2 == 0 ? "[" + name() + "]" : name() + "=" + name()) + "\n";
      }
      try {
        (void)archiver.parseText(text.c_str());
      } catch (const zorv::foundation::lang::Exception&) {
        // Repeated names: what was read before stays.
      }
      for (int i = length(random); i > 0; --i) {
        (void)archiver.setValue(Safe(name()), Safe(name()), Safe(name()));
      }
      expectSaved = archiver.saveAs(path);
      (void)::unlink(path.c_str());
      (expectSaved ? saved : refused) += archiver.allSections().empty() ? 0 : 1;
    }
    const Table before = Dump(archiver);
    EXPECT_EQ(archiver.saveAs(path), expectSaved);
    EXPECT_EQ(Dump(archiver), before);
    Archiver reread;
    if (expectSaved) {
      ASSERT_NO_THROW(EXPECT_TRUE(reread.parseFile(path)));
      EXPECT_EQ(Dump(reread), before);
      if (c != nullptr && c->exact != nullptr) {
        EXPECT_EQ(zorv::test::ReadRawFile(dir_ / file), c->exact);
      }
    } else {
      EXPECT_NE(access(path.c_str(), F_OK), 0) << "a refused save wrote a file";
    }
  }
  EXPECT_GT(saved, 50) << "too few tables were saved to show anything";
  EXPECT_GT(refused, 50) << "too few tables were refused to show anything";
  // A table that cannot be written.
  Archiver archiver;
  ASSERT_TRUE(archiver.parseText("[s]\nk = v\n"));
  EXPECT_FALSE(archiver.saveAs(SafeString(dir_.path().c_str())));
}

// Edits of every value size, mixed with removals and a reparse, leave the
// table equal to a model: room given back by a value or a pair is reused
// by later ones without overlapping any other.
TEST_F(ArchiverTest, EditsOfEverySizeKeepEveryOtherValue) {
  Archiver archiver;
  Table model;
  std::mt19937 random(7);
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    for (int i = 0; i < 4000; ++i) {
      const std::string section = "s" + std::to_string(random() % 9);
      const std::string key = "key number " + std::to_string(random() % 40);
      if (random() % 4 == 0) {
        const bool held = model.count(section) != 0 && model[section].erase(key) != 0;
        if (held && model[section].empty()) model.erase(section);
        ASSERT_EQ(archiver.remove(Safe(section), Safe(key)), held) << i;
        continue;
      }
      const std::string value(random() % 300, static_cast<char>('a' + i % 26));
      ASSERT_TRUE(archiver.setValue(Safe(section), Safe(key), Safe(value)));
      model[section][key] = value;
    }
    ASSERT_EQ(Dump(archiver), model);
    std::string text;
    for (const auto& section : model) {
      text += "[" + section.first + "]\n";
      for (const auto& pair : section.second) text += pair.first + "=" + pair.second + "\n";
    }
    ASSERT_TRUE(archiver.parseText(text.c_str()));
    ASSERT_EQ(Dump(archiver), model);
  }
}

}  // namespace
