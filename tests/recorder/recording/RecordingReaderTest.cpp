#include <gtest/gtest.h>

#include "base/Endian.h"
#include "recorder/RecorderRig.h"
#include "recorder/recording/AnnexB.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/recording/RecordingReader.h"

using namespace tarn_test;

namespace tarn {
namespace {

RecordingOptions withSegments(uint32_t seconds) {
  RecordingOptions options;
  options.segmentSeconds = seconds;
  return options;
}

// A card with one closed recording of 100 pictures.
struct OneRecording {
  RecorderRig rig;
  RecordingSession session;
  OneRecording() {
    EXPECT_TRUE(openSession(session));
    EXPECT_TRUE(writePictures(session, 0, 100));
    EXPECT_EQ(0, session.close());
  }
};

TEST(RecordingReader, GivesPicturesByIndexWithoutAServer) {
  OneRecording one;
  one.rig.stopServer();
  RecordingReader reader;
  EXPECT_FALSE(reader.isOpen());
  ASSERT_EQ(0, reader.open(allStreams().at(0).streamID));
  EXPECT_TRUE(reader.isOpen());
  EXPECT_EQ(reader.pictureCount(), 100u);
  EXPECT_EQ(reader.header().marker, kMarkerClosed);
  // In any order, also across the blocks that are read at once.
  for (const uint32_t index : {99u, 0u, 50u, 1u, 98u}) {
    PictureEntry entry;
    Bytes bytes;
    ASSERT_TRUE(reader.picture(index, &entry));
    EXPECT_EQ(entry.number, 100 + index);
    ASSERT_TRUE(reader.readPicture(entry, &bytes));
    EXPECT_EQ(bytes, pictureBytes(index, 800));
  }
  PictureEntry entry;
  EXPECT_FALSE(reader.picture(100, &entry));
  reader.close();
  EXPECT_FALSE(reader.isOpen());
  EXPECT_EQ(reader.pictureCount(), 0u);
  EXPECT_FALSE(reader.picture(0, &entry));
}

TEST(RecordingReader, GivesPicturesWithTheirTimeStampWhenAsked) {
  OneRecording one;
  RecordingReader reader;
  ASSERT_EQ(0, reader.open(allStreams().at(0)));
  PictureEntry entry;
  Bytes with;
  ASSERT_TRUE(reader.picture(60, &entry));
  ASSERT_TRUE(reader.readPicture(entry, &with, true));
  EXPECT_EQ(with.size(), 850u);
  uint8_t sei[kTimeStampSeiSize];
  makeTimeStampSei(kStart + 2, sei);
  EXPECT_TRUE(std::equal(sei, sei + sizeof sei, with.begin()));
  EXPECT_EQ(Bytes(with.begin() + kTimeStampSeiSize, with.end()), pictureBytes(60, 800));
}

TEST(RecordingReader, FindsTheKeyPictureBeforeATime) {
  OneRecording one;
  RecordingReader reader;
  ASSERT_EQ(0, reader.open(allStreams().at(0)));
  EXPECT_EQ(reader.findKeyPictureBefore({kStart - 1, 999999}), -1);
  EXPECT_EQ(reader.findKeyPictureBefore({kStart, 0}), 0);
  EXPECT_EQ(reader.findKeyPictureBefore({kStart, 999999}), 0);
  EXPECT_EQ(reader.findKeyPictureBefore({kStart + 1, 0}), 25);
  EXPECT_EQ(reader.findKeyPictureBefore({kStart + 2, 500000}), 50);
  EXPECT_EQ(reader.findKeyPictureBefore({kStart + 4000, 0}), 75);
}

TEST(RecordingReader, FindsTheFirstPictureFromATime) {
  OneRecording one;
  RecordingReader reader;
  ASSERT_EQ(0, reader.open(allStreams().at(0)));
  EXPECT_EQ(reader.findPictureFrom({0, 0}), 0);
  EXPECT_EQ(reader.findPictureFrom({kStart + 1, 0}), 25);
  EXPECT_EQ(reader.findPictureFrom({kStart + 1, 1}), 26);
  EXPECT_EQ(reader.findPictureFrom({kStart + 3, 960000}), 99);
  EXPECT_EQ(reader.findPictureFrom({kStart + 3, 960001}), -1);
}

TEST(RecordingReader, FindsPicturesThatAreDecodedInAnotherOrder) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  // I0 P3 B1 B2 P6 B4 B5 …: presentation in steps of 40 ms, decoding one picture ahead.
  const uint32_t order[] = {0, 3, 1, 2, 6, 4, 5, 9, 7, 8, 12, 10, 11};
  uint32_t decoded = 0;
  for (const uint32_t shown : order) {
    const Bytes bytes = pictureBytes(shown, 500, 12);
    const int32_t offset =
        (static_cast<int32_t>(decoded) - static_cast<int32_t>(shown) - 1) * 40000;
    ASSERT_EQ(0, session.writePicture(bytes.data(), bytes.size(), pictureTime(shown), offset,
                                      isKey(shown, 12)));
    ++decoded;
  }
  ASSERT_EQ(0, session.close());
  RecordingReader reader;
  ASSERT_EQ(0, reader.open(allStreams().at(0)));
  EXPECT_EQ(reader.row().endMSec, 480);
  EXPECT_EQ(reader.findKeyPictureBefore(pictureTime(11)), 0);
  EXPECT_EQ(reader.findKeyPictureBefore(pictureTime(12)), 10);
  EXPECT_EQ(reader.findPictureFrom(pictureTime(4)), 4);  // P6 comes first in decode order
  PictureEntry entry;
  for (uint32_t i = 0; i < 13; ++i) {
    ASSERT_TRUE(reader.picture(i, &entry));
    EXPECT_EQ(entry.presentation, pictureTime(order[i]));
    EXPECT_EQ(entry.decodeTime().totalMicros(),
              pictureTime(0).totalMicros() + (int64_t{i} - 1) * 40000);
  }
}

TEST(RecordingReader, ReadsAcrossTheEndsOfBothRings) {
  // 2 KiB hold 64 records; after 40 s of segments every offset has been a start.
  RecorderRig rig({64 * kKiB, 4 * kKiB, 2, 64 * kKiB});
  RecordingSession session;
  ASSERT_TRUE(openSession(session, withSegments(1)));
  bool picturesWrapped = false;
  bool dataWrapped = false;
  for (uint32_t i = 0; i < 1000; i += 25) {
    ASSERT_TRUE(writePictures(session, i, i + 25, 700));
    for (const DB_STREAM& row : allStreams()) {
      if (row.recSize == 0) continue;
      RecordingReader reader;
      ASSERT_EQ(0, reader.open(row));
      picturesWrapped |= row.chunkOffset + row.chunkSize > 4 * kKiB;
      dataWrapped |= reader.header().dataOffset + reader.header().dataSize > 64 * kKiB;
      EXPECT_EQ(verifyRow(row, 700).size(), row.recSize);
    }
  }
  ASSERT_EQ(0, session.close());
  EXPECT_TRUE(picturesWrapped);
  EXPECT_TRUE(dataWrapped);
}

TEST(RecordingReader, RunningRecordingGrowsWithRefresh) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 0, 30));
  RecordingReader reader;
  ASSERT_EQ(0, reader.open(session.streamID()));
  EXPECT_EQ(reader.pictureCount(), session.statistics().confirmed);
  EXPECT_LT(reader.pictureCount(), 30u);
  for (uint32_t i = 30; i < 200; i += 10) {
    ASSERT_TRUE(writePictures(session, i, i + 10));
    EXPECT_EQ(reader.refresh(), session.statistics().confirmed);
  }
  PictureEntry entry;
  Bytes bytes;
  for (uint32_t i = 0; i < reader.pictureCount(); ++i) {
    ASSERT_TRUE(reader.picture(i, &entry));
    ASSERT_TRUE(reader.readPicture(entry, &bytes));
    EXPECT_EQ(bytes, pictureBytes(i, 800));
  }
  ASSERT_EQ(0, session.close());
  EXPECT_EQ(reader.refresh(), 200u);
}

