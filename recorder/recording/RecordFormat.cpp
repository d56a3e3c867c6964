#include "recorder/recording/RecordFormat.h"

#include "base/Crc16.h"
#include "base/Endian.h"

namespace tarn {
namespace {

constexpr uint32_t kChecksumBits = 14;
constexpr uint16_t kChecksumMask = (1u << kChecksumBits) - 1;

}  // namespace

// The CRC's polynomial has the factor x + 1, so an odd number of turned bits changes the parity of
// the CRC. Folding keeps the parity, and so does the value that stands for 0: all ones, which are
// an even number, too.
uint16_t pictureChecksum(uint16_t crc) {
  const auto folded = static_cast<uint16_t>((crc & kChecksumMask) ^ (crc >> kChecksumBits));
  return folded != 0 ? folded : kChecksumMask;
}

void encodeStreamHeader(const StreamHeader& header, uint8_t* out) {
  putLe32(out + kHeaderMarkerOff, header.marker);
  putLe32(out + kHeaderFirstNumberOff, header.firstNumber);
  putLe32(out + kHeaderDataOffsetOff, header.dataOffset);
  putLe32(out + kHeaderDataSizeOff, header.dataSize);
  putLe32(out + kHeaderLastTimeOff, header.lastTime);
  putLe32(out + kHeaderPicturesOff, header.pictures);
  putLe32(out + kHeaderGopsOff, header.gops);
  putLe16(out + kHeaderVersionOff, header.version);
  putLe16(out + kHeaderSumOff, streamHeaderWordSum(out));
}

bool decodeStreamHeader(const uint8_t* bytes, StreamHeader* out) {
  out->marker = getLe32(bytes + kHeaderMarkerOff);
  out->firstNumber = getLe32(bytes + kHeaderFirstNumberOff);
  out->dataOffset = getLe32(bytes + kHeaderDataOffsetOff);
  out->dataSize = getLe32(bytes + kHeaderDataSizeOff);
  out->lastTime = getLe32(bytes + kHeaderLastTimeOff);
  out->pictures = getLe32(bytes + kHeaderPicturesOff);
  out->gops = getLe32(bytes + kHeaderGopsOff);
  out->version = getLe16(bytes + kHeaderVersionOff);
  return getLe16(bytes + kHeaderSumOff) == streamHeaderWordSum(bytes);
}

void encodePictureEntry(const PictureEntry& entry, uint8_t* out) {
  putLe32(out + kEntryKeyOff, entry.key);
  putLe32(out + kEntryNumberOff, entry.number);
  putLe32(out + kEntryDataOffsetOff, entry.dataOffset);
  putLe32(out + kEntrySizeOff, entry.size);
  putLe32(out + kEntrySecondsOff, entry.presentation.seconds);
  putLe16(out + kEntryMillisOff, entry.presentation.milliseconds());
  putLe16(out + kEntryMicrosOff, static_cast<uint16_t>(entry.presentation.micros % 1000));
  putLe32(out + kEntryDecodeOff, static_cast<uint32_t>(entry.decodeOffsetUs));
  const unsigned checksum = unsigned{entry.checksum} << kEntryChecksumShift;
  putLe16(out + kEntryFlagsOff, static_cast<uint16_t>((entry.flags & kEntryFlagMask) | checksum));
  putLe16(out + kEntryCrcOff, crc16(out, kEntryCrcOff));
}

bool decodePictureEntry(const uint8_t* bytes, PictureEntry* out) {
  const uint32_t millis = getLe16(bytes + kEntryMillisOff);
  const uint32_t micros = getLe16(bytes + kEntryMicrosOff);
  out->key = getLe32(bytes + kEntryKeyOff);
  out->number = getLe32(bytes + kEntryNumberOff);
  out->dataOffset = getLe32(bytes + kEntryDataOffsetOff);
  out->size = getLe32(bytes + kEntrySizeOff);
  out->presentation = {getLe32(bytes + kEntrySecondsOff), millis * 1000 + micros};
  out->decodeOffsetUs = static_cast<int32_t>(getLe32(bytes + kEntryDecodeOff));
  const uint16_t flags = getLe16(bytes + kEntryFlagsOff);
  out->flags = flags & kEntryFlagMask;
  out->checksum = static_cast<uint16_t>(flags >> kEntryChecksumShift);
  return millis < 1000 && micros < 1000 &&
         getLe16(bytes + kEntryCrcOff) == crc16(bytes, kEntryCrcOff);
}

}  // namespace tarn
