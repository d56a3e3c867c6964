#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"
#include "recorder/JournalSurvey.h"

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
  };
  uint32_t failed = 0;
  std::string error;  // what failed first, for a person; empty when all is well
  JournalSurvey events;
  JournalSurvey streams;
  uint32_t eventRows = 0;  // rows that the rebuild brought back
  uint32_t streamRows = 0;

  bool ok() const { return failed == 0; }
};

// What runs before the management server when a recorder starts: an empty database, its rebuild
// from the card's journal, keys that go on behind the greatest ever used, and the journal's free
// offsets behind the newest rows. Nothing else may use the card or the database meanwhile. Running
// it again changes nothing.
class TARN_API StartUp {
 public:
  StartUpReport run();

 private:
  bool makeDatabase();
  bool replay();
  bool seedKeys();
  bool fail(StartUpReport::Step step, const std::string& text);

  StartUpReport report_;
};

}  // namespace tarn