TEST(RecordingReader, StaleEntriesBehindARunningRecordingDoNotCount) {
  RecorderRig rig({256 * kKiB, 4 * kKiB, 1, 64 * kKiB});
  RecordingSession session;
  ASSERT_TRUE(openSession(session, withSegments(1)));
  for (uint32_t i = 0; i < 400; ++i) {
    const uint64_t confirmed = session.statistics().confirmed;
    ASSERT_TRUE(writePictures(session, i, i + 1, 100));
    if (session.statistics().confirmed == confirmed) continue;
    RecordingReader reader;
    ASSERT_EQ(0, reader.open(session.streamID()));
    const std::vector<uint32_t> numbers = verifyRow(reader.row(), 100);
    ASSERT_EQ(numbers.size(), reader.pictureCount());
    if (numbers.empty()) continue;
    EXPECT_EQ(numbers,
              range(numbers.front(), static_cast<uint32_t>(session.statistics().confirmed)));
  }
  ASSERT_EQ(0, session.close());
}

TEST(RecordingReader, EntryWithAnotherKeyNumberOrCrcIsNotGiven) {
  OneRecording one;
  const DB_STREAM row = allStreams().at(0);
  const int chunk = static_cast<int>(row.chunkID);
  Bytes slots = one.rig.card.readChunk(kFilePicture, chunk, 32, 100 * 32);
  PictureEntry entry;
  ASSERT_TRUE(decodePictureEntry(slots.data() + 10 * 32, &entry));
  entry.key += 1;
  encodePictureEntry(entry, slots.data() + 10 * 32);
  ASSERT_TRUE(decodePictureEntry(slots.data() + 20 * 32, &entry));
  entry.number += 1;
  encodePictureEntry(entry, slots.data() + 20 * 32);
  slots[30 * 32 + 9] ^= 1;
  ASSERT_TRUE(decodePictureEntry(slots.data() + 40 * 32, &entry));
  entry.dataOffset = 256 * kKiB;
  encodePictureEntry(entry, slots.data() + 40 * 32);
  one.rig.card.writeChunk(kFilePicture, chunk, 32, slots);
  RecordingReader reader;
  ASSERT_EQ(0, reader.open(row));
  for (uint32_t i = 0; i < 100; ++i) {
    EXPECT_EQ(reader.picture(i, &entry), i != 10 && i != 20 && i != 30 && i != 40) << i;
  }
}

