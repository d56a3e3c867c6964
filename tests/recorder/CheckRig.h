#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>

#include "base/Crc16.h"
#include "base/Endian.h"
#include "base/UniqueFd.h"
#include "dblog/JournalFormat.h"
#include "manager/ManageFormat.h"
#include "recorder/RecorderRig.h"
#include "recorder/card/CardFormatter.h"
#include "recorder/card/CardInfo.h"
#include "recorder/check/CardCheck.h"
#include "recorder/log/LogWriter.h"
#include "recorder/recording/RecordFormat.h"

namespace tarn_test {

// A formatted card with three recordings of 50 pictures, two events and a few lines of log on it,
// after a clean stop; and ways to damage it.
class CheckRig : public testing::Test {
 protected:
  static constexpr uint32_t kPictures = 50;  // of a recording
  static constexpr uint32_t kSize = 800;     // of a picture, without its time stamp

  CheckRig() {
    setenv("TZ", "XYZ-02:00", 1);
    tzset();
  }

  void SetUp() override {
    format();
    startServer();
    record();
    stopServer();
    EXPECT_EQ(findings().total(), 0u) << texts();
  }
  void TearDown() override { stopServer(); }

  void format() {
    tarn::CardRequest request;
    request.sizeBytes = 34 * kMiB;
    request.families[tarn::kFileStream] = {256 * kKiB, 3};
    request.families[tarn::kFilePicture] = {16 * kKiB, 3};
    request.families[tarn::kFileJournal] = {64 * kKiB, 4};
    std::string error;
    tarn::CardFormatter formatter;
    unlink(kCardPath);
    ASSERT_EQ(formatter.format(kCardPath, request, {}, &error), 0) << error;
    ASSERT_EQ(info_.read(kCardPath, &error), 0) << error;
    ASSERT_EQ(0, system("/usr/local/bin/dbsetup init && /usr/local/bin/dbsetup start"));
  }

  void startServer() {
    server_ = std::make_unique<tarn::ManagementServer>();
    ASSERT_EQ(0, server_->start());
    thread_ = std::thread([this] { server_->run(); });
  }
  void stopServer() {
    if (!server_) return;
    CDbLog::getInstance()->finish();
    server_->requestStop();
    thread_.join();
    server_.reset();
  }

  void record() {
    tarn::RecordingSession session;
    tarn::RecordingOptions options;
    options.segmentSeconds = 2;
    ASSERT_TRUE(openSession(session, options));
    ASSERT_TRUE(writePictures(session, 0, 30));
    const uint32_t first = session.beginEvent(7, pictureTime(30), 0);
    ASSERT_TRUE(writePictures(session, 30, 60));
    ASSERT_EQ(session.endEvent(first, pictureTime(60)), 0);
    const uint32_t second = session.beginEvent(8, pictureTime(110), 0);
    ASSERT_TRUE(writePictures(session, 60, 150));
    ASSERT_EQ(session.endEvent(second, pictureTime(140)), 0);
    ASSERT_EQ(session.close(), 0);
    rows_ = allStreams();
    ASSERT_EQ(rows_.size(), 3u);
    for (const DB_STREAM& row : rows_) ASSERT_EQ(row.recSize, kPictures);
    tarn::LogWriter log;
    ASSERT_EQ(log.open(), 0);
    for (const char* line : {"one", "two", "three"})
      ASSERT_EQ(log.append(line, strlen(line), kStart), 0);
    ASSERT_EQ(log.close(), 0);
  }

  const tarn::CardFindings& findings() {
    std::string error;
    EXPECT_EQ(check_.run(kCardPath, {}, &error), 0) << error;
    return check_.findings();
  }
  std::string texts() const {
    std::string all;
    for (const tarn::CardFinding& finding : check_.findings().list()) {
      all += std::string(tarn::findingKindName(finding.kind)) + ": " + finding.text + "\n";
    }
    return all;
  }

  // Bytes of the card.
  Bytes read(uint64_t offset, size_t length) const {
    Bytes bytes(length);
    const tarn::UniqueFd fd(open(kCardPath, O_RDONLY));
    EXPECT_EQ(pread(fd.get(), bytes.data(), length, static_cast<off_t>(offset)),
              static_cast<ssize_t>(length));
    return bytes;
  }
  void write(uint64_t offset, const Bytes& bytes) {
    const tarn::UniqueFd fd(open(kCardPath, O_WRONLY));
    EXPECT_EQ(pwrite(fd.get(), bytes.data(), bytes.size(), static_cast<off_t>(offset)),
              static_cast<ssize_t>(bytes.size()));
  }
  void flip(uint64_t offset) {
    Bytes byte = read(offset, 1);
    byte[0] ^= 0x10;
    write(offset, byte);
  }
  void put32(uint64_t offset, uint32_t value) {
    Bytes bytes(4);
    tarn::putLe32(bytes.data(), value);
    write(offset, bytes);
  }
  uint64_t chunkByte(int type, uint32_t chunk, uint64_t offset = 0) const {
    const tarn::CardFamily& family = info_.family(type);
    return family.startByte() + uint64_t{chunk} * family.chunkSize + offset;
  }
  uint64_t entryByte(const DB_STREAM& row, uint32_t index) const {
    return chunkByte(tarn::kFilePicture, row.chunkID, row.chunkOffset + (index + 1) * 32);
  }
  tarn::PictureEntry entryOf(const DB_STREAM& row, uint32_t index) const {
    tarn::PictureEntry entry;
    EXPECT_TRUE(tarn::decodePictureEntry(read(entryByte(row, index), 32).data(), &entry));
    return entry;
  }

  // Changes a field of a row in both copies of its record, which stay valid.
  void editRow(const DB_STREAM& row, uint32_t fieldOffset, uint32_t value) {
    editRecord(2, row.backOffset, tarn::kStreamRecordCrcLength, fieldOffset, value);
  }
  void editRecord(uint32_t chunk, uint32_t place, uint32_t crcLength, uint32_t fieldOffset,
                  uint32_t value, uint32_t copies = 2) {
    for (uint32_t copy = 0; copy < copies; ++copy) {
      const uint64_t at = chunkByte(tarn::kFileJournal, chunk + copy, place);
      Bytes record = read(at, crcLength + 4);
      tarn::putLe32(record.data() + tarn::kJournalBodyOff + fieldOffset, value);
      tarn::sealJournalRecord(record.data(), crcLength);
      write(at, record);
    }
  }
  // Changes a field of a management record in one copy or both, which stay valid.
  void editManagement(int type, int fileType, uint32_t chunk, uint32_t fieldOffset, uint8_t value,
                      uint32_t copies = 2) {
    const uint32_t chunks = info_.family(fileType).chunks;
    for (uint32_t copy = 0; copy < copies; ++copy) {
      Bytes data = read(chunkByte(type, copy), tarn::manageDataSize(chunks));
      data[chunk * tarn::kManageRecordSize + fieldOffset] = value;
      tarn::sealManageData(data.data(), chunks);
      write(chunkByte(type, copy), data);
    }
  }

  Bytes wholeCard() const {
    Bytes bytes = read(0, 34 * kMiB);
    return bytes;
  }

  SyslogCapture log_;
  tarn::CardInfo info_;
  tarn::CardCheck check_;
  std::vector<DB_STREAM> rows_;

 private:
  std::unique_ptr<tarn::ManagementServer> server_;
  std::thread thread_;
};

}  // namespace tarn_test
