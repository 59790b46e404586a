// Archiver: the configuration table, its parser, access and saving.
#include "foundation/config/configarchiver.h"

#include <unordered_map>
#include <utility>

#include "foundation/config/datareader.h"
#include "foundation/debug/allocator.h"
#include "foundation/file/fileutils.h"
#include "foundation/lang/accounted.h"
#include "foundation/lang/exception.h"
#include "foundation/text/stringutils.h"

namespace zorv {
namespace foundation {
namespace config {

namespace detail {

template <class K, class V>
using Table = std::unordered_map<K, V, std::hash<K>, std::equal_to<K>,
                                 debug::Allocator<std::pair<const K, V> > >;

using KeyTable = Table<SafeString, SafeString>;
using SectionTable = Table<SafeString, KeyTable>;

// The section table: section name -> (key -> value).
struct ArchiverPrivate {
  SectionTable sections;
};

}  // namespace detail

namespace {

constexpr char kSource[] = "../config/configarchiver.cpp";
constexpr char kArchiverSource[] = "zorv.foundation.config.Archiver";

inline bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// The bytes [begin, begin + count) passed through StringUtils::Trim.
// `scratch` carries the untrimmed bytes and keeps its capacity from call to
// call, so that only the result is allocated.
SafeString Trimmed(const char* begin, size_t count, SafeString& scratch) {
  if (count == 0) return SafeString();
  if (!IsBlank(begin[0]) && !IsBlank(begin[count - 1])) {
    return SafeString(begin, count);
  }
  scratch.assign(begin, count);
  return text::StringUtils::Trim(scratch);
}

inline bool IsHeader(const SafeString& line) {
  return line.size() >= 2 && line.front() == '[' && line.back() == ']';
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
  d_->sections.clear();
  detail::TextReader reader(text);
  reader.open();
  parse(reader);
  reader.close();
  return true;
}

void Archiver::parse(detail::IDataReader& reader) {
  detail::SectionTable& sections = d_->sections;
  sections.clear();
  SafeString line;
  SafeString scratch;
  bool found = false;
  while (reader.readLine(line)) {
    if (IsHeader(line)) {
      found = true;
      break;
    }
  }
  if (!found) return;

  auto current = sections.emplace(Trimmed(line.data() + 1, line.size() - 2, scratch),
                                  detail::KeyTable()).first;
  while (reader.readLine(line)) {
    const size_t equals = line.find('=');
    if (equals == SafeString::npos) {
      if (!IsHeader(line)) continue;
      SafeString name = Trimmed(line.data() + 1, line.size() - 2, scratch);
      auto made = sections.emplace(std::move(name), detail::KeyTable());
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
    SafeString key = Trimmed(line.data(), equals, scratch);
    SafeString value = Trimmed(line.data() + equals + 1, line.size() - equals - 1, scratch);
    detail::KeyTable& keys = current->second;
    auto stored = keys.emplace(std::move(key), std::move(value));
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
