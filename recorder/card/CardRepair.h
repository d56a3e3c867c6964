#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "base/Export.h"

namespace tarn {

// Mends what leads to the chunks of a card, from what stands on it twice: the boot sector and its
// backup, the two FATs, the info file and its second copy. An info file that is nowhere whole is
// made anew from names, sizes and clusters of all chunk files, and a directory entry from the info
// file, also whole sectors of a directory that our formatter wrote; the FAT must confirm both. A
// plan counts only when the card would pass CardGeometry's whole look with it; nothing else is ever
// written. The chunks themselves are not touched: that is the recovery's work.
//
//   tarn::CardRepair repair;
//   if (repair.plan(path, &error) != 0) ...            // nothing written yet
//   for (const auto& step : repair.steps()) show(step.text);
//   if (repair.apply(undoFile, &error) != 0) ...
//
// Used by one thread; nothing throws.
class TARN_API CardRepair {
 public:
  // Bytes by their places on the card.
  using Changes = std::map<uint64_t, std::vector<uint8_t>>;

  struct Step {
    std::string text;  // what becomes of what, for a person
    Changes changes;
  };

  // Looks at the card and works out what to do; no steps when there is nothing to mend. -1 with the
  // reason in *error when it cannot be read, or is damaged in more than can be mended this way.
  int plan(const std::string& path, std::string* error);
  const std::vector<Step>& steps() const { return steps_; }

  // Saves what stands in the places of the plan into `undoFile`, a new file, brings that to its
  // medium, and then changes the card. 0, or -1 with the reason in *error; after a failure on the
  // way, as after a power loss, a new plan goes on.
  int apply(const std::string& undoFile, std::string* error);
  // Takes back what was written together with `undoFile`. -1 with the reason in *error, and nothing
  // written, when the file is not whole, belongs to another card, or those places were changed
  // since.
  static int undo(const std::string& path, const std::string& undoFile, std::string* error);

 private:
  std::string path_;
  std::vector<Step> steps_;
};

}  // namespace tarn
