// Archiver: the configuration table, its parser, access and saving.
#include "foundation/config/configarchiver.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <new>
#include <vector>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "foundation/config/datareader.h"
#include "foundation/debug/allocator.h"
#include "foundation/file/fileutils.h"
#include "foundation/lang/exception.h"
#include "foundation/text/stringutils.h"

#include "lang/accounting.h"

namespace zorv {
namespace foundation {
namespace config {

namespace detail {

template <class K, class V>
using Table = std::unordered_map<K, V, std::hash<K>, std::equal_to<K>,
                                 debug::Allocator<std::pair<const K, V> > >;

using KeyTable = Table<SafeString, SafeString>;
using SectionTable = Table<SafeString, KeyTable>;

// Empties `sections`. A parsed table's entries were allocated one after
// the other, and the hash order visits them all over the heap; freed in
// that order, their blocks cost the allocator a cache miss each when it
// later merges them. So the pairs are erased in descending address order
// (within each section, and section by section), which gives the blocks
// back as neighbours; this takes about a third off dropping a large
// table. Without memory for the lists, the rest is freed in hash order.
inline void ReleaseTable(SectionTable& sections) noexcept {
  if (sections.size() > 1) {
    using Pair = KeyTable::const_iterator;
    try {
      std::vector<KeyTable*, debug::Allocator<KeyTable*> > tables;
      tables.reserve(sections.size());
      for (auto& section : sections) tables.push_back(&section.second);
      std::sort(tables.begin(), tables.end(), std::greater<KeyTable*>());
      std::vector<Pair, debug::Allocator<Pair> > pairs;
      for (KeyTable* keys : tables) {
        pairs.clear();
        for (auto pair = keys->cbegin(); pair != keys->cend(); ++pair) pairs.push_back(pair);
        std::sort(pairs.begin(), pairs.end(), [](Pair a, Pair b) { return &*a > &*b; });
        for (Pair pair : pairs) keys->erase(pair);
      }
    } catch (const std::bad_alloc&) {
    }
  }
  sections.clear();
}

// The section table: section name -> (key -> value).
struct ArchiverPrivate {
  ArchiverPrivate() = default;
  ArchiverPrivate(const ArchiverPrivate&) = delete;
  ArchiverPrivate& operator=(const ArchiverPrivate&) = delete;
  ~ArchiverPrivate() { ReleaseTable(sections); }
  SectionTable sections;
};

}  // namespace detail

namespace {

constexpr char kSource[] = "../config/configarchiver.cpp";
constexpr char kArchiverSource[] = "zorv.foundation.config.Archiver";

inline bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// Narrows [begin, begin + count) to the bytes without the blanks at either
// end, as StringUtils::Trim gives them (a line holds no zero byte, so
// Trim's stop at one never applies).
inline void Trim(const char*& begin, size_t& count) {
  while (count != 0 && IsBlank(*begin)) {
    ++begin;
    --count;
  }
  while (count != 0 && IsBlank(begin[count - 1])) --count;
}

// The trimmed bytes as a string of their own.
SafeString Trimmed(const char* begin, size_t count) {
  Trim(begin, count);
  return SafeString(begin, count);
}

inline bool IsHeader(const char* line, size_t size) {
  return size >= 2 && line[0] == '[' && line[size - 1] == ']';
}

// The lines of a reader, one at a time in a buffer of their own.
class ReaderLines {
 public:
  explicit ReaderLines(detail::IDataReader& reader) : reader_(reader) {}
  bool next(const char*& line, size_t& size) {
    if (!reader_.readLine(buffer_)) return false;
    line = buffer_.data();
    size = buffer_.size();
    return true;
  }

 private:
  detail::IDataReader& reader_;
  SafeString buffer_;
};

// The lines of a zero-terminated text, read where they stand: each ends
// at CR, LF or the terminating zero, exactly as TextReader splits them.
class TextLines {
 public:
  explicit TextLines(const char* text) : cursor_(text) {}
  bool next(const char*& line, size_t& size) {
    if (*cursor_ == '\0') return false;
    line = cursor_;
    size = std::strcspn(cursor_, "\r\n");
    cursor_ += size;
    if (*cursor_ != '\0') ++cursor_;
    return true;
  }

