#include "media/export/SoundExport.h"

#include <algorithm>
#include <utility>

#include "recorder/recording/RecordingIndex.h"

namespace tarn {
namespace {

constexpr int64_t kLongestStepBackUs = 1000000;

int64_t lengthOf(uint32_t samples, const SoundFormat& format) {
  return int64_t{samples} * 1000000 / format.sampleRate;
}

}  // namespace

SoundExport::SoundExport(std::vector<DB_STREAM> rows, PictureTime from, PictureTime to)
    : rows_(std::move(rows)), from_(from), to_(to) {}

void SoundExport::beginWith(PictureTime picture) {
  picture_ = picture;
  const PictureTime lead = PictureTime::fromMicros(picture.totalMicros() - kLeadUs);
  // Sound that was recorded before the first picture of the period stays in it.
  const bool all = from_.totalMicros() == 0;
  if (!all && lead < from_) from_ = lead;
}

bool SoundExport::openRow() {
  reader_ = std::make_unique<RecordingReader>();
  index_ = 0;
  if (reader_->open(rows_[row_]) == 0) {
    skipEarlier();
    return true;
  }
  totals_.lost += rows_[row_].recSize;
  StreamHeader header;
  refused_ = refused_ || RecordingIndex(rows_[row_]).header(&header) == Delivery::kRefused;
  return false;
}

// Blocks long before the period are not read. A frame that goes back in time by a second and more
// begins another recording.
void SoundExport::skipEarlier() {
  const int64_t us = from_.totalMicros() - 2 * kLongestStepBackUs;
  const int64_t block = us > 0 ? reader_->findKeyPictureBefore(PictureTime::fromMicros(us)) : -1;
  if (block > 0) index_ = static_cast<uint32_t>(block);
}

// The next block that can be read and has something of the period.
bool SoundExport::readBlock() {
  for (; row_ < rows_.size(); ++row_, reader_.reset()) {
    if (reader_ == nullptr && !openRow()) continue;
    while (index_ < reader_->pictureCount()) {
      const bool known = reader_->picture(index_++, &entry_);
      if (known && to_ < entry_.presentation) continue;
      const bool read = known && reader_->readPicture(entry_, &bytes_) &&
                        block_.decode(bytes_.data(), bytes_.size());
      frame_ = 0;
      if (!read) {
        refused_ = refused_ || reader_->wasRefused();
        ++totals_.lost;
        continue;
      }
      laterUs_ = entry_.presentation.totalMicros() - block_.start().totalMicros();
      if (timeOf(block_.end()) < from_) continue;
      if (reader_->isDamaged()) ++totals_.damaged;
      return true;
    }
  }
  return false;
}

PictureTime SoundExport::timeOf(PictureTime inBlock) const {
  return PictureTime::fromMicros(inBlock.totalMicros() + laterUs_);
}

bool SoundExport::isWanted(const SoundFrame& frame) const {
  const PictureTime time = timeOf(frame.time);
  const int64_t end = time.totalMicros() + lengthOf(frame.samples, block_.format());
  return end > from_.totalMicros() && !(to_ < time);
}

// A track has one format.
void SoundExport::take(const SoundFrame& frame) {
  sound_.format = block_.format();
  sound_.time = timeOf(frame.time);
  if (!begun_) beginTrack();
  begun_ = true;
  if (beginsFile() && totals_.changes.empty())
    totals_.changes.push_back({sound_.time, track_, sound_.format, ""});
  sound_.frame.assign(frame.data, frame.data + frame.size);
  sound_.samples = frame.samples;
  place_ = static_cast<size_t>(frame.data - bytes_.data());
  before_ = totals_;
  count();
}

void SoundExport::beginTrack() {
  track_ = sound_.format;
  totals_.codec = track_.codec;
}

void SoundExport::count() {
  const int64_t length = lengthOf(sound_.samples, sound_.format);
  const PictureTime end = PictureTime::fromMicros(sound_.time.totalMicros() + length);
  if (totals_.frames == 0 || sound_.time < totals_.first) totals_.first = sound_.time;
  totals_.last = std::max(totals_.last, end);
  ++totals_.frames;
  totals_.bytes += sound_.frame.size();
}

SoundTotals SoundExport::closeFile() {
  SoundTotals closed = atEnd_ ? totals_ : before_;
  totals_ = before_ = SoundTotals();
  if (atEnd_) return closed;
  beginTrack();
  count();
  return closed;
}

// Where the sound takes another format right beside the first picture: there it is the pictures'
// own. None where it begins well before them, and that was asked for.
std::optional<SoundExport::Place> SoundExport::ownBeginning() const {
  const int64_t picture = picture_->totalMicros();
  SoundExport ahead(rows_, from_, to_);
  std::optional<Place> place;
  while (ahead.nextFrame() == Result::kPiece && ahead.decodeUs() <= picture + kLeadUs) {
    const OutputSound& sound = ahead.sound_;
    if (ahead.decodeUs() + lengthOf(sound.samples, sound.format) < picture - kLeadUs) break;
    if (!ahead.beginsFile()) continue;
    place = {ahead.row_, sound.time};
    ahead.closeFile();
  }
  return place;
}

bool SoundExport::isBefore(const Place& place) const {
  return row_ < place.row || (row_ == place.row && sound_.time < place.time);
}

ExportTrack::Result SoundExport::begin() {
  const std::optional<Place> own = ownBeginning();
  picture_.reset();
  Result result = nextFrame();
  if (!own || result != Result::kPiece) return result;
  while (result == Result::kPiece && isBefore(*own)) result = nextFrame();
  // What could not be read may have been theirs.
  const uint64_t lost = totals_.lost;
  closeFile();
  totals_.lost = before_.lost = lost;
  return result;
}

ExportTrack::Result SoundExport::next() { return picture_ ? begin() : nextFrame(); }

ExportTrack::Result SoundExport::nextFrame() {
  for (atEnd_ = false;;) {
    while (frame_ < block_.frames().size()) {
      const SoundFrame& frame = block_.frames()[frame_++];
      if (!isWanted(frame)) continue;
      take(frame);
      return Result::kPiece;
    }
    if (readBlock()) continue;
    atEnd_ = true;
    return Result::kEnd;
  }
}

bool SoundExport::describe(MediaOutput* output, size_t track) const {
  return output->describe(track, sound_);
}

bool SoundExport::write(MediaOutput* output, size_t track) const {
  return output->write(sound_, track);
}

}  // namespace tarn
