#pragma once

#include <cstdint>

// Arithmetic and checks of a deletion from the oldest end of a ring area.
namespace tarn {

// The range to delete and the area's addresses, all in bytes from the area's start.
struct DeleteRange {
  uint32_t start;  // A
  uint32_t end;    // B, 0 when the range ends at the area's end
  uint32_t use;    // U
  uint32_t free;   // F
};

// End of `size` bytes from `start` on in an area of `areaSize` bytes: 0 when it is the area's end.
uint32_t deleteRangeEnd(uint32_t start, uint32_t size, uint32_t areaSize);

// Logs one warning when the range does not lie at the oldest end of the data in use.
void checkDeleteRange(const DeleteRange& range);

}  // namespace tarn
