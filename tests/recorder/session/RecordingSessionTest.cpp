#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

#include "base/Endian.h"
#include "base/Wrap.h"
#include "manager/CTARNStreamManager.h"
#include "recorder/RecorderRig.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/RecordingSession.h"
#include "support/IoFaults.h"

using namespace tarn_test;

namespace tarn {
namespace {

constexpr char kMarker[] = "/tmp/sd_err_mem_write";

RecordingOptions withSegments(uint32_t seconds) {
  RecordingOptions options;
  options.segmentSeconds = seconds;
  return options;
}

Bytes headerBytes(const RecorderRig& rig, const DB_STREAM& row) {
  return rig.card.readChunk(kFilePicture, static_cast<int>(row.chunkID), row.chunkOffset, 32);
}

CHUNK_USAGE usageOf(int chunk, unsigned char area) {
  CTARNStreamManager manager(kRecorderPartition);
  CHUNK_USAGE usage = {};
  EXPECT_EQ(0, manager.openManageData());
  EXPECT_EQ(0, manager.getUsage(static_cast<short>(chunk), &usage, area));
  manager.closeManageData();
  return usage;
}

int channelOf(int chunk) {
  CTARNStreamManager manager(kRecorderPartition);
  signed char channel = 0;
  signed char type = 0;
  EXPECT_EQ(0, manager.openManageData());
  EXPECT_EQ(0, manager.getChType(static_cast<short>(chunk), &channel, &type));
  manager.closeManageData();
  return channel;
}

TEST(RecordingSession, ClosedRecordingHasItsRowHeaderAndEntries) {
  RecorderRig rig;
  RecordingSession session;
  RecordingOptions options;
  options.inTrg = 7;
  options.frameSet = 0x0119;
  options.bitrate = 2000000;
  ASSERT_TRUE(openSession(session, options));
  ASSERT_TRUE(writePictures(session, 0, 110));
  EXPECT_NE(session.streamID(), 0u);
  ASSERT_EQ(0, session.close());

  const auto rows = allStreams();
  ASSERT_EQ(rows.size(), 1u);
  const DB_STREAM& row = rows[0];
  EXPECT_EQ(row.inTrg, 7);
  EXPECT_EQ(row.frameSet, 0x0119);
  EXPECT_EQ(row.bitrateSet, 2000000u);
  EXPECT_EQ(row.recSize, 110u);
  EXPECT_EQ(row.chunkOffset, 0u);
  EXPECT_EQ(row.chunkSize, 111u * 32);
  EXPECT_EQ(row.status, 0u);
  EXPECT_EQ(row.startDate, kStart);
  EXPECT_EQ(row.startMSec, 0);
  EXPECT_EQ(row.endDate, kStart + 4);
  EXPECT_EQ(row.endMSec, 360);

  const Bytes bytes = headerBytes(rig, row);
  StreamHeader header;
  ASSERT_TRUE(decodeStreamHeader(bytes.data(), &header));
  EXPECT_EQ(header.marker, kMarkerClosed);
  EXPECT_EQ(header.firstNumber, 100u);
  EXPECT_EQ(header.dataOffset, 0u);
  EXPECT_EQ(header.dataSize, 110u * 850);
  EXPECT_EQ(header.lastTime, kStart + 4);
  EXPECT_EQ(header.pictures, 110u);
  EXPECT_EQ(header.gops, 5u);

  EXPECT_EQ(verifyRow(row), range(0, 110));
  const RecordingStatistics statistics = session.statistics();
  EXPECT_EQ(statistics.pictures, 110u);
  EXPECT_EQ(statistics.confirmed, 110u);
  EXPECT_EQ(statistics.bytes, 110u * 800);
  EXPECT_EQ(statistics.segments, 1u);
  EXPECT_EQ(statistics.recordingsDeleted, 0u);
}

TEST(RecordingSession, EntriesHoldKeyNumberPlaceTimeAndFlags) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  const Bytes key = pictureBytes(0, 300);
  const Bytes other = pictureBytes(1, 200);
  ASSERT_EQ(0, session.writePicture(key.data(), key.size(), {kStart, 123456}, -80000, true));
  ASSERT_EQ(0, session.writePicture(other.data(), other.size(), {kStart, 203456}, 0, false));
  ASSERT_EQ(0, session.close());
  const DB_STREAM row = allStreams().at(0);
  EXPECT_EQ(row.startMSec, 123);
  const Bytes slots = rig.card.readChunk(kFilePicture, static_cast<int>(row.chunkID), 32, 64);
  PictureEntry first;
  PictureEntry second;
  ASSERT_TRUE(decodePictureEntry(slots.data(), &first));
  ASSERT_TRUE(decodePictureEntry(slots.data() + 32, &second));
  EXPECT_EQ(first.key, row.streamID);
  EXPECT_EQ(first.number, 100u);
  EXPECT_EQ(first.dataOffset, 0u);
  EXPECT_EQ(first.size, 350u);
  EXPECT_EQ(first.presentation, (PictureTime{kStart, 123456}));
  EXPECT_EQ(first.decodeOffsetUs, -80000);
  EXPECT_EQ(first.flags, kEntryKeyPicture | kEntryDiscontinuity);
  EXPECT_EQ(second.number, 101u);
  EXPECT_EQ(second.dataOffset, 350u);
  EXPECT_EQ(second.size, 250u);
  EXPECT_EQ(second.flags, 0);
}

TEST(RecordingSession, ServerWithoutTheCardsDataIsToldFromOneThatDoesNotAnswer) {
  RecorderRig rig;
  rig.stopServer();
  for (int copy : {0, 1}) rig.card.writeChunk(kFileStreamManage, copy, 5, {0x5A});
  rig.startServer();
  RecordingSession session;
  EXPECT_EQ(session.open({}), -1);
  EXPECT_EQ(session.error(), RecordingError::kCard);
  EXPECT_STREQ(session.errorText(), kErrServerCard);
}

TEST(RecordingSession, UnusedChunkIsTakenForTheChannelAndSaved) {
  RecorderRig rig;
  RecordingSession session;
  RecordingOptions options;
  options.channel = 5;
  options.recType = 3;
  EXPECT_EQ(channelOf(1), -1);
  ASSERT_TRUE(openSession(session, options));
  ASSERT_TRUE(writePictures(session, 0, 1));
  // An empty table makes the server look behind chunk 0 first.
  EXPECT_EQ(channelOf(1), 5);
  EXPECT_EQ(channelOf(0), -1);
  const Bytes record = rig.card.readChunk(kFileStreamManage, 0, 24, 8);
  EXPECT_EQ(record[6], 5);
  EXPECT_EQ(record[7], 3);
  EXPECT_EQ(0, session.close());
}

TEST(RecordingSession, RunningRowIsOpenAndItsHeaderToo) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 0, 60));
  const DB_STREAM row = allStreams().at(0);
  EXPECT_EQ(row.streamID, session.streamID());
  EXPECT_EQ(row.recSize, 0u);
  EXPECT_EQ(row.chunkSize, 0u);
  EXPECT_EQ(row.status, 1u);
  EXPECT_EQ(row.endDate, 0u);
  EXPECT_EQ(getLe32(headerBytes(rig, row).data()), 0xFFFFFFFFu);
  EXPECT_EQ(0, session.close());
}

