#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"
#include "recorder/card/Source.h"

namespace tarn {

class CardBytes;

// Whether a card is what it says it is.
struct GeometryReport {
  // kBad: its parts contradict each other, the format or the device. kRefused: it cannot be opened
  // or did not give what must be read, which proves nothing.
  Delivery verdict = Delivery::kRefused;
  bool opened = false;
  // For a person, unless all is well: the field, both values, and what can be done.
  std::string text;
  // First byte of the first stream chunk on the device, once that is known; else 0.
  uint64_t streamByte = 0;

  bool ok() const { return verdict == Delivery::kGood; }
};

// How far the FAT is followed. Every start looks at the root directory, and at the chains of all
// but stream and picture files, a few KiB of the FAT that lie together. The chains of those two
// grow with the card (32 MiB of FAT on one of 256 GB), so they are the matter of a check; where a
// start is concerned, number, size and first cluster of each of them must be right.
enum class GeometryDepth : uint8_t { kStart, kWhole };

// The gate in front of everything that writes to a card: chunks are reached by arithmetic alone, so
// one wrong bit of the info file would have recordings deleted, or data written over the directory.
//
// What must agree: the boot sector's fields and the info file's place; its seal, where it has one;
// counts and sizes with the format's bounds; all chunks inside device and volume, behind the root
// directory, and no two in each other's way; name, size and first cluster of every chunk file in
// the root directory; and its cluster chain, in one piece, in at least one of the FATs (the
// recorder itself does not read them: a FAT with a good twin is a matter for a check, not a reason
// not to record). Cards of another formatter pass when they hold to that: order and gaps of the
// families, the root directory's cluster number and what lies beside are free.
//
// Reads only, about as much as the directory is long. Used by one thread; nothing throws.
class TARN_API CardGeometry {
 public:
  static GeometryReport verify(const std::string& path, GeometryDepth depth);
  // The recorder's own card, as every start of anything that writes to it.
  static GeometryReport verifyRecorder();
  // The same of bytes in hand. `path` names the card in messages.
  static GeometryReport verify(const CardBytes& card, const std::string& path, GeometryDepth depth);
};

}  // namespace tarn
