#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "base/Export.h"
#include "db/DbRecords.h"
#include "recorder/card/PictureTime.h"
#include "recorder/session/RecordingError.h"

namespace tarn {

struct KeepOptions {
  uint32_t budgetChunks = 0;  // stream chunks that copies may take; 0: a tenth of the card's
  bool strict = false;  // a full budget refuses what is new, instead of the oldest copy's going
};

// What is to be kept.
struct KeepWanted {
  PictureTime from;
  PictureTime to;
  int channel = -1;     // -1: of all channels
  bool asItIs = false;  // what is there now, also of recordings that still run
};

enum class KeepOutcome {
  kDone,     // all of it is on the card twice, or was kept before
  kNotYet,   // a recording of that time still runs, or was re-dated meanwhile; to be asked again
  kNothing,  // nothing was recorded in that time
  kFull,     // the budget is full, or too small for it
  kGone,     // the ring of recordings was faster; what was copied is kept
  kStopped,  // the pause said so; what was copied is kept
  kFailed,   // see error()
};

struct KeepResult {
  uint32_t copies = 0;    // that were made
  uint64_t pictures = 0;  // in them
  uint64_t bytes = 0;
  uint32_t missing = 0;  // pictures that cannot be read, and those that need them
  uint32_t givenUp = 0;  // oldest copies that went to make room
};

// Keeps what must not be overwritten: copies pictures of recordings, bit by bit, into chunks of
// their own that the ring of recordings does not take (recorder/recording/KeptRow.h).
//
// A copy is listed as a whole one with the last write of it; what a power loss or a kill interrupts
// is dropped by the next recovery or open(). What is kept already is not copied again. One object
// of one process at a time, next to any sessions of that process, in a thread of its own or not;
// used by one thread. The program calls CDbLog::finish() at its end. Nothing throws.
class TARN_API KeptCopies {
 public:
  // Called every few hundred KiB that were copied; false ends the copying. It may sleep, so that
  // recordings get the card.
  using Pause = std::function<bool(uint32_t bytes)>;

  KeptCopies();
  ~KeptCopies();  // close()
  KeptCopies(const KeptCopies&) = delete;
  KeptCopies& operator=(const KeptCopies&) = delete;

  // Connects to server and database. 0, or -1 with error() set: also while another process keeps,
  // or records.
  int open(const KeepOptions& options);
  bool isOpen() const;
  // Of what is kept from now on.
  void setOptions(const KeepOptions& options);

  KeepOutcome keep(const KeepWanted& wanted, const Pause& pause, KeepResult* result);
  // Gives up the copies that show anything of a time; their number in *count. 0, or -1 with
  // error() set.
  int release(PictureTime from, PictureTime to, uint32_t* count);

  void close();
  RecordingError error() const;
  const char* errorText() const;  // of everything but kDone

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarn
