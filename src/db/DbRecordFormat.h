#pragma once

#include <cstdint>

#include "db/DbRecords.h"

// Stored form of the rows, as the journal writes them: the fields in record order, little-endian,
// no padding, no length prefix.
namespace tarn {

// EVENT                                                              off size
inline constexpr uint32_t kEventIdOff = 0;                             //   0  4
inline constexpr uint32_t kEventExtTrgOff = kEventIdOff + 4;           //   4  2
inline constexpr uint32_t kEventPreSecOff = kEventExtTrgOff + 2;       //   6  2
inline constexpr uint32_t kEventStartDateOff = kEventPreSecOff + 2;    //   8  4
inline constexpr uint32_t kEventEndDateOff = kEventStartDateOff + 4;   //  12  4
inline constexpr uint32_t kEventStartMSecOff = kEventEndDateOff + 4;   //  16  2
inline constexpr uint32_t kEventEndMSecOff = kEventStartMSecOff + 2;   //  18  2
inline constexpr uint32_t kEventBackOffsetOff = kEventEndMSecOff + 2;  //  20  4
inline constexpr uint32_t kStoredEventSize = kEventBackOffsetOff + 4;
static_assert(kStoredEventSize == 24);
inline constexpr int32_t kEventColumns = 8;

// STREAM
inline constexpr uint32_t kStreamIdOff = 0;                                 //   0  4
inline constexpr uint32_t kStreamInTrgOff = kStreamIdOff + 4;               //   4  2
inline constexpr uint32_t kStreamFrameSetOff = kStreamInTrgOff + 2;         //   6  2
inline constexpr uint32_t kStreamBitrateSetOff = kStreamFrameSetOff + 2;    //   8  4
inline constexpr uint32_t kStreamRecSizeOff = kStreamBitrateSetOff + 4;     //  12  4
inline constexpr uint32_t kStreamChunkIdOff = kStreamRecSizeOff + 4;        //  16  4
inline constexpr uint32_t kStreamChunkOffsetOff = kStreamChunkIdOff + 4;    //  20  4
inline constexpr uint32_t kStreamChunkSizeOff = kStreamChunkOffsetOff + 4;  //  24  4
inline constexpr uint32_t kStreamStatusOff = kStreamChunkSizeOff + 4;       //  28  4
inline constexpr uint32_t kStreamStartDateOff = kStreamStatusOff + 4;       //  32  4
inline constexpr uint32_t kStreamEndDateOff = kStreamStartDateOff + 4;      //  36  4
inline constexpr uint32_t kStreamStartMSecOff = kStreamEndDateOff + 4;      //  40  2
inline constexpr uint32_t kStreamEndMSecOff = kStreamStartMSecOff + 2;      //  42  2
inline constexpr uint32_t kStreamBackOffsetOff = kStreamEndMSecOff + 2;     //  44  4
inline constexpr uint32_t kStoredStreamSize = kStreamBackOffsetOff + 4;
static_assert(kStoredStreamSize == 48);
inline constexpr int32_t kStreamColumns = 14;

// Each moves exactly kStoredEventSize or kStoredStreamSize bytes; buffers need no alignment.
void encodeEvent(const DB_EVENT& record, void* out);
void decodeEvent(const void* in, DB_EVENT* record);
void encodeStream(const DB_STREAM& record, void* out);
void decodeStream(const void* in, DB_STREAM* record);

}  // namespace tarn
