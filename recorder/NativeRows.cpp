#include "recorder/NativeRows.h"

#include <fcntl.h>
#include <syslog.h>

#include <algorithm>
#include <ctime>

#include "base/Wrap.h"
#include "db/CApiDb.h"
#include "dblog/CDbRestore.h"
#include "dblog/JournalFormat.h"
#include "fat/ChunkFiles.h"
#include "recorder/RecordFormat.h"
#include "recorder/RecoveryMessages.h"
#include "recorder/Source.h"

namespace tarn {
namespace {

constexpr uint32_t kStatusRecording = 0x1;
constexpr uint32_t kStatusRepaired = 0x10000;

std::string number(uint32_t value) { return std::to_string(value); }

// A statement's own result never tells of a failure; the connection's state does.
bool run(CApiDb* db, const std::string& sql) {
  db->setSql(sql.c_str());
  return db->getStatus() == 1;
}

bool execute(const std::string& sql) {
  CApiDb db;
  db.setSqlNoResult(sql.c_str());
  return db.getStatus() == 1;
}

// Whether both copies of an event's record say what the row says.
bool isRecorded(const DB_EVENT& row) {
  uint8_t record[kEventRecordSize];
  encodeEventRecord(row, record);
  for (const int chunk : {int{kEventJournalChunk}, kEventJournalChunk + kJournalMirrorStep}) {
    uint8_t bytes[kEventRecordSize];
    ChunkSource copy(kFileJournal, static_cast<uint32_t>(chunk), O_RDONLY);
    if (copy.read(row.backOffset, bytes, sizeof bytes) != Delivery::kGood ||
        !std::equal(record, record + sizeof record, bytes)) {
      return false;
    }
  }
  return true;
}

// The library's update does not tell of failures, and one copy alone would be as good as none.
bool updateEventRecord(const DB_EVENT& row) {
  constexpr int kTries = 3;
  for (int i = 0; i < kTries; ++i) {
    if (CDbRestore().updateEventDBLogNative(&row) == 0 && isRecorded(row)) return true;
  }
  return false;
}

std::string said(const std::string& name, int chunk, uint32_t offset) {
  std::string text = name + " cannot be changed: its record in journal chunk " +
                     std::to_string(chunk) + " at offset " + number(offset) + ", or in the mirror";
  syslog(LOG_ERR, kMsgRecoveryFailed, text.c_str());
  return text;
}

}  // namespace

bool selectStreams(const std::string& sql, std::vector<DB_STREAM>* rows) {
  rows->clear();
  CApiDb db;
  if (!run(&db, sql)) return false;
  rows->resize(db.getNTuple());
  for (size_t i = 0; i < rows->size(); ++i) {
    if (db.getStreamValue(static_cast<long>(i), &(*rows)[i]) != 0) return false;
  }
  return true;
}

bool selectEvents(const std::string& sql, std::vector<DB_EVENT>* rows) {
  rows->clear();
  CApiDb db;
  if (!run(&db, sql)) return false;
  rows->resize(db.getNTuple());
  for (size_t i = 0; i < rows->size(); ++i) {
    if (db.getEventValue(static_cast<long>(i), &(*rows)[i]) != 0) return false;
  }
  return true;
}

bool selectNumber(const std::string& sql, uint32_t* value) {
  CApiDb db;
  if (!run(&db, sql)) return false;
  *value = db.getNTuple() > 0 ? db.getValue(0, 0) : 0;
  return true;
}

int findStream(uint32_t streamID, DB_STREAM* row) {
  std::vector<DB_STREAM> rows;
  if (!selectStreams("SELECT * FROM STREAM WHERE streamID = " + number(streamID), &rows)) return -1;
  if (rows.empty()) return 0;
  *row = rows[0];
  return 1;
}

int findEvent(uint32_t eventID, DB_EVENT* row) {
  std::vector<DB_EVENT> rows;
  if (!selectEvents("SELECT * FROM EVENT WHERE eventID = " + number(eventID), &rows)) return -1;
  if (rows.empty()) return 0;
  *row = rows[0];
  return 1;
}

bool deleteStreamNative(const DB_STREAM& row) {
  return CDbRestore().deleteDBLogNative(kStreamJournalChunk, row.backOffset) == 0 &&
         execute("DELETE FROM STREAM WHERE streamID = " + number(row.streamID));
}

bool deleteEventNative(const DB_EVENT& row) {
  return CDbRestore().deleteDBLogNative(kEventJournalChunk, row.backOffset) == 0 &&
         execute("DELETE FROM EVENT WHERE eventID = " + number(row.eventID));
}

// The same marks as the repair of video sets, so that both read alike afterwards.
bool closeStreamNative(const DB_STREAM& row, uint32_t pictures, uint32_t endDate) {
  const uint32_t status = (row.status & ~kStatusRecording) | kStatusRepaired;
  const uint32_t size = wrapMul32(pictures + 1, kRecordSize);
  return CDbRestore().updateStreamDBLogNative(kStreamJournalChunk, status, pictures, size, endDate,
                                              row.backOffset) == 0 &&
         execute("UPDATE STREAM SET status = " + number(status) +
                 ", recSize = " + number(pictures) + ", chunkSize = " + number(size) +
                 ", endDate = " + number(endDate) + " WHERE streamID = " + number(row.streamID));
}

bool closeEventNative(DB_EVENT row, PictureTime end) {
  row.endDate = end.seconds;
  row.endMSec = end.milliseconds();
  return updateEventRecord(row) &&
         execute("UPDATE EVENT SET endDate = " + number(row.endDate) +
                 ", endMSec = " + number(row.endMSec) + " WHERE eventID = " + number(row.eventID));
}

std::string momentText(uint32_t seconds) {
  const time_t when = seconds;
  struct tm parts = {};
  char text[32] = "";
  if (localtime_r(&when, &parts) == nullptr || strftime(text, sizeof text, "%F %T", &parts) == 0) {
    return number(seconds);
  }
  return text;
}

std::string nameOf(const DB_STREAM& row) {
  return "recording " + number(row.streamID) + " of " + momentText(row.startDate);
}

std::string nameOf(const DB_EVENT& row) {
  return "event " + number(row.eventID) + " of " + momentText(row.startDate);
}

std::string cannotChange(const DB_STREAM& row) {
  return said(nameOf(row), kStreamJournalChunk, row.backOffset);
}

std::string cannotChange(const DB_EVENT& row) {
  return said(nameOf(row), kEventJournalChunk, row.backOffset);
}

}  // namespace tarn
