#include <syslog.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/Endian.h"
#include "base/Wrap.h"
#include "chunk/CTARNStreamChunk.h"
#include "chunk/StreamHeaderFormat.h"
#include "db/CApiDb.h"
#include "dblog/CDbRestore.h"
#include "dblog/JournalFormat.h"
#include "dblog/PictureWalk.h"
#include "dblog/RepairMessages.h"
#include "fat/CFATAccess.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNStreamManagerNative.h"

// The repair of what a power loss interrupted: the last recording of each chunk, and the last
// event.

namespace {

constexpr short kPictureArea = 0;
constexpr short kStreamArea = 1;
constexpr uint16_t kFrameSetAudio = 0x80;
// Stream kinds whose pictures are not laid out as the walk reads them.
constexpr uint32_t kStatusNotRepairable = 0x300;
constexpr uint32_t kStatusRecording = 0x1;
constexpr uint32_t kStatusRepaired = 0x10000;

constexpr char kSqlUnclosed[] =
    "SELECT streamID, frameSet, chunkID, chunkOffset, status, startDate, backOffset FROM STREAM "
    "WHERE recSize = 0";
constexpr char kSqlDeleteStream[] = "DELETE FROM STREAM WHERE streamID = %lu";
constexpr char kSqlCloseStream[] =
    "UPDATE STREAM SET status = %lu, recSize = %lu, chunkSize = %lu, endDate = %lu, endMSec = 0 "
    "WHERE streamID = %lu";
constexpr char kSqlLastEvent[] = "SELECT * FROM EVENT ORDER BY eventID DESC LIMIT 1";
constexpr char kSqlNewestStream[] =
    "SELECT startDate, endDate FROM STREAM ORDER BY endDate DESC LIMIT 1";
constexpr char kSqlDeleteEvent[] = "DELETE FROM EVENT WHERE eventID = %lu";
constexpr char kSqlCloseEvent[] = "UPDATE EVENT SET endDate = %lu WHERE eventID = %lu";
constexpr char kSqlEventsFrom[] = "SELECT eventID, backOffset FROM EVENT WHERE startDate >= %lu";
constexpr size_t kSqlRoom = 256;

unsigned long asLong(uint32_t value) { return value; }

// The row being repaired, and its two open chunks.
struct Unclosed {
  CTARNStreamChunk* picture;
  CTARNStreamChunk* stream;
  uint32_t streamID;
  uint32_t chunkID;
  uint32_t chunkOffset;
  uint32_t status;
  uint32_t startDate;
  uint32_t backOffset;
};

void logStatement(const Unclosed& row, const char* sql) {
  syslog(LOG_ERR, tarn::kMsgRepairStatement, asLong(row.chunkID), asLong(row.chunkOffset),
         asLong(row.startDate), sql);
}

void deleteRow(CDbRestore* restore, const Unclosed& row, const char* sql) {
  CApiDb database;
  if (database.setSqlNoResult(sql) != 0) syslog(LOG_ERR, tarn::kMsgRepairDelete);
  restore->deleteDBLogNative(tarn::kStreamJournalChunk, row.backOffset);
  restore->cleanupEventDb(row.startDate);
}

void rewriteHeader(CDbRestore* restore, const Unclosed& row, const tarn::PictureWalk& walk,
                   uint8_t* header) {
  tarn::putLe32(header + tarn::kHeaderDataSizeOff, walk.checkpoint().dataSize);
  tarn::putLe32(header + tarn::kHeaderLastTimeOff, walk.lastTime());
  tarn::putLe32(header + tarn::kHeaderPicturesOff, walk.pictures());
  tarn::putLe32(header + tarn::kHeaderGopsOff, walk.checkpoint().gops);
  tarn::putLe16(header + tarn::kHeaderSumOff, tarn::streamHeaderWordSum(header));
  restore->writePictureChunk(static_cast<short>(row.chunkID), row.chunkOffset, header,
                             tarn::kPictureRecordSize);
}

void closeRow(CDbRestore* restore, const Unclosed& row, const tarn::PictureWalk& walk,
              unsigned long* latestEnd, uint8_t* header) {
  const uint32_t pictures = walk.pictures();
  const uint32_t indexSize = tarn::wrapMul32(pictures + 1, tarn::kPictureRecordSize);
  const uint32_t end = walk.lastTime();
  const uint32_t status = (row.status & ~(kStatusRecording | kStatusRepaired)) | kStatusRepaired;
  if (end > *latestEnd) *latestEnd = end;
  char sql[kSqlRoom];
  snprintf(sql, sizeof sql, kSqlCloseStream, asLong(status), asLong(pictures), asLong(indexSize),
           asLong(end), asLong(row.streamID));
  logStatement(row, sql);
  CApiDb database;
  if (database.setSqlNoResult(sql) != 0) syslog(LOG_ERR, tarn::kMsgRepairUpdate);
  restore->updateStreamDBLogNative(tarn::kStreamJournalChunk, status, pictures, indexSize, end,
                                   row.backOffset);
  rewriteHeader(restore, row, walk, header);
}

// The stream header is read and both chunks are open.
void repairRow(CDbRestore* restore, const Unclosed& row, uint32_t entryLimit,
               unsigned long* latestEnd, uint8_t* header) {
  const uint32_t marker = tarn::getLe32(header + tarn::kHeaderMarkerOff);
  char sql[kSqlRoom];
  snprintf(sql, sizeof sql, kSqlDeleteStream, asLong(row.streamID));
  if (marker != tarn::kHeaderOpenMarker) {
    syslog(LOG_INFO, tarn::kMsgRepairMarker, asLong(marker), sql);
    deleteRow(restore, row, sql);
    return;
  }
  const uint32_t gops = tarn::getLe32(header + tarn::kHeaderGopsOff);
  if (gops == 0) syslog(LOG_ERR, tarn::kMsgRepairNoGops);
  tarn::PictureWalk walk(row.picture, row.stream, restore);
  walk.run(entryLimit, static_cast<long>(row.chunkOffset), gops, row.startDate);
  if (walk.checkpoint().index == 0) {
    logStatement(row, sql);
    deleteRow(restore, row, sql);
    return;
  }
  closeRow(restore, row, walk, latestEnd, header);
}

bool isDigits(const char* text, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
  }
  return true;
}

