#include "media/serve/ExportStream.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "media/PictureFormat.h"

namespace tarn {
namespace {

constexpr int64_t kShownUs = 40000;  // of the last picture
constexpr int64_t kWaitMs = 500;     // for the card
constexpr int kMostWaits = 20;

}  // namespace

ExportStream::ExportStream(std::unique_ptr<PieceWalker> walker, SoundToo sound, int64_t toUs,
                           WritersFirst* writers)
    : writers_(writers), walker_(std::move(walker)), sound_(std::move(sound)), toUs_(toUs) {}

bool ExportStream::begin() {
  const auto sink = [this](const uint8_t* data, size_t size) {
    made_.append(reinterpret_cast<const char*>(data), size);
    return true;
  };
  if (!takePiece()) return false;
  if (sound_.format.codec != SoundCodec::kUnknown) {
    const int64_t fromUs = piece_.fromUs - SoundExport::kLeadUs;
    frames_ = std::make_unique<SoundFrames>(sound_.rows, sound_.format, fromUs, INT64_MAX);
    if (frames_->frame() == nullptr) frames_.reset();
  }
  // The file begins with its first picture, whose date is in it.
  FragmentedMovie::Plan plan;
  plan.tracks = frames_ != nullptr ? 2 : 1;
  plan.quickTime = frames_ != nullptr && needsQuickTime(sound_);
  return movie_.open(plan, sink) && (frames_ == nullptr || describe());
}

// A movie of several tracks wants to know all of them first.
bool ExportStream::describe() {
  OutputPicture first;
  return readPicture(&first) && movie_.describe(0, first) && movie_.describe(1, *frames_->frame());
}

// All that begins before that time.
bool ExportStream::writeSoundUntil(int64_t us) {
  for (; frames_ != nullptr && frames_->frame() != nullptr; frames_->next()) {
    if (frames_->frame()->time.totalMicros() >= us) return true;
    if (!movie_.write(*frames_->frame(), 1)) return false;
  }
  return true;
}

bool ExportStream::takePiece() {
  if (!walker_->next(false, &piece_) || piece_.fromUs > toUs_) return false;
  next_ = piece_.first;
  return true;
}

bool ExportStream::readPicture(OutputPicture* picture) {
  PictureEntry entry;
  RecordingReader* reader = walker_->reader();
  // A download can say no more than that it did not come whole. "tarn export" writes what there is,
  // and says what is missing.
  if (!reader->picture(next_, &entry) || !reader->readPicture(entry, &picture->annexB))
    return false;
  picture->presentation = entry.presentation;
  picture->decodeOffsetUs = entry.decodeOffsetUs;
  picture->key = entry.isKey();
  return true;
}

bool ExportStream::takePicture() {
  OutputPicture picture;
  if (!readPicture(&picture)) return false;
  const int64_t at = picture.presentation.totalMicros();
  if (picture.key && at > toUs_) {
    ended_ = true;
    lastUs_ = at;
    return true;
  }
  lastUs_ = std::max(lastUs_, at + kShownUs);
  // One description cannot tell of both; the part in front of the change would pass for the whole.
  if (picture.key && isOtherFormat(picture)) return false;
  return writeSoundUntil(at + picture.decodeOffsetUs) && movie_.write(picture);
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
  if (ended_) return writeSoundUntil(lastUs_) && movie_.finish();
  ++next_;
  return true;
}

ssize_t ExportStream::read(char* out, size_t room) {
  if (failed_) return -2;
  if (sent_ == made_.size()) {
    made_.clear();
    sent_ = 0;
    // When its turn does not come it goes on all the same: a download that stands still is given
    // up.
    if (!writers_->wait(kWaitMs) && ++waits_ % kMostWaits != 0) return 0;
    const WritersFirst::Reading reading(writers_);
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
