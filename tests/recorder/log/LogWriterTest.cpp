#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <thread>

#include "api/CApiTarnSyslogRead.h"
#include "dblog/CDbRestore.h"
#include "manager/CTARNEndlessManagerNative.h"
#include "recorder/log/LogFormat.h"
#include "recorder/log/LogMark.h"
#include "recorder/log/LogWriter.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/server/ManagementServer.h"
#include "support/CardImage.h"
#include "support/IoFaults.h"
#include "support/SyslogCapture.h"

namespace {

using tarn::LogWriter;
using tarn_test::Call;
using tarn_test::CardImage;
using tarn_test::IoFaults;
using tarn_test::IoRecord;
using ::testing::ElementsAre;
using ::testing::SizeIs;

constexpr int64_t kNow = 1700000000;
constexpr uint32_t kChunkBytes = 8192;

tarn_test::CardLayout smallLog() {
  tarn_test::CardLayout layout;
  layout.fillUndefined = false;
  layout.families[tarn::kFileSyslog] = {kChunkBytes, 5, 0};
  return layout;
}

// Where the management files say that the log ends.
struct LogEnd {
  int active;
  uint32_t free;
  bool operator==(const LogEnd& other) const {
    return active == other.active && free == other.free;
  }
};
std::ostream& operator<<(std::ostream& out, const LogEnd& end) {
  return out << "chunk " << end.active << " byte " << end.free;
}

LogEnd savedEnd() {
  CTARNEndlessManagerNative store(tarn::kFileSyslog);
  EXPECT_EQ(store.openManageData(51), 0);
  CHUNK_MANAGE first{}, active{};
  EXPECT_EQ(store.getManageData(0, &first), 0);
  EXPECT_EQ(store.getManageData(first.chType, &active), 0);
  return {first.chType, active.streamFreeOffset};
}

void setEnd(LogEnd end) {
  CTARNEndlessManagerNative store(tarn::kFileSyslog);
  ASSERT_EQ(store.openManageData(51), 0);
  store.setChType(0, static_cast<signed char>(end.active), 0);
  store.setFree(static_cast<short>(end.active), end.free, 1);
  ASSERT_EQ(store.saveManageData(), 0);
}

class LogWriterTest : public testing::Test {
 protected:
  LogWriterTest() : LogWriterTest(smallLog()) {}
  explicit LogWriterTest(const tarn_test::CardLayout& layout) : card_(layout) {
    unlink("/tmp/sd_err_mem_write");
    setenv("TZ", "XYZ-02:00", 1);
    tzset();
    card_.initManagement();
  }
  ~LogWriterTest() override { stopServer(); }

  void startServer() {
    server_ = std::make_unique<tarn::ManagementServer>();
    ASSERT_EQ(server_->start(), 0);
    thread_ = std::thread([this] { server_->run(); });
  }
  void stopServer() {
    if (!server_) return;
    server_->requestStop();
    thread_.join();
    server_.reset();
  }

  static int add(LogWriter* writer, const std::string& text, int64_t seconds = kNow) {
    return writer->append(text.data(), text.size(), seconds);
  }
  std::string text(int chunk, uint32_t offset, size_t length) const {
    const std::vector<uint8_t> bytes = card_.readChunk(tarn::kFileSyslog, chunk, offset, length);
    return std::string(bytes.begin(), bytes.end());
  }
  // The lines that people see, from the chunk's start to the mark or `end`, without their stamps.
  std::vector<std::string> lines(LogEnd end) const {
    std::vector<std::string> found;
    const std::string all = text(end.active, 0, end.free);
    for (size_t start = 0; start < all.size();) {
      const size_t feed = all.find('\n', start);
      if (all.compare(start, tarn::kLogMarkBytes, tarn::kLogMark) == 0) break;
      const tarn::LogLine line = tarn::parseLogLine(all.substr(start, feed - start));
      if (!line.filling) found.push_back(line.text.substr(std::min<size_t>(20, line.text.size())));
      if (feed == std::string::npos) break;
      start = feed + 1;
    }
    return found;
  }
  // What start-up makes of the card as it is: the server's knowledge is gone.
  LogEnd recovered() {
    stopServer();
    EXPECT_EQ(CDbRestore().recoverSyslogManage(), 0);
    return savedEnd();
  }

