// tarn keep, beside a recorder and without one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "recorder/RecorderRig.h"
#include "recorder/session/EventKeeper.h"
#include "support/Shell.h"

namespace tarn_test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

ShellResult tarn(const std::string& arguments) {
  return shell(std::string(TARN_BIN_DIR "/tarn ") + arguments + " </dev/null 2>&1");
}

RecorderRig::Shape eightChunks() {
  RecorderRig::Shape shape;
  shape.chunks = 8;
  return shape;
}

class TarnKeepTest : public ::testing::Test {
 protected:
  // Pictures 0 to 149 with an event, whose key is returned.
  uint32_t record() {
    EXPECT_TRUE(openSession(session));
    EXPECT_TRUE(writePictures(session, 0, 30));
    const uint32_t event = session.beginEvent(7, pictureTime(30), 0);
    EXPECT_TRUE(writePictures(session, 30, 60));
    EXPECT_EQ(session.endEvent(event, pictureTime(60)), 0);
    EXPECT_TRUE(writePictures(session, 60, 150));
    return event;
  }
  uint32_t recordAndClose() {
    const uint32_t event = record();
    EXPECT_EQ(session.close(), 0);
    CDbLog::getInstance()->finish();
    return event;
  }

  RecorderRig rig{eightChunks()};
  tarn::RecordingSession session;
};

TEST_F(TarnKeepTest, KeepsListsAndReleasesAnEvent) {
  const std::string event = std::to_string(recordAndClose());
  EXPECT_THAT(tarn("list events").output, Not(HasSubstr("kept")));
  ShellResult result = tarn("keep --event " + event);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("kept 50 pictures"));
  EXPECT_THAT(tarn("keep --event " + event).output, HasSubstr("all of it is kept already"));
  EXPECT_THAT(tarn("keep --list").output, HasSubstr("copy of"));
  EXPECT_THAT(tarn("keep --list --json").output, HasSubstr("\"pictures\": 50"));
  EXPECT_THAT(tarn("list events").output, HasSubstr("kept"));
  EXPECT_THAT(tarn("list events --json").output, HasSubstr("\"kept\": true"));
  EXPECT_THAT(tarn("list").output, HasSubstr("copy of 1"));
  EXPECT_THAT(tarn("list --json").output, HasSubstr("\"copyOf\": 1"));
  rig.stopServer();
  // Of the FAT, which the test's card has none of; nothing of the copy.
  EXPECT_THAT(tarn("check").output, HasSubstr(": 5 findings, 2 recordings, 1 events"));
  EXPECT_THAT(tarn("check").output,
              HasSubstr("  fat                   4\n  file                  1\n"));
  rig.startServer();
  result = tarn("keep --release " + event);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("released 1 copies"));
  result = tarn("keep --release " + event);
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.output, HasSubstr("nothing is kept of it"));
}

TEST_F(TarnKeepTest, AsksTheProcessThatRecords) {
  tarn::EventKeeper keeper;
  ASSERT_EQ(keeper.start({}), 0);
  const std::string event = std::to_string(record());
  ASSERT_EQ(session.flush(), 0);
  const ShellResult result = tarn("keep --json --event " + event);
  EXPECT_EQ(result.exitCode, 0) << result.output;
  EXPECT_THAT(result.output, HasSubstr("\"pictures\": 50"));
  EXPECT_THAT(tarn("keep --event 99").output, HasSubstr("there is no such event"));
  EXPECT_EQ(session.close(), 0);
}

TEST_F(TarnKeepTest, SaysWhenTheRecordingProcessTakesNoRequests) {
  const std::string event = std::to_string(record());
  const ShellResult result = tarn("keep --event " + event);
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.output, HasSubstr("takes no requests to keep"));
  EXPECT_EQ(session.close(), 0);
}

TEST_F(TarnKeepTest, WantsToKnowWhat) {
  EXPECT_EQ(tarn("keep").exitCode, 2);
  EXPECT_EQ(tarn("keep --event 1 --release 1").exitCode, 2);
  EXPECT_EQ(tarn("keep --from never").exitCode, 2);
}

}  // namespace
}  // namespace tarn_test
