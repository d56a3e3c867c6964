#include "recorder/card/Source.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "base/Omission.h"
#include "base/Wrap.h"
#include "fat/ChunkFiles.h"
#include "recorder/card/CardLayout.h"
#include "recorder/card/CardReader.h"
#include "recorder/card/ReadPatience.h"

namespace tarn {
namespace {

std::string nameOf(int fileType, uint32_t chunk) {
  return std::string(CardLayout::familyName(fileType)) + " chunk " + std::to_string(chunk);
}

int tries() {
  if (omitted("read-again")) return 1;
  return kReadTries;
}

Delivery zeros(void* out, uint32_t length) {
  memset(out, 0, length);
  return Delivery::kGood;
}

// What was refused does not pass for zeros.
Delivery refuse(void* out, uint32_t length) {
  if (omitted("refused-is-bad")) return zeros(out, length);
  return Delivery::kRefused;
}

}  // namespace

Delivery Source::readOnce(uint32_t offset, void* out, uint32_t length) {
  if (!isOpen()) return Delivery::kRefused;
  if (offset >= size_ || length > size_) return Delivery::kBad;
  const uint32_t toEnd = std::min(length, size_ - offset);
  const bool read =
      readPiece(offset, out, toEnd) &&
      (toEnd == length || readPiece(0, static_cast<uint8_t*>(out) + toEnd, length - toEnd));
  return read ? Delivery::kGood : Delivery::kRefused;
}

Delivery Source::read(uint32_t offset, void* out, uint32_t length) {
  Delivery got = readOnce(offset, out, length);
  const int most = tries();
  for (int tried = 1; got == Delivery::kRefused && isOpen() && tried < most; ++tried) {
    pauseBeforeRead(tried, patience_);
    got = readOnce(offset, out, length);
  }
  return got == Delivery::kRefused ? refuse(out, length) : got;
}

ChunkSource::ChunkSource(int fileType, uint32_t chunk, int flags) {
  name_ = nameOf(fileType, chunk);
  // Numbers are signed and 16 bits wide where chunks are opened.
  placeless_ = chunk > CardLayout::kMaxChunks;
  if (placeless_) return;
  char name[kChunkFileNameRoom];
  chunkFileName(kRecorderPartition, fileTag(fileType), static_cast<int>(chunk), name);
  // With a flag of no account to it, a read-only handle reads what it is asked for: one that reads
  // picture chunks in blocks would make a bad sector a bad block.
  openPatiently(name, flags | O_CLOEXEC);
  if (handle_ == -1) return;
  placeless_ = chunk >= fat_.chunks(handle_);
  if (placeless_) return;
  size_ = low32(fat_.getChunkSize(handle_));
  streamSize_ = low32(fat_.streamChunkSize(handle_));
  pictureSize_ = low32(fat_.pictureChunkSize(handle_));
}

// The card's own description is read for it, which a card that hiccups may refuse like anything.
void ChunkSource::openPatiently(const char* name, int flags) {
  uint32_t patienceMs = kReadPatienceMs;
  handle_ = fat_.open(name, flags);
  for (int tried = 1; handle_ == -1 && tried < kReadTries; ++tried) {
    if (access(deviceName(kRecorderPartition), F_OK) != 0) return;
    pauseBeforeRead(tried, &patienceMs);
    handle_ = fat_.open(name, flags);
  }
}

bool ChunkSource::readPiece(uint32_t offset, void* out, uint32_t length) {
  return fat_.lseek(handle_, static_cast<long>(offset), SEEK_SET) >= 0 &&
         fat_.read(handle_, out, length) == static_cast<long>(length) &&
         !fat_.lastReadFailed(handle_);
}

bool ChunkSource::write(uint32_t offset, const void* data, uint32_t length) {
  if (!isOpen() || offset > size_ || length > size_ - offset) return false;
  written_ = true;
  return fat_.lseek(handle_, static_cast<long>(offset), SEEK_SET) >= 0 &&
         fat_.write(handle_, data, length) == static_cast<long>(length);
}

bool ChunkSource::flush() {
  if (!written_) return true;
  if (fat_.fsync(handle_) != 0) return false;
  written_ = false;
  return true;
}

CardSource::CardSource(const CardReader& card, int fileType, uint32_t chunk)
    : card_(card), fileType_(fileType), chunk_(chunk) {
  name_ = nameOf(fileType, chunk);
  const CardFamily& family = card.family(fileType);
  if (chunk < family.chunks) size_ = family.chunkSize;
}

bool CardSource::readPiece(uint32_t offset, void* out, uint32_t length) {
  return card_.readChunk(fileType_, chunk_, offset, out, length);
}

}  // namespace tarn
