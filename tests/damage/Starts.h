#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "damage/SmallCard.h"
#include "manager/ChunkRecords.h"
#include "powercut/CardTrace.h"

namespace damage {

// What a reader gets of a picture.
enum class PictureFound : uint8_t {
  kGood,    // its own bytes and time
  kNone,    // it cannot be read
  kTold,    // other bytes, and the reader says that they are damaged
  kUntold,  // other bytes, given out as if they were good
};

// What a start makes of a card.
struct Seen {
  std::string error;  // of the start
  std::vector<DB_STREAM> streams;
  std::vector<DB_EVENT> events;
  std::string management;  // in words
  std::vector<CHUNK_MANAGE> chunks;
  std::vector<uint32_t> logEnds;
};

// Starts on the card as it lies, and reads its pictures. What comes of a card follows from its
// bytes alone: time and numbers of chance are the same in every run (powercut/CardTrace.cpp). So a
// start on bytes that one was made on before is not made again: its writes are, and it is told what
// came of it. While the card refuses reads every start is made.
class Starts {
 public:
  explicit Starts(const SmallCard& card);

  // The cards that are damaged from now on.
  void begin(const Whole* whole) { whole_ = whole; }
  // A start on a card that is not likely to come again need not be kept.
  enum class Again { kUnlikely, kLikely };
  Seen start(const powercut::ReadFault* fault, Again again);
  // The first `count` pictures of a listed recording; empty when it cannot be opened.
  std::vector<PictureFound> pictures(const DB_STREAM& now, uint32_t count);

 private:
  using Sum = std::pair<const Whole*, uint64_t>;
  struct Made {
    Seen seen;
    std::vector<std::pair<uint64_t, std::vector<uint8_t>>> sectors;  // that it changed, as they are
  };
  struct Known {
    std::vector<uint8_t> bytes;
    tarn::PictureTime time;
  };

  Sum sum() const { return {whole_, powercut::Card::get().changesHash()}; }
  Seen make(const powercut::ReadFault* fault) const;
  std::vector<PictureFound> read(const DB_STREAM& now, uint32_t count) const;

  const SmallCard& card_;
  const Whole* whole_ = nullptr;
  std::map<uint32_t, Known> known_;  // pictures by their number
  std::map<Sum, Made> made_;
  std::map<std::pair<Sum, std::string>, std::vector<PictureFound>> read_;
};

}  // namespace damage
