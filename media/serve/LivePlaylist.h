#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "media/serve/PieceWalker.h"
#include "media/serve/Playlist.h"

namespace tarn {

// The newest pieces of a channel, for all who watch it live: the same ones with the same numbers
// for everybody, counted on for as long as somebody asks. The caller lets one thread in at a time.
class LivePlaylist {
 public:
  // What becomes of a piece: what has to be known before it is filled in, it cannot be played, or
  // not all of it is safe yet.
  enum class Judgement { kTake, kLeaveOut, kWait };
  using Judge = std::function<Judgement(PlaylistPiece* piece)>;

  // Adds what has become safe since the last call. `rows` is the list of now.
  void refresh(const std::shared_ptr<const ServedRows>& rows, int channel, int64_t nowUs,
               const Judge& judge);
  // Nothing was recorded since anybody looked first.
  bool isEmpty() const { return pieces_.empty(); }
  const std::vector<PlaylistPiece>& pieces() const { return pieces_; }
  std::string text() const { return playlistText(pieces_, sequence_, discontinuities_, false); }

 private:
  static constexpr size_t kPieces = 6;
  static constexpr int64_t kForgetUs = 30000000;

  std::vector<PlaylistPiece> pieces_;
  uint64_t sequence_ = 0;         // of the first piece
  uint64_t discontinuities_ = 0;  // in front of it
  uint32_t streamID_ = 0;         // where it goes on; 0: not begun
  uint32_t index_ = 0;
  int64_t askedUs_ = 0;
};

}  // namespace tarn
