#pragma once

#include <cstddef>
#include <cstdint>

#include "db/DbRecordFormat.h"
#include "dblog/JournalFormat.h"

namespace tarn {

// How the live records of a journal become rows: one statement for each, in the journal's order.
// Not part of the interface.
struct ReplayRows {
  JournalKind kind;
  uint32_t limit;   // records of a journal of 12 MiB
  const char* sql;  // as far as its values
  size_t columns;
  // Of a valid record; `values` has room for GroupText::kMostColumns.
  void (*values)(const uint8_t* record, uint32_t* values);
};

inline void eventValues(const uint8_t* record, uint32_t* values) {
  DB_EVENT row;
  decodeEventRecord(record, &row);
  const uint32_t all[kEventColumns] = {row.eventID,   row.extTrg,  row.preSec,  row.startDate,
                                       row.startMSec, row.endDate, row.endMSec, row.backOffset};
  for (size_t i = 0; i < kEventColumns; ++i) values[i] = all[i];
}

inline void streamValues(const uint8_t* record, uint32_t* values) {
  DB_STREAM row;
  decodeStreamRecord(record, &row);
  const uint32_t all[kStreamColumns] = {
      row.streamID, row.inTrg,       row.frameSet,  row.bitrateSet, row.recSize,
      row.chunkID,  row.chunkOffset, row.chunkSize, row.status,     row.startDate,
      row.endDate,  row.startMSec,   row.endMSec,   row.backOffset};
  for (size_t i = 0; i < kStreamColumns; ++i) values[i] = all[i];
}

inline constexpr ReplayRows kReplayEvents = {
    JournalKind::kEvent, 0x60000,
    "INSERT OR REPLACE INTO EVENT( eventID, extTrg, preSec, startDate, startMSec, endDate, "
    "endMSec, backOffset )",
    kEventColumns, eventValues};
inline constexpr ReplayRows kReplayStreams = {
    JournalKind::kStream, 0x30000,
    "INSERT OR REPLACE INTO STREAM( streamID, inTrg, frameSet, bitrateSet, recSize, chunkID, "
    "chunkOffset, chunkSize, status, startDate, endDate, startMSec, endMSec, backOffset )",
    kStreamColumns, streamValues};

}  // namespace tarn
