#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"
#include "dblog/JournalEnd.h"
#include "dblog/JournalFormat.h"
#include "recorder/card/Source.h"

namespace tarn {

// Both copies of a journal, walked from its first record on: which of them counts at each place.
// Read in large blocks; around what the device does not deliver, sector by sector, asked for again
// a few times. Not part of the interface. Used by one thread; the sources stay the caller's and
// outlive this.
class TARN_API JournalCopies {
 public:
  JournalCopies(JournalKind kind, Source* original, Source* mirror,
                uint32_t blockBytes = kBlockBytes);

  static constexpr uint32_t kBlockBytes = 64 * 1024;
  static constexpr uint32_t kSectorBytes = 512;  // for who asks for one place only

  // Bytes up to the last whole place, as far as a journal is read.
  uint32_t size() const { return size_; }
  // Judges a place below size(). What is below is of this place until the next call. Of two copies
  // that are alike one checksum is worked out.
  JournalCopy at(uint32_t position);

  // Behind an erased place: the next record that lies where it says, or size() when the journal
  // ends there. An erased pair is the journal's end, unless the medium lost a stretch of both
  // copies: then records lie behind it, in front of `savedFree`, where the journal would go on, or
  // in the same block; or the ring has come round, and its last place is in use. What is refused
  // there proves nothing either way.
  uint32_t nextAfterHole(uint32_t position, uint32_t savedFree);

  // After kOriginal and kMirror: whether record() lies where it says; and whether both copies came
  // and are the same, so that what is true of one is true of the other.
  bool isInPlace() const { return inPlace_; }
  bool areAlike() const { return alike_; }
  // What the device gave; null where it gave nothing.
  const uint8_t* original() const { return first_; }
  const uint8_t* mirror() const { return second_; }
  // After kRefused: the journal ends here for all that came (endsBesideRefusedCopy()).
  bool endsBesideRefused() const { return endsBesideRefusedCopy(first_, second_); }
  // The copy that counts, after kOriginal and kMirror only, and the other one.
  const uint8_t* record() const { return copy_ == JournalCopy::kMirror ? second_ : first_; }
  const uint8_t* other() const { return copy_ == JournalCopy::kMirror ? first_ : second_; }
  // "stream journal chunk 2 at byte 4096": what the device did not give; "" when it gave both.
  std::string refusedText() const;

 private:
  // What was read last of one copy.
  struct Window {
    Source* source;
    std::vector<uint8_t> block;
    uint32_t start = 0;
    uint32_t length = 0;
    uint32_t carefulUntil = 0;  // sector by sector up to here
    bool good = false;
  };

  bool inPlaceAt(uint32_t position);
  uint32_t firstInPlace(uint32_t position, uint32_t end);
  const uint8_t* look(Window* window, uint32_t position) const;
  void load(Window* window, uint32_t position) const;

  const JournalKind kind_;
  const JournalTraits& traits_;
  const uint32_t blockBytes_;  // read at once
  uint32_t size_ = 0;
  uint32_t position_ = 0;
  Window originals_;
  Window mirrors_;
  const uint8_t* first_ = nullptr;
  const uint8_t* second_ = nullptr;
  JournalCopy copy_ = JournalCopy::kRefused;
  bool inPlace_ = false;
  bool alike_ = false;
};

// "event" or "stream", for messages.
const char* journalName(JournalKind kind);

}  // namespace tarn
