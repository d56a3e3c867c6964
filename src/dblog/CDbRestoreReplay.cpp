#include <syslog.h>

#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "base/Wrap.h"
#include "chunk/ChunkArea.h"
#include "db/CApiDb.h"
#include "db/SqlText.h"
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

// Gathers the statements of several records, which then take the machine's database lock once: it
// costs about a fifth of what a statement does. Each is run as if it were alone.
class InsertBatch {
 public:
  InsertBatch(CApiDb* db, JournalKind kind) : db_(db), kind_(kind) {}

  // False when a statement failed, this one or one before it; the rest is dropped then.
  bool add(const SqlText& sql) {
    memcpy(text_[count_++], sql.c_str(), sql.length() + 1);
    return count_ < kStatements || run();
  }

  // Where there is no room SQLite takes the whole transaction back, and the second attempt succeeds
  // outside of it: what follows would be all that comes back.
  bool run() {
    const char* statements[kStatements];
    for (size_t i = 0; i < count_; ++i) statements[i] = text_[i];
    const size_t count = std::exchange(count_, 0);
    const size_t done = db_->setSqlEach(statements, count);
    if (done < count) logFailure(statements[done]);
    return done == count;
  }

 private:
  static constexpr size_t kStatements = 16;
  static constexpr size_t kStatementRoom = 512;  // the longest has about 400 characters
  // 14 numbers of ten digits with what stands between them.
  static_assert(sizeof kSqlReplayStream + 14 * (10 + sizeof kSqlNextValue) <= kStatementRoom);

  void logFailure(const char* sql) const;

  CApiDb* db_;
  JournalKind kind_;
  size_t count_ = 0;
  char text_[kStatements][kStatementRoom];
};

void InsertBatch::logFailure(const char* sql) const {
  constexpr long kFailed = -1;
  if (kind_ == JournalKind::kEvent) {
    syslog(LOG_ERR, kMsgReplayEventSql, sql, kFailed);
  } else {
    syslog(LOG_ERR, kMsgReplayStreamSql, sql, kFailed);
  }
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
bool replayRecords(JournalReader* reader, InsertBatch* batch, const Replay& replay,
                   uint32_t* checked) {
  const JournalTraits& traits = journalTraits(replay.kind);
  for (*checked = 0; *checked <= replay.limit; reader->advance()) {
    const JournalReader::Result result = reader->read();
    if (result == JournalReader::Result::kRefused) {
      return batch->run() && refused(replay.kind, *reader);
    }
    if (result == JournalReader::Result::kBad) continue;
    if (result != JournalReader::Result::kRecord) break;
    ++*checked;
    if (journalMarker(reader->record()) != traits.liveMarker) continue;
    if (journalBackOffset(traits, reader->record()) != reader->position()) continue;
    SqlText sql(replay.sql);
    replay.addValues(&sql, reader->record());
    if (!batch->add(sql)) return false;
  }
  return batch->run();
}

bool replayInTransaction(JournalReader* reader, const Replay& replay) {
  CApiDb db;
  uint32_t checked = 0;
  db.begin();
  InsertBatch batch(&db, replay.kind);
  const bool done = replayRecords(reader, &batch, replay, &checked);
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

bool replayJournal(CTARNEndlessManagerNative* store, short chunk, const Replay& replay) {
  const int mirrorChunk = chunk + kJournalMirrorStep;
  if (chunk < 0 || mirrorChunk >= store->numChunk()) {
    syslog(LOG_ERR, kMsgReplayNoChunk);
    return false;
  }
  // On the heap: the blocks are large for a stack.
  const std::unique_ptr<JournalReader> reader(new (std::nothrow) JournalReader(
      journalTraits(replay.kind), chunk, low32(store->getChunkSize(tarn::kAreaStream))));
  return reader != nullptr && replayInTransaction(reader.get(), replay);
}

int restore(short chunk, const Replay& replay) {
  clearReplayFailure();
  CTARNEndlessManagerNative store(kFileJournal);
  if (openForRestore(&store) != 0) return -1;
  if (!replayJournal(&store, chunk, replay)) return -1;
  return saveForRestore(&store) == 0 ? 0 : -1;
}

}  // namespace

int CDbRestore::restoreEventDb() { return restore(kEventJournalChunk, kReplayEvents); }

int CDbRestore::restoreStreamDb(short chunk) { return restore(chunk, kReplayStreams); }
