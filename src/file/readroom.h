// Size arithmetic of the whole-file readers: sums and growth steps that
// never wrap, whatever the width of size_t. Private to the library.
#ifndef ZORV_SRC_FILE_READROOM_H_
#define ZORV_SRC_FILE_READROOM_H_

namespace zorv {
namespace foundation {
namespace file {
namespace detail {

// The least room a reader grows to once a file turns out longer than it
// said (files under /proc say 0 bytes).
constexpr unsigned long long kFirstRoom = 4096;

// True, with `sum` = a + b, when the sum is at most `limit`; false, leaving
// `sum` alone, when it is larger (or would wrap).
inline bool SumWithin(unsigned long long a, unsigned long long b, unsigned long long limit,
                      unsigned long long& sum) {
  if (a > limit || b > limit - a) return false;
  sum = a + b;
  return true;
}

// The room to grow to when `used` bytes fill a reader's room and `more`
// bytes have still to fit: half as much again (at least kFirstRoom), at
// least used + more, at most `limit`. 0 when used + more exceeds `limit`.
inline unsigned long long GrownRoom(unsigned long long used, unsigned long long more,
                                    unsigned long long limit) {
  unsigned long long needed = 0;
  if (!SumWithin(used, more, limit, needed)) return 0;
  unsigned long long grown = limit;
  (void)SumWithin(used, used / 2, limit, grown);
  if (grown < kFirstRoom) grown = kFirstRoom < limit ? kFirstRoom : limit;
  return grown > needed ? grown : needed;
}

}  // namespace detail
}  // namespace file
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_SRC_FILE_READROOM_H_
