#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "db/CApiDb.h"
#include "dblog/CDbLog.h"
#include "manager/CTARNStreamManager.h"
#include "recorder/recording/RecordingReader.h"
#include "recorder/server/ManagementServer.h"
#include "recorder/session/RecordingSession.h"
#include "support/CardImage.h"
#include "support/SyslogCapture.h"

namespace tarn_test {

using Bytes = std::vector<uint8_t>;

inline constexpr uint32_t kStart = 1700000000;  // first picture, seconds
inline constexpr uint32_t kRate = 25;           // pictures a second

// A whole recorder in the test's view: card, database, management server in a thread.
class RecorderRig {
 public:
  struct Shape {
    uint32_t streamChunk = 256 * kKiB;
    uint32_t pictureChunk = 16 * kKiB;
    uint32_t chunks = 3;
    uint32_t journalChunk = 64 * kKiB;
  };

  RecorderRig() : RecorderRig(Shape()) {}
  explicit RecorderRig(const Shape& shape) : card(layoutOf(shape)) {
    setenv("TZ", "XYZ-02:00", 1);
    tzset();
    card.initManagement();
    EXPECT_EQ(0, system("/usr/local/bin/dbsetup init && /usr/local/bin/dbsetup start"));
    startServer();
  }
  ~RecorderRig() {
    CDbLog::getInstance()->finish();
    stopServer();
    killServerProcess();
  }

  void startServer() {
    server_ = std::make_unique<tarn::ManagementServer>();
    ASSERT_EQ(0, server_->start());
    thread_ = std::thread([this] { server_->run(); });
  }
  void stopServer() {
    if (!server_) return;
    server_->requestStop();
    thread_.join();
    server_.reset();
  }

  // The server in a process of its own, which can be killed. A test that forks uses it instead of
  // the thread, so that nothing else runs while it forks.
  void startServerProcess() {
    stopServer();
    serverPid_ = fork();
    if (serverPid_ == 0) {
      execl(TARN_BIN_DIR "/tarn-server", "tarn-server", nullptr);
      _exit(127);
    }
    CTARNStreamManager probe(tarn::kRecorderPartition);
    for (int i = 0; i < 400 && probe.openManageData() != 0; ++i) {
      probe.closeManageData();
      usleep(5000);
    }
    probe.closeManageData();
  }
  void killServerProcess() {
    if (serverPid_ <= 0) return;
    kill(serverPid_, SIGKILL);
    waitpid(serverPid_, nullptr, 0);
    serverPid_ = -1;
  }

  static CardLayout layoutOf(const Shape& shape) {
    CardLayout layout;
    layout.fillUndefined = false;
    auto set = [&](int type, uint32_t size, uint32_t count) {
      layout.families[static_cast<size_t>(type)] = {size, count, 0};
    };
    set(tarn::kFileStream, shape.streamChunk, shape.chunks);
    set(tarn::kFilePicture, shape.pictureChunk, shape.chunks);
    set(tarn::kFileJournal, shape.journalChunk, 4);
    return layout;
  }

  CardImage card;

 private:
  std::unique_ptr<tarn::ManagementServer> server_;
  std::thread thread_;
  pid_t serverPid_ = -1;
};

// Picture `number` of the test: distinct bytes, an Annex B unit, key every `gop` pictures.
inline bool isKey(uint32_t number, uint32_t gop = kRate) { return number % gop == 0; }
inline Bytes pictureBytes(uint32_t number, size_t size, uint32_t gop = kRate) {
  Bytes bytes = patternBytes(size, number + 1);
  const uint8_t head[] = {0, 0, 0, 1, static_cast<uint8_t>(isKey(number, gop) ? 0x65 : 0x41)};
  for (size_t i = 0; i < sizeof head && i < size; ++i) bytes[i] = head[i];
  return bytes;
}
inline tarn::PictureTime pictureTime(uint32_t number) {
  return tarn::PictureTime::fromMicros(int64_t{kStart} * 1000000 +
                                       int64_t{number} * (1000000 / kRate));
}

// Writes pictures `from` to `to` - 1 and stops at the first refusal.
inline testing::AssertionResult writePictures(tarn::RecordingSession& session, uint32_t from,
                                              uint32_t to, size_t size = 800,
                                              uint32_t gop = kRate) {
  for (uint32_t i = from; i < to; ++i) {
    const Bytes bytes = pictureBytes(i, size, gop);
    if (session.writePicture(bytes.data(), bytes.size(), pictureTime(i), 0, isKey(i, gop)) == 0)
      continue;
    return testing::AssertionFailure() << "picture " << i << ": " << session.errorText();
  }
  return testing::AssertionSuccess();
}

inline std::vector<DB_STREAM> allStreams() { return tarn::streamsOfPeriod(0, 0xFFFFFFFF); }

inline std::vector<DB_EVENT> allEvents() {
  CApiDb db;
  std::vector<DB_EVENT> events(200);
  events.resize(db.selectEventList(200, 0, 0, 0, 0, 0, events.data()));
  return events;
}

// Number of the test's picture that was presented at `time`.
inline uint32_t numberAt(tarn::PictureTime time) {
  return static_cast<uint32_t>((time.totalMicros() - int64_t{kStart} * 1000000) /
                               (1000000 / kRate));
}

// Every picture of the row is there with its own bytes; returns the test's numbers of them.
inline std::vector<uint32_t> verifyRow(const DB_STREAM& row, size_t size = 800,
                                       uint32_t gop = kRate) {
  std::vector<uint32_t> numbers;
  tarn::RecordingReader reader;
  EXPECT_EQ(0, reader.open(row)) << row.streamID;
  for (uint32_t i = 0; i < reader.pictureCount(); ++i) {
    tarn::PictureEntry entry;
    Bytes bytes;
    if (!reader.picture(i, &entry) || !reader.readPicture(entry, &bytes)) {
      ADD_FAILURE() << "row " << row.streamID << " picture " << i << " cannot be read";
      break;
    }
    const uint32_t number = numberAt(entry.presentation);
    EXPECT_TRUE(bytes == pictureBytes(number, size, gop)) << row.streamID << " " << i;
    EXPECT_EQ(entry.isKey(), isKey(number, gop));
    numbers.push_back(number);
  }
  return numbers;
}

// All rows, one after the other.
inline std::vector<uint32_t> verifyAll(size_t size = 800, uint32_t gop = kRate) {
  std::vector<uint32_t> numbers;
  for (const DB_STREAM& row : allStreams()) {
    const std::vector<uint32_t> more = verifyRow(row, size, gop);
    EXPECT_EQ(more.size(), row.recSize) << row.streamID;
    numbers.insert(numbers.end(), more.begin(), more.end());
  }
  return numbers;
}

inline std::vector<uint32_t> range(uint32_t from, uint32_t to) {
  std::vector<uint32_t> numbers;
  for (uint32_t i = from; i < to; ++i) numbers.push_back(i);
  return numbers;
}

// Opens a session or says why not.
inline testing::AssertionResult openSession(tarn::RecordingSession& session,
                                            const tarn::RecordingOptions& options = {}) {
  if (session.open(options) == 0) return testing::AssertionSuccess();
  return testing::AssertionFailure() << session.errorText();
}

}  // namespace tarn_test
