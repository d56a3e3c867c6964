#pragma once

#include <cstdint>
#include <string>

namespace tarn {

// What the two copies of one journal hold, from the first record to the erased end.
struct JournalSurvey {
  uint32_t records = 0;      // places up to the end
  uint32_t live = 0;         // places with a live record in the copy that counts
  uint32_t liveKeys = 0;     // different keys of those: as many rows as a rebuild must give
  uint32_t unreadable = 0;   // places without a valid record in either copy
  uint32_t whole = 0;        // places with a live or deleted record
  uint32_t missing = 0;      // without one, in front of one or of the saved end: one stood there
  uint32_t greatestKey = 0;  // of all live and deleted records of both copies; 0 without any
  uint32_t newestKey = 0;    // of the live records; 0 without any
  uint32_t newestPlace = 0;  // its byte position
  uint32_t digest = 0;       // changes with every live record that comes, goes or changes
  uint32_t phantoms = 0;     // live records of rows that never were
  uint32_t unread = 0;       // places of which one copy was refused; the other one is good
  std::string unreadText;    // the first of them, "stream journal chunk 3 at byte 4096"
  // Of scrubJournals() only:
  uint32_t copied = 0;      // records that were bad in one copy and were taken from the other
  uint32_t unlike = 0;      // valid in both copies but different: the original's were taken
  uint32_t bridged = 0;     // unreadable places in front of valid records, made deleted records
  uint32_t unfinished = 0;  // torn places behind the last record, erased in the other copy: erased
  uint32_t refused = 0;     // records that the card did not let us write
  std::string error;        // why there is no survey, one line; empty when there is
};

// What a start-up did.
struct StartUpReport {
  // Steps in their order; a bit of `failed` for each that failed. Steps that rely on a failed one
  // are not run and have no bit.
  enum Step : uint32_t {
    kEmptyDatabase = 0x01,
    kEventReplay = 0x02,
    kStreamReplay = 0x04,
    kSurvey = 0x08,
    kSeedKeys = 0x10,
    kJournalManage = 0x20,
    kRowCount = 0x40,
  };
  uint32_t failed = 0;
  std::string error;  // what failed first, for a person; empty when all is well
  JournalSurvey events;
  JournalSurvey streams;
  uint32_t eventRows = 0;  // rows that the rebuild brought back
  uint32_t streamRows = 0;

  bool ok() const { return failed == 0; }
};

}  // namespace tarn
