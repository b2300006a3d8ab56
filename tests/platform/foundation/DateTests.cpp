#include <gtest/gtest.h>

#include <memory>

#include "platform/foundation/NSDate.h"
#include "platform/foundation/ZBClock.h"

namespace {

std::optional<NSDate> parse(std::string_view text) { return NSDate::dateFromISO8601String(text); }

}  // namespace

TEST(NSDate, PrintsISO8601InUTCWithFractionsOnlyWhenPresent) {
  EXPECT_EQ(NSDate(0).ISO8601String(), "2001-01-01T00:00:00Z");
  EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(0).ISO8601String(), "1970-01-01T00:00:00Z");
  EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(1795411949).ISO8601String(), "2026-11-23T05:32:29Z");
  // Before the reference date the seconds must floor, not truncate toward zero.
  EXPECT_EQ(NSDate(-0.5).ISO8601String(), "2000-12-31T23:59:59.500Z");
  EXPECT_EQ(NSDate(-86400.0 * 366).ISO8601String(), "2000-01-01T00:00:00Z");
  EXPECT_EQ(NSDate(0.25).ISO8601String(), "2001-01-01T00:00:00.250Z");
  EXPECT_EQ(NSDate(0.000125).ISO8601String(), "2001-01-01T00:00:00.000125Z");
  // A fraction that rounds up to the next second must carry into it.
  EXPECT_EQ(NSDate(59.9999996).ISO8601String(), "2001-01-01T00:01:00Z");
  // Leap day and the last second of a year.
  EXPECT_EQ(parse("2024-02-29T12:00:00Z")->ISO8601String(), "2024-02-29T12:00:00Z");
  EXPECT_EQ(parse("1999-12-31T23:59:59Z")->ISO8601String(), "1999-12-31T23:59:59Z");
}

TEST(NSDate, ParsesOffsetsAndFractions) {
  const NSDate utc = *parse("2026-11-23T05:32:29Z");
  EXPECT_DOUBLE_EQ(utc.timeIntervalSince1970(), 1795411949);
  EXPECT_EQ(*parse("2026-11-23T06:32:29+01:00"), utc);
  EXPECT_EQ(*parse("2026-11-23T06:32:29+0100"), utc);
  EXPECT_EQ(*parse("2026-11-22T23:02:29-06:30"), utc);
  EXPECT_EQ(*parse("2026-11-23T05:32:29+00:00"), utc);
  // An offset that crosses a year boundary.
  EXPECT_EQ(parse("2027-01-01T01:00:00+02:00")->ISO8601String(), "2026-12-31T23:00:00Z");
  EXPECT_NEAR(parse("2026-11-23T05:32:29.5Z")->timeIntervalSince1970(), 1795411949.5, 1e-6);
  EXPECT_NEAR(parse("2026-11-23T05:32:29.123456789Z")->timeIntervalSince1970(), 1795411949.123457, 1e-5);
  EXPECT_NEAR(parse("1970-01-01T00:00:00.75+00:00")->timeIntervalSince1970(), 0.75, 1e-9);
}

TEST(NSDate, ISO8601RoundTrips) {
  for (double t : {0.0, -1.0, 1.5, 123456789.0, -987654321.25, 7.0e8 + 0.001, 2.5e9}) {
    const std::string text = NSDate(t).ISO8601String();
    const auto back = parse(text);
    ASSERT_TRUE(back) << text;
    EXPECT_NEAR(back->timeIntervalSinceReferenceDate(), t, 1e-6) << text;
  }
}

TEST(NSDate, RejectsMalformedISO8601) {
  const std::string_view malformed[] = {
           "",
           "2026-11-23",                  // no time
           "2026-11-23T05:32Z",           // no seconds
           "2026-11-23T05:32:29",         // no zone
           "2026-11-23 05:32:29Z",        // space for T
           "2026-11-23t05:32:29z",        // lower-case designators
           "2026-13-01T00:00:00Z",        // month 13
           "2026-00-01T00:00:00Z",        // month 0
           "2026-02-29T00:00:00Z",        // not a leap year
           "1900-02-29T00:00:00Z",        // century, not a leap year
           "2026-04-31T00:00:00Z",        // April has 30 days
           "2026-11-00T00:00:00Z",        // day 0
           "2026-11-23T24:00:00Z",        // hour 24
           "2026-11-23T05:60:00Z",        // minute 60
           "2026-11-23T05:32:60Z",        // leap seconds are not taken
           "2026-11-23T05:32:29.Z",       // empty fraction
           "2026-11-23T05:32:29+1:00",    // one-digit offset hour
           "2026-11-23T05:32:29+01",      // offset without minutes
           "2026-11-23T05:32:29+24:00",   // offset hour 24
           "2026-11-23T05:32:29+01:60",   // offset minute 60
           "2026-11-23T05:32:29Z ",       // trailing garbage
           "2026-11-23T05:32:29ZZ",
           " 2026-11-23T05:32:29Z",
           "+2026-11-23T05:32:29Z",
           "2O26-11-23T05:32:29Z",        // letter O for zero
           "2026-1-23T05:32:29Z",
           std::string_view("2026-11-23T05:32:29Z\0", 21),  // embedded NUL
  };
  for (std::string_view bad : malformed) {
    EXPECT_FALSE(parse(bad)) << "accepted: \"" << bad << "\"";
  }
}

TEST(NSDate, NowComesFromTheCurrentClock) {
  auto clock = std::make_shared<ZBManualClock>(NSDate(1000));
  ZBClock::setCurrent(clock);
  EXPECT_EQ(NSDate::date(), NSDate(1000));
  EXPECT_DOUBLE_EQ(NSDate(1100).timeIntervalSinceNow(), 100);
  clock->advance(250);
  EXPECT_EQ(NSDate::date(), NSDate(1250));
  EXPECT_DOUBLE_EQ(NSDate(1100).timeIntervalSinceNow(), -150);
  ZBClock::setCurrent(nullptr);
  // Back on the system clock: some time after this code was written.
  EXPECT_GT(NSDate::date(), *parse("2024-01-01T00:00:00Z"));
}
