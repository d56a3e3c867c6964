#pragma once

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <vector>

#include "db/RowStatus.h"
#include "recorder/CheckRig.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recovery/Recovery.h"
#include "recorder/rows/RowQueries.h"
#include "recorder/session/KeptCopies.h"

namespace tarn_test {

// What was recorded before the clock was known, and is re-dated.
class RedatingRig : public CheckRig {
 protected:
  using PictureTime = tarn::PictureTime;
  using RecordingSession = tarn::RecordingSession;

  static constexpr int64_t kSecond = 1000000;
  static constexpr int64_t kBoot = 40;          // a clock without a battery at the first picture
  static constexpr int64_t kStep = 1700000000;  // what it is wrong by, in seconds

  static PictureTime at(int64_t base, uint32_t number) {
    return PictureTime::fromMicros(base * kSecond + int64_t{number} * (kSecond / kRate) + 120000);
  }

  static void recordPictures(RecordingSession& session, int64_t base, uint32_t from, uint32_t to) {
    for (uint32_t i = from; i < to; ++i) {
      const Bytes bytes = pictureBytes(i, 700);
      ASSERT_EQ(0, session.writePicture(bytes.data(), bytes.size(), at(base, i), 0, isKey(i)))
          << session.errorText();
    }
  }

  static tarn::RecordingOptions options(int8_t channel, uint32_t segmentSeconds = 2) {
    tarn::RecordingOptions options;
    options.channel = channel;
    options.segmentSeconds = segmentSeconds;
    return options;
  }

  // Every picture of a row has the time of `base`, to the microsecond.
  static void expectTimes(const DB_STREAM& row, int64_t base, uint32_t first) {
    EXPECT_EQ(at(base, first).seconds, row.startDate);
    EXPECT_EQ(at(base, first).milliseconds(), row.startMSec);
    tarn::RecordingReader reader;
    ASSERT_EQ(0, reader.open(row));
    ASSERT_EQ(row.recSize, reader.pictureCount());
    tarn::PictureEntry entry;
    Bytes bytes;
    for (uint32_t i = 0; i < row.recSize; ++i) {
      ASSERT_TRUE(reader.picture(i, &entry)) << i;
      EXPECT_EQ(at(base, first + i), entry.presentation) << i;
      ASSERT_TRUE(reader.readPicture(entry, &bytes));
      EXPECT_EQ(pictureBytes(first + i, 700), bytes);
    }
    EXPECT_EQ(at(base, first + row.recSize - 1).seconds, row.endDate);
    EXPECT_EQ(0, reader.findKeyPictureBefore(at(base, first)));
    EXPECT_EQ(static_cast<int64_t>(row.recSize) - 1,
              reader.findPictureFrom(at(base, first + row.recSize - 1)));
  }

  // Keeps pictures `from` to `to` of channel 0, by the times of `base`.
  static uint32_t keep(tarn::KeptCopies* kept, int64_t base, uint32_t from, uint32_t to) {
    tarn::KeepWanted wanted;
    wanted.from = at(base, from);
    wanted.to = at(base, to);
    wanted.asItIs = true;
    tarn::KeepResult result;
    EXPECT_EQ(tarn::KeepOutcome::kDone, kept->keep(wanted, nullptr, &result)) << kept->errorText();
    return result.copies;
  }

  static std::vector<DB_STREAM> copies() {
    CApiDb db;
    tarn::RowQueries queries(&db, nullptr);
    std::vector<DB_STREAM> rows;
    EXPECT_TRUE(queries.streams(
        "SELECT * FROM STREAM WHERE " TARN_SQL_KEPT_WHOLE " ORDER BY streamID", &rows));
    return rows;
  }

  void SetUp() override {
    format();
    startServer();
  }
  void expectNoFindings() {
    stopServer();
    EXPECT_EQ(0u, findings().total()) << texts();
  }
  // As a start after a power loss.
  void restart() {
    stopServer();
    unlink("/tmp/DB.dat");
    const tarn::RecoveryReport report = tarn::Recovery().run();
    EXPECT_TRUE(report.ok()) << report.error;
  }
  // Three recordings and an event, which are re-dated.
  void recordAndRedate() {
    RecordingSession session;
    ASSERT_EQ(0, session.open(options(0)));
    recordPictures(session, kBoot, 0, 150);
    const uint32_t event = session.beginEvent(7, at(kBoot, 60), 1);
    ASSERT_EQ(0, session.endEvent(event, at(kBoot, 90)));
    ASSERT_EQ(0, session.clockBecameKnown(kStep * kSecond));
    ASSERT_EQ(0, session.close());
  }
  void expectAllRedated() {
    const std::vector<DB_STREAM> rows = allStreams();
    ASSERT_EQ(3u, rows.size());
    for (size_t i = 0; i < 3; ++i) {
      expectTimes(rows[i], kBoot + kStep, static_cast<uint32_t>(i) * 50);
      EXPECT_EQ(tarn::kStatusRedated,
                rows[i].status & (tarn::kStatusRedated | tarn::kStatusRedating));
    }
    ASSERT_EQ(1u, allEvents().size());
    EXPECT_EQ(at(kBoot + kStep, 60).seconds, allEvents()[0].startDate);
    EXPECT_EQ(at(kBoot + kStep, 90).seconds, allEvents()[0].endDate);
  }
};

}  // namespace tarn_test
