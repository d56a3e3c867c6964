#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "base/Export.h"
#include "media/serve/PieceMaker.h"
#include "media/serve/Playlist.h"
#include "media/serve/ServedRows.h"

namespace tarn {

// Which beginning the pieces of a recording have. Those that are decoded in the same way share that
// of the first that was asked for: a player that is given another one throws away what it cannot
// decode alone. Any number of threads.
class TARN_API PieceInits {
 public:
  struct Init {
    InitPlace place;  // isNone(): it cannot be told
    std::string codec;
  };

  // Of pictures of a recording from the key picture `format` on.
  Init ofPictures(const ServedRows& rows, uint32_t streamID, uint32_t format);
  // Of a recording of sound that a browser decodes.
  Init ofSound(const ServedRows& rows, uint32_t streamID);
  // Fills in what the piece of a channel has to be decoded with, its sound included. False when
  // that cannot be told. *codecs (or null) has those of it.
  bool complete(const ServedRows& rows, int channel, PlaylistPiece* piece,
                std::vector<std::string>* codecs);

  PieceMaker* maker() { return &maker_; }
  SoundMaker* sound() { return &sound_; }

 private:
  static constexpr size_t kKnown = 4096;

  PieceMaker maker_;
  SoundMaker sound_;
  std::mutex mutex_;
  std::map<std::pair<uint32_t, uint32_t>, Init> inits_;  // guarded by mutex_, as below
  std::map<std::string, InitPlace> ofSets_;
};

}  // namespace tarn
