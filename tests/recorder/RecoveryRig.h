#pragma once

#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "base/Crc16.h"
#include "base/Endian.h"
#include "dblog/JournalFormat.h"
#include "recorder/RecorderRig.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/recovery/Recovery.h"
#include "support/IoFaults.h"

namespace tarn_test {

using Kind = tarn::RecoveryChange::Kind;

// A recorder whose power can go: what the card holds at a moment is taken down while sessions run,
// and put back when nothing runs any more.
class RecoveryRig : public RecorderRig {
 public:
  RecoveryRig() = default;
  explicit RecoveryRig(const Shape& shape) : RecorderRig(shape) {}

  Bytes cardBytes() const { return card.read(0, static_cast<size_t>(card.size())); }
  // Everything but the card is gone.
  void powerOff() {
    CDbLog::getInstance()->finish();
    stopServer();
    forget();
  }
  void powerOff(const Bytes& bytes) {
    powerOff();
    setCard(bytes);
  }
  void setCard(const Bytes& bytes) { card.write(0, bytes); }
  static void forget() {
    unlink("/tmp/DB.dat");
    unlink("/tmp/sd_err_mem_write");
  }
  // As after power-on.
  static tarn::RecoveryReport boot() {
    forget();
    return tarn::Recovery().run();
  }

  // Records pictures `from` to `to` - 1 in one session that ends in order.
  static void record(uint32_t from, uint32_t to, const tarn::RecordingOptions& options = {}) {
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session, options));
    ASSERT_TRUE(writePictures(session, from, to));
    ASSERT_EQ(session.close(), 0) << session.errorText();
  }

  // The journal record of a stream row, changed and sealed again in both copies.
  void editRecord(const DB_STREAM& row, uint32_t fieldOffset, uint32_t value) {
    for (int chunk : {2, 3}) {
      Bytes record = card.readChunk(tarn::kFileJournal, chunk, row.backOffset, 64);
      tarn::putLe32(record.data() + tarn::kJournalBodyOff + fieldOffset, value);
      tarn::sealJournalRecord(record.data(), tarn::kStreamRecordCrcLength);
      card.writeChunk(tarn::kFileJournal, chunk, row.backOffset, record);
    }
  }
  // A row as a power loss leaves it. Its header loses its totals too.
  void reopenRow(const DB_STREAM& row) {
    editRecord(row, tarn::kStreamRecSizeOff, 0);
    editRecord(row, tarn::kStreamChunkSizeOff, 0);
    editRecord(row, tarn::kStreamEndDateOff, 0);
    editRecord(row, tarn::kStreamStatusOff, 1);
    tarn::StreamHeader header = headerOf(row);
    header.marker = tarn::kMarkerOpen;
    header.dataSize = header.pictures = header.gops = header.lastTime = 0;
    setHeader(row, header);
  }
  tarn::StreamHeader headerOf(const DB_STREAM& row) const {
    tarn::StreamHeader header;
    const Bytes bytes =
        card.readChunk(tarn::kFilePicture, static_cast<int>(row.chunkID), row.chunkOffset, 32);
    EXPECT_TRUE(tarn::decodeStreamHeader(bytes.data(), &header));
    return header;
  }
  void setHeader(const DB_STREAM& row, const tarn::StreamHeader& header) {
    Bytes bytes(32);
    tarn::encodeStreamHeader(header, bytes.data());
    setPicture(row, 0, bytes);
  }
  // Bytes at the slot of a row: 0 is its header, 1 its first entry. No wrap.
  void setPicture(const DB_STREAM& row, uint32_t slot, const Bytes& bytes) {
    card.writeChunk(tarn::kFilePicture, static_cast<int>(row.chunkID), row.chunkOffset + slot * 32,
                    bytes);
  }

  Bytes manageBytes(int type, int copy, size_t length) const {
    return card.readChunk(type, copy, 0, length);
  }
  void spoilManage(int type, int copy) { card.writeChunk(type, copy, 3, Bytes{0x5A, 0xA5}); }
};

inline std::vector<uint32_t> keysOf(const std::vector<DB_STREAM>& rows) {
  std::vector<uint32_t> keys;
  for (const DB_STREAM& row : rows) keys.push_back(row.streamID);
  return keys;
}

}  // namespace tarn_test
