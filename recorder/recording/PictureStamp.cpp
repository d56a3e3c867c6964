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

}  // namespace

Delivery lookAtPicture(Source* stream, const PictureEntry& entry) {
  int32_t zone = 0;
  return zoneOfPicture(stream, entry, &zone);
}

Delivery zoneOfPicture(Source* stream, const PictureEntry& entry, int32_t* zone) {
  uint8_t bytes[kTimeStampWindow];
  const auto length = static_cast<uint32_t>(std::min<size_t>(entry.size, sizeof bytes));
  const Delivery got = stream->read(entry.dataOffset, bytes, length);
  if (got != Delivery::kGood) return got;
  size_t place = 0;
  if (length < kTimeStampSeiSize || !findTimeStampSei(bytes, length, &place)) return Delivery::kBad;
  const int32_t away = distance(bytes + place + kDigitsEnd - kDigits, entry.presentation.seconds);
  const bool fits = away % kZoneStep == 0 && away >= -kZoneMost && away <= kZoneMost;
  if (fits) *zone = away;
  return fits ? Delivery::kGood : Delivery::kBad;
}

Delivery lookAtSound(Source* stream, const PictureEntry& entry) {
  uint8_t head[SoundBlock::kHeadSize];
  if (entry.size < sizeof head) return Delivery::kBad;
  const Delivery got = stream->read(entry.dataOffset, head, sizeof head);
  if (got != Delivery::kGood) return got;
  PictureTime start;
  if (!SoundBlock::readStart(head, &start)) return proveBytes(stream, entry);
  return start == entry.presentation ? Delivery::kGood : Delivery::kBad;
}

Delivery proveBytes(Source* stream, const PictureEntry& entry) {
  if (entry.checksum == 0) return Delivery::kGood;
  std::vector<uint8_t> bytes(std::min(entry.size, kPiece));
  uint16_t crc = 0;
  for (uint32_t done = 0; done < entry.size;) {
    const uint32_t length = std::min(entry.size - done, kPiece);
    const uint32_t place = ringAdvance(entry.dataOffset, done, stream->size());
    const Delivery got = stream->read(place, bytes.data(), length);
    if (got != Delivery::kGood) return got;
    crc = crc16(bytes.data(), length, crc);
    done += length;
  }
  return pictureChecksum(crc) == entry.checksum ? Delivery::kGood : Delivery::kBad;
}

}  // namespace tarn
