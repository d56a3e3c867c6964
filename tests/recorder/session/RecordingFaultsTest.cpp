// Recording when something around it fails: the event journal, a second process, the lock of the
// database, the database itself, flushes, the clock, memory.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "recorder/RecorderRig.h"
#include "recorder/rows/DatabaseGate.h"
#include "recorder/rows/JournalGuard.h"
#include "recorder/rows/JournalMessages.h"
#include "recorder/rows/RowMessages.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/session/RecordingMessages.h"
#include "support/IoFaults.h"

using namespace tarn_test;

namespace tarn {
namespace {

constexpr char kMarker[] = "/tmp/sd_err_mem_write";

TEST(RecordingFaults, AnEventThatTheJournalDoesNotTakeIsAnError) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 0, 30));
  ASSERT_EQ(0, session.flush());
  {
    IoFaults io(kCardPath);
    io.fail(Call::Write, 1, EIO);
    EXPECT_EQ(session.beginEvent(5, pictureTime(10), 0), 0u);
  }
  EXPECT_EQ(session.error(), RecordingError::kJournal);
  EXPECT_TRUE(allEvents().empty());
  EXPECT_EQ(-1, session.close());
  EXPECT_EQ(allStreams().at(0).recSize, 30u);
}

TEST(RecordingFaults, AnEventWhoseEndTheJournalDoesNotTakeIsAnError) {
  for (const bool byClose : {false, true}) {
    RecorderRig rig;
    RecordingSession session;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 0, 30));
    const uint32_t event = session.beginEvent(5, pictureTime(10), 0);
    ASSERT_NE(event, 0u);
    ASSERT_EQ(0, session.flush());
    {
      IoFaults io(kCardPath);
      io.fail(Call::Write, 1, EIO);
      if (byClose) {
        EXPECT_EQ(-1, session.close());
      } else {
        EXPECT_EQ(-1, session.endEvent(event, pictureTime(20)));
      }
    }
    EXPECT_EQ(session.error(), RecordingError::kJournal);
    EXPECT_EQ(-1, session.close());
    EXPECT_EQ(allEvents().at(0).endDate, 0u) << "its record is open, so the row is";
    EXPECT_EQ(allStreams().at(0).recSize, 30u) << "the recording is whole all the same";
  }
}

TEST(RecordingFaults, TheEndOfAnEventThatTheRingGaveUpIsNoError) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 0, 30));
  const uint32_t event = session.beginEvent(5, pictureTime(10), 0);
  CApiDb other;
  other.deleteEvent(event);
  EXPECT_EQ(0, session.endEvent(event, pictureTime(20)));
  EXPECT_EQ(0, session.close());
}

// An event is there before the picture that it is about, and a session may end in between.
TEST(RecordingFaults, AnEventThatNoPictureFollowsEndsNoSoonerThanItBegan) {
  for (const bool byClose : {false, true}) {
    RecorderRig rig;
    RecordingSession session;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 0, 30));
    const uint32_t event = session.beginEvent(5, pictureTime(30), 0);
    ASSERT_NE(event, 0u);
    if (!byClose) {
      EXPECT_EQ(0, session.endEvent(event, pictureTime(20)));
    }
    EXPECT_EQ(0, session.close());
    const DB_EVENT row = allEvents().at(0);
    EXPECT_EQ(row.startDate, pictureTime(30).seconds);
    EXPECT_EQ(row.endDate, row.startDate) << byClose;
    EXPECT_EQ(row.endMSec, row.startMSec) << byClose;
  }
}