TEST(RecordingSession, SegmentChangesAtTheFirstKeyPictureAfterItsTime) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session, withSegments(2)));
  // A GOP of 30 pictures is 1.2 s: segments of 2.4 s.
  ASSERT_TRUE(writePictures(session, 0, 150, 800, 30));
  ASSERT_EQ(0, session.close());
  const auto rows = allStreams();
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(verifyRow(rows[0], 800, 30), range(0, 60));
  EXPECT_EQ(verifyRow(rows[1], 800, 30), range(60, 120));
  EXPECT_EQ(verifyRow(rows[2], 800, 30), range(120, 150));
  for (size_t i = 0; i < rows.size(); ++i) {
    RecordingReader reader;
    ASSERT_EQ(0, reader.open(rows[i]));
    PictureEntry first;
    ASSERT_TRUE(reader.picture(0, &first));
    EXPECT_EQ(first.isDiscontinuity(), i == 0);
    EXPECT_TRUE(first.isKey());
    EXPECT_EQ(reader.header().firstNumber, 100 * (i + 1));
    EXPECT_EQ(rows[i].chunkID, rows[0].chunkID);
  }
}

TEST(RecordingSession, ChunkChangesAtAKeyPictureWhenLittleIsLeft) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session, withSegments(0)));
  ASSERT_TRUE(writePictures(session, 0, 500));  // 425,000 bytes: two chunks
  ASSERT_EQ(0, session.close());
  const auto rows = allStreams();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].chunkID, 1u);
  EXPECT_EQ(rows[1].chunkID, 2u);
  EXPECT_EQ(rows[0].recSize % kRate, 0u);
  EXPECT_EQ(verifyAll(), range(0, 500));
  EXPECT_EQ(session.statistics().chunks, 2u);
}

TEST(RecordingSession, LackOfRoomSplitsInMidGop) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session, withSegments(0)));
  ASSERT_TRUE(writePictures(session, 0, 400, 800, 100000));  // one key picture only
  ASSERT_EQ(0, session.close());
  const auto rows = allStreams();
  ASSERT_EQ(rows.size(), 2u);
  RecordingReader reader;
  ASSERT_EQ(0, reader.open(rows[1]));
  PictureEntry first;
  ASSERT_TRUE(reader.picture(0, &first));
  EXPECT_FALSE(first.isKey());
  EXPECT_FALSE(first.isDiscontinuity());
  EXPECT_EQ(reader.findKeyPictureBefore({kStart + 1000, 0}), -1);
  EXPECT_EQ(verifyAll(800, 100000), range(0, 400));
}

// Stretches [offset, offset + size) of one ring must not share a byte.
void expectDisjoint(std::vector<std::pair<uint32_t, uint32_t>> parts, uint32_t ring) {
  std::vector<std::pair<uint32_t, uint32_t>> flat;
  for (const auto& [offset, size] : parts) {
    if (ring - offset >= size) {
      flat.push_back({offset, offset + size});
    } else {
      flat.push_back({offset, ring});
      flat.push_back({0, size - (ring - offset)});
    }
  }
  std::sort(flat.begin(), flat.end());
  for (size_t i = 1; i < flat.size(); ++i) EXPECT_LE(flat[i - 1].second, flat[i].first);
}

