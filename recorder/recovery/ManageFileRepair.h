#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"
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
  kMainUnread,    // the backup is good, the card does not give the main copy: nothing was done
  kBackupUnread,  // the other way round
  kUnreadable,    // the card does not give one, and the other is not good: nothing was done
  kFailed,        // the card has no such file or does not take it
};

// Makes both copies of a management file good and equal, without a server. `chunkType` is the
// family that the file manages (kFileStream, kFileSyslog, kFileJournal). *records, when not null,
// becomes what they hold; it stays as it is after kUnreadable and kFailed. After kDefaults the
// caller rebuilds offsets and channels from elsewhere. Flushed; a power loss in it leaves one good
// copy where there was one.
//
// A copy that the device does not give, also when asked again, may be good: it is not written over,
// and no defaults are made beside it. *unread, when not null, then becomes its file's name.
//
// `anew`, when not null, is what the file gets after kDefaults instead of what a new card has.
TARN_API ManageRepair repairManageFile(FileType chunkType, std::vector<CHUNK_MANAGE>* records,
                                       std::string* unread = nullptr,
                                       const std::vector<CHUNK_MANAGE>* anew = nullptr);

// What repairManageFile() would find, kCorrected aside; nothing is written.
TARN_API ManageRepair judgeManageFile(FileType chunkType, std::vector<CHUNK_MANAGE>* records);

}  // namespace tarn
