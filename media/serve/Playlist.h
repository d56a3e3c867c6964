#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/serve/Piece.h"

namespace tarn {

// A piece with what has to be known before it.
struct PlaylistPiece {
  Piece piece;
  uint32_t initID = 0;  // the recording whose beginning it shares
};

// Addresses of pieces, below the channel's folder.
std::string initName(uint32_t streamID);
std::string pieceName(const Piece& piece, bool keysOnly);

// An HLS playlist of fragmented MP4. `sequence` is the number of its first piece; an `ended` one
// grows no more. Pure function.
TARN_API std::string playlistText(const std::vector<PlaylistPiece>& pieces, uint64_t sequence,
                                  uint64_t discontinuities, bool ended);

}  // namespace tarn
