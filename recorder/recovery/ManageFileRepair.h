#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"
#include "fat/ChunkFiles.h"
#include "manager/ChunkRecords.h"
#include "recorder/recovery/ManageRepair.h"

namespace tarn {

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
