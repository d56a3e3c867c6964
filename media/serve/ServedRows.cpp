#include "media/serve/ServedRows.h"

#include <algorithm>

namespace tarn {

const ServedRecording* ServedRows::find(uint32_t streamID) const {
  const auto at = std::lower_bound(
      recordings.begin(), recordings.end(), streamID,
      [](const ServedRecording& one, uint32_t key) { return one.row.streamID < key; });
  return at != recordings.end() && at->row.streamID == streamID ? &*at : nullptr;
}

}  // namespace tarn
