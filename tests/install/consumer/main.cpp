// A program outside the project that uses the installed library.
#include <cstdio>

#include "foundation/foundation.h"

int main() {
  using zorv::foundation::SafeString;
  SafeString text("installed package");
  zorv::foundation::collection::Vector<SafeString> words;
  words.push_back(text);
  try {
    throw zorv::foundation::lang::Exception("zorv.consumer.Main.main", "thrown");
  } catch (const zorv::foundation::lang::Exception& e) {
    if (e.what() != "zorv.consumer.Main.main : thrown") return 1;
  }
  if (zorv::foundation::debug::MemoryMonitor::LiveBlocks() == 0) return 2;
  std::printf("consumer ok: %s\n", words[0].c_str());
  return 0;
}
