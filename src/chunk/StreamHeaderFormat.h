#pragma once

#include <cstdint>

#include "base/Endian.h"

// What the library itself reads and writes of the two 32-byte records of a picture chunk: the
// stream header at the head of a recording, and one picture entry per picture behind it.
namespace tarn {

inline constexpr uint32_t kPictureRecordSize = 32;

// Stream header                                              off size
inline constexpr uint32_t kHeaderMarkerOff = 0;      //  0  4
inline constexpr uint32_t kHeaderDataOffsetOff = 8;  //  8  4  first data byte, stream chunk
inline constexpr uint32_t kHeaderDataSizeOff = 12;   // 12  4  bytes of all pictures
inline constexpr uint32_t kHeaderLastTimeOff = 16;   // 16  4  seconds
inline constexpr uint32_t kHeaderPicturesOff = 20;   // 20  4
inline constexpr uint32_t kHeaderGopsOff = 24;       // 24  4
inline constexpr uint32_t kHeaderSumOff = 30;        // 30  2  over the words in front of it
static_assert(kHeaderSumOff + 2 == kPictureRecordSize);

// Marker of a recording that was not closed.
inline constexpr uint32_t kHeaderOpenMarker = 0xFFFFFFFF;

// Picture entry                                              off size
inline constexpr uint32_t kEntryNumberOff = 4;      //  4  4  one more than the entry before
inline constexpr uint32_t kEntryDataOffsetOff = 8;  //  8  4  absolute in the stream chunk
inline constexpr uint32_t kEntrySizeOff = 12;       // 12  4  bytes

// A picture's own time stamp is looked for in so many of its first bytes, when an interrupted
// recording is repaired; whoever writes one puts it there.
inline constexpr uint32_t kTimeStampWindow = 287;

// 16-bit sum, carry dropped, of the fifteen words in front of it.
inline uint16_t streamHeaderWordSum(const uint8_t* header) {
  uint16_t sum = 0;
  for (uint32_t offset = 0; offset < kHeaderSumOff; offset += 2)
    sum = static_cast<uint16_t>(sum + getLe16(header + offset));
  return sum;
}

}  // namespace tarn