void expectNoOverlap(uint32_t streamSize, uint32_t pictureSize) {
  std::map<uint32_t, std::vector<std::pair<uint32_t, uint32_t>>> pictures;
  std::map<uint32_t, std::vector<std::pair<uint32_t, uint32_t>>> data;
  for (const DB_STREAM& row : allStreams()) {
    RecordingReader reader;
    ASSERT_EQ(0, reader.open(row));
    pictures[row.chunkID].push_back({row.chunkOffset, row.chunkSize});
    data[row.chunkID].push_back({reader.header().dataOffset, reader.header().dataSize});
  }
  for (const auto& [chunk, parts] : pictures) expectDisjoint(parts, pictureSize);
  for (const auto& [chunk, parts] : data) expectDisjoint(parts, streamSize);
}

// No slot of the chunk but the row's own may hold a number that its recording could have reached.
void expectNoStaleContinuation(const RecorderRig& rig, uint32_t pictureSize) {
  for (const DB_STREAM& row : allStreams()) {
    const Bytes ring =
        rig.card.readChunk(kFilePicture, static_cast<int>(row.chunkID), 0, pictureSize);
    const uint32_t slots = pictureSize / 32;
    const uint32_t first = getLe32(ring.data() + row.chunkOffset + 4);
    RecordingReader reader;
    ASSERT_EQ(0, reader.open(row));
    const uint32_t count = reader.pictureCount();
    EXPECT_EQ(first % 100, 0u);
    EXPECT_NE(first, 0u);
    for (uint32_t slot = count + 1; slot < slots; ++slot) {
      const uint32_t place = (row.chunkOffset / 32 + slot) % slots * 32;
      const uint32_t number = getLe32(ring.data() + place + 4);
      if (getLe32(ring.data() + place) == 0xFFFFFFFF) continue;
      EXPECT_FALSE(number >= first && number <= first + count) << row.streamID;
    }
  }
}

TEST(RecordingSession, RingsWrapAndTheOldestRecordingsGo) {
  RecorderRig rig({256 * kKiB, 8 * kKiB, 2, 64 * kKiB});
  RecordingSession session;
  ASSERT_TRUE(openSession(session, withSegments(2)));
  const uint32_t last = 4000;
  for (uint32_t i = 0; i < last; i += 100) {
    ASSERT_TRUE(writePictures(session, i, i + 100));
    expectNoStaleContinuation(rig, 8 * kKiB);
  }
  ASSERT_EQ(0, session.close());
  const RecordingStatistics statistics = session.statistics();
  EXPECT_GT(statistics.streamWraps, 4u);
  EXPECT_GT(statistics.pictureWraps, 4u);
  EXPECT_GT(statistics.recordingsDeleted, 40u);
  const std::vector<uint32_t> numbers = verifyAll();
  ASSERT_FALSE(numbers.empty());
  EXPECT_EQ(numbers, range(numbers.front(), last));
  // The picture rings hold 510 entries and headers: most of that must be in use.
  EXPECT_GT(numbers.size(), 250u);
  expectNoOverlap(256 * kKiB, 8 * kKiB);
}

TEST(RecordingSession, StreamRingAloneMayBeTheScarceOne) {
  RecorderRig rig({256 * kKiB, 64 * kKiB, 2, 64 * kKiB});
  RecordingSession session;
  ASSERT_TRUE(openSession(session, withSegments(1)));
  ASSERT_TRUE(writePictures(session, 0, 1500, 1500));
  ASSERT_EQ(0, session.close());
  EXPECT_GT(session.statistics().streamWraps, 3u);
  const std::vector<uint32_t> numbers = verifyAll(1500);
  ASSERT_FALSE(numbers.empty());
  EXPECT_EQ(numbers, range(numbers.front(), 1500));
  EXPECT_GT(numbers.size() * 1550, 256u * kKiB);
  expectNoOverlap(256 * kKiB, 64 * kKiB);
}

TEST(RecordingSession, OneChunkIsEnoughToGoOnForEver) {
  RecorderRig rig({128 * kKiB, 8 * kKiB, 1, 64 * kKiB});
  RecordingSession session;
  // The segment is longer than the chunk: only the recording in progress is there when it is full.
  ASSERT_TRUE(openSession(session, withSegments(3600)));
  ASSERT_TRUE(writePictures(session, 0, 1000));
  ASSERT_EQ(0, session.close());
  const std::vector<uint32_t> numbers = verifyAll();
  ASSERT_FALSE(numbers.empty());
  EXPECT_EQ(numbers, range(numbers.front(), 1000));
}

TEST(RecordingSession, EventsGoWithTheRecordingsThatTheyCover) {
  RecorderRig rig({256 * kKiB, 8 * kKiB, 2, 64 * kKiB});
  RecordingSession session;
  ASSERT_TRUE(openSession(session, withSegments(2)));
  ASSERT_TRUE(writePictures(session, 0, 50));
  const uint32_t early = session.beginEvent(3, pictureTime(50), 1);
  ASSERT_NE(early, 0u);
  ASSERT_TRUE(writePictures(session, 50, 100));
  EXPECT_EQ(0, session.endEvent(early, pictureTime(99)));
  const uint32_t lasting = session.beginEvent(4, pictureTime(100), 2);
  ASSERT_TRUE(writePictures(session, 100, 200));
  ASSERT_EQ(allEvents().size(), 2u);
  EXPECT_EQ(allEvents()[0].eventID, early);
  EXPECT_EQ(allEvents()[0].extTrg, 3);
  EXPECT_EQ(allEvents()[0].preSec, 1);
  EXPECT_EQ(allEvents()[0].startDate, kStart + 2);
  EXPECT_EQ(allEvents()[0].endDate, kStart + 3);
  EXPECT_EQ(allEvents()[0].endMSec, 960);
  EXPECT_EQ(allEvents()[1].endDate, 0u);
  ASSERT_TRUE(writePictures(session, 200, 1500));
  // The running event is older than every recording left, but it is not over.
  ASSERT_EQ(allEvents().size(), 1u);
  EXPECT_EQ(allEvents()[0].eventID, lasting);
  EXPECT_EQ(session.statistics().eventsDeleted, 1u);
  ASSERT_EQ(0, session.close());
  EXPECT_EQ(allEvents()[0].endDate, pictureTime(1499).seconds);
}

