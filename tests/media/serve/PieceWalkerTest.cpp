#include <gmock/gmock.h>

#include "media/serve/LivePlaylist.h"
#include "media/serve/PieceWalker.h"
#include "media/serve/RowFollower.h"
#include "media/serve/RowReader.h"
#include "recorder/RecorderRig.h"

namespace tarn_test {
namespace {

using tarn::Piece;
using tarn::PieceWalker;

constexpr int64_t kStartUs = int64_t{kStart} * 1000000;

// Recordings of 25 pictures a second, a key picture each second.
class PieceWalkerTest : public testing::Test {
 protected:
  void record(uint32_t from, uint32_t to) {
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, from, to));
    ASSERT_EQ(session.close(), 0);
  }
  std::shared_ptr<const tarn::ServedRows> rows() {
    std::shared_ptr<const tarn::ServedRows> rows;
    tarn::RowReader reader;
    EXPECT_TRUE(reader.refresh(&rows)) << reader.error();
    return rows;
  }
  static std::vector<Piece> all(PieceWalker* walker) {
    std::vector<Piece> pieces;
    for (Piece piece; walker->next(false, &piece);) pieces.push_back(piece);
    return pieces;
  }
  static uint32_t pictures(const std::vector<Piece>& pieces) {
    uint32_t count = 0;
    for (const Piece& piece : pieces) count += piece.count;
    return count;
  }

  RecorderRig rig{{512 * kKiB, 32 * kKiB, 3, 64 * kKiB}};
  SyslogCapture log;
};

TEST_F(PieceWalkerTest, PiecesBeginWithKeyPicturesAndLeaveNothingOut) {
  record(0, 110);
  record(250, 300);
  PieceWalker walker(rows(), 0);
  ASSERT_TRUE(walker.toTime(kStartUs));
  const std::vector<Piece> pieces = all(&walker);
  EXPECT_EQ(pictures(pieces), 160u);
  ASSERT_EQ(pieces.size(), 4u);
  for (size_t i = 0; i < pieces.size(); ++i) {
    EXPECT_TRUE(pieces[i].key) << i;
    EXPECT_EQ(pieces[i].discontinuity, i == 0 || i == 3) << i;
  }
  EXPECT_EQ(pieces[0].toUs, pieces[1].fromUs);
  EXPECT_EQ(pieces[2].toUs, kStartUs + 110 * 40000)
      << "its last picture is shown as long as others";
  EXPECT_EQ(pieces[3].fromUs, kStartUs + 10000000);
}

TEST_F(PieceWalkerTest, ATimeLeadsToTheKeyPictureBeforeOrBehindTheGap) {
  record(0, 110);
  record(250, 300);
  const auto listed = rows();
  PieceWalker walker(listed, 0);
  ASSERT_TRUE(walker.toTime(kStartUs + 2990000));
  EXPECT_EQ(walker.index(), 50u);
  ASSERT_TRUE(walker.toTime(kStartUs + 7000000));
  EXPECT_EQ(walker.streamID(), 2u);
  EXPECT_EQ(walker.index(), 0u);
  EXPECT_FALSE(walker.toTime(kStartUs + 20000000));
  ASSERT_TRUE(walker.toKeyBefore(kStartUs + 7000000));
  EXPECT_EQ(walker.streamID(), 1u);
  EXPECT_EQ(walker.index(), 100u);
  EXPECT_FALSE(walker.toKeyBefore(kStartUs - 1));
  EXPECT_FALSE(walker.toLive(0)) << "nothing runs";
  EXPECT_FALSE(PieceWalker(listed, 1).toTime(kStartUs)) << "another channel";
}

TEST_F(PieceWalkerTest, WhatFollowsAPlaceIsFoundWhenItsRecordingHasGone) {
  record(0, 50);
  record(250, 300);
  PieceWalker walker(rows(), 0);
  ASSERT_TRUE(walker.toPicture(1, 50));
  Piece piece;
  ASSERT_TRUE(walker.next(false, &piece));
  EXPECT_EQ(piece.streamID, 2u);
  CApiDb().deleteStream(1);
  PieceWalker later(rows(), 0);
  ASSERT_TRUE(later.toPicture(1, 25));
  ASSERT_TRUE(later.next(false, &piece));
  EXPECT_EQ(piece.streamID, 2u);
  EXPECT_FALSE(later.toPicture(3, 0));
}

TEST_F(PieceWalkerTest, ARecordingThatGoesOnInTheNextChunkIsOneForAPlayer) {
  // More than a chunk holds, with the change in the middle of a group.
  tarn::RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 0, 120, 8000, 1000));
  ASSERT_EQ(session.close(), 0);
  ASSERT_GE(allStreams().size(), 2u);
  const DB_STREAM second = allStreams()[1];
  PieceWalker walker(rows(), 0);
  ASSERT_TRUE(walker.toTime((int64_t{second.startDate} * 1000 + second.startMSec) * 1000));
  EXPECT_EQ(walker.streamID(), 1u) << "the key picture is there";
  EXPECT_EQ(walker.index(), 0u);
  EXPECT_EQ(pictures(all(&walker)), 120u);
}

