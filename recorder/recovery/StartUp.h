#pragma once

#include <functional>
#include <memory>
#include <string>

#include "base/Export.h"
#include "dblog/JournalBytes.h"
#include "recorder/recovery/EarlyRows.h"
#include "recorder/recovery/HeaderPlaces.h"
#include "recorder/recovery/StartUpReport.h"

namespace tarn {

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
  // `mayWrite`, where given, is asked when both were looked through and nothing was written yet;
  // the report has what they hold. When it refuses this fails without a reason of its own.
  bool scrub(const std::function<bool()>& mayWrite = nullptr);
  StartUpReport rebuild();
  // For who does not rebuild: gives back the memory of what scrub() read.
  void forget();
  const StartUpReport& report() const { return report_; }
  // Whether the rows of the last rebuild came while the journals were still being read.
  bool hadEarlyRows() const { return hadEarlyRows_; }

 private:
  struct Step;

  bool take(const Step& step);
  bool makeDatabase();
  bool databaseIsFree();
  bool scrubUnlessDone();
  bool replay();
  void replayBehind();
  void noteEarlyRows();
  void replayFailed(StartUpReport::Step step, const char* text);
  bool countRows();
  bool seedKeys();
  bool journalManage();
  bool fail(StartUpReport::Step step, const std::string& text);

  StartUpReport report_;
  bool scrubbed_ = false;
  bool hadEarlyRows_ = false;
  // What scrub() read, for the replay.
  std::unique_ptr<JournalBytes> readEvents_;
  std::unique_ptr<JournalBytes> readStreams_;
  std::unique_ptr<EarlyRows> early_;  // of the two, so it goes before them
  std::unique_ptr<HeaderPlaces> places_;
};

}  // namespace tarn
