#include "recorder/recovery/ImageFormat.h"

#include <cstring>

#include "base/Crc32.h"
#include "base/Endian.h"

namespace tarn {
namespace {

constexpr char kMagic[] = "TARNSEAL";
constexpr uint32_t kMagicSize = 8;
constexpr uint32_t kLengthOff = 8;
constexpr uint32_t kChecksumOff = 12;
constexpr uint32_t kEventsOff = 16;
constexpr uint32_t kStreamsOff = 24;
constexpr uint32_t kSealChecksumOff = 60;
static_assert(sizeof kMagic == kMagicSize + 1 && kSealChecksumOff + 4 == kImageSealSize);

void encode(const JournalState& state, uint8_t* bytes) {
  putLe32(bytes, state.rows);
  putLe32(bytes + 4, state.digest);
}

JournalState decode(const uint8_t* bytes) { return {getLe32(bytes), getLe32(bytes + 4)}; }

// Of a seal as it was with its mark.
uint32_t sumOf(const uint8_t* bytes) {
  const uint32_t mark = crc32(kMagic, kMagicSize);
  return crc32(bytes + kMagicSize, kSealChecksumOff - kMagicSize, mark);
}

}  // namespace

void encodeImageSeal(const ImageSeal& seal, uint8_t bytes[kImageSealSize]) {
  memset(bytes, 0, kImageSealSize);
  memcpy(bytes, kMagic, kMagicSize);
  putLe32(bytes + kLengthOff, seal.length);
  putLe32(bytes + kChecksumOff, seal.checksum);
  encode(seal.events, bytes + kEventsOff);
  encode(seal.streams, bytes + kStreamsOff);
  putLe32(bytes + kSealChecksumOff, crc32(bytes, kSealChecksumOff));
}

SealState decodeImageSeal(const uint8_t bytes[kImageSealSize], ImageSeal* seal) {
  const bool marked = memcmp(bytes, kMagic, kMagicSize) == 0;
  const bool whole = getLe32(bytes + kSealChecksumOff) == sumOf(bytes);
  // What fits a mark that is not there lost it: no image of before there were seals has such bytes.
  if (!marked) return whole ? SealState::kDamaged : SealState::kNone;
  if (!whole) return SealState::kDamaged;
  seal->length = getLe32(bytes + kLengthOff);
  seal->checksum = getLe32(bytes + kChecksumOff);
  seal->events = decode(bytes + kEventsOff);
  seal->streams = decode(bytes + kStreamsOff);
  return SealState::kGood;
}

}  // namespace tarn
