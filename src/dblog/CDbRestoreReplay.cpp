#include <syslog.h>

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
#include "dblog/ReplayRows.h"
#include "dblog/RestoreStores.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNEndlessManagerNative.h"

using namespace tarn;

namespace {

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
bool replayRecords(JournalReader* reader, RowInserts* rows, const ReplayRows& replay,
                   uint32_t* checked) {
  const JournalTraits& traits = journalTraits(replay.kind);
  uint32_t values[RowInserts::kMostColumns];
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
    replay.values(reader->record(), values);
    if (!rows->add(values)) return failed(replay.kind, rows->failed());
  }
  return finish(rows, replay.kind);
}

// Records that were looked at, and the place of the next one.
void tellDone(JournalKind kind, uint32_t records, uint32_t offset) {
  const auto many = static_cast<unsigned long>(records);
  const auto next = static_cast<unsigned long>(offset);
  if (kind == JournalKind::kEvent) {
    syslog(LOG_INFO, kMsgReplayEventDone, many, next);
  } else {
    syslog(LOG_INFO, kMsgReplayStreamDone, many, next);
  }
}

bool replayInTransaction(JournalReader* reader, const ReplayRows& replay) {
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
  tellDone(replay.kind, checked, reader->position());
  return true;
}

bool hasChunks(CTARNEndlessManagerNative* store, short chunk) {
  const int mirrorChunk = chunk + kJournalMirrorStep;
  if (chunk >= 0 && mirrorChunk < store->numChunk()) return true;
  syslog(LOG_ERR, kMsgReplayNoChunk);
  return false;
}

bool replayJournal(CTARNEndlessManagerNative* store, short chunk, const ReplayRows& replay,
                   const JournalBytes* before) {
  // On the heap: the blocks are large for a stack.
  const std::unique_ptr<JournalReader> reader(new (std::nothrow) JournalReader(
      journalTraits(replay.kind), chunk, low32(store->getChunkSize(tarn::kAreaStream)), before));
  return reader != nullptr && replayInTransaction(reader.get(), replay);
}

// `work` is what happens between the opening of the management data and its saving.
template <typename Work>
int restore(short chunk, Work work) {
  clearReplayFailure();
  CTARNEndlessManagerNative store(kFileJournal);
  if (openForRestore(&store) != 0) return -1;
  if (!hasChunks(&store, chunk) || !work(&store)) return -1;
  return saveForRestore(&store) == 0 ? 0 : -1;
}

int restoreRows(short chunk, const ReplayRows& replay, const JournalBytes* before) {
  return restore(chunk, [&](CTARNEndlessManagerNative* store) {
    return replayJournal(store, chunk, replay, before);
  });
}

}  // namespace

int CDbRestore::restoreEventDb() { return restoreEventDb(nullptr); }

int CDbRestore::restoreStreamDb(short chunk) { return restoreStreamDb(chunk, nullptr); }

int CDbRestore::restoreEventDb(const JournalBytes* before) {
  return restoreRows(kEventJournalChunk, kReplayEvents, before);
}

int CDbRestore::restoreStreamDb(short chunk, const JournalBytes* before) {
  return restoreRows(chunk, kReplayStreams, before);
}

int CDbRestore::restoredBefore(JournalKind kind, uint32_t records) {
  const JournalTraits& traits = journalTraits(kind);
  return restore(traits.chunk, [&](CTARNEndlessManagerNative*) {
    tellDone(kind, records, records * traits.recordSize);
    return true;
  });
}
