#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"
#include "recorder/card/CardLayout.h"

namespace tarn {

// The volume around chunk files that somebody copied off a card one by one: what lies in front of
// them, boot sector, FATs and root directory, as a formatter would have made it for these files at
// the places that the info file tells. Not part of the interface. Used by one thread.
class TARN_API ComposedVolume {
 public:
  // From the bytes of TAIF0000. 0, or -1 with the reason in *error.
  int compose(const uint8_t* infoFile, size_t length, std::string* error);

  const CardLayout& layout() const { return layout_; }
  // Everything in front of that byte is composed; behind it lie the chunks.
  uint64_t frontBytes() const { return layout_.dataByte() + layout_.rootBytes(); }
  void readFront(uint64_t offset, uint8_t* out, size_t length) const;
  // Which chunk file a byte belongs to. False for one that belongs to none.
  bool chunkAt(uint64_t byte, int* type, uint32_t* chunk) const;

 private:
  void readFat(uint64_t offset, uint8_t* out, size_t length) const;

  CardLayout layout_;
  std::vector<uint8_t> reserved_;  // its beginning; zeros behind
  std::vector<uint8_t> root_;
};

// A chunk file's family and number from its name in whatever case ("ckst0007"); false for others.
TARN_API bool isChunkFileName(const std::string& name, int* type, uint32_t* chunk);
// "CKST0007"
TARN_API std::string nameOfChunkFile(int type, uint32_t chunk);

}  // namespace tarn
