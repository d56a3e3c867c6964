#pragma once

#include <memory>
#include <string>

#include "CardOriginal.h"

namespace tarn {

// An Expert Witness image (.E01 and what follows it), read through libewf. What its checksums show
// to be damaged, and what lies in a segment that is missing, is refused.
class EwfOriginal : public CardOriginal {
 public:
  // By the first segment's file. Null with the reason in *error. *note gets what is missing, and
  // stays as it is where nothing is.
  static std::unique_ptr<CardOriginal> open(const std::string& path, std::string* note,
                                            std::string* error);
};

}  // namespace tarn
