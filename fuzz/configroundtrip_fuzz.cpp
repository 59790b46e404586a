// Fuzz target: a configuration table from parseText and setValue, written
// by saveAs and read back by parseFile, must come back exactly as it was
// set; a table that saveAs refuses must hold something that cannot be
// written as it is.
//
// Input: the text to parse, then after each 0x01 byte one setValue call
// whose section, key and value are separated by 0x02 bytes.
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "foundation/config/configarchiver.h"
#include "foundation/lang/exception.h"

using zorv::foundation::SafeString;
using zorv::foundation::config::Archiver;

namespace {

using Table = std::map<std::string, std::map<std::string, std::string> >;

std::string S(const SafeString& s) { return std::string(s.data(), s.size()); }
SafeString Z(const std::string& s) { return SafeString(s.data(), s.size()); }

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

std::vector<std::string> SplitAt(const std::string& text, char separator) {
  std::vector<std::string> pieces(1);
  for (char c : text) {
    if (c == separator) {
      pieces.emplace_back();
    } else {
      pieces.back() += c;
    }
  }
  return pieces;
}

// Written on a line and read back (trimmed, split at line ends), the same.
bool Plain(const std::string& text) {
  if (!text.empty() &&
      (text.front() == ' ' || text.front() == '\t' || text.back() == ' ' || text.back() == '\t')) {
    return false;
  }
  return text.find_first_of(std::string("\r\n\0", 3)) == std::string::npos;
}

// Whether a saved file can read back into exactly this table.
bool Savable(const Table& table) {
  int withEquals = 0;
  for (const auto& section : table) {
    if (!Plain(section.first)) return false;
    if (section.first.find('=') != std::string::npos) ++withEquals;
    for (const auto& pair : section.second) {
      if (!Plain(pair.first) || pair.first.find('=') != std::string::npos) return false;
      if (!Plain(pair.second)) return false;
    }
  }
  return withEquals <= 1;
}

char g_folder[] = "/tmp/zorv-configroundtrip-XXXXXX";

// The file that every run saves to, in a folder of its own that is removed
// when the fuzzer exits.
const std::string& ScratchPath() {
  static const std::string path = [] {
    if (mkdtemp(g_folder) == nullptr) abort();
    std::atexit([] {
      unlink((std::string(g_folder) + "/saved.ini").c_str());
      rmdir(g_folder);
    });
    return std::string(g_folder) + "/saved.ini";
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<std::string> parts =
      SplitAt(std::string(reinterpret_cast<const char*>(data), size), '\x01');
  Archiver archiver;
  try {
    (void)archiver.parseText(parts[0].c_str());
  } catch (const zorv::foundation::lang::Exception&) {
    // A repeated name: the table keeps what came before it.
  }
  Table expected = Dump(archiver);
  for (size_t i = 1; i < parts.size(); ++i) {
    std::vector<std::string> fields = SplitAt(parts[i], '\x02');
    fields.resize(3);
    if (archiver.setValue(Z(fields[0]), Z(fields[1]), Z(fields[2]))) {
      expected[fields[0]][fields[1]] = fields[2];
    }
  }
  if (Dump(archiver) != expected) abort();

  const std::string& path = ScratchPath();
  unlink(path.c_str());
  const bool saved = archiver.saveAs(path.c_str());
  if (saved != Savable(expected)) abort();
  if (Dump(archiver) != expected) abort();
  if (!saved) {
    if (access(path.c_str(), F_OK) == 0) abort();
    return 0;
  }
  Archiver reread;
  try {
    if (!reread.parseFile(path.c_str())) abort();
  } catch (const zorv::foundation::lang::Exception&) {
    abort();
  }
  if (Dump(reread) != expected) abort();
  return 0;
}