TEST(RecordingFaults, ASecondRecordingProcessIsRefusedByName) {
  RecorderRig rig;
  rig.startServerProcess();
  int ready[2];
  int go[2];
  ASSERT_EQ(0, pipe(ready));
  ASSERT_EQ(0, pipe(go));
  const pid_t child = fork();
  if (child == 0) {
    RecordingSession first;
    RecordingOptions options;
    options.channel = 1;
    char byte = first.open(options) == 0 && writePictures(first, 0, 10) ? 'y' : 'n';
    if (write(ready[1], &byte, 1) != 1 || read(go[0], &byte, 1) != 1) _exit(3);
    _exit(first.close() == 0 ? 0 : 1);
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  ASSERT_EQ(byte, 'y');
  RecordingSession session;
  EXPECT_EQ(-1, session.open({}));
  EXPECT_EQ(session.error(), RecordingError::kBadOption);
  EXPECT_STREQ(session.errorText(), kErrOtherProcess);
  CApiDb db;
  {
    SyslogCapture log;
    JournalGuard guard(&db);
    EXPECT_FALSE(guard.beforeEventInsert());
    EXPECT_TRUE(log.has(3, kMsgOtherInserts));
  }
  EXPECT_EQ(allStreams().size(), 1u) << "readers go on";
  ASSERT_EQ(write(go[1], &byte, 1), 1);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(openSession(session)) << "when the other one is over";
  EXPECT_EQ(0, session.close());
  for (const int end : {ready[0], ready[1], go[0], go[1]}) close(end);
}

// A link in the place of a lock file is not followed; it says nothing of other sessions either.
TEST(RecordingFaults, ALockThatCannotBeHadIsNoOtherSession) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_EQ(symlink("/tmp/elsewhere", "/tmp/tarn-channel-0.lock"), 0);
  EXPECT_EQ(-1, session.open({}));
  EXPECT_EQ(session.error(), RecordingError::kDatabase);
  EXPECT_STREQ(session.errorText(), kErrChannelLock);
  unlink("/tmp/tarn-channel-0.lock");
  unlink("/tmp/tarn-inserting.lock");
  ASSERT_EQ(symlink("/tmp/elsewhere", "/tmp/tarn-inserting.lock"), 0);
  EXPECT_EQ(-1, session.open({}));
  EXPECT_STREQ(session.errorText(), kErrInsertLock);
  unlink("/tmp/tarn-inserting.lock");
  EXPECT_TRUE(openSession(session));
  EXPECT_EQ(0, session.close());
}

TEST(RecordingFaults, SessionsAndGuardsOfOneProcessShareIt) {
  RecorderRig rig;
  RecordingSession first;
  RecordingSession second;
  RecordingOptions other;
  other.channel = 1;
  ASSERT_TRUE(openSession(first));
  ASSERT_TRUE(openSession(second, other));
  CApiDb db;
  EXPECT_TRUE(JournalGuard(&db).beforeEventInsert());
  EXPECT_EQ(0, first.close());
  EXPECT_TRUE(writePictures(second, 0, 5));
  EXPECT_EQ(0, second.close());
}

void dieWithTheLock() {
  const pid_t child = fork();
  if (child == 0) {
    CApiDb db;
    db.lockSem();
    _exit(0);
  }
  waitpid(child, nullptr, 0);
}

TEST(RecordingFaults, ALockOfTheDeadEndsRecordingWithEveryPictureOnTheCard) {
  RecorderRig rig;
  rig.startServerProcess();
  auto own = std::make_unique<RecordingSession>();
  RecordingSession& session = *own;
  RecordingOptions options;
  options.flushIntervalMs = 60000;
  options.segmentSeconds = 1;
  ASSERT_TRUE(openSession(session, options));
  ASSERT_TRUE(writePictures(session, 0, 20));
  dieWithTheLock();
  const int64_t begin = monotonicMs();
  EXPECT_FALSE(writePictures(session, 20, 60));
  EXPECT_LT(monotonicMs() - begin, kServerPatienceMs);
  EXPECT_STREQ(session.errorText(), kErrLockOfTheDead);
  EXPECT_EQ(session.statistics().pictures, session.statistics().confirmed);
  EXPECT_EQ(session.statistics().confirmed, 25u);
  EXPECT_EQ(-1, session.close());
  own.reset();  // closes the database, which takes the lock
  EXPECT_LT(monotonicMs() - begin, kServerPatienceMs + 2000);
  EXPECT_TRUE(DatabaseGate::releaseDead());
  RecordingSession next;
  ASSERT_TRUE(openSession(next));
  ASSERT_EQ(0, next.close());
  EXPECT_EQ(verifyAll(), range(0, 25));
}

