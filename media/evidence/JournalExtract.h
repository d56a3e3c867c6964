#pragma once

#include <string>

#include "dblog/JournalFormat.h"
#include "media/evidence/EvidenceStory.h"

namespace tarn {

class EvidenceFolder;
class JournalCopies;

// Takes out of the journals on the card what concerns a period: the records, both copies of each as
// they lie there, and what they tell of recordings that are given up. Used by one thread.
class JournalExtract {
 public:
  // What is in the period [fromUs, toUs], since 1970; `journal` is filled in and outlives this.
  JournalExtract(int64_t fromUs, int64_t toUs, EvidenceJournal* journal)
      : fromUs_(fromUs), toUs_(toUs), journal_(journal) {}

  // Into original/journal-recordings.bin and original/journal-events.bin. False with the folder's
  // error when they cannot be written; a journal that cannot be read is told by `journal`.
  bool write(EvidenceFolder* folder);
  // Only into what the constructor was given.
  void read();

 private:
  std::string readOne(JournalKind kind);
  bool writeOne(JournalKind kind, EvidenceFolder* folder, const char* name);
  bool isWanted(JournalKind kind, const uint8_t* record);
  bool isWantedStream(const uint8_t* record);
  static void add(const JournalCopies& copies, uint32_t position, uint32_t size, std::string* out);

  const int64_t fromUs_;
  const int64_t toUs_;
  EvidenceJournal* journal_;
};

}  // namespace tarn
