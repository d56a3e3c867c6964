#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "recorder/card/CardBytes.h"
#include "recorder/card/CardRepair.h"

namespace tarn {

// The steps of a repair that is being planned. Each shows at once in what is read of the card, and
// an attempt that leads nowhere is taken back as a whole. Used by one thread.
class RepairSteps {
 public:
  // Where an attempt begins.
  struct Mark {
    CardBytes::Changes changes;
    size_t steps = 0;
  };

  // The card outlives this.
  explicit RepairSteps(CardBytes* card) : card_(card) {}

  void add(const std::string& text, CardRepair::Changes changes);
  Mark mark() const { return {card_->changes(), steps_.size()}; }
  void backTo(const Mark& mark);

  const CardBytes& card() const { return *card_; }
  std::vector<CardRepair::Step> take() { return std::move(steps_); }

 private:
  CardBytes* card_;
  std::vector<CardRepair::Step> steps_;
};

}  // namespace tarn
