#include <gtest/gtest.h>
#include <syslog.h>

#include "recorder/rows/RedatingRecord.h"
#include "support/SyslogCapture.h"

namespace tarn_test {
namespace {

TEST(RedatingRecordTest, IsReadBackFromItsLineWhateverStandsInFront) {
  SyslogCapture log;
  tarn::RedatingRecord written;
  written.channel = 12;
  written.sound = true;
  written.moved = 3;
  written.firstStream = 7;
  written.lastStream = 4294967295u;
  written.movedEvents = 1;
  written.firstEvent = 5;
  written.lastEvent = 4;
  written.seconds = -1700000000;
  written.log();
  ASSERT_EQ(1u, log.lines().size());
  EXPECT_EQ(
      "RecordingSession: channel 12, sound: re-dated 3 of recordings 7 to 4294967295 and 1 of "
      "events 5 to 4 by -1700000000 s",
      log.lines()[0].text);
  tarn::RedatingRecord read;
  ASSERT_TRUE(read.parse("Mar  1 09:14:20 camera tarn[7]: " + log.lines()[0].text));
  EXPECT_EQ(12, read.channel);
  EXPECT_TRUE(read.sound);
  EXPECT_EQ(3u, read.moved);
  EXPECT_EQ(7u, read.firstStream);
  EXPECT_EQ(4294967295u, read.lastStream);
  EXPECT_EQ(1u, read.movedEvents);
  EXPECT_EQ(5u, read.firstEvent);
  EXPECT_EQ(4u, read.lastEvent);
  EXPECT_EQ(-1700000000, read.seconds);
}

TEST(RedatingRecordTest, IsNoneOfOtherLinesAndOfTornOnes) {
  const std::string good =
      "RecordingSession: channel 0: re-dated 3 of recordings 7 to 9 and 1 of events 4 to 4 by "
      "33240 s";
  tarn::RedatingRecord record;
  EXPECT_TRUE(record.parse(good));
  EXPECT_FALSE(record.sound);
  for (size_t length = 0; length < good.size(); ++length)
    EXPECT_FALSE(record.parse(good.substr(0, length))) << length;
  for (const char* bad :
       {"RecordingSession: channel 0: the clock became known and was set by 33240000000 us",
        "RecordingSession: channel 128: re-dated 3 of recordings 7 to 9 and 1 of events 4 to 4 by "
        "33240 s",
        "RecordingSession: channel 0: re-dated 3 of recordings 7 to 4294967296 and 1 of events 4 "
        "to 4 by 33240 s",
        "RecordingSession: channel 0: re-dated 3 of recordings 7 to 9 and 1 of events 4 to 4 by 0 "
        "s",
        "RecordingSession: channel 0: re-dated 3 of recordings 7 to 9 and 1 of events 4 to 4 by "
        "99999999999 s",
        "RecordingSession: channel 0: re-dated -3 of recordings 7 to 9 and 1 of events 4 to 4 by "
        "33240 s"})
    EXPECT_FALSE(record.parse(bad)) << bad;
}

}  // namespace
}  // namespace tarn_test