TEST(RecordingReader, ADamagedHeaderHidesNoPicture) {
  OneRecording one;
  const DB_STREAM row = allStreams().at(0);
  const int chunk = static_cast<int>(row.chunkID);
  one.rig.card.writeChunk(kFilePicture, chunk, row.chunkOffset, Bytes(64, 0x5A));
  std::vector<uint32_t> numbers;
  RecordingReader reader;
  ASSERT_EQ(0, reader.open(row));
  for (uint32_t i = 0; i < reader.pictureCount(); ++i) {
    PictureEntry entry;
    Bytes bytes;
    if (!reader.picture(i, &entry) || !reader.readPicture(entry, &bytes)) continue;
    EXPECT_EQ(bytes, pictureBytes(i, 800));
    numbers.push_back(i);
  }
  EXPECT_EQ(numbers, range(1, 100)) << "all but the one whose entry is damaged";
}

TEST(RecordingReader, TellsWhetherAPicturesBytesAreTheOnesRecorded) {
  OneRecording one;
  RecordingReader reader;
  ASSERT_EQ(0, reader.open(allStreams().at(0)));
  EXPECT_FALSE(reader.isDamaged());
  PictureEntry entry;
  Bytes bytes;
  ASSERT_TRUE(reader.picture(60, &entry));
  EXPECT_NE(entry.checksum, 0);
  const int chunk = static_cast<int>(reader.row().chunkID);
  Bytes byte = one.rig.card.readChunk(kFileStream, chunk, entry.dataOffset + 700, 1);
  byte[0] ^= 0x04;
  one.rig.card.writeChunk(kFileStream, chunk, entry.dataOffset + 700, byte);
  for (const bool withTimeStamp : {false, true}) {
    ASSERT_TRUE(reader.readPicture(entry, &bytes, withTimeStamp));
    EXPECT_TRUE(reader.isDamaged());
    EXPECT_EQ(bytes.size(), withTimeStamp ? 850u : 800u);
  }
  ASSERT_TRUE(reader.picture(61, &entry));
  ASSERT_TRUE(reader.readPicture(entry, &bytes));
  EXPECT_FALSE(reader.isDamaged());
  ASSERT_TRUE(reader.picture(60, &entry));
  entry.checksum = 0;  // of a card written before there was one
  ASSERT_TRUE(reader.readPicture(entry, &bytes));
  EXPECT_FALSE(reader.isDamaged());
}

