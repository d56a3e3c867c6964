#include "dblog/JournalReader.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>

#include "chunk/CTARNMirroredChunk.h"
#include "fat/ChunkFiles.h"

namespace tarn {

JournalReader::JournalReader(CTARNMirroredChunk* pair, const JournalTraits& traits, short chunk,
                             uint32_t chunkSize)
    : pair_(pair), traits_(traits), chunkSize_(chunkSize), record_(single_) {
  char name[kChunkFileNameRoom];
  chunkFileName(kRecorderPartition, fileTag(kFileJournal), chunk, name);
  handle_ = fat_.open(name, O_RDONLY);
  memset(single_, 0, sizeof single_);
}

JournalReader::~JournalReader() = default;

void JournalReader::advance() { position_ += traits_.recordSize; }

bool JournalReader::inBlock() const {
  return position_ >= blockStart_ && position_ - blockStart_ < blockLength_;
}

void JournalReader::loadBlock() {
  const uint32_t left = chunkSize_ - position_;
  blockStart_ = position_;
  blockLength_ = std::min(kBlockSize, left - left % traits_.recordSize);
  blockGood_ = handle_ != -1 && fat_.lseek(handle_, static_cast<long>(position_), SEEK_SET) >= 0 &&
               fat_.read(handle_, block_, blockLength_) == static_cast<long>(blockLength_);
}

JournalReader::Result JournalReader::read() {
  if (position_ > chunkSize_ || chunkSize_ - position_ < traits_.recordSize) return Result::kEnd;
  if (!inBlock()) loadBlock();
  if (blockGood_) {
    record_ = block_ + (position_ - blockStart_);
    if (journalRecordValid(record_, traits_.crcLength)) return Result::kRecord;
  }
  return readPair();
}

// A failed read leaves the two sides anywhere, so each begins with a seek; and the buffer is
// cleared first, or the marker of an earlier record could pass for this one's.
JournalReader::Result JournalReader::readPair() {
  record_ = single_;
  memset(single_, 0, sizeof single_);
  const auto size = static_cast<long>(traits_.recordSize);
  if (pair_->seek(static_cast<long>(position_), SEEK_SET) < 0) return Result::kBad;
  const long result = pair_->read(single_, size, static_cast<long>(traits_.crcLength));
  if (result == size) return Result::kRecord;
  return result == 0 ? Result::kEnd : Result::kBad;
}

}  // namespace tarn
