#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "db/CApiDb.h"
#include "dblog/CDbLog.h"
#include "manager/FakeServer.h"
#include "recorder/rows/DatabaseSetup.h"
#include "recorder/server/ManagementServer.h"
#include "support/CardImage.h"
#include "support/IoFaults.h"
#include "support/SyslogCapture.h"

namespace tarn_test {

using Bytes = std::vector<uint8_t>;

inline constexpr uint32_t kJournalSize = 1024;  // 32 event records, 16 stream records

// A card whose four journal chunks have the given size.
inline CardLayout journalCard(uint32_t journalSize = kJournalSize) {
  CardLayout layout;
  layout.fillUndefined = false;
  // Small journals are files of whole clusters, too.
  if (journalSize == kJournalSize) layout.clusterSectors = kJournalSize / 512;
  layout.families[tarn::kFileJournal] = {journalSize, 4, 0};
  layout.families[tarn::kFileStream] = {64 * kKiB, 1, 0};
  layout.families[tarn::kFilePicture] = {64 * kKiB, 1, 0};
  return layout;
}

// The definition of the checksum, one bit at a time, and the trailer of a record made with it.
inline uint16_t plainCrc(const Bytes& data) {
  uint32_t crc = 0;
  for (uint8_t byte : data) {
    crc ^= uint32_t{byte} << 8;
    for (int i = 0; i < 8; ++i) crc = (crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1;
    crc &= 0xFFFF;
  }
  return static_cast<uint16_t>(crc);
}
inline Bytes sealed(Bytes payload) {
  const uint16_t crc = plainCrc(payload);
  payload.insert(payload.end(), {0, 0, static_cast<uint8_t>(crc >> 8), static_cast<uint8_t>(crc)});
  return payload;
}
inline void put(Bytes& bytes, uint32_t value, int size) {
  for (int i = 0; i < size; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

// The bytes that a row's record must have, built here field by field.
inline Bytes eventRecord(const DB_EVENT& row, uint32_t marker = 0xFFFFFFED) {
  Bytes bytes;
  put(bytes, marker, 4);
  put(bytes, row.eventID, 4);
  put(bytes, row.extTrg, 2);
  put(bytes, row.preSec, 2);
  put(bytes, row.startDate, 4);
  put(bytes, row.endDate, 4);
  put(bytes, row.startMSec, 2);
  put(bytes, row.endMSec, 2);
  put(bytes, row.backOffset, 4);
  return sealed(bytes);
}
inline Bytes streamRecord(const DB_STREAM& row, uint32_t marker = 0xFFFFFFEC) {
  Bytes bytes;
  put(bytes, marker, 4);
  put(bytes, row.streamID, 4);
  put(bytes, row.inTrg, 2);
  put(bytes, row.frameSet, 2);
  for (uint32_t field : {row.bitrateSet, row.recSize, row.chunkID, row.chunkOffset, row.chunkSize,
                         row.status, row.startDate, row.endDate}) {
    put(bytes, field, 4);
  }
  put(bytes, row.startMSec, 2);
  put(bytes, row.endMSec, 2);
  put(bytes, row.backOffset, 4);
  bytes.resize(60);
  return sealed(bytes);
}

// Rows whose every field differs from its neighbours and from other rows' fields.
inline DB_EVENT eventRow(uint32_t seed) {
  return {seed,
          static_cast<uint16_t>(100 + seed),
          static_cast<uint16_t>(200 + seed),
          1700000000 + seed,
          1700000500 + seed,
          static_cast<uint16_t>(300 + seed),
          static_cast<uint16_t>(400 + seed),
          0};
}
inline DB_STREAM streamRow(uint32_t seed) {
  return {seed,
          static_cast<uint16_t>(10 + seed),
          static_cast<uint16_t>(20 + seed),
          4000000 + seed,
          500 + seed,
          seed % 4,
          0x1000 + seed,
          0x2000 + seed,
          6 + seed,
          1700001000 + seed,
          1700002000 + seed,
          static_cast<uint16_t>(30 + seed),
          static_cast<uint16_t>(40 + seed),
          0};
}

// A good card, an empty database and what watches them; no server yet.
class CardTest : public testing::Test {
 protected:
  explicit CardTest(uint32_t journalSize = kJournalSize) : CardTest(journalCard(journalSize)) {}
  explicit CardTest(const CardLayout& layout) : card(layout) {
    card.initManagement();
    makeDatabase();
  }

  static void makeDatabase() {
    std::string error;
    ASSERT_TRUE(tarn::DatabaseSetup::createEmpty("/tmp/DB.dat", &error)) << error;
  }
  Bytes journal(int chunk, uint32_t offset, size_t length) const {
    return card.readChunk(tarn::kFileJournal, chunk, offset, length);
  }
  void setJournal(int chunk, uint32_t offset, const Bytes& bytes) {
    card.writeChunk(tarn::kFileJournal, chunk, offset, bytes);
  }
  // Both copies of a record.
  void setPair(int chunk, uint32_t offset, const Bytes& bytes) {
    setJournal(chunk, offset, bytes);
    setJournal(chunk + 1, offset, bytes);
  }
  void expectPair(int chunk, uint32_t offset, const Bytes& bytes) const {
    EXPECT_EQ(journal(chunk, offset, bytes.size()), bytes) << "original at " << offset;
    EXPECT_EQ(journal(chunk + 1, offset, bytes.size()), bytes) << "mirror at " << offset;
  }
  // Management file of the journal (copy 0 main, 1 backup): free or use offset of a chunk.
  uint32_t savedOffset(int copy, int chunk, uint32_t fieldOffset) const {
    const Bytes bytes = card.readChunk(tarn::kFileJournalManage, copy, 0, 4 * 24);
    uint32_t value = 0;
    for (uint32_t i = 0; i < 4; ++i) {
      value |= uint32_t{bytes[static_cast<size_t>(chunk) * 24 + fieldOffset + i]} << (8 * i);
    }
    return value;
  }
  std::vector<uint32_t> savedFree(int copy = 0) const {
    std::vector<uint32_t> result;
    for (int chunk = 0; chunk < 4; ++chunk) result.push_back(savedOffset(copy, chunk, 12));
    return result;
  }
  void setManagement(const std::vector<uint32_t>& freeOffsets,
                     const std::vector<uint32_t>& useOffsets = {0, 0, 0, 0}) {
    Bytes records;
    for (size_t i = 0; i < freeOffsets.size(); ++i) {
      put(records, 0, 4);
      put(records, 0, 4);
      put(records, useOffsets[i], 4);
      put(records, freeOffsets[i], 4);
      put(records, 0, 4);
      put(records, 0, 4);
    }
    card.writeManagement(tarn::kFileJournalManage, 0, records);
    card.writeManagement(tarn::kFileJournalManage, 1, records);
  }

  CardImage card;
  SyslogCapture log;
};

// With the real server in a thread.
class ServedTest : public CardTest {
 protected:
  explicit ServedTest(uint32_t journalSize = kJournalSize) : CardTest(journalSize) {
    startServer();
  }
  ~ServedTest() override {
    CDbLog::getInstance()->finish();
    stopServer();
  }
  void startServer() {
    server = std::make_unique<tarn::ManagementServer>();
    ASSERT_EQ(server->start(), 0);
    thread = std::thread([this] { server->run(); });
  }
  void stopServer() {
    if (!thread.joinable()) return;
    server->requestStop();
    thread.join();
    server.reset();
  }

  std::unique_ptr<tarn::ManagementServer> server;
  std::thread thread;
};

// With a stand-in for the server that only remembers, so that this process's calls are the
// journal's own, and that can refuse.
class FakeServedTest : public CardTest {
 protected:
  static constexpr uint32_t kGetUsage = 2, kSetFree = 4, kSetUse = 5, kSave = 6, kCount = 9,
                            kSize = 10;

  explicit FakeServedTest(uint32_t journalSize = kJournalSize) : CardTest(journalSize) {
    server.on(kCount, [](Message& m) { putWord(m, 20, 4); });
    server.on(kSize, [journalSize](Message& m) { putWord(m, 20, journalSize); });
    server.on(kGetUsage, [this](Message& m) {
      putWord(m, 32, use[getWord(m, 16) % 4]);
      putWord(m, 36, free[getWord(m, 16) % 4]);
    });
    server.on(kSetFree, [this](Message& m) { free[getWord(m, 16) % 4] = getWord(m, 20); });
    server.on(kSetUse, [this](Message& m) { use[getWord(m, 16) % 4] = getWord(m, 20); });
  }
  ~FakeServedTest() override { CDbLog::getInstance()->finish(); }

  // The commands asked for since the last forget(), in order.
  std::vector<uint32_t> commands() const {
    std::vector<uint32_t> result;
    for (const Message& message : server.requests()) result.push_back(getWord(message, 0));
    return result;
  }

  uint32_t use[4] = {};
  uint32_t free[4] = {};
  FakeServer server;
};

}  // namespace tarn_test