// Lets two threads go on together, as cameras do: a channel that is minutes ahead of the other
// takes whole chunks from it, and with them rows that are not its oldest.
class SamePace {
 public:
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    const int round = round_;
    if (++waiting_ == 2) {
      waiting_ = 0;
      ++round_;
      changed_.notify_all();
    }
    // The other one may have failed; then this one goes on alone.
    const auto going = [&] { return alone_ || round_ != round; };
    alone_ = !changed_.wait_for(lock, std::chrono::seconds(60), going) || alone_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int waiting_ = 0;
  int round_ = 0;
  bool alone_ = false;
};

TEST(RecordingSession, TwoChannelsKeepToTheirOwnChunks) {
  RecorderRig rig({256 * kKiB, 8 * kKiB, 4, 64 * kKiB});
  std::vector<RecordingStatistics> statistics(2);
  SamePace pace;
  std::vector<std::thread> threads;
  for (int8_t channel = 0; channel < 2; ++channel) {
    threads.emplace_back([channel, &statistics, &pace] {
      RecordingSession session;
      RecordingOptions options = withSegments(2);
      options.channel = channel;
      options.inTrg = static_cast<uint16_t>(channel + 1);
      ASSERT_TRUE(openSession(session, options));
      for (uint32_t first = 0; first < 1500; first += 25) {
        pace.wait();
        ASSERT_TRUE(writePictures(session, first, first + 25));
      }
      ASSERT_EQ(0, session.close());
      statistics[static_cast<size_t>(channel)] = session.statistics();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_GT(statistics[0].recordingsDeleted + statistics[1].recordingsDeleted, 10u);
  for (uint32_t channel = 0; channel < 2; ++channel) {
    std::vector<uint32_t> numbers;
    for (const DB_STREAM& row : streamsOfPeriod(0, 0xFFFFFFFF, channel + 1)) {
      EXPECT_EQ(channelOf(static_cast<int>(row.chunkID)), static_cast<int>(channel));
      for (const uint32_t number : verifyRow(row)) numbers.push_back(number);
    }
    ASSERT_FALSE(numbers.empty());
    EXPECT_EQ(numbers, range(numbers.front(), 1500));
  }
  expectNoOverlap(256 * kKiB, 8 * kKiB);
}

TEST(RecordingSession, EmptiedChunkGoesToTheOtherChannel) {
  RecorderRig rig({256 * kKiB, 8 * kKiB, 2, 64 * kKiB});
  for (int8_t channel : {int8_t{0}, int8_t{1}}) {
    RecordingSession session;
    RecordingOptions options = withSegments(2);
    options.channel = channel;
    ASSERT_TRUE(openSession(session, options));
    ASSERT_TRUE(writePictures(session, 0, 600));
    ASSERT_EQ(0, session.close());
  }
  EXPECT_EQ(channelOf(0), 1);
  EXPECT_EQ(channelOf(1), 1);
  for (const DB_STREAM& row : allStreams()) verifyRow(row);
}

TEST(RecordingSession, WrittenOrderIsDataEntriesHeaderRowClosedHeader) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  IoFaults io(kCardPath);
  ASSERT_TRUE(writePictures(session, 0, 10));
  ASSERT_EQ(0, session.close());
  std::string order;
  for (const IoRecord& call : io.calls()) {
    char mark = 0;
    if (call.call == Call::Fsync) mark = '.';
    if (call.call == Call::Write || call.call == Call::Pwrite) {
      const auto at = static_cast<uint64_t>(call.offset);
      if (at >= rig.card.chunkStart(kFileJournalManage, 0)) mark = 'm';
      if (at >= rig.card.chunkStart(kFileJournal, 0)) mark = 'J';
      if (at >= rig.card.chunkStart(kFileStreamManage, 0)) mark = 'M';
      if (at >= rig.card.chunkStart(kFileStream, 0)) mark = 'S';
      if (at >= rig.card.chunkStart(kFilePicture, 0)) mark = 'P';
    }
    if (mark != 0 && (order.empty() || order.back() != mark)) order += mark;
  }
  std::string withoutManagement;
  for (const char mark : order) {
    if (mark == 'm') continue;
    if (mark == '.' && !withoutManagement.empty() && withoutManagement.back() == '.') continue;
    withoutManagement += mark;
  }
  // Claim, open header, row; first picture at once; the rest at close; totals, row, closed header.
  EXPECT_EQ(withoutManagement, "M.M.P.J.J.S.P.S.P.P.J.J.P.M.M.") << order;
}

TEST(RecordingSession, UnflushedPicturesNeverSpanMoreThanTheInterval) {
  RecorderRig rig;
  RecordingSession session;
  RecordingOptions options;
  options.flushIntervalMs = 400;
  ASSERT_TRUE(openSession(session, options));
  for (uint32_t i = 0; i < 100; ++i) {
    ASSERT_TRUE(writePictures(session, i, i + 1));
    // 40 ms a picture
    EXPECT_LT((session.statistics().pictures - session.statistics().confirmed) * 40, 400u);
  }
  EXPECT_LT(session.statistics().confirmed, 100u);
  ASSERT_EQ(0, session.flush());
  EXPECT_EQ(session.statistics().confirmed, 100u);
  ASSERT_EQ(0, session.close());
}

TEST(RecordingSession, SlowPicturesDoNotWaitForTheNextOne) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  for (uint32_t i = 0; i < 5; ++i) {
    ASSERT_TRUE(writePictures(session, i * 75, i * 75 + 1));  // every 3 s, all key
    EXPECT_EQ(session.statistics().confirmed, i + 1);
  }
  ASSERT_EQ(0, session.close());
  EXPECT_EQ(allStreams().size(), 1u);
}

TEST(RecordingSession, EncoderThatStallsLeavesNothingUnsafe) {
  RecorderRig rig;
  RecordingSession session;
  RecordingOptions options;
  options.flushIntervalMs = 50;
  ASSERT_TRUE(openSession(session, options));
  EXPECT_EQ(0, session.tick());  // nothing is there yet
  ASSERT_TRUE(writePictures(session, 0, 2));
  ASSERT_EQ(session.statistics().confirmed, 1u);  // the first one is safe at once
  for (int i = 0; i < 2000 && session.statistics().confirmed < 2; ++i) {
    ASSERT_EQ(0, session.tick());
    usleep(1000);
  }
  EXPECT_EQ(session.statistics().confirmed, 2u);
  ASSERT_EQ(0, session.close());
}

TEST(RecordingSession, TickMakesNothingSafeBeforeTheInterval) {
  RecorderRig rig;
  RecordingSession session;
  RecordingOptions options;
  options.flushIntervalMs = 60000;
  EXPECT_EQ(-1, session.tick());  // it is not open
  ASSERT_TRUE(openSession(session, options));
  ASSERT_TRUE(writePictures(session, 0, 3));
  for (int i = 0; i < 100; ++i) ASSERT_EQ(0, session.tick());
  EXPECT_EQ(session.statistics().confirmed, 1u);
  ASSERT_EQ(0, session.close());
}

TEST(RecordingSession, ClockThatWasSetEndsTheRowAndBeginsOne) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  EXPECT_EQ(0, session.clockStepped(1000000));  // before the first picture: nothing to end
  ASSERT_TRUE(writePictures(session, 100, 130));
  const uint32_t event = session.beginEvent(5, pictureTime(110), 0);
  ASSERT_NE(event, 0u);
  // Half a second back, which by itself would pass for the order of the pictures.
  ASSERT_EQ(0, session.clockStepped(-500000));
  EXPECT_EQ(session.statistics().confirmed, 30u);
  EXPECT_EQ(session.streamID(), 0u);
  ASSERT_EQ(allStreams().size(), 1u);
  EXPECT_EQ(allStreams()[0].recSize, 30u);
  ASSERT_EQ(0, session.clockStepped(-500000));    // once more, before anything came
  ASSERT_TRUE(writePictures(session, 118, 140));  // no key picture is waited for
  ASSERT_EQ(0, session.close());
  const auto rows = allStreams();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(verifyRow(rows[0]), range(100, 130));
  EXPECT_EQ(verifyRow(rows[1]), range(118, 140));
  RecordingReader reader;
  PictureEntry entry;
  ASSERT_EQ(0, reader.open(rows[1]));
  ASSERT_TRUE(reader.picture(0, &entry));
  EXPECT_TRUE(entry.isDiscontinuity());
  const auto events = allEvents();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].endDate, pictureTime(129).seconds);
  EXPECT_EQ(events[0].endMSec, pictureTime(129).milliseconds());
}

