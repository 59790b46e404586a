// Archiver: the configuration table, its parser, access and saving.
#include "foundation/config/configarchiver.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>
#include <new>
#include <string>
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

// The blocks of one table's pairs: nodes, value texts and small bucket
// arrays, carved from chunks that the pool owns. A block given back is kept
// on a free list of its size class for the next one; the chunks go only
// when the table is released. Thousands of pairs then cost a few large
// allocations instead of two each, and releasing them costs no walk of the
// heap. Blocks above the largest class come from the accounted heap.
class BlockPool {
 public:
  BlockPool() = default;
  BlockPool(const BlockPool&) = delete;
  BlockPool& operator=(const BlockPool&) = delete;
  ~BlockPool() { release(); }

  void* allocate(std::size_t bytes) {
    if (bytes == 0 || bytes > kLargest) return debug::Allocator<Unit>().allocate(Units(bytes));
    const std::size_t units = Units(bytes);
    if (Block* block = free_[units - 1]) {
      free_[units - 1] = block->next;
      return block;
    }
    if (static_cast<std::size_t>(end_ - next_) < units) refill();
    void* block = next_;
    next_ += units;
    return block;
  }

  void deallocate(void* p, std::size_t bytes) noexcept {
    if (bytes == 0 || bytes > kLargest) {
      debug::Allocator<Unit>().deallocate(static_cast<Unit*>(p), Units(bytes));
      return;
    }
    Block* block = static_cast<Block*>(p);
    block->next = free_[Units(bytes) - 1];
    free_[Units(bytes) - 1] = block;
  }

  // Frees every chunk; no block of the pool may be in use.
  void release() noexcept {
    while (chunks_ != nullptr) {
      Chunk* chunk = chunks_;
      chunks_ = chunk->next;
      debug::Allocator<Unit>().deallocate(reinterpret_cast<Unit*>(chunk), chunk->units);
    }
    std::fill(free_, free_ + kClasses, nullptr);
    next_ = end_ = nullptr;
    chunkUnits_ = kFirstChunkUnits;
  }

 private:
  struct alignas(std::max_align_t) Unit {
    unsigned char bytes[16];
  };
  struct Block {
    Block* next;
  };
  struct Chunk {
    Chunk* next;
    std::size_t units;
  };
  static constexpr std::size_t kClasses = 8;
  static constexpr std::size_t kLargest = kClasses * sizeof(Unit);
  static constexpr std::size_t kFirstChunkUnits = 64;
  static constexpr std::size_t kLargestChunkUnits = 4096;
  static_assert(sizeof(Chunk) <= sizeof(Unit), "a chunk's header takes one unit");

  static std::size_t Units(std::size_t bytes) { return (bytes + sizeof(Unit) - 1) / sizeof(Unit); }

  // A new chunk, twice as large as the last up to a limit; what was left
  // of the last one is kept on the free lists.
  void refill() {
    Unit* chunk = debug::Allocator<Unit>().allocate(chunkUnits_);
    while (next_ != end_) {
      const std::size_t units = std::min<std::size_t>(end_ - next_, kClasses);
      deallocate(next_, units * sizeof(Unit));
      next_ += units;
    }
    Chunk* header = reinterpret_cast<Chunk*>(chunk);
    header->next = chunks_;
    header->units = chunkUnits_;
    chunks_ = header;
    next_ = chunk + 1;
    end_ = chunk + chunkUnits_;
    if (chunkUnits_ < kLargestChunkUnits) chunkUnits_ *= 2;
  }

  Block* free_[kClasses] = {};
  Unit* next_ = nullptr;
  Unit* end_ = nullptr;
  Chunk* chunks_ = nullptr;
  std::size_t chunkUnits_ = kFirstChunkUnits;
};

// A standard allocator drawing on one BlockPool.
template <class T>
class PoolAllocator {
 public:
  using value_type = T;
  static_assert(alignof(T) <= alignof(std::max_align_t), "pool blocks are max-aligned");

  explicit PoolAllocator(BlockPool* pool) noexcept : pool_(pool) {}
  template <class U>
  PoolAllocator(const PoolAllocator<U>& other) noexcept  // NOLINT(google-explicit-constructor)
      : pool_(other.pool()) {}

  T* allocate(std::size_t n) {
    if (n > 0xFFFFFFFFu / sizeof(T)) throw std::bad_alloc();
    return static_cast<T*>(pool_->allocate(n * sizeof(T)));
  }
  void deallocate(T* p, std::size_t n) noexcept { pool_->deallocate(p, n * sizeof(T)); }
  std::size_t max_size() const noexcept { return 0xFFFFFFFFu / sizeof(T); }
  BlockPool* pool() const noexcept { return pool_; }