TEST(RecordingReader, RowThatLeadsNowhereIsRefused) {
  OneRecording one;
  DB_STREAM row = allStreams().at(0);
  RecordingReader reader;
  EXPECT_EQ(-1, reader.open(uint32_t{4711}));
  row.chunkID = 70000;
  EXPECT_EQ(-1, reader.open(row));
  row.chunkID = 1;
  row.chunkOffset = 64;  // an entry, no header
  EXPECT_EQ(-1, reader.open(row));
  row.chunkOffset = 0xFFFFFFE0;
  EXPECT_EQ(-1, reader.open(row));
  EXPECT_FALSE(reader.isOpen());
}

TEST(RecordingReader, RecSizeOfNonsenseReadsNoFurtherThanTheRing) {
  OneRecording one;
  DB_STREAM row = allStreams().at(0);
  row.recSize = 0xFFFFFFFF;
  RecordingReader reader;
  ASSERT_EQ(0, reader.open(row));
  EXPECT_EQ(reader.pictureCount(), 16 * kKiB / 32 - 1);
  PictureEntry entry;
  EXPECT_TRUE(reader.picture(99, &entry));
  EXPECT_FALSE(reader.picture(100, &entry));
  EXPECT_FALSE(reader.picture(reader.pictureCount() - 1, &entry));
}

TEST(RecordingReader, StreamsOfAPeriodAndOfAnEvent) {
  RecorderRig rig({4 * kMiB, 256 * kKiB, 2, 64 * kKiB});
  RecordingSession session;
  ASSERT_TRUE(openSession(session, withSegments(1)));
  ASSERT_TRUE(writePictures(session, 0, 90 * kRate, 60));
  const uint32_t id = session.beginEvent(9, {kStart + 40, 0}, 2);
  ASSERT_EQ(0, session.endEvent(id, {kStart + 42, 0}));
  // More rows than fit one page of the query; the last one is running.
  EXPECT_EQ(allStreams().size(), 90u);
  const auto period = streamsOfPeriod(kStart + 10, kStart + 12);
  ASSERT_EQ(period.size(), 3u);
  EXPECT_EQ(period[0].startDate, kStart + 10);
  EXPECT_EQ(period[2].startDate, kStart + 12);
  EXPECT_EQ(streamsOfPeriod(kStart + 500, kStart + 600).size(), 1u);
  EXPECT_TRUE(streamsOfPeriod(kStart + 10, kStart + 12, 5).empty());
  const DB_EVENT event = allEvents().at(0);
  const auto covered = streamsOfEvent(event);
  ASSERT_EQ(covered.size(), 5u);
  EXPECT_EQ(covered[0].startDate, kStart + 38);
  EXPECT_EQ(covered[4].startDate, kStart + 42);
  ASSERT_EQ(0, session.close());
}

}  // namespace
}  // namespace tarn