// Without a row in progress the chunk is anybody's: another channel may make room in it.
TEST(RecordingSession, ChunkBetweenTwoClocksMayGoToAnotherChannel) {
  RecorderRig::Shape shape;
  shape.chunks = 2;
  RecorderRig rig(shape);
  RecordingSession first, second;
  RecordingOptions options;
  ASSERT_TRUE(openSession(first, options));
  ASSERT_TRUE(writePictures(first, 0, 50));
  ASSERT_EQ(0, first.clockStepped(7000000));
  options.channel = 1;
  ASSERT_TRUE(openSession(second, options));
  ASSERT_TRUE(writePictures(second, 0, 700));  // more than a chunk holds
  ASSERT_TRUE(writePictures(first, 225, 300));
  ASSERT_TRUE(writePictures(second, 700, 750));
  ASSERT_EQ(0, first.close());
  ASSERT_EQ(0, second.close());
  for (const DB_STREAM& row : allStreams()) EXPECT_FALSE(verifyRow(row).empty()) << row.streamID;
}

TEST(RecordingSession, PicturesBetweenFlushesAllocateNothing) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 0, 27));
  const Bytes bytes = pictureBytes(28, 800);
  AllocationCount allocations;
  int refused = 0;
  for (uint32_t i = 28; i < 48; ++i) {
    if (session.writePicture(bytes.data(), bytes.size(), pictureTime(i), 0, false) != 0) ++refused;
  }
  const size_t count = allocations.count();
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(refused, 0);
  ASSERT_EQ(0, session.close());
}

