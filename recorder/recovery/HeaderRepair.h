#pragma once

#include <vector>

#include "db/DbRecords.h"
#include "manager/ChunkRecords.h"
#include "recorder/recovery/RecoveryReport.h"

namespace tarn {

// What the repair of the stream headers would do. Not part of the interface, as all of this file.
struct HeaderPlan {
  std::vector<DB_STREAM> rewrites;
  std::vector<DB_STREAM> deletions;
};

// Tests the stream headers that the management data is rebuilt from: those of the oldest and the
// newest row of each chunk, against their entries. One that does not fit is to be rewritten from
// the entries; a row of which no entry is left is to be deleted, and the next one of its chunk is
// tested. What the device does not give stays as it is, with a problem in the report, and so do the
// rows of guarded chunks. Nothing is written. False when the database does not go along.
bool planHeaders(const std::vector<CHUNK_MANAGE>& chunks, HeaderPlan* plan, RecoveryReport* report);

// Carries a plan out. False when the database, the journal or the device does not go along.
bool applyHeaders(const HeaderPlan& plan, RecoveryReport* report);

}  // namespace tarn
