#pragma once

#include <cstdlib>
#include <ctime>
#include <functional>

#include "chunk/CTARNStreamChunk.h"
#include "dblog/CDbRestore.h"
#include "dblog/JournalRig.h"
#include "manager/CTARNStreamManagerNative.h"
#include "recorder/recording/AnnexB.h"

namespace tarn_test {

inline constexpr uint32_t kPictureChunk = 64 * kKiB;  // 2048 records
inline constexpr uint32_t kStreamChunk = 256 * kKiB;
inline constexpr uint32_t kRecordChunks = 3;
inline constexpr uint32_t kNoon = 1700000000;  // 2023-11-14T22:13:20 UTC

inline CardLayout repairCard() {
  CardLayout layout = journalCard();
  layout.fillUndefined = true;
  layout.families[tarn::kFileStream] = {kStreamChunk, kRecordChunks, 0};
  layout.families[tarn::kFilePicture] = {kPictureChunk, kRecordChunks, 0};
  return layout;
}

inline void setTimeZone(const char* zone) {
  setenv("TZ", zone, 1);
  tzset();
}

// An interrupted recording as it lies on the card: ten pictures a second from `start` on.
struct Recording {
  uint32_t id = 7;
  uint32_t chunk = 0;
  uint32_t headerAt = 0;  // in the picture chunk
  uint32_t dataAt = 0;    // in the stream chunk
  uint32_t first = 100;   // picture number
  uint32_t pictures = 250;
  uint32_t pictureSize = 512;
  uint32_t start = kNoon;
  uint32_t gops = 3;
  uint32_t marker = 0xFFFFFFFF;
  uint32_t status = 0x00040001;
  uint16_t frameSet = 30;
  uint32_t backOffset = 64;

  uint32_t timeOf(uint32_t index) const { return start + index / 10; }
  uint32_t dataOf(uint32_t index) const { return (dataAt + index * pictureSize) % kStreamChunk; }
  uint32_t entryAt(uint32_t index) const { return (headerAt + 32 * (index + 1)) % kPictureChunk; }
};

// A card and an empty database on which recordings are laid, and what the repair made of them.
class RepairTest : public CardTest {
 protected:
  RepairTest() : CardTest(repairCard()) { setTimeZone("UTC0"); }

  // ---- the card ----

  void putRing(int type, uint32_t chunk, uint32_t offset, const Bytes& bytes) {
    const uint32_t size = card.family(type).chunkSize;
    const size_t head = std::min<size_t>(bytes.size(), size - offset);
    card.writeChunk(type, static_cast<int>(chunk), offset,
                    Bytes(bytes.begin(), bytes.begin() + static_cast<long>(head)));
    if (head < bytes.size())
      card.writeChunk(type, static_cast<int>(chunk), 0,
                      Bytes(bytes.begin() + static_cast<long>(head), bytes.end()));
  }
  static Bytes headerBytes(const Recording& r, uint32_t dataSize, uint32_t lastTime,
                           uint32_t pictures) {
    Bytes bytes;
    for (uint32_t word : {r.marker, r.first, r.dataAt, dataSize, lastTime, pictures, r.gops}) {
      put(bytes, word, 4);
    }
    put(bytes, 0x0001, 2);
    uint32_t sum = 0;
    for (size_t i = 0; i < 30; i += 2) sum += bytes[i] + 256u * bytes[i + 1];
    put(bytes, sum & 0xFFFF, 2);
    return bytes;
  }
  static Bytes entryBytes(uint32_t number, uint32_t dataOffset, uint32_t size) {
    Bytes bytes;
    for (uint32_t word : {0x11111111u, number, dataOffset, size}) put(bytes, word, 4);
    bytes.resize(32, 0x5A);
    return bytes;
  }
  // As an encoder's picture: the time stamp unit, then a slice.
  static Bytes pictureBytes(uint32_t time, uint32_t size) {
    Bytes bytes(tarn::kTimeStampSeiSize);
    tarn::makeTimeStampSei(time, bytes.data());
    const Bytes slice = {0, 0, 0, 1, 0x41, 0x9A};
    bytes.insert(bytes.end(), slice.begin(), slice.end());
    bytes.resize(size, 0x77);
    return bytes;
  }
  void layHeader(const Recording& r) {
    putRing(tarn::kFilePicture, r.chunk, r.headerAt, headerBytes(r, 0, r.start, 0));
  }
  void layEntry(const Recording& r, uint32_t index) {
    putRing(tarn::kFilePicture, r.chunk, r.entryAt(index),
            entryBytes(r.first + index, r.dataOf(index), r.pictureSize));
  }
  void layPicture(const Recording& r, uint32_t index, uint32_t time) {
    putRing(tarn::kFileStream, r.chunk, r.dataOf(index), pictureBytes(time, r.pictureSize));
  }
  // What was on the card when the power went; no row.
  void layCard(const Recording& r) {
    layHeader(r);
    for (uint32_t i = 0; i < r.pictures; ++i) {
      layEntry(r, i);
      layPicture(r, i, r.timeOf(i));
    }
  }
  void lay(const Recording& r) {
    layCard(r);
    insert(openRow(r));
  }