TEST(RecordingSession, ServerMayBeRestartedInMidRecording) {
  RecorderRig rig({256 * kKiB, 8 * kKiB, 2, 64 * kKiB});
  RecordingSession session;
  ASSERT_TRUE(openSession(session, withSegments(2)));
  ASSERT_TRUE(writePictures(session, 0, 110));
  rig.stopServer();
  std::thread later([&rig] {
    usleep(300000);
    rig.startServer();
  });
  const testing::AssertionResult result = writePictures(session, 110, 1000);
  later.join();
  ASSERT_TRUE(result);
  ASSERT_EQ(0, session.close());
  const std::vector<uint32_t> numbers = verifyAll();
  ASSERT_FALSE(numbers.empty());
  EXPECT_EQ(numbers, range(numbers.front(), 1000));
  expectNoOverlap(256 * kKiB, 8 * kKiB);
}

TEST(RecordingSession, ServerMayBeKilledAgainAndAgain) {
  RecorderRig rig({256 * kKiB, 8 * kKiB, 2, 64 * kKiB});
  rig.startServerProcess();
  RecordingSession session;
  ASSERT_TRUE(openSession(session, withSegments(2)));
  for (uint32_t i = 0; i < 1500; i += 187) {
    ASSERT_TRUE(writePictures(session, i, std::min(i + 187, 1500u)));
    // Without a chance to save what it knows.
    rig.killServerProcess();
    rig.startServerProcess();
  }
  ASSERT_EQ(0, session.close());
  const std::vector<uint32_t> numbers = verifyAll();
  ASSERT_FALSE(numbers.empty());
  EXPECT_EQ(numbers, range(numbers.front(), 1500));
  EXPECT_GT(numbers.size(), 250u);
  expectNoOverlap(256 * kKiB, 8 * kKiB);
}

// Killed between pictures only: a process that dies inside a statement leaves the database locked.
TEST(RecordingSession, KilledAndStartedAgainItLosesNothingThatWasConfirmed) {
  RecorderRig rig({256 * kKiB, 8 * kKiB, 2, 64 * kKiB});
  rig.startServerProcess();
  for (uint32_t round = 0; round < 8; ++round) {
    CDbLog::getInstance()->finish();
    const uint32_t from = round * 1000;
    int pipeEnds[2];
    ASSERT_EQ(0, pipe(pipeEnds));
    const pid_t child = fork();
    if (child == 0) {
      RecordingSession session;
      if (session.open(withSegments(2)) != 0) _exit(1);
      if (!writePictures(session, from, from + 150 + round * 97)) _exit(2);
      const auto safe = from + static_cast<uint32_t>(session.statistics().confirmed);
      if (write(pipeEnds[1], &safe, sizeof safe) != sizeof safe) _exit(3);
      raise(SIGKILL);
    }
    close(pipeEnds[1]);
    uint32_t safe = 0;
    EXPECT_EQ(static_cast<ssize_t>(sizeof safe), read(pipeEnds[0], &safe, sizeof safe));
    close(pipeEnds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
    RecordingSession next;
    ASSERT_TRUE(openSession(next, withSegments(2)));
    ASSERT_EQ(0, next.close());
    const std::vector<uint32_t> numbers = verifyAll();
    ASSERT_FALSE(numbers.empty());
    EXPECT_EQ(numbers.back() + 1, safe);
    // The rings hold nothing but this round's pictures, or older ones in front of them.
    const auto begin = std::lower_bound(numbers.begin(), numbers.end(), from);
    EXPECT_EQ(std::vector<uint32_t>(begin, numbers.end()), range(*begin, safe));
    expectNoOverlap(256 * kKiB, 8 * kKiB);
  }
}

TEST(RecordingSession, ServerThatStaysAwayIsAnErrorThatStaysKnown) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 0, 40));
  rig.stopServer();
  SyslogCapture log;
  EXPECT_FALSE(writePictures(session, 40, 100));
  EXPECT_EQ(session.error(), RecordingError::kServer);
  EXPECT_STREQ(session.errorText(), kErrServer);
  EXPECT_TRUE(log.has(3, "RecordingSession: channel 0: the management server does not answer"));
  const Bytes bytes = pictureBytes(100, 800);
  EXPECT_EQ(-1, session.writePicture(bytes.data(), bytes.size(), pictureTime(100), 0, true));
  EXPECT_EQ(-1, session.close());
  EXPECT_EQ(session.error(), RecordingError::kServer);
  // What was confirmed before is listed.
  const DB_STREAM row = allStreams().at(0);
  EXPECT_GE(row.recSize, 25u);
  EXPECT_EQ(verifyRow(row).size(), row.recSize);
}

