// The demo: what a program of the family does with the foundation library.
#include <cstdio>

#include "foundation/foundation.h"

namespace zf = zorv::foundation;

int main() {
  // Strings and vectors take their memory from the debug-support library.
  zf::collection::Vector<zf::SafeString> words;
  for (const char* w : {"strings", "and", "vectors", "are", "accounted", "by", "the",
                        "debug-support", "library"}) {
    words.push_back(zf::SafeString(w));
  }
  zf::SafeString sentence;
  for (const zf::SafeString& w : words) {
    if (!sentence.empty()) sentence += ' ';
    sentence += w;
  }
  std::printf("%s\n", sentence.c_str());
  std::printf("live blocks while the words exist: %llu (%llu bytes)\n",
              zf::debug::MemoryMonitor::LiveBlocks(), zf::debug::MemoryMonitor::LiveBytes());

  try {
    throw zf::lang::Exception("zorv.foundation.demo.Demo.main", "an example failure");
  } catch (const zf::lang::Exception& e) {
    std::printf("caught: %s\n", e.what().c_str());
  }

  words.clear();
  words.shrink_to_fit();
  sentence.clear();
  sentence.shrink_to_fit();
  zf::debug::PrintReport();
  return 0;
}
