#include "recorder/RecordFormat.h"

#include "base/Crc16.h"
#include "base/Endian.h"

namespace tarn {

uint16_t streamHeaderSum(const uint8_t* bytes) {
  uint32_t sum = 0;
  for (uint32_t off = 0; off < kHdrSumOff; off += 2) sum += getLe16(bytes + off);
  return static_cast<uint16_t>(sum);
}

void encodeStreamHeader(const StreamHeader& header, uint8_t* out) {
  putLe32(out + kHdrMarkerOff, header.marker);
  putLe32(out + kHdrFirstNumberOff, header.firstNumber);
  putLe32(out + kHdrDataOffsetOff, header.dataOffset);
  putLe32(out + kHdrDataSizeOff, header.dataSize);
  putLe32(out + kHdrLastTimeOff, header.lastTime);
  putLe32(out + kHdrPicturesOff, header.pictures);
  putLe32(out + kHdrGopsOff, header.gops);
  putLe16(out + kHdrVersionOff, header.version);
  putLe16(out + kHdrSumOff, streamHeaderSum(out));
}

bool decodeStreamHeader(const uint8_t* bytes, StreamHeader* out) {
  out->marker = getLe32(bytes + kHdrMarkerOff);
  out->firstNumber = getLe32(bytes + kHdrFirstNumberOff);
  out->dataOffset = getLe32(bytes + kHdrDataOffsetOff);
  out->dataSize = getLe32(bytes + kHdrDataSizeOff);
  out->lastTime = getLe32(bytes + kHdrLastTimeOff);
  out->pictures = getLe32(bytes + kHdrPicturesOff);
  out->gops = getLe32(bytes + kHdrGopsOff);
  out->version = getLe16(bytes + kHdrVersionOff);
  return getLe16(bytes + kHdrSumOff) == streamHeaderSum(bytes);
}

void encodePictureEntry(const PictureEntry& entry, uint8_t* out) {
  putLe32(out + kEntKeyOff, entry.key);
  putLe32(out + kEntNumberOff, entry.number);
  putLe32(out + kEntDataOffsetOff, entry.dataOffset);
  putLe32(out + kEntSizeOff, entry.size);
  putLe32(out + kEntSecondsOff, entry.presentation.seconds);
  putLe16(out + kEntMillisOff, entry.presentation.milliseconds());
  putLe16(out + kEntMicrosOff, static_cast<uint16_t>(entry.presentation.micros % 1000));
  putLe32(out + kEntDecodeOff, static_cast<uint32_t>(entry.decodeOffsetUs));
  putLe16(out + kEntFlagsOff, entry.flags);
  putLe16(out + kEntCrcOff, crc16(out, kEntCrcOff));
}

bool decodePictureEntry(const uint8_t* bytes, PictureEntry* out) {
  const uint32_t millis = getLe16(bytes + kEntMillisOff);
  const uint32_t micros = getLe16(bytes + kEntMicrosOff);
  out->key = getLe32(bytes + kEntKeyOff);
  out->number = getLe32(bytes + kEntNumberOff);
  out->dataOffset = getLe32(bytes + kEntDataOffsetOff);
  out->size = getLe32(bytes + kEntSizeOff);
  out->presentation = {getLe32(bytes + kEntSecondsOff), millis * 1000 + micros};
  out->decodeOffsetUs = static_cast<int32_t>(getLe32(bytes + kEntDecodeOff));
  out->flags = getLe16(bytes + kEntFlagsOff);
  return millis < 1000 && micros < 1000 && getLe16(bytes + kEntCrcOff) == crc16(bytes, kEntCrcOff);
}

}  // namespace tarn
