#include "media/serve/ExportStream.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "media/PictureFormat.h"

namespace tarn {

ExportStream::ExportStream(std::unique_ptr<PieceWalker> walker, int64_t toUs)
    : walker_(std::move(walker)), toUs_(toUs) {}

bool ExportStream::begin() {
  const auto sink = [this](const uint8_t* data, size_t size) {
    made_.append(reinterpret_cast<const char*>(data), size);
    return true;
  };
  // The file begins with its first picture, whose date is in it.
  return takePiece() && movie_.open(FragmentedMovie::Plan(), sink);
}

bool ExportStream::takePiece() {
  if (!walker_->next(false, &piece_) || piece_.fromUs > toUs_) return false;
  next_ = piece_.first;
  return true;
}

bool ExportStream::takePicture() {
  PictureEntry entry;
  RecordingReader* reader = walker_->reader();
  OutputPicture picture;
  // A download can say no more than that it did not come whole. "tarn export" writes what there is,
  // and says what is missing.
  if (!reader->picture(next_, &entry) || !reader->readPicture(entry, &picture.annexB)) return false;
  picture.presentation = entry.presentation;
  picture.decodeOffsetUs = entry.decodeOffsetUs;
  picture.key = entry.isKey();
  if (picture.key && entry.presentation.totalMicros() > toUs_) {
    ended_ = true;
    return true;
  }
  // One description cannot tell of both; the part in front of the change would pass for the whole.
  if (picture.key && isOtherFormat(picture)) return false;
  return movie_.write(picture);
}

bool ExportStream::isOtherFormat(const OutputPicture& key) {
  const ParameterSets sets = parameterSetsOf(key.annexB);
  if (sequence_.empty()) sequence_ = sets.sequence;
  return !sets.sequence.empty() && sets.sequence != sequence_;
}

// One picture more, or the end.
bool ExportStream::makeMore() {
  if (next_ == piece_.end() && !takePiece()) ended_ = true;
  if (!ended_ && !takePicture()) return false;
  if (ended_) return movie_.finish();
  ++next_;
  return true;
}

ssize_t ExportStream::read(char* out, size_t room) {
  if (failed_) return -2;
  if (sent_ == made_.size()) {
    made_.clear();
    sent_ = 0;
    while (made_.empty() && !ended_) {
      failed_ = !makeMore();
      if (failed_) return -2;
    }
    if (made_.empty()) return -1;
  }
  const size_t size = std::min(room, made_.size() - sent_);
  memcpy(out, made_.data() + sent_, size);
  sent_ += size;
  return static_cast<ssize_t>(size);
}

}  // namespace tarn
