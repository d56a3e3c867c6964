#include "recorder/recording/RowCorrection.h"

#include <algorithm>

#include "db/RowStatus.h"

namespace tarn {

bool knowsRowCorrection(const DB_STREAM& row, RecordingIndex* index, int64_t* seconds) {
  *seconds = 0;
  if ((row.status & kStatusRedated) == 0) return true;
  PictureEntry entry;
  if (index->entry(0, &entry) == Delivery::kGood) {
    *seconds = int64_t{row.startDate} - entry.presentation.seconds;
    return true;
  }
  StreamHeader header;
  if (row.recSize != 0 && index->header(&header) == Delivery::kGood) {
    *seconds = int64_t{row.endDate} - header.lastTime;
    return true;
  }
  // The end is that of the picture shown last.
  uint32_t last = 0;
  for (uint32_t i = 0; i < std::min(row.recSize, index->capacity()); ++i) {
    if (index->entry(i, &entry) == Delivery::kGood)
      last = std::max(last, entry.presentation.seconds);
  }
  if (last != 0) *seconds = int64_t{row.endDate} - last;
  return last != 0;
}

int64_t rowCorrection(const DB_STREAM& row, RecordingIndex* index) {
  int64_t seconds = 0;
  knowsRowCorrection(row, index, &seconds);
  return seconds;
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
