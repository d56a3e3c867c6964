#pragma once

#include <cstdint>

// Bits of STREAM's columns that have a meaning to whoever repairs rows. All other bits are the
// caller's, stored unchanged.
namespace tarn {

// DB_STREAM::status
inline constexpr uint32_t kStatusRecording = 0x1;     // until the recording is closed
inline constexpr uint32_t kStatusNotVideo = 0x300;    // any of them: no time stamps to go by
inline constexpr uint32_t kStatusRepaired = 0x10000;  // closed by a repair
inline constexpr uint32_t kStatusRedated = 0x20000;   // its times are later than its entries say
inline constexpr uint32_t kStatusRedating = 0x40000;  // and recordings behind it are to follow

inline constexpr uint32_t kStatusToTakeBack = 0x80000;    // is to get its entries' times again
inline constexpr uint32_t kStatusTakingBack = 0x8000000;  // and with it all that are to

// DB_EVENT::startMSec and endMSec, which count to 999: the time is to be taken back with them.
inline constexpr uint16_t kEventToTakeBack = 0x8000;

// DB_STREAM::frameSet
inline constexpr uint16_t kFrameSetAudio = 0x80;
// The same in statements.
#define TARN_SQL_AUDIO "128"

}  // namespace tarn