// "YYYYMMDDHHMMSS", fields of fixed width, in local time. -1 for what 32 bits cannot hold; 0 when
// the text is none.
int parseTime(const char* text) {
  constexpr size_t kDigits = 14;
  char copy[kDigits + 1] = {};
  memcpy(copy, text, kDigits);
  tm time{};
  if (!isDigits(copy, kDigits)) return 0;
  if (sscanf(copy, "%4d%2d%2d%2d%2d%2d", &time.tm_year, &time.tm_mon, &time.tm_mday, &time.tm_hour,
             &time.tm_min, &time.tm_sec) != 6)
    return 0;
  const bool inRange = time.tm_mon >= 1 && time.tm_mon <= 12 && time.tm_mday >= 1 &&
                       time.tm_mday <= 31 && time.tm_hour <= 23 && time.tm_min <= 59 &&
                       time.tm_sec <= 61;
  if (!inRange) return 0;
  time.tm_year -= 1900;
  time.tm_mon -= 1;
  time.tm_isdst = -1;  // the recorder stamps with the time of the wall
  const time_t seconds = mktime(&time);
  return seconds < 0 || seconds > INT32_MAX ? -1 : static_cast<int>(seconds);
}

// The time behind "timestamp = " in a unit that begins at data; 0 when there is none.
int timeInUnit(const uint8_t* data, long length) {
  constexpr long kUnitHead = 19;  // NAL byte, payload type and size, 16-byte identifier
  constexpr char kText[] = "timestamp = ";
  constexpr long kTextLength = sizeof kText - 1;
  constexpr long kStampLength = 14;
  for (long at = kUnitHead; at <= length - kTextLength - kStampLength; ++at) {
    if (memcmp(data + at, kText, kTextLength) == 0)
      return parseTime(reinterpret_cast<const char*>(data + at + kTextLength));
  }
  return 0;
}

}  // namespace

int CDbRestore::getTimeStamp(const unsigned char* data, long length) {
  constexpr uint8_t kStartCode[] = {0, 0, 0, 1};
  constexpr long kStartCodeLength = sizeof kStartCode;
  constexpr uint8_t kTimeUnit = 0x66;
  for (long at = 0; at < length - kStartCodeLength; ++at) {
    if (memcmp(data + at, kStartCode, kStartCodeLength) != 0) continue;
    const long unit = at + kStartCodeLength;
    if (data[unit] != kTimeUnit) continue;
    const int time = timeInUnit(data + unit, length - unit);
    if (time != 0) return time;
  }
  return 0;
}

