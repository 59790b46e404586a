// The accounted standard allocator used by every container of the library.
#ifndef ZORV_FOUNDATION_DEBUG_ALLOCATOR_H_
#define ZORV_FOUNDATION_DEBUG_ALLOCATOR_H_

#include <cstddef>
#include <new>
#include <type_traits>

#include "foundation/debug/memorymonitor.h"

namespace zorv {
namespace foundation {
namespace debug {

// A stateless standard allocator that takes every block from
// MemoryMonitor::Alloc and returns it through MemoryMonitor::Dealloc with the
// size that was asked for. Requests are limited to 32 bits of bytes, so the
// same code behaves alike on 32- and 64-bit targets. All instances compare
// equal.
template <class T>
class Allocator {
 public:
  using value_type = T;
  using pointer = T*;
  using const_pointer = const T*;
  using reference = T&;
  using const_reference = const T&;
  using size_type = std::size_t;
  using difference_type = std::ptrdiff_t;
  using propagate_on_container_move_assignment = std::true_type;
  using is_always_equal = std::true_type;

  template <class U>
  struct rebind {
    using other = Allocator<U>;
  };

  Allocator() noexcept = default;
  Allocator(const Allocator&) noexcept = default;
  template <class U>
  Allocator(const Allocator<U>&) noexcept {}  // NOLINT(google-explicit-constructor)
  Allocator& operator=(const Allocator&) noexcept = default;

  // Returns room for n objects of T.
  // Throws std::bad_alloc when n * sizeof(T) does not fit in 32 bits or when
  // the debug-support library has no memory for a non-zero request.
  T* allocate(size_type n) {
    const unsigned long long bytes =
        static_cast<unsigned long long>(n) * sizeof(T);
    if (bytes > 0xFFFFFFFFull || (sizeof(T) != 0 && n > 0xFFFFFFFFull / sizeof(T))) {
      throw std::bad_alloc();
    }
    unsigned char* block = MemoryMonitor::Alloc(static_cast<unsigned int>(bytes));
    if (block == nullptr && bytes != 0) throw std::bad_alloc();
    return reinterpret_cast<T*>(block);
  }

  // Returns room obtained from allocate(n) with the same n.
  void deallocate(T* p, size_type n) noexcept {
    MemoryMonitor::Dealloc(reinterpret_cast<unsigned char*>(p),
                           static_cast<unsigned int>(n * sizeof(T)));
  }

  // The largest n that allocate accepts.
  size_type max_size() const noexcept {
    return static_cast<size_type>(0xFFFFFFFFu / sizeof(T));
  }
};

template <class T, class U>
inline bool operator==(const Allocator<T>&, const Allocator<U>&) noexcept {
  return true;
}

template <class T, class U>
inline bool operator!=(const Allocator<T>&, const Allocator<U>&) noexcept {
  return false;
}

}  // namespace debug
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_DEBUG_ALLOCATOR_H_
