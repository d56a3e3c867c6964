#pragma once

#include <vector>

#include "db/DbRecords.h"
#include "manager/ChunkRecords.h"
#include "recorder/recovery/RecoveryReport.h"

namespace tarn {

// What the repair of the stream headers would do. Not part of the interface, as all of this file.
struct HeaderPlan {
  std::vector<DB_STREAM> rewrites;
  // Their place holds another recording, or is none: what was theirs is gone for good.
  std::vector<DB_STREAM> deletions;
  // Nothing can be read of them, and nothing else lies in their place: a sector went bad, and may
  // come back.
  std::vector<DB_STREAM> lost;
};

// Tests the stream headers that the management data is rebuilt from: those of the oldest and the
// newest row of each chunk, against their entries. One that does not fit is to be rewritten from
// the entries; a row of which no entry is left is to be deleted or is lost, and the next one of its
// chunk is tested. What the device does not give stays as it is, with a problem in the report, and
// so do the rows of guarded chunks. Nothing is written. False when the database does not go along.
bool planHeaders(const std::vector<CHUNK_MANAGE>& chunks, HeaderPlan* plan, RecoveryReport* report);

// Of rows that are lost and stay: chunks whose management data `chunks` do not fit them, ascending.
// Where they do (the oldest row begins where the chunk is in use from, the newest ends where it is
// free from) they tell where the rows' data lies. False when the database does not go along.
bool findUnplaced(const std::vector<DB_STREAM>& lost, const std::vector<CHUNK_MANAGE>& chunks,
                  std::vector<uint32_t>* unplaced);

// Carries a plan out, but for what is lost. False when the database, the journal or the device does
// not go along.
bool applyHeaders(const HeaderPlan& plan, RecoveryReport* report);

}  // namespace tarn
