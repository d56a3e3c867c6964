#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/Export.h"
#include "media/MediaOutput.h"
#include "media/serve/Piece.h"
#include "media/serve/PieceNames.h"
#include "media/serve/ServedRows.h"
#include "media/serve/SoundMaker.h"
#include "recorder/recording/RecordingReader.h"

namespace tarn {

// Makes pieces of recordings into fragments of MP4, and what has to be known before them. Times in
// them count from 1970. Any number of threads.
class TARN_API PieceMaker {
 public:
  // How a recording's pictures are to be decoded.
  struct Description {
    uint32_t streamID = 0;
    uint32_t format = 0;  // the key picture that was asked for
    std::string codec;    // "avc1.64001F"
    std::string sets;     // its parameter sets: recordings with the same ones share a beginning
    std::shared_ptr<const OutputPicture> first;  // its first key picture
    std::vector<uint8_t> sequence;               // what of its sets one movie has one of
  };

  using Sound = SoundMaker::Description;
  // Recordings of sound that have anything between two times, in their order.
  using SoundRows = std::function<std::vector<DB_STREAM>(int64_t fromUs, int64_t toUs)>;

  // Of a recording from its key picture `format` on; null when no key picture from there on can be
  // read. Those asked for last are kept.
  std::shared_ptr<const Description> describe(const ServedRecording& recording,
                                              uint32_t format = 0);

  // What has to be known before pieces, into *out; either may be null. False with *error set when
  // it cannot be made, as the pieces below.
  bool init(const Description* pictures, const Sound* sound, std::string* out, std::string* error);
  // Pictures; `sound` (or null) of their time comes along from `soundRows`. Pictures of another
  // format than `place` tells are an error: whoever decodes them has what was told.
  bool piece(const ServedRecording& recording, const PiecePlace& place, const Sound* sound,
             const SoundRows& soundRows, std::string* out, std::string* error);
  // Blocks of a recording of sound.
  bool soundPiece(const ServedRecording& recording, const PiecePlace& place, const Sound& sound,
                  std::string* out, std::string* error);

 private:
  static constexpr size_t kKept = 16;

  std::shared_ptr<const Description> look(const ServedRecording& recording, uint32_t format);

  std::mutex mutex_;
  std::list<std::shared_ptr<const Description>> kept_;  // guarded by mutex_; the latest first
};

}  // namespace tarn
