#include "RowFacts.h"

#include <algorithm>

#include "base/Wrap.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordingIndex.h"
#include "recorder/rows/RowQueries.h"

namespace tarn {
namespace {

constexpr char kSqlWholeCopies[] = "SELECT * FROM STREAM WHERE " TARN_SQL_KEPT_WHOLE;

}  // namespace

std::optional<uint64_t> recordedBytes(const DB_STREAM& row) {
  RecordingIndex index(row);
  StreamHeader header;
  const Delivery delivered = index.header(&header);
  if (delivered == Delivery::kRefused) return std::nullopt;
  if (row.recSize != 0) return delivered == Delivery::kGood ? header.dataSize : 0;
  // Of one that runs its header tells nothing yet.
  uint64_t bytes = 0;
  PictureEntry entry;
  const uint32_t first = index.firstNumber();
  for (uint32_t i = 0; i < index.capacity(); ++i) {
    const Delivery found = index.entry(i, &entry);
    if (found == Delivery::kRefused) return std::nullopt;
    if (found == Delivery::kBad || entry.number != wrapAdd32(first, i)) break;
    bytes += entry.size;
  }
  return bytes;
}

bool readWholeCopies(CApiDb* db, std::vector<DB_STREAM>* copies) {
  return RowQueries(db, nullptr).streams(kSqlWholeCopies, copies);
}

bool isKeptIn(const std::vector<DB_STREAM>& copies, const DB_STREAM& row) {
  return std::any_of(copies.begin(), copies.end(),
                     [&](const DB_STREAM& copy) { return originalKey(copy) == row.streamID; });
}

bool isKeptIn(const std::vector<DB_STREAM>& copies, const DB_EVENT& event) {
  const EventPeriod period = periodOf(event);
  return std::any_of(copies.begin(), copies.end(), [&](const DB_STREAM& copy) {
    return showsAnyOf(copy, period.from, period.to);
  });
}

}  // namespace tarn
