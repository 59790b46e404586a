// Whether this processor has the SHA instructions the accelerated digest
// transforms use. Private to the library.
#ifndef ZORV_SRC_CRYPTO_SHAFEATURES_H_
#define ZORV_SRC_CRYPTO_SHAFEATURES_H_

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#elif defined(__arm__) || defined(__aarch64__)
#include <sys/auxv.h>
#endif

namespace zorv {
namespace foundation {
namespace crypto {
namespace internal {

#if defined(__x86_64__) || defined(__i386__)

// The x86 SHA extensions (SHA-1 and SHA-256 alike), with the SSSE3 and
// SSE4.1 instructions the transforms also use.
inline bool HasShaExtensions() {
  unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0) return false;
  const bool ssse3 = (ecx & (1u << 9)) != 0;
  const bool sse41 = (ecx & (1u << 19)) != 0;
  if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) == 0) return false;
  const bool sha = (ebx & (1u << 29)) != 0;
  return ssse3 && sse41 && sha;
}

#elif defined(__arm__) || defined(__aarch64__)

// The SHA-1 and SHA-256 parts of the ARMv8 cryptographic extension, as the
// kernel reports them.
inline bool HasArmv8Sha1() {
#if defined(__aarch64__)
  return (getauxval(AT_HWCAP) & (1ul << 5)) != 0;  // HWCAP_SHA1
#else
  return (getauxval(AT_HWCAP2) & (1ul << 2)) != 0;  // HWCAP2_SHA1
#endif
}

inline bool HasArmv8Sha256() {
#if defined(__aarch64__)
  return (getauxval(AT_HWCAP) & (1ul << 6)) != 0;  // HWCAP_SHA2
#else
  return (getauxval(AT_HWCAP2) & (1ul << 3)) != 0;  // HWCAP2_SHA2
#endif
}

#endif

}  // namespace internal
}  // namespace crypto
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_SRC_CRYPTO_SHAFEATURES_H_
