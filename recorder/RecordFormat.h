#pragma once

#include <cstdint>

#include "base/Export.h"
#include "recorder/PictureTime.h"

// The two 32-byte records of a picture chunk. A recording is one stream header followed by one
// entry per picture, back to back in the ring; its pictures lie back to back in the stream chunk of
// the same number. Everything is little-endian.
namespace tarn {

inline constexpr uint32_t kRecordSize = 32;  // of the header and of an entry

// Stream header                                              off size
inline constexpr uint32_t kHdrMarkerOff = 0;       //  0  4  open or closed, below
inline constexpr uint32_t kHdrFirstNumberOff = 4;  //  4  4  number of the first picture
inline constexpr uint32_t kHdrDataOffsetOff = 8;   //  8  4  first data byte in the stream chunk
inline constexpr uint32_t kHdrDataSizeOff = 12;    // 12  4  bytes of all pictures, mod 2^32
inline constexpr uint32_t kHdrLastTimeOff = 16;    // 16  4  seconds, latest picture
inline constexpr uint32_t kHdrPicturesOff = 20;    // 20  4
inline constexpr uint32_t kHdrGopsOff = 24;        // 24  4  key pictures
inline constexpr uint32_t kHdrVersionOff = 28;     // 28  2  1
inline constexpr uint32_t kHdrSumOff = 30;         // 30  2  sum of the 15 words before it
static_assert(kHdrSumOff + 2 == kRecordSize);

// A recording that is not closed; the repair after a power loss looks at these only and keeps the
// marker, so a repaired recording has it too.
inline constexpr uint32_t kMarkerOpen = 0xFFFFFFFF;
// Written last of all, when the row says the same as the header ("STRM" on the card).
inline constexpr uint32_t kMarkerClosed = 0x4D525453;
inline constexpr uint16_t kRecordVersion = 1;

// Picture entry                                              off size
inline constexpr uint32_t kEntKeyOff = 0;         //  0  4  streamID of the recording's row
inline constexpr uint32_t kEntNumberOff = 4;      //  4  4  one more than the entry before
inline constexpr uint32_t kEntDataOffsetOff = 8;  //  8  4  absolute in the stream chunk
inline constexpr uint32_t kEntSizeOff = 12;       // 12  4  bytes, time stamp unit included
inline constexpr uint32_t kEntSecondsOff = 16;    // 16  4  presentation time
inline constexpr uint32_t kEntMillisOff = 20;     // 20  2  0-999
inline constexpr uint32_t kEntMicrosOff = 22;     // 22  2  0-999, below the millisecond
inline constexpr uint32_t kEntDecodeOff = 24;     // 24  4  decode - presentation, us, signed
inline constexpr uint32_t kEntFlagsOff = 28;      // 28  2
inline constexpr uint32_t kEntCrcOff = 30;        // 30  2  CRC-16 of bytes 0-29
static_assert(kEntCrcOff + 2 == kRecordSize);

// Flags of an entry; the others are 0.
inline constexpr uint16_t kEntryKeyPicture = 0x0001;
// First picture of a session, or of what follows a gap. A recording whose first picture lacks it
// continues the session's recording before it without a loss.
inline constexpr uint16_t kEntryDiscontinuity = 0x0002;

struct StreamHeader {
  uint32_t marker = kMarkerOpen;
  uint32_t firstNumber = 0;
  uint32_t dataOffset = 0;
  uint32_t dataSize = 0;
  uint32_t lastTime = 0;
  uint32_t pictures = 0;
  uint32_t gops = 0;
  uint16_t version = kRecordVersion;
};

struct PictureEntry {
  uint32_t key = 0;
  uint32_t number = 0;
  uint32_t dataOffset = 0;
  uint32_t size = 0;
  PictureTime presentation;
  int32_t decodeOffsetUs = 0;
  uint16_t flags = 0;

  bool isKey() const { return (flags & kEntryKeyPicture) != 0; }
  bool isDiscontinuity() const { return (flags & kEntryDiscontinuity) != 0; }
  PictureTime decodeTime() const {
    return PictureTime::fromMicros(presentation.totalMicros() + decodeOffsetUs);
  }
};

// 16-bit sum, carry dropped, of the fifteen words in front of it.
TARN_API uint16_t streamHeaderSum(const uint8_t* bytes);
// Both encoders fill kRecordSize bytes, sum and CRC included.
TARN_API void encodeStreamHeader(const StreamHeader& header, uint8_t* out);
TARN_API void encodePictureEntry(const PictureEntry& entry, uint8_t* out);
// False when the sum is wrong; the fields are filled in any case.
TARN_API bool decodeStreamHeader(const uint8_t* bytes, StreamHeader* out);
// False when the CRC is wrong or a part of the time is out of its range; the fields are filled in
// any case.
TARN_API bool decodePictureEntry(const uint8_t* bytes, PictureEntry* out);

}  // namespace tarn