  // ---- rows and their journal records ----

  static DB_STREAM openRow(const Recording& r) {
    DB_STREAM row = streamRow(r.id);
    row.frameSet = r.frameSet;
    row.recSize = 0;
    row.chunkID = r.chunk;
    row.chunkOffset = r.headerAt;
    row.chunkSize = 0;
    row.status = r.status;
    row.startDate = r.start;
    row.endDate = 0;
    row.endMSec = 345;
    row.backOffset = r.backOffset;
    return row;
  }
  static std::string number(uint64_t value) { return std::to_string(value); }
  static void run(const std::string& sql) {
    CApiDb database;
    database.setSqlNoResult(sql.c_str());
    ASSERT_EQ(database.getStatus(), 1u) << sql;
  }
  void insertRowOnly(const DB_STREAM& r) {
    std::string sql = "INSERT OR REPLACE INTO STREAM VALUES(";
    for (uint32_t value : {r.streamID, uint32_t{r.inTrg}, uint32_t{r.frameSet}, r.bitrateSet,
                           r.recSize, r.chunkID, r.chunkOffset, r.chunkSize, r.status, r.startDate,
                           r.endDate, uint32_t{r.startMSec}, uint32_t{r.endMSec}}) {
      sql += number(value) + ",";
    }
    run(sql + number(r.backOffset) + ")");
  }
  void insert(const DB_STREAM& row) {
    insertRowOnly(row);
    setPair(2, row.backOffset, streamRecord(row));
  }
  void insert(const DB_EVENT& r) {
    std::string sql = "INSERT OR REPLACE INTO EVENT VALUES(";
    for (uint32_t value : {r.eventID, uint32_t{r.extTrg}, uint32_t{r.preSec}, r.startDate,
                           r.endDate, uint32_t{r.startMSec}, uint32_t{r.endMSec}}) {
      sql += number(value) + ",";
    }
    run(sql + number(r.backOffset) + ")");
    setPair(0, r.backOffset, eventRecord(r));
  }
  static DB_EVENT event(uint32_t id, uint32_t start, uint32_t end) {
    DB_EVENT row = eventRow(id);
    row.startDate = start;
    row.endDate = end;
    row.backOffset = 32 * id;
    return row;
  }
  static Bytes rowBytes(uint32_t id) {
    CApiDb database;
    database.setSql(("SELECT * FROM STREAM WHERE streamID = " + number(id)).c_str());
    DB_STREAM row{};
    if (database.getNTuple() != 1 || database.getStreamValue(0, &row) != 0) return {};
    return streamRecord(row);
  }
  static Bytes eventBytes(uint32_t id) {
    CApiDb database;
    database.setSql(("SELECT * FROM EVENT WHERE eventID = " + number(id)).c_str());
    DB_EVENT row{};
    if (database.getNTuple() != 1 || database.getEventValue(0, &row) != 0) return {};
    return eventRecord(row);
  }

  // ---- expectations ----

