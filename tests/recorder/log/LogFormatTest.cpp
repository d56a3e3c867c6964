#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "recorder/log/LogFormat.h"
#include "recorder/log/LogLayout.h"
#include "recorder/log/LogMark.h"

namespace {

using tarn::logCleanText;
using tarn::logPrefix;
using tarn::logSplitText;
using tarn::logStamp;
using tarn::logStampSeconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

void zone(const char* name) {
  setenv("TZ", name, 1);
  tzset();
}

constexpr char kBerlin[] = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr int64_t kLastHourOfSummer = 1792886400;  // 2026-10-25T00:00:00Z, 02:00:00 CEST

TEST(LogFormatTest, StampsAreLocalTimeOfAFixedWidth) {
  zone("XYZ-05:30");
  EXPECT_EQ(logStamp(1700000000), "2023-11-15T03:43:20");
  EXPECT_EQ(tarn::logStampTime("2023-11-15T03:43:20"), 1700000000);
  zone("UTC");
  EXPECT_EQ(logStamp(-5), "1970-01-01T00:00:00");
  EXPECT_EQ(logStamp(INT64_MAX).size(), tarn::kLogStampBytes);
}

TEST(LogFormatTest, OnlyAWholeStampWithATimeThat32BitsHoldIsATime) {
  zone("UTC");
  EXPECT_EQ(logStampSeconds("1970-01-02T00:00:00\n"), 86400);
  for (const char* text :
       {"", "1970-01-02T00:00:0", "1970-01-02 00:00:00", "x970-01-02T00:00:00",
        "1970-13-02T00:00:00", "1970-01-32T00:00:00", "2038-01-19T03:14:08", " 970-01-02T00:00:00"})
    EXPECT_EQ(logStampSeconds(text), -1) << text;
}

TEST(LogFormatTest, AClockThatIsSetBackRepeatsTheLastStampAndNotesItsOwnTime) {
  zone("UTC");
  EXPECT_EQ(logPrefix("", 1700000000), "2023-11-14T22:13:20 ");
  EXPECT_EQ(logPrefix("2023-11-14T22:13:20", 1700000000), "2023-11-14T22:13:20 ");
  EXPECT_EQ(logPrefix("2023-11-14T22:13:20", 1600000000),
            "2023-11-14T22:13:20 (clock 2020-09-13T12:26:40) ");
}

TEST(LogFormatTest, TheEndOfSummerTimeIsAClockThatIsSetBack) {
  zone(kBerlin);
  const std::string summer = logPrefix("", kLastHourOfSummer + 3599);
  EXPECT_EQ(summer, "2026-10-25T02:59:59 ");
  EXPECT_EQ(logPrefix("2026-10-25T02:59:59", kLastHourOfSummer + 3600),
            "2026-10-25T02:59:59 (clock 2026-10-25T02:00:00) ");
  EXPECT_EQ(logPrefix("2026-10-25T02:59:59", kLastHourOfSummer + 7200), "2026-10-25T03:00:00 ");
}

TEST(LogFormatTest, TimesThatTheSearchCannotTellFromTheMarkOrNotReadAreNotedToo) {
  for (const char* name : {"UTC", "XYZ+12", "XYZ-14"}) {
    zone(name);
    EXPECT_EQ(logPrefix("", 5), "1970-01-02T00:00:01 (clock " + logStamp(5) + ") ");
    EXPECT_EQ(logPrefix("", 3000000000),
              "2038-01-18T00:00:00 (clock " + logStamp(3000000000) + ") ");
    EXPECT_GT(logStampSeconds("1970-01-02T00:00:01"), logStampSeconds(tarn::kLogMark));
    EXPECT_GT(logStampSeconds("2038-01-18T00:00:00"), 0);
  }
}

TEST(LogFormatTest, ControlBytesAreReplacedAndBlanksAtTheEndGo) {
  EXPECT_EQ(logCleanText(std::string_view("a\nb\tc\r\x01\x7F\0d \n", 11)), "a b c ???d");
  EXPECT_EQ(logCleanText("Gr\xC3\xBC\xC3\x9F"), "Gr\xC3\xBC\xC3\x9F");
  EXPECT_EQ(logCleanText("\n \n"), "");
}

TEST(LogFormatTest, LongTextsGoOnInFurtherMarkedLines) {
  EXPECT_THAT(logSplitText(""), IsEmpty());
  const std::string most(tarn::kLogTextBytes, 'a');
  EXPECT_THAT(logSplitText(most), ElementsAre(most));
  EXPECT_THAT(logSplitText(most + "b"), ElementsAre(most + "[...]", "[...]b"));
  EXPECT_THAT(logSplitText(most + most + "b"),
              ElementsAre(most + "[...]", "[...]" + most + "[...]", "[...]b"));
}

TEST(LogFormatTest, ACharacterIsNotCutInTwo) {
  const std::string text = std::string(tarn::kLogTextBytes - 1, 'a') + "\xE2\x82\xAC!";
  EXPECT_THAT(logSplitText(text), ElementsAre(std::string(tarn::kLogTextBytes - 1, 'a') + "[...]",
                                              "[...]\xE2\x82\xAC!"));
  const std::string noise(tarn::kLogTextBytes + 1, '\x80');
  EXPECT_EQ(logSplitText(noise)[0].size(), tarn::kLogTextBytes + 5);
}

TEST(LogFormatTest, LinesAreReadBackWithTheClocksOwnTime) {
  zone("UTC");
  const tarn::LogLine plain = tarn::parseLogLine("2023-11-14T22:13:20 text   ");
  EXPECT_EQ(plain.seconds, 1700000000);
  EXPECT_EQ(plain.text, "2023-11-14T22:13:20 text");
  EXPECT_FALSE(plain.filling);
  EXPECT_EQ(tarn::parseLogLine("2023-11-14T22:13:20 (clock 2020-09-13T12:26:40) x").seconds,
            1600000000);
  EXPECT_EQ(tarn::parseLogLine("no time").seconds, -1);
  EXPECT_FALSE(tarn::parseLogLine("no time").filling);
  for (const char* line : {"", "   ", "2023-11-14T22:13:20", "2023-11-14T22:13:20      ",
                           "1970-01-02T00:00:00", "- no line so far --"})
    EXPECT_TRUE(tarn::parseLogLine(line).filling) << line;
}

TEST(LogLayoutTest, TheMarkHasRoomInTheSectorBehindEachLine) {
  zone("UTC");
  constexpr uint32_t kBytes = 4 * 4096;
  for (size_t length = 1; length <= tarn::kLogTextBytes; length += 11) {
    tarn::LogLayout layout(kBytes);
    std::string out;
    while (layout.add(std::string(length, 'x'), 1700000000, &out)) {
      ASSERT_EQ(out.size(), layout.position());
      ASSERT_TRUE(tarn::LogLayout::takesMark(layout.position(), kBytes)) << length;
      ASSERT_LE(layout.position() % 512, 512 - tarn::kLogMarkBytes) << length;
    }
    // Not more than one line is wasted at the end.
    EXPECT_GT(layout.position() + length + 4096, kBytes) << length;
  }
}

TEST(LogLayoutTest, NoLineStraddlesABlockAndEachBlockBeginsWithAStamp) {
  zone("UTC");
  tarn::LogLayout layout(64 * 1024);
  std::string out;
  for (uint32_t i = 0; layout.add(std::string(i * 37 % 900 + 1, 'x'), 1700000000 + i, &out); ++i) {
  }
  for (size_t block = 0; block < out.size(); block += 4096) {
    EXPECT_NE(logStampSeconds(out.substr(block)), -1) << block;
    if (block > 0) {
      EXPECT_EQ(out[block - 1], '\n') << block;
    }
  }
}

TEST(LogLayoutTest, TheLongestLineFitsABlock) {
  zone("UTC");
  tarn::LogLayout layout(8192);
  std::string out;
  const std::string longest = "[...]" + std::string(tarn::kLogTextBytes, 'x') + "[...]";
  ASSERT_TRUE(layout.add(std::string(300, 'f'), 1700000000, &out));
  ASSERT_TRUE(layout.add(longest, 1600000000, &out)) << "with its note in the last block";
  EXPECT_EQ(out.find("2023-11-14T22:13:20 (clock "), 4096u);
}

}  // namespace
