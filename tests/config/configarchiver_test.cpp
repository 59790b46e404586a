// Tests of config::Archiver: the text format, both parse entry points and
// their readers, the errors, access, editing and saveAs.
#include <unistd.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/config/configarchiver.h"
#include "foundation/config/datareader.h"
#include "foundation/lang/exception.h"
#include "support/leakcheck.h"
#include "support/tempdir.h"

namespace {

using zorv::foundation::SafeString;
using zorv::foundation::collection::Vector;
using zorv::foundation::config::Archiver;
using zorv::foundation::config::detail::FileReader;
using zorv::foundation::config::detail::TextReader;
using zorv::test::ReadRawFile;
using zorv::test::TempDir;
using zorv::test::WriteRawFile;

using Table = std::map<std::string, std::map<std::string, std::string> >;

constexpr char kArchiver[] = "zorv.foundation.config.Archiver";
constexpr char kReader[] = "zorv.foundation.config.Reader";

std::string S(const SafeString& s) { return std::string(s.data(), s.size()); }

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

class ArchiverTest : public zorv::test::LeakCheckedTest {
 protected:
  SafeString P(const std::string& relative) const { return SafeString((dir_ / relative).c_str()); }
  TempDir dir_;
};

TEST_F(ArchiverTest, ParsesEveryKindOfLine) {
  Archiver archiver;
  ASSERT_TRUE(archiver.parseText(
      "preamble = lost\n"
      "stray words\n"
      "[first]\n"
      "plain=value\n"
      "  spaced\t=\t  padded value \t\n"
      "bare word line\n"
      "; semi = colon\n"
      "# hash = mark\n"
      "eq = a=b=c\n"
      "brackets = [x] ]y[\n"
      "= nameless\n"
      "empty =\n"
      "a==b\n"
      "[a=b]\n"
      " [ignored]\n"
      "[ignored] \n"
      "\"quoted\" = \"kept\"\n"
      "\n"
      "[ second ]\n"
      "Key = upper\n"
      "key = lower\n"
      "[]\n"
      "[empty section]\n"));
  const Table expected = {
      {"first",
       {{"plain", "value"},
        {"spaced", "padded value"},
        {"; semi", "colon"},
        {"# hash", "mark"},
        {"eq", "a=b=c"},
        {"brackets", "[x] ]y["},
        {"", "nameless"},
        {"empty", ""},
        {"a", "=b"},
        {"[a", "b]"},
        {"\"quoted\"", "\"kept\""}}},
      {"second", {{"Key", "upper"}, {"key", "lower"}}},
      {"", {}},
      {"empty section", {}},
  };
  EXPECT_EQ(Dump(archiver), expected);
  EXPECT_TRUE(archiver.contains("empty section"));
  EXPECT_FALSE(archiver.contains("ignored"));
  EXPECT_FALSE(archiver.contains("Second"));
}

TEST_F(ArchiverTest, SmallInputs) {
  struct Case {
    const char* text;
    Table expected;
  };
  const std::vector<Case> cases = {
      {"", {}},
      {"k = v\nother = w\n", {}},
      {"[a=b]\nk=v", {{"a=b", {{"k", "v"}}}}},
      {"[]", {{"", {}}}},
      {"[ ]\nk=v", {{"", {{"k", "v"}}}}},
      {"[\t a \t]\r\nk = v\r\n", {{"a", {{"k", "v"}}}}},
      {"[s]\rk=v\rj=w", {{"s", {{"k", "v"}, {"j", "w"}}}}},
      {"[", {}},
      {"]", {}},
      {"[s]\n[", {{"s", {}}}},
      {"\xEF\xBB\xBF[s]\nk=v", {}},  // the mark is a part of the first line
      {"\xEF\xBB\xBF[s]\n[t]\nk=v", {{"t", {{"k", "v"}}}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("text '") + c.text + "'");
    Archiver archiver;
    EXPECT_TRUE(archiver.parseText(c.text));
    EXPECT_EQ(Dump(archiver), c.expected);
  }
}

TEST_F(ArchiverTest, LineEndsReadAlike) {
  const char* const forms[] = {
      "[s]\nk = v\n\n[t]\nx = y\n",
      "[s]\r\nk = v\r\n\r\n[t]\r\nx = y\r\n",
      "[s]\rk = v\r\r[t]\rx = y\r",
      "[s]\nk = v\r\n[t]\rx = y",
  };
  const Table expected = {{"s", {{"k", "v"}}}, {"t", {{"x", "y"}}}};
  for (const char* form : forms) {
    SCOPED_TRACE(form);
    Archiver fromText;
    ASSERT_TRUE(fromText.parseText(form));
    EXPECT_EQ(Dump(fromText), expected);
    ASSERT_TRUE(WriteRawFile(dir_ / "f.ini", form));
    Archiver fromFile;
    ASSERT_TRUE(fromFile.parseFile(P("f.ini")));
    EXPECT_EQ(Dump(fromFile), expected);
  }
}

TEST_F(ArchiverTest, RepeatedSectionThrowsAndKeepsWhatWasStored) {
  Archiver archiver;
  EXPECT_ZORV_THROW(archiver.parseText("[a]\nk = 1\n[b]\nj = 2\n[ a ]\nlost = 3\n"), kArchiver,
                    "config error, repeated section [a]");
  EXPECT_EQ(Dump(archiver), (Table{{"a", {{"k", "1"}}}, {"b", {{"j", "2"}}}}));
  EXPECT_ZORV_THROW(archiver.parseText("[ x ]\n[x]\n"), kArchiver,
                    "config error, repeated section [x]");
  EXPECT_ZORV_THROW(archiver.parseText("[]\n[ ]\n"), kArchiver,
                    "config error, repeated section []");
}

TEST_F(ArchiverTest, RepeatedKeyThrowsAndKeepsWhatWasStored) {
  Archiver archiver;
  EXPECT_ZORV_THROW(archiver.parseText("[s]\nk = 1\nj = 2\n k  = 3\nafter = 4\n"), kArchiver,
                    "config error, repeated key [s.k]");
  EXPECT_EQ(Dump(archiver), (Table{{"s", {{"k", "1"}, {"j", "2"}}}}));
  // The same key in two sections is fine.
  EXPECT_TRUE(archiver.parseText("[s]\nk = 1\n[t]\nk = 2\n"));
  EXPECT_EQ(Dump(archiver), (Table{{"s", {{"k", "1"}}}, {"t", {{"k", "2"}}}}));
  EXPECT_ZORV_THROW(archiver.parseText("[ s p ]\n=a\n = b\n"), kArchiver,
                    "config error, repeated key [s p.]");
}

TEST_F(ArchiverTest, EachParseReplacesTheTable) {
  Archiver archiver;
  ASSERT_TRUE(archiver.parseText("[old]\nk=v\n"));
  EXPECT_FALSE(archiver.parseText(nullptr));
  EXPECT_TRUE(archiver.contains("old"));
  ASSERT_TRUE(archiver.parseText("[new]\n"));
  EXPECT_EQ(Dump(archiver), (Table{{"new", {}}}));
  ASSERT_TRUE(archiver.parseText(""));
  EXPECT_TRUE(archiver.allSections().empty());
  ASSERT_TRUE(archiver.parseText("[old]\nk=v\n"));
  EXPECT_ZORV_THROW(archiver.parseFile(P("missing.ini")), kReader,
                    ("open config file [" + dir_ / "missing.ini" + "] failed").c_str());
  EXPECT_TRUE(archiver.allSections().empty());
}

TEST_F(ArchiverTest, ParseFileOpenFailures) {
  Archiver archiver;
  EXPECT_ZORV_THROW(archiver.parseFile(""), kReader, "open config file [] failed");
  EXPECT_ZORV_THROW(archiver.parseFile(dir_.path().c_str()), kReader,
                    ("open config file [" + dir_.path() + "] failed").c_str());
  ASSERT_TRUE(WriteRawFile(dir_ / "plain", "[s]\n"));
  EXPECT_ZORV_THROW(archiver.parseFile(P("plain/below.ini")), kReader,
                    ("open config file [" + dir_ / "plain/below.ini" + "] failed").c_str());
}

TEST_F(ArchiverTest, ParseFileByteOrderMarksAndNulBytes) {
  struct Case {
    std::string content;
    Table expected;
  };
  const std::vector<Case> cases = {
      {"", {}},
      {"k = v", {}},
      {"\xEF\xBB\xBF", {}},
      {"\xEF\xBB\xBF[s]\nk=v", {{"s", {{"k", "v"}}}}},
      {"\xFF\xFE[s]\nk=v", {{"s", {{"k", "v"}}}}},
      {"\xFE\xFF[s]\nk=v", {{"s", {{"k", "v"}}}}},
      {"\xEF\xBB[s]\n[t]", {{"t", {}}}},
      {"[", {}},
      {"[]", {{"", {}}}},
      {std::string("[s]\0k=v\0\0j=w", 12), {{"s", {{"k", "v"}, {"j", "w"}}}}},
      {std::string("[s]\nk=v\0tail=t\n", 16), {{"s", {{"k", "v"}, {"tail", "t"}}}}},
      {"[s]\nlast=no newline", {{"s", {{"last", "no newline"}}}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("file of " + std::to_string(c.content.size()) + " bytes");
    ASSERT_TRUE(WriteRawFile(dir_ / "c.ini", c.content));
    Archiver archiver;
    EXPECT_TRUE(archiver.parseFile(P("c.ini")));
    EXPECT_EQ(Dump(archiver), c.expected);
  }
}

TEST_F(ArchiverTest, ParseFileOfALargeFileCrossesReadChunks) {
  std::string content = "[big]\n";
  for (int i = 0; i < 20000; ++i) content += "key" + std::to_string(i) + " = value " + std::to_string(i) + "\r\n";
  ASSERT_TRUE(WriteRawFile(dir_ / "big.ini", content));
  Archiver archiver;
  ASSERT_TRUE(archiver.parseFile(P("big.ini")));
  EXPECT_EQ(archiver.allKeys("big").size(), 20000u);
  EXPECT_EQ(S(archiver.value("big", "key12345")), "value 12345");
}

TEST_F(ArchiverTest, TextReaderLines) {
  const char* text = "a\r\nb\n\nc";
  TextReader reader(text);
  reader.open();
  std::vector<std::string> lines;
  SafeString line("stale");
  while (reader.readLine(line)) lines.push_back(S(line));
  reader.close();
  EXPECT_EQ(lines, (std::vector<std::string>{"a", "", "b", "", "c"}));
  TextReader empty("");
  EXPECT_FALSE(empty.readLine(line));
  TextReader lone("\n");
  EXPECT_TRUE(lone.readLine(line));
  EXPECT_EQ(S(line), "");
  EXPECT_FALSE(lone.readLine(line));
}

TEST_F(ArchiverTest, FileReaderLines) {
  ASSERT_TRUE(WriteRawFile(dir_ / "r", std::string("\xEF\xBB\xBF" "a\r\nb\0c\n\nd", 13)));
  FileReader reader(P("r"));
  reader.open();
  std::vector<std::string> lines;
  SafeString line;
  while (reader.readLine(line)) lines.push_back(S(line));
  reader.close();
  EXPECT_EQ(lines, (std::vector<std::string>{"a", "", "b", "c", "", "d"}));
  reader.close();
  FileReader missing(P("nothing"));
  EXPECT_ZORV_THROW(missing.open(), kReader,
                    ("open config file [" + dir_ / "nothing" + "] failed").c_str());
  EXPECT_FALSE(missing.readLine(line));
}

TEST_F(ArchiverTest, AccessOperations) {
  Archiver archiver;
  ASSERT_TRUE(archiver.parseText("[s]\nk = v\nempty =\n[bare]\n"));
  EXPECT_TRUE(archiver.contains("s"));
  EXPECT_TRUE(archiver.contains("bare"));
  EXPECT_FALSE(archiver.contains("S"));
  EXPECT_EQ(S(archiver.value("s", "k")), "v");
  EXPECT_EQ(S(archiver.value("s", "missing")), "");
  EXPECT_EQ(S(archiver.value("missing", "k")), "");
  EXPECT_FALSE(archiver.contains("missing"));
  SafeString out("unchanged");
  EXPECT_FALSE(archiver.value("s", "missing", out));
  EXPECT_FALSE(archiver.value("missing", "k", out));
  EXPECT_EQ(S(out), "unchanged");
  EXPECT_TRUE(archiver.value("s", "empty", out));
  EXPECT_EQ(S(out), "");
  EXPECT_TRUE(archiver.allKeys("bare").empty());
  EXPECT_TRUE(archiver.allKeys("missing").empty());
  EXPECT_EQ(archiver.allSections().size(), 2u);
}

TEST_F(ArchiverTest, SetValueChecksNames) {
  Archiver archiver;
  struct Case {
    const char* section;
    const char* key;
  };
  const Case refused[] = {{"", "k"}, {"a", ""},   {"a[1]", "k"}, {"a]", "k"}, {"a=b", "k"},
                          {"a", "x=y"}, {"a", "[k"}, {"a", "k]"},  {"", ""}};
  for (const Case& c : refused) {
    SCOPED_TRACE(std::string("setValue('") + c.section + "', '" + c.key + "')");
    EXPECT_FALSE(archiver.setValue(c.section, c.key, "v"));
  }
  EXPECT_TRUE(archiver.allSections().empty());
  EXPECT_TRUE(archiver.setValue("a", "k", "v"));
  EXPECT_TRUE(archiver.contains("a"));
  EXPECT_EQ(Dump(archiver), (Table{{"a", {{"k", "v"}}}}));
  EXPECT_TRUE(archiver.setValue("a", "k", ""));
  SafeString out("x");
  EXPECT_TRUE(archiver.value("a", "k", out));
  EXPECT_EQ(S(out), "");
  EXPECT_TRUE(archiver.setValue("a", "k", "  untrimmed\r\n"));
  EXPECT_EQ(S(archiver.value("a", "k")), "  untrimmed\r\n");
}

TEST_F(ArchiverTest, RemoveDropsEmptiedSections) {
  Archiver archiver;
  ASSERT_TRUE(archiver.parseText("[s]\na = 1\nb = 2\n[t]\n= x\n[bare]\n"));
  EXPECT_FALSE(archiver.remove("missing", "a"));
  EXPECT_FALSE(archiver.remove("s", "c"));
  EXPECT_FALSE(archiver.remove("bare", ""));
  EXPECT_TRUE(archiver.contains("bare"));
  EXPECT_TRUE(archiver.remove("s", "a"));
  EXPECT_TRUE(archiver.contains("s"));
  EXPECT_TRUE(archiver.remove("s", "b"));
  EXPECT_FALSE(archiver.contains("s"));
  EXPECT_FALSE(archiver.remove("s", "b"));
  EXPECT_TRUE(archiver.remove("t", ""));
  EXPECT_FALSE(archiver.contains("t"));
  EXPECT_EQ(Dump(archiver), (Table{{"bare", {}}}));
}

TEST_F(ArchiverTest, SaveAsWritesTheExactText) {
  Archiver archiver;
  ASSERT_TRUE(archiver.setValue("s", "port", "80"));
  ASSERT_TRUE(archiver.saveAs(P("one.ini")));
  EXPECT_EQ(ReadRawFile(dir_ / "one.ini"), "[s]\nport = 80\n\n");

  ASSERT_TRUE(archiver.parseText("[e]\n"));
  ASSERT_TRUE(archiver.saveAs(P("bare.ini")));
  EXPECT_EQ(ReadRawFile(dir_ / "bare.ini"), "[e]\n\n");

  ASSERT_TRUE(archiver.parseText(""));
  ASSERT_TRUE(WriteRawFile(dir_ / "empty.ini", "old"));
  ASSERT_TRUE(archiver.saveAs(P("empty.ini")));
  EXPECT_EQ(ReadRawFile(dir_ / "empty.ini"), "");

  // Order follows allSections and allKeys.
  ASSERT_TRUE(archiver.parseText("[a]\nx = 1\ny =\n[b]\nz = 3\n"));
  std::string expected;
  for (const SafeString& section : archiver.allSections()) {
    expected += "[" + S(section) + "]\n";
    for (const SafeString& key : archiver.allKeys(section)) {
      expected += S(key) + " = " + S(archiver.value(section, key)) + "\n";
    }
    expected += "\n";
  }
  ASSERT_TRUE(archiver.saveAs(P("new/folder/two.ini")));
  EXPECT_EQ(ReadRawFile(dir_ / "new/folder/two.ini"), expected);
}

TEST_F(ArchiverTest, SaveAsFailuresLeaveTheTable) {
  Archiver archiver;
  ASSERT_TRUE(archiver.setValue("s", "k", "v"));
  ASSERT_TRUE(WriteRawFile(dir_ / "plain", "p"));
  EXPECT_FALSE(archiver.saveAs(dir_.path().c_str()));
  EXPECT_FALSE(archiver.saveAs(P("plain/x.ini")));
  EXPECT_FALSE(archiver.saveAs(""));
  EXPECT_EQ(Dump(archiver), (Table{{"s", {{"k", "v"}}}}));
}

// Saves the table; a saved file must read back into the same table, a
// refused save must leave no file and the table as it was.
void ExpectRoundTripOrRefusal(Archiver& archiver, const SafeString& path, bool expectSaved) {
  const Table before = Dump(archiver);
  const bool saved = archiver.saveAs(path);
  EXPECT_EQ(saved, expectSaved);
  EXPECT_EQ(Dump(archiver), before);
  if (saved) {
    Archiver reread;
    ASSERT_NO_THROW(EXPECT_TRUE(reread.parseFile(path)));
    EXPECT_EQ(Dump(reread), before);
  } else {
    EXPECT_NE(access(path.c_str(), F_OK), 0) << "a refused save wrote a file";
  }
}

TEST_F(ArchiverTest, SaveAsWritesOnlyWhatReadsBackTheSame) {
  // Enough other sections that the hash order rarely puts the first header
  // first.
  const std::string others = "[s1]\nk = 1\n[s2]\n[s3]\nk = 3\n[s4]\n[s5]\n[s6]\n[s7]\n";
  struct Case {
    const char* what;
    std::string text;
    std::vector<std::vector<std::string> > set;  // section, key, value
    bool saved;
  };
  const std::string nul(1, '\0');
  const Case cases[] = {
      {"first header with '='", "[a=b]\n[a = 1]\nx = [y]\n" + others, {}, true},
      {"first header '[a=b]' only", "[a=b]\n", {}, true},
      {"bracket names, empty names", "[[x]]\n[a=b]\n= v\n[]\n[y]]\n]k[ = ]v[\n" + others, {}, true},
      {"values with '=' and brackets", others, {{"s", "k", "a = b [c]"}, {"t", "k", ""}}, true},
      {"set beside a parsed '=' section", "[p=q]\nk = v\n", {{"s", "k", "v"}}, true},
      {"section with a leading blank", others, {{" s", "k", "v"}}, false},
      {"section with a trailing tab", others, {{"s\t", "k", "v"}}, false},
      {"key with a leading tab", others, {{"s", "\tk", "v"}}, false},
      {"key with a trailing blank", others, {{"s", "k ", "v"}}, false},
      {"value with a leading blank", others, {{"s", "k", " v"}}, false},
      {"value with a trailing tab", others, {{"s", "k", "v\t"}}, false},
      {"section with CR", others, {{"s\rt", "k", "v"}}, false},
      {"section with LF", others, {{"s\n", "k", "v"}}, false},
      {"key with LF", others, {{"s", "k\nz", "v"}}, false},
      {"key with CR", others, {{"s", "\rk", "v"}}, false},
      {"value that would open a section", others, {{"s1", "k2", "v\n[s1]"}}, false},
      {"value with CR", others, {{"s", "k", "v\r"}}, false},
      {"section with NUL", others, {{"s" + nul + "t", "k", "v"}}, false},
      {"value with NUL", others, {{"s", "k", "v" + nul + "x = y"}}, false},
  };
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Archiver archiver;
    ASSERT_TRUE(archiver.parseText(c.text.c_str()));
    for (const std::vector<std::string>& row : c.set) {
      ASSERT_TRUE(archiver.setValue(SafeString(row[0].data(), row[0].size()),
                                    SafeString(row[1].data(), row[1].size()),
                                    SafeString(row[2].data(), row[2].size())));
    }
    ExpectRoundTripOrRefusal(archiver, P("case" + std::to_string(n++) + ".ini"), c.saved);
  }
}

TEST_F(ArchiverTest, SaveAsOfAnyReachableTableRoundTripsOrIsRefused) {
  // Mostly letters, sometimes a byte that a saved file cannot carry as is
  // (the last pick is the terminating NUL).
  static const char kChars[] = "abcdefghab=[] \t\r\n";
  std::mt19937 random(2718);
  std::uniform_int_distribution<int> pick(0, static_cast<int>(sizeof(kChars)) - 1);
  std::uniform_int_distribution<int> length(0, 3);
  auto name = [&] {
    std::string text;
    for (int i = length(random); i > 0; --i) text += kChars[pick(random)];
    return text;
  };
  int saved = 0;
  int refused = 0;
  for (int round = 0; round < 300; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    Archiver archiver;
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
      const std::string section = name(), key = name(), value = name();
      (void)archiver.setValue(SafeString(section.data(), section.size()),
                              SafeString(key.data(), key.size()),
                              SafeString(value.data(), value.size()));
    }
    const SafeString path = P("random" + std::to_string(round) + ".ini");
    const Table before = Dump(archiver);
    if (!archiver.saveAs(path)) {
      EXPECT_NE(access(path.c_str(), F_OK), 0);
      ++refused;
      continue;
    }
    if (!before.empty()) ++saved;
    Archiver reread;
    ASSERT_NO_THROW(EXPECT_TRUE(reread.parseFile(path)));
    EXPECT_EQ(Dump(reread), before);
  }
  EXPECT_GT(saved, 50) << "too few tables were saved to show anything";
  EXPECT_GT(refused, 50) << "too few tables were refused to show anything";
}

// A random name that survives parsing: no brackets, '=', line ends or NUL,
// no blanks at its ends.
std::string RandomName(std::mt19937& random, bool allowEmpty) {
  static const char kChars[] = "abcXYZ019_.-;#\" \t/\\\x80\xff";
  std::uniform_int_distribution<int> length(allowEmpty ? 0 : 1, 6);
  std::uniform_int_distribution<int> pick(0, static_cast<int>(sizeof(kChars)) - 2);
  std::string name;
  for (int n = length(random); n > 0; --n) name += kChars[pick(random)];
  while (!name.empty() && (name.front() == ' ' || name.front() == '\t')) name.erase(0, 1);
  while (!name.empty() && (name.back() == ' ' || name.back() == '\t')) name.pop_back();
  if (!allowEmpty && name.empty()) name = "n";
  return name;
}

TEST_F(ArchiverTest, ParseSaveParseRoundTrip) {
  std::mt19937 random(5150);
  for (int round = 0; round < 40; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    Table table;
    std::string text = "leading junk\nk = lost\n";
    std::uniform_int_distribution<int> sections(0, 6);
    std::uniform_int_distribution<int> keys(0, 5);
    for (int s = sections(random); s > 0; --s) {
      std::string section = RandomName(random, true);
      if (table.count(section) != 0) continue;
      std::map<std::string, std::string>& entries = table[section];
      text += (round % 2 == 0 ? "[" : "[ ") + section + "]\r\n";
      for (int k = keys(random); k > 0; --k) {
        std::string key = RandomName(random, true);
        if (entries.count(key) != 0) continue;
        std::string value = RandomName(random, true) + (k % 2 == 0 ? "=[x]" : "");
        entries[key] = value;
        text += " " + key + "\t= " + value + "\n";
        if (k % 3 == 0) text += "a comment-like line\n\n";
      }
    }
    Archiver first;
    ASSERT_TRUE(first.parseText(text.c_str()));
    ASSERT_EQ(Dump(first), table);
    ASSERT_TRUE(first.saveAs(P("round.ini")));
    Archiver second;
    ASSERT_TRUE(second.parseFile(P("round.ini")));
    EXPECT_EQ(Dump(second), table);
  }
}

TEST_F(ArchiverTest, AllocationFailuresLeakNothing) {
  const char* text = "[section with a long name]\nkey with a long name = value with a long text\n"
                     "[other section name here]\nk = v\n";
  for (unsigned int n = 1; n < 40; ++n) {
    SCOPED_TRACE("failing allocation " + std::to_string(n));
    Archiver archiver;
    bool threw = false;
    {
      zorv::test::FailAfterGuard fail(n);
      try {
        (void)archiver.parseText(text);
        (void)archiver.setValue("another long section name", "another long key", "v");
      } catch (const std::bad_alloc&) {
        threw = true;
      }
    }
    if (!threw) {
      EXPECT_EQ(S(archiver.value("other section name here", "k")), "v");
      break;
    }
  }
}

}  // namespace
