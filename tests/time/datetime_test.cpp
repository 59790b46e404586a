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

// Fields out of range normalise as mktime does; the accessors give the
// fields of the text.
TEST_F(DateTimeTest, FieldsNormaliseAsMktimeDoes) {
  struct Case {
    int year, month, day, hour, minute, second;
    const char* text;
  };
  const Case cases[] = {
      {2024, 2, 30, 0, 0, 0, "2024-03-01 00:00:00"},
      {2024, 1, 0, 0, 0, 0, "2023-12-31 00:00:00"},
      {1999, 12, 31, 23, 59, 59, "1999-12-31 23:59:59"},
      {2024, 7, 4, 9, 5, 3, "2024-07-04 09:05:03"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const DateTime value(c.year, c.month, c.day, c.hour, c.minute, c.second, 12, 34);
    EXPECT_EQ(Text(value), c.text);
    char fields[64];
    snprintf(fields, sizeof fields, "%04d-%02d-%02d %02d:%02d:%02d", value.year(), value.month(),
             value.day(), value.hour(), value.minute(), value.second());
    EXPECT_EQ(std::string(fields), c.text);
    EXPECT_EQ(value.millisecond(), 12);
    EXPECT_EQ(value.microsecond(), 34);
  }
}

// The low 32 bits of the seconds, a negative time taken as the epoch; a
// millisecond or microsecond from 1000 on as 0, one below 0 as its low 16 bits.
TEST_F(DateTimeTest, SecondsAndFractionsAreClamped) {
  Zone("UTC0");
  struct Case {
    unsigned long long seconds;
    int millisecond, microsecond;
    const char* text;
    unsigned int expectMillisecond, expectMicrosecond;
  };
  const Case cases[] = {
      {86400ULL, 999, 999, "1970-01-02 00:00:00", 999, 999},
      {0x80000000ULL, 1000, 1000, "1970-01-01 00:00:00", 0, 0},  // low 32 bits negative
      {0x7FFFFFFFULL, -1, -1, "2038-01-19 03:14:07", 65535, 65535},
      {0x100000000ULL + 86400ULL, 0, 0, "1970-01-02 00:00:00", 0, 0},  // high bits dropped
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const DateTime value(c.seconds, c.millisecond, c.microsecond);
    EXPECT_EQ(Text(value), c.text);
    EXPECT_EQ(value.millisecond(), c.expectMillisecond);
    EXPECT_EQ(value.microsecond(), c.expectMicrosecond);
  }
}

// In UTC and three hours east of it: the fields are local time, seconds and
// milliseconds round trip, Now is the current time, ToGMT gives UTC fields
// and CurrentGMT is the UTC time.
TEST_F(DateTimeTest, LocalFieldsNowToGmtAndCurrentGmtInTwoZones) {
  const long long utc = 1704164645LL;  // 2024-01-02 03:04:05 UTC
  struct ZoneCase {
    const char* tz;
    long long offset;  // seconds east of UTC
  };
  for (const ZoneCase& zone : {ZoneCase{"UTC0", 0}, ZoneCase{"ZRV-3", 3 * 3600}}) {
    SCOPED_TRACE(zone.tz);
    Zone(zone.tz);
    const DateTime value(2024, 1, 2, 3, 4, 5, 999, 7);
    EXPECT_EQ(value.toSeconds(), utc - zone.offset) << "fields are local time";
    EXPECT_EQ(Text(DateTime(0ULL, 0, 0)),
              zone.offset == 0 ? "1970-01-01 00:00:00" : "1970-01-01 03:00:00");
    const DateTime back(static_cast<unsigned long long>(utc), 5, 6);
    EXPECT_EQ(back.toSeconds(), utc) << "round trip";
    EXPECT_EQ(back.toMilliseconds(), utc * 1000 + 5) << "the microsecond is ignored";
    const long long before = static_cast<long long>(::time(nullptr));
    const DateTime now;
    EXPECT_GE(now.toSeconds(), before);
    EXPECT_LE(now.toSeconds(), static_cast<long long>(::time(nullptr)));
    // ToGMT takes the low 32 bits as signed.
    const std::pair<unsigned long long, const char*> gmt[] = {
        {utc, "2024-01-02 03:04:05"},
        {0xFFFFFFFFULL, "1969-12-31 23:59:59"},
        {0x100000000ULL, "1970-01-01 00:00:00"}};
    for (const auto& c : gmt) EXPECT_EQ(Text(DateTime::ToGMT(c.first)), c.second) << c.first;
    bool matched = false;  // retried across a second boundary
    for (int attempt = 0; attempt < 5 && !matched; ++attempt) {
      const time_t second = ::time(nullptr);
      const DateTime current = DateTime::CurrentGMT();
      if (second != ::time(nullptr)) continue;
      struct tm fields;
      gmtime_r(&second, &fields);
      char expected[32];
      strftime(expected, sizeof expected, "%Y-%m-%d %H:%M:%S", &fields);
      EXPECT_EQ(Text(current), expected);
      matched = true;
    }
    EXPECT_TRUE(matched);
  }
}

}  // namespace
