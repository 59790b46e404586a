// Slot arithmetic of fixed-rate timers: where on its grid a timer runs next.
// Private to the library; never installed.
#ifndef ZORV_SRC_THREADING_TIMER_TIMERSLOT_H_
#define ZORV_SRC_THREADING_TIMER_TIMERSLOT_H_

namespace zorv {
namespace foundation {
namespace threading {
namespace detail {

// The first slot last + m * period (m >= 1) that is not before `now`: the
// slots that passed while a run was late or slow are skipped, never caught
// up. A slot past the end of the clock is held at its end (never due). A
// period of 0 has no grid: the next run is due at once.
inline unsigned long long NextSlot(unsigned long long last, unsigned long long period,
                                   unsigned long long now) {
  if (period == 0) return now > last ? now : last;
  if (last > ~0ULL - period) return ~0ULL;
  const unsigned long long next = last + period;
  if (next >= now) return next;
  // now - next is the time behind; round it up to whole periods from next.
  const unsigned long long behind = (now - next) % period;
  const unsigned long long rest = behind == 0 ? 0 : period - behind;
  return now > ~0ULL - rest ? ~0ULL : now + rest;
}

}  // namespace detail
}  // namespace threading
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_SRC_THREADING_TIMER_TIMERSLOT_H_
