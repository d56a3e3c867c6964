#pragma once

#include <cstdint>
#include <set>
#include <vector>

#include "recorder/rows/RowQueries.h"
#include "recorder/session/RecordingSpace.h"

class CTARNStreamManager;

namespace tarn {

// Room for kept copies: chunks of their own, as many as the budget says. Below it a copy gets a
// chunk that is free or that the oldest recordings leave; at it the oldest copies go, or nothing
// does. Not part of the interface; every operation is called with the allocation lock held.
class KeptSpace {
 public:
  enum class Answer { kChunk, kFull, kFailed };

  KeptSpace(CTARNStreamManager* manager, RowQueries* queries, RecordingSpace* space)
      : manager_(manager), queries_(queries), space_(space) {}

  // `chunks` 0: a tenth of the card's. No more than half of them.
  void setBudget(uint32_t chunks, bool strict);
  uint32_t budget() const { return budget_; }

  // A claimed chunk with that room. Copies of `spared` stay in any case. kFailed sets error().
  Answer take(const RecordingSpace::Need& need, uint32_t now, const std::set<uint32_t>& spared,
              int* chunk);
  // Copies that went to make room, since the last setBudget().
  uint32_t givenUp() const { return givenUp_; }
  // Rows of copies, the oldest first.
  bool copies(std::vector<DB_STREAM>* rows);

  RecordingError error() const { return error_; }
  const char* errorText() const { return text_; }

 private:
  Answer fail(RecordingError error, const char* text);
  Answer takeOwn(const RecordingSpace::Need& need, const std::vector<DB_STREAM>& rows, int* chunk);
  Answer takeNew(const RecordingSpace::Need& need, uint32_t now, int* chunk);
  Answer giveUpOldest(const std::vector<DB_STREAM>& rows, const std::set<uint32_t>& spared,
                      uint32_t now);

  CTARNStreamManager* manager_;
  RowQueries* queries_;
  RecordingSpace* space_;
  uint32_t budget_ = 0;
  bool strict_ = false;
  uint32_t givenUp_ = 0;
  RecordingError error_ = RecordingError::kNone;
  const char* text_ = "";
};

}  // namespace tarn