TEST(RecordingSession, CardFailureKeepsListedWhatWasConfirmed) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 0, 100));
  const uint64_t confirmed = session.statistics().confirmed;
  EXPECT_GE(confirmed, 75u);
  {
    IoFaults io(kCardPath);
    io.fail(Call::Write, 1, EIO);
    EXPECT_FALSE(writePictures(session, 100, 200));
  }
  EXPECT_EQ(0, access(kMarker, F_OK));
  EXPECT_EQ(session.error(), RecordingError::kCard);
  EXPECT_EQ(-1, session.close());
  const DB_STREAM row = allStreams().at(0);
  EXPECT_EQ(row.recSize, confirmed);
  EXPECT_EQ(row.status, 0u);
  EXPECT_EQ(verifyRow(row), range(0, static_cast<uint32_t>(confirmed)));
}

TEST(RecordingSession, RecordingWithoutPicturesIsDeletedWithItsHeader) {
  RecorderRig rig;
  size_t writesBeforeData = 0;
  for (int round = 0; round < 2; ++round) {
    RecordingSession session;
    ASSERT_TRUE(openSession(session));
    IoFaults io(kCardPath);
    if (round == 1) io.fail(Call::Write, static_cast<int>(writesBeforeData) + 1, EIO);
    const bool written = static_cast<bool>(writePictures(session, 0, 1));
    EXPECT_EQ(written, round == 0);
    if (round == 0) {
      for (const WriteRecord& write : io.writes()) {
        const auto at = static_cast<uint64_t>(write.offset);
        if (at >= rig.card.chunkStart(kFileStream, 0) &&
            at < rig.card.chunkStart(kFilePicture, 0)) {
          break;
        }
        ++writesBeforeData;
      }
    }
    EXPECT_EQ(session.close(), round == 0 ? 0 : -1);
  }
  ASSERT_EQ(allStreams().size(), 1u);  // that of the first round
  const CHUNK_USAGE picture = usageOf(1, 0);
  EXPECT_EQ(picture.freeAddr, 64u);
  EXPECT_EQ(usageOf(1, 1).freeAddr, 850u);
}

TEST(RecordingSession, RowsThatAKilledProcessLeftOpenAreClosedAtWhatIsConfirmed) {
  RecorderRig rig;
  rig.startServerProcess();
  const pid_t child = fork();
  if (child == 0) {
    RecordingSession session;
    RecordingOptions options;
    if (session.open(options) != 0) _exit(1);
    _exit(writePictures(session, 0, 40) ? 0 : 2);  // pictures 26 to 39 are not flushed
  }
  int status = -1;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_EQ(status, 0);
  ASSERT_EQ(allStreams().at(0).recSize, 0u);

  RecordingSession session;
  SyslogCapture log;
  ASSERT_TRUE(openSession(session));
  const DB_STREAM row = allStreams().at(0);
  EXPECT_EQ(row.recSize, 26u);
  EXPECT_EQ(row.status, 0u);
  EXPECT_EQ(row.endDate, kStart + 1);
  EXPECT_TRUE(log.has(4, "RecordingSession: recording 1 was left open, 26 pictures kept"));
  EXPECT_EQ(usageOf(1, 0).freeAddr, 27u * 32);
  EXPECT_EQ(usageOf(1, 1).freeAddr, 26u * 850);
  ASSERT_TRUE(writePictures(session, 50, 100));
  ASSERT_EQ(0, session.close());
  EXPECT_EQ(verifyRow(row), range(0, 26));
  EXPECT_EQ(verifyRow(allStreams().at(1)), range(50, 100));
}

TEST(RecordingSession, JournalThatWrapsTakesTheOldestRecordingAlong) {
  RecorderRig rig({4 * kMiB, 256 * kKiB, 2, 4 * kKiB});  // 64 records
  RecordingSession session;
  ASSERT_TRUE(openSession(session, withSegments(1)));
  ASSERT_TRUE(writePictures(session, 0, 100 * kRate, 100));
  ASSERT_EQ(0, session.close());
  const auto rows = allStreams();
  EXPECT_EQ(rows.size(), 64u);
  EXPECT_EQ(session.statistics().recordingsDeleted, 36u);
  std::set<uint32_t> places;
  for (const DB_STREAM& row : rows) {
    EXPECT_TRUE(places.insert(row.backOffset).second);
    const Bytes record = rig.card.readChunk(kFileJournal, 2, row.backOffset, 64);
    EXPECT_EQ(getLe32(record.data()), 0xFFFFFFECu);
    EXPECT_EQ(getLe32(record.data() + 4), row.streamID);
    EXPECT_EQ(getLe32(record.data() + 16), row.recSize);
  }
  EXPECT_EQ(verifyAll(100), range(36 * kRate, 100 * kRate));
  // The space of those that went is free again.
  EXPECT_EQ(usageOf(1, 0).useAddr, rows[0].chunkOffset);
}

TEST(RecordingSession, GapOrJumpOfTheClockBeginsARowOfItsOwn) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 100, 130));
  ASSERT_TRUE(writePictures(session, 130 + 9 * kRate, 140 + 9 * kRate));  // 9 s later, no key
  ASSERT_TRUE(writePictures(session, 0, 10));                             // back
  session.markDiscontinuity();
  ASSERT_TRUE(writePictures(session, 10, 60));  // 10 to 24 have nothing to be decoded with
  ASSERT_EQ(0, session.close());
  const auto rows = allStreams();
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(verifyRow(rows[0]), range(100, 130));
  EXPECT_EQ(verifyRow(rows[1]), range(355, 365));
  EXPECT_EQ(verifyRow(rows[2]), range(0, 10));
  EXPECT_EQ(verifyRow(rows[3]), range(25, 60));
  for (const DB_STREAM& row : rows) {
    RecordingReader reader;
    PictureEntry entry;
    ASSERT_EQ(0, reader.open(row));
    ASSERT_TRUE(reader.picture(0, &entry));
    EXPECT_TRUE(entry.isDiscontinuity());
    ASSERT_TRUE(reader.picture(1, &entry));
    EXPECT_FALSE(entry.isDiscontinuity());
  }
}

