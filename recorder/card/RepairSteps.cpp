#include "recorder/card/RepairSteps.h"

namespace tarn {

void RepairSteps::add(const std::string& text, CardRepair::Changes changes) {
  for (const auto& [offset, bytes] : changes) card_->plan(offset, bytes);
  steps_.push_back({text, std::move(changes)});
}

void RepairSteps::backTo(const Mark& mark) {
  card_->setChanges(mark.changes);
  steps_.resize(mark.steps);
}

}  // namespace tarn
