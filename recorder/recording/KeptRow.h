#pragma once

#include <cstdint>
#include <vector>

#include "base/Export.h"
#include "db/DbRecords.h"
#include "recorder/card/PictureTime.h"

class CApiDb;

// A kept copy: pictures of a recording, copied bit by bit into a chunk of a channel that no camera
// has, where the ring of recordings does not come. It is a recording of its own, with header,
// entries and row, so that whatever reads, checks or repairs recordings knows it as one. Its row
// says more, in columns that mean something else in the row of a camera:
//
//   status      kStatusKept, the camera's channel, and kStatusKeptWhole once all of it is there
//   bitrateSet  key of the recording that it is a copy of
//
// Trigger and frame setting are those of that recording; start and end are those of the pictures.
namespace tarn {

// Channel of the chunks that hold kept copies. No camera records on it.
inline constexpr int8_t kKeptChannel = 126;

// DB_STREAM::status of a kept copy. Below bit 31, so that every reader of the column agrees.
inline constexpr uint32_t kStatusKept = 0x40000000;
// Set with the row's end: what lacks it was interrupted and is nobody's to read.
inline constexpr uint32_t kStatusKeptWhole = 0x20000000;
inline constexpr uint32_t kStatusKeptChannelShift = 20;  // 7 bits
inline constexpr uint32_t kStatusKeptChannelMask = 0x7Fu << kStatusKeptChannelShift;

// Conditions on rows of STREAM: of cameras, of kept copies, and of those that may be read.
#define TARN_SQL_NOT_KEPT "( status & 1073741824 ) = 0"
#define TARN_SQL_KEPT "( status & 1073741824 ) <> 0"
#define TARN_SQL_KEPT_WHOLE "( status & 1610612736 ) = 1610612736 AND recSize <> 0"
static_assert(kStatusKept == 1073741824 && (kStatusKept | kStatusKeptWhole) == 1610612736);

inline bool isKept(const DB_STREAM& row) { return (row.status & kStatusKept) != 0; }
inline bool isWholeCopy(const DB_STREAM& row) {
  return isKept(row) && (row.status & kStatusKeptWhole) != 0 && row.recSize != 0;
}
// The camera's channel, of a kept copy.
inline int keptChannel(const DB_STREAM& row) {
  return static_cast<int>((row.status & kStatusKeptChannelMask) >> kStatusKeptChannelShift);
}
inline uint32_t keptStatus(int channel) {
  return kStatusKept | (static_cast<uint32_t>(channel) << kStatusKeptChannelShift);
}
// Key of the recording that a kept copy is one of, and of any other row its own.
inline uint32_t originalKey(const DB_STREAM& row) {
  return isKept(row) ? row.bitrateSet : row.streamID;
}

// Of rows as the database gives them, leaves those that show each picture once: all of cameras, and
// whole copies of what cameras' rows show no more. False when the database could not be asked.
TARN_API bool leaveOutCopies(CApiDb* db, std::vector<DB_STREAM>* rows);

// The time that an event covers, the seconds before its start included. One that runs has no end.
struct EventPeriod {
  PictureTime from;
  PictureTime to;
};
TARN_API EventPeriod periodOf(const DB_EVENT& event);

// Whether a row shows anything of a time.
TARN_API bool showsAnyOf(const DB_STREAM& row, PictureTime from, PictureTime to);

}  // namespace tarn
