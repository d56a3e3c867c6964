#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "CardOriginal.h"
#include "base/UniqueFd.h"
#include "recorder/card/ComposedVolume.h"

namespace tarn {

// A folder with the chunk files of a card, as a PC copied them, whatever the case of their names:
// the volume is composed around them. A file that is missing or too short is refused, as by a
// device: what it held is not known.
class FolderOriginal : public CardOriginal {
 public:
  // Null with the reason in *error. *note gets what is missing, "" for nothing.
  static std::unique_ptr<FolderOriginal> open(const std::string& folder, std::string* note,
                                              std::string* error);

  uint64_t size() const override { return volume_.layout().sizeBytes(); }
  bool read(uint64_t offset, void* out, size_t length) override;

 private:
  using Chunk = std::pair<int, uint32_t>;  // family, number

  bool list(const std::string& folder, std::string* error);
  std::string missing() const;
  bool readPiece(uint64_t offset, uint8_t* out, size_t* length);
  bool readChunk(const Chunk& chunk, uint64_t offset, uint8_t* out, size_t length);

  ComposedVolume volume_;
  std::map<Chunk, std::string> files_;
  Chunk openChunk_ = {-1, 0};
  UniqueFd open_;
};

}  // namespace tarn
