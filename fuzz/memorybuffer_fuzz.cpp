// Fuzz target: a MemoryBuffer driven by a program of writes (also from its
// own bytes), reads, seeks, shrinking, Serialize and Deserialize, checked
// step by step against a plain model; length prefixes near 2^32 and 2^64
// are planted in the buffer and announced by a stream that claims that many
// bytes, with the first allocation failing.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

#include "foundation/debug/memorymonitor.h"
#include "foundation/io/serialization.h"
#include "foundation/memory/memorybuffer.h"

using zorv::foundation::SafeString;
using zorv::foundation::debug::MemoryMonitor;
using zorv::foundation::io::Deserialize;
using zorv::foundation::io::IStream;
using zorv::foundation::io::Serialize;
using zorv::foundation::memory::MemoryBuffer;

namespace {

// The input, taken from the front; zeros once it runs out.
class Program {
 public:
  Program(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool done() const { return at_ >= size_; }
  uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
  unsigned int word() { return byte() | (static_cast<unsigned int>(byte()) << 8); }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

// What the buffer must hold: its bytes and both positions.
struct Model {
  std::vector<unsigned char> bytes;
  unsigned long long read = 0;
  unsigned long long write = 0;

  void put(const unsigned char* data, size_t n) {
    std::vector<unsigned char> copy(data, data + n);  // `data` may be in the buffer
    if (bytes.size() < write + n) bytes.resize(write + n);
    if (n != 0) std::memcpy(bytes.data() + write, copy.data(), n);
    write += n;
  }
};

// Length prefixes around the 32-bit and 64-bit limits.
unsigned long long HostilePrefix(Program& program) {
  static const unsigned long long kBases[] = {
      0xFFFFFFFFull, 0x100000000ull, 0x7FFFFFFFull,         0x80000000ull,
      ~0ull,         ~0ull - 7,      0x8000000000000000ull, 0xFFFFFFFF00000000ull,
  };
  const unsigned long long base = kBases[program.byte() % 8];
  const signed char delta = static_cast<signed char>(program.byte());
  return base + static_cast<unsigned long long>(static_cast<long long>(delta));
}

// A stream holding one length prefix that claims as many bytes behind it as
// the prefix announces, without holding them ('z' is read there).
class PromisingStream : public IStream {
 public:
  explicit PromisingStream(unsigned long long prefix)
      : prefix_(prefix), claimed_(prefix > ~0ull - 8 ? ~0ull - 8 : prefix) {}
  void write(const unsigned char*, unsigned long long) override {}
  bool read(unsigned char* data, unsigned long long n) override {
    if (n > length() - position_) return false;
    for (unsigned long long i = 0; i < n; ++i, ++position_) {
      data[i] = position_ < 8 ? reinterpret_cast<const unsigned char*>(&prefix_)[position_] : 'z';
    }
    return true;
  }
  unsigned long long length() const override { return 8 + claimed_; }
  unsigned long long setLength(unsigned long long) override { return length(); }
  unsigned long long tellRead() const override { return position_; }
  unsigned long long tellWrite() const override { return 0; }
  unsigned long long seekRead(unsigned long long p) override {
    const unsigned long long previous = position_;
    if (p <= length()) position_ = p;
    return previous;
  }
  unsigned long long seekWrite(unsigned long long) override { return 0; }

 private:
  unsigned long long prefix_;
  unsigned long long claimed_;
  unsigned long long position_ = 0;
};

void Check(const MemoryBuffer& buffer, const Model& model) {
  if (buffer.length() != model.bytes.size() || buffer.tellRead() != model.read ||
      buffer.tellWrite() != model.write) {
    std::abort();
  }
  if (!model.bytes.empty() &&
      std::memcmp(buffer.data(), model.bytes.data(), model.bytes.size()) != 0) {
    std::abort();
  }
}

// Deserialize over a stream that promises the announced bytes: either a
// string of 'z' (when it needs no allocation), false for a length beyond 32
// bits, or an exception with the read position put back.
void DeserializePromised(unsigned long long prefix) {
  PromisingStream stream(prefix);
  SafeString value("kept");
  MemoryMonitor::FailAfter(1);
  bool ok = false;
  bool threw = false;
  try {
    ok = Deserialize(&stream, value);
  } catch (const std::bad_alloc&) {
    threw = true;
  } catch (const std::length_error&) {
    threw = true;
  }
  MemoryMonitor::FailAfter(0);
  if (threw) {
    if (stream.tellRead() != 0 || value != "kept") std::abort();
  } else if (ok) {
    if (value.size() != prefix || value.find_first_not_of('z') != SafeString::npos) std::abort();
  } else if (prefix <= 0xFFFFFFFFull || stream.tellRead() != 8 || value != "kept") {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Program program(data, size);
  MemoryBuffer buffer;
  Model model;
  for (int step = 0; step < 64 && !program.done(); ++step) {
    const size_t length = model.bytes.size();
    switch (program.byte() % 10) {
      case 0: {  // literal bytes
        unsigned char chunk[64];
        const size_t n = program.byte() % sizeof(chunk);
        for (size_t i = 0; i < n; ++i) chunk[i] = program.byte();
        buffer.write(chunk, n);
        model.put(chunk, n);
        break;
      }
      case 1: {  // bytes of the buffer itself
        const size_t from = program.word() % (length + 1);
        const size_t n = program.word() % (length - from + 1);
        if (length == 0) break;
        model.put(buffer.data() + from, n);
        buffer.write(buffer.data() + from, n);
        break;
      }
      case 2: {
        const unsigned long long p = program.word() % (length + 4);
        if (buffer.seekRead(p) != model.read) std::abort();
        if (p <= length) model.read = p;
        break;
      }
      case 3: {
        const unsigned long long p = program.word() % (length + 4);
        if (buffer.seekWrite(p) != model.write) std::abort();
        if (p <= length) model.write = p;
        break;
      }
      case 4: {
        unsigned char out[64];
        const size_t n = program.byte() % sizeof(out);
        const bool fits = length - model.read >= n;
        if (buffer.read(out, n) != fits) std::abort();
        if (fits) {
          if (n != 0 && std::memcmp(out, model.bytes.data() + model.read, n) != 0) std::abort();
          model.read += n;
        }
        break;
      }
      case 5: {
        SafeString value(program.byte() % 40, '\0');
        for (char& c : value) c = static_cast<char>(program.byte());
        Serialize(&buffer, value);
        const unsigned long long prefix = value.size();
        model.put(reinterpret_cast<const unsigned char*>(&prefix), 8);
        model.put(reinterpret_cast<const unsigned char*>(value.data()), value.size());
        break;
      }
      case 6: {
        SafeString value("kept");
        const bool ok = Deserialize(&buffer, value);
        bool expected = false;
        if (length - model.read >= 8) {
          unsigned long long prefix;
          std::memcpy(&prefix, model.bytes.data() + model.read, 8);
          model.read += 8;
          if (prefix <= length - model.read) {
            if (value.size() != prefix ||
                (prefix != 0 && std::memcmp(value.data(), model.bytes.data() + model.read,
                                            static_cast<size_t>(prefix)) != 0)) {
              std::abort();
            }
            model.read += prefix;
            expected = true;
          }
        }
        if (ok != expected || (!ok && value != "kept")) std::abort();
        break;
      }
      case 7: {  // a planted hostile prefix
        const unsigned long long prefix = HostilePrefix(program);
        buffer.write(reinterpret_cast<const unsigned char*>(&prefix), 8);
        model.put(reinterpret_cast<const unsigned char*>(&prefix), 8);
        break;
      }
      case 8: {  // shrink (growth leaves undefined bytes)
        const unsigned long long n = program.word() % (length + 1);
        if (buffer.setLength(n) != length) std::abort();
        model.bytes.resize(static_cast<size_t>(n));
        model.read = 0;
        model.write = 0;
        break;
      }
      default:
        DeserializePromised(HostilePrefix(program));
        break;
    }
    Check(buffer, model);
  }
  return 0;
}
