#pragma once

#include <cstdint>

#include "recorder/card/PictureTime.h"

// What a recording keeps beside its pictures: a header, and an entry for each picture.
namespace tarn {

// A recording that is not closed; the repair after a power loss looks at these only and keeps the
// marker, so a repaired recording has it too.
inline constexpr uint32_t kMarkerOpen = 0xFFFFFFFF;
// Written last of all, when the row says the same as the header ("STRM" on the card).
inline constexpr uint32_t kMarkerClosed = 0x4D525453;
inline constexpr uint16_t kRecordVersion = 1;

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

// Flags of an entry. The bits above them hold the checksum of the picture's bytes.
inline constexpr uint16_t kEntryKeyPicture = 0x0001;
// First picture of a session, or of what follows a gap. A recording whose first picture lacks it
// continues the session's recording before it without a loss.
inline constexpr uint16_t kEntryDiscontinuity = 0x0002;

struct PictureEntry {
  uint32_t key = 0;
  uint32_t number = 0;
  uint32_t dataOffset = 0;
  uint32_t size = 0;
  PictureTime presentation;
  int32_t decodeOffsetUs = 0;
  uint16_t flags = 0;
  uint16_t checksum = 0;  // as pictureChecksum() makes it; 0: none, as on cards written before

  bool isKey() const { return (flags & kEntryKeyPicture) != 0; }
  bool isDiscontinuity() const { return (flags & kEntryDiscontinuity) != 0; }
  PictureTime decodeTime() const {
    return PictureTime::fromMicros(presentation.totalMicros() + decodeOffsetUs);
  }
};

}  // namespace tarn