 private:
  BlockPool* pool_;
};

template <class T, class U>
bool operator==(const PoolAllocator<T>& a, const PoolAllocator<U>& b) noexcept {
  return a.pool() == b.pool();
}
template <class T, class U>
bool operator!=(const PoolAllocator<T>& a, const PoolAllocator<U>& b) noexcept {
  return !(a == b);
}

// A section's pairs: names as the API's strings, values and the table's own
// blocks from the pool of the archiver.
using Value = std::basic_string<char, std::char_traits<char>, PoolAllocator<char> >;
using KeyTable =
    std::unordered_map<SafeString, Value, std::hash<SafeString>, std::equal_to<SafeString>,
                       PoolAllocator<std::pair<const SafeString, Value> > >;
using SectionTable =
    std::unordered_map<SafeString, KeyTable, std::hash<SafeString>, std::equal_to<SafeString>,
                       debug::Allocator<std::pair<const SafeString, KeyTable> > >;

// The section table: section name -> (key -> value). The pool is declared
// first, so that it outlives the tables drawing on it.
struct ArchiverPrivate {
  ArchiverPrivate() = default;
  ArchiverPrivate(const ArchiverPrivate&) = delete;
  ArchiverPrivate& operator=(const ArchiverPrivate&) = delete;

  // Empties the table and gives the pool's chunks back.
  void release() noexcept {
    sections.clear();
    pool.release();
  }
  KeyTable newKeys() {
    return KeyTable(0, std::hash<SafeString>(), std::equal_to<SafeString>(),
                    PoolAllocator<char>(&pool));
  }
  Value newValue(const char* text, std::size_t size) {
    return Value(text, size, PoolAllocator<char>(&pool));
  }

  BlockPool pool;
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
void ParseLines(detail::ArchiverPrivate& table, Lines& lines) {
  detail::SectionTable& sections = table.sections;
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

  auto current = sections.emplace(Trimmed(line + 1, size - 2), table.newKeys()).first;
  while (lines.next(line, size)) {
    const char* equals = static_cast<const char*>(std::memchr(line, '=', size));
    if (equals == nullptr) {
      if (!IsHeader(line, size)) continue;
      auto made = sections.emplace(Trimmed(line + 1, size - 2), table.newKeys());
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
                               std::forward_as_tuple(value, valueSize, keys.get_allocator()));
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
template <class Text>
bool ReadsBackAsIs(const Text& text) {
  if (!text.empty() && (IsBlank(text.front()) || IsBlank(text.back()))) return false;
  static constexpr char kLineEnds[] = {'\r', '\n', '\0'};
  return text.find_first_of(kLineEnds, 0, sizeof(kLineEnds)) == Text::npos;
}

}  // namespace

Archiver::Archiver() {
  d_ =
      lang::AccountedNewOrThrow<detail::ArchiverPrivate>(ZORV_ACCOUNTING_SITE(kSource, "Archiver"));
}

Archiver::~Archiver() { lang::AccountedDelete(d_, ZORV_ACCOUNTING_SITE(kSource, "~Archiver")); }

bool Archiver::parseFile(const SafeString& path) {
  d_->release();
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
  d_->release();
  TextLines lines(text);
  ParseLines(*d_, lines);
  return true;
}

void Archiver::parse(detail::IDataReader& reader) {
  d_->release();
  ReaderLines lines(reader);
  ParseLines(*d_, lines);
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
  out.assign(pair->second.data(), pair->second.size());
  return true;
}

bool Archiver::setValue(const SafeString& section, const SafeString& key, const SafeString& value) {
  if (!IsStorableName(section) || !IsStorableName(key)) return false;
  // Either the pair is stored or, when memory runs out, nothing changes: a
  // new section is made complete with its key before it joins the table.
  detail::SectionTable& sections = d_->sections;
  auto found = sections.find(section);
  if (found == sections.end()) {
    detail::KeyTable keys = d_->newKeys();
    keys.emplace(key, d_->newValue(value.data(), value.size()));
    sections.emplace(section, std::move(keys));
    return true;
  }
  auto pair = found->second.find(key);
  if (pair != found->second.end()) {
    pair->second.assign(value.data(), value.size());
  } else {
    found->second.emplace(key, d_->newValue(value.data(), value.size()));
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
  // A table holds one such section at most (a parse keeps only its first
  // header's, setValue takes none), and it is written first.
  auto first = sections.end();
  size_t total = 0;
  for (auto section = sections.begin(); section != sections.end(); ++section) {
    if (!ReadsBackAsIs(section->first)) return false;
    if (section->first.find('=') != SafeString::npos) first = section;
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
      text.append(pair.second.data(), pair.second.size());
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
