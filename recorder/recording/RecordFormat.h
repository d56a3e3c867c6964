#pragma once

#include <cstdint>

#include "base/Export.h"
#include "chunk/StreamHeaderFormat.h"
#include "recorder/recording/PictureEntry.h"

// The two 32-byte records of a picture chunk, whole. A recording is one stream header followed by
// one entry per picture, back to back in the ring; its pictures lie back to back in the stream
// chunk of the same number. Everything is little-endian. The fields that the library itself knows
// stand in chunk/StreamHeaderFormat.h, those of the recording side only stand here.
namespace tarn {

inline constexpr uint32_t kRecordSize = kPictureRecordSize;  // of the header and of an entry

// Stream header                                              off size
inline constexpr uint32_t kHeaderFirstNumberOff = 4;  //  4  4  number of the first picture
inline constexpr uint32_t kHeaderVersionOff = 28;     // 28  2  1

static_assert(kMarkerOpen == kHeaderOpenMarker);

// Picture entry                                              off size
inline constexpr uint32_t kEntryKeyOff = 0;       //  0  4  streamID of the recording's row
inline constexpr uint32_t kEntrySecondsOff = 16;  // 16  4  presentation time
inline constexpr uint32_t kEntryMillisOff = 20;   // 20  2  0-999
inline constexpr uint32_t kEntryMicrosOff = 22;   // 22  2  0-999, below the millisecond
inline constexpr uint32_t kEntryDecodeOff = 24;   // 24  4  decode - presentation, us, signed
inline constexpr uint32_t kEntryFlagsOff = 28;    // 28  2
inline constexpr uint32_t kEntryCrcOff = 30;      // 30  2  CRC-16 of bytes 0-29
static_assert(kEntryCrcOff + 2 == kRecordSize);

inline constexpr uint16_t kEntryFlagMask = kEntryKeyPicture | kEntryDiscontinuity;
inline constexpr uint32_t kEntryChecksumShift = 2;

// What an entry keeps of the bytes of its picture as they lie in the stream chunk, time stamp unit
// included: `crc` is their crc16(). 1 to 0x3FFF, never 0. Two different pictures of one size have
// the same one once in 16,384 times; every odd number of turned bits shows for certain.
TARN_API uint16_t pictureChecksum(uint16_t crc);
// Both encoders fill kRecordSize bytes, sum and CRC included.
TARN_API void encodeStreamHeader(const StreamHeader& header, uint8_t* out);
TARN_API void encodePictureEntry(const PictureEntry& entry, uint8_t* out);
// False when the sum is wrong; the fields are filled in any case.
TARN_API bool decodeStreamHeader(const uint8_t* bytes, StreamHeader* out);
// False when the CRC is wrong or a part of the time is out of its range; the fields are filled in
// any case.
TARN_API bool decodePictureEntry(const uint8_t* bytes, PictureEntry* out);

}  // namespace tarn
