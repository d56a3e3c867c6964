#include "recorder/PictureIndex.h"

#include <fcntl.h>

#include <algorithm>

#include "base/Wrap.h"
#include "fat/CFATAccess.h"
#include "fat/ChunkFiles.h"

namespace tarn {
namespace {

constexpr uint32_t kBlockEntries = 128;  // what the picture chunk reads at once
// Ranges are checked here; the event only has to be no obstacle.
constexpr uint32_t kWholeRing = 0x7FFFFFFF;

struct Geometry {
  uint32_t chunks = 0;
  uint32_t pictureSize = 0;
  uint32_t streamSize = 0;
};

Geometry readGeometry() {
  CFATAccess fat;
  char name[kChunkFileNameRoom];
  const int handle =
      fat.open(chunkFileName(kRecorderPartition, fileTag(kFileStream), 0, name), O_RDONLY);
  if (handle == -1) return {};
  return {fat.chunks(handle), low32(fat.pictureChunkSize(handle)),
          low32(fat.streamChunkSize(handle))};
}

}  // namespace

PictureIndex::PictureIndex(const DB_STREAM& row) : row_(row) {
  const Geometry card = readGeometry();
  if (card.chunks == 0) return;
  placeless_ = row.chunkID >= card.chunks || row.chunkOffset >= card.pictureSize ||
               row.chunkOffset % kRecordSize != 0 || card.pictureSize < 2 * kRecordSize;
  if (placeless_) return;
  const CHUNK_EVENT event = {static_cast<uint16_t>(row.chunkID), kRecorderPartition,
                             row.chunkOffset, kWholeRing};
  if (pictures_.openChunkFile(&event) != 0) return;
  pictureSize_ = card.pictureSize;
  streamSize_ = card.streamSize;
  block_.resize(size_t{kBlockEntries} * kRecordSize);
}

PictureIndex::Read PictureIndex::readAt(uint32_t offset, uint8_t* out, uint32_t length) {
  const bool read = isOpen() && pictures_.seek(static_cast<long>(offset), SEEK_SET) >= 0 &&
                    pictures_.read(out, static_cast<long>(length)) == static_cast<long>(length) &&
                    !pictures_.lastReadFailed();
  return read ? Read::kGood : Read::kUnreadable;
}

PictureIndex::Read PictureIndex::header(StreamHeader* out) {
  uint8_t bytes[kRecordSize];
  if (readAt(row_.chunkOffset, bytes, kRecordSize) != Read::kGood) return Read::kUnreadable;
  // Zeros have a right sum too; the version tells them.
  const bool good = decodeStreamHeader(bytes, out) && out->version == kRecordVersion &&
                    out->dataOffset < streamSize_;
  return good ? Read::kGood : Read::kBad;
}

bool PictureIndex::load(uint32_t firstIndex) {
  blockCount_ = 0;
  const uint32_t count = std::min(kBlockEntries, capacity() - firstIndex);
  const uint32_t place =
      ringAdvance(row_.chunkOffset, (firstIndex + 1) * kRecordSize, pictureSize_);
  if (readAt(place, block_.data(), count * kRecordSize) != Read::kGood) return false;
  blockFirst_ = firstIndex;
  blockCount_ = count;
  return true;
}

PictureIndex::Read PictureIndex::entry(uint32_t index, PictureEntry* out) {
  if (!isOpen()) return Read::kUnreadable;
  if (index >= capacity()) return Read::kBad;
  const bool held = index >= blockFirst_ && index - blockFirst_ < blockCount_;
  if (!held && !load(index - index % kBlockEntries)) return Read::kUnreadable;
  const uint8_t* bytes = block_.data() + size_t{index - blockFirst_} * kRecordSize;
  const bool good = decodePictureEntry(bytes, out) && out->key == row_.streamID &&
                    out->dataOffset < streamSize_ && out->size < streamSize_;
  return good ? Read::kGood : Read::kBad;
}

}  // namespace tarn
