#include "recorder/recovery/NativeRows.h"

#include <fcntl.h>
#include <syslog.h>

#include "base/Endian.h"
#include "base/Wrap.h"
#include "db/CApiDb.h"
#include "db/DbRecordFormat.h"
#include "db/RowStatus.h"
#include "dblog/JournalFormat.h"
#include "fat/ChunkFiles.h"
#include "recorder/card/Source.h"
#include "recorder/card/TimeText.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/recovery/RecoveryMessages.h"

namespace tarn {
namespace {

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

namespace {

// Lets `change` edit the record at `offset` of a journal in both copies, the original first, from
// whichever copy of it is good. False: the device gave neither, or did not take one of them.
template <typename Change>
bool editRecord(JournalKind kind, uint32_t offset, Change change) {
  const JournalTraits& traits = journalTraits(kind);
  ChunkSource original(kFileJournal, static_cast<uint32_t>(traits.chunk), O_RDWR);
  ChunkSource mirror(kFileJournal, static_cast<uint32_t>(traits.chunk) + kJournalMirrorStep,
                     O_RDWR);
  uint8_t first[kStreamRecordSize] = {};
  uint8_t second[kStreamRecordSize] = {};
  const uint32_t size = traits.recordSize;
  if (offset > original.size() || size > original.size() - offset) return false;
  const bool gotFirst = original.read(offset, first, size) == Delivery::kGood;
  const bool gotSecond = mirror.read(offset, second, size) == Delivery::kGood;
  const JournalCopy copy =
      judgeJournalCopies(traits, offset, gotFirst ? first : nullptr, gotSecond ? second : nullptr);
  if (copy != JournalCopy::kOriginal && copy != JournalCopy::kMirror) return false;
  uint8_t* record = copy == JournalCopy::kOriginal ? first : second;
  change(record);
  sealJournalRecord(record, traits.crcLength);
  // Flushed in between, so that one power loss never tears both copies.
  return original.write(offset, record, size) && original.flush() &&
         mirror.write(offset, record, size) && mirror.flush();
}

bool deleteRecord(JournalKind kind, uint32_t offset) {
  const uint32_t marker = journalTraits(kind).deletedMarker;
  return editRecord(kind, offset, [marker](uint8_t* record) { setJournalMarker(record, marker); });
}

}  // namespace

bool deleteStreamNative(const DB_STREAM& row) {
  return deleteRecord(JournalKind::kStream, row.backOffset) &&
         execute("DELETE FROM STREAM WHERE streamID = " + number(row.streamID));
}

bool deleteEventNative(const DB_EVENT& row) {
  return deleteRecord(JournalKind::kEvent, row.backOffset) &&
         execute("DELETE FROM EVENT WHERE eventID = " + number(row.eventID));
}

// The same marks as the repair of video sets, so that both read alike afterwards.
bool closeStreamNative(const DB_STREAM& row, uint32_t pictures, uint32_t endDate) {
  const uint32_t status = (row.status & ~kStatusRecording) | kStatusRepaired;
  const uint32_t size = wrapMul32(pictures + 1, kRecordSize);
  return editRecord(JournalKind::kStream, row.backOffset,
                    [=](uint8_t* record) {
                      uint8_t* body = record + kJournalBodyOff;
                      putLe32(body + kStreamStatusOff, status);
                      putLe32(body + kStreamRecSizeOff, pictures);
                      putLe32(body + kStreamChunkSizeOff, size);
                      putLe32(body + kStreamEndDateOff, endDate);
                    }) &&
         execute("UPDATE STREAM SET status = " + number(status) +
                 ", recSize = " + number(pictures) + ", chunkSize = " + number(size) +
                 ", endDate = " + number(endDate) + " WHERE streamID = " + number(row.streamID));
}

bool closeEventNative(DB_EVENT row, PictureTime end) {
  row.endDate = end.seconds;
  row.endMSec = end.milliseconds();
  return editRecord(JournalKind::kEvent, row.backOffset,
                    [&row](uint8_t* record) { encodeEventRecord(row, record); }) &&
         execute("UPDATE EVENT SET endDate = " + number(row.endDate) +
                 ", endMSec = " + number(row.endMSec) + " WHERE eventID = " + number(row.eventID));
}

bool redateStreamNative(const DB_STREAM& row) {
  return editRecord(JournalKind::kStream, row.backOffset,
                    [&row](uint8_t* record) {
                      uint8_t* body = record + kJournalBodyOff;
                      putLe32(body + kStreamStatusOff, row.status);
                      putLe32(body + kStreamStartDateOff, row.startDate);
                      putLe32(body + kStreamEndDateOff, row.endDate);
                    }) &&
         execute("UPDATE STREAM SET status = " + number(row.status) +
                 ", startDate = " + number(row.startDate) + ", endDate = " + number(row.endDate) +
                 " WHERE streamID = " + number(row.streamID));
}

bool redateEventNative(const DB_EVENT& row) {
  return editRecord(JournalKind::kEvent, row.backOffset,
                    [&row](uint8_t* record) { encodeEventRecord(row, record); }) &&
         execute("UPDATE EVENT SET startDate = " + number(row.startDate) +
                 ", endDate = " + number(row.endDate) + ", startMSec = " + number(row.startMSec) +
                 ", endMSec = " + number(row.endMSec) + " WHERE eventID = " + number(row.eventID));
}

std::string nameOf(const DB_STREAM& row) {
  return "recording " + number(row.streamID) + " of " + TimeText::of(row.startDate);
}

std::string nameOf(const DB_EVENT& row) {
  return "event " + number(row.eventID) + " of " + TimeText::of(row.startDate);
}

std::string cannotChange(const DB_STREAM& row) {
  return said(nameOf(row), kStreamJournalChunk, row.backOffset);
}

std::string cannotChange(const DB_EVENT& row) {
  return said(nameOf(row), kEventJournalChunk, row.backOffset);
}

}  // namespace tarn
