#include <set>
#include <thread>

#include "db/JournalCalls.h"
#include "dblog/JournalRig.h"

namespace tarn_test {
namespace {

constexpr int kThreads = 4;
constexpr uint32_t kPerThread = 25;

class JournalThreads : public ServedTest {
 protected:
  JournalThreads() : ServedTest(16 * kKiB) {}

  static void inParallel(const std::function<void(int)>& work) {
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
    for (std::thread& thread : threads) thread.join();
  }
};

TEST_F(JournalThreads, InsertsOfSeveralThreadsNeverShareAPlace) {
  inParallel([](int) {
    CApiDb db;
    for (uint32_t i = 0; i < kPerThread; ++i) {
      DB_EVENT event = eventRow(i);
      DB_STREAM stream = streamRow(i);
      EXPECT_NE(db.insertEvent(&event), 0u);
      EXPECT_NE(db.insertStream(&stream), 0u);
    }
  });
  CApiDb db;
  std::set<uint32_t> places;
  for (uint32_t key = 1; key <= kThreads * kPerThread; ++key) {
    DB_EVENT event = {};
    DB_STREAM stream = {};
    ASSERT_EQ(db.selectEvent(key, &event), 1u);
    ASSERT_EQ(db.selectStream(key, &stream), 1u);
    EXPECT_EQ(event.backOffset, (key - 1) * 32) << "places follow the keys";
    EXPECT_EQ(stream.backOffset, (key - 1) * 64);
    expectPair(0, event.backOffset, eventRecord(event));
    expectPair(2, stream.backOffset, streamRecord(stream));
    places.insert(event.backOffset);
  }
  EXPECT_EQ(places.size(), size_t{kThreads * kPerThread});
}

// Each thread changes another field of one record; no change may undo another one's.
TEST_F(JournalThreads, ChangesOfOneRecordByTwoThreadsAreAllKept) {
  CApiDb db;
  DB_STREAM row = streamRow(1);
  ASSERT_EQ(db.insertStream(&row), 1u);
  const uint32_t bits[kThreads] = {0x10, 0x80, 0x100, 0x400};
  inParallel([&](int thread) {
    DB_STREAM mine = row;
    for (uint32_t i = 1; i <= kPerThread; ++i) {
      mine.recSize = mine.chunkSize = mine.status = mine.endDate = i;
      EXPECT_TRUE(CDbLog::getInstance()->updateStream(bits[thread], &mine));
    }
  });
  row.recSize = row.chunkSize = row.status = row.endDate = kPerThread;
  expectPair(2, 0, streamRecord(row));
}

TEST_F(JournalThreads, InsertsGoOnWhileAnotherThreadFinishes) {
  inParallel([](int thread) {
    CApiDb db;
    for (uint32_t i = 0; i < kPerThread; ++i) {
      DB_EVENT event = eventRow(i);
      if (thread == 0) {
        CDbLog::getInstance()->finish();
      } else {
        EXPECT_NE(db.insertEvent(&event), 0u);
        EXPECT_TRUE(CDbLog::getInstance()->updateEvent(0x10, &event));
      }
    }
  });
  // The server, in this process too, says when a finished journal has left it.
  EXPECT_THAT(log.atPriority(LOG_ERR),
              testing::Each(testing::Field(
                  &LogLine::text, testing::MatchesRegex("socket [0-9]+ closed|not conneted"))));
  CApiDb db;
  for (uint32_t key = 1; key <= (kThreads - 1) * kPerThread; ++key) {
    DB_EVENT event = {};
    ASSERT_EQ(db.selectEvent(key, &event), 1u);
    EXPECT_EQ(event.backOffset, (key - 1) * 32);
    expectPair(0, event.backOffset, eventRecord(event));
  }
}

TEST_F(JournalThreads, AThreadMayTakeTheInsertLockAgain) {
  const tarn::journal_calls::InsertLock outer;
  CApiDb db;
  DB_EVENT event = eventRow(1);
  EXPECT_EQ(db.insertEvent(&event), 1u);
}

}  // namespace
}  // namespace tarn_test
