#include "media/export/ChannelExport.h"

#include <algorithm>
#include <utility>

#include "media/PictureFormat.h"
#include "media/export/PeriodEnds.h"
#include "recorder/recording/RecordingZone.h"

namespace tarn {

ChannelExport::ChannelExport(int channel, std::vector<DB_STREAM> rows, PictureTime from,
                             PictureTime to)
    : channel_(channel), rows_(std::move(rows)), from_(from), to_(to) {}

// Only a key picture can begin a file; the one before the wanted time comes along.
uint32_t ChannelExport::firstPicture() {
  if (begun_) return 0;
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
  zone_ = zoneOfRecording(rows_[row_]);
  return true;
}

void ChannelExport::noteDamage() {
  ++totals_.damaged;
  const uint32_t key = reader_->row().streamID;
  const PictureTime at = picture_.presentation;
  std::vector<DamagedRun>& damages = totals_.damages;
  if (damages.empty() || damages.back().streamID != key ||
      damages.back().lastIndex + 1 != pictureIndex_) {
    damages.push_back({key, pictureIndex_, pictureIndex_, at, at});
    return;
  }
  DamagedRun& run = damages.back();
  run.lastIndex = pictureIndex_;
  run.from = std::min(run.from, at);
  run.to = std::max(run.to, at);
}

// Key pictures that have no sets of their own are decoded with those before them.
void ChannelExport::noteFormat() {
  beginsFile_ = false;
  if (!picture_.key) return;
  ParameterSets sets = parameterSetsOf(picture_.annexB);
  if (sets.sequence.empty() || sets.sequence == sequence_) return;
  const PictureSize former = size_;
  size_ = pictureSizeOf(picture_.annexB);
  beginsFile_ = !sequence_.empty();
  sequence_.swap(sets.sequence);
  if (!beginsFile_) return;
  totals_.changes.push_back({picture_.presentation, former, size_, ""});
}

void ChannelExport::count() {
  const PictureTime at = picture_.presentation;
  // Most of a damaged picture is still to be seen, and what follows is decoded with it.
  if (damaged_) noteDamage();
  if (totals_.written == 0) totals_.size = size_;
  std::vector<int32_t>& zones = totals_.zones;
  if (zone_ && std::find(zones.begin(), zones.end(), *zone_) == zones.end())
    zones.push_back(*zone_);
  if (totals_.written == 0 || at < totals_.first) totals_.first = at;
  if (totals_.last < at) totals_.last = at;
  ++totals_.written;
  totals_.bytes += picture_.annexB.size();
}

ExportTotals ChannelExport::closeFile() {
  if (atEnd_) return std::exchange(totals_, ExportTotals());
  totals_ = ExportTotals();
  beginsFile_ = false;
  count();
  return std::exchange(before_, ExportTotals());
}

// Reads a picture. False when it cannot be had: what follows cannot be decoded without it.
bool ChannelExport::take(const PictureEntry& entry) {
  waitForKey_ = !reader_->readPicture(entry, &picture_.annexB);
  if (waitForKey_) {
    ++totals_.lost;
    return false;
  }
  begun_ = true;
  damaged_ = reader_->isDamaged();
  pictureIndex_ = index_;
  picture_.presentation = entry.presentation;
  picture_.decodeOffsetUs = entry.decodeOffsetUs;
  picture_.key = entry.isKey();
  noteFormat();
  if (picture_.key) before_ = totals_;
  count();
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
      if (to_ < entry.presentation && !neededUpTo(to_, reader_.get(), index_)) break;
      if (waitForKey_ && !entry.isKey()) {
        if (!(entry.presentation < from_)) ++totals_.undecodable;
        continue;
      }
      if (!take(entry)) continue;
      ++index_;
      atEnd_ = false;
      return Result::kPiece;
    }
  }
  atEnd_ = true;
  return Result::kEnd;
}

}  // namespace tarn
