#include "media/evidence/GapFinder.h"

#include <algorithm>

#include "db/RowStatus.h"
#include "recorder/card/ChunkChannels.h"

namespace tarn {

void GapFinder::beginAt(int64_t us) {
  lastUs_ = us;
  begun_ = true;
}

void GapFinder::recording(const DB_STREAM* row) {
  if (current_ != nullptr) previous_ = current_;
  current_ = row;
  ended_ = true;
}

// Pictures that are shown earlier than one before them change nothing.
void GapFinder::picture(int64_t us) {
  if (begun_ && us - lastUs_ > kLeastUs) close(us);
  lastUs_ = begun_ ? std::max(lastUs_, us) : us;
  begun_ = true;
  damaged_ = unreadable_ = ended_ = false;
}

void GapFinder::stretch(int64_t fromUs, int64_t toUs) {
  picture(fromUs);
  lastUs_ = std::max(lastUs_, toUs);
}

void GapFinder::missing(Delivery why) {
  (why == Delivery::kRefused ? unreadable_ : damaged_) = true;
}

void GapFinder::endAt(int64_t us) {
  if (current_ != nullptr) previous_ = current_;
  ended_ = true;
  if (begun_ && us - lastUs_ > kLeastUs) close(us);
}

void GapFinder::close(int64_t us) {
  EvidenceGap gap;
  gap.fromUs = lastUs_;
  gap.toUs = us;
  gap.reason = reasonOf(gap, &gap.text);
  gaps_.push_back(gap);
}

// Of recordings whose chunk is another channel's by now nobody knows whose they were.
bool GapFinder::wasGivenUp(const EvidenceGap& gap, std::string* text, bool* certain) const {
  *certain = false;
  for (const GivenUpRecording& one : journal_.givenUp) {
    if (one.toUs < gap.fromUs || one.fromUs > gap.toUs) continue;
    const bool own = chunks_.of(one.chunk) == channel_;
    if (text->empty() || (own && !*certain))
      *text = "recording " + std::to_string(one.streamID) +
              " of this time was given up on the card" +
              (own ? "" : "; of which channel it was the card does not tell any more");
    *certain = *certain || own;
  }
  return !text->empty();
}

GapReason GapFinder::reasonOf(const EvidenceGap& gap, std::string* text) const {
  if (damaged_) {
    *text = "what the card holds of this time is not what was recorded";
    return GapReason::kDamaged;
  }
  if (unreadable_) {
    *text = "the card did not give what it holds of this time; a later try may";
    return GapReason::kUnreadable;
  }
  bool certain = false;
  if (wasGivenUp(gap, text, &certain))
    return certain ? GapReason::kOverwritten : GapReason::kUnknown;
  if (!journal_.error.empty() || journal_.unreadable != 0 ||
      (journal_.oldestKey > 1 && gap.fromUs < journal_.oldestUs)) {
    *text = "the journal of the card does not tell whether anything was recorded then";
    return GapReason::kUnknown;
  }
  if (ended_ && previous_ != nullptr && (previous_->status & kStatusRepaired) != 0) {
    *text = "recording " + std::to_string(previous_->streamID) +
            " was interrupted: it never ended, and a start behind it closed it";
    return GapReason::kInterrupted;
  }
  *text = ended_ ? "nothing was recorded" : "no picture came while it was recorded";
  return GapReason::kNoRecording;
}

}  // namespace tarn
