#pragma once

#include <cstdint>

#include "db/DbRecords.h"
#include "recorder/recording/RecordingIndex.h"

namespace tarn {

// Whole seconds that the pictures of a recording are later than their entries, their stamps and
// their header say: a recording that was made before the clock was known is re-dated by its row
// alone, and its start against the time of its first entry is the correction. 0 of all others, and
// where nothing of it can be read that would tell.
TARN_API int64_t rowCorrection(const DB_STREAM& row, RecordingIndex* index);
// The same; false where nothing tells it, or the card does not deliver what would.
TARN_API bool knowsRowCorrection(const DB_STREAM& row, RecordingIndex* index, int64_t* seconds);

// The row with its times moved by whole seconds and marked as re-dated. False when a time would
// leave the range of its column: such a row stays as it is.
TARN_API bool moveRow(int64_t seconds, DB_STREAM* row);

}  // namespace tarn
