#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "db/DbRecords.h"
#include "powercut/Workload.h"
#include "recorder/recovery/Recovery.h"

namespace powercut {

// As after power-on: nothing but the card is left, and recovery runs.
tarn::RecoveryReport bootCard();
std::vector<DB_STREAM> listStreams();
std::vector<DB_EVENT> listEvents();
// Rows, management data and journals in words, to compare two recovered cards by.
std::string describeCard();

// Looks for everything that must hold after a cut in one life. What a recovered card is fit for
// depends on nothing but its bytes and its rows, so it is tried once on each; that rows, losses and
// the log are as they must be is looked at in every state.
class Checker {
 public:
  explicit Checker(const Recorded& life);

  // Recovers the card as it lies, whose flushed beginning has the sum `flushed`. Empty, or what
  // does not hold. The card is left as the checks leave it.
  std::string check(Cut cut, uint64_t flushed);
  // Recovers it while it refuses reads, and once more when that has passed.
  std::string checkRefused(const ReadFault& fault);
  // The card's file system, by a program that has nothing to do with us.
  std::string checkFileSystem();

  uint64_t recoveredCards() const { return fit_.size(); }  // different ones
  uint64_t fileSystemChecks() const { return fileSystemChecks_; }
  uint64_t stops() const { return stops_; }  // recoveries that ended with an error

 private:
  std::string checkRecovered(Cut cut, uint64_t flushed);
  std::string checkUndone(const ReadFault& fault);
  // How far it ends as the life's recovery does that nothing disturbed.
  enum class Same { kNothing, kRows, kButJournalPlace, kAll };
  std::string checkResult(const tarn::RecoveryReport& report, Cut cut, uint64_t flushed, Same same);
  std::string checkFormat(Cut cut);

  const Recorded& life_;
  const std::map<uint32_t, std::vector<uint32_t>> expected_;  // pictures of each row
  std::map<std::pair<uint64_t, std::string>, uint32_t> fit_;  // and a new recording's key on it
  uint64_t fileSystemChecks_ = 0;
  uint64_t stops_ = 0;
};

}  // namespace powercut