int CDbRestore::writePictureChunk(short chunk, unsigned long offset, const void* data,
                                  long length) {
  CFATAccess fat;
  char name[tarn::kChunkFileNameRoom];
  tarn::chunkFileName(tarn::kRecorderPartition, tarn::fileTag(tarn::kFilePicture), chunk, name);
  const int handle = fat.open(name, 2);
  if (handle < 0) {
    syslog(LOG_ERR, tarn::kMsgPictureWriteOpen, name);
    return -1;
  }
  int result = 0;
  if (fat.lseek(handle, static_cast<long>(tarn::low32(offset)), SEEK_SET) < 0) {
    syslog(LOG_ERR, tarn::kMsgPictureWriteSeek);
    result = -1;
  } else if (fat.write(handle, data, static_cast<unsigned long>(length)) != length) {
    syslog(LOG_ERR, tarn::kMsgPictureWrite);
    result = -1;
  }
  fat.close(handle);
  return result;
}

int CDbRestore::fixUpAudioStream(CTARNStreamManagerNative*, CTARNStreamChunk*, CTARNStreamChunk*,
                                 unsigned long*) {
  return 0;
}

int CDbRestore::fixUpVideoStream(CTARNStreamManagerNative* store, CTARNStreamChunk* picture,
                                 CTARNStreamChunk* stream, unsigned long streamID, unsigned short,
                                 unsigned long chunkID, unsigned long chunkOffset,
                                 unsigned long status, unsigned long startDate,
                                 unsigned long backOffset, unsigned long* latestEnd) {
  const Unclosed row = {picture,
                        stream,
                        tarn::low32(streamID),
                        tarn::low32(chunkID),
                        tarn::low32(chunkOffset),
                        tarn::low32(status),
                        tarn::low32(startDate),
                        tarn::low32(backOffset)};
  const auto pictureSize = tarn::low32(store->getChunkSize(kPictureArea));
  const auto number = static_cast<uint16_t>(row.chunkID);
  const CHUNK_EVENT entries = {number, tarn::kRecorderPartition, row.chunkOffset, pictureSize};
  if (row.chunkID >= store->numChunk() || picture->openChunkFile(&entries) != 0) {
    syslog(LOG_ERR, tarn::kMsgRepairPictureOpen, tarn::kRepairSource, __LINE__, __func__);
    return 0;
  }
  uint8_t header[tarn::kPictureRecordSize];
  // A header that the device failed to deliver arrives as zeros; taken for a closed one it would
  // delete a recording for a passing read error.
  if (picture->read(header, sizeof header) != long{sizeof header} || picture->lastReadFailed()) {
    syslog(LOG_ERR, tarn::kMsgRepairHeaderRead, tarn::kRepairSource, __LINE__, __func__);
    picture->closeChunkFile();
    return 0;
  }
  const CHUNK_EVENT data = {number, tarn::kRecorderPartition,
                            tarn::getLe32(header + tarn::kHeaderDataOffsetOff),
                            tarn::low32(store->getChunkSize(kStreamArea))};
  if (stream->openChunkFile(&data) != 0) {
    syslog(LOG_ERR, tarn::kMsgRepairStreamOpen, tarn::kRepairSource, __LINE__, __func__);
    picture->closeChunkFile();
    return 0;
  }
  repairRow(this, row, pictureSize / tarn::kPictureRecordSize, latestEnd, header);
  stream->closeChunkFile();
  picture->closeChunkFile();
  return 1;
}

