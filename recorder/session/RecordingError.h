#pragma once

namespace tarn {

// The first thing that went wrong in a session.
enum class RecordingError {
  kNone,
  kBadOption,  // audio bit, negative channel, or a call out of order
  kServer,     // the management server did not answer within some seconds
  kDatabase,   // a row could not be written
  kJournal,    // the journal did not take a record
  kNoRoom,     // nothing left to delete
  kTooLarge,   // a picture larger than a chunk, or empty
  kCard,       // a read, write or flush of the card failed
  kNoMemory,   // memory ran out
};

}  // namespace tarn
