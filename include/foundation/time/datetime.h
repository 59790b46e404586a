// DateTime: a broken-down calendar time with millisecond and microsecond
// parts.
#ifndef ZORV_FOUNDATION_TIME_DATETIME_H_
#define ZORV_FOUNDATION_TIME_DATETIME_H_

#include <cstdint>

#include "foundation/export.h"
#include "foundation/text/safestring.h"

namespace zorv {
namespace foundation {
namespace time {

// A calendar date and time, in local time (TZ) unless made by ToGMT or
// CurrentGMT. A plain value: copy it freely.
//
// Seconds since the epoch pass through a 32-bit signed time, as they always
// have: dates after January 2038 cannot be represented, and a value whose
// low 32 bits are negative reads as the epoch.
//
// Thread safety: a value; the conversions use the reentrant C library calls,
// but changing TZ while other threads convert is the caller's business.
class ZORV_FOUNDATION_EXPORT DateTime {
 public:
  // The current local time, to the microsecond.
  DateTime();

  // The local time `seconds` after the epoch, with the given parts (see
  // _init for the range rules).
  DateTime(unsigned long long seconds, int millisecond, int microsecond);

  // The local time with these fields; out-of-range fields are normalised as
  // mktime does (month 13 is January of the next year, 30 February is 1 or
  // 2 March). `year` is the full year, `month` 1 to 12.
  DateTime(int year, int month, int day, int hour, int minute, int second, int millisecond,
           int microsecond);

  std::uint16_t year() const;
  std::uint8_t month() const;
  std::uint8_t day() const;
  std::uint8_t hour() const;
  std::uint8_t minute() const;
  std::uint8_t second() const;
  std::uint16_t millisecond() const;
  std::uint16_t microsecond() const;

  // Seconds since the epoch of year..second read as a local time (the
  // millisecond and microsecond are ignored); -1 for a date mktime rejects.
  long long toSeconds() const;

  // toSeconds() * 1000 + millisecond() (the microsecond is ignored).
  long long toMilliseconds() const;

  // "YYYY-MM-DD hh:mm:ss", without the fractional part; "" when memory runs
  // out (nothing is thrown).
  SafeString toString() const;

  // The UTC calendar fields of `seconds` (its low 32 bits), with the
  // millisecond and microsecond of the current time. When the seconds cannot
  // be converted, the current local time.
  static DateTime ToGMT(unsigned long long seconds);

  // The current time in UTC: ToGMT(DateTime().toSeconds()).
  static DateTime CurrentGMT();

 protected:
  // Fills the fields from the local time of the low 32 bits of `seconds`,
  // taken as signed (negative reads as 0). A millisecond or microsecond of
  // 1000 or more becomes 0; a negative one is kept, truncated to 16 bits.
  void _init(unsigned long long seconds, int millisecond, int microsecond);

 private:
  std::uint16_t year_;
  std::uint8_t month_;
  std::uint8_t day_;
  std::uint8_t hour_;
  std::uint8_t minute_;
  std::uint8_t second_;
  std::uint16_t millisecond_;
  std::uint16_t microsecond_;
};

}  // namespace time
}  // namespace foundation
}  // namespace zorv

#endif  // ZORV_FOUNDATION_TIME_DATETIME_H_