TEST(RecordingFaults, WithoutAServerWhatIsThereGetsOntoTheCard) {
  RecorderRig rig;
  RecordingSession session;
  RecordingOptions options;
  options.flushIntervalMs = 60000;
  ASSERT_TRUE(openSession(session, options));
  ASSERT_TRUE(writePictures(session, 0, 40));
  rig.stopServer();
  EXPECT_EQ(-1, session.flush());
  EXPECT_EQ(session.error(), RecordingError::kServer);
  EXPECT_EQ(session.statistics().confirmed, 40u);
  EXPECT_EQ(-1, session.close());
  EXPECT_EQ(allStreams().at(0).recSize, 40u);
  EXPECT_EQ(verifyAll(), range(0, 40));
}

TEST(RecordingFaults, AServerThatDiesWhileRecordingStartsIsWaitedFor) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  rig.stopServer();  // before the journal was ever asked
  std::thread later([&rig] {
    usleep(300000);
    rig.startServer();
  });
  const testing::AssertionResult result = writePictures(session, 0, 10);
  later.join();
  EXPECT_TRUE(result);
  EXPECT_EQ(0, session.close());
  EXPECT_EQ(verifyAll(), range(0, 10));
}

TEST(RecordingFaults, AReplacedDatabaseIsAnErrorAndCostsNoRoom) {
  RecorderRig rig({64 * kKiB, 4 * kKiB, 2, 64 * kKiB});
  RecordingSession session;
  RecordingOptions options;
  options.segmentSeconds = 1;
  ASSERT_TRUE(openSession(session, options));
  ASSERT_TRUE(writePictures(session, 0, 60));
  ASSERT_EQ(0, system("cp /tmp/DB.dat /tmp/copy && mv /tmp/copy /tmp/DB.dat"));
  const size_t before = allStreams().size();
  EXPECT_FALSE(writePictures(session, 60, 200));
  EXPECT_EQ(session.error(), RecordingError::kDatabase);
  EXPECT_STREQ(session.errorText(), kErrDatabaseReplaced);
  EXPECT_EQ(-1, session.close());
  EXPECT_EQ(allStreams().size(), before) << "nothing was taken for room";
}

TEST(RecordingFaults, ADatabaseEmptiedInPlaceCostsNoRoom) {
  RecorderRig rig({64 * kKiB, 4 * kKiB, 2, 64 * kKiB});
  RecordingSession session;
  RecordingOptions options;
  options.segmentSeconds = 1;
  ASSERT_TRUE(openSession(session, options));
  ASSERT_TRUE(writePictures(session, 0, 60));
  CApiDb other;
  other.setSqlNoResult("DELETE FROM STREAM; DELETE FROM sqlite_sequence");
  SyslogCapture log;
  EXPECT_FALSE(writePictures(session, 60, 400));
  EXPECT_EQ(session.error(), RecordingError::kDatabase) << session.errorText();
  EXPECT_EQ(log.count(4, "RecordingSpace: chunk 0 holds no recording, emptied"), 0u);
  EXPECT_EQ(log.count(4, "RecordingSpace: chunk 1 holds no recording, emptied"), 0u);
}

// Whether what the n-th flush was for is a recording's own: data, entries or journal records, not
// management data, which is saved again or found by the next start.
bool flushOfARecording(const RecorderRig& rig, const IoFaults& io, int n) {
  int flushes = 0;
  bool own = false;
  for (const IoRecord& call : io.calls()) {
    const auto at = static_cast<uint64_t>(call.offset);
    if (call.call == Call::Write) {
      own = (at >= rig.card.chunkStart(kFileJournal, 0) &&
             at < rig.card.chunkStart(kFileStreamManage, 0)) ||
            at >= rig.card.chunkStart(kFileStream, 0);
    } else if (call.call == Call::Fsync) {
      if (++flushes == n) return own;
      own = false;
    }
  }
  return false;
}

