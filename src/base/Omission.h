#pragma once

#ifdef TARN_OMISSIONS
#include "base/Export.h"
#endif

namespace tarn {

// What the power-cut tests can have left out, one at a time, to show that they see it. In the
// product omitted() is false at compile time and nothing of it is left.
enum class Omit {
  // Journal
  kOriginalFlush,      // the original copy reaches the card before the mirror is touched
  kMirrorFlush,        // a record is flushed when its operation returns
  kJournalLookUp,      // no record of a listed row is written over
  kJournalFreeOffset,  // free offsets from the newest rows, after the replay
  // Space
  kRecordDelete,     // a deleted row's record is marked before its space is given out
  kRowBeforeSpace,   // the row goes before its space
  kSaveBeforeWrite,  // freed space is saved before it is written to
  kManageBackup,     // management data is saved in two copies
  kManageCopyFlush,  // and the first is on the card before the second is written
  kManageFlush,      // what was saved is on the card when the call returns
  // Recording
  kFreshNumbers,           // picture numbers that no stale entry continues
  kDataBeforeEntries,      // data is flushed before the entries that point at it
  kEntriesFlush,           // entries are flushed before they count as safe
  kHeaderBeforeRow,        // the header is on the card before its row
  kTotalsBeforeRow,        // the header's totals, still open, before the row is closed
  kRowBeforeClosedHeader,  // the row is closed before the header
  kRowClosedLast,          // recSize is 0 until the end
  kChannelOfChunk,         // a fresh chunk is given its channel
  // Recovery
  kManageFiles,
  kEmptyDatabase,
  kScrub,
  kReplay,
  kRowCount,
  kSeedKeys,
  kOvertakenRows,
  kVideoRows,
  kOwnWalk,  // entries decide about interrupted video, and not the library's repair
  kRemainingRows,
  kEvents,
  kHeaders,
  kStreamManage,
  kSyslogManage,
  kRecoveryFlush,
  kChannels,  // the channels of the chunks are set again
  // What the card refuses
  kRefusedIsBad,  // what was refused does not pass for zeros
  kReadAgain,     // it is asked for again
  kCopyMarker,    // a journal copy in its place goes before one that only has a right checksum
  kCopyRefused,   // nothing is believed of a journal copy that was refused
  // Database image
  kImageEmptied,       // marked empty at once after the restore
  kImageClearedFirst,  // and before a new one is saved
  kImageTrust,         // only an image that is as new as the journal is taken
  kImageSeal,          // an image proves its bytes and the journals' state
  // System log
  kLogMark,      // the mark behind the newest line
  kLogBlocks,    // no line straddles a block
  kLogMarkLast,  // the old mark is written over last
  kLogGiveUp,    // an old chunk's text is given up before it is written over
  kNothing,
};

#ifdef TARN_OMISSIONS
TARN_API bool omitted(Omit step);
// False: there is no step of this name.
TARN_API bool omit(const char* name, bool leftOut);
#else
constexpr bool omitted(Omit) { return false; }
#endif

}  // namespace tarn