  tarn_test::SyslogCapture log_;
  CardImage card_;
  std::unique_ptr<tarn::ManagementServer> server_;
  std::thread thread_;
};

TEST_F(LogWriterTest, WritesStampedLinesWithTheMarkBehindThem) {
  startServer();
  LogWriter writer;
  ASSERT_EQ(writer.open(), 0);
  EXPECT_EQ(text(0, 0, 20), tarn::kLogEmpty);
  ASSERT_EQ(add(&writer, "one"), 0);
  ASSERT_EQ(add(&writer, "two", kNow + 1), 0);
  EXPECT_EQ(text(0, 0, 20), tarn::kLogEmpty) << "only collected";
  ASSERT_EQ(writer.flush(), 0);
  EXPECT_EQ(text(0, 0, 68),
            "2023-11-15T00:13:20 one\n2023-11-15T00:13:21 two\n" + std::string(tarn::kLogMark));
  EXPECT_EQ(writer.freeOffset(), 48u);
  ASSERT_EQ(writer.close(), 0);
  EXPECT_EQ(savedEnd(), (LogEnd{0, 48}));
  EXPECT_STREQ(writer.errorText(), "");
}

TEST_F(LogWriterTest, TheSyslogReaderSeesWhatWasFlushed) {
  startServer();
  LogWriter writer;
  ASSERT_EQ(writer.open(), 0);
  ASSERT_EQ(add(&writer, "one"), 0);
  ASSERT_EQ(writer.flush(), 0);
  CApiTarnSyslogRead reader;
  ASSERT_EQ(reader.open(0, 0), 0);
  char bytes[100];
  ASSERT_EQ(reader.read(bytes, sizeof bytes), 24);
  EXPECT_EQ(std::string(bytes, 24), "2023-11-15T00:13:20 one\n");
}

TEST_F(LogWriterTest, GoesOnWhereItEnded) {
  startServer();
  for (int i = 0; i < 3; ++i) {
    LogWriter writer;
    ASSERT_EQ(writer.open(), 0);
    ASSERT_EQ(add(&writer, "run " + std::to_string(i), kNow + i), 0);
    ASSERT_EQ(writer.close(), 0);
  }
  EXPECT_THAT(lines(savedEnd()), ElementsAre("run 0", "run 1", "run 2"));
}

TEST_F(LogWriterTest, AStampNeverGoesBackInsideAChunkAlsoAcrossOpenings) {
  startServer();
  LogWriter writer;
  ASSERT_EQ(writer.open(), 0);
  ASSERT_EQ(add(&writer, "one"), 0);
  ASSERT_EQ(writer.close(), 0);
  ASSERT_EQ(writer.open(), 0);
  ASSERT_EQ(add(&writer, "two", kNow - 86400), 0);
  ASSERT_EQ(writer.close(), 0);
  const LogEnd end = savedEnd();
  EXPECT_THAT(lines(end), ElementsAre("one", "(clock 2023-11-14T00:13:20) two"));
  EXPECT_EQ(recovered(), end);
}

TEST_F(LogWriterTest, RecoveryEndsExactlyAtTheFreeOffsetAfterEachFlush) {
  for (uint32_t i = 0; i < 60; ++i) {
    startServer();
    LogWriter writer;
    ASSERT_EQ(writer.open(), 0);
    const std::string line(i * 41 % 300 + 1, static_cast<char>('a' + i % 26));
    // Now and then a clock that goes back, one that was never set, and one far ahead.
    const int64_t seconds = i % 17 == 3 ? 5 : i % 29 == 4 ? 4000000000 : kNow + i;
    ASSERT_EQ(add(&writer, line, seconds), 0);
    ASSERT_EQ(writer.flush(), 0);
    const LogEnd end = {writer.chunk(), writer.freeOffset()};
    setEnd({writer.chunk(), 0});  // as if nothing had been saved since long
    ASSERT_EQ(recovered(), end) << i;
  }
}

TEST_F(LogWriterTest, MovesOnToTheNextChunkAndRoundTheRing) {
  startServer();
  LogWriter writer;
  ASSERT_EQ(writer.open(), 0);
  std::vector<int> order = {0};
  const std::string line(200, 'x');
  for (uint32_t i = 0; order.size() < 8; ++i) {
    ASSERT_EQ(add(&writer, line, kNow + i), 0);
    if (writer.chunk() != order.back()) order.push_back(writer.chunk());
  }
  EXPECT_THAT(order, ElementsAre(0, 1, 2, 3, 4, 0, 1, 2));
  ASSERT_EQ(writer.close(), 0);
  const LogEnd end = savedEnd();
  EXPECT_EQ(end.active, 2);
  EXPECT_THAT(lines(end), SizeIs(1)) << "reused from its start";
  EXPECT_TRUE(lines({1, kChunkBytes}) == std::vector<std::string>(36, line));
  EXPECT_EQ(recovered(), end);
}

TEST_F(LogWriterTest, AFullChunkKeepsItsFreeOffsetInTheManagementData) {
  startServer();
  LogWriter writer;
  ASSERT_EQ(writer.open(), 0);
  while (writer.chunk() == 0) ASSERT_EQ(add(&writer, std::string(300, 'x')), 0);
  stopServer();
  CTARNEndlessManagerNative store(tarn::kFileSyslog);
  ASSERT_EQ(store.openManageData(51), 0);
  CHUNK_MANAGE full{};
  ASSERT_EQ(store.getManageData(0, &full), 0);
  EXPECT_GT(full.streamFreeOffset, kChunkBytes - 600);
  EXPECT_LT(full.streamFreeOffset, kChunkBytes);
  EXPECT_EQ(full.chType, 1);
}

TEST_F(LogWriterTest, LongTextsComeBackInPieces) {
  startServer();
  LogWriter writer;
  ASSERT_EQ(writer.open(), 0);
  const std::string longText(3 * tarn::kLogTextBytes, 'y');
  ASSERT_EQ(add(&writer, longText), 0);
  ASSERT_EQ(writer.close(), 0);
  const std::string piece(tarn::kLogTextBytes, 'y');
  EXPECT_THAT(lines({0, kChunkBytes}), ElementsAre(piece + "[...]", "[...]" + piece + "[...]"));
  EXPECT_THAT(lines(savedEnd()), ElementsAre("[...]" + piece));
}

TEST_F(LogWriterTest, MuchTextIsWrittenOutByItself) {
  startServer();
  LogWriter writer;
  ASSERT_EQ(writer.open(), 0);
  for (int i = 0; i < 500; ++i) {
    ASSERT_EQ(add(&writer, std::string(100, 'z')), 0);
    ASSERT_LT(writer.collectedBytes(), 24u * 1024);
  }
}

TEST_F(LogWriterTest, EmptyTextsMakeNoLine) {
  startServer();
  LogWriter writer;
  ASSERT_EQ(writer.open(), 0);
  ASSERT_EQ(add(&writer, ""), 0);
  ASSERT_EQ(add(&writer, " \n"), 0);
  EXPECT_EQ(writer.collectedBytes(), 0u);
}

TEST_F(LogWriterTest, OneWriterOnAMachine) {
  startServer();
  LogWriter first, second;
  ASSERT_EQ(first.open(), 0);
  EXPECT_EQ(second.open(), -1);
  EXPECT_STREQ(second.errorText(), "another program writes the system log");
  EXPECT_TRUE(log_.has(3, "LogWriter: another program writes the system log"));
  ASSERT_EQ(first.close(), 0);
  EXPECT_EQ(second.open(), 0);
  EXPECT_EQ(second.open(), -1) << "open already";
}

TEST_F(LogWriterTest, FollowsTextThatTheServerDoesNotKnowOf) {
  startServer();
  LogWriter writer;
  ASSERT_EQ(writer.open(), 0);
  ASSERT_EQ(add(&writer, "known"), 0);
  ASSERT_EQ(writer.close(), 0);
  const LogEnd known = savedEnd();
  ASSERT_EQ(writer.open(), 0);
  for (int i = 0; i < 30; ++i) ASSERT_EQ(add(&writer, std::string(150, 'u')), 0);
  ASSERT_EQ(writer.close(), 0);
  const LogEnd end = savedEnd();
  stopServer();
  setEnd(known);  // as a server that was killed leaves it
  startServer();
  ASSERT_EQ(writer.open(), 0);
  EXPECT_EQ((LogEnd{writer.chunk(), writer.freeOffset()}), end);
}

TEST_F(LogWriterTest, TextWithoutItsMarkIsContinuedWhereItEnds) {
  const std::string old = "2023-11-15T00:13:20 from another writer\n";
  card_.write(card_.chunkStart(tarn::kFileSyslog, 0), old.data(), old.size());
  setEnd({0, static_cast<uint32_t>(old.size())});
  startServer();
  LogWriter writer;
  ASSERT_EQ(writer.open(), 0);
  EXPECT_EQ(text(0, static_cast<uint32_t>(old.size()), 20), tarn::kLogMark);
  ASSERT_EQ(add(&writer, "here"), 0);
  ASSERT_EQ(writer.close(), 0);
  EXPECT_THAT(lines(savedEnd()), ElementsAre("from another writer", "here"));
}

TEST_F(LogWriterTest, AnEndThatCannotBeToldBeginsTheNextChunk) {
  const std::string noise(700, '\xA5');
  card_.write(card_.chunkStart(tarn::kFileSyslog, 3), noise.data(), noise.size());
  setEnd({3, 650});
  startServer();
  LogWriter writer;
  ASSERT_EQ(writer.open(), 0);
  EXPECT_EQ(writer.chunk(), 4);
  EXPECT_EQ(writer.freeOffset(), 0u);
  EXPECT_TRUE(log_.has(
      4, "LogWriter: the end of syslog chunk 3 cannot be found; continuing in the next one"));
}

TEST_F(LogWriterTest, AnActiveFlagOutsideTheFiveBeginsChunkZero) {
  setEnd({0, 0});
  CTARNEndlessManagerNative store(tarn::kFileSyslog);
  ASSERT_EQ(store.openManageData(51), 0);
  store.setChType(0, 77, 0);
  ASSERT_EQ(store.saveManageData(), 0);
  store.closeManageData();
  startServer();
  LogWriter writer;
  ASSERT_EQ(writer.open(), 0);
  EXPECT_EQ(writer.chunk(), 0);
  EXPECT_EQ(savedEnd().active, 0);
}

TEST_F(LogWriterTest, AWriteThatFailsIsTold) {
  startServer();
  LogWriter writer;
  ASSERT_EQ(writer.open(), 0);
  ASSERT_EQ(add(&writer, "lost"), 0);
  {
    IoFaults faults(tarn_test::kCardPath);
    faults.fail(Call::Write, 1, EIO);
    EXPECT_EQ(writer.flush(), -1);
  }
  EXPECT_STREQ(writer.errorText(), "writing to a syslog chunk failed");
  LogWriter next;
  EXPECT_EQ(writer.close(), -1);
  EXPECT_EQ(next.open(), -1);
  EXPECT_STREQ(next.errorText(),
               "the card failed before (/tmp/sd_err_mem_write exists); check it and remove the "
               "file");
}

// Whichever write of a flush it is and however much of it got there.
TEST_F(LogWriterTest, AWriteThatIsDoneInPartLeavesTheTextAsItWas) {
  for (const size_t length : {size_t{30}, size_t{900}}) {
    for (const uint64_t bytes : {1U, 10U, 19U, 40U, 600U}) {
      SCOPED_TRACE(std::to_string(length) + ", of which " + std::to_string(bytes));
      for (int write = 1; write <= 2; ++write) {
        unlink("/tmp/sd_err_mem_write");
        card_.initManagement();
        startServer();
        LogWriter writer;
        ASSERT_EQ(writer.open(), 0);
        ASSERT_EQ(add(&writer, "there"), 0);
        ASSERT_EQ(writer.flush(), 0);
        ASSERT_EQ(add(&writer, std::string(length, 'n')), 0);
        ASSERT_EQ(add(&writer, "and more"), 0);
        IoFaults faults(tarn_test::kCardPath);
        faults.shorten(Call::Write, write, bytes);
        const int flushed = writer.flush();
        const LogEnd end = recovered();
        if (flushed == 0) continue;  // more than it was, or one write only
        EXPECT_THAT(lines(end), ElementsAre("there"));
        EXPECT_EQ(text(0, end.free, tarn::kLogMarkBytes), tarn::kLogMark);
      }
    }
  }
}

class LogWriterBigChunks : public LogWriterTest {
 protected:
  static tarn_test::CardLayout bigLog() {
    tarn_test::CardLayout layout = smallLog();
    layout.families[tarn::kFileSyslog] = {256 * 1024, 5, 0};
    return layout;
  }
  LogWriterBigChunks() : LogWriterTest(bigLog()) {}
};

TEST_F(LogWriterBigChunks, HoweverMuchWaitedWhileTheCardFailedIsWrittenWhenItWorksAgain) {
  startServer();
  LogWriter writer;
  ASSERT_EQ(writer.open(), 0);
  int added = 0;
  {
    IoFaults faults(tarn_test::kCardPath);
    faults.fail(Call::Write, 1, EIO, IoFaults::kForever);
    for (; writer.collectedBytes() < 80u * 1024; ++added) {
      add(&writer, std::to_string(added) + std::string(500, 'p'), kNow + added);
    }
    EXPECT_EQ(writer.flush(), -1);
  }
  unlink("/tmp/sd_err_mem_write");
  EXPECT_EQ(writer.flush(), 0);
  ASSERT_EQ(writer.close(), 0);
  const std::vector<std::string> found = lines(savedEnd());
  ASSERT_EQ(found.size(), static_cast<size_t>(added));
  for (int i = 0; i < added; ++i) {
    EXPECT_EQ(found[static_cast<size_t>(i)], std::to_string(i) + std::string(500, 'p'));
  }
}

// A process whose server is away for a while, without waiting for real.
class LogWriterAway : public LogWriterTest {
 protected:
  ~LogWriterAway() override { tarn::RequestPatience::resume(); }
};

TEST_F(LogWriterAway, AFlushThatTheServerHasNotHeardOfIsNoneUntilItHas) {
  startServer();
  LogWriter writer;
  ASSERT_EQ(writer.open(), 0);
  ASSERT_EQ(add(&writer, "written"), 0);
  stopServer();
  tarn::RequestPatience::hurry();  // gives up after a second
  EXPECT_EQ(writer.flush(), -1);
  EXPECT_STREQ(writer.errorText(), "the management server does not answer");
  EXPECT_EQ(writer.flush(), -1) << "nothing is collected, but the server still does not know";
  tarn::RequestPatience::resume();
  startServer();
  EXPECT_EQ(writer.flush(), 0);
  ASSERT_EQ(writer.close(), 0);
  EXPECT_THAT(lines(savedEnd()), ElementsAre("written"));
}

TEST_F(LogWriterAway, AChangeOfChunkWaitsForAServerThatIsStartedAgain) {
  startServer();
  LogWriter writer;
  ASSERT_EQ(writer.open(), 0);
  while (writer.freeOffset() < kChunkBytes - 900) {
    ASSERT_EQ(add(&writer, std::string(300, 'x')), 0);
    ASSERT_EQ(writer.flush(), 0);
  }
  // The last lines have been told; what fails first is a question of the change of chunk itself.
  stopServer();
  std::thread starter([this] {
    usleep(300000);
    startServer();
  });
  while (writer.chunk() == 0) {
    const int added = add(&writer, std::string(300, 'x'));
    EXPECT_EQ(added, 0) << writer.errorText();
    if (added != 0) break;
  }
  starter.join();
  EXPECT_EQ(writer.close(), 0);
  EXPECT_EQ(savedEnd().active, 1);
}

TEST_F(LogWriterTest, AServerWithoutTheLogsDataIsToldFromOneThatDoesNotAnswer) {
  for (int copy : {0, 1}) card_.writeChunk(tarn::kFileSyslogManage, copy, 5, {0x5A});
  startServer();
  LogWriter writer;
  const int64_t begin = tarn::monotonicMs();
  EXPECT_EQ(writer.open(), -1);
  EXPECT_LT(tarn::monotonicMs() - begin, 2000) << "asking again does not mend it";
  EXPECT_STREQ(writer.errorText(),
               "the management server cannot read or write the card's management data");
}

TEST_F(LogWriterTest, ALockFileThatCannotBeOpenedIsNoOtherWriter) {
  startServer();
  ASSERT_EQ(mkdir("/tmp/tarn-log.lock", 0700), 0);
  LogWriter writer;
  EXPECT_EQ(writer.open(), -1);
  EXPECT_STREQ(writer.errorText(), "the lock file /tmp/tarn-log.lock cannot be opened");
  rmdir("/tmp/tarn-log.lock");
}

TEST_F(LogWriterTest, CallsOnAClosedWriterAreRefused) {
  LogWriter writer;
  EXPECT_EQ(add(&writer, "x"), -1);
  EXPECT_EQ(writer.flush(), -1);
  EXPECT_EQ(writer.close(), -1);
  EXPECT_STREQ(writer.errorText(), "the log writer is not open, or open already");
}

// Power goes at each write of a run over a change of chunk, torn at each 512 bytes of it: what was
// flushed is there, what was not is there whole or not at all, and the search ends exactly there.
class LogWriterPowerCut : public LogWriterTest {
 protected:
  struct Flush {
    LogEnd end;
    size_t texts;
  };

