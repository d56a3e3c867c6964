#include "dblog/JournalReader.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "chunk/ChunkMessages.h"
#include "dblog/JournalEnd.h"
#include "fat/ChunkFiles.h"

namespace tarn {
namespace {

constexpr int kTries = 4;  // of a place that neither copy tells
constexpr useconds_t kPauseUs = 10000;

}  // namespace

JournalReader::JournalReader(const JournalTraits& traits, short chunk, uint32_t chunkSize,
                             const JournalBytes* before)
    : traits_(traits), chunkSize_(chunkSize), before_(before), record_(original_.single) {
  open(&original_, chunk);
  open(&mirror_, static_cast<short>(chunk + kJournalMirrorStep));
}

JournalReader::~JournalReader() = default;

void JournalReader::open(Side* side, short chunk) {
  char name[kChunkFileNameRoom];
  chunkFileName(kRecorderPartition, fileTag(kFileJournal), chunk, name);
  side->handle = side->fat.open(name, O_RDONLY);
  memset(side->single, 0, sizeof side->single);
}

bool JournalReader::readSide(Side* side, uint32_t position, void* out, uint32_t length) {
  return side->handle != -1 &&
         side->fat.lseek(side->handle, static_cast<long>(position), SEEK_SET) >= 0 &&
         side->fat.read(side->handle, out, length) == static_cast<long>(length);
}

// A block, or no more than lies in front of what is known.
uint32_t JournalReader::lengthToRead() const {
  const uint32_t left = chunkSize_ - position_;
  const uint32_t most = std::min(kBlockSize, left - left % traits_.recordSize);
  if (before_ == nullptr) return most;
  return std::min(most, std::max(kLeastSize, before_->gapFrom(position_, most)));
}

// Null when the device does not give it.
const uint8_t* JournalReader::at(Side* side) {
  if (position_ < side->start || position_ - side->start >= side->length) {
    side->start = position_;
    side->length = lengthToRead();
    side->good = readSide(side, position_, side->block, side->length);
  }
  if (side->good) return side->block + (position_ - side->start);
  return readSide(side, position_, side->single, traits_.recordSize) ? side->single : nullptr;
}

JournalCopy JournalReader::judge() {
  const uint8_t* original = at(&original_);
  const uint8_t* mirror = nullptr;
  if (original == nullptr || !journalRecordInPlace(traits_, original, position_)) {
    mirror = at(&mirror_);
  }
  const JournalCopy copy = judgeJournalCopies(traits_, position_, original, mirror);
  if (copy != JournalCopy::kRefused) record_ = copy == JournalCopy::kMirror ? mirror : original;
  return copy;
}

// At a place of which one copy is refused: nothing that anybody was told of lies there or behind
// it.
bool JournalReader::endsHere() {
  if (!endsBesideRefusedCopy(at(&original_), at(&mirror_))) return false;
  const uint32_t here = position_;
  bool follows = false;
  for (advance(); !follows && chunkSize_ - position_ >= traits_.recordSize; advance()) {
    const JournalCopy copy = judge();
    follows = (copy == JournalCopy::kOriginal || copy == JournalCopy::kMirror) &&
              journalRecordInPlace(traits_, record_, position_);
  }
  position_ = here;
  return !follows;
}

JournalReader::Result JournalReader::read() {
  if (position_ > chunkSize_ || chunkSize_ - position_ < traits_.recordSize) return Result::kEnd;
  if (const uint8_t* known = before_ == nullptr ? nullptr : before_->at(position_)) {
    record_ = known;
    return Result::kRecord;
  }
  JournalCopy copy = judge();
  for (int tries = 1; copy == JournalCopy::kRefused && tries < kTries; ++tries) {
    usleep(kPauseUs);
    copy = judge();
  }
  switch (copy) {
    case JournalCopy::kRefused:
      return endsHere() ? Result::kErased : Result::kRefused;
    case JournalCopy::kErased:
      return Result::kErased;
    case JournalCopy::kNeither:
      return Result::kBad;
    case JournalCopy::kMirror:
      syslog(LOG_WARNING, kMsgMirrorUsed, "read",
             static_cast<unsigned long>(position_) + traits_.recordSize);
      break;
    case JournalCopy::kOriginal:
      break;
  }
  return Result::kRecord;
}

}  // namespace tarn
