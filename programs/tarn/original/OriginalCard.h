#pragma once

#include <memory>
#include <string>

#include "CardOriginal.h"
#include "PartitionTable.h"

namespace tarn {

// A card by what the user named: a block device, an image of a volume or of a whole device, an
// Expert Witness image, or a folder with a card's files.
class OriginalCard {
 public:
  // What keeps a card of this kind from being used as it is, in a few words: "it is a folder". ""
  // for a volume, for what is not known, and for what cannot be opened.
  static std::string whyOverlaid(const std::string& path);
  // What it holds that is certainly no card, "an NTFS volume"; "" for a card, and where that is not
  // sure. Of a volume alone.
  static std::string foreignContent(const std::string& path);
  // What it seems to hold in place of a card, also where that is not sure; "" for a card.
  static std::string otherContent(const std::string& path);

  // Opens it for reading; `partition` names one of a whole device, 0 takes the one that holds a
  // card. False with the reason in *error: what was found instead.
  bool open(const std::string& path, int partition, std::string* error);
  // Null before open().
  std::unique_ptr<CardOriginal> take() { return std::move(card_); }
  // What was chosen or found missing, a line for a person; "" for nothing.
  const std::string& note() const { return note_; }

 private:
  bool openWhole(const std::string& path, std::string* error);
  bool choose(const std::string& path, int partition, std::string* error);
  void take(const std::string& path, const PartitionTable::Partition& partition);

  std::unique_ptr<CardOriginal> card_;
  std::string note_;
  bool isFolder_ = false;
};

}  // namespace tarn
