#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "base/Export.h"
#include "db/DbRecords.h"
#include "recorder/check/CardFinding.h"

namespace tarn {

struct CardCheckOptions {
  // Reads every byte of every picture, at the device's speed, and compares it with the checksum of
  // its entry. Else only what pictures begin with, which tells whether they are there.
  bool wholePictures = true;
  // How many recordings are looked at at a time, each in a thread of its own: 1 on a recorder that
  // has other things to do; 0: as many as there are processors, up to four. What is found is the
  // same.
  uint32_t threads = 1;
  // Called now and then with what is done and what there is; false stops the check.
  std::function<bool(uint64_t done, uint64_t total)> progress;
};

// Looks through a card, from its FAT to each picture, and changes no byte of it. Needs no server
// and no database: the rows are those of the journal. The card must be at rest; what a running
// server has not saved shows as findings.
//
// A card straight after its format and one after a clean stop are clean; a card that lost power has
// findings, which the recovery corrects. Used by one thread at a time, which is the one that is
// told of progress.
class TARN_API CardCheck {
 public:
  // 0, or -1 with the reason in *error when there is no card to look at, or when it was stopped.
  int run(const std::string& path, const CardCheckOptions& options, std::string* error);

  // The same of these recordings alone, whose rows the caller has, and which are closed: for a card
  // that is recorded on meanwhile. `events` are for the texts.
  int runOn(const std::string& path, const std::vector<DB_STREAM>& rows,
            const std::vector<DB_EVENT>& events, const CardCheckOptions& options,
            std::string* error);

  // The same of all that is of no recording, as far as it stays as it is while a card is recorded
  // on: its FATs, chunk files, management files, and records of its journals. What a recorder is
  // about to write may show as a finding, and is gone when it is asked for again.
  int runAround(const std::string& path, std::string* error);

  const CardFindings& findings() const { return findings_; }
  // What a PC left on the card that only had it mounted, in a sentence each: its mark, a folder of
  // its own, files in free clusters. Nothing of the recorder's is touched by it.
  const std::vector<std::string>& notes() const { return notes_; }
  uint32_t streamRows() const { return streamRows_; }
  uint32_t eventRows() const { return eventRows_; }
  // Events in whose time no recording leads to a picture, by key. They may be all that is left
  // after the oldest recordings went, so they are no findings.
  const std::vector<uint32_t>& eventsWithoutVideo() const { return eventsWithoutVideo_; }
  // The sum for a person: "nothing lost".
  std::string meaning() const { return meaningOfAll(findings_, eventsWithoutVideo_.size()); }
  uint64_t pictures() const { return pictures_; }  // looked at

 private:
  CardFindings findings_;
  std::vector<uint32_t> eventsWithoutVideo_;
  uint32_t streamRows_ = 0;
  uint32_t eventRows_ = 0;
  uint64_t pictures_ = 0;
  std::vector<std::string> notes_;
};

}  // namespace tarn
