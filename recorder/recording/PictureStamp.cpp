#include "recorder/recording/PictureStamp.h"

#include <algorithm>
#include <ctime>
#include <vector>

#include "base/Crc16.h"
#include "base/Wrap.h"
#include "recorder/recording/AnnexB.h"
#include "recorder/recording/SoundBlock.h"

namespace tarn {
namespace {

// As devices like to be read; larger pieces gain nothing.
constexpr uint32_t kPiece = 128 * 1024;
constexpr size_t kDigits = 14;
constexpr size_t kDigitsEnd = kTimeStampSeiSize - 1;
constexpr int32_t kZoneStep = 15 * 60;
constexpr int32_t kZoneMost = 15 * 3600;

int number(const uint8_t* digits, int count) {
  int value = 0;
  for (int i = 0; i < count; ++i) value = value * 10 + (digits[i] - '0');
  return value;
}

// How far the text is from the moment, read as UTC, in seconds.
int32_t distance(const uint8_t* digits, uint32_t seconds) {
  struct tm time = {};
  time.tm_year = number(digits, 4) - 1900;
  time.tm_mon = number(digits + 4, 2) - 1;
  time.tm_mday = number(digits + 6, 2);
  time.tm_hour = number(digits + 8, 2);
  time.tm_min = number(digits + 10, 2);
  time.tm_sec = number(digits + 12, 2);
  const auto shown = static_cast<uint32_t>(timegm(&time));
  return asSigned32(wrapSub32(shown, seconds));
}

uint32_t windowOf(const PictureEntry& entry) {
  return std::min<uint32_t>(entry.size, kTimeStampWindow);
}

// `bytes` are those that the window shows, or more.
Delivery zoneIn(const uint8_t* bytes, const PictureEntry& entry, int32_t* zone) {
  const uint32_t length = windowOf(entry);
  size_t place = 0;
  if (length < kTimeStampSeiSize || !findTimeStampSei(bytes, length, &place)) return Delivery::kBad;
  const int32_t away = distance(bytes + place + kDigitsEnd - kDigits, entry.presentation.seconds);
  const bool fits = away % kZoneStep == 0 && away >= -kZoneMost && away <= kZoneMost;
  if (fits) *zone = away;
  return fits ? Delivery::kGood : Delivery::kBad;
}

// Of a block's head, or more. *isBlock: whether its bytes begin one at all.
Delivery startIn(const uint8_t* bytes, const PictureEntry& entry, bool* isBlock) {
  PictureTime start;
  *isBlock = SoundBlock::readStart(bytes, &start);
  return *isBlock && start == entry.presentation ? Delivery::kGood : Delivery::kBad;
}

// Of the first bytes of what is about to be proved by its checksum as well.
Delivery stampIn(const uint8_t* bytes, const PictureEntry& entry, PictureStamp stamp) {
  if (stamp == PictureStamp::kNone) return Delivery::kGood;
  if (stamp == PictureStamp::kPicture) {
    int32_t zone = 0;
    return zoneIn(bytes, entry, &zone);
  }
  if (entry.size < SoundBlock::kHeadSize) return Delivery::kBad;
  bool isBlock = false;
  const Delivery got = startIn(bytes, entry, &isBlock);
  return isBlock ? got : Delivery::kGood;
}

}  // namespace

Delivery lookAtPicture(Source* stream, const PictureEntry& entry) {
  int32_t zone = 0;
  return zoneOfPicture(stream, entry, &zone);
}

Delivery zoneOfPicture(Source* stream, const PictureEntry& entry, int32_t* zone) {
  uint8_t bytes[kTimeStampWindow];
  const Delivery got = stream->read(entry.dataOffset, bytes, windowOf(entry));
  return got == Delivery::kGood ? zoneIn(bytes, entry, zone) : got;
}

Delivery lookAtSound(Source* stream, const PictureEntry& entry) {
  uint8_t head[SoundBlock::kHeadSize];
  if (entry.size < sizeof head) return Delivery::kBad;
  Delivery got = stream->read(entry.dataOffset, head, sizeof head);
  if (got != Delivery::kGood) return got;
  bool isBlock = false;
  got = startIn(head, entry, &isBlock);
  return isBlock ? got : PictureProof(stream).prove(entry, PictureStamp::kNone);
}

Delivery PictureProof::look(const PictureEntry& entry, PictureStamp stamp) {
  if (stamp == PictureStamp::kNone) return Delivery::kGood;
  return stamp == PictureStamp::kSound ? lookAtSound(&stream_, entry)
                                       : lookAtPicture(&stream_, entry);
}

Delivery PictureProof::prove(const PictureEntry& entry, PictureStamp stamp) {
  if (entry.checksum == 0) return look(entry, stamp);
  const uint32_t room = std::min(entry.size, kPiece);
  if (piece_.size() < room) piece_.resize(room);
  uint16_t crc = 0;
  uint32_t done = 0;
  do {
    const uint32_t length = std::min(entry.size - done, kPiece);
    const uint32_t place = ringAdvance(entry.dataOffset, done, stream_.size());
    Delivery got = stream_.read(place, piece_.data(), length);
    // A sector that is refused further on leaves a stamp that proves another picture's bytes.
    if (got == Delivery::kRefused && done == 0 && look(entry, stamp) == Delivery::kBad) {
      return Delivery::kBad;
    }
    if (got == Delivery::kGood && done == 0) got = stampIn(piece_.data(), entry, stamp);
    if (got != Delivery::kGood) return got;
    crc = crc16(piece_.data(), length, crc);
    done += length;
  } while (done < entry.size);
  return pictureChecksum(crc) == entry.checksum ? Delivery::kGood : Delivery::kBad;
}

}  // namespace tarn
