#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"
#include "recorder/recovery/JournalSurvey.h"

namespace tarn {

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

// Brings the database back from the card's journal: an empty database, two equal copies of each
// journal, their replay, as many rows as the journal has live keys, keys that go on behind the
// greatest ever used, and the journal's free offsets behind the newest rows. Nothing else may use
// the card or the database meanwhile. Running it again changes nothing. A part of Recovery, which a
// recorder runs when it starts.
class TARN_API StartUp {
 public:
  StartUpReport run();

  // run() in two parts, for whoever may have the database from elsewhere: the journals made equal
  // and counted (report() tells what they hold), and all the rest. False when it failed.
  bool scrub();
  StartUpReport rebuild();
  const StartUpReport& report() const { return report_; }

 private:
  bool makeDatabase();
  bool replay();
  void replayFailed(StartUpReport::Step step, const char* text);
  bool countRows();
  bool seedKeys();
  bool fail(StartUpReport::Step step, const std::string& text);

  StartUpReport report_;
  bool scrubbed_ = false;
};

}  // namespace tarn
