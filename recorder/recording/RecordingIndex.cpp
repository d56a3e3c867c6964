#include "recorder/recording/RecordingIndex.h"

#include <fcntl.h>

#include <algorithm>

#include "base/Endian.h"
#include "base/Wrap.h"
#include "fat/ChunkFiles.h"
#include "recorder/recording/PictureNumbers.h"

namespace tarn {
namespace {

// As far as cards lose bytes at once: 64 KiB.
constexpr uint32_t kMostBad = 64 * 1024 / kRecordSize;

bool isHeader(const uint8_t* bytes) {
  StreamHeader header;
  return decodeStreamHeader(bytes, &header) && header.version == kRecordVersion;
}

}  // namespace

RecordingIndex::RecordingIndex(const DB_STREAM& row)
    : row_(row), own_(std::make_unique<ChunkSource>(kFilePicture, row.chunkID, O_RDONLY)) {
  placeless_ = own_->isPlaceless();
  if (!own_->isOpen()) return;
  pictures_ = own_.get();
  streamSize_ = own_->streamSize();
  place();
}

RecordingIndex::RecordingIndex(const DB_STREAM& row, Source* pictures, uint32_t streamSize)
    : row_(row), pictures_(pictures->isOpen() ? pictures : nullptr), streamSize_(streamSize) {
  if (isOpen()) place();
}

void RecordingIndex::place() {
  const uint32_t size = pictures_->size();
  placeless_ = row_.chunkOffset >= size || row_.chunkOffset % kRecordSize != 0 ||
               size < 2 * kRecordSize || size % kRecordSize != 0;
  if (placeless_) pictures_ = nullptr;
  block_.resize(kBlock);
}

uint32_t RecordingIndex::capacity() const {
  return isOpen() ? pictures_->size() / kRecordSize - 1 : 0;
}

void RecordingIndex::forget() { loaded_ = false; }

uint32_t RecordingIndex::slotOf(uint32_t index) const {
  return ringAdvance(row_.chunkOffset, (index + 1) * kRecordSize, pictures_->size());
}

// One try for the whole block; where that is refused, patience for each sector.
Delivery RecordingIndex::load(uint32_t offset) {
  blockAt_ = offset - offset % kBlock;
  loaded_ = true;
  const uint32_t length = std::min(kBlock, pictures_->size() - blockAt_);
  const Delivery whole = pictures_->readOnce(blockAt_, block_.data(), length);
  std::fill(std::begin(sectors_), std::end(sectors_), whole);
  if (whole == Delivery::kGood) return whole;
  for (uint32_t at = 0; at < length; at += kSector) {
    sectors_[at / kSector] =
        pictures_->read(blockAt_ + at, block_.data() + at, std::min(kSector, length - at));
  }
  return sectors_[(offset - blockAt_) / kSector];
}

// Records do not straddle sectors.
Delivery RecordingIndex::record(uint32_t offset, const uint8_t** bytes) {
  const bool held = loaded_ && offset >= blockAt_ && offset - blockAt_ < kBlock;
  const Delivery got = held ? sectors_[(offset - blockAt_) / kSector] : load(offset);
  *bytes = block_.data() + (offset - blockAt_);
  return got;
}

Delivery RecordingIndex::header(StreamHeader* out) {
  if (!isOpen()) return placeless_ ? Delivery::kBad : Delivery::kRefused;
  const uint8_t* bytes = nullptr;
  const Delivery got = record(row_.chunkOffset, &bytes);
  if (got != Delivery::kGood) return got;
  // Zeros have a right sum too; the version tells them.
  const bool good = decodeStreamHeader(bytes, out) && out->version == kRecordVersion &&
                    (out->marker == kMarkerOpen || out->marker == kMarkerClosed) &&
                    out->dataOffset < streamSize_;
  return good ? Delivery::kGood : Delivery::kBad;
}

Delivery RecordingIndex::entry(uint32_t index, PictureEntry* out) {
  if (!isOpen()) return placeless_ ? Delivery::kBad : Delivery::kRefused;
  if (index >= capacity()) return Delivery::kBad;
  const uint8_t* bytes = nullptr;
  const Delivery got = record(slotOf(index), &bytes);
  if (got != Delivery::kGood) return got;
  const bool good = decodePictureEntry(bytes, out) && out->key == row_.streamID &&
                    out->dataOffset < streamSize_ && out->size < streamSize_;
  return good ? Delivery::kGood : Delivery::kBad;
}

uint32_t RecordingIndex::firstNumber() {
  PictureEntry found;
  const uint32_t most = std::min(kMostBad, capacity());
  for (uint32_t i = 0; i < most; ++i) {
    if (entry(i, &found) != Delivery::kGood || found.number <= i) continue;
    const uint32_t first = found.number - i;
    if (first % PictureNumbers::kStep == 0) return first;
  }
  return 0;
}

const uint8_t* RecordingIndex::slot(uint32_t index) {
  const uint8_t* bytes = nullptr;
  const bool inside = isOpen() && index < capacity();
  return inside && record(slotOf(index), &bytes) == Delivery::kGood ? bytes : nullptr;
}

bool RecordingIndex::isForeign(uint32_t index) {
  const uint8_t* bytes = slot(index);
  if (bytes == nullptr) return false;
  PictureEntry entry;
  // Zeros have the CRC of zeros.
  const bool anEntry = decodePictureEntry(bytes, &entry) && entry.key != 0;
  return (anEntry && entry.key != row_.streamID) || isHeader(bytes);
}

bool RecordingIndex::isBlank(uint32_t index) {
  const uint8_t* bytes = slot(index);
  return bytes != nullptr && (bytes[0] == 0 || bytes[0] == 0xFF) &&
         std::count(bytes, bytes + kRecordSize, bytes[0]) == kRecordSize;
}

bool RecordingIndex::isMangled(uint32_t index) {
  const uint8_t* bytes = slot(index);
  PictureEntry entry;
  return bytes != nullptr && !isBlank(index) && !decodePictureEntry(bytes, &entry) &&
         !isHeader(bytes);
}

}  // namespace tarn
