// MD5, SHA-1 and SHA-256 throughput against OpenSSL in the same run: 1 MiB
// blocks in memory, the same data in 4096-byte pieces, and a 100 MB file.
// For the integer-only comparison of SHA-256, run with OPENSSL_ia32cap=0:0
// and the filter 'SHA256_(ZorvPortable|OpenSSL)_1MiB'.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "foundation/collection/vector.h"
#include "foundation/crypto/md5.h"
#include "foundation/crypto/sha1.h"
#include "foundation/crypto/sha256.h"

#if defined(ZORV_BENCH_OPENSSL)
#include <openssl/evp.h>
#endif

namespace {

using zorv::foundation::collection::Vector;
using zorv::foundation::crypto::MD5;
using zorv::foundation::crypto::SHA1;
using zorv::foundation::crypto::SHA256;
namespace detail = zorv::foundation::crypto::detail;

constexpr size_t kMiB = 1 << 20;

const std::vector<unsigned char>& Data() {
  static const std::vector<unsigned char> data = [] {
    std::vector<unsigned char> bytes(kMiB);
    std::mt19937 random(1u);
    for (unsigned char& b : bytes) b = static_cast<unsigned char>(random());
    return bytes;
  }();
  return data;
}

template <class Digest>
void ZorvOneShot(benchmark::State& state) {
  const std::vector<unsigned char>& data = Data();
  for (auto _ : state) {
    Vector<unsigned char> digest =
        Digest::ComputeBinary(data.data(), static_cast<unsigned int>(data.size()));
    benchmark::DoNotOptimize(digest.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kMiB);
}

template <class Digest>
void ZorvPieces4096(benchmark::State& state) {
  const std::vector<unsigned char>& data = Data();
  for (auto _ : state) {
    Digest digest;
    for (size_t at = 0; at < data.size(); at += 4096) digest.addData(data.data() + at, 4096);
    Vector<unsigned char> result = digest.result();
    benchmark::DoNotOptimize(result.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kMiB);
}

void BM_MD5_Zorv_1MiB(benchmark::State& state) { ZorvOneShot<MD5>(state); }
void BM_MD5_Zorv_Pieces4096(benchmark::State& state) { ZorvPieces4096<MD5>(state); }
void BM_SHA1_Zorv_1MiB(benchmark::State& state) {
  state.SetLabel(detail::_UseSha1Instructions(true) ? "SHA instructions" : "portable");
  ZorvOneShot<SHA1>(state);
}
void BM_SHA1_Zorv_Pieces4096(benchmark::State& state) {
  detail::_UseSha1Instructions(true);
  ZorvPieces4096<SHA1>(state);
}
void BM_SHA1_ZorvPortable_1MiB(benchmark::State& state) {
  detail::_UseSha1Instructions(false);
  ZorvOneShot<SHA1>(state);
  detail::_UseSha1Instructions(true);
}

void BM_SHA256_Zorv_1MiB(benchmark::State& state) {
  state.SetLabel(detail::_UseSha256Instructions(true) ? "SHA instructions" : "portable");
  ZorvOneShot<SHA256>(state);
}
void BM_SHA256_Zorv_Pieces4096(benchmark::State& state) {
  detail::_UseSha256Instructions(true);
  ZorvPieces4096<SHA256>(state);
}
void BM_SHA256_ZorvPortable_1MiB(benchmark::State& state) {
  detail::_UseSha256Instructions(false);
  ZorvOneShot<SHA256>(state);
  detail::_UseSha256Instructions(true);
}

BENCHMARK(BM_MD5_Zorv_1MiB);
BENCHMARK(BM_MD5_Zorv_Pieces4096);
BENCHMARK(BM_SHA1_Zorv_1MiB);
BENCHMARK(BM_SHA1_Zorv_Pieces4096);
BENCHMARK(BM_SHA1_ZorvPortable_1MiB);
BENCHMARK(BM_SHA256_Zorv_1MiB);
BENCHMARK(BM_SHA256_Zorv_Pieces4096);
BENCHMARK(BM_SHA256_ZorvPortable_1MiB);

#if defined(ZORV_BENCH_OPENSSL)
void OpenSslOneShot(benchmark::State& state, const EVP_MD* md) {
  const std::vector<unsigned char>& data = Data();
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  for (auto _ : state) {
    EVP_Digest(data.data(), data.size(), digest, &length, md, nullptr);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kMiB);
}
void BM_MD5_OpenSSL_1MiB(benchmark::State& state) { OpenSslOneShot(state, EVP_md5()); }
void BM_SHA1_OpenSSL_1MiB(benchmark::State& state) { OpenSslOneShot(state, EVP_sha1()); }
BENCHMARK(BM_MD5_OpenSSL_1MiB);
void BM_SHA256_OpenSSL_1MiB(benchmark::State& state) { OpenSslOneShot(state, EVP_sha256()); }
BENCHMARK(BM_SHA1_OpenSSL_1MiB);
BENCHMARK(BM_SHA256_OpenSSL_1MiB);
#endif

// A 100 MB file of random bytes under $TMPDIR (or /tmp), made once and
// removed at exit.
class BigFile {
 public:
  BigFile() {
    const char* base = getenv("TMPDIR");
    path_ = std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") +
            "/zorv-digest-bench-XXXXXX";
    std::vector<char> name(path_.begin(), path_.end());
    name.push_back('\0');
    const int fd = mkstemp(name.data());
    if (fd < 0) return;
    path_ = name.data();
    const std::vector<unsigned char>& data = Data();
    for (int i = 0; i < 100; ++i) {
      // Vary each MiB a little so the file is not one block repeated.
      std::vector<unsigned char> chunk(data);
      chunk[0] = static_cast<unsigned char>(i);
      if (write(fd, chunk.data(), chunk.size()) != static_cast<ssize_t>(chunk.size())) break;
      ok_ = i + 1;
    }
    close(fd);
  }
  ~BigFile() { unlink(path_.c_str()); }
  bool ready() const { return ok_ == 100; }
  const char* path() const { return path_.c_str(); }

 private:
  std::string path_;
  int ok_ = 0;
};

BigFile& File() {
  static BigFile file;
  return file;
}

template <class Digest>
void ZorvFile(benchmark::State& state) {
  if (!File().ready()) {
    state.SkipWithError("cannot write the 100 MB file");
    return;
  }
  Vector<unsigned char> digest;
  for (auto _ : state) {
    if (!Digest::ComputeFile(File().path(), digest)) state.SkipWithError("read failed");
    benchmark::DoNotOptimize(digest.data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 100 * kMiB);
}

void BM_MD5_Zorv_File100MB(benchmark::State& state) { ZorvFile<MD5>(state); }
void BM_SHA1_Zorv_File100MB(benchmark::State& state) {
  detail::_UseSha1Instructions(true);
  ZorvFile<SHA1>(state);
}
void BM_SHA256_Zorv_File100MB(benchmark::State& state) {
  detail::_UseSha256Instructions(true);
  ZorvFile<SHA256>(state);
}
BENCHMARK(BM_MD5_Zorv_File100MB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SHA256_Zorv_File100MB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SHA1_Zorv_File100MB)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