// Whatever flush fails, the program hears of it, and nothing counts as safe that is not.
TEST(RecordingFaults, NoFlushOfARecordingFailsInSilence) {
  RecorderRig rig({64 * kKiB, 4 * kKiB, 3, 64 * kKiB});
  size_t flushes = 0;
  int reported = 0;
  for (int n = 0; n == 0 || static_cast<size_t>(n) <= flushes; ++n) {
    unlink(kMarker);
    RecordingSession session;
    IoFaults io(kCardPath);
    if (n > 0) io.fail(Call::Fsync, n, EIO);
    const auto first = static_cast<uint32_t>(n) * 1000;
    bool good = session.open({}) == 0;
    good = good && writePictures(session, first, first + 30);
    const uint32_t event = good ? session.beginEvent(5, pictureTime(first), 0) : 0;
    good = good && event != 0 && session.endEvent(event, pictureTime(first + 29)) == 0;
    good = session.close() == 0 && good;
    if (n == 0) flushes = io.count(Call::Fsync);
    if (flushOfARecording(rig, io, n)) {
      EXPECT_FALSE(good) << "flush " << n << " of " << flushes;
    }
    reported += good ? 0 : 1;
    const DB_STREAM row = allStreams().back();
    const bool own = row.startDate == pictureTime(first).seconds;
    EXPECT_LE(own ? row.recSize : 0, session.statistics().confirmed) << n;
    if (!good) continue;
    const std::vector<uint32_t> numbers = verifyAll();
    const auto begin = std::lower_bound(numbers.begin(), numbers.end(), first);
    EXPECT_EQ(std::vector<uint32_t>(begin, numbers.end()), range(first, first + 30)) << n;
  }
  EXPECT_GE(reported, 14);
  unlink(kMarker);
}

TEST(RecordingFaults, AnEventEndsInItsOwnTimeAfterTheClockWasSet) {
  RecorderRig rig;
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  const uint32_t earlier = 25 * 7200;  // two hours of pictures
  ASSERT_TRUE(writePictures(session, earlier, earlier + 75));
  ASSERT_NE(session.beginEvent(1, pictureTime(earlier + 25), 0), 0u);
  ASSERT_TRUE(writePictures(session, 0, 50));  // two hours back
  ASSERT_NE(session.beginEvent(2, pictureTime(25), 0), 0u);
  ASSERT_TRUE(writePictures(session, 50, 100));
  ASSERT_EQ(0, session.close());
  const std::vector<DB_EVENT> events = allEvents();
  ASSERT_EQ(events.size(), 2u);
  for (const DB_EVENT& event : events) {
    const uint32_t last = event.extTrg == 1 ? earlier + 74 : 99;
    EXPECT_EQ(event.endDate, pictureTime(last).seconds) << event.extTrg;
    EXPECT_EQ(event.endMSec, pictureTime(last).milliseconds()) << event.extTrg;
  }
}

TEST(RecordingFaults, AFullRamDiskGetsTheReserveAndRecordingGoesOn) {
  RecorderRig rig;
  RecordingSession session;
  RecordingOptions options;
  options.segmentSeconds = 1;
  ASSERT_TRUE(openSession(session, options));
  ASSERT_TRUE(writePictures(session, 0, 20));
  SyslogCapture log;
  {
    IoFaults io("/tmp/DB.dat-journal");
    io.fail(Call::Pwrite, 1, ENOSPC, 2);  // both attempts of one statement
    EXPECT_TRUE(writePictures(session, 20, 40));
    EXPECT_GE(io.count(Call::Pwrite), 2u);
  }
  EXPECT_EQ(log.count(3, kMsgReserveGivenUp), 1u);
  EXPECT_EQ(0, session.close());
  EXPECT_EQ(verifyAll(), range(0, 40));
}

TEST(RecordingFaults, MemoryThatRanOutIsAnErrorNotAnException) {
  if (!AllocationFault::supported()) GTEST_SKIP() << "the sanitizer owns the allocator";
  RecorderRig rig;
  int failures = 0;
  for (int n = 1; n < 200; n += 7) {
    RecordingSession session;
    int result = 0;
    {
      const AllocationFault fault(1, n);
      result = session.open({});
    }
    if (result != 0) {
      ++failures;
      EXPECT_NE(session.error(), RecordingError::kNone) << n;
    }
    session.close();
  }
  EXPECT_GT(failures, 3);
  RecordingSession session;
  EXPECT_TRUE(openSession(session));
  EXPECT_TRUE(writePictures(session, 0, 5));
  EXPECT_EQ(0, session.close());
}

}  // namespace
}  // namespace tarn
