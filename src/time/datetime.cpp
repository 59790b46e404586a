// DateTime: conversions between seconds, calendar fields and text.
#include "foundation/time/datetime.h"

#include <sys/time.h>
#include <time.h>

#include "text/numberdigits.h"

namespace zorv {
namespace foundation {
namespace time {
namespace {

// The low 32 bits of `seconds` as a signed time.
time_t Low32(unsigned long long seconds) {
  return static_cast<time_t>(static_cast<std::int32_t>(static_cast<std::uint32_t>(seconds)));
}

// Writes `value` with at least two digits (as "%02d" does) so that it ends
// just before `end`; returns the first digit's address.
char* PutPadded(unsigned int value, char* end) {
  if (value >= 10) return text::numberdigits::WriteDigits(value, end);
  end -= 2;
  text::numberdigits::WritePair(value, end);
  return end;
}

}  // namespace

DateTime::DateTime() {
  struct timeval now = {0, 0};
  gettimeofday(&now, nullptr);
  _init(static_cast<unsigned long long>(now.tv_sec), static_cast<int>(now.tv_usec / 1000),
        static_cast<int>(now.tv_usec % 1000));
}

DateTime::DateTime(unsigned long long seconds, int millisecond, int microsecond) {
  _init(seconds, millisecond, microsecond);
}

DateTime::DateTime(int year, int month, int day, int hour, int minute, int second, int millisecond,
                   int microsecond) {
  struct tm fields = {};
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_sec = second;
  fields.tm_isdst = -1;
  const long long seconds = static_cast<long long>(mktime(&fields));
  _init(static_cast<unsigned long long>(seconds), millisecond, microsecond);
}

void DateTime::_init(unsigned long long seconds, int millisecond, int microsecond) {
  time_t when = Low32(seconds);
  if (when < 0) when = 0;
  if (millisecond >= 1000) millisecond = 0;
  if (microsecond >= 1000) microsecond = 0;
  struct tm fields = {};
  localtime_r(&when, &fields);
  year_ = static_cast<std::uint16_t>(fields.tm_year + 1900);
  month_ = static_cast<std::uint8_t>(fields.tm_mon + 1);
  day_ = static_cast<std::uint8_t>(fields.tm_mday);
  hour_ = static_cast<std::uint8_t>(fields.tm_hour);
  minute_ = static_cast<std::uint8_t>(fields.tm_min);
  second_ = static_cast<std::uint8_t>(fields.tm_sec);
  millisecond_ = static_cast<std::uint16_t>(millisecond);
  microsecond_ = static_cast<std::uint16_t>(microsecond);
}

std::uint16_t DateTime::year() const { return year_; }
std::uint8_t DateTime::month() const { return month_; }
std::uint8_t DateTime::day() const { return day_; }
std::uint8_t DateTime::hour() const { return hour_; }
std::uint8_t DateTime::minute() const { return minute_; }
std::uint8_t DateTime::second() const { return second_; }
std::uint16_t DateTime::millisecond() const { return millisecond_; }
std::uint16_t DateTime::microsecond() const { return microsecond_; }

long long DateTime::toSeconds() const {
  struct tm fields = {};
  fields.tm_year = static_cast<int>(year_) - 1900;
  fields.tm_mon = static_cast<int>(month_) - 1;
  fields.tm_mday = day_;
  fields.tm_hour = hour_;
  fields.tm_min = minute_;
  fields.tm_sec = second_;
  fields.tm_isdst = -1;
  return static_cast<long long>(mktime(&fields));
}

long long DateTime::toMilliseconds() const {
  return toSeconds() * 1000LL + static_cast<long long>(millisecond_);
}

SafeString DateTime::toString() const {
  // "%d-%02d-%02d %02d:%02d:%02d" of the fields, written back to front.
  const unsigned int fields[] = {month_, day_, hour_, minute_, second_};
  const char before[] = "-- ::";
  char out[32];
  char* const end = out + sizeof out;
  char* first = end;
  for (int i = 4; i >= 0; --i) {
    first = PutPadded(fields[i], first);
    *--first = before[i];
  }
  first = text::numberdigits::WriteDigits(year_, first);
  try {
    return SafeString(first, static_cast<size_t>(end - first));
  } catch (...) {
    return SafeString();
  }
}

DateTime DateTime::ToGMT(unsigned long long seconds) {
  DateTime result;
  const time_t when = Low32(seconds);
  struct tm fields = {};
  if (gmtime_r(&when, &fields) == nullptr) return result;
  result.year_ = static_cast<std::uint16_t>(fields.tm_year + 1900);
  result.month_ = static_cast<std::uint8_t>(fields.tm_mon + 1);
  result.day_ = static_cast<std::uint8_t>(fields.tm_mday);
  result.hour_ = static_cast<std::uint8_t>(fields.tm_hour);
  result.minute_ = static_cast<std::uint8_t>(fields.tm_min);
  result.second_ = static_cast<std::uint8_t>(fields.tm_sec);
  return result;
}

DateTime DateTime::CurrentGMT() {
  return ToGMT(static_cast<unsigned long long>(DateTime().toSeconds()));
}

}  // namespace time
}  // namespace foundation
}  // namespace zorv
