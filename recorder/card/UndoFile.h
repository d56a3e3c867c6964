#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"

namespace tarn {

// What stood on a card before a repair, and what it wrote there. Not part of the interface.
//
// In the file, little-endian: "TARNUNDO", bytes of the card (8), number of pieces (4); for each
// piece its offset (8), its length (4), the old bytes, the new ones; CRC-16 of all that (2).
class TARN_API UndoFile {
 public:
  struct Piece {
    uint64_t offset = 0;
    std::vector<uint8_t> before;
    std::vector<uint8_t> after;  // as many
  };

  uint64_t cardBytes = 0;
  std::vector<Piece> pieces;

  // Makes a new file and flushes it. -1 with the reason in *error, also when there is one.
  int save(const std::string& path, std::string* error) const;
  // What `next` holds becomes the end of `path`, and `next` goes: one file for two repairs, of
  // which the second was on the card that the first left. -1 with the reason in *error.
  static int join(const std::string& path, const std::string& next, std::string* error);
  // -1 with the reason in *error when it cannot be read or is not what was saved.
  int load(const std::string& path, std::string* error);

 private:
  std::vector<uint8_t> encode() const;
  bool decode(const std::vector<uint8_t>& bytes);
};

}  // namespace tarn
