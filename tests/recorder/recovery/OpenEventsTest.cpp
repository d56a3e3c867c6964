#include <gmock/gmock.h>

#include "recorder/RecoveryRig.h"

// What recovery makes of events: of those that were still running, and of those whose recording
// lost power before two pictures of it were safe.

namespace tarn_test {
namespace {

using tarn::RecoveryReport;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr uint32_t kHours = 3600 * kRate;  // pictures

class OpenEventsTest : public testing::Test {
 protected:
  void cutAndBoot(const Bytes& cut) {
    rig.powerOff(cut);
    report = rig.boot();
    ASSERT_TRUE(report.ok()) << report.error;
    const Bytes after = rig.cardBytes();
    const RecoveryReport again = rig.boot();
    EXPECT_TRUE(again.ok()) << again.error;
    EXPECT_THAT(again.changes, IsEmpty());
    EXPECT_TRUE(rig.cardBytes() == after) << "a second run changed the card";
  }
  // The power goes in the middle of `life`, which a session lives.
  template <typename Life>
  void interrupt(Life life) {
    Bytes cut;
    {
      tarn::RecordingSession session;
      ASSERT_TRUE(openSession(session));
      life(session);
      cut = rig.cardBytes();
    }
    cutAndBoot(cut);
  }
  static DB_EVENT eventOf(uint32_t trigger) {
    for (const DB_EVENT& event : allEvents()) {
      if (event.extTrg == trigger) return event;
    }
    return {};
  }
  static tarn::PictureTime endOf(const DB_EVENT& event) {
    return {event.endDate, event.endMSec * 1000u};
  }
  // An event of a closed recording, from one picture to another.
  static void closedEvent(tarn::RecordingSession& session, uint16_t trigger, uint32_t from,
                          uint32_t to, uint16_t preSec = 0) {
    const uint32_t key = session.beginEvent(trigger, pictureTime(from), preSec);
    EXPECT_EQ(session.endEvent(key, pictureTime(to)), 0);
  }

  RecoveryRig rig;
  SyslogCapture log;
  RecoveryReport report;
};

// For a vehicle recorder this is the impact itself.
TEST_F(OpenEventsTest, OneOfTheLastSecondBeforeTheCutStays) {
  interrupt([](tarn::RecordingSession& session) {
    ASSERT_TRUE(writePictures(session, 0, 70));
    EXPECT_NE(session.beginEvent(1, pictureTime(60), 0), 0u);
    EXPECT_NE(session.beginEvent(2, pictureTime(30), 0), 0u);
    ASSERT_EQ(session.flush(), 0);
  });
  EXPECT_EQ(report.count(Kind::kEventClosed), 2u);
  const DB_EVENT late = eventOf(1);
  EXPECT_EQ(endOf(late), (tarn::PictureTime{late.startDate + 1, late.startMSec * 1000u}))
      << "not at once";
  EXPECT_EQ(endOf(eventOf(2)), pictureTime(69)) << "the last safe picture, milliseconds included";
}

TEST_F(OpenEventsTest, OneBehindTheLastPictureStaysWithTheSecondsBeforeIt) {
  interrupt([](tarn::RecordingSession& session) {
    ASSERT_TRUE(writePictures(session, 0, 70));
    EXPECT_NE(session.beginEvent(1, pictureTime(150), 5), 0u);
    EXPECT_NE(session.beginEvent(2, pictureTime(150), 1), 0u);
  });
  EXPECT_NE(eventOf(1).endDate, 0u);
  EXPECT_EQ(eventOf(2).eventID, 0u) << "nothing of it was recorded";
}

TEST_F(OpenEventsTest, AfterTheClockWasSetBackOneEndsWithItsOwnRecording) {
  interrupt([](tarn::RecordingSession& session) {
    ASSERT_TRUE(writePictures(session, 2 * kHours, 2 * kHours + 60));
    ASSERT_TRUE(writePictures(session, 0, 75));  // two hours ago
    EXPECT_NE(session.beginEvent(1, pictureTime(10), 0), 0u);
    ASSERT_EQ(session.flush(), 0);
  });
  ASSERT_EQ(allStreams().size(), 2u);
  EXPECT_EQ(endOf(eventOf(1)), pictureTime(74));
}

TEST_F(OpenEventsTest, AfterTheClockWasSetForwardOneEndsWithItsOwnRecording) {
  interrupt([](tarn::RecordingSession& session) {
    ASSERT_TRUE(writePictures(session, 0, 50));
    EXPECT_NE(session.beginEvent(1, pictureTime(10), 0), 0u);
    ASSERT_TRUE(writePictures(session, 2 * kHours, 2 * kHours + 60));
    ASSERT_EQ(session.flush(), 0);
  });
  ASSERT_EQ(allStreams().size(), 2u);
  EXPECT_EQ(endOf(eventOf(1)), pictureTime(49));
}

TEST_F(OpenEventsTest, OneGoesOnThroughTheRecordingsThatFollow) {
  Bytes cut;
  {
    tarn::RecordingOptions options;
    options.segmentSeconds = 1;
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session, options));
    ASSERT_TRUE(writePictures(session, 0, 40));
    EXPECT_NE(session.beginEvent(1, pictureTime(10), 0), 0u);
    ASSERT_TRUE(writePictures(session, 40, 110));
    ASSERT_EQ(session.flush(), 0);
    cut = rig.cardBytes();
  }
  cutAndBoot(cut);
  EXPECT_GT(allStreams().size(), 3u);
  EXPECT_EQ(endOf(eventOf(1)), pictureTime(109));
}