  // Old text of days ago everywhere, as a ring that has been round has it. Some of it is of a time
  // when the clock was ahead.
  void fillWithOldText() {
    for (int chunk = 0; chunk < 5; ++chunk) {
      std::string old;
      while (old.size() < kChunkBytes) {
        old += (chunk == 1 ? "2030-01-01T00:00:00 ahead " : "2020-01-01T00:00:00 old ") +
               std::string(old.size() % 77, 'o') + "\n";
      }
      card_.write(card_.chunkStart(tarn::kFileSyslog, chunk), old.data(), kChunkBytes);
    }
    card_.write(card_.chunkStart(tarn::kFileSyslog, 0), tarn::kLogEmpty, 20);
    CTARNEndlessManagerNative store(tarn::kFileSyslog);
    ASSERT_EQ(store.openManageData(51), 0);
    store.setFree(1, 7000, 1);
    ASSERT_EQ(store.saveManageData(), 0);
  }
  bool showsOldTextPartlyWrittenOver() const {
    CTARNEndlessManagerNative store(tarn::kFileSyslog);
    CHUNK_MANAGE next{};
    EXPECT_EQ(store.openManageData(51), 0);
    EXPECT_EQ(store.getManageData(1, &next), 0);
    return next.streamFreeOffset == 7000 && text(1, 0, 20) != "2030-01-01T00:00:00 ";
  }

