#include <algorithm>

#include "dblog/CDbLog.h"
#include "fat/CardWear.h"
#include "recorder/RecorderRig.h"
#include "support/IoFaults.h"

namespace tarn_test {
namespace {

using tarn::CardWear;

// What was counted of a recording, against what the device was asked for. The server is a thread of
// this process, so that its writes are seen as well.
class CardWearTest : public RecorderRig, public testing::Test {
 protected:
  static void recordSeconds(uint32_t from, uint32_t seconds) {
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, from, from + seconds * kRate));
    ASSERT_EQ(session.close(), 0) << session.errorText();
  }
  // Bytes that the device took inside a family's chunks.
  uint64_t bytesIn(const IoFaults& device, int type) const {
    const CardFamily& family = card.family(type);
    const auto begin = static_cast<int64_t>(card.chunkStart(type, 0));
    const int64_t end = begin + static_cast<int64_t>(uint64_t{family.chunkSize} * family.count);
    uint64_t bytes = 0;
    for (const IoRecord& call : device.calls()) {
      const bool write = call.call == Call::Write || call.call == Call::Pwrite;
      if (!write || call.offset < begin || call.offset >= end) continue;
      bytes += static_cast<uint64_t>(std::max<int64_t>(call.result, 0));
    }
    return bytes;
  }
  static uint64_t written(const IoFaults& device) {
    uint64_t bytes = 0;
    for (const IoRecord& call : device.calls()) {
      const bool write = call.call == Call::Write || call.call == Call::Pwrite;
      if (write) bytes += static_cast<uint64_t>(std::max<int64_t>(call.result, 0));
    }
    return bytes;
  }
};

TEST_F(CardWearTest, TheSharesOfARecordingAreWhatTheDeviceGot) {
  const IoFaults device(kCardPath);
  const CardWear before = tarn::cardWear();
  recordSeconds(0, 5);
  recordSeconds(5 * kRate, 2);
  CDbLog::getInstance()->finish();
  const CardWear wear = tarn::cardWear().since(before);
  CardWear::Share all;
  for (const CardWear::Share& share : wear.kinds) {
    all.bytes += share.bytes;
    all.writes += share.writes;
    all.flushes += share.flushes;
  }
  EXPECT_EQ(all.bytes, written(device));
  EXPECT_EQ(all.writes, device.count(Call::Write) + device.count(Call::Pwrite));
  EXPECT_EQ(all.flushes, device.count(Call::Fsync));
  for (const int type : {tarn::kFileStream, tarn::kFilePicture, tarn::kFileJournal,
                         tarn::kFileStreamManage, tarn::kFileJournalManage}) {
    EXPECT_EQ(wear.kinds[type].bytes, bytesIn(device, type)) << type;
    EXPECT_GT(wear.kinds[type].bytes, 0u) << type;
  }
  EXPECT_GT(wear.kinds[tarn::kFileStream].bytes, 7u * kRate * 800) << "pictures and time stamps";
  EXPECT_EQ(wear.kinds[tarn::kFileSyslog].bytes, 0u);
}

// A header is written when a row begins and twice when it ends.
TEST_F(CardWearTest, HeadersArePartOfWhatGoesToPictureChunks) {
  const CardWear before = tarn::cardWear();
  recordSeconds(0, 3);
  const CardWear wear = tarn::cardWear().since(before);
  EXPECT_EQ(wear.headers.bytes, 32u * wear.headers.writes);
  EXPECT_EQ(wear.headers.writes, 3u);
  EXPECT_EQ(wear.headers.flushes, wear.headers.writes);
  EXPECT_EQ(wear.kinds[tarn::kFilePicture].bytes, wear.headers.bytes + 3u * kRate * 32);
}

// Header, both copies of the record, closed header; what the next row begins with saves what is
// left.
TEST_F(CardWearTest, ARowThatAnotherFollowsIsClosedInFourWrites) {
  const auto costOfRows = [](uint32_t rows) {
    tarn::RecordingOptions options;
    options.segmentSeconds = 1;
    tarn::RecordingSession session;
    const CardWear before = tarn::cardWear();
    EXPECT_TRUE(openSession(session, options));
    EXPECT_TRUE(writePictures(session, 0, rows * kRate));
    EXPECT_EQ(session.statistics().segments, rows);
    EXPECT_EQ(session.close(), 0) << session.errorText();
    CDbLog::getInstance()->finish();
    return tarn::cardWear().since(before);
  };
  const CardWear few = costOfRows(2);
  const CardWear wear = costOfRows(5).since(few);
  EXPECT_EQ(wear.headers.writes, 3u * 3) << "one of a row's begin, two of its close";
  EXPECT_EQ(wear.kinds[tarn::kFileJournal].writes, 3u * (2 + 2)) << "insert and close";
  EXPECT_EQ(wear.kinds[tarn::kFileStreamManage].writes, 0u);
  EXPECT_EQ(wear.kinds[tarn::kFileJournalManage].writes, 3u * 2) << "the insert's";
}

// Where the server is another process, this is all that is known of its writes.
TEST_F(CardWearTest, SavesThatWereAskedForAreWhatTheServerWrites) {
  const CardWear before = tarn::cardWear();
  recordSeconds(0, 4);
  CDbLog::getInstance()->finish();
  const CardWear wear = tarn::cardWear().since(before);
  const CardWear::Share& streams = wear.kinds[tarn::kFileStreamManage];
  const CardWear::Share& journal = wear.kinds[tarn::kFileJournalManage];
  EXPECT_GT(wear.asked.writes, 0u);
  EXPECT_EQ(wear.asked.bytes, streams.bytes + journal.bytes);
  EXPECT_EQ(wear.asked.writes, streams.writes + journal.writes);
  EXPECT_EQ(wear.asked.flushes, streams.flushes + journal.flushes);
}

TEST_F(CardWearTest, WhatTheDeviceRefusesIsNotCounted) {
  IoFaults device(kCardPath);
  device.fail(Call::Write, 1, EIO, IoFaults::kForever);
  const CardWear before = tarn::cardWear();
  tarn::RecordingSession session;
  if (session.open({}) == 0) session.close();
  CDbLog::getInstance()->finish();
  const CardWear wear = tarn::cardWear().since(before);
  for (const CardWear::Share& share : wear.kinds) EXPECT_EQ(share.bytes, 0u);
}

}  // namespace
}  // namespace tarn_test
