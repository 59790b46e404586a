// SafeString: the library's string type, the standard string over the
// accounted allocator.
#ifndef ZORV_FOUNDATION_TEXT_SAFESTRING_H_
#define ZORV_FOUNDATION_TEXT_SAFESTRING_H_

#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "foundation/debug/allocator.h"

namespace zorv {
namespace foundation {
namespace text {

// The standard character string with the debug-support allocator and nothing
// else changed: short strings (up to 15 characters) live inside the object, a
// longer one in one heap block of capacity + 1 bytes. The longest length is
// 0x7FFFFFFF; asking for more throws std::length_error. Capacity grows to
// twice the old capacity when that is enough, otherwise to exactly what is
// needed.
//
// Everything std::basic_string offers is available; results that the standard
// string returns by value (substr, operator+) convert back implicitly.
//
// A plain std::string or std::string_view converts implicitly into a
// SafeString (one copy into accounted memory). The way back is explicit:
// `s.str()` or `std::string(s)`; a std::string_view of a SafeString needs no
// copy at all.
template <class C, class T = std::char_traits<C>,
          class A = debug::Allocator<C> >
class SafeString : public std::basic_string<C, T, A> {
 public:
  using Base = std::basic_string<C, T, A>;
  using Base::Base;
  using Base::operator=;

  SafeString() noexcept(noexcept(A())) : Base() {}
  SafeString(const SafeString&) = default;
  SafeString(SafeString&&) noexcept = default;
  SafeString(const Base& other) : Base(other) {}  // NOLINT(google-explicit-constructor)
  SafeString(Base&& other) noexcept : Base(std::move(other)) {}  // NOLINT(google-explicit-constructor)
  // Copies a string of another allocator, std::string among them.
  template <class OtherA,
            class = std::enable_if_t<!std::is_same<OtherA, A>::value> >
  SafeString(const std::basic_string<C, T, OtherA>& other)  // NOLINT(google-explicit-constructor)
      : Base(other.data(), other.size()) {}
  SafeString(std::basic_string_view<C, T> view)  // NOLINT(google-explicit-constructor)
      : Base(view.data(), view.size()) {}
  ~SafeString() = default;

  SafeString& operator=(const SafeString&) = default;
  SafeString& operator=(SafeString&&) noexcept = default;
  SafeString& operator=(const Base& other) {
    Base::operator=(other);
    return *this;
  }
  SafeString& operator=(Base&& other) noexcept {
    Base::operator=(std::move(other));
    return *this;
  }

  // A copy in a plain standard string.
  std::basic_string<C, T> str() const { return std::basic_string<C, T>(this->data(), this->size()); }
  explicit operator std::basic_string<C, T>() const { return str(); }
};

}  // namespace text

// The library's one string type.
using SafeString = text::SafeString<char, std::char_traits<char>,
                                    debug::Allocator<char> >;

}  // namespace foundation
}  // namespace zorv

namespace std {

// The standard string hash, so that SafeString keys unordered containers.
template <class C, class T, class A>
struct hash<zorv::foundation::text::SafeString<C, T, A> > {
  size_t operator()(
      const zorv::foundation::text::SafeString<C, T, A>& s) const noexcept {
    return hash<basic_string_view<C, T> >()(basic_string_view<C, T>(s.data(), s.size()));
  }
};

}  // namespace std

#endif  // ZORV_FOUNDATION_TEXT_SAFESTRING_H_
