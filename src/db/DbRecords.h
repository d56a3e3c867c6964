#pragma once

#include <cstddef>
#include <cstdint>

// Rows of the EVENT and STREAM tables. Field order is column order: `SELECT *` fills a record
// field by field, bit n of an update mask stands for field n, and the journal stores the fields
// in this order too (see db/DbRecordFormat.h). Unsigned throughout.

// One recorded event.
struct DB_EVENT {
  uint32_t eventID;     // row key; assigned by the database on insert, never set by an update
  uint16_t extTrg;      // external trigger number, chosen by the caller; filter key of the lists
  uint16_t preSec;      // pre-event seconds, stored unchanged
  uint32_t startDate;   // start time, whole seconds
  uint32_t endDate;     // end time, whole seconds
  uint16_t startMSec;   // millisecond part of the start time
  uint16_t endMSec;     // millisecond part of the end time
  uint32_t backOffset;  // byte position of this row's journal record; filled in on insert
};
static_assert(sizeof(DB_EVENT) == 24);
static_assert(offsetof(DB_EVENT, eventID) == 0);
static_assert(offsetof(DB_EVENT, extTrg) == 4);
static_assert(offsetof(DB_EVENT, preSec) == 6);
static_assert(offsetof(DB_EVENT, startDate) == 8);
static_assert(offsetof(DB_EVENT, endDate) == 12);
static_assert(offsetof(DB_EVENT, startMSec) == 16);
static_assert(offsetof(DB_EVENT, endMSec) == 18);
static_assert(offsetof(DB_EVENT, backOffset) == 20);

// One stretch of recorded stream data lying in one chunk.
struct DB_STREAM {
  uint32_t streamID;    // row key; assigned by the database on insert, never set by an update
  uint16_t inTrg;       // trigger number, given by the caller; filter key of the stream count
  uint16_t frameSet;    // frame setting, stored unchanged
  uint32_t bitrateSet;  // bit-rate setting, stored unchanged
  // Recorded size. The recorder keeps the number of pictures here; 0 until the recording closes.
  uint32_t recSize;
  uint32_t chunkID;  // number of the chunk that holds the data
  // First byte and number of bytes of the recording in its chunk. The recorder keeps places of the
  // picture chunk here; a picture entry then leads to the stream data.
  uint32_t chunkOffset;
  uint32_t chunkSize;
  uint32_t status;      // state word, owned by the recording side, stored unchanged
  uint32_t startDate;   // start time, whole seconds
  uint32_t endDate;     // end time, whole seconds; 0 = still being recorded
  uint16_t startMSec;   // millisecond part of the start time
  uint16_t endMSec;     // millisecond part of the end time
  uint32_t backOffset;  // byte position of this row's journal record; filled in on insert
};
static_assert(sizeof(DB_STREAM) == 48);
static_assert(offsetof(DB_STREAM, streamID) == 0);
static_assert(offsetof(DB_STREAM, inTrg) == 4);
static_assert(offsetof(DB_STREAM, frameSet) == 6);
static_assert(offsetof(DB_STREAM, bitrateSet) == 8);
static_assert(offsetof(DB_STREAM, recSize) == 12);
static_assert(offsetof(DB_STREAM, chunkID) == 16);
static_assert(offsetof(DB_STREAM, chunkOffset) == 20);
static_assert(offsetof(DB_STREAM, chunkSize) == 24);
static_assert(offsetof(DB_STREAM, status) == 28);
static_assert(offsetof(DB_STREAM, startDate) == 32);
static_assert(offsetof(DB_STREAM, endDate) == 36);
static_assert(offsetof(DB_STREAM, startMSec) == 40);
static_assert(offsetof(DB_STREAM, endMSec) == 42);
static_assert(offsetof(DB_STREAM, backOffset) == 44);

// Columns of a partial update: bit n selects field n of the record.
using DB_EVENT_REG_BIT = uint32_t;
using DB_STREAM_REG_BIT = uint32_t;

inline constexpr DB_EVENT_REG_BIT kEventRegEventID = 0x0001;  // ignored: the key is never updated
inline constexpr DB_EVENT_REG_BIT kEventRegExtTrg = 0x0002;
inline constexpr DB_EVENT_REG_BIT kEventRegPreSec = 0x0004;
inline constexpr DB_EVENT_REG_BIT kEventRegStartDate = 0x0008;
inline constexpr DB_EVENT_REG_BIT kEventRegEndDate = 0x0010;
inline constexpr DB_EVENT_REG_BIT kEventRegStartMSec = 0x0020;
inline constexpr DB_EVENT_REG_BIT kEventRegEndMSec = 0x0040;
inline constexpr DB_EVENT_REG_BIT kEventRegBackOffset = 0x0080;
// What an update keeps of a mask: every field but the key. Higher bits are dropped silently.
inline constexpr DB_EVENT_REG_BIT kEventRegUpdatable = 0x00FE;

inline constexpr DB_STREAM_REG_BIT kStreamRegStreamID = 0x0001;  // ignored: the key
inline constexpr DB_STREAM_REG_BIT kStreamRegInTrg = 0x0002;
inline constexpr DB_STREAM_REG_BIT kStreamRegFrameSet = 0x0004;
inline constexpr DB_STREAM_REG_BIT kStreamRegBitrateSet = 0x0008;
inline constexpr DB_STREAM_REG_BIT kStreamRegRecSize = 0x0010;
inline constexpr DB_STREAM_REG_BIT kStreamRegChunkID = 0x0020;
inline constexpr DB_STREAM_REG_BIT kStreamRegChunkOffset = 0x0040;
inline constexpr DB_STREAM_REG_BIT kStreamRegChunkSize = 0x0080;
inline constexpr DB_STREAM_REG_BIT kStreamRegStatus = 0x0100;
inline constexpr DB_STREAM_REG_BIT kStreamRegStartDate = 0x0200;
inline constexpr DB_STREAM_REG_BIT kStreamRegEndDate = 0x0400;
inline constexpr DB_STREAM_REG_BIT kStreamRegStartMSec = 0x0800;
inline constexpr DB_STREAM_REG_BIT kStreamRegEndMSec = 0x1000;
inline constexpr DB_STREAM_REG_BIT kStreamRegBackOffset = 0x2000;
inline constexpr DB_STREAM_REG_BIT kStreamRegUpdatable = 0x3FFE;
