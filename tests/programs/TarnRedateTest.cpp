// tarn redate, beside a recorder and without one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "recorder/RecorderRig.h"
#include "recorder/card/TimeText.h"
#include "support/Shell.h"

namespace tarn_test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr int64_t kHour = 3600;

class TarnRedateTest : public ::testing::Test {
 protected:
  static ShellResult tool(const std::string& arguments) {
    return shell(std::string(TARN_BIN_DIR "/tarn ") + arguments + " 2>&1");
  }
  // Two channels record, one with an event; then the clock goes on an hour.
  void record() {
    tarn::RecordingOptions second;
    second.channel = 1;
    tarn::RecordingSession other;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(openSession(other, second));
    ASSERT_TRUE(writePictures(session, 0, 30));
    const uint32_t event = session.beginEvent(7, pictureTime(30), 0);
    ASSERT_TRUE(writePictures(session, 30, 60));
    ASSERT_EQ(session.endEvent(event, pictureTime(60)), 0);
    ASSERT_TRUE(writePictures(other, 0, 50));
    before = tool("list --json").output + tool("list events --json").output;
    for (tarn::RecordingSession* one : {&session, &other})
      ASSERT_EQ(one->clockBecameKnown(kHour * 1000000), 0);
    ASSERT_EQ(other.close(), 0);
  }
  // As the unit that writes the system log onto the card does.
  void writeLog() {
    std::string text;
    for (const LogLine& line : log.lines()) text += line.text + "\n";
    ASSERT_EQ(shell("cat >/tmp/lines <<'END'\n" + text +
                    "END\n" TARN_BIN_DIR "/tarn log --write </tmp/lines")
                  .exitCode,
              0);
  }

  SyslogCapture log;
  RecorderRig rig;
  tarn::RecordingSession session;
  std::string before;
};

TEST_F(TarnRedateTest, ShowsWhatWasRedatedAndTakesItBackOnceTheRecorderIsStopped) {
  EXPECT_THAT(tool("redate").output, HasSubstr("has no record"));
  EXPECT_EQ(tool("redate --undo").exitCode, 1);
  record();
  writeLog();
  ShellResult result = tool("redate");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output,
              AllOf(HasSubstr("channel 0: recordings 1 to 2, events 1 to 1, by 3600 s: stands"),
                    HasSubstr("channel 1: recordings 1 to 2, by 3600 s: stands")));
  result = tool("redate --undo");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.output, HasSubstr("stop it before a re-dating is taken back"));
  ASSERT_EQ(session.close(), 0);
  CDbLog::getInstance()->finish();

  const std::string redated = tool("list --json").output + tool("list events --json").output;
  result = tool("redate --undo --dry-run");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, AllOf(HasSubstr("nothing of it was done"),
                                   HasSubstr("record 1, channel 0: 1 recordings and 1 events of"),
                                   HasSubstr("record 2, channel 1: 1 recordings and 0 events of")));
  EXPECT_EQ(tool("list --json").output + tool("list events --json").output, redated);

  result = tool("redate --undo");
  EXPECT_EQ(result.exitCode, 0) << result.output;
  EXPECT_THAT(result.output, HasSubstr("got"));
  result = tool("redate --undo");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.output, HasSubstr("nothing is there to take back: taken back"));
  EXPECT_THAT(tool("redate").output, HasSubstr("by 3600 s: taken back"));
  rig.stopServer();
  EXPECT_THAT(tool("check").output, HasSubstr(": 5 findings, 2 recordings, 1 events"));
}

TEST_F(TarnRedateTest, ListsTheTimesOfBeforeAgain) {
  record();
  writeLog();
  ASSERT_EQ(session.close(), 0);
  CDbLog::getInstance()->finish();
  const std::string start = "\"start\": \"" + tarn::TimeText::iso(kStart, 0).substr(0, 19);
  EXPECT_THAT(tool("list --json").output, Not(HasSubstr(start)));
  ASSERT_EQ(tool("redate --undo --record 1").exitCode, 0);
  EXPECT_THAT(tool("list --channel 0 --json").output, HasSubstr(start));
  EXPECT_THAT(tool("list --channel 1 --json").output, Not(HasSubstr(start)));
  ASSERT_EQ(tool("redate --undo --record 2 --json").exitCode, 0);
  EXPECT_THAT(tool("list --channel 1 --json").output, HasSubstr(start));
}

TEST_F(TarnRedateTest, TakesTheRecordFromATextToo) {
  record();
  writeLog();
  ASSERT_EQ(session.close(), 0);
  CDbLog::getInstance()->finish();
  EXPECT_THAT(tool("redate --log /tmp/lines --json").output,
              AllOf(HasSubstr("\"state\": \"stands\""), HasSubstr("\"seconds\": 3600")));
  EXPECT_EQ(tool("redate --undo --log - </tmp/lines").exitCode, 0);
  EXPECT_THAT(tool("redate --json").output, HasSubstr("\"state\": \"takenBack\""));
  EXPECT_THAT(tool("redate --log /tmp/none").output, HasSubstr("/tmp/none cannot be read"));
  EXPECT_THAT(tool("redate --undo --record 3").output, HasSubstr("no record 3"));
  EXPECT_EQ(tool("redate --dry-run").exitCode, 2);
}

}  // namespace
}  // namespace tarn_test