TEST_F(OpenEventsTest, OneStaysOpenWithARecordingThatTheCardDoesNotGive) {
  Bytes cut;
  DB_STREAM row = {};
  {
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 0, 70));
    EXPECT_NE(session.beginEvent(1, pictureTime(10), 0), 0u);
    ASSERT_EQ(session.flush(), 0);
    row = allStreams().at(0);
    cut = rig.cardBytes();
  }
  rig.powerOff(cut);
  {
    const auto header = static_cast<int64_t>(
        rig.card.chunkStart(tarn::kFilePicture, static_cast<int>(row.chunkID)) + row.chunkOffset);
    IoFaults faults(kCardPath);
    faults.failAt(Call::Read, static_cast<uint64_t>(header), 512, EIO);
    ASSERT_TRUE(rig.boot().ok());
    EXPECT_EQ(eventOf(1).endDate, 0u);
  }
  ASSERT_TRUE(rig.boot().ok());
  EXPECT_EQ(endOf(eventOf(1)), pictureTime(69));
}

// A recording of which one picture is safe goes: with what only it could show.
class LostRecordingTest : public OpenEventsTest {
 protected:
  Bytes cutAfterOnePicture(uint32_t number) {
    tarn::RecordingSession session;
    EXPECT_TRUE(openSession(session));
    EXPECT_TRUE(writePictures(session, number, number + 1, 800, 1));
    EXPECT_EQ(session.flush(), 0);
    return rig.cardBytes();
  }
};

TEST_F(LostRecordingTest, AnEventWhosePreSecondsAreSafeElsewhereStays) {
  interrupt([](tarn::RecordingSession& session) {
    ASSERT_TRUE(writePictures(session, 0, 100));
    ASSERT_EQ(session.close(), 0);
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 150, 151, 800, 1));
    closedEvent(session, 1, 150, 155, 4);
    closedEvent(session, 2, 150, 155, 1);
  });
  EXPECT_EQ(report.count(Kind::kRecordingDeleted), 1u);
  EXPECT_EQ(eventOf(1).eventID, 1u);
  EXPECT_EQ(eventOf(2).eventID, 0u);
}

TEST_F(LostRecordingTest, AnEventThatAnotherRecordingShowsInPartStays) {
  Bytes cut;
  {
    tarn::RecordingSession session;
    tarn::RecordingSession other;
    tarn::RecordingOptions options;
    options.channel = 1;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 150, 151, 800, 1));
    ASSERT_TRUE(openSession(other, options));
    ASSERT_TRUE(writePictures(other, 200, 230));
    closedEvent(session, 1, 152, 210);  // begins before the other one
    closedEvent(session, 2, 152, 160);
    ASSERT_EQ(other.flush(), 0);
    cut = rig.cardBytes();
  }
  cutAndBoot(cut);
  EXPECT_EQ(report.count(Kind::kRecordingDeleted), 1u);
  EXPECT_EQ(eventOf(1).eventID, 1u);
  EXPECT_EQ(eventOf(2).eventID, 0u);
}

TEST_F(LostRecordingTest, LaterEventsStayWhenTheClockWasSetBack) {
  {
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 2 * kHours, 2 * kHours + 60));
    closedEvent(session, 1, 2 * kHours + 10, 2 * kHours + 20);
    closedEvent(session, 2, 3 * kHours, 3 * kHours + 20);  // nobody recorded it
    ASSERT_EQ(session.close(), 0);
  }
  cutAndBoot(cutAfterOnePicture(0));
  EXPECT_EQ(report.count(Kind::kRecordingDeleted), 1u);
  EXPECT_EQ(allEvents().size(), 2u);
}

}  // namespace
}  // namespace tarn_test
