#include "recorder/session/CopyPlan.h"

#include <algorithm>
#include <new>

#include "db/RowStatus.h"

namespace tarn {
namespace {

constexpr PictureTime kForEver = {0xFFFFFFFF, 999999};

}  // namespace

bool CopyPlan::open(const DB_STREAM& row) {
  if (reader_.open(row) != 0) return false;
  sound_ = (row.frameSet & kFrameSetAudio) != 0;
  rewind();
  return true;
}

// A block of sound that begins before the time may reach into it.
void CopyPlan::rewind() {
  const int64_t first =
      sound_ ? reader_.findPictureFrom(from_) : reader_.findKeyPictureBefore(from_);
  if (reader_.lackedMemory()) throw std::bad_alloc();
  const uint32_t last = reader_.pictureCount() == 0 ? 0 : reader_.pictureCount() - 1;
  index_ = first > 0 ? static_cast<uint32_t>(first) : 0;
  if (sound_) index_ = first < 0 ? last : index_ - std::min(index_, 1u);
  gap_ = index_ > 0;
  waitForKey_ = false;
  missing_ = 0;
}

bool CopyPlan::isOver() {
  if (reader_.row().recSize != 0) return true;
  const int64_t last =
      sound_ ? int64_t{reader_.pictureCount()} - 1 : reader_.findKeyPictureBefore(kForEver);
  PictureEntry entry;
  return last >= 0 && reader_.picture(static_cast<uint32_t>(last), &entry) &&
         to_ < entry.presentation;
}

bool CopyPlan::isKept(PictureTime decode) const {
  return std::any_of(kept_.begin(), kept_.end(), [decode](const auto& span) {
    return !(decode < span.first) && !(span.second < decode);
  });
}

// Pieces end in front of a key picture where that leaves them more than half full.
bool CopyPlan::isFull(const std::vector<PictureEntry>& piece, const PictureEntry& entry) const {
  if (piece.empty()) return false;
  if (piece.size() >= limits_.pictures || bytes_ + entry.size > limits_.bytes) return true;
  return stands(entry) && (bytes_ > limits_.bytes / 2 || piece.size() > limits_.pictures / 2);
}

// False for what lacks a picture that it needs.
bool CopyPlan::take(PictureEntry* entry) {
  if (waitForKey_ && !stands(*entry)) {
    ++missing_;
    return false;
  }
  if (waitForKey_ || gap_) entry->flags |= kEntryDiscontinuity;
  waitForKey_ = gap_ = false;
  bytes_ += entry->size;
  return true;
}

bool CopyPlan::next(std::vector<PictureEntry>* piece) {
  piece->clear();
  bytes_ = 0;
  for (; index_ < reader_.pictureCount(); ++index_) {
    PictureEntry entry;
    if (!reader_.picture(index_, &entry)) {
      if (reader_.lackedMemory()) throw std::bad_alloc();
      ++missing_;
      waitForKey_ = true;
      continue;
    }
    if (stands(entry) && to_ < entry.presentation) break;
    if (isKept(entry.decodeTime())) {
      gap_ = waitForKey_ = false;
      if (!piece->empty()) break;
      continue;
    }
    if (isFull(*piece, entry)) break;
    if (take(&entry)) piece->push_back(entry);
  }
  return !piece->empty();
}

}  // namespace tarn
