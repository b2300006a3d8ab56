#include <gtest/gtest.h>

#include "model/ModelTestSupport.h"
#include "model/ZBTarrowCollection.h"

TEST(RelativeDateToken, CreatesAndParsesTokens) {
  EXPECT_EQ(ZBTarrowCollectionCreateRelativeDateToken(Value(7), Value("days")), "7__days");
  EXPECT_EQ(ZBTarrowCollectionCreateRelativeDateToken(Value("12"), Value(ZBTarrowCollectionRelativeDateHoursKey)),
            "12__hours");
  EXPECT_EQ(ZBTarrowCollectionCreateRelativeDateToken(Value(), Value("days")), "__days");
  EXPECT_EQ(ZBTarrowCollectionCreateRelativeDateToken(Value(7), Value()), "7__(null)");

  std::string time = "untouched", unit = "untouched";
  ZBTarrowCollectionParseRelativeDateToken("3__weeks", &time, &unit);
  EXPECT_EQ(time, "3");
  EXPECT_EQ(unit, "weeks");
  ZBTarrowCollectionParseRelativeDateToken("days", &time, &unit);
  EXPECT_EQ(time, "days");
  EXPECT_EQ(unit, "days");
  // Pieces between the first and the last are ignored.
  ZBTarrowCollectionParseRelativeDateToken("2__x__y__months", &time, &unit);
  EXPECT_EQ(time, "2");
  EXPECT_EQ(unit, "months");
  ZBTarrowCollectionParseRelativeDateToken("__days", &time, &unit);
  EXPECT_EQ(time, "");
  EXPECT_EQ(unit, "days");
  // Three underscores: the first separator starts at the first, the last at the second.
  ZBTarrowCollectionParseRelativeDateToken("4___days", &time, &unit);
  EXPECT_EQ(time, "4");
  EXPECT_EQ(unit, "days");
  // Out-parameters are optional.
  std::string onlyUnit;
  ZBTarrowCollectionParseRelativeDateToken("5__years", nullptr, &onlyUnit);
  EXPECT_EQ(onlyUnit, "years");
  ZBTarrowCollectionParseRelativeDateToken("5__years", nullptr, nullptr);

  // Whatever the editor writes, the parser reads back.
  for (int amount : {0, 1, 7, 365}) {
    for (const auto* unitKey : {&ZBTarrowCollectionRelativeDateHoursKey, &ZBTarrowCollectionRelativeDateYearsKey}) {
      ZBTarrowCollectionParseRelativeDateToken(ZBTarrowCollectionCreateRelativeDateToken(Value(amount), Value(*unitKey)),
                                               &time, &unit);
      EXPECT_EQ(time, std::to_string(amount));
      EXPECT_EQ(unit, *unitKey);
    }
  }
}

TEST(RelativeDate, MonthsAndYearsFollowTheCalendarAcrossMonthEnds) {
  InjectedTime time("Europe/Berlin");
  time.setNow(wallClock(2024, 3, 31, 10, 30));
  EXPECT_EQ(ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value(1), "months"), wallClock(2024, 2, 29, 10, 30));
  EXPECT_EQ(ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value("13"), "months"), wallClock(2023, 2, 28, 10, 30));
  time.setNow(wallClock(2024, 2, 29, 8));
  EXPECT_EQ(ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value(1), "years"), wallClock(2023, 2, 28, 8));
  EXPECT_EQ(ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value(4), "years"), wallClock(2020, 2, 29, 8));
  time.setNow(wallClock(2025, 1, 1, 0, 15));
  EXPECT_EQ(ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value(1), "days"), wallClock(2024, 12, 31, 0, 15));
}

TEST(RelativeDate, DaysKeepTheWallClockAcrossADaylightSavingChangeHoursDoNot) {
  InjectedTime time("Europe/Berlin");
  // Clocks went forward at 02:00 on 31 March 2024: that day had 23 hours.
  const NSDate now = wallClock(2024, 3, 31, 12);
  time.setNow(now);
  auto dayBefore = ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value(1), "days");
  ASSERT_TRUE(dayBefore);
  EXPECT_EQ(*dayBefore, wallClock(2024, 3, 30, 12));
  EXPECT_EQ(now.timeIntervalSinceDate(*dayBefore), 23 * 3600);
  EXPECT_EQ(ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value(24), "hours"), now.dateByAddingTimeInterval(-24 * 3600));
  EXPECT_EQ(ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value(2), "weeks"), wallClock(2024, 3, 17, 12));

  // And back in autumn (27 October 2024 had 25 hours).
  time.setNow(wallClock(2024, 10, 27, 12));
  EXPECT_EQ(wallClock(2024, 10, 27, 12).timeIntervalSinceDate(
                *ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value(1), "days")),
            25 * 3600);
}

TEST(RelativeDate, UnknownUnitsAndAmountsFallBackToNow) {
  InjectedTime time("America/New_York");
  const NSDate now = wallClock(2024, 6, 15, 9);
  time.setNow(now);
  // Units match exactly.
  EXPECT_EQ(ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value(3), "Days"), now);
  EXPECT_EQ(ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value(3), ""), now);
  EXPECT_EQ(ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value(3), "(null)"), now);
  // Text that is not a number counts as 0.
  EXPECT_EQ(ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value("three"), "days"), now);
  EXPECT_EQ(ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value(), "days"), now);
  // A negative amount moves forward.
  EXPECT_EQ(ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value("-2"), "days"), wallClock(2024, 6, 17, 9));
  // An amount the calendar cannot represent gives no date rather than a wrong one.
  EXPECT_FALSE(ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value("99999999999"), "years"));
  EXPECT_FALSE(ZBTarrowCollectionRelativeDateWithTimeAndUnit(Value(std::numeric_limits<std::int64_t>::min()), "days"));
}
