// Fuzz target: Archiver::parseText over arbitrary text, then the access
// operations over whatever was stored.
#include <cstddef>
#include <cstdint>
#include <string>

#include "foundation/config/configarchiver.h"
#include "foundation/lang/exception.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);  // adds the terminating NUL
  zorv::foundation::config::Archiver archiver;
  try {
    archiver.parseText(text.c_str());
  } catch (const zorv::foundation::lang::Exception& error) {
    // Repeated sections and keys: what was stored before stays usable.
    (void)error.what();
  }
  for (const auto& section : archiver.allSections()) {
    if (!archiver.contains(section)) __builtin_trap();
    for (const auto& key : archiver.allKeys(section)) {
      zorv::foundation::SafeString value;
      if (!archiver.value(section, key, value)) __builtin_trap();
    }
  }
  (void)archiver.setValue("fuzz", "key", text.c_str());
  (void)archiver.remove("fuzz", "key");
  return 0;
}
