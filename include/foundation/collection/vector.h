// Vector: the library's dynamic array, the standard vector over the
// accounted allocator.
#ifndef ZORV_FOUNDATION_COLLECTION_VECTOR_H_
#define ZORV_FOUNDATION_COLLECTION_VECTOR_H_

#include <utility>
#include <vector>

#include "foundation/debug/allocator.h"

namespace zorv {
namespace foundation {
namespace collection {

// The standard dynamic array whose blocks are accounted by the debug-support
// library; nothing else changed. Vector<unsigned char> carries binary data and
// Vector<SafeString> lists of strings.
template <class T>
class Vector : public std::vector<T, debug::Allocator<T> > {
 public:
  using Base = std::vector<T, debug::Allocator<T> >;
  using Base::Base;
  using Base::operator=;

  Vector() noexcept : Base() {}
  Vector(const Vector&) = default;
  Vector(Vector&&) noexcept = default;
  Vector(const Base& other) : Base(other) {}  // NOLINT(google-explicit-constructor)
  Vector(Base&& other) noexcept : Base(std::move(other)) {}  // NOLINT(google-explicit-constructor)
  ~Vector() = default;

  Vector& operator=(const Vector&) = default;
  Vector& operator=(Vector&&) noexcept = default;
};

}  // namespace collection
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_COLLECTION_VECTOR_H_
