#include "foundation/time/datetime.h"

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <memory>
#include <string>
#include <utility>

#include "support/leakcheck.h"

namespace {

using zorv::foundation::time::DateTime;

// Runs the test in a chosen time zone (POSIX TZ rules, no zone files
// needed) and restores the previous one.
class DateTimeTest : public zorv::test::LeakCheckedTest {
 protected:
  void TearDown() override {
    saved_ != nullptr ? setenv("TZ", saved_->c_str(), 1) : unsetenv("TZ");
    tzset();
    zorv::test::LeakCheckedTest::TearDown();
  }
  static void Zone(const char* tz) {
    setenv("TZ", tz, 1);
    tzset();
  }

 private:
  const char* const tz_ = getenv("TZ");
  const std::unique_ptr<std::string> saved_{tz_ != nullptr ? new std::string(tz_) : nullptr};
};

std::string Text(const DateTime& value) { return value.toString().c_str(); }

// Fields out of range normalise as mktime does; of seconds, the low 32 bits
// count and a negative time is taken as the epoch; a millisecond or
// microsecond from 1000 on reads as 0, one below 0 as its low 16 bits. The
// accessors give the fields of the text.
TEST_F(DateTimeTest, FieldsNormaliseAndSecondsAndFractionsAreClamped) {
  Zone("UTC0");
  struct Case {
    int fields[6];  // year to second; none: `seconds` instead
    unsigned long long seconds;
    int millisecond, microsecond;
    const char* text;
    unsigned int expectMillisecond, expectMicrosecond;
  };
  // clang-format off
  const Case cases[] = {
      {{2024, 2, 30, 0, 0, 0}, 0, 12, 34, "2024-03-01 00:00:00", 12, 34},
      {{2024, 1, 0, 0, 0, 0}, 0, 12, 34, "2023-12-31 00:00:00", 12, 34},
      {{1999, 12, 31, 23, 59, 59}, 0, 999, 999, "1999-12-31 23:59:59", 999, 999},
      {{2024, 7, 4, 9, 5, 3}, 0, 1000, 1000, "2024-07-04 09:05:03", 0, 0},
      {{}, 86400ULL, 999, 999, "1970-01-02 00:00:00", 999, 999},
      {{}, 0x80000000ULL, 1000, 1000, "1970-01-01 00:00:00", 0, 0},  // low 32 bits negative
      {{}, 0x7FFFFFFFULL, -1, -1, "2038-01-19 03:14:07", 65535, 65535},
      {{}, 0x100000000ULL + 86400ULL, 0, 0, "1970-01-02 00:00:00", 0, 0}};  // high bits dropped
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const int* f = c.fields;
    const DateTime value =
        f[0] == 0 ? DateTime(c.seconds, c.millisecond, c.microsecond)
                  : DateTime(f[0], f[1], f[2], f[3], f[4], f[5], c.millisecond, c.microsecond);
    EXPECT_EQ(Text(value), c.text);
    char fields[64];
    snprintf(fields, sizeof fields, "%04d-%02d-%02d %02d:%02d:%02d", value.year(), value.month(),
             value.day(), value.hour(), value.minute(), value.second());
    EXPECT_EQ(std::string(fields), c.text);
    EXPECT_EQ(value.millisecond(), c.expectMillisecond);
    EXPECT_EQ(value.microsecond(), c.expectMicrosecond);
  }
  zorv::test::FailAfterGuard fail(1);
  EXPECT_TRUE(DateTime(0ULL, 0, 0).toString().empty()) << "no memory for the text";
}

// The current second of the precise wall clock. time() may read a coarse
// clock that turns to the next second a tick later.
long long RealSeconds() {
  timespec now = {0, 0};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<long long>(now.tv_sec);
}

// In UTC and three hours east of it: the fields are local time, seconds and
// milliseconds round trip, Now is the current time, ToGMT gives UTC fields
// and CurrentGMT is the UTC time.
TEST_F(DateTimeTest, LocalFieldsNowToGmtAndCurrentGmtInTwoZones) {
  const long long utc = 1704164645LL;  // 2024-01-02 03:04:05 UTC
  const std::pair<const char*, long long> zones[] = {{"UTC0", 0}, {"ZRV-3", 3 * 3600}};
  for (const auto& [tz, offset] : zones) {  // offset: seconds east of UTC
    SCOPED_TRACE(tz);
    Zone(tz);
    const DateTime value(2024, 1, 2, 3, 4, 5, 999, 7);
    EXPECT_EQ(value.toSeconds(), utc - offset) << "fields are local time";
    EXPECT_EQ(Text(DateTime(0ULL, 0, 0)),
              offset == 0 ? "1970-01-01 00:00:00" : "1970-01-01 03:00:00");
    const DateTime back(static_cast<unsigned long long>(utc), 5, 6);
    EXPECT_EQ(back.toSeconds(), utc) << "round trip";
    EXPECT_EQ(back.toMilliseconds(), utc * 1000 + 5) << "the microsecond is ignored";
    const long long before = RealSeconds();
    const DateTime now;
    EXPECT_GE(now.toSeconds(), before);
    EXPECT_LE(now.toSeconds(), RealSeconds());
    // ToGMT takes the low 32 bits as signed.
    // clang-format off
    const std::pair<unsigned long long, const char*> gmt[] = {
        {utc, "2024-01-02 03:04:05"}, {0xFFFFFFFFULL, "1969-12-31 23:59:59"},
        {0x100000000ULL, "1970-01-01 00:00:00"}};
    // clang-format on
    for (const auto& c : gmt) EXPECT_EQ(Text(DateTime::ToGMT(c.first)), c.second) << c.first;
    // CurrentGMT is ToGMT of the current second (retried across a boundary).
    std::string current, expected;
    for (int attempt = 0; attempt < 5 && (attempt == 0 || current != expected); ++attempt) {
      const unsigned long long second = static_cast<unsigned long long>(RealSeconds());
      current = Text(DateTime::CurrentGMT());
      expected = Text(DateTime::ToGMT(second));
    }
    EXPECT_EQ(current, expected);
  }
}

}  // namespace
