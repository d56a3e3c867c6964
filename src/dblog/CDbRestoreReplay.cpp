#include <syslog.h>

#include <iterator>
#include <memory>
#include <new>

#include "base/Wrap.h"
#include "chunk/ChunkArea.h"
#include "db/CApiDb.h"
#include "db/RowInserts.h"
#include "dblog/CDbRestore.h"
#include "dblog/DbLogMessages.h"
#include "dblog/JournalFormat.h"
#include "dblog/JournalReader.h"
#include "dblog/ReplayFailure.h"
#include "dblog/RestoreStores.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNEndlessManagerNative.h"

using namespace tarn;

namespace {

// Records of one 12 MiB chunk.
constexpr uint32_t kEventRecordLimit = 0x60000;
constexpr uint32_t kStreamRecordLimit = 0x30000;

constexpr char kSqlReplayEvent[] =
    "INSERT OR REPLACE INTO EVENT( eventID, extTrg, preSec, startDate, startMSec, endDate, "
    "endMSec, backOffset )";
constexpr char kSqlReplayStream[] =
    "INSERT OR REPLACE INTO STREAM( streamID, inTrg, frameSet, bitrateSet, recSize, chunkID, "
    "chunkOffset, chunkSize, status, startDate, endDate, startMSec, endMSec, backOffset )";

bool addEvent(RowInserts* rows, const uint8_t* record) {
  DB_EVENT row;
  decodeEventRecord(record, &row);
  const uint32_t values[] = {row.eventID,   row.extTrg,  row.preSec,  row.startDate,
                             row.startMSec, row.endDate, row.endMSec, row.backOffset};
  static_assert(std::size(values) == kEventColumns);
  return rows->add(values);
}

bool addStream(RowInserts* rows, const uint8_t* record) {
  DB_STREAM row;
  decodeStreamRecord(record, &row);
  const uint32_t values[] = {row.streamID, row.inTrg,     row.frameSet,    row.bitrateSet,
                             row.recSize,  row.chunkID,   row.chunkOffset, row.chunkSize,
                             row.status,   row.startDate, row.endDate,     row.startMSec,
                             row.endMSec,  row.backOffset};
  static_assert(std::size(values) == kStreamColumns);
  return rows->add(values);
}

struct Replay {
  JournalKind kind;
  uint32_t limit;  // records
  const char* sql;
  size_t columns;
  bool (*add)(RowInserts* rows, const uint8_t* record);
};
constexpr Replay kReplayEvents = {JournalKind::kEvent, kEventRecordLimit, kSqlReplayEvent,
                                  kEventColumns, addEvent};
constexpr Replay kReplayStreams = {JournalKind::kStream, kStreamRecordLimit, kSqlReplayStream,
                                   kStreamColumns, addStream};

bool failed(JournalKind kind, const char* sql) {
  constexpr long kFailed = -1;
  if (kind == JournalKind::kEvent) {
    syslog(LOG_ERR, kMsgReplayEventSql, sql, kFailed);
  } else {
    syslog(LOG_ERR, kMsgReplayStreamSql, sql, kFailed);
  }
  return false;
}

bool finish(RowInserts* rows, JournalKind kind) {
  return rows->finish() || failed(kind, rows->failed());
}

// What a device does not give may be rows, or the end: neither is known, so nothing counts.
bool refused(JournalKind kind, const JournalReader& reader) {
  const char* name = kind == JournalKind::kEvent ? "event" : "stream";
  syslog(LOG_ERR, kMsgReplayRefused, name, static_cast<unsigned long>(reader.position()));
  return noteReplayFailure(kMsgReplayRefused, name, static_cast<unsigned long>(reader.position()));
}

// The database did not keep the rows.
bool lost(const CApiDb& db) {
  const bool full = db.ranFull();
  syslog(LOG_ERR, "%s", full ? kMsgReplayFull : kMsgReplayLost);
  return noteReplayFailure("%s", full ? kMsgReplayFull : kMsgReplayLost);
}

// Inserts every live record; false after a failed statement and where the device gives nothing.
bool replayRecords(JournalReader* reader, RowInserts* rows, const Replay& replay,
                   uint32_t* checked) {
  const JournalTraits& traits = journalTraits(replay.kind);
  for (*checked = 0; *checked <= replay.limit; reader->advance()) {
    const JournalReader::Result result = reader->read();
    if (result == JournalReader::Result::kRefused) {
      return finish(rows, replay.kind) && refused(replay.kind, *reader);
    }
    if (result == JournalReader::Result::kBad) continue;
    if (result != JournalReader::Result::kRecord) break;
    ++*checked;
    if (journalMarker(reader->record()) != traits.liveMarker) continue;
    if (journalBackOffset(traits, reader->record()) != reader->position()) continue;
    if (!replay.add(rows, reader->record())) return failed(replay.kind, rows->failed());
  }
  return finish(rows, replay.kind);
}

bool replayInTransaction(JournalReader* reader, const Replay& replay) {
  CApiDb db;
  uint32_t checked = 0;
  db.begin();
  bool done = false;
  {
    RowInserts rows(&db, replay.sql, replay.columns);
    done = replayRecords(reader, &rows, replay, &checked);
  }
  if (!done && !db.inTransaction()) return lost(db);
  db.end();
  if (!done) return false;
  if (db.getStatus() != 1 || db.inTransaction()) return lost(db);
  const auto records = static_cast<unsigned long>(checked);
  const auto offset = static_cast<unsigned long>(reader->position());
  if (replay.kind == JournalKind::kEvent) {
    syslog(LOG_INFO, kMsgReplayEventDone, records, offset);
  } else {
    syslog(LOG_INFO, kMsgReplayStreamDone, records, offset);
  }
  return true;
}

bool replayJournal(CTARNEndlessManagerNative* store, short chunk, const Replay& replay,
                   const JournalBytes* before) {
  const int mirrorChunk = chunk + kJournalMirrorStep;
  if (chunk < 0 || mirrorChunk >= store->numChunk()) {
    syslog(LOG_ERR, kMsgReplayNoChunk);
    return false;
  }
  // On the heap: the blocks are large for a stack.
  const std::unique_ptr<JournalReader> reader(new (std::nothrow) JournalReader(
      journalTraits(replay.kind), chunk, low32(store->getChunkSize(tarn::kAreaStream)), before));
  return reader != nullptr && replayInTransaction(reader.get(), replay);
}

int restore(short chunk, const Replay& replay, const JournalBytes* before) {
  clearReplayFailure();
  CTARNEndlessManagerNative store(kFileJournal);
  if (openForRestore(&store) != 0) return -1;
  if (!replayJournal(&store, chunk, replay, before)) return -1;
  return saveForRestore(&store) == 0 ? 0 : -1;
}

}  // namespace

int CDbRestore::restoreEventDb() { return restoreEventDb(nullptr); }

int CDbRestore::restoreStreamDb(short chunk) { return restoreStreamDb(chunk, nullptr); }

int CDbRestore::restoreEventDb(const JournalBytes* before) {
  return restore(kEventJournalChunk, kReplayEvents, before);
}

int CDbRestore::restoreStreamDb(short chunk, const JournalBytes* before) {
  return restore(chunk, kReplayStreams, before);
}
