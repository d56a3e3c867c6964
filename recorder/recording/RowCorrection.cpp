#include "recorder/recording/RowCorrection.h"

#include <algorithm>

#include "db/RowStatus.h"

namespace tarn {

int64_t rowCorrection(const DB_STREAM& row, RecordingIndex* index) {
  if ((row.status & kStatusRedated) == 0) return 0;
  PictureEntry entry;
  if (index->entry(0, &entry) == Delivery::kGood)
    return int64_t{row.startDate} - entry.presentation.seconds;
  StreamHeader header;
  if (row.recSize != 0 && index->header(&header) == Delivery::kGood)
    return int64_t{row.endDate} - header.lastTime;
  // The end is that of the picture shown last.
  uint32_t last = 0;
  for (uint32_t i = 0; i < std::min(row.recSize, index->capacity()); ++i) {
    if (index->entry(i, &entry) == Delivery::kGood)
      last = std::max(last, entry.presentation.seconds);
  }
  return last == 0 ? 0 : int64_t{row.endDate} - last;
}

bool moveRow(int64_t seconds, DB_STREAM* row) {
  const int64_t start = row->startDate + seconds;
  const int64_t end = row->endDate + seconds;
  if (start < 0 || end < 0 || std::max(start, end) > UINT32_MAX) return false;
  row->startDate = static_cast<uint32_t>(start);
  row->endDate = static_cast<uint32_t>(end);
  row->status |= kStatusRedated;
  return true;
}

}  // namespace tarn
