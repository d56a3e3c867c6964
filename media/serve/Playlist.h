#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/PictureSize.h"
#include "media/serve/Piece.h"
#include "media/serve/PieceNames.h"

namespace tarn {

// A piece with what has to be known before it.
struct PlaylistPiece {
  Piece piece;
  InitPlace init;
  uint32_t soundID = 0;  // the sound that comes along has this recording's format; 0: none does
};

// Where its video lies.
inline PiecePlace placeOf(const PlaylistPiece& one, bool keysOnly) {
  const Piece& piece = one.piece;
  return {piece.streamID, piece.first, piece.count, piece.format, one.soundID, keysOnly, false};
}

// Appends a piece; one that has to be decoded in another way than the one before is a discontinuity
// for players.
TARN_API void addPiece(std::vector<PlaylistPiece>* pieces, PlaylistPiece piece);

// An HLS playlist of fragmented MP4. `sequence` is the number of its first piece; an `ended` one
// grows no more. Pure function.
TARN_API std::string playlistText(const std::vector<PlaylistPiece>& pieces, uint64_t sequence,
                                  uint64_t discontinuities, bool ended);

// The playlist that leads to that of `address` and says what has to be decoded: codecs, and the
// most bits a second that a piece of it has. Pure function.
TARN_API std::string masterText(const std::string& address, const std::vector<std::string>& codecs,
                                const std::vector<PlaylistPiece>& pieces, PictureSize size);

}  // namespace tarn