 private:
  const char* cursor_;
};

// Fills the empty `sections` from `lines`. A line with '=' is a pair
// (split at the first '='), a line in brackets without one opens a
// section; everything before the first header, headers with '=' among
// them, is skipped.
template <class Lines>
void ParseLines(detail::SectionTable& sections, Lines& lines) {
  const char* line = nullptr;
  size_t size = 0;
  bool found = false;
  while (lines.next(line, size)) {
    if (IsHeader(line, size)) {
      found = true;
      break;
    }
  }
  if (!found) return;

  auto current = sections.emplace(Trimmed(line + 1, size - 2), detail::KeyTable()).first;
  while (lines.next(line, size)) {
    const char* equals = static_cast<const char*>(std::memchr(line, '=', size));
    if (equals == nullptr) {
      if (!IsHeader(line, size)) continue;
      auto made = sections.emplace(Trimmed(line + 1, size - 2), detail::KeyTable());
      if (!made.second) {
        SafeString message("config error, repeated section [");
        message += made.first->first;
        message += "]";
        throw lang::Exception(kArchiverSource, message.c_str());
      }
      current = made.first;
      continue;
    }
    // The pair is stored whole or not at all: a failed allocation never
    // leaves a key without its value.
    const char* key = line;
    size_t keySize = static_cast<size_t>(equals - line);
    const char* value = equals + 1;
    size_t valueSize = size - keySize - 1;
    Trim(key, keySize);
    Trim(value, valueSize);
    detail::KeyTable& keys = current->second;
    auto stored = keys.emplace(std::piecewise_construct, std::forward_as_tuple(key, keySize),
                               std::forward_as_tuple(value, valueSize));
    if (!stored.second) {
      SafeString message("config error, repeated key [");
      message += current->first;
      message += ".";
      message += stored.first->first;
      message += "]";
      throw lang::Exception(kArchiverSource, message.c_str());
    }
  }
}

// True when `name` is not empty and holds none of '[', ']' and '='.
bool IsStorableName(const SafeString& name) {
  return !name.empty() && name.find('[') == SafeString::npos &&
         name.find(']') == SafeString::npos && name.find('=') == SafeString::npos;
}

// True when `text`, written on a line and read back, comes back the same:
// no CR, LF or NUL (each ends a line) and no blank at either end (names and
// values are trimmed when read).
bool ReadsBackAsIs(const SafeString& text) {
  if (!text.empty() && (IsBlank(text.front()) || IsBlank(text.back()))) return false;
  static constexpr char kLineEnds[] = {'\r', '\n', '\0'};
  return text.find_first_of(kLineEnds, 0, sizeof(kLineEnds)) == SafeString::npos;
}

}  // namespace

Archiver::Archiver() {
  d_ =
      lang::AccountedNewOrThrow<detail::ArchiverPrivate>(ZORV_ACCOUNTING_SITE(kSource, "Archiver"));
}

Archiver::~Archiver() {
  lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~Archiver"));
}

bool Archiver::parseFile(const SafeString& path) {
  d_->sections.clear();
  detail::FileReader reader(path);
  try {
    reader.open();
    parse(reader);
  } catch (...) {
    reader.close();
    throw;
  }
  reader.close();
  return true;
}

bool Archiver::parseText(const char* text) {
  if (text == nullptr) return false;
  detail::ReleaseTable(d_->sections);
  TextLines lines(text);
  ParseLines(d_->sections, lines);
  return true;
}

void Archiver::parse(detail::IDataReader& reader) {
  detail::ReleaseTable(d_->sections);
  ReaderLines lines(reader);
  ParseLines(d_->sections, lines);
}

bool Archiver::contains(const SafeString& section) const {
  return d_->sections.find(section) != d_->sections.end();
}

collection::Vector<SafeString> Archiver::allSections() const {
  collection::Vector<SafeString> names;
  names.reserve(d_->sections.size());
  for (const auto& section : d_->sections) names.push_back(section.first);
  return names;
}

collection::Vector<SafeString> Archiver::allKeys(const SafeString& section) const {
  collection::Vector<SafeString> keys;
  auto found = d_->sections.find(section);
  if (found == d_->sections.end()) return keys;
  keys.reserve(found->second.size());
  for (const auto& pair : found->second) keys.push_back(pair.first);
  return keys;
}

SafeString Archiver::value(const SafeString& section, const SafeString& key) const {
  SafeString out;
  (void)value(section, key, out);
  return out;
}

bool Archiver::value(const SafeString& section, const SafeString& key, SafeString& out) const {
  auto found = d_->sections.find(section);
  if (found == d_->sections.end()) return false;
  auto pair = found->second.find(key);
  if (pair == found->second.end()) return false;
  out = pair->second;
  return true;
}

bool Archiver::setValue(const SafeString& section, const SafeString& key,
                        const SafeString& value) {
  if (!IsStorableName(section) || !IsStorableName(key)) return false;
  // Either the pair is stored or, when memory runs out, nothing changes: a
  // new section is made complete with its key before it joins the table.
  detail::SectionTable& sections = d_->sections;
  auto found = sections.find(section);
  if (found == sections.end()) {
    detail::KeyTable keys;
    keys.emplace(key, value);
    sections.emplace(section, std::move(keys));
    return true;
  }
  auto pair = found->second.find(key);
  if (pair != found->second.end()) {
    pair->second = value;
  } else {
    found->second.emplace(key, value);
  }
  return true;
}

bool Archiver::remove(const SafeString& section, const SafeString& key) {
  auto found = d_->sections.find(section);
  if (found == d_->sections.end()) return false;
  if (found->second.erase(key) == 0) return false;
  if (found->second.empty()) d_->sections.erase(found);
  return true;
}

namespace {

// The text that saveAs writes for `sections`; false, with `text` unchanged,
// when the table holds what would not read back the same.
bool SavedText(const detail::SectionTable& sections, SafeString& out) {
  // Only the first header may hold '=': later on such a line reads as a key.
  auto first = sections.end();
  size_t total = 0;
  for (auto section = sections.begin(); section != sections.end(); ++section) {
    if (!ReadsBackAsIs(section->first)) return false;
    if (section->first.find('=') != SafeString::npos) {
      if (first != sections.end()) return false;
      first = section;
    }
    total += section->first.size() + 4;
    for (const auto& pair : section->second) {
      if (!ReadsBackAsIs(pair.first) || pair.first.find('=') != SafeString::npos ||
          !ReadsBackAsIs(pair.second)) {
        return false;
      }
      total += pair.first.size() + pair.second.size() + 4;
    }
  }
  SafeString text;
  text.reserve(total);
  auto append = [&text](const detail::SectionTable::value_type& section) {
    text += '[';
    text += section.first;
    text += "]\n";
    for (const auto& pair : section.second) {
      text += pair.first;
      text += " = ";
      text += pair.second;
      text += '\n';
    }
    text += '\n';
  };
  if (first != sections.end()) append(*first);
  for (auto section = sections.begin(); section != sections.end(); ++section) {
    if (section != first) append(*section);
  }
  out.swap(text);
  return true;
}

}  // namespace

bool Archiver::saveAs(const SafeString& path) {
  SafeString text;
  return SavedText(d_->sections, text) && file::FileUtils::WriteText(path, text);
}

bool Archiver::saveAsAtomic(const SafeString& path) {
  SafeString text;
  return SavedText(d_->sections, text) && file::FileUtils::WriteTextAtomic(path, text);
}

}  // namespace config
}  // namespace foundation
}  // namespace zorv
