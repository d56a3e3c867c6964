#include <fcntl.h>
#include <syslog.h>

#include <cstdio>

#include "base/Endian.h"
#include "base/Wrap.h"
#include "chunk/CTARNStreamChunk.h"
#include "chunk/ChunkArea.h"
#include "chunk/StreamHeaderFormat.h"
#include "db/RowStatus.h"
#include "dblog/CDbRestore.h"
#include "dblog/CheckedSql.h"
#include "dblog/JournalFormat.h"
#include "dblog/PictureWalk.h"
#include "dblog/RepairMessages.h"
#include "dblog/RestoreStores.h"
#include "fat/CFATAccess.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNStreamManagerNative.h"

// The repair of the recordings that a power loss interrupted.

namespace {

constexpr char kSqlUnclosed[] =
    "SELECT streamID, frameSet, chunkID, chunkOffset, status, startDate, backOffset FROM STREAM "
    "WHERE recSize = 0";
constexpr char kSqlDeleteStream[] = "DELETE FROM STREAM WHERE streamID = %lu";
constexpr char kSqlCloseStream[] =
    "UPDATE STREAM SET status = %lu, recSize = %lu, chunkSize = %lu, endDate = %lu, endMSec = 0 "
    "WHERE streamID = %lu";
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
  if (!tarn::executed(&database, sql)) syslog(LOG_ERR, tarn::kMsgRepairDelete);
  // The events first: power lost in between leaves the recording, and the next start deletes both.
  restore->cleanupEventDb(row.startDate);
  restore->deleteDBLogNative(tarn::kStreamJournalChunk, row.backOffset);
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
  const uint32_t status =
      (row.status & ~(tarn::kStatusRecording | tarn::kStatusRepaired)) | tarn::kStatusRepaired;
  if (end > *latestEnd) *latestEnd = end;
  char sql[kSqlRoom];
  snprintf(sql, sizeof sql, kSqlCloseStream, asLong(status), asLong(pictures), asLong(indexSize),
           asLong(end), asLong(row.streamID));
  logStatement(row, sql);
  CApiDb database;
  if (!tarn::executed(&database, sql)) syslog(LOG_ERR, tarn::kMsgRepairUpdate);
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

CHUNK_EVENT wholeRing(const Unclosed& row, uint32_t start, unsigned long areaSize) {
  return {static_cast<uint16_t>(row.chunkID), tarn::kRecorderPartition, start,
          tarn::low32(areaSize)};
}

// A chunk number that the card does not have would lead to somebody else's bytes.
bool openEntries(const Unclosed& row, CTARNStreamManagerNative* store) {
  const CHUNK_EVENT entries =
      wholeRing(row, row.chunkOffset, store->getChunkSize(tarn::kAreaPicture));
  if (row.chunkID < store->numChunk() && row.picture->openChunkFile(&entries) == 0) return true;
  syslog(LOG_ERR, tarn::kMsgRepairPictureOpen, tarn::kRepairSource, __LINE__,
         tarn::kRepairFunction);
  return false;
}

// A header that the device failed to deliver arrives as zeros; taken for a closed one it would
// delete a recording for a passing read error.
bool readHeader(const Unclosed& row, uint8_t* header) {
  const long got = row.picture->read(header, tarn::kPictureRecordSize);
  if (got == long{tarn::kPictureRecordSize} && !row.picture->lastReadFailed()) return true;
  syslog(LOG_ERR, tarn::kMsgRepairHeaderRead, tarn::kRepairSource, __LINE__, tarn::kRepairFunction);
  return false;
}

bool openData(const Unclosed& row, CTARNStreamManagerNative* store, const uint8_t* header) {
  const CHUNK_EVENT data = wholeRing(row, tarn::getLe32(header + tarn::kHeaderDataOffsetOff),
                                     store->getChunkSize(tarn::kAreaStream));
  if (row.stream->openChunkFile(&data) == 0) return true;
  syslog(LOG_ERR, tarn::kMsgRepairStreamOpen, tarn::kRepairSource, __LINE__, tarn::kRepairFunction);
  return false;
}

// Neither another family's chunk nor the one behind may be written to.
bool seekInPictureChunk(CFATAccess* fat, int handle, uint32_t offset, long length) {
  const uint32_t size = tarn::low32(fat->getChunkSize(handle));
  const bool inside =
      length >= 0 && offset <= size && static_cast<unsigned long>(length) <= size - offset;
  return inside && fat->lseek(handle, static_cast<long>(offset), SEEK_SET) >= 0;
}

}  // namespace

int CDbRestore::writePictureChunk(short chunk, unsigned long offset, const void* data,
                                  long length) {
  CFATAccess fat;  // closes what is open, flushed
  char name[tarn::kChunkFileNameRoom];
  tarn::chunkFileName(tarn::kRecorderPartition, tarn::fileTag(tarn::kFilePicture), chunk, name);
  const int handle = fat.open(name, O_RDWR);
  if (handle < 0 || chunk < 0 || chunk >= fat.chunks(handle)) {
    syslog(LOG_ERR, tarn::kMsgPictureWriteOpen, name);
    return -1;
  }
  if (!seekInPictureChunk(&fat, handle, tarn::low32(offset), length)) {
    syslog(LOG_ERR, tarn::kMsgPictureWriteSeek);
    return -1;
  }
  if (fat.write(handle, data, static_cast<unsigned long>(length)) == length) return 0;
  syslog(LOG_ERR, tarn::kMsgPictureWrite);
  return -1;
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
  if (!openEntries(row, store)) return 0;
  uint8_t header[tarn::kPictureRecordSize];
  const bool readable = readHeader(row, header) && openData(row, store, header);
  if (readable) {
    const uint32_t entryLimit =
        tarn::low32(store->getChunkSize(tarn::kAreaPicture)) / tarn::kPictureRecordSize;
    repairRow(this, row, entryLimit, latestEnd, header);
    stream->closeChunkFile();
  }
  picture->closeChunkFile();
  return readable ? 1 : 0;
}

int CDbRestore::fixUpLastStream() {
  CTARNStreamManagerNative store;
  if (tarn::openForRestore(&store) != 0) return -1;
  CApiDb database;
  if (!tarn::selected(&database, kSqlUnclosed)) {
    syslog(LOG_ERR, tarn::kMsgRepairSelect);
    return -1;
  }
  const auto rows = static_cast<long>(database.getNTuple());
  if (rows > 0) syslog(LOG_INFO, tarn::kMsgRepairCount, rows);
  CTARNStreamChunk picture(tarn::kAreaPicture);
  CTARNStreamChunk stream(tarn::kAreaStream);
  unsigned long latestEnd = 0;
  for (long row = 0; row < rows; ++row) {
    const auto frameSet = static_cast<uint16_t>(database.getValue(row, 1));
    const uint32_t status = database.getValue(row, 4);
    if ((frameSet & tarn::kFrameSetAudio) != 0) {
      fixUpAudioStream(&store, &picture, &stream, &latestEnd);
    } else if ((status & tarn::kStatusNotVideo) == 0) {
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
