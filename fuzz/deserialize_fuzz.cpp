// Fuzzes io::Deserialize over a MemoryBuffer holding arbitrary bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "foundation/io/serialization.h"
#include "foundation/memory/memorybuffer.h"
#include "foundation/memory/stringreader.h"

using zorv::foundation::SafeString;
using zorv::foundation::io::Deserialize;
using zorv::foundation::io::Serialize;
using zorv::foundation::memory::MemoryBuffer;
using zorv::foundation::memory::StringReader;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  MemoryBuffer buffer;
  buffer.write(data, size);
  const SafeString copy(reinterpret_cast<const char*>(data), size);
  StringReader reader(copy);
  MemoryBuffer rewritten;
  for (;;) {
    const unsigned long long before = buffer.tellRead();
    SafeString value("sentinel");
    const bool ok = Deserialize(&buffer, value);
    SafeString fromReader("sentinel");
    if (Deserialize(&reader, fromReader) != ok) std::abort();
    if (!ok) {
      if (value != "sentinel" || fromReader != "sentinel") std::abort();
      break;
    }
    if (value != fromReader) std::abort();
    if (buffer.tellRead() != before + 8 + value.size()) std::abort();
    Serialize(&rewritten, value);
  }
  // What was read serializes back to the same bytes.
  if (rewritten.length() > size) std::abort();
  if (rewritten.length() != 0 && std::memcmp(rewritten.data(), data, rewritten.length()) != 0) {
    std::abort();
  }
  return 0;
}
