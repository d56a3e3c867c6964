#pragma once

#include <cstdint>

#include "dblog/JournalFormat.h"

namespace tarn {

// Of a place that judgeJournalCopies() calls refused: whether one copy came and is erased. A record
// lies in both copies before anybody is told of it, so none that counts lies there, and the journal
// ends, unless records follow or its free offset says otherwise: that is the caller's to know.
inline bool endsBesideRefusedCopy(const uint8_t* original, const uint8_t* mirror) {
  const uint8_t* came = original != nullptr ? original : mirror;
  return (original == nullptr || mirror == nullptr) && came != nullptr &&
         journalMarker(came) == kMarkerErased;
}

}  // namespace tarn
