#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "base/Export.h"
#include "recorder/card/CardLayout.h"

namespace tarn {

// What a format would take from a card.
struct CardHoldings {
  bool any = false;  // there are recordings, or nobody can say whether there are
  std::string text;  // "CARD holds 12 recordings ...", for a person; empty without any
};

struct FormatOptions {
  // Overwrite recordings and what does not look like a card, and cut an image file short.
  bool force = false;
  bool invariant = false;  // the same arguments give the same bytes, old content cleared
  // Called with the bytes dealt with so far and in all; false stops the work as a power cut would.
  std::function<bool(uint64_t done, uint64_t total)> progress;
  // Looks what a card of the recorder holds: cardHoldings() of CardHoldings.h. Without it every
  // such card counts as one that holds recordings.
  std::function<CardHoldings(const std::string& path)> look;
  // Asked before a card that holds recordings is formatted without force, with a line that says
  // what would go; false leaves it as it is. Without this such a card is refused.
  std::function<bool(const std::string& holdings)> confirm;
};

// Lays out a card on a block device or image file. An interrupted format leaves a card that every
// open refuses, because an earlier card is made invalid first and the info file, without which
// nothing opens, is written last. One thread at a time; holds nothing between calls.
class TARN_API CardFormatter {
 public:
  // Formats `path`. request.sizeBytes 0 takes the size that the device or file has; an image file
  // is created or lengthened to it, and with force cut to it; one that was created goes again
  // when that fails. 0, or -1 with the reason in *error in a person's words.
  // Refused before anything is touched: sizes and counts that do not work, a mounted or busy card,
  // one that cannot be written, and without force one that cannot be read, that holds something
  // else, or recordings that options.confirm does not give up.
  int format(const std::string& path, const CardRequest& request, const FormatOptions& options,
             std::string* error);

  // What was laid out by the last successful format().
  const CardLayout& layout() const { return layout_; }
  uint32_t volumeId() const { return volumeId_; }

 private:
  CardLayout layout_;
  uint32_t volumeId_ = 0;
};

}  // namespace tarn
