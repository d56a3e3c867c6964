#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fat/ChunkFiles.h"
#include "manager/ChunkRecords.h"

namespace tarn {

// What became of the two copies of one management file.
enum class ManageRepair {
  kGood,          // both good and equal
  kMainCopied,    // the main copy was bad and is the backup's now
  kBackupCopied,  // the backup was bad, or older or newer than the main copy, and is the main's now
  kDefaults,      // both bad: what a new card has
  kCorrected,     // both good, but with a value that no recorder writes
  kFailed,        // the card does not give or take them
};

// Makes both copies of a management file good and equal, without a server: every store opens the
// main copy only and refuses a bad one. `chunkType` is the family that the file manages
// (kFileStream, kFileSyslog, kFileJournal). *records, when not null, becomes what they hold. After
// kDefaults the caller rebuilds offsets and channels from elsewhere. Flushed; a power loss in it
// leaves one good copy where there was one.
ManageRepair repairManageFile(FileType chunkType, std::vector<CHUNK_MANAGE>* records);

}  // namespace tarn