  // Returns the end after each flush that was confirmed.
  std::vector<Flush> workload() {
    std::vector<Flush> flushes = {{{0, 0}, 0}};
    LogWriter writer;
    if (writer.open() != 0) {
      error_ = writer.errorText();
      return flushes;
    }
    size_t texts = 0;
    for (uint32_t i = 0; i < 14; ++i) {
      const uint32_t count = i % 3 + 1;
      for (uint32_t j = 0; j < count; ++j, ++texts) {
        const std::string line = std::to_string(texts) + std::string(i * 97 % 700 + 1, 'n');
        if (add(&writer, line, kNow + i) != 0) return flushes;
      }
      if (writer.flush() != 0) return flushes;
      flushes.push_back({{writer.chunk(), writer.freeOffset()}, texts});
    }
    writer.close();
    return flushes;
  }

  std::string error_;

  // Runs the workload until write n, of which `bytes` still happen. The number of the last flush
  // confirmed; in *length the length of that write, 0 when the run ended before.
  size_t runUntil(int n, uint64_t bytes, uint64_t* length) {
    card_.initManagement();
    fillWithOldText();
    startServer();
    IoFaults faults(tarn_test::kCardPath);
    if (bytes > 0) {
      faults.shorten(Call::Write, n, bytes);
      faults.fail(Call::Write, n + 1, EIO, IoFaults::kForever);
    } else {
      faults.fail(Call::Write, n, EIO, IoFaults::kForever);
    }
    const size_t confirmed = workload().size() - 1;
    stopServer();
    *length = 0;
    int writes = 0;
    for (const IoRecord& call : faults.calls()) {
      if (call.call == Call::Write && ++writes == n) *length = call.length;
    }
    unlink("/tmp/sd_err_mem_write");
    return confirmed;
  }
};

TEST_F(LogWriterPowerCut, KeepsWhatWasFlushedAndEndsExactlyBehindALine) {
  fillWithOldText();
  startServer();
  const std::vector<Flush> all = workload();
  stopServer();
  ASSERT_EQ(all.size(), 15u) << error_;
  ASSERT_EQ(all.back().end.active, 1) << "the run changes its chunk";
  int states = 0;
  uint64_t length = 1;
  for (int n = 1; length > 0; ++n) {
    for (uint64_t bytes = 0; bytes < length; bytes += 512) {
      const size_t confirmed = runUntil(n, bytes, &length);
      if (length == 0) break;
      ++states;
      EXPECT_FALSE(showsOldTextPartlyWrittenOver()) << "write " << n << " byte " << bytes;
      const LogEnd end = recovered();
      // A run that moves on to the next chunk flushes on its way: the end may lie in between.
      const size_t next = std::min(confirmed + 1, all.size() - 1);
      const std::vector<std::string> found = lines(end);
      size_t texts = found.size();
      if (end.active == 1) texts += lines({0, kChunkBytes}).size();
      EXPECT_GE(texts, all[confirmed].texts) << "write " << n << " byte " << bytes;
      EXPECT_LE(texts, all[next].texts) << "write " << n << " byte " << bytes;
      if (texts == all[confirmed].texts && end.free != 0) {
        EXPECT_EQ(end, all[confirmed].end) << "write " << n << " byte " << bytes;
      }
      for (size_t i = 0; i < found.size(); ++i) {
        const std::string number = std::to_string(texts - found.size() + i);
        EXPECT_EQ(found[i].substr(0, number.size()), number);
        EXPECT_EQ(found[i].find_first_not_of('n', number.size()), std::string::npos);
      }
      if (HasFailure()) return;
    }
  }
  EXPECT_GE(states, 50);
}

}  // namespace
