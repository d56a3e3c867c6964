#pragma once

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

}  // namespace tarn