TEST_F(PieceWalkerTest, OfARunningRecordingWholePiecesWait) {
  tarn::RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 0, 80));
  ASSERT_EQ(session.flush(), 0);
  PieceWalker walker(rows(), 0);
  ASSERT_TRUE(walker.toTime(kStartUs));
  Piece piece;
  ASSERT_TRUE(walker.next(true, &piece));
  EXPECT_EQ(piece.count, 50u);
  EXPECT_FALSE(walker.next(true, &piece)) << "it may become longer";
  ASSERT_TRUE(walker.next(false, &piece));
  EXPECT_EQ(piece.first, 50u);
  EXPECT_EQ(piece.end(), 80u);
  ASSERT_TRUE(walker.toLive(0));
  EXPECT_EQ(walker.index(), 75u);
  ASSERT_EQ(session.close(), 0);
}

TEST_F(PieceWalkerTest, RowsAreReadAgainOnlyWhereSomethingChanged) {
  record(0, 50);
  std::shared_ptr<const tarn::ServedRows> before, now;
  tarn::RowReader reader;
  ASSERT_TRUE(reader.refresh(&before));
  now = before;
  ASSERT_TRUE(reader.refresh(&now));
  EXPECT_EQ(now, before);
  DB_EVENT events[3] = {};
  for (DB_EVENT& event : events) {
    event.startDate = kStart;
    CApiDb().insertEvent(&event);
  }
  ASSERT_TRUE(reader.refresh(&now));
  ASSERT_EQ(now->events->size(), 3u);
  EXPECT_EQ((*now->events)[1].endDate, 0u);
  events[1].endDate = kStart + 1;
  CApiDb().updateEvent(kEventRegEndDate, &events[1]);
  CApiDb().deleteEvent(events[0].eventID);
  ASSERT_TRUE(reader.refresh(&now));
  ASSERT_EQ(now->events->size(), 2u);
  EXPECT_EQ((*now->events)[0].endDate, kStart + 1) << "its end";
  CApiDb().deleteEvent(events[1].eventID);
  CApiDb().insertEvent(&events[0]);
  ASSERT_TRUE(reader.refresh(&now));
  ASSERT_EQ(now->events->size(), 2u) << "one went from the front, one came";
  DB_EVENT last = events[2];
  CApiDb().insertEvent(&last);
  CApiDb().deleteEvent(events[0].eventID);
  ASSERT_TRUE(reader.refresh(&now));
  ASSERT_EQ(now->events->size(), 2u) << "one went from the middle";
  EXPECT_EQ((*now->events)[1].eventID, last.eventID);
}

TEST_F(PieceWalkerTest, ADatabaseThatIsGoneIsToldAndWhatWasReadStays) {
  record(0, 50);
  std::shared_ptr<const tarn::ServedRows> rows;
  tarn::RowReader reader;
  ASSERT_TRUE(reader.refresh(&rows));
  const auto before = rows;
  ASSERT_EQ(rename("/tmp/DB.dat", "/tmp/away"), 0);
  EXPECT_FALSE(reader.refresh(&rows));
  EXPECT_NE(reader.error(), "");
  EXPECT_EQ(rows, before);
  ASSERT_EQ(rename("/tmp/away", "/tmp/DB.dat"), 0);
  EXPECT_TRUE(reader.refresh(&rows));
  EXPECT_EQ(rows->recordings.size(), 1u);
}

TEST_F(PieceWalkerTest, PiecesOfALivePlaylistKeepTheirNumbers) {
  tarn::RecordingSession session;
  ASSERT_TRUE(openSession(session));
  const auto own = [](tarn::PlaylistPiece* piece) {
    piece->init.streamID = piece->piece.streamID;
    return tarn::LivePlaylist::Judgement::kTake;
  };
  tarn::LivePlaylist list;
  list.refresh(rows(), 0, 0, own);
  EXPECT_TRUE(list.isEmpty());
  ASSERT_TRUE(writePictures(session, 0, 80));
  ASSERT_EQ(session.flush(), 0);
  list.refresh(rows(), 0, 1, own);
  EXPECT_THAT(list.text(), testing::HasSubstr("#EXT-X-MEDIA-SEQUENCE:0\n"));
  EXPECT_THAT(list.text(), testing::HasSubstr("1-0-50.m4s"));
  ASSERT_TRUE(writePictures(session, 80, 410));
  ASSERT_EQ(session.flush(), 0);
  list.refresh(rows(), 0, 2, own);
  EXPECT_THAT(list.text(), testing::HasSubstr("#EXT-X-MEDIA-SEQUENCE:2\n"));
  EXPECT_THAT(list.text(), testing::Not(testing::HasSubstr("1-50-50.m4s")));
  EXPECT_THAT(list.text(), testing::EndsWith("1-350-50.m4s\n"));
  ASSERT_EQ(session.close(), 0);
}

}  // namespace
}  // namespace tarn_test
