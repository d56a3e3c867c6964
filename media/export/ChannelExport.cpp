#include "media/export/ChannelExport.h"

#include <algorithm>
#include <utility>

namespace tarn {

ChannelExport::ChannelExport(int channel, std::vector<DB_STREAM> rows, PictureTime from,
                             PictureTime to)
    : channel_(channel), rows_(std::move(rows)), from_(from), to_(to) {}

// Only a key picture can begin a file; the one before the wanted time comes along.
uint32_t ChannelExport::firstPicture() {
  if (totals_.written > 0) return 0;
  const int64_t key = reader_->findKeyPictureBefore(from_);
  return key > 0 ? static_cast<uint32_t>(key) : 0;
}

bool ChannelExport::openRow() {
  reader_ = std::make_unique<RecordingReader>();
  if (reader_->open(rows_[row_]) != 0) {
    error_ = "recording " + std::to_string(rows_[row_].streamID) + " cannot be read";
    return false;
  }
  index_ = firstPicture();
  return true;
}

// Pictures are stored in decode order, so one that is presented after the end may still be needed
// by one before it. No decoder holds back more than 16 pictures.
bool ChannelExport::neededLater() {
  constexpr uint32_t kMostReordered = 16;
  PictureEntry entry;
  for (uint32_t ahead = 1; ahead <= kMostReordered; ++ahead) {
    if (!reader_->picture(index_ + ahead, &entry) || entry.isKey()) return false;
    if (!(to_ < entry.presentation)) return true;
  }
  return false;
}

void ChannelExport::noteDamage(const PictureEntry& entry) {
  ++totals_.damaged;
  const uint32_t key = reader_->row().streamID;
  const PictureTime at = entry.presentation;
  std::vector<DamagedRun>& damages = totals_.damages;
  if (damages.empty() || damages.back().streamID != key || damages.back().lastIndex + 1 != index_) {
    damages.push_back({key, index_, index_, at, at});
    return;
  }
  DamagedRun& run = damages.back();
  run.lastIndex = index_;
  run.from = std::min(run.from, at);
  run.to = std::max(run.to, at);
}

// Reads a picture. False when it cannot be had: what follows cannot be decoded without it.
bool ChannelExport::take(const PictureEntry& entry) {
  waitForKey_ = !reader_->readPicture(entry, &picture_.annexB);
  if (waitForKey_) {
    ++totals_.lost;
    return false;
  }
  // Most of a damaged picture is still to be seen, and what follows is decoded with it.
  if (reader_->isDamaged()) noteDamage(entry);
  picture_.presentation = entry.presentation;
  picture_.decodeOffsetUs = entry.decodeOffsetUs;
  picture_.key = entry.isKey();
  if (totals_.written == 0 || entry.presentation < totals_.first)
    totals_.first = entry.presentation;
  if (totals_.last < entry.presentation) totals_.last = entry.presentation;
  ++totals_.written;
  totals_.bytes += picture_.annexB.size();
  return true;
}

ExportTrack::Result ChannelExport::next() {
  for (; row_ < rows_.size(); ++row_, reader_.reset()) {
    if (reader_ == nullptr && !openRow()) return Result::kError;
    for (; index_ < reader_->pictureCount(); ++index_) {
      PictureEntry entry;
      if (!reader_->picture(index_, &entry)) {
        ++totals_.lost;
        waitForKey_ = true;
        continue;
      }
      if (to_ < entry.presentation && !neededLater()) break;
      if (waitForKey_ && !entry.isKey()) {
        if (!(entry.presentation < from_)) ++totals_.undecodable;
        continue;
      }
      if (!take(entry)) continue;
      ++index_;
      return Result::kPiece;
    }
  }
  return Result::kEnd;
}

}  // namespace tarn