TEST(RecordingSession, PicturesBeforeTheFirstKeyPictureAreDropped) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 10, 40));
  ASSERT_EQ(0, session.close());
  EXPECT_EQ(verifyAll(), range(25, 40));
  EXPECT_EQ(session.statistics().pictures, 15u);
}

TEST(RecordingSession, SessionWithoutPicturesLeavesNothing) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  EXPECT_EQ(session.streamID(), 0u);
  EXPECT_EQ(0, session.close());
  EXPECT_TRUE(allStreams().empty());
  EXPECT_EQ(channelOf(1), -1);
}

TEST(RecordingSession, PictureLargerThanTheWriteBufferIsTaken) {
  RecorderRig rig({8 * kMiB, 64 * kKiB, 2, 64 * kKiB});
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 0, 6, 2500000));
  ASSERT_EQ(0, session.close());
  EXPECT_EQ(verifyAll(2500000), range(0, 6));
}

TEST(RecordingSession, PictureThatNoChunkHoldsIsRefused) {
  RecorderRig rig({128 * kKiB, 16 * kKiB, 2, 64 * kKiB});
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  EXPECT_FALSE(writePictures(session, 0, 1, 128 * kKiB - 50));
  EXPECT_EQ(session.error(), RecordingError::kTooLarge);
  EXPECT_EQ(-1, session.close());
  EXPECT_TRUE(allStreams().empty());
}

TEST(RecordingSession, LargestPictureThatFitsIsTaken) {
  RecorderRig rig({128 * kKiB, 16 * kKiB, 1, 64 * kKiB});
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 0, 2, 128 * kKiB - 51));
  ASSERT_EQ(0, session.close());
  EXPECT_EQ(verifyAll(128 * kKiB - 51), range(1, 2));
}

TEST(RecordingSession, BadOptionsAreRefusedByName) {
  RecorderRig rig;
  RecordingSession session;
  RecordingOptions options;
  options.frameSet = 0x80;
  EXPECT_EQ(-1, session.open(options));
  EXPECT_EQ(session.error(), RecordingError::kBadOption);
  EXPECT_STREQ(session.errorText(), kErrAudioBit);
  options.frameSet = 0;
  options.channel = -1;
  EXPECT_EQ(-1, session.open(options));
  EXPECT_STREQ(session.errorText(), kErrChannel);
}

TEST(RecordingSession, ChannelHasOneSession) {
  RecorderRig rig;
  RecordingSession session;
  RecordingSession second;
  ASSERT_TRUE(openSession(session));
  EXPECT_EQ(-1, second.open(RecordingOptions()));
  EXPECT_STREQ(second.errorText(), kErrChannelBusy);
  EXPECT_EQ(0, session.close());
  EXPECT_TRUE(openSession(second));
  EXPECT_EQ(0, second.close());
}

TEST(RecordingSession, EarlierCardFailureMustBeAcknowledgedFirst) {
  RecorderRig rig;
  close(open(kMarker, O_CREAT | O_WRONLY, 0777));
  RecordingSession session;
  EXPECT_EQ(-1, session.open(RecordingOptions()));
  EXPECT_EQ(session.error(), RecordingError::kCard);
  unlink(kMarker);
  EXPECT_TRUE(openSession(session));
  EXPECT_EQ(0, session.close());
}

TEST(RecordingSession, DamagedHeaderOfTheOldestDoesNotStopTheRing) {
  RecorderRig rig({256 * kKiB, 8 * kKiB, 2, 64 * kKiB});
  RecordingSession session;
  ASSERT_TRUE(openSession(session, withSegments(2)));
  ASSERT_TRUE(writePictures(session, 0, 300));
  for (size_t i = 0; i < 2; ++i) {
    const DB_STREAM row = allStreams().at(i);
    rig.card.writeChunk(kFilePicture, static_cast<int>(row.chunkID), row.chunkOffset,
                        Bytes(32, static_cast<uint8_t>(i * 0xFF)));
  }
  ASSERT_TRUE(writePictures(session, 300, 1500));
  ASSERT_EQ(0, session.close());
  const std::vector<uint32_t> numbers = verifyAll();
  ASSERT_FALSE(numbers.empty());
  EXPECT_EQ(numbers, range(numbers.front(), 1500));
  expectNoOverlap(256 * kKiB, 8 * kKiB);
}

TEST(RecordingSession, ChunkWhoseRowsAreGoneIsUsedAgain) {
  RecorderRig rig({256 * kKiB, 8 * kKiB, 1, 64 * kKiB});
  {
    RecordingSession session;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 0, 200));
    ASSERT_EQ(0, session.close());
  }
  // As a process leaves it that is killed between the row and the space.
  CApiDb().deleteStream(allStreams().at(0).streamID);
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 300, 500));
  ASSERT_EQ(0, session.close());
  EXPECT_EQ(verifyAll(), range(300, 500));
}

}  // namespace
}  // namespace tarn
