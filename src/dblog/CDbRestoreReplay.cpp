#include <syslog.h>

#include <memory>
#include <new>

#include "base/Wrap.h"
#include "chunk/CTARNMirroredChunk.h"
#include "db/CApiDb.h"
#include "db/SqlText.h"
#include "dblog/CDbRestore.h"
#include "dblog/DbLogMessages.h"
#include "dblog/JournalFormat.h"
#include "dblog/JournalReader.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNEndlessManagerNative.h"

using namespace tarn;

namespace {

// Records of one 12 MiB chunk.
constexpr uint32_t kEventRecordLimit = 0x60000;
constexpr uint32_t kStreamRecordLimit = 0x30000;

constexpr char kSqlReplayEvent[] =
    "INSERT OR REPLACE INTO EVENT( eventID, extTrg, preSec, startDate, startMSec, endDate, "
    "endMSec, backOffset ) VALUES( ";
constexpr char kSqlReplayStream[] =
    "INSERT OR REPLACE INTO STREAM( streamID, inTrg, frameSet, bitrateSet, recSize, chunkID, "
    "chunkOffset, chunkSize, status, startDate, endDate, startMSec, endMSec, backOffset ) VALUES( ";
constexpr char kSqlFirstValue[] = "'";
constexpr char kSqlNextValue[] = "', '";
constexpr char kSqlLastValue[] = "' )";

template <typename... Values>
void addValues(SqlText* sql, uint32_t first, Values... others) {
  sql->add(kSqlFirstValue).add(first);
  (sql->add(kSqlNextValue).add(uint32_t{others}), ...);
  sql->add(kSqlLastValue);
}

void addEventValues(SqlText* sql, const uint8_t* record) {
  DB_EVENT row;
  decodeEventRecord(record, &row);
  addValues(sql, row.eventID, row.extTrg, row.preSec, row.startDate, row.startMSec, row.endDate,
            row.endMSec, row.backOffset);
}

void addStreamValues(SqlText* sql, const uint8_t* record) {
  DB_STREAM row;
  decodeStreamRecord(record, &row);
  addValues(sql, row.streamID, row.inTrg, row.frameSet, row.bitrateSet, row.recSize, row.chunkID,
            row.chunkOffset, row.chunkSize, row.status, row.startDate, row.endDate, row.startMSec,
            row.endMSec, row.backOffset);
}

struct Replay {
  JournalKind kind;
  uint32_t limit;  // records
  const char* sql;
  void (*addValues)(SqlText* sql, const uint8_t* record);
};
constexpr Replay kReplayEvents = {JournalKind::kEvent, kEventRecordLimit, kSqlReplayEvent,
                                  addEventValues};
constexpr Replay kReplayStreams = {JournalKind::kStream, kStreamRecordLimit, kSqlReplayStream,
                                   addStreamValues};

// The statement's own result never tells of a failure; the connection's state does. Going on would
// cost a second of retries for each record and end with a database that lacks rows.
bool insertRow(CApiDb* db, const Replay& replay, const uint8_t* record) {
  SqlText sql(replay.sql);
  replay.addValues(&sql, record);
  const uint32_t result = db->setSqlNoResult(sql.c_str());
  if (result == 0 && db->getStatus() == 1) return true;
  const long error = result == 0 ? -1 : static_cast<long>(result);
  if (replay.kind == JournalKind::kEvent) {
    syslog(LOG_ERR, kMsgReplayEventSql, sql.c_str(), error);
  } else {
    syslog(LOG_ERR, kMsgReplayStreamSql, sql.c_str(), error);
  }
  return false;
}

// Inserts every live record; false after a failed statement.
bool replayRecords(JournalReader* reader, CApiDb* db, const Replay& replay, uint32_t* checked) {
  const JournalTraits& traits = journalTraits(replay.kind);
  for (*checked = 0; *checked <= replay.limit; reader->advance()) {
    const JournalReader::Result result = reader->read();
    if (result == JournalReader::Result::kEnd) return true;
    const uint32_t marker = journalMarker(reader->record());
    if (result == JournalReader::Result::kBad) {
      if (marker == kMarkerErased) return true;
      continue;
    }
    ++*checked;
    const bool live = marker == traits.liveMarker &&
                      journalBackOffset(traits, reader->record()) == reader->position();
    if (live && !insertRow(db, replay, reader->record())) return false;
  }
  return true;
}

bool replayInTransaction(JournalReader* reader, const Replay& replay) {
  CApiDb db;
  uint32_t checked = 0;
  db.begin();
  const bool done = replayRecords(reader, &db, replay, &checked);
  db.end();
  if (!done) return false;
  const auto records = static_cast<unsigned long>(checked);
  const auto offset = static_cast<unsigned long>(reader->position());
  if (replay.kind == JournalKind::kEvent) {
    syslog(LOG_INFO, kMsgReplayEventDone, records, offset);
  } else {
    syslog(LOG_INFO, kMsgReplayStreamDone, records, offset);
  }
  return true;
}

CHUNK_EVENT wholeChunk(int chunk, uint32_t size) {
  return {static_cast<uint16_t>(chunk), kRecorderPartition, 0, size};
}

bool openPair(CTARNMirroredChunk* pair, CTARNEndlessManagerNative* store, short chunk) {
  const int mirrorChunk = chunk + kJournalMirrorStep;
  const uint32_t size = low32(store->getChunkSize(1));
  const CHUNK_EVENT original = wholeChunk(chunk, size);
  const CHUNK_EVENT mirror = wholeChunk(mirrorChunk, size);
  return chunk >= 0 && mirrorChunk < store->numChunk() &&
         pair->openChunkFile(&original, &mirror) == 0;
}

bool replayJournal(CTARNEndlessManagerNative* store, short chunk, const Replay& replay) {
  CTARNMirroredChunk pair(kFileJournal);
  if (!openPair(&pair, store, chunk)) {
    syslog(LOG_ERR, kMsgReplayNoChunk);
    return false;
  }
  // On the heap: the block is large for a stack.
  const std::unique_ptr<JournalReader> reader(new (std::nothrow) JournalReader(
      &pair, journalTraits(replay.kind), chunk, low32(store->getChunkSize(1))));
  return reader != nullptr && replayInTransaction(reader.get(), replay);
}

int restore(short chunk, const Replay& replay) {
  CTARNEndlessManagerNative store(kFileJournal);
  if (store.openManageData(kRecorderPartition) != 0) return -1;
  if (!replayJournal(&store, chunk, replay)) return -1;
  return store.saveManageData() == 0 ? 0 : -1;
}

}  // namespace

int CDbRestore::restoreEventDb() { return restore(kEventJournalChunk, kReplayEvents); }

int CDbRestore::restoreStreamDb(short chunk) { return restore(chunk, kReplayStreams); }
