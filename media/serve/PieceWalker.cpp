#include "media/serve/PieceWalker.h"

#include <algorithm>
#include <utility>

#include "media/serve/Timeline.h"

namespace tarn {
namespace {

// A piece ends with the first key picture behind this, and anywhere behind that.
constexpr int64_t kUsualUs = 1900000;
constexpr int64_t kLongestUs = 10000000;
constexpr int64_t kShownUs = 40000;  // of a picture that nothing tells of how long it is shown
constexpr int64_t kLongestShownUs = 1000000;
constexpr int64_t kBlockUs = 500000;  // of sound, which a row's end does not tell the length of

const std::vector<uint32_t>& noPlaces() {
  static const std::vector<uint32_t> none;
  return none;
}

}  // namespace

PieceWalker::PieceWalker(std::shared_ptr<const ServedRows> rows, int channel, Kind kind,
                         Formats formats)
    : rows_(std::move(rows)), kind_(kind), formats_(formats), places_(&noPlaces()) {
  const auto& all = kind == Kind::kSound ? rows_->soundOf : rows_->videoOf;
  const auto found = all.find(channel);
  if (found != all.end()) places_ = &found->second;
}

uint32_t PieceWalker::streamID() const { return place_ < places_->size() ? row().row.streamID : 0; }

bool PieceWalker::open(size_t place) {
  if (place >= places_->size()) return false;
  if (reader_ != nullptr && place_ == place) return true;
  place_ = place;
  index_ = 0;
  reader_ = std::make_unique<RecordingReader>();
  if (reader_->open(row().row) != 0) {
    reader_.reset();
    return false;
  }
  if (kind_ == Kind::kPictures) format_.begin(reader_.get());
  walked_ = changes_ = false;
  return true;
}

// A recording may go on in the middle of a group where the one before ended with its chunk.
bool PieceWalker::continuesBefore(size_t place) const {
  PictureEntry first;
  if (place == 0 || !reader_->picture(0, &first) || first.isKey() || first.isDiscontinuity())
    return false;
  const ServedRecording& before = rows_->recordings[(*places_)[place - 1]];
  const int64_t gap = rows_->recordings[(*places_)[place]].startUs() - before.endUs();
  return !before.isRunning() && gap >= 0 && gap < Timeline::kJoinUs;
}

bool PieceWalker::toKeyIn(size_t place, int64_t us) {
  if (!open(place)) return false;
  int64_t key = reader_->findKeyPictureBefore(PictureTime::fromMicros(us));
  if (key < 0 && continuesBefore(place)) return toKeyIn(place - 1, us);
  PictureEntry entry;
  for (uint32_t i = 0; key < 0 && i < reader_->pictureCount(); ++i) {
    if (reader_->picture(i, &entry) && entry.isKey()) key = i;
  }
  if (key >= 0) index_ = static_cast<uint32_t>(key);
  return key >= 0;
}

bool PieceWalker::toTime(int64_t us) {
  for (size_t place = 0; place < places_->size(); ++place) {
    const ServedRecording& one = rows_->recordings[(*places_)[place]];
    const int64_t shown = kind_ == Kind::kSound ? kBlockUs : kShownUs;
    const bool over = !one.isRunning() && one.endUs() + shown < us;
    if (!over && toKeyIn(place, us)) return true;
  }
  return false;
}

bool PieceWalker::toKeyBefore(int64_t us) {
  for (size_t place = places_->size(); place-- > 0;) {
    const ServedRecording& one = rows_->recordings[(*places_)[place]];
    if (one.startUs() > us || !open(place)) continue;
    const int64_t key = reader_->findKeyPictureBefore(PictureTime::fromMicros(us));
    if (key < 0) continue;
    index_ = static_cast<uint32_t>(key);
    return true;
  }
  return false;
}

bool PieceWalker::toPicture(uint32_t streamID, uint32_t index) {
  for (size_t place = 0; place < places_->size(); ++place) {
    const uint32_t key = rows_->recordings[(*places_)[place]].row.streamID;
    if (key < streamID) continue;
    place_ = place;
    reader_.reset();
    index_ = key == streamID ? index : 0;
    const uint32_t wanted = index_;
    if (key == streamID && !open(place)) return false;
    index_ = wanted;
    return true;
  }
  return false;
}

bool PieceWalker::toLive(int64_t backUs) {
  for (size_t place = places_->size(); place-- > 0;) {
    if (!rows_->recordings[(*places_)[place]].isRunning()) continue;
    PictureEntry last;
    return open(place) && reader_->pictureCount() > 0 &&
           reader_->picture(reader_->pictureCount() - 1, &last) &&
           toKeyIn(place, last.presentation.totalMicros() - backUs);
  }
  return false;
}

// When the piece's last picture goes, or the next one comes where that is known.
int64_t PieceWalker::endOfLast(const Piece& piece, int64_t latestUs, int64_t stepUs) const {
  PictureEntry next;
  const int64_t shown = stepUs > 0 && stepUs < kLongestShownUs ? stepUs : kShownUs;
  if (!reader_->picture(piece.end(), &next) || next.isDiscontinuity()) return latestUs + shown;
  const int64_t at = next.presentation.totalMicros();
  return next.isKey() && at > latestUs ? at : latestUs + shown;
}

// Whether the key picture begins another format; the piece in front of it ends there.
bool PieceWalker::endsAt(const PictureEntry& key, uint32_t index) {
  const bool asked = formats_ == Formats::kOfEveryKey || format_.endsDiffer();
  if (kind_ == Kind::kSound || !key.isKey() || !asked) return false;
  const uint32_t before = format_.format();
  return format_.formatAt(index) != before;
}

bool PieceWalker::cut(bool whole, Piece* out) {
  const uint32_t count = reader_->pictureCount();
  PictureEntry entry;
  while (index_ < count && !reader_->picture(index_, &entry)) ++index_;
  if (index_ >= count) return false;
  const int64_t from = entry.presentation.totalMicros();
  // In front of the first one that is cut here nobody knows what there was.
  const bool change = endsAt(entry, index_) && walked_;
  const bool discontinuity = index_ == 0 || entry.isDiscontinuity() || change || changes_;
  *out = {row().row.streamID, index_,       0, format_.format(), entry.size, from, from,
          entry.isKey(),      discontinuity};
  walked_ = true;
  changes_ = false;
  int64_t latest = from;
  int64_t decoded = entry.decodeTime().totalMicros();
  int64_t step = 0;
  bool ended = false;
  for (out->count = 1; !ended && index_ + out->count < count; ++out->count) {
    ended = !reader_->picture(out->end(), &entry) || entry.isDiscontinuity() ||
            out->count >= kMostPictures || out->bytes + entry.size > kMostBytes;
    const int64_t at = entry.presentation.totalMicros();
    ended = ended || (entry.isKey() && at - from >= kUsualUs) || at - from >= kLongestUs;
    if (!ended) ended = changes_ = endsAt(entry, out->end());
    if (ended) break;
    out->bytes += entry.size;
    latest = std::max(latest, at);
    step = entry.decodeTime().totalMicros() - decoded;
    decoded = entry.decodeTime().totalMicros();
  }
  if (!ended && whole && row().isRunning()) return false;
  out->toUs = endOfLast(*out, latest, step);
  index_ = out->end();
  return true;
}

// What stands in front of the first key picture cannot be decoded, unless the recording before has
// what it needs.
void PieceWalker::passUndecodable() {
  PictureEntry entry;
  if (continuesBefore(place_)) return;
  while (index_ < reader_->pictureCount() && !(reader_->picture(index_, &entry) && entry.isKey()))
    ++index_;
}

bool PieceWalker::next(bool whole, Piece* out) {
  while (place_ < places_->size()) {
    const uint32_t wanted = index_;
    if (reader_ != nullptr || open(place_)) {
      index_ = wanted;
      if (index_ == 0) passUndecodable();
      if (cut(whole, out)) return true;
      if (row().isRunning()) return false;
    }
    if (place_ + 1 >= places_->size()) return false;
    ++place_;
    reader_.reset();
    index_ = 0;
  }
  return false;
}

}  // namespace tarn
