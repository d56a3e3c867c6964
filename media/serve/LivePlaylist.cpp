#include "media/serve/LivePlaylist.h"

namespace tarn {
namespace {

// Players want some pieces before they begin.
constexpr int64_t kBackUs = 8000000;

}  // namespace

void LivePlaylist::refresh(const std::shared_ptr<const ServedRows>& rows, int channel,
                           int64_t nowUs, const Judge& judge) {
  PieceWalker walker(rows, channel);
  // Who comes back after a while begins at the newest pictures, as everybody does.
  const bool forgotten = streamID_ != 0 && nowUs - askedUs_ > kForgetUs;
  if (forgotten) {
    sequence_ += pieces_.size();
    pieces_.clear();
  }
  askedUs_ = nowUs;
  const bool placed =
      streamID_ != 0 && !forgotten ? walker.toPicture(streamID_, index_) : walker.toLive(kBackUs);
  if (!placed) return;
  streamID_ = walker.streamID();
  index_ = walker.index();
  PlaylistPiece one;
  while (walker.next(true, &one.piece)) {
    const Judgement judgement = judge(&one);
    if (judgement == Judgement::kWait) return;
    streamID_ = walker.streamID();
    index_ = walker.index();
    if (judgement == Judgement::kLeaveOut) continue;
    addPiece(&pieces_, one);
    if (pieces_.size() <= kPieces) continue;
    if (pieces_[1].piece.discontinuity) ++discontinuities_;
    pieces_.erase(pieces_.begin());
    ++sequence_;
  }
}

}  // namespace tarn
