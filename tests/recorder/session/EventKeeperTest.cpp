#include <gtest/gtest.h>
#include <syslog.h>

#include "recorder/RecoveryRig.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/rows/RowQueries.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/session/EventKeeper.h"
#include "recorder/session/KeepClient.h"
#include "recorder/session/KeepJob.h"
#include "recorder/session/KeptMessages.h"

using namespace tarn_test;

namespace tarn {
namespace {

RecoveryRig::Shape eightChunks() {
  RecoveryRig::Shape shape;
  shape.chunks = 8;
  return shape;
}

std::vector<DB_STREAM> copies() {
  CApiDb db;
  RowQueries queries(&db, nullptr);
  std::vector<DB_STREAM> rows;
  EXPECT_TRUE(queries.streams("SELECT * FROM STREAM WHERE " TARN_SQL_KEPT_WHOLE, &rows));
  return rows;
}

KeeperOptions everyEvent() {
  KeeperOptions options;
  options.everyEvent = true;
  return options;
}

// Records pictures 0 to 149 with an event from 30 to 60.
uint32_t recordEvent(RecordingSession& session, bool end = true) {
  EXPECT_TRUE(writePictures(session, 0, 30));
  const uint32_t event = session.beginEvent(7, pictureTime(30), 0);
  EXPECT_TRUE(writePictures(session, 30, 60));
  if (end) {
    EXPECT_EQ(session.endEvent(event, pictureTime(60)), 0);
  }
  EXPECT_TRUE(writePictures(session, 60, 150));
  return event;
}

TEST(EventKeeper, KeepsEachEventWhileItsSessionGoesOn) {
  RecoveryRig rig(eightChunks());
  EventKeeper keeper;
  ASSERT_EQ(keeper.start(everyEvent()), 0);
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  recordEvent(session);
  ASSERT_EQ(session.flush(), 0);
  for (int i = 0; i < 400 && copies().empty(); ++i) usleep(10000);
  ASSERT_EQ(copies().size(), 1u);
  EXPECT_EQ(verifyRow(copies()[0]), range(25, 75));
  ASSERT_TRUE(writePictures(session, 150, 200));
  EXPECT_EQ(session.close(), 0) << session.errorText();
}

TEST(EventKeeper, KeepsAnEventThatASessionAsksFor) {
  RecoveryRig rig(eightChunks());
  RecordingSession session;
  EXPECT_EQ(session.keepEvent(1), -1);  // nobody is there to keep it
  EventKeeper keeper;
  ASSERT_EQ(keeper.start({}), 0);
  ASSERT_TRUE(openSession(session));
  const uint32_t event = recordEvent(session);
  EXPECT_EQ(session.keepEvent(event), 0);
  ASSERT_EQ(session.close(), 0);
  keeper.stop(true);
  ASSERT_EQ(copies().size(), 1u);
}

TEST(EventKeeper, FinishesWhatIsWaitingWhenToldSo) {
  RecoveryRig rig(eightChunks());
  EventKeeper keeper;
  ASSERT_EQ(keeper.start(everyEvent()), 0);
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  recordEvent(session, false);  // ended by close()
  ASSERT_EQ(session.close(), 0);
  keeper.stop(true);
  EXPECT_EQ(copies().size(), 2u);  // in pieces
}

TEST(EventKeeper, GoesOnWithWhatAPowerLossLeft) {
  RecoveryRig rig(eightChunks());
  {
    RecordingSession session;
    ASSERT_TRUE(openSession(session));
    recordEvent(session);
    ASSERT_EQ(session.close(), 0);
  }
  EventKeeper keeper;
  ASSERT_EQ(keeper.start(everyEvent()), 0);
  keeper.stop(true);
  ASSERT_EQ(copies().size(), 1u);
  ASSERT_EQ(keeper.start(everyEvent()), 0);  // and not again
  keeper.stop(true);
  EXPECT_EQ(copies().size(), 1u);
}

TEST(EventKeeper, TakesRequestsThroughItsSocket) {
  RecoveryRig rig(eightChunks());
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  const uint32_t event = recordEvent(session);
  ASSERT_EQ(session.close(), 0);
  EXPECT_FALSE(KeepClient::isThere());
  EventKeeper keeper;
  ASSERT_EQ(keeper.start({}), 0);
  EXPECT_TRUE(KeepClient::isThere());
  KeepClient client;
  const auto done = [&client](KeepCommand command, uint32_t number) {
    KeepRequest request;
    KeepAnswer answer;
    request.command = command;
    request.number = number;
    EXPECT_TRUE(client.ask(request, &answer));
    request.command = KeepCommand::kAsk;
    request.number = answer.ticket;
    for (int i = 0; i < 400 && answer.state == KeepState::kWaiting; ++i) {
      usleep(10000);
      if (!client.ask(request, &answer)) break;
    }
    return answer;
  };
  KeepAnswer answer = done(KeepCommand::kKeepEvent, event);
  EXPECT_EQ(answer.state, KeepState::kDone) << answer.text;
  EXPECT_EQ(answer.result.pictures, 50u);
  answer = done(KeepCommand::kKeepEvent, event + 1);
  EXPECT_EQ(answer.state, KeepState::kFailed);
  EXPECT_EQ(answer.text, kErrKeepNoEvent);
  answer = done(KeepCommand::kReleaseEvent, event);
  EXPECT_EQ(answer.state, KeepState::kDone) << answer.text;
  EXPECT_TRUE(copies().empty());
  answer = done(KeepCommand::kReleaseEvent, event);
  EXPECT_EQ(answer.text, kErrKeepNoCopy);
}

TEST(EventKeeper, OneRunsInAProcess) {
  RecoveryRig rig(eightChunks());
  EventKeeper first;
  EventKeeper second;
  EXPECT_EQ(first.start({}), 0);
  EXPECT_EQ(second.start({}), -1);
  first.stop();
  EXPECT_EQ(second.start({}), 0);
}

TEST(EventKeeper, TouchesNothingBeforeThereIsAServer) {
  RecoveryRig rig(eightChunks());
  {
    RecordingSession session;
    ASSERT_TRUE(openSession(session));
    recordEvent(session);
    ASSERT_EQ(session.close(), 0);
  }
  rig.stopServer();
  ASSERT_EQ(rename("/tmp/DB.dat", "/tmp/later.dat"), 0);  // a recovery is still at work on it
  waitForServerStart();
  EventKeeper keeper;
  ASSERT_EQ(keeper.start(everyEvent()), 0);
  ASSERT_EQ(rename("/tmp/later.dat", "/tmp/DB.dat"), 0);
  EXPECT_EQ(serverPatienceMs(), RequestPatience::kForever);
  rig.startServer();
  for (int i = 0; i < 3000 && copies().empty(); ++i) usleep(10000);
  EXPECT_EQ(copies().size(), 1u);
  EXPECT_EQ(serverPatienceMs(), kServerPatienceMs);
}

TEST(EventKeeper, RefusesWhatItHasNoPlaceFor) {
  RecoveryRig rig(eightChunks());
  rig.stopServer();
  waitForServerForever(true);  // so that everything waits
  EventKeeper keeper;
  ASSERT_EQ(keeper.start({}), 0);
  for (uint32_t event = 1; event <= EventKeeper::kMostWaiting; ++event)
    ASSERT_EQ(keeper.keepEvent(event), 0) << event;
  SyslogCapture log;
  EXPECT_EQ(keeper.keepEvent(5000), -1);
  EXPECT_EQ(keeper.keepEvent(1), 0) << "the same again takes no place";
  EXPECT_TRUE(
      log.has(LOG_WARNING,
              "EventKeeper: event 5000: too many requests to keep something are waiting already; "
              "ask again later"));
  KeepClient client;
  KeepRequest request;
  KeepAnswer answer;
  request.command = KeepCommand::kReleaseEvent;
  request.number = 1;
  ASSERT_TRUE(client.ask(request, &answer));
  EXPECT_EQ(answer.state, KeepState::kFailed);
  EXPECT_EQ(answer.text, kErrKeeperFull);
  keeper.stop();
  waitForServerForever(false);
}

TEST(KeepRequest, SaysWhatWasMeant) {
  KeepRequest request;
  request.command = KeepCommand::kKeepPeriod;
  request.from = {1, 2};
  request.to = {3, 4};
  request.channel = 5;
  request.budgetChunks = 6;
  request.strict = true;
  uint8_t bytes[kKeepRequestSize];
  encodeKeepRequest(request, bytes);
  const uint8_t expected[kKeepRequestSize] = {2, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0,
                                              0, 0, 4, 0, 0, 0, 5, 0, 0, 0, 6, 0, 0, 0, 1, 0, 0, 0};
  EXPECT_TRUE(std::equal(bytes, bytes + sizeof bytes, expected));
  KeepRequest read;
  ASSERT_TRUE(decodeKeepRequest(bytes, sizeof bytes, &read));
  EXPECT_EQ(read.channel, 5);
  EXPECT_FALSE(decodeKeepRequest(bytes, sizeof bytes - 1, &read));
}

}  // namespace
}  // namespace tarn