int CDbRestore::fixUpLastStream() {
  CTARNStreamManagerNative store;
  if (store.openManageData(tarn::kRecorderPartition) != 0) return -1;
  CApiDb database;
  if (database.setSql(kSqlUnclosed) != 0) {
    syslog(LOG_ERR, tarn::kMsgRepairSelect);
    return -1;
  }
  const auto rows = static_cast<long>(database.getNTuple());
  if (rows > 0) syslog(LOG_INFO, tarn::kMsgRepairCount, rows);
  CTARNStreamChunk picture(0);
  CTARNStreamChunk stream(1);
  unsigned long latestEnd = 0;
  for (long row = 0; row < rows; ++row) {
    const auto frameSet = static_cast<uint16_t>(database.getValue(row, 1));
    const uint32_t status = database.getValue(row, 4);
    if ((frameSet & kFrameSetAudio) != 0) {
      fixUpAudioStream(&store, &picture, &stream, &latestEnd);
    } else if ((status & kStatusNotRepairable) == 0) {
      fixUpVideoStream(&store, &picture, &stream, database.getValue(row, 0), frameSet,
                       database.getValue(row, 2), database.getValue(row, 3), status,
                       database.getValue(row, 5), database.getValue(row, 6), &latestEnd);
    } else {
      syslog(LOG_ERR, tarn::kMsgRepairKind, asLong(status));
    }
  }
  store.closeManageData();
  return 0;
}

namespace {

int deleteLastEvent(CDbRestore* restore, CApiDb* database, const DB_EVENT& event,
                    uint32_t streamStart, uint32_t streamEnd) {
  char sql[kSqlRoom];
  snprintf(sql, sizeof sql, kSqlDeleteEvent, asLong(event.eventID));
  syslog(LOG_ERR, tarn::kMsgLastEventStatement, static_cast<long>(tarn::asSigned32(streamStart)),
         static_cast<long>(tarn::asSigned32(streamEnd)),
         static_cast<long>(tarn::asSigned32(event.startDate)), sql);
  if (database->setSqlNoResult(sql) != 0) {
    syslog(LOG_ERR, tarn::kMsgLastEventAccess);
    return -1;
  }
  restore->deleteDBLogNative(tarn::kEventJournalChunk, event.backOffset);
  return 0;
}

int closeLastEvent(CDbRestore* restore, CApiDb* database, DB_EVENT event, uint32_t streamStart,
                   uint32_t streamEnd) {
  event.endDate = streamEnd;
  char sql[kSqlRoom];
  snprintf(sql, sizeof sql, kSqlCloseEvent, asLong(event.endDate), asLong(event.eventID));
  syslog(LOG_ERR, tarn::kMsgLastEventStatement, static_cast<long>(tarn::asSigned32(streamStart)),
         static_cast<long>(tarn::asSigned32(streamEnd)),
         static_cast<long>(tarn::asSigned32(event.startDate)), sql);
  if (database->setSqlNoResult(sql) != 0) {
    syslog(LOG_ERR, tarn::kMsgLastEventUpdate, "fixLastEventDb", asLong(event.eventID));
    return -1;
  }
  restore->updateEventDBLogNative(&event);
  return 0;
}

}  // namespace

int CDbRestore::fixLastEventDb() {
  CApiDb database;
  if (database.setSql(kSqlLastEvent) != 0) {
    syslog(LOG_ERR, tarn::kMsgLastEventSelect, "fixLastEventDb");
    return -1;
  }
  DB_EVENT event{};
  if (database.getNTuple() == 0 || database.getEventValue(0, &event) != 0) return 0;
  if (event.endDate != 0) return 0;
  if (database.setSql(kSqlNewestStream) != 0) {
    syslog(LOG_ERR, tarn::kMsgLastEventSelect, "fixLastEventDb");
    return -1;
  }
  if (database.getNTuple() != 1) return 0;
  const uint32_t start = database.getValue(0, 0);
  const uint32_t end = database.getValue(0, 1);
  return event.startDate >= end ? deleteLastEvent(this, &database, event, start, end)
                                : closeLastEvent(this, &database, event, start, end);
}

int CDbRestore::cleanupEventDb(unsigned long startDate) {
  CApiDb events;
  char sql[kSqlRoom];
  snprintf(sql, sizeof sql, kSqlEventsFrom, asLong(tarn::low32(startDate)));
  if (events.setSql(sql) != 0) {
    syslog(LOG_ERR, tarn::kMsgLastEventAccess);
    return -1;
  }
  const auto rows = static_cast<long>(events.getNTuple());
  for (long row = 0; row < rows; ++row) {
    snprintf(sql, sizeof sql, kSqlDeleteEvent, asLong(events.getValue(row, 0)));
    if (events.setSqlNoResult(sql) != 0) syslog(LOG_ERR, tarn::kMsgLastEventAccess);
    deleteDBLogNative(tarn::kEventJournalChunk, events.getValue(row, 1));
  }
  return 0;
}