  Bytes pictureChunk(uint32_t chunk, uint32_t offset, size_t length) const {
    return card.readChunk(tarn::kFilePicture, static_cast<int>(chunk), offset, length);
  }
  static uint32_t repairedStatus(uint32_t status) { return (status & ~0x10001u) + 0x10000u; }
  void expectClosed(const Recording& r, uint32_t pictures, uint32_t end, uint32_t dataPictures) {
    DB_STREAM row = openRow(r);
    row.status = repairedStatus(r.status);
    row.recSize = pictures;
    row.chunkSize = 32 * (pictures + 1);
    row.endDate = end;
    expectPair(2, r.backOffset, streamRecord(row));  // the milliseconds are the journal's own
    row.endMSec = 0;
    EXPECT_EQ(rowBytes(r.id), streamRecord(row));
    EXPECT_EQ(pictureChunk(r.chunk, r.headerAt, 32),
              headerBytes(r, dataPictures * r.pictureSize, end, pictures));
  }
  void expectClosed(const Recording& r, uint32_t pictures) {
    expectClosed(r, pictures, r.timeOf(pictures - 1), pictures);
  }
  void expectDeleted(const Recording& r) {
    EXPECT_EQ(rowBytes(r.id), Bytes());
    expectPair(2, r.backOffset, streamRecord(openRow(r), 0xFFFFFFEE));
  }
  void expectUntouched(const Recording& r) {
    EXPECT_EQ(rowBytes(r.id), streamRecord(openRow(r)));
    expectPair(2, r.backOffset, streamRecord(openRow(r)));
  }
  static LogLine idLine(const Recording& r, const std::string& sql) {
    return {LOG_ERR, "id:" + number(r.chunk) + " offset:" + number(r.headerAt) +
                         " startdate:" + number(r.start) + " sql=" + sql};
  }
  static std::string deleteSql(const Recording& r) {
    return "DELETE FROM STREAM WHERE streamID = " + number(r.id);
  }
  static LogLine deletedLine(const Recording& r) { return idLine(r, deleteSql(r)); }
  static LogLine closedLine(const Recording& r, uint32_t pictures, uint32_t end) {
    return idLine(
        r, "UPDATE STREAM SET status = " + number(repairedStatus(r.status)) +
               ", recSize = " + number(pictures) + ", chunkSize = " + number(32 * (pictures + 1)) +
               ", endDate = " + number(end) + ", endMSec = 0 WHERE streamID = " + number(r.id));
  }
  static LogLine closedLine(const Recording& r, uint32_t pictures) {
    return closedLine(r, pictures, r.timeOf(pictures - 1));
  }
  static LogLine countLine(uint32_t rows) {
    return {LOG_INFO, " fixUpLastStream() " + number(rows) + " record needs fixup"};
  }
  static LogLine placeLine(const std::string& text) {
    return {LOG_ERR, text + " CDbRestore.cpp-N[fixUpVideoStream]"};
  }
  // Every line but the store's count of chunks; line numbers as N.
  std::vector<LogLine> lines() const {
    static const std::string place = "CDbRestore.cpp-";
    std::vector<LogLine> result;
    for (LogLine& line : log.withoutPrefix()) {
      if (line.text == " We have 3 Stream chunk.") continue;
      const size_t number = line.text.find(place);
      if (number != std::string::npos) {
        const size_t begin = number + place.size();
        const size_t end = line.text.find_first_not_of("0123456789", begin);
        if (end > begin && end != std::string::npos && line.text[end] == '[') {
          line.text.replace(begin, end - begin, "N");
        }
      }
      result.push_back(line);
    }
    return result;
  }
  std::vector<LogLine> repair() {
    log.clear();
    EXPECT_EQ(restore.fixUpLastStream(), 0);
    return lines();
  }
  // Which of the reads of `work` takes in this place of a chunk; 0: none. Work is done once.
  int readOf(int type, uint32_t chunk, uint32_t offset, const std::function<void()>& work) {
    const auto at = static_cast<int64_t>(card.chunkStart(type, static_cast<int>(chunk)) + offset);
    IoFaults io(kCardPath);
    work();
    int reads = 0;
    for (const IoRecord& call : io.calls()) {
      if (call.call != Call::Read) continue;
      ++reads;
      if (call.offset <= at && at < call.offset + static_cast<int64_t>(call.length)) return reads;
    }
    return 0;
  }

  CDbRestore restore;
};

}  // namespace tarn_test
