#pragma once

#include <string>

#include "media/evidence/EvidenceStory.h"

namespace tarn {

class EvidenceFolder;

// Takes out of the system log on the card what it says of a period. Used by one thread.
class LogExtract {
 public:
  // `story` has its period, gets its log and its clock steps, and outlives this.
  explicit LogExtract(EvidenceStory* story) : story_(story) {}

  // Into log.txt, byte for byte as on the card but for what only fills its blocks. False with the
  // folder's error; a log that cannot be read is told by the story.
  bool write(EvidenceFolder* folder);

 private:
  void take(const std::string& line);

  EvidenceStory* story_;
  bool inside_ = false;  // the last line with a time is of the period
  std::string bytes_;
};

}  // namespace tarn
