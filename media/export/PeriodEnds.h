#pragma once

#include <cstdint>

#include "recorder/recording/RecordingReader.h"

namespace tarn {

// Whether a picture that is presented after `to` is still needed by one before it: pictures are
// stored in decode order, and no decoder holds back more than 16 of them.
inline bool neededUpTo(PictureTime to, RecordingReader* reader, uint32_t index) {
  constexpr uint32_t kMostReordered = 16;
  PictureEntry entry;
  for (uint32_t ahead = 1; ahead <= kMostReordered; ++ahead) {
    if (!reader->picture(index + ahead, &entry) || entry.isKey()) return false;
    if (!(to < entry.presentation)) return true;
  }
  return false;
}

// Where the sound beside a closed recording ends: its last picture is seen for a while, and of one
// that was repaired only the second is known.
inline PictureTime soundEndBeside(const DB_STREAM& row) {
  const int64_t behind = row.endMSec == 0 ? 1000000 : 100000;
  const PictureTime end = {row.endDate, row.endMSec * 1000u};
  return PictureTime::fromMicros(end.totalMicros() + behind);
}

}  // namespace tarn
