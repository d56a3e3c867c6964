#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"

namespace tarn {

// What kind of structure a finding is about.
enum class FindingKind : uint8_t {
  kFat,            // boot sector and its backup, FSInfo, the two FATs, the root directory
  kFile,           // a chunk file that is not in one piece where the info file has it
  kManagement,     // a management file: checksum, copies, values out of range
  kJournalCopy,    // a record that is good in one copy only, or not the same in both
  kJournalRecord,  // a record that is good in neither copy, or not where it says it is
  kJournalOrder,   // records out of order, a key twice, a free offset elsewhere
  kOpenRow,        // a recording that was never closed, an event that was never ended
  kRow,            // a row whose values cannot be
  kHeader,         // a stream header that does not fit its row or its entries
  kEntry,          // picture entries
  kData,           // pictures in the stream chunk
  kRing,           // rows outside of what counts as used, or in each other's way
  kLog,            // system log
  kImage,          // database image
  kUnreadable,     // the device does not give its bytes
};
inline constexpr size_t kFindingKinds = 15;

// Word for programs: "fat", "journalCopy".
TARN_API const char* findingKindName(FindingKind kind);

// What a finding means for the recordings.
enum class Consequence : uint8_t {
  kOfKind,       // that of most findings of its kind; none has it once it was added
  kNone,         // nothing is lost by it
  kRisk,         // nothing is lost yet, but a new recording may overwrite something
  kInterrupted,  // ends at its last safe picture when a recorder starts
  kDamaged,      // there, but not as it was recorded
  kLost,         // not to be found any more
  kUnread,       // the device did not give it; it may come at the next try
  kUnknown,      // the check cannot tell
};
inline constexpr size_t kConsequences = 8;

// Word for programs: "none", "damaged".
TARN_API const char* consequenceName(Consequence consequence);

struct CardFinding {
  FindingKind kind = FindingKind::kFat;
  std::string text;       // for a person: which recording, which seconds, which event
  uint32_t streamID = 0;  // of the recording concerned; 0: none
  uint32_t eventID = 0;   // of the event concerned; 0: none, or see the text
  int32_t chunk = -1;     // -1: none
  uint32_t from = 0;      // seconds concerned, 0 and 0: none
  uint32_t to = 0;
  Consequence consequence = Consequence::kOfKind;
  std::string meaning;      // of it, for a person: "3.2 s of camera 0 at ... are damaged"
  int32_t channel = -1;     // of the video concerned; -1: none or not known
  int64_t videoMicros = 0;  // how much video or sound is concerned; 0: none or not known
  bool isSound = false;     // it is sound, and no picture is concerned
};

// Findings in the order in which they were made. All are counted; of what is damaged all over only
// so many are kept.
class TARN_API CardFindings {
 public:
  static constexpr size_t kKeptOfAKind = 200;

  void add(CardFinding finding);
  void add(FindingKind kind, std::string text);
  // As if those of `other` were added one by one.
  void append(const CardFindings& other);

  const std::vector<CardFinding>& list() const { return list_; }
  size_t count(FindingKind kind) const { return counts_[static_cast<size_t>(kind)]; }
  size_t total() const;
  // Microseconds of video that are concerned so, in all findings, and how many of these there are.
  int64_t videoMicros(Consequence consequence) const {
    return micros_[static_cast<size_t>(consequence)];
  }
  // The same of sound.
  int64_t soundMicros(Consequence consequence) const {
    return soundMicros_[static_cast<size_t>(consequence)];
  }
  size_t countOf(Consequence consequence) const { return meant_[static_cast<size_t>(consequence)]; }
  // Further ones of this kind are only counted, so nobody need work out their texts.
  bool isFull(FindingKind kind) const { return count(kind) >= kKeptOfAKind; }

 private:
  std::vector<CardFinding> list_;
  std::array<size_t, kFindingKinds> counts_{};
  std::array<int64_t, kConsequences> micros_{};
  std::array<int64_t, kConsequences> soundMicros_{};
  std::array<size_t, kConsequences> meant_{};
};

// "3.2 s", "1 h 3 min", rounded up.
TARN_API std::string videoText(int64_t micros);
// The sum of all findings for a person: "nothing lost", "3.2 s of video damaged, 1 event without
// video".
TARN_API std::string meaningOfAll(const CardFindings& findings, size_t eventsWithoutVideo);

}  // namespace tarn
