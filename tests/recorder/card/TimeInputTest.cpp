#include <gmock/gmock.h>

#include <cstdlib>
#include <ctime>

#include "recorder/card/TimeInput.h"
#include "recorder/card/TimeText.h"
#include "recorder/card/TimeZone.h"

namespace tarn_test {
namespace {

using tarn::PictureTime;
using tarn::TimeInput;
using tarn::TimeText;
using ::testing::HasSubstr;
using Edge = TimeInput::Edge;

// Rules in place of names: they are there on every machine.
constexpr char kBerlin[] = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr char kKolkata[] = "IST-5:30";
constexpr char kAdelaide[] = "ACST-9:30ACDT,M10.1.0,M4.1.0/3";
constexpr char kLordHowe[] = "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0";
constexpr char kNewYork[] = "EST5EDT,M3.2.0,M11.1.0";
// Skips midnight, and shows it twice.
constexpr char kHavana[] = "CST5CDT,M3.2.0/0,M11.1.0/1";
constexpr char kKathmandu[] = "<+0545>-5:45";

void useZone(const char* zone) {
  setenv("TZ", zone, 1);
  tzset();
}

// 2026-03-01T09:26:40Z
constexpr PictureTime kNow = {1772357200, 250000};

struct Taken {
  bool good = false;
  PictureTime time;
  std::string error;
};
Taken parse(const std::string& text, Edge edge = Edge::kStart) {
  Taken taken;
  taken.good = TimeInput::parse(text, edge, kNow, &taken.time, &taken.error);
  return taken;
}
std::string shown(const std::string& text, Edge edge = Edge::kStart) {
  const Taken taken = parse(text, edge);
  if (!taken.good) return taken.error;
  char micros[16];
  snprintf(micros, sizeof micros, " .%06u", taken.time.micros);
  return TimeText::of(taken.time.seconds) + micros;
}

TEST(TimeInputTest, TakesEveryFormOfAMoment) {
  useZone(kBerlin);
  const std::string eight = "2026-03-01 08:00:00+01:00 .000000";
  for (const char* text :
       {"2026-03-01T08:00:00", "2026-03-01 08:00:00", "2026-03-01t08:00", "2026-03-01T07:00:00Z",
        "2026-03-01T07:00z", "2026-03-01T12:30:00+05:30", "2026-03-01T12:30:00+0530",
        "2026-03-01T09:00:00+02", "2026-02-28T22:00:00-09:00", "@1772348400", "08:00", "08:00:00",
        "07:00Z", "2026-03-01T08:00:00.0"}) {
    EXPECT_EQ(shown(text), eight) << text;
  }
}

TEST(TimeInputTest, FractionsAreKeptToTheMicrosecond) {
  useZone("UTC0");
  EXPECT_EQ(shown("2026-03-01T08:00:00.25"), "2026-03-01 08:00:00+00:00 .250000");
  EXPECT_EQ(shown("2026-03-01T08:00:00,000001"), "2026-03-01 08:00:00+00:00 .000001");
  EXPECT_EQ(shown("2026-03-01T08:00:00.1234567899Z"), "2026-03-01 08:00:00+00:00 .123456");
  EXPECT_EQ(shown("@1772352000.75"), "2026-03-01 08:00:00+00:00 .750000");
  EXPECT_EQ(shown("08:00:00.5"), "2026-03-01 08:00:00+00:00 .500000");
}

TEST(TimeInputTest, NowAndAgoCountFromThePresent) {
  useZone("UTC0");
  EXPECT_EQ(shown("now"), "2026-03-01 09:26:40+00:00 .250000");
  EXPECT_EQ(shown("-1h"), "2026-03-01 08:26:40+00:00 .250000");
  EXPECT_EQ(shown("-30m"), "2026-03-01 08:56:40+00:00 .250000");
  EXPECT_EQ(shown("-2d"), "2026-02-27 09:26:40+00:00 .250000");
  EXPECT_EQ(shown("-1w"), "2026-02-22 09:26:40+00:00 .250000");
  EXPECT_EQ(shown("-1h30m10s"), "2026-03-01 07:56:30+00:00 .250000");
  EXPECT_EQ(shown("now", Edge::kEnd), shown("now"));
  EXPECT_EQ(shown("-1h", Edge::kEnd), shown("-1h"));
  EXPECT_THAT(shown("-99999999999d"), HasSubstr("lies outside of the years 1970 to 2106"));
}

TEST(TimeInputTest, AnEndTakesTheWholeSecondAndTheWholeDay) {
  useZone(kBerlin);
  EXPECT_EQ(shown("2026-03-01T08:00:00", Edge::kEnd), "2026-03-01 08:00:00+01:00 .999999");
  EXPECT_EQ(shown("2026-03-01T08:00:00.5", Edge::kEnd), "2026-03-01 08:00:00+01:00 .500000");
  EXPECT_EQ(shown("@1772348400", Edge::kEnd), "2026-03-01 08:00:00+01:00 .999999");
  EXPECT_EQ(shown("2026-03-01"), "2026-03-01 00:00:00+01:00 .000000");
  EXPECT_EQ(shown("2026-03-01", Edge::kEnd), "2026-03-01 23:59:59+01:00 .999999");
  EXPECT_EQ(shown("2026-03-01Z", Edge::kEnd), "2026-03-02 00:59:59+01:00 .999999");
  EXPECT_EQ(shown("2026-03-29", Edge::kEnd), "2026-03-29 23:59:59+02:00 .999999");
}

TEST(TimeInputTest, TodayIsTodayInTheZoneThatIsMeant) {
  useZone("<+14>-14");
  EXPECT_EQ(shown("08:00"), "2026-03-01 08:00:00+14:00 .000000");
  useZone("<-10>10");
  EXPECT_EQ(shown("08:00"), "2026-02-28 08:00:00-10:00 .000000");
  EXPECT_EQ(shown("08:00Z"), "2026-02-28 22:00:00-10:00 .000000");
}

TEST(TimeInputTest, ATimeThatClocksSkipIsRefused) {
  useZone(kBerlin);
  EXPECT_EQ(shown("2026-03-29T02:30:00"),
            "\"2026-03-29T02:30:00\" does not exist: clocks went from 02:00:00+01:00 to "
            "03:00:00+02:00");
  EXPECT_FALSE(parse("2026-03-29T02:00:00").good);
  EXPECT_FALSE(parse("2026-03-29T02:59:59.999999").good);
  EXPECT_EQ(shown("2026-03-29T01:59:59"), "2026-03-29 01:59:59+01:00 .000000");
  EXPECT_EQ(shown("2026-03-29T03:00:00"), "2026-03-29 03:00:00+02:00 .000000");
  EXPECT_EQ(shown("2026-03-29T02:30:00+01:00"), "2026-03-29 03:30:00+02:00 .000000")
      << "with an offset it is a moment";
  useZone(kAdelaide);
  EXPECT_THAT(shown("2026-10-04T02:15"),
              HasSubstr("does not exist: clocks went from 02:00:00+09:30 to 03:00:00+10:30"));
  useZone(kLordHowe);
  EXPECT_THAT(shown("2026-10-04T02:15"),
              HasSubstr("does not exist: clocks went from 02:00:00+10:30 to 02:30:00+11:00"));
  EXPECT_EQ(shown("2026-10-04T02:30"), "2026-10-04 02:30:00+11:00 .000000");
  useZone(kNewYork);
  EXPECT_THAT(shown("2026-03-08T02:00"),
              HasSubstr("does not exist: clocks went from 02:00:00-05:00 to 03:00:00-04:00"));
}

TEST(TimeInputTest, ATimeThatComesTwiceIsAskedForWithItsOffset) {
  useZone(kBerlin);
  EXPECT_EQ(shown("2026-10-25T02:30:00"),
            "\"2026-10-25T02:30:00\" comes twice: write 2026-10-25T02:30:00+02:00 or "
            "2026-10-25T02:30:00+01:00");
  EXPECT_EQ(shown("2026-10-25T02:30:00+02:00"), "2026-10-25 02:30:00+02:00 .000000");
  EXPECT_EQ(shown("2026-10-25T02:30:00+01:00"), "2026-10-25 02:30:00+01:00 .000000");
  EXPECT_EQ(parse("2026-10-25T02:30:00+01:00").time.seconds -
                parse("2026-10-25T02:30:00+02:00").time.seconds,
            3600u);
  EXPECT_FALSE(parse("2026-10-25T02:00:00").good);
  EXPECT_EQ(shown("2026-10-25T01:59:59"), "2026-10-25 01:59:59+02:00 .000000");
  EXPECT_EQ(shown("2026-10-25T03:00:00"), "2026-10-25 03:00:00+01:00 .000000");
  useZone(kAdelaide);
  EXPECT_THAT(shown("2026-04-05T02:30"),
              HasSubstr("write 2026-04-05T02:30+10:30 or 2026-04-05T02:30+09:30"));
  useZone(kLordHowe);
  EXPECT_THAT(shown("2026-04-05T01:45"),
              HasSubstr("write 2026-04-05T01:45+11:00 or 2026-04-05T01:45+10:30"));
  EXPECT_EQ(shown("2026-04-05T01:29:59"), "2026-04-05 01:29:59+11:00 .000000");
}

TEST(TimeInputTest, ADayBeginsWithItsFirstMomentWhateverThatIsCalled) {
  useZone(kHavana);
  EXPECT_FALSE(parse("2026-03-08T00:30").good);
  EXPECT_EQ(shown("2026-03-08"), "2026-03-08 01:00:00-04:00 .000000");
  EXPECT_EQ(shown("2026-03-07", Edge::kEnd), "2026-03-07 23:59:59-05:00 .999999");
  EXPECT_THAT(shown("2026-11-01T00:30"), HasSubstr("comes twice"));
  EXPECT_EQ(shown("2026-11-01"), "2026-11-01 00:00:00-04:00 .000000");
}

TEST(TimeInputTest, ZonesWithoutSummerTimeHaveNoDoubts) {
  useZone(kKolkata);
  EXPECT_EQ(shown("2026-03-29T02:30"), "2026-03-29 02:30:00+05:30 .000000");
  useZone(kKathmandu);
  EXPECT_EQ(shown("2026-10-25T02:30"), "2026-10-25 02:30:00+05:45 .000000");
}

TEST(TimeInputTest, WhatIsNoTimeIsRefused) {
  useZone("UTC0");
  for (const char* text : {"",
                           " ",
                           "yesterday",
                           "2026",
                           "2026-3-1",
                           "2026-03-01T",
                           "2026-03-01T8:00",
                           "2026-03-01T08",
                           "2026-03-01T08:00:00.",
                           "2026-03-01T08:00:00 ",
                           "2026-03-01T08:00:00+",
                           "08:00:00+2",
                           "2026-03-01T08:00:00+02:60",
                           "2026-03-01T08:00:00+17:00",
                           "2026-03-01T08:00:00Zulu",
                           "@",
                           "@-1",
                           "@1.",
                           "@x",
                           "-",
                           "-1",
                           "-h",
                           "-1y",
                           "-1h ",
                           "now ",
                           "8:00",
                           "Now",
                           "\xff"}) {
    EXPECT_THAT(parse(text).error, HasSubstr("is not a time; write 2026-03-01T08:00:00")) << text;
  }
  for (const char* text : {"2026-02-30", "2026-13-01", "2026-00-01", "2026-01-00", "2100-02-29",
                           "2026-03-01T24:00", "2026-03-01T08:60", "2026-03-01T08:00:60"}) {
    EXPECT_THAT(parse(text).error, HasSubstr("is no time that a clock shows")) << text;
  }
  for (const char* text : {"1969-12-31T23:59:59", "1960-01-01", "2107-01-01", "@4294967295",
                           "@99999999999", "2106-12-31", "1970-01-01T00:00:00+02:00"}) {
    EXPECT_THAT(parse(text).error, HasSubstr("lies outside of the years 1970 to 2106")) << text;
  }
  EXPECT_TRUE(parse("1970-01-01").good);
  EXPECT_EQ(parse("@4294967294").time.seconds, 4294967294u);
}

TEST(TimeInputTest, WhatIsShownIsTakenAgain) {
  for (const char* zone : {kBerlin, kKolkata, kAdelaide, kLordHowe, kNewYork, kHavana}) {
    useZone(zone);
    // Through a year by steps that meet every minute of the day, and through both changes.
    for (uint32_t at = 1767225600; at < 1798761600; at += 36007) {
      EXPECT_EQ(parse(TimeText::of(at)).time.seconds, at) << zone;
      EXPECT_EQ(parse(TimeText::iso(at, 250)).time, (PictureTime{at, 250000})) << zone;
    }
  }
}

TEST(TimeTextTest, CarriesTheOffsetOfItsMoment) {
  useZone(kBerlin);
  EXPECT_EQ(TimeText::of(1774745999), "2026-03-29 01:59:59+01:00");
  EXPECT_EQ(TimeText::of(1774746000), "2026-03-29 03:00:00+02:00");
  EXPECT_EQ(TimeText::of(1774746000, 5), "2026-03-29 03:00:00.005+02:00");
  EXPECT_EQ(TimeText::iso(1774746000, 5), "2026-03-29T03:00:00.005+02:00");
  EXPECT_EQ(TimeText::iso(1774746000, 0, 5 * 3600 + 1800), "2026-03-29T06:30:00.000+05:30");
  EXPECT_EQ(TimeText::of(0, 0, -3600), "1969-12-31 23:00:00.000-01:00");
  EXPECT_EQ(TimeText::of(0xFFFFFFFF, 999, 0), "2106-02-07 06:28:15.999+00:00");
}

TEST(TimeTextTest, OffsetsMayHaveHalfHoursAndSeconds) {
  EXPECT_EQ(TimeText::offset(0), "+00:00");
  EXPECT_EQ(TimeText::offset(-12600), "-03:30");
  EXPECT_EQ(TimeText::offset(20700), "+05:45");
  EXPECT_EQ(TimeText::offset(-2670), "-00:44:30");
}

TEST(TimeZoneTest, TakesOffsetsAndUtcWithoutADatabase) {
  std::string error;
  ASSERT_TRUE(tarn::TimeZone::choose("+05:30", &error));
  EXPECT_EQ(TimeText::of(0), "1970-01-01 05:30:00+05:30");
  ASSERT_TRUE(tarn::TimeZone::choose("-03:00", &error));
  EXPECT_EQ(TimeText::of(86400), "1970-01-01 21:00:00-03:00");
  ASSERT_TRUE(tarn::TimeZone::choose("UTC", &error));
  EXPECT_EQ(TimeText::of(0), "1970-01-01 00:00:00+00:00");
}

TEST(TimeZoneTest, RefusesWhatIsNoZoneAndKeepsTheOneThatWas) {
  useZone(kKolkata);
  for (const char* name : {"", "Mars/Phobos", "europe", "/etc/passwd", "../../../etc/passwd",
                           "Europe", "zone.tab", "+5:30", "+16:00", "+05:60", "right/UTC", "a b"}) {
    std::string error;
    EXPECT_FALSE(tarn::TimeZone::choose(name, &error)) << name;
    EXPECT_THAT(error, HasSubstr("/usr/share/zoneinfo")) << name;
  }
  EXPECT_EQ(TimeText::of(0), "1970-01-01 05:30:00+05:30");
}

TEST(TimeZoneTest, KnowsTheZonesOfTheDatabase) {
  std::string error;
  if (!tarn::TimeZone::choose("Europe/Berlin", &error)) GTEST_SKIP() << error;
  EXPECT_EQ(TimeText::of(1774746000), "2026-03-29 03:00:00+02:00");
  ASSERT_TRUE(tarn::TimeZone::choose("Australia/Lord_Howe", &error)) << error;
  EXPECT_THAT(shown("2026-10-04T02:15"), HasSubstr("does not exist"));
  // A whole day that clocks went over.
  ASSERT_TRUE(tarn::TimeZone::choose("Pacific/Apia", &error)) << error;
  EXPECT_THAT(shown("2011-12-30T12:00"), HasSubstr("does not exist"));
}

}  // namespace
}  // namespace tarn_test
